#include "host/host_settings_t.h"

#include "platform/logs/classlogs.h"
#include "utility/cnfserver.h"
#include "utility/orvane_option_t.h"
#include "utility/utility_t.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonValue>

namespace host {

namespace {

const char* const kLogSource = "server/host/host_settings_t";

using paths_o = utility::cnfserver::statics_o::orvane_o::paths_o;
using urls_o = utility::cnfserver::statics_o::orvane_o::urls_o;
using global_o = utility::cnfserver::statics_o::orvane_o::comunication_o::global_o;
using installation_o = utility::cnfserver::installation_o;

QString text_at(const QJsonObject& document, const QString& path)
{
    return utility::utility_t::getJsonObjValue(document, path).toVariant().toString();
}

} // namespace

QString host_settings_t::normalise_root(const QString& dir)
{
    QString root = QDir::cleanPath(QDir(dir).absolutePath());
    if (!root.endsWith(QLatin1Char('/')))
        root += QLatin1Char('/');
    return root;
}

QString host_settings_t::default_state_dir(const QString& context_root)
{
    QDir parent(QDir::cleanPath(context_root));
    parent.cdUp();
    return QDir::cleanPath(parent.absoluteFilePath(QStringLiteral("context_sync_state")));
}

bool host_settings_t::read_document(const QString& path, QJsonObject& document, QString& error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        error = QStringLiteral("cannot read settings file %1: %2").arg(path, file.errorString());
        return false;
    }
    QJsonParseError parse_error {};
    const QJsonDocument parsed = QJsonDocument::fromJson(file.readAll(), &parse_error);
    if (parse_error.error != QJsonParseError::NoError) {
        error = QStringLiteral("settings file %1 is not JSON: %2 at offset %3")
                    .arg(path, parse_error.errorString())
                    .arg(parse_error.offset);
        return false;
    }
    if (!parsed.isObject()) {
        error = QStringLiteral("settings file %1 is not a JSON object").arg(path);
        return false;
    }
    document = parsed.object();
    return true;
}

void host_settings_t::apply_document(const QJsonObject& document, utility::orvane_option_t& options)
{
    options.set_logs_folder(text_at(document, paths_o::toString(paths_o::logs)));
    options.set_plugin_folder(text_at(document, paths_o::toString(paths_o::plugins)));
    options.set_system_ca_certs(text_at(document, paths_o::toString(paths_o::system_ca_certs)));
    QList<QString> ca_files;
    const QJsonArray certificates
        = utility::utility_t::getJsonObjValue(document, paths_o::toString(paths_o::cacerts))
              .toArray();
    for (const QJsonValue& certificate : certificates)
        ca_files.append(certificate.toVariant().toString());
    options.set_ca_certs_file(ca_files);
    options.set_client_folder(text_at(document, paths_o::toString(paths_o::client_communication)));
    options.set_serial(text_at(document,
        utility::cnfserver::statics_o::kzrconf_o::toString(
            utility::cnfserver::statics_o::kzrconf_o::serial)));
    options.set_product_name(text_at(document,
        utility::cnfserver::statics_o::device_o::toString(
            utility::cnfserver::statics_o::device_o::product_name)));
    options.set_cloud_service(text_at(document, urls_o::toString(urls_o::cloud_service)));
    options.set_cloud_web(text_at(document, urls_o::toString(urls_o::cloud_web)));
    options.set_cloud_mqtt_url(text_at(document,
        utility::cnfserver::statics_o::mosquitto_o::toString(
            utility::cnfserver::statics_o::mosquitto_o::mqtt_cloud_url)));
    options.set_installation_id(
        text_at(document, installation_o::toString(installation_o::installation_id)));
}

QString host_settings_t::ensure_installation_id(
    QJsonObject& document, const QString& client_folder, utility::orvane_option_t& options)
{
    const QString id_path = installation_o::toString(installation_o::installation_id);
    QString id = text_at(document, id_path).trimmed();
    if (id.isEmpty()) {
        const QString client_file
            = QDir(client_folder).filePath(QStringLiteral("config/comunication.json"));
        if (QFileInfo::exists(client_file)) {
            id = utility::utility_t::readFromFile(client_file)
                     .value(QStringLiteral("global"))
                     .toObject()
                     .value(QStringLiteral("installation_id"))
                     .toString()
                     .trimmed();
        }
        if (!id.isEmpty()) {
            ORVANE_LOG(QStringLiteral("Installation id %1 kept from %2").arg(id, client_file), 6,
                kLogSource);
        } else {
            id = utility::utility_t::generateInstallationId();
            ORVANE_LOG(QStringLiteral("Generated new installation id %1").arg(id), 4, kLogSource);
        }
    }
    QJsonValue root(document);
    utility::utility_t::updateJsonValue(root, id_path, QJsonValue(id));
    utility::utility_t::updateJsonValue(
        root, global_o::toString(global_o::installation_id), QJsonValue(id));
    document = root.toObject();
    options.set_installation_id(id);
    return id;
}

comunication::config::mosquittocnf_t host_settings_t::mqtt_settings(
    const QString& client_folder, const QString& broker_host, int broker_port)
{
    // An unreadable file is logged by the reader and leaves the defaults.
    comunication::config::mosquittocnf_t cnf
        = comunication::config::mosquittocnf_t::fromClientFolder(client_folder);
    if (!broker_host.isEmpty()) {
        ORVANE_LOG(QStringLiteral("MQTT broker %1:%2 from the command line replaces %3:%4")
                       .arg(broker_host)
                       .arg(broker_port)
                       .arg(cnf.getHost())
                       .arg(cnf.getPort()),
            4, kLogSource);
        cnf.setHost(broker_host);
        cnf.setPort(broker_port);
    }
    return cnf;
}

} // namespace host
