// Outcome of one synchronous request made by http_t. A request failed when getError() is true:
// the connection failed, the time-out ran out, the server answered with a status of 400 or more,
// or the body was not JSON. getErrorString() then says which, in words. getData() holds the parsed
// JSON body (any JSON value, not only objects); it is null when the body was empty or unusable.
// A plain value type: no thread affinity, no signals.
#pragma once

#include <QByteArray>
#include <QJsonValue>
#include <QString>

class httpresponse_t {
public:
    httpresponse_t() = default;

    static httpresponse_t success(int status, const QByteArray& body, const QJsonValue& data);
    static httpresponse_t failure(int status, const QByteArray& body, const QString& reason);

    bool getError() const { return error_; }
    QString getErrorString() const { return error_string_; }
    QJsonValue getData() const { return data_; }
    // HTTP status code, 0 when no answer arrived.
    int getStatus() const { return status_; }
    QByteArray getBody() const { return body_; }

private:
    bool error_ = true;
    QString error_string_ = QStringLiteral("no request made");
    QJsonValue data_;
    int status_ = 0;
    QByteArray body_;
};
