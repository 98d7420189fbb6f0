// Server side of an rr service: takes requests from <base>/rr/<svc>/req/<client_id>, reports them
// with on_request(origin, body, service name), and publishes answers with response_to_service()
// to <base>/rr/<svc>/res/<client_id>, or to <base>/rr/<svc>/bcast for the destination "all". It
// also follows the clients' presence topics: a Will "lost" emits on_disconnection(client), a
// clean "offline" emits on_end(client). While started it keeps the retained status topic
// <base>/rr/<svc>/status at "online" (the connection's Will turns it "offline").
//
// The origin of a request is always the last level of its topic, which a broker ACL ties to the
// sending client; a "sender" in the body means nothing here. Refused with a level-3 log line and
// otherwise ignored: an origin that is not 1 to 64 characters of [A-Za-z0-9._-] (extra topic
// levels, wildcards, empty), an empty body, a body larger than the configured limit, a body that
// is not JSON or not a JSON object, and an object whose "type" is missing or not a string.
//
// Thread: lives on the protoserver thread (created there by create_server_service). start(),
// stop() and response_to_service() may be called from any thread; the signals are emitted on the
// protoserver thread.
#pragma once

#include "platform/comunication/service/service_rr_base_t.h"

#include <QJsonObject>

namespace comunication::service {

class service_rr_server_t : public service_rr_base_t {
    Q_OBJECT
public:
    service_rr_server_t(const QString& name, protoserver_t* server);
    ~service_rr_server_t() override;

    // The path every message of the service's topics takes, on the protoserver thread. Public so
    // that topics a broker would never deliver (wildcards) can be checked too.
    void receive(const QString& topic, const QByteArray& payload) override;

public slots:
    // Publishes {"type": command, "subtype": state, "payload": data} to one client or, for the
    // destination "all", to every client. A destination that is not a valid client id is
    // refused with a level-3 log line.
    void response_to_service(const QString& command, const QString& destination,
        const QJsonObject& data, const QString& state);

signals:
    void on_request(QString origin, QJsonObject request, QString service);

protected:
    QStringList subscriptions() const override;
    void connected() override;
    void stopping() override;

private:
    void receive_request(const QString& topic, const QString& origin, const QByteArray& payload);
    void receive_presence(const QString& client, const QByteArray& payload);
    void refuse(const QString& client, const QString& reason);
};

} // namespace comunication::service
