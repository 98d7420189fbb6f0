#include "platform/comunication/service/service_rr_server_t.h"

#include "platform/comunication/config/mosquittocnf_t.h"
#include "platform/comunication/protoserver_t.h"
#include "platform/comunication/utility/destination_publish_client_t.h"
#include "platform/comunication/utility/json_reader_t.h"
#include "platform/comunication/utility/json_text_t.h"
#include "platform/comunication/utility/rr_topic_t.h"
#include "platform/logs/classlogs.h"

#include <QJsonDocument>
#include <QJsonParseError>

namespace comunication::service {

namespace {
const char* const kLogSource = "server/platform/comunication/service/service_rr_server_t";
}

service_rr_server_t::service_rr_server_t(const QString& name, protoserver_t* server)
    : service_rr_base_t(name, server)
{
}

service_rr_server_t::~service_rr_server_t() = default;

QStringList service_rr_server_t::subscriptions() const
{
    const QString base = getProtoserver()->getMosquittoCnf().getTopicBase();
    return { utility::rr_topic_t::requestFilter(base, getName()),
        utility::rr_topic_t::presenceFilter(base) };
}

void service_rr_server_t::connected()
{
    const QString base = getProtoserver()->getMosquittoCnf().getTopicBase();
    publish(utility::rr_topic_t::status(base, getName()), QByteArrayLiteral("online"), true);
}

void service_rr_server_t::stopping()
{
    const QString base = getProtoserver()->getMosquittoCnf().getTopicBase();
    publish(utility::rr_topic_t::status(base, getName()), QByteArrayLiteral("offline"), true);
}

void service_rr_server_t::receive(const QString& topic, const QByteArray& payload)
{
    const QString base = getProtoserver()->getMosquittoCnf().getTopicBase();
    const QString request_prefix = utility::rr_topic_t::requestPrefix(base, getName());
    const QString origin = utility::rr_topic_t::tail(topic, request_prefix);
    if (!origin.isNull()) {
        receive_request(topic, origin, payload);
        return;
    }
    // "<base>/rr/<svc>/req" itself also matches the request filter: a request without origin.
    if (topic + QLatin1Char('/') == request_prefix) {
        receive_request(topic, QString(), payload);
        return;
    }
    const QString client
        = utility::rr_topic_t::tail(topic, utility::rr_topic_t::presencePrefix(base));
    if (!client.isNull())
        receive_presence(client, payload);
}

void service_rr_server_t::refuse(const QString& client, const QString& reason)
{
    ORVANE_LOG(
        QStringLiteral("[%1] Request from client %2 refused: %3").arg(getName(), client, reason), 3,
        kLogSource);
}

void service_rr_server_t::receive_request(
    const QString& topic, const QString& origin, const QByteArray& payload)
{
    if (!config::mosquittocnf_t::isValidClientId(origin)) {
        ORVANE_LOG(QStringLiteral("[%1] Request on topic %2 refused: \"%3\" is not a valid client "
                                  "id")
                       .arg(getName(), topic, origin),
            3, kLogSource);
        return;
    }
    if (payload.isEmpty()) {
        refuse(origin, QStringLiteral("empty body"));
        return;
    }
    const int limit = getProtoserver()->getMosquittoCnf().getMaxRequestBytes();
    if (payload.size() > limit) {
        refuse(origin,
            QStringLiteral("body of %1 bytes exceeds the limit of %2 bytes")
                .arg(payload.size())
                .arg(limit));
        return;
    }
    QJsonParseError error {};
    // Same verdict and document as QJsonDocument::fromJson; much cheaper for a chunk's data.
    const QJsonDocument document = utility::json_reader_t::parse(payload, &error);
    if (error.error != QJsonParseError::NoError) {
        refuse(origin, QStringLiteral("body is not JSON"));
        return;
    }
    if (!document.isObject()) {
        refuse(origin, QStringLiteral("body is not a JSON object"));
        return;
    }
    const QJsonObject body = document.object();
    if (!body.value(QStringLiteral("type")).isString()) {
        refuse(origin, QStringLiteral("\"type\" is missing or not a string"));
        return;
    }
    emit on_request(origin, body, getName());
    request_received();
}

void service_rr_server_t::receive_presence(const QString& client, const QByteArray& payload)
{
    if (!config::mosquittocnf_t::isValidClientId(client)) {
        ORVANE_LOG(QStringLiteral("[%1] Presence of \"%2\" ignored: not a valid client id")
                       .arg(getName(), client),
            3, kLogSource);
        return;
    }
    if (payload == "lost")
        emit on_disconnection(client);
    else if (payload == "offline")
        emit on_end(client);
}

void service_rr_server_t::response_to_service(const QString& command, const QString& destination,
    const QJsonObject& data, const QString& state)
{
    // Direct calls come from pool workers too; the publication itself is queued by publish().
    const QString base = getProtoserver()->getMosquittoCnf().getTopicBase();
    QString topic;
    if (utility::destination_publish_client_t(destination).isAll()) {
        topic = utility::rr_topic_t::broadcast(base, getName());
    } else if (config::mosquittocnf_t::isValidClientId(destination)) {
        topic = utility::rr_topic_t::response(base, getName(), destination);
    } else {
        ORVANE_LOG(QStringLiteral("[%1] Answer %2 refused: \"%3\" is not a valid client id")
                       .arg(getName(), command, destination),
            3, kLogSource);
        return;
    }
    const QJsonObject envelope { { QStringLiteral("type"), command },
        { QStringLiteral("subtype"), state }, { QStringLiteral("payload"), data } };
    // Same text as QJsonDocument::toJson(Compact); much cheaper for a chunk's long Base64 data.
    publish(topic, utility::json_text_t::compact(envelope));
    on_own_thread([this] { response_published(); });
}

} // namespace comunication::service
