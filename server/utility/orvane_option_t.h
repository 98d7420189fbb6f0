// The server's process-wide options: build and version facts given by the host application,
// device facts read from the system properties ("getprop"), folders, cloud endpoints, logging
// and timing settings, and the translators installed in the host application.
//
// A QObject singleton: createInstance/getInstance/destroyInstance take a static mutex; the
// accessors and setters take none, since the host fills the object at start-up and reads it
// afterwards. It lives on the thread that creates it, owns nothing but its values (translators
// belong to the host) and emits no signals.
#pragma once

#include "context_sync/context_sync_export.h"

#include "platform/database/definition/type_brand_t.h"
#include "utility/type_configuration_mode_t.h"

#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QObject>
#include <QRecursiveMutex>
#include <QString>

class QCoreApplication;
class QTranslator;

namespace utility {

class CONTEXT_SYNC_EXPORT orvane_option_t : public QObject {
    Q_OBJECT

public:
    static orvane_option_t* createInstance(QCoreApplication* application, const QString& platform,
        const QString& version, const QJsonObject& versions, const QString& build_branch,
        const QString& build_commit, const QString& build_time, QObject* parent = nullptr);
    static orvane_option_t* getInstance();
    static void destroyInstance();

    static const QString default_language;
    // Default of ChunkCacheSize: 32 MiB.
    static constexpr qint64 DEFAULT_CHUNK_CACHE_SIZE = qint64(32) * 1024 * 1024;
    static const QString unknown_language;

    void setDefaultOption();

    // Device properties; each runs "getprop <property>" and returns the value it stored.
    QString read_language();
    QString read_manufacture();
    database::definition::type_brand_t read_brand();
    QString read_image_version();

    // Translators of the host application, by name. installTranslator loads
    // "<file_name>_<Language()>" from `folder` into `translator` and installs it.
    bool installTranslator(
        QTranslator* translator, const QString& file_name, const QString& folder);
    void removeTranslator(const QString& name, QTranslator* translator);
    bool update_traslator(QTranslator* translator, const QString& file_name, const QString& folder);
    QMap<QString, QTranslator*> Traslators() const;

    // Logs every option, then the tree of the application's resources.
    void print();
    // Logs the entries of `folder` indented by `depth`, recursing into sub-folders.
    void print_dir(const QString& folder, int& depth);

    QString Platform() const { return platform; }
    QString Manufacturer() const { return manufacturer; }
    QString Language() const { return language; }
    QString ProductName() const { return product_name; }
    QString CloudService() const { return cloud_service; }
    QString CloudWeb() const { return cloud_web; }
    QString CloudMQTTUrl() const { return cloud_mqtt_url; }
    QString Version() const { return version; }
    QJsonObject Versions() const { return versions; }
    QString BuildBranch() const { return build_branch; }
    QString BuildCommit() const { return build_commit; }
    QString BuildTime() const { return build_time; }
    database::definition::type_brand_t Brand() const { return brand; }
    QString ImageVersion() const { return image_version; }
    QList<QString> ImageVersions() const { return image_versions; }
    QString PluginFolder() const { return plugin_folder; }
    QString SystemCaCerts() const { return system_ca_certs; }
    QString ClientFolder() const { return client_folder; }
    QList<QString> CaCertsFile() const { return ca_certs_file; }
    QString InstallationId() const { return installation_id; }
    QString Serial() const { return serial; }
    int LevelBusMonitor() const { return level_bus_monitor; }
    bool Avahi_browse_option() const { return avahi_browse_option; }
    unsigned LogLevelStd() const { return log_level_std; }
    unsigned LogLevelFile() const { return log_level_file; }
    unsigned LogSize() const { return log_size; }
    unsigned LogRotate() const { return log_rotate; }
    QString LogFileName() const { return log_file_name; }
    QString LogsFolder() const { return logs_folder; }
    int DelayToSave() const { return delay_to_save; }
    int DelayIterationToForceSave() const { return delay_iteration_to_force_save; }
    int UpdateDateTimeToDatabase() const { return update_date_time_to_database; }
    // Bytes of encoded chunks the file senders share (0: no cache).
    qint64 ChunkCacheSize() const { return chunk_cache_size; }
    type_configuration_mode_t ConfigurationMode() const { return configuration_mode; }

