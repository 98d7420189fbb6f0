// A private broker, a hand-driven server (scripted_server_t) on it and one connected client, for
// the client's transfer tests that play the server's side by hand. Used from the test's thread
// only; the client, the server and the broker are stopped when the fixture dies, in that order.
#pragma once

#include "context_sync_client/client_connection_t.h"

#include "common/mosquitto_broker_t.h"
#include "scripted_server_t.h"

#include <QString>

#include <memory>

namespace client_test {

class peer_fixture_t {
public:
    // Starts the broker and the server, then connects a client under `client_id`; false when any
    // of them fails.
    bool start(const QString& client_id);
    // Makes the server acknowledge every chunk as the server's receiver does.
    void acknowledge_all();

    test_support::mosquitto_broker_t broker;
    std::unique_ptr<scripted_server_t> server;
    std::unique_ptr<context_sync_client::client_connection_t> client;
};

} // namespace client_test
