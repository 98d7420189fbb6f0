// Synchronous HTTP client with JSON bodies, bound to one base URL; get() and put() take paths
// relative to it ("installation/installation_id?runtriggers=true"). Each call runs a local event
// loop around its own QNetworkAccessManager until the answer arrives or the time-out runs out, so
// an http_t may be used from any thread that may block, one call at a time; it owns no thread and
// emits no signals. Loopback addresses are always reached directly, never through a proxy.
#pragma once

#include "platform/http/httpresponse_t.h"

#include <QByteArray>
#include <QJsonValue>
#include <QString>

class http_t {
public:
    static constexpr int default_timeout_ms = 5000;

    explicit http_t(const QString& base_url = QString(), int timeout_ms = default_timeout_ms);

    httpresponse_t get(const QString& path) const;
    // Sends `body` as JSON text (a bare string or number is sent as such, e.g. "\"abc\"").
    httpresponse_t put(const QString& path, const QJsonValue& body) const;

    QString baseUrl() const { return base_url_; }
    void setBaseUrl(const QString& base_url) { base_url_ = base_url; }
    int timeout() const { return timeout_ms_; }
    void setTimeout(int timeout_ms) { timeout_ms_ = timeout_ms; }

    // base URL + path, with exactly one "/" between them.
    QString url(const QString& path) const;

    // JSON text of any value, and back; fromJsonText sets `ok` false for text that is not JSON.
    static QByteArray toJsonText(const QJsonValue& value);
    static QJsonValue fromJsonText(const QByteArray& text, bool& ok);

private:
    httpresponse_t request(
        const QByteArray& verb, const QString& path, const QByteArray& body) const;

    QString base_url_;
    int timeout_ms_;
};
