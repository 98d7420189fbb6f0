// Helpers for the rr layer's tests against a real broker: settings with short delays, a server
// connection with its context-sync service, client connections, and recorders that collect the
// services' signals on the test's own thread (queued), so that the lists are only ever touched
// there.
#pragma once

#include "platform/comunication/config/mosquittocnf_t.h"
#include "platform/comunication/protoserver_t.h"
#include "platform/comunication/service/service_rr_client_t.h"
#include "platform/comunication/service/service_rr_server_t.h"

#include "common/event_wait.h"
#include "common/mosquitto_broker_t.h"

#include <QJsonObject>
#include <QObject>
#include <QStringList>

#include <functional>
#include <memory>

namespace rr_test {

// Processes events until `done` holds or `timeout_ms` passes.
inline bool wait_until(const std::function<bool()>& done, int timeout_ms = 5000)
{
    return test_support::wait_until(done, timeout_ms);
}
using test_support::settle;

comunication::config::mosquittocnf_t settings(
    const test_support::mosquitto_broker_t& broker, const QString& client_id);

struct request_t {
    QString origin;
    QJsonObject body;
    QString service;
};

struct response_t {
    QString type;
    QString subtype;
    QJsonObject payload;
    bool broadcast = false;
};

// A server connection with the context_sync service, its signals recorded.
class server_t : public QObject {
public:
    explicit server_t(const comunication::config::mosquittocnf_t& cnf, bool start = true);
    ~server_t() override;

    comunication::protoserver_t& proto() { return *proto_; }
    comunication::service::service_rr_server_t* service() const { return service_; }

    QList<request_t> requests;
    QStringList disconnections;
    QStringList ends;
    QStringList timeouts_publish;
    QList<int> states;

private:
    std::unique_ptr<comunication::protoserver_t> proto_;
    comunication::service::service_rr_server_t* service_ = nullptr;
};

// A client connection with its context_sync client service, its signals recorded.
class client_t : public QObject {
public:
    explicit client_t(const comunication::config::mosquittocnf_t& cnf, bool start = true);
    ~client_t() override;

    comunication::protoserver_t& proto() { return *proto_; }
    comunication::service::service_rr_client_t* service() const { return service_; }
    // Waits until connected and until a probe published after the subscriptions has come back,
    // which proves that the broker has the subscriptions.
    bool wait_ready(int timeout_ms = 5000);

    QList<response_t> responses;
    QStringList statuses;
    QStringList timeouts_response;

private:
    std::unique_ptr<comunication::protoserver_t> proto_;
    comunication::service::service_rr_client_t* service_ = nullptr;
};

} // namespace rr_test
