#include "platform/comunication/service/service_rr_client_t.h"

#include "platform/comunication/protoserver_t.h"
#include "platform/comunication/utility/json_reader_t.h"
#include "platform/comunication/utility/json_text_t.h"
#include "platform/comunication/utility/rr_topic_t.h"
#include "platform/logs/classlogs.h"

#include <QJsonDocument>
#include <QJsonParseError>

namespace comunication::service {

namespace {
const char* const kLogSource = "server/platform/comunication/service/service_rr_client_t";
}

service_rr_client_t::service_rr_client_t(const QString& name, protoserver_t* server)
    : service_rr_base_t(name, server)
{
}

service_rr_client_t::~service_rr_client_t() = default;

QString service_rr_client_t::getClientId() const
{
    return getProtoserver()->getMosquittoCnf().getClientId();
}

QString service_rr_client_t::getRequestTopic() const
{
    return utility::rr_topic_t::request(
        getProtoserver()->getMosquittoCnf().getTopicBase(), getName(), getClientId());
}

QStringList service_rr_client_t::subscriptions() const
{
    const QString base = getProtoserver()->getMosquittoCnf().getTopicBase();
    return { utility::rr_topic_t::response(base, getName(), getClientId()),
        utility::rr_topic_t::broadcast(base, getName()),
        utility::rr_topic_t::status(base, getName()) };
}

void service_rr_client_t::connected()
{
    publish(utility::rr_topic_t::presence(
                getProtoserver()->getMosquittoCnf().getTopicBase(), getClientId()),
        QByteArrayLiteral("online"));
}

void service_rr_client_t::stopping()
{
    publish(utility::rr_topic_t::presence(
                getProtoserver()->getMosquittoCnf().getTopicBase(), getClientId()),
        QByteArrayLiteral("offline"));
}

QByteArray service_rr_client_t::request_body(const QString& type, const QJsonObject& payload)
{
    const QJsonObject body { { QStringLiteral("type"), type },
        { QStringLiteral("payload"), payload } };
    // Same text as QJsonDocument::toJson(Compact); much cheaper for a chunk's long Base64 data.
    return utility::json_text_t::compact(body);
}

void service_rr_client_t::send_request(const QString& type, const QJsonObject& payload)
{
    send_raw_request(request_body(type, payload));
}

void service_rr_client_t::send_raw_request(const QByteArray& body)
{
    publish(getRequestTopic(), body);
    const int timeout = getProtoserver()->getMosquittoCnf().getResponseTimeoutMs();
    on_own_thread([this, timeout] {
        if (response_deadline_.isForever())
            response_deadline_.setRemainingTime(timeout);
    });
}

void service_rr_client_t::check_response_timeout()
{
    if (response_deadline_.isForever() || !response_deadline_.hasExpired())
        return;
    response_deadline_ = QDeadlineTimer(QDeadlineTimer::Forever);
    ORVANE_LOG(QStringLiteral("[%1] No answer to %2 in time").arg(getName(), getRequestTopic()), 3,
        kLogSource);
    emit on_timeout_response(getRequestTopic());
}

void service_rr_client_t::receive(const QString& topic, const QByteArray& payload)
{
    const QString base = getProtoserver()->getMosquittoCnf().getTopicBase();
    if (topic == utility::rr_topic_t::status(base, getName())) {
        emit on_service_status(QString::fromUtf8(payload));
        return;
    }
    const bool broadcast = topic == utility::rr_topic_t::broadcast(base, getName());
    if (!broadcast && topic != utility::rr_topic_t::response(base, getName(), getClientId()))
        return;
    QJsonParseError error {};
    // Same verdict and document as QJsonDocument::fromJson; much cheaper for a chunk's data.
    const QJsonDocument document = utility::json_reader_t::parse(payload, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()) {
        ORVANE_LOG(
            QStringLiteral("[%1] Answer on %2 ignored: not a JSON object").arg(getName(), topic), 3,
            kLogSource);
        return;
    }
    response_deadline_ = QDeadlineTimer(QDeadlineTimer::Forever);
    const QJsonObject body = document.object();
    emit on_response(body.value(QStringLiteral("type")).toString(),
        body.value(QStringLiteral("subtype")).toString(),
        body.value(QStringLiteral("payload")).toObject(), broadcast);
    response_published();
}

} // namespace comunication::service
