// Client side of an rr service, for programs that talk to a service (the client library, tools,
// tests). It sends requests as the connection's own client id and receives the service's answers:
//
//   protoserver_t connection(cnf);            // cnf.getClientId() names this client
//   service_rr_client_t* client = nullptr;
//   QMetaObject::invokeMethod(&connection, [&] {
//       client = connection.create_client_service("context_sync"); },
//       Qt::BlockingQueuedConnection);
//   QObject::connect(client, &service_rr_client_t::on_response, receiver, handler);  // queued
//   client->start(service_rr_base_t::finish_on_stop);
//   client->send_request("ctx_request", {});
//
// Topics: requests go to <base>/rr/<svc>/req/<own id> as {"type", "payload"}; answers come from
// <base>/rr/<svc>/res/<own id> and <base>/rr/<svc>/bcast and are reported by on_response; the
// service's retained status comes from <base>/rr/<svc>/status (on_service_status). The client
// announces itself on <base>/rr/presence/<own id>: "online" on every connection, "offline" on
// stop(), and the connection's Will says "lost" when it drops without a goodbye.
//
// After each request, if no answer at all arrives within the response time-out of the settings,
// on_timeout_response(request topic) is emitted once.
//
// Thread: lives on the protoserver thread (created by create_client_service); start(), stop(),
// send_request() and send_raw_request() may be called from any thread; signals are emitted on the
// protoserver thread.
#pragma once

#include "platform/comunication/service/service_rr_base_t.h"

#include <QDeadlineTimer>
#include <QJsonObject>

namespace comunication::service {

class service_rr_client_t : public service_rr_base_t {
    Q_OBJECT
public:
    service_rr_client_t(const QString& name, protoserver_t* server);
    ~service_rr_client_t() override;

    // This client's id, the last level of its request topic.
    QString getClientId() const;
    QString getRequestTopic() const;

    // The text send_request() publishes for (`type`, `payload`). Pure, callable on any thread, so
    // that a large request (an upload's chunk) can be built off the event loop and handed to
    // send_raw_request().
    static QByteArray request_body(const QString& type, const QJsonObject& payload);

    void receive(const QString& topic, const QByteArray& payload) override;
    // Called by the protoserver's housekeeping timer.
    void check_response_timeout();

public slots:
    void send_request(const QString& type, const QJsonObject& payload);
    // Publishes `body` unchanged on this client's request topic (tools and tests that need to
    // send what a well-behaved client would not).
    void send_raw_request(const QByteArray& body);

signals:
    // An answer: its "type", "subtype" and "payload"; `broadcast` tells a message to every client
    // from one addressed to this client alone.
    void on_response(QString type, QString subtype, QJsonObject payload, bool broadcast);
    // The service's status text ("online", "offline").
    void on_service_status(QString status);

protected:
    QStringList subscriptions() const override;
    void connected() override;
    void stopping() override;

private:
    QDeadlineTimer response_deadline_ { QDeadlineTimer::Forever };
};

} // namespace comunication::service
