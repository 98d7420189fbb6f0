#include "utility/cnfserver.h"

namespace utility {

namespace {

// Paths of groups under "static/", "realtime/" and "orvane/" end with "/" after the key; the
// installation group's do not. Both forms resolve to the same member (see utility_t::getJsonValue).
QString folder_key(const QString& prefix, const QString& key)
{
    return prefix + key + QLatin1Char('/');
}

} // namespace

const QString cnfserver::base = QStringLiteral("http://127.0.0.1:4321/");
const QString cnfserver::trigger = QStringLiteral("?runtriggers=true");

QString cnfserver::toString(const QString& path)
{
    return base + path;
}

const QString cnfserver::installation_o::base = QStringLiteral("installation/");
const QString cnfserver::installation_o::installation_id = QStringLiteral("installation_id");
const QString cnfserver::installation_o::mqtt_devices = QStringLiteral("mqtt_devices");
const QString cnfserver::installation_o::cloud_enabled = QStringLiteral("cloud_enabled");
const QString cnfserver::installation_o::master_version = QStringLiteral("master_version");
const QString cnfserver::installation_o::master = QStringLiteral("master");
const QString cnfserver::installation_o::master_model = QStringLiteral("master_model");

QString cnfserver::installation_o::toString(const QString& key)
{
    return base + key;
}

const QString cnfserver::installation_o::cloud_o::base = QStringLiteral("cloud/");
const QString cnfserver::installation_o::cloud_o::cloud_api_token
    = QStringLiteral("cloud_api_token");

QString cnfserver::installation_o::cloud_o::toString(const QString& key)
{
    return installation_o::base + base + key;
}

const QString cnfserver::statics_o::base = QStringLiteral("static/");

QString cnfserver::statics_o::toString(const QString& key)
{
    return folder_key(base, key);
}

const QString cnfserver::statics_o::kzrconf_o::base = QStringLiteral("kzrconf/");
const QString cnfserver::statics_o::kzrconf_o::serial = QStringLiteral("serial");

QString cnfserver::statics_o::kzrconf_o::toString(const QString& key)
{
    return folder_key(statics_o::base + base, key);
}

const QString cnfserver::statics_o::device_o::base = QStringLiteral("device/");
const QString cnfserver::statics_o::device_o::product_code = QStringLiteral("product_code");
const QString cnfserver::statics_o::device_o::product_name = QStringLiteral("product_name");
const QString cnfserver::statics_o::device_o::version = QStringLiteral("version");

QString cnfserver::statics_o::device_o::toString(const QString& key)
{
    return folder_key(statics_o::base + base, key);
}

const QString cnfserver::statics_o::orvane_o::base = QStringLiteral("orvane/");
const QString cnfserver::statics_o::orvane_o::comunication = QStringLiteral("comunication");
const QString cnfserver::statics_o::orvane_o::zeroconf = QStringLiteral("zeroconf");

QString cnfserver::statics_o::orvane_o::toString(const QString& key)
{
    return folder_key(statics_o::base + base, key);
}

const QString cnfserver::statics_o::orvane_o::comunication_o::base
    = QStringLiteral("comunication/");

QString cnfserver::statics_o::orvane_o::comunication_o::toString(const QString& key)
{
    return folder_key(statics_o::base + orvane_o::base + base, key);
}

const QString cnfserver::statics_o::orvane_o::comunication_o::global_o::base
    = QStringLiteral("global/");
const QString cnfserver::statics_o::orvane_o::comunication_o::global_o::installation_id
    = QStringLiteral("installation_id");

QString cnfserver::statics_o::orvane_o::comunication_o::global_o::toString(const QString& key)
{
    return folder_key(statics_o::base + orvane_o::base + comunication_o::base + base, key);
}

const QString cnfserver::statics_o::orvane_o::paths_o::base = QStringLiteral("paths/");
const QString cnfserver::statics_o::orvane_o::paths_o::cacerts = QStringLiteral("cacerts");
const QString cnfserver::statics_o::orvane_o::paths_o::plugins = QStringLiteral("plugins");
const QString cnfserver::statics_o::orvane_o::paths_o::logs = QStringLiteral("logs");
const QString cnfserver::statics_o::orvane_o::paths_o::client_communication
    = QStringLiteral("client_communication");
const QString cnfserver::statics_o::orvane_o::paths_o::system_ca_certs
    = QStringLiteral("system_ca_certs");

QString cnfserver::statics_o::orvane_o::paths_o::toString(const QString& key)
{
    return folder_key(statics_o::base + orvane_o::base + base, key);
}

const QString cnfserver::statics_o::orvane_o::urls_o::base = QStringLiteral("urls/");
const QString cnfserver::statics_o::orvane_o::urls_o::cloud_service
    = QStringLiteral("cloud_service");
const QString cnfserver::statics_o::orvane_o::urls_o::cloud_web = QStringLiteral("cloud_web");

QString cnfserver::statics_o::orvane_o::urls_o::toString(const QString& key)
{
    return folder_key(statics_o::base + orvane_o::base + base, key);
}

const QString cnfserver::statics_o::mosquitto_o::base = QStringLiteral("mosquitto/");
const QString cnfserver::statics_o::mosquitto_o::mqtt_cloud_url = QStringLiteral("mqtt_cloud_url");

QString cnfserver::statics_o::mosquitto_o::toString(const QString& key)
{
    return folder_key(statics_o::base + base, key);
}

const QString cnfserver::realtime_o::base = QStringLiteral("realtime/");

QString cnfserver::realtime_o::toString(const QString& key)
{
    return folder_key(base, key);
}

const QString cnfserver::realtime_o::orvane_o::base = QStringLiteral("orvane/");
const QString cnfserver::realtime_o::orvane_o::database = QStringLiteral("database");

QString cnfserver::realtime_o::orvane_o::toString(const QString& key)
{
    return folder_key(realtime_o::base + base, key);
}

const QString cnfserver::realtime_o::orvane_o::database_o::base = QStringLiteral("database/");
const QString cnfserver::realtime_o::orvane_o::database_o::installation
    = QStringLiteral("installation");

QString cnfserver::realtime_o::orvane_o::database_o::toString(const QString& key)
{
    return folder_key(realtime_o::base + orvane_o::base + base, key);
}

const QString cnfserver::orvane_o::base = QStringLiteral("orvane/");
const QString cnfserver::orvane_o::database = QStringLiteral("database");
const QString cnfserver::orvane_o::presencesimulation = QStringLiteral("presencesimulation");
const QString cnfserver::orvane_o::preserved_realtime = QStringLiteral("preserved_realtime");
const QString cnfserver::orvane_o::baos_stick_params = QStringLiteral("baos_stick_params");

QString cnfserver::orvane_o::toString(const QString& key)
{
    return folder_key(base, key);
}

} // namespace utility
