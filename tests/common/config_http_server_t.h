// Runs tests/common/config_http_server.py: a real HTTP server on a free loopback port that
// serves a JSON document and records PUT requests. The server process is started by start() and
// killed by stop() or the destructor. Used from the test's thread only.
#pragma once

#include <QJsonObject>
#include <QList>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>

namespace test_support {

class config_http_server_t {
public:
    struct options_t {
        bool fail_put = false; // PUT answers 500
        bool non_json = false; // GET answers 200 with an HTML body
        int get_status = 200; // GET answers this status
        int delay_ms = 0; // wait before every answer
    };

    struct put_t {
        QString path; // path and query as requested, e.g. "/installation/installation_id?x=1"
        QString body; // raw body text
    };

    config_http_server_t() = default;
    ~config_http_server_t();
    config_http_server_t(const config_http_server_t&) = delete;
    config_http_server_t& operator=(const config_http_server_t&) = delete;

    // Starts serving `document`; false (with the reason in error()) if the server did not come up
    // within 10 s.
    bool start(const QJsonObject& document, const options_t& options);
    bool start(const QJsonObject& document) { return start(document, options_t()); }
    void stop();

    quint16 port() const { return port_; }
    // "http://127.0.0.1:<port>/"
    QString base_url() const;
    QList<put_t> puts() const;
    QString error() const { return error_; }

    // A loopback port on which nothing listens (bound and released again).
    static quint16 unused_port();

private:
    QTemporaryDir dir_;
    QProcess process_;
    quint16 port_ = 0;
    QString error_;
};

} // namespace test_support
