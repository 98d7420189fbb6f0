#include "platform/comunication/config/mosquittocnf_t.h"

#include "platform/logs/classlogs.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonValue>

#include <algorithm>

namespace comunication::config {

namespace {

const char* const kLogSource = "server/platform/comunication/config/mosquittocnf_t";

QString string_or(const QJsonObject& object, const char* key, const QString& fallback)
{
    const QJsonValue value = object.value(QLatin1String(key));
    return value.isString() ? value.toString() : fallback;
}

int int_or(const QJsonObject& object, const char* key, int fallback)
{
    const QJsonValue value = object.value(QLatin1String(key));
    if (value.isDouble())
        return value.toInt(fallback);
    if (value.isString()) {
        bool ok = false;
        const int parsed = value.toString().toInt(&ok);
        return ok ? parsed : fallback;
    }
    return fallback;
}

int parse_protocol(const QJsonValue& value, int fallback)
{
    if (value.isUndefined() || value.isNull())
        return fallback;
    const QString text = value.isDouble() ? QString::number(value.toInt()) : value.toString();
    if (text == QLatin1String("5")
        || text.compare(QLatin1String("mqttv5"), Qt::CaseInsensitive) == 0)
        return mosquittocnf_t::protocol_v5;
    if (text == QLatin1String("4") || text == QLatin1String("311") || text == QLatin1String("3.1.1")
        || text.compare(QLatin1String("mqttv311"), Qt::CaseInsensitive) == 0)
        return mosquittocnf_t::protocol_v311;
    ORVANE_LOG(
        QStringLiteral("Unknown MQTT protocol version %1, using 5").arg(text), 3, kLogSource);
    return fallback;
}

} // namespace

mosquittocnf_t::mosquittocnf_t()
    : host_(QStringLiteral("127.0.0.1"))
    , port_(1883)
    , client_id_(QStringLiteral("context-sync-server"))
    , protocol_version_(protocol_v5)
    , keepalive_(30)
    , topic_base_(QStringLiteral("orvane"))
{
}

mosquittocnf_t::mosquittocnf_t(const QString& host, int port, const QString& client_id)
    : mosquittocnf_t()
{
    host_ = host;
    port_ = port;
    client_id_ = client_id;
}

mosquittocnf_t mosquittocnf_t::fromClientFolder(const QString& folder, bool* ok)
{
    return fromFile(QDir(folder).filePath(QStringLiteral("config/comunication.json")), ok);
}

mosquittocnf_t mosquittocnf_t::fromFile(const QString& path, bool* ok)
{
    if (ok)
        *ok = false;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        ORVANE_LOG(QStringLiteral("Unable to read MQTT settings %1, using defaults").arg(path), 2,
            kLogSource);
        return mosquittocnf_t();
    }
    QJsonParseError error {};
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()) {
        ORVANE_LOG(
            QStringLiteral("MQTT settings %1 are not a JSON object, using defaults").arg(path), 2,
            kLogSource);
        return mosquittocnf_t();
    }
    if (ok)
        *ok = true;
    return fromJson(document.object());
}

mosquittocnf_t mosquittocnf_t::fromJson(const QJsonObject& document)
{
    mosquittocnf_t cnf;
    const QJsonObject global = document.value(QStringLiteral("global")).toObject();
    cnf.installation_id_ = string_or(global, "installation_id", cnf.installation_id_);

    const QJsonObject mqtt = document.value(QStringLiteral("mqtt")).toObject();
    cnf.host_ = string_or(mqtt, "host", cnf.host_);
    cnf.port_ = int_or(mqtt, "port", cnf.port_);
    cnf.client_id_ = string_or(mqtt, "client_id", cnf.client_id_);
    cnf.username_ = string_or(mqtt, "username", cnf.username_);
    cnf.password_ = string_or(mqtt, "password", cnf.password_);
    cnf.protocol_version_
        = parse_protocol(mqtt.value(QStringLiteral("protocol_version")), cnf.protocol_version_);
    cnf.keepalive_ = int_or(mqtt, "keepalive", cnf.keepalive_);
    cnf.topic_base_ = string_or(mqtt, "topic_base", cnf.topic_base_);
    const QJsonObject tls = mqtt.value(QStringLiteral("tls")).toObject();
    cnf.ca_file_ = string_or(tls, "ca_file", cnf.ca_file_);
    cnf.cert_file_ = string_or(tls, "cert_file", cnf.cert_file_);
    cnf.key_file_ = string_or(tls, "key_file", cnf.key_file_);
    return cnf;
}

QJsonObject mosquittocnf_t::toJson() const
{
    QJsonObject tls { { QStringLiteral("ca_file"), ca_file_ },
        { QStringLiteral("cert_file"), cert_file_ }, { QStringLiteral("key_file"), key_file_ } };
    QJsonObject mqtt { { QStringLiteral("host"), host_ }, { QStringLiteral("port"), port_ },
        { QStringLiteral("client_id"), client_id_ }, { QStringLiteral("username"), username_ },
        { QStringLiteral("password"), password_ },
        { QStringLiteral("protocol_version"), protocol_version_ },
        { QStringLiteral("keepalive"), keepalive_ }, { QStringLiteral("topic_base"), topic_base_ },
        { QStringLiteral("tls"), tls } };
    return QJsonObject { { QStringLiteral("global"),
                             QJsonObject {
                                 { QStringLiteral("installation_id"), installation_id_ } } },
        { QStringLiteral("mqtt"), mqtt } };
}

bool mosquittocnf_t::isValidClientId(const QString& id)
{
    if (id.isEmpty() || id.size() > 64)
        return false;
    return std::all_of(id.cbegin(), id.cend(), [](QChar c) {
        const char16_t u = c.unicode();
        return (u >= 'A' && u <= 'Z') || (u >= 'a' && u <= 'z') || (u >= '0' && u <= '9')
            || u == '.' || u == '_' || u == '-';
    });
}

void mosquittocnf_t::setCredentials(const QString& username, const QString& password)
{
    username_ = username;
    password_ = password;
}

void mosquittocnf_t::setProtocolVersion(int version)
{
    protocol_version_ = version == protocol_v311 ? protocol_v311 : protocol_v5;
}

void mosquittocnf_t::setTls(
    const QString& ca_file, const QString& cert_file, const QString& key_file)
{
    ca_file_ = ca_file;
    cert_file_ = cert_file;
    key_file_ = key_file;
}

void mosquittocnf_t::setReconnectDelays(int min_ms, int max_ms)
{
    reconnect_min_ms_ = std::max(1, min_ms);
    reconnect_max_ms_ = std::max(reconnect_min_ms_, max_ms);
}

} // namespace comunication::config
