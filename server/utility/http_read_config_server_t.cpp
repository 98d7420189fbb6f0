#include "utility/http_read_config_server_t.h"

#include "platform/logs/classlogs.h"
#include "utility/cnfserver.h"
#include "utility/orvane_option_t.h"
#include "utility/utility_t.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>

#include <cstdio>
#include <cstdlib>

namespace utility {

namespace {

constexpr const char* kLogFile = "server/utility/http_read_config_server_t";

#define CONFIG_LOG(message, level) ORVANE_LOG((message), (level), kLogFile)

using paths_o = cnfserver::statics_o::orvane_o::paths_o;
using urls_o = cnfserver::statics_o::orvane_o::urls_o;
using global_o = cnfserver::statics_o::orvane_o::comunication_o::global_o;

QString text_at(const QJsonObject& configuration, const QString& path)
{
    return utility_t::getJsonObjValue(configuration, path).toString();
}

} // namespace

http_read_config_server_t* http_read_config_server_t::instance = nullptr;
QMutex http_read_config_server_t::mutex;
QString http_read_config_server_t::base_url;

http_read_config_server_t::http_read_config_server_t(QObject* parent)
    : QObject(parent)
    , http(base_url.isEmpty() ? cnfserver::base : base_url) // createInstance() holds the mutex
{
}

http_read_config_server_t::~http_read_config_server_t()
{
    QMutexLocker lock(&mutex);
    if (instance == this)
        instance = nullptr;
}

http_read_config_server_t* http_read_config_server_t::createInstance(QObject* parent)
{
    QMutexLocker lock(&mutex);
    if (!instance)
        instance = new http_read_config_server_t(parent);
    return instance;
}

http_read_config_server_t* http_read_config_server_t::getInstance(QObject* parent)
{
    return createInstance(parent);
}

void http_read_config_server_t::destroyInstance()
{
    http_read_config_server_t* old = nullptr;
    {
        QMutexLocker lock(&mutex);
        old = instance;
        instance = nullptr;
    }
    delete old;
}

QString http_read_config_server_t::baseUrl()
{
    QMutexLocker lock(&mutex);
    return base_url.isEmpty() ? cnfserver::base : base_url;
}

void http_read_config_server_t::setBaseUrl(const QString& url)
{
    QMutexLocker lock(&mutex);
    base_url = url;
}

bool http_read_config_server_t::read_configuration()
{
    const QString base = baseUrl();
    http.setBaseUrl(base);

    const httpresponse_t response = http.get(QString());
    if (response.getError()) {
        CONFIG_LOG(QStringLiteral("Config server - wrong reponse to ") + base, 2);
        CONFIG_LOG(QStringLiteral("Config server - %1").arg(response.getErrorString()), 2);
        return false;
    }
    QJsonObject configuration = response.getData().toObject();
    if (configuration.isEmpty()) {
        CONFIG_LOG(QStringLiteral("Config server - wrong reponse to ") + base
                + QStringLiteral(" json is empty"),
            2);
        return false;
    }

    orvane_option_t* options = orvane_option_t::getInstance();
    if (!options) {
        CONFIG_LOG(QStringLiteral("Config server - options object not created"), 2);
        return false;
    }
    options->set_logs_folder(text_at(configuration, paths_o::toString(paths_o::logs)));
    options->set_plugin_folder(text_at(configuration, paths_o::toString(paths_o::plugins)));
    options->set_system_ca_certs(
        text_at(configuration, paths_o::toString(paths_o::system_ca_certs)));
    QList<QString> ca_files;
    const QJsonArray certificates
        = utility_t::getJsonObjValue(configuration, paths_o::toString(paths_o::cacerts)).toArray();
    for (const QJsonValue& certificate : certificates)
        ca_files.append(certificate.toVariant().toString());
    options->set_ca_certs_file(ca_files);
    options->set_client_folder(
        text_at(configuration, paths_o::toString(paths_o::client_communication)));
    options->set_serial(text_at(configuration,
        cnfserver::statics_o::kzrconf_o::toString(cnfserver::statics_o::kzrconf_o::serial)));
    options->set_product_name(text_at(configuration,
        cnfserver::statics_o::device_o::toString(cnfserver::statics_o::device_o::product_name)));
    options->set_cloud_service(text_at(configuration, urls_o::toString(urls_o::cloud_service)));
    options->set_cloud_web(text_at(configuration, urls_o::toString(urls_o::cloud_web)));
    options->set_cloud_mqtt_url(text_at(configuration,
        cnfserver::statics_o::mosquitto_o::toString(
            cnfserver::statics_o::mosquitto_o::mqtt_cloud_url)));
    options->set_installation_id(text_at(configuration,
        cnfserver::installation_o::toString(cnfserver::installation_o::installation_id)));

    check_HTTP_InstallationId(configuration, http, base);
    generate_HTTP_ClientFileConfig(configuration);
    return true;
}

void http_read_config_server_t::check_HTTP_InstallationId(
    QJsonObject& configuration, http_t& client, const QString& prefix)
{
    const QString id_path
        = cnfserver::installation_o::toString(cnfserver::installation_o::installation_id);
    if (!text_at(configuration, id_path).trimmed().isEmpty())
        return;

    CONFIG_LOG(QStringLiteral("Generate new installation_id"), 6);
    const QString installation_id = utility_t::generateInstallationId();
    CONFIG_LOG(QStringLiteral("Save new instalaltion_id in config server: ") + installation_id, 6);

    http_t target = client;
    if (!prefix.isEmpty())
        target.setBaseUrl(prefix);
    const httpresponse_t response
        = target.put(id_path + cnfserver::trigger, QJsonValue(installation_id));
    if (response.getError()) {
        CONFIG_LOG(QStringLiteral("Unable to genarate installation id ..."), 0);
        // Destroying the facility drains its queue, so the line above is written before the
        // process ends.
        utility::logs::classlogs::destroyInstance();
        std::fflush(nullptr);
        std::exit(0);
    }

    QJsonValue root(configuration);
    utility_t::updateJsonValue(root, id_path, QJsonValue(installation_id));
    utility_t::updateJsonValue(
        root, global_o::toString(global_o::installation_id), QJsonValue(installation_id));
    configuration = root.toObject();
    if (orvane_option_t* options = orvane_option_t::getInstance())
        options->set_installation_id(installation_id);
}

bool http_read_config_server_t::generate_HTTP_ClientFileConfig(const QJsonObject& configuration)
{
    orvane_option_t* options = orvane_option_t::getInstance();
    const QString client_folder = options ? options->ClientFolder() : QString();
    const QString path = client_folder + QStringLiteral("/config/comunication.json");
    // Without a client folder the path would land in the file system's root: refuse instead.
    if (client_folder.isEmpty()) {
        CONFIG_LOG(QStringLiteral("Error to craete mqtt configuration client ") + path, 2);
        return false;
    }
    const QJsonObject communication = utility_t::getJsonObjValue(configuration,
        cnfserver::statics_o::orvane_o::toString(cnfserver::statics_o::orvane_o::comunication))
                                          .toObject();
    CONFIG_LOG(QStringLiteral("Save client configuration file to: ") + path, 4);
    QDir().mkpath(QFileInfo(path).absolutePath());
    if (!utility_t::writeToFile(path, communication)) {
        CONFIG_LOG(QStringLiteral("Error to craete mqtt configuration client ") + path, 2);
        return false;
    }
    return true;
}

} // namespace utility