    void set_log_rotate(unsigned value) { log_rotate = value; }
    void set_log_size(unsigned value) { log_size = value; }
    void set_log_level_file(unsigned value) { log_level_file = value; }
    void set_log_level_std(unsigned value) { log_level_std = value; }
    void set_level_bus_monitor(int value) { level_bus_monitor = value; }
    void set_avahi_browse_option(bool value) { avahi_browse_option = value; }
    // Test benches only: lets commands run that a release installation refuses.
    void set_special_fuction_for_testing(bool value) { special_function_for_testing = value; }

    // Filled by the configuration server client or by the host (file mode, command line).
    void set_product_name(const QString& value) { product_name = value; }
    void set_cloud_service(const QString& value) { cloud_service = value; }
    void set_cloud_web(const QString& value) { cloud_web = value; }
    void set_cloud_mqtt_url(const QString& value) { cloud_mqtt_url = value; }
    void set_plugin_folder(const QString& value) { plugin_folder = value; }
    void set_system_ca_certs(const QString& value) { system_ca_certs = value; }
    void set_client_folder(const QString& value) { client_folder = value; }
    void set_ca_certs_file(const QList<QString>& value) { ca_certs_file = value; }
    void set_installation_id(const QString& value) { installation_id = value; }
    void set_serial(const QString& value) { serial = value; }
    void set_logs_folder(const QString& value) { logs_folder = value; }
    void set_log_file_name(const QString& value) { log_file_name = value; }
    void set_delay_to_save(int value) { delay_to_save = value; }
    void set_delay_iteration_to_force_save(int value) { delay_iteration_to_force_save = value; }
    void set_update_date_time_to_database(int value) { update_date_time_to_database = value; }
    void set_chunk_cache_size(qint64 value) { chunk_cache_size = value; }
    void set_configuration_mode(const type_configuration_mode_t& value)
    {
        configuration_mode = value;
    }

private:
    explicit orvane_option_t(QObject* parent);
    ~orvane_option_t() override;

    // Runs "getprop <property>"; returns its exit code and the simplified answer.
    static int read_property(const QString& property, QString& answer);
    void remove_all_translators();

    static orvane_option_t* instance;
    static QRecursiveMutex mutex;
    static QCoreApplication* app;
    static QMap<QString, QTranslator*> traslators;

    QString platform;
    QString manufacturer;
    QString language;
    QString product_name;
    QString cloud_service;
    QString cloud_web;
    QString cloud_mqtt_url;
    QString version;
    QJsonObject versions;
    QString build_branch;
    QString build_commit;
    QString build_time;
    database::definition::type_brand_t brand = database::definition::type_brand_t::QUELMO;
    QString image_version;
    QList<QString> image_versions;
    QString plugin_folder;
    QString system_ca_certs;
    QString client_folder;
    QList<QString> ca_certs_file;
    QString installation_id;
    QString serial;
    int level_bus_monitor = 0;
    bool avahi_browse_option = false;
    bool special_function_for_testing = false;
    unsigned log_level_std = 4;
    unsigned log_level_file = 5;
    unsigned log_size = 25;
    unsigned log_rotate = 5;
    QString log_file_name = QStringLiteral("server-orvane");
    QString logs_folder;
    int delay_to_save = 500;
    int delay_iteration_to_force_save = 5;
    int update_date_time_to_database = 600;
    qint64 chunk_cache_size = DEFAULT_CHUNK_CACHE_SIZE;
    type_configuration_mode_t configuration_mode = type_configuration_mode_t::http;
};

} // namespace utility
