// A hand-driven server for the client's protocol tests: the platform's real MQTT connection and
// server-side rr service under the name "context_sync", with no sync service behind it. Each
// request is recorded and handed to `react`, which may answer with respond(); so a test can play
// what a well-behaved server would not do (corrupt chunks, missing acknowledgements, a batch that
// ends early). Requests and reactions run on the test's thread (queued from the protoserver).
#pragma once

#include "platform/comunication/protoserver_t.h"
#include "platform/comunication/service/service_rr_server_t.h"

#include "common/mosquitto_broker_t.h"

#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QString>

#include <functional>
#include <memory>

namespace client_test {

class scripted_server_t : public QObject {
public:
    struct request_t {
        QString origin;
        QString type;
        QJsonObject payload;
        // payload["message"] as an object (chunks, acknowledgements)
        QJsonObject message() const;
    };

    explicit scripted_server_t(const test_support::mosquitto_broker_t& broker);
    ~scripted_server_t() override;

    // Starts the service and waits until its connection is up.
    bool start();
    void respond(const QString& type, const QString& destination, const QJsonObject& payload,
        const QString& subtype = QString());
    QList<request_t> of_type(const QString& type) const;

    QList<request_t> requests;
    std::function<void(const request_t&)> react;

private:
    std::unique_ptr<comunication::protoserver_t> proto_;
    comunication::service::service_rr_server_t* service_ = nullptr;
};

} // namespace client_test
