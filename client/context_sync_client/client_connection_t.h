// client_connection_t is a client's one connection to the context-sync service: it opens an MQTT
// connection to the broker under the client's own id (through the platform's protoserver and its
// client-side rr service), sends requests as {"type", "payload"} and reports every answer and
// broadcast of the service as one packet_received signal. The operation classes (list, download,
// upload, requests) all talk to the server through it.
//
// Thread: the object lives on the thread that creates it (the program's main thread); the MQTT
// connection runs on the protoserver's own thread and its signals reach this object queued, so
// packet_received is always emitted on the owner's thread. open() and wait_until() spin a local
// event loop and must be called on the owner's thread.
// Owns: the protoserver (and through it the client service).
// Signals: packet_received per answer or broadcast; service_status_changed when the service's
// retained status ("online", "offline") arrives; connection_lost when an open connection drops;
// connected each time the broker accepts the connection (the first time and after every loss).
#pragma once

#include <QJsonObject>
#include <QObject>
#include <QString>

#include <functional>
#include <memory>

namespace comunication {
class protoserver_t;
namespace service {
class service_rr_client_t;
}
} // namespace comunication

namespace context_sync_client {

class client_connection_t : public QObject {
    Q_OBJECT
public:
    // Name of the rr service that the server runs.
    static const QString SERVICE_NAME;

    struct settings_t {
        QString host = QStringLiteral("127.0.0.1");
        int port = 1883;
        // Empty: a random "ctxsync-<8 hex digits>".
        QString client_id;
        QString topic_base = QStringLiteral("orvane");
        QString username;
        QString password;
        QString ca_file;
        QString cert_file;
        QString key_file;
        // 5 (MQTT 5) or 4 (MQTT 3.1.1, for brokers that speak nothing newer).
        int protocol_version = 5;
    };

    explicit client_connection_t(const settings_t& settings, QObject* parent = nullptr);
    ~client_connection_t() override;

    client_connection_t(const client_connection_t&) = delete;
    client_connection_t& operator=(const client_connection_t&) = delete;

    // Connects and waits at most `timeout_ms` for the broker to accept the connection. On failure
    // returns false and writes why to `error`.
    bool open(int timeout_ms, QString* error = nullptr);
    bool isConnected() const;

    QString clientId() const { return client_id_; }
    QString brokerText() const;
    // Last retained status of the service ("online", "offline"); empty when none was received.
    QString serviceStatus() const { return service_status_; }

    // Publishes one request {"type": type, "payload": payload} on this client's request topic.
    void send(const QString& type, const QJsonObject& payload);
    // Publishes a body as it is (tests that need to send what a well-behaved client would not).
    void send_raw(const QByteArray& body);

    // Processes events on this thread until `done` returns true (true) or `timeout_ms` passes
    // (false). `done` is checked after every event batch.
    bool wait_until(const std::function<bool()>& done, int timeout_ms);

    // A random valid client id, "ctxsync-" followed by 8 hexadecimal digits.
    static QString random_client_id();

signals:
    void packet_received(QString type, QString subtype, QJsonObject payload, bool broadcast);
    void service_status_changed(QString status);
    void connection_lost();
    void connected();

private:
    settings_t settings_;
    QString client_id_;
    QString service_status_;
    std::unique_ptr<comunication::protoserver_t> proto_;
    comunication::service::service_rr_client_t* service_ = nullptr;
};

} // namespace context_sync_client
