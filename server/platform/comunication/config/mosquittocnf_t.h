// Settings of the process's MQTT connection. They are read from "<client folder>/config/
// comunication.json", a document of the shape
//   {"global": {"installation_id": ...},
//    "mqtt": {"host", "port", "client_id", "username", "password", "protocol_version",
//             "keepalive", "topic_base", "tls": {"ca_file", "cert_file", "key_file"}}}
// where every missing member keeps its default (127.0.0.1, 1883, "context-sync-server", MQTT 5,
// 30 s, "orvane", no credentials, no TLS). The object can also be built from explicit values (the
// host's --broker option, tests). Besides the wire settings it carries the connection's timing:
// reconnect back-off, publish/subscribe/response time-outs and the largest request body accepted;
// the defaults suit production and tests shorten them.
//
// protocol_version accepts 5 (default) and 4, "3.1.1" or 311 for MQTT 3.1.1.
//
// Plain value type: no thread affinity, no signals.
#pragma once

#include <QJsonObject>
#include <QString>

namespace comunication::config {

class mosquittocnf_t {
public:
    static constexpr int protocol_v5 = 5;
    static constexpr int protocol_v311 = 4;

    mosquittocnf_t();
    mosquittocnf_t(const QString& host, int port, const QString& client_id);

    // Reads "<folder>/config/comunication.json". A missing or unreadable file, or one that is not
    // a JSON object, leaves the defaults, logs at level 2 and sets `ok` to false.
    static mosquittocnf_t fromClientFolder(const QString& folder, bool* ok = nullptr);
    static mosquittocnf_t fromFile(const QString& path, bool* ok = nullptr);
    static mosquittocnf_t fromJson(const QJsonObject& document);
    // The document shape above, with the current values (credentials included).
    QJsonObject toJson() const;

    // True when `id` is 1 to 64 characters of [A-Za-z0-9._-]: the only client ids that the rr
    // layer accepts, on its own connection and as the origin of a request.
    static bool isValidClientId(const QString& id);

    QString getHost() const { return host_; }
    int getPort() const { return port_; }
    QString getClientId() const { return client_id_; }
    QString getUsername() const { return username_; }
    QString getPassword() const { return password_; }
    int getProtocolVersion() const { return protocol_version_; }
    int getKeepalive() const { return keepalive_; }
    QString getTopicBase() const { return topic_base_; }
    QString getInstallationId() const { return installation_id_; }
    QString getCaFile() const { return ca_file_; }
    QString getCertFile() const { return cert_file_; }
    QString getKeyFile() const { return key_file_; }
    bool isTls() const { return !ca_file_.isEmpty(); }
    bool getCleanSession() const { return clean_session_; }

    int getReconnectMinMs() const { return reconnect_min_ms_; }
    int getReconnectMaxMs() const { return reconnect_max_ms_; }
    int getPublishTimeoutMs() const { return publish_timeout_ms_; }
    int getSubscribeTimeoutMs() const { return subscribe_timeout_ms_; }
    int getResponseTimeoutMs() const { return response_timeout_ms_; }
    int getMaxRequestBytes() const { return max_request_bytes_; }

    void setHost(const QString& host) { host_ = host; }
    void setPort(int port) { port_ = port; }
    void setClientId(const QString& id) { client_id_ = id; }
    void setCredentials(const QString& username, const QString& password);
    void setProtocolVersion(int version);
    void setKeepalive(int seconds) { keepalive_ = seconds; }
    void setTopicBase(const QString& base) { topic_base_ = base; }
    void setInstallationId(const QString& id) { installation_id_ = id; }
    void setTls(const QString& ca_file, const QString& cert_file = QString(),
        const QString& key_file = QString());
    // false keeps the broker session (subscriptions and QoS 1 messages) across disconnections.
    void setCleanSession(bool clean) { clean_session_ = clean; }

    void setReconnectDelays(int min_ms, int max_ms);
    void setPublishTimeoutMs(int ms) { publish_timeout_ms_ = ms; }
    void setSubscribeTimeoutMs(int ms) { subscribe_timeout_ms_ = ms; }
    void setResponseTimeoutMs(int ms) { response_timeout_ms_ = ms; }
    void setMaxRequestBytes(int bytes) { max_request_bytes_ = bytes; }

private:
    QString host_;
    int port_;
    QString client_id_;
    QString username_;
    QString password_;
    int protocol_version_;
    int keepalive_;
    QString topic_base_;
    QString installation_id_;
    QString ca_file_;
    QString cert_file_;
    QString key_file_;
    bool clean_session_ = true;

    int reconnect_min_ms_ = 1000;
    int reconnect_max_ms_ = 30000;
    int publish_timeout_ms_ = 10000;
    int subscribe_timeout_ms_ = 10000;
    int response_timeout_ms_ = 10000;
    // A chunk of 512000 bytes grows by a third in Base64; 2 MiB leaves room for the envelope.
    int max_request_bytes_ = 2 * 1024 * 1024;
};

} // namespace comunication::config
