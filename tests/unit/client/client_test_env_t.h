// What the client's tests run against: a private mosquitto, the real context_sync_server program
// on a temporary context root (with its background/ folder), and client connections to them.
// start() returns once the service has announced itself "online" on its retained status topic,
// so a test may send requests at once. The server's console output is kept at level 2 and read
// regularly, so the child never blocks on a full pipe.
//
// Used from the test's thread only; everything is stopped and removed when the object dies.
#pragma once

#include "context_sync_client/client_connection_t.h"
#include "context_sync_client/context_tree_t.h"

#include "common/event_wait.h"
#include "common/mosquitto_broker_t.h"
#include "common/temp_tree_t.h"
#include "server_process_t.h"

#include <QString>

#include <functional>
#include <memory>

namespace client_test {

using test_support::wait_until;

class client_test_env_t {
public:
    client_test_env_t();
    ~client_test_env_t();

    bool start();
    // Kills the server (SIGKILL) and starts it again on the same root.
    bool restart_server();

    test_support::mosquitto_broker_t& broker() { return broker_; }
    server_e2e::server_process_t& server() { return *server_; }
    // The server's context root, with a trailing "/".
    const test_support::temp_tree_t& root() const { return root_; }
    QString broker_text() const;

    context_sync_client::client_connection_t::settings_t settings(
        const QString& client_id = QString()) const;
    // A connected client; null when the connection failed.
    std::unique_ptr<context_sync_client::client_connection_t> connect(
        const QString& client_id = QString()) const;

    // Waits until the server's list equals `expected`.
    bool wait_for_server_tree(const context_sync_client::file_map_t& expected, int timeout_ms);
    // The server's list (empty map on failure).
    context_sync_client::file_map_t server_tree();

private:
    bool launch_server();

    test_support::mosquitto_broker_t broker_;
    test_support::temp_tree_t root_;
    test_support::temp_tree_t state_;
    std::unique_ptr<server_e2e::server_process_t> server_;
};

} // namespace client_test
