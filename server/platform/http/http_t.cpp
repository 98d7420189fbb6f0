#include "platform/http/http_t.h"

#include <QEventLoop>
#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTimer>
#include <QUrl>

http_t::http_t(const QString& base_url, int timeout_ms)
    : base_url_(base_url)
    , timeout_ms_(timeout_ms)
{
}

QString http_t::url(const QString& path) const
{
    if (base_url_.isEmpty())
        return path;
    QString result = base_url_;
    if (!result.endsWith(QLatin1Char('/')))
        result += QLatin1Char('/');
    return path.startsWith(QLatin1Char('/')) ? result + path.mid(1) : result + path;
}

QByteArray http_t::toJsonText(const QJsonValue& value)
{
    if (value.isObject())
        return QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact);
    if (value.isArray())
        return QJsonDocument(value.toArray()).toJson(QJsonDocument::Compact);
    if (value.isUndefined())
        return QByteArrayLiteral("null");
    // A document holds only arrays and objects: write the value as the one element of an array
    // and strip the brackets.
    const QByteArray wrapped = QJsonDocument(QJsonArray { value }).toJson(QJsonDocument::Compact);
    return wrapped.mid(1, wrapped.size() - 2);
}

QJsonValue http_t::fromJsonText(const QByteArray& text, bool& ok)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson("[" + text + "]", &error);
    ok = error.error == QJsonParseError::NoError && document.array().size() == 1;
    return ok ? document.array().at(0) : QJsonValue();
}

httpresponse_t http_t::get(const QString& path) const
{
    return request(QByteArrayLiteral("GET"), path, QByteArray());
}

httpresponse_t http_t::put(const QString& path, const QJsonValue& body) const
{
    return request(QByteArrayLiteral("PUT"), path, toJsonText(body));
}

httpresponse_t http_t::request(
    const QByteArray& verb, const QString& path, const QByteArray& body) const
{
    const QUrl target(url(path));
    if (!target.isValid() || target.scheme().isEmpty() || target.host().isEmpty())
        return httpresponse_t::failure(0, {}, QStringLiteral("invalid URL: %1").arg(url(path)));

    QNetworkAccessManager manager;
    const QHostAddress host(target.host());
    if (target.host() == QLatin1String("localhost") || (!host.isNull() && host.isLoopback()))
        manager.setProxy(QNetworkProxy::NoProxy);

    QNetworkRequest request(target);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    request.setRawHeader("Accept", "application/json");

    QNetworkReply* reply = verb == "PUT" ? manager.put(request, body) : manager.get(request);

    QEventLoop loop;
    QTimer timer;
    timer.setSingleShot(true);
    bool timed_out = false;
    QObject::connect(&timer, &QTimer::timeout, &loop, [&] {
        timed_out = true;
        reply->abort();
    });
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    if (!reply->isFinished()) {
        timer.start(timeout_ms_);
        loop.exec(QEventLoop::ExcludeUserInputEvents);
    }
    timer.stop();

    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    const QByteArray answer = reply->readAll();
    const QNetworkReply::NetworkError network_error = reply->error();
    const QString network_error_text = reply->errorString();
    delete reply;

    if (timed_out)
        return httpresponse_t::failure(
            status, answer, QStringLiteral("no answer within %1 ms").arg(timeout_ms_));
    if (status >= 400)
        return httpresponse_t::failure(
            status, answer, QStringLiteral("HTTP status %1").arg(status));
    if (network_error != QNetworkReply::NoError)
        return httpresponse_t::failure(status, answer, network_error_text);
    if (answer.trimmed().isEmpty())
        return httpresponse_t::success(status, answer, QJsonValue());
    bool ok = false;
    const QJsonValue data = fromJsonText(answer, ok);
    if (!ok)
        return httpresponse_t::failure(status, answer, QStringLiteral("answer is not JSON"));
    return httpresponse_t::success(status, answer, data);
}
