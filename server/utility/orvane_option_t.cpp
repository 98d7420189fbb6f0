#include "utility/orvane_option_t.h"

#include "platform/logs/classlogs.h"
#include "utility/LogStream.h"
#include "utility/http_read_config_server_t.h"
#include "utility/utility_t.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QTranslator>

namespace utility {

namespace {

constexpr const char* kLogFile = "server/utility/orvane_option_t";
constexpr int kPropertyTimeoutMs = 2000;

const QString kFrameLine = QStringLiteral(
    "::----------------------------------------------------------------------------::");
const QString kSpecialLine = QStringLiteral(
    "::============================================================================::");
const QString kDashLine = QString(80, QLatin1Char('-'));

} // namespace

#define OPTION_LOG(message, level) ORVANE_LOG((message), (level), kLogFile)
#define OPTION_PRINT ::utility::logs::LogStream(::utility::logs::Info, __func__, kLogFile, __LINE__)

orvane_option_t* orvane_option_t::instance = nullptr;
QRecursiveMutex orvane_option_t::mutex;
QCoreApplication* orvane_option_t::app = nullptr;
QMap<QString, QTranslator*> orvane_option_t::traslators;
const QString orvane_option_t::default_language = QStringLiteral("en_EN");
const QString orvane_option_t::unknown_language = QStringLiteral("unknown");

orvane_option_t::orvane_option_t(QObject* parent)
    : QObject(parent)
{
}

orvane_option_t::~orvane_option_t()
{
    // A parent may delete the object before destroyInstance(); never leave a dangling instance.
    QMutexLocker lock(&mutex);
    if (instance == this)
        instance = nullptr;
}

orvane_option_t* orvane_option_t::createInstance(QCoreApplication* application,
    const QString& platform_, const QString& version_, const QJsonObject& versions_,
    const QString& build_branch_, const QString& build_commit_, const QString& build_time_,
    QObject* parent)
{
    // Recursive: the property readers run execProcess, which asks for the instance again.
    QMutexLocker lock(&mutex);
    if (!instance)
        instance = new orvane_option_t(parent);
    app = application;
    instance->platform = platform_;
    instance->version = version_;
    instance->versions = versions_;
    instance->build_branch = build_branch_;
    instance->build_commit = build_commit_;
    instance->build_time = build_time_;
    instance->read_language();
    instance->read_manufacture();
    instance->read_brand();
    instance->read_image_version();
    instance->setDefaultOption();
    return instance;
}

orvane_option_t* orvane_option_t::getInstance()
{
    QMutexLocker lock(&mutex);
    return instance;
}

void orvane_option_t::destroyInstance()
{
    QMutexLocker lock(&mutex);
    delete instance;
    instance = nullptr;
}

void orvane_option_t::setDefaultOption()
{
    log_level_std = 4;
    log_level_file = 5;
    log_size = 25;
    log_rotate = 5;
    log_file_name = QStringLiteral("server-orvane");
    avahi_browse_option = false;
    delay_to_save = 500;
    delay_iteration_to_force_save = 5;
    update_date_time_to_database = 600;
    chunk_cache_size = DEFAULT_CHUNK_CACHE_SIZE;
    level_bus_monitor = 0;
    configuration_mode = type_configuration_mode_t::http;
}

int orvane_option_t::read_property(const QString& property, QString& answer)
{
    QString standard_error;
    const int exit_code = utility_t::execProcess(
        QStringLiteral("getprop"), { property }, kPropertyTimeoutMs, answer, standard_error);
    answer = answer.simplified().trimmed();
    return exit_code;
}

QString orvane_option_t::read_language()
{
    QString answer;
    const int exit_code = read_property(QStringLiteral("persist.sys.locale"), answer);
    QString new_language;
    if (exit_code != 0 || answer.isEmpty()) {
        new_language = default_language;
        OPTION_LOG(QStringLiteral("Set unknown language ... ") + new_language, 3);
    } else {
        // The property reads "it-it"; translations are named "it_IT".
        const qsizetype dash = answer.indexOf(QLatin1Char('-'));
        new_language = dash < 0
            ? answer
            : answer.left(dash) + QLatin1Char('_') + answer.mid(dash + 1).toUpper();
    }
    if (new_language != language)
        remove_all_translators();
    language = new_language;
    return language;
}

QString orvane_option_t::read_manufacture()
{
    QString answer;
    if (read_property(QStringLiteral("ro.product.manufacturer"), answer) != 0) {
        manufacturer = QStringLiteral("unknown");
        OPTION_LOG(QStringLiteral("Unknown manufacturer ... "), 3);
    } else {
        manufacturer = answer;
    }
    return manufacturer;
}

database::definition::type_brand_t orvane_option_t::read_brand()
{
    QString answer;
    if (read_property(QStringLiteral("ro.product.brand"), answer) != 0) {
        brand = database::definition::type_brand_t::fromString(QStringLiteral("unknown"));
        OPTION_LOG(QStringLiteral("Unknown brand apply Quelmo ... "), 3);
    } else {
        brand = database::definition::type_brand_t::fromString(answer);
    }
    return brand;
}

QString orvane_option_t::read_image_version()
{
    QString answer;
    if (read_property(QStringLiteral("ro.build.display.id"), answer) != 0) {
        image_version.clear();
        image_versions.clear();
        OPTION_LOG(QStringLiteral("Unknown image version ... "), 3);
    } else {
        image_version = answer;
        image_versions = answer.isEmpty() ? QList<QString>() : answer.split(QLatin1Char('-'));
    }
    return image_version;
}

void orvane_option_t::remove_all_translators()
{
    if (app) {
        for (QTranslator* translator : std::as_const(traslators))
            app->removeTranslator(translator);
    }
    traslators.clear();
}

bool orvane_option_t::installTranslator(
    QTranslator* translator, const QString& file_name, const QString& folder)
{
    if (!translator)
        return false;
    if (!translator->load(file_name + QLatin1Char('_') + language, folder)) {
        OPTION_LOG(QStringLiteral("Unable to load translation %1_%2 from %3")
                       .arg(file_name, language, folder),
            3);
        return false;
    }
    // installTranslator() answers false for a translator without messages but installs it all
    // the same, so the table records it either way.
    if (app)
        app->installTranslator(translator);
    traslators.insert(file_name, translator);
    return true;
}

void orvane_option_t::removeTranslator(const QString& name, QTranslator* translator)
{
    if (app && translator)
        app->removeTranslator(translator);
    traslators.remove(name);
}

bool orvane_option_t::update_traslator(
    QTranslator* translator, const QString& file_name, const QString& folder)
{
    removeTranslator(file_name, translator);
    return installTranslator(translator, file_name, folder);
}

QMap<QString, QTranslator*> orvane_option_t::Traslators() const
{
    return traslators;
}

void orvane_option_t::print()
{
    OPTION_PRINT << kFrameLine;
    if (special_function_for_testing) {
        OPTION_PRINT << kSpecialLine;
        OPTION_PRINT << "SPECIAL FUNCTION FOR TESTING ENABLE";
        OPTION_PRINT << "This makes it possible to execute commands normally prohibited in release "
                        "execution.";
        OPTION_PRINT << "Not enabled it in real installation.";
        OPTION_PRINT << "This could degrade performance and fail to provide the necessary safety";
        OPTION_PRINT << kSpecialLine;
    }
    OPTION_PRINT << "Versions: ";
    for (auto it = versions.constBegin(); it != versions.constEnd(); ++it) {
        const QString value
            = it.value().isString() ? it.value().toString() : it.value().toVariant().toString();
        OPTION_PRINT << " - " << it.key() << ": " << value;
    }
    OPTION_PRINT << "Build branch: " << build_branch;
    OPTION_PRINT << "Build commit: " << build_commit;
    OPTION_PRINT << "Build time: " << build_time;
    OPTION_PRINT << "Image version: " << image_version;
    OPTION_PRINT << "Language: " << language;
    OPTION_PRINT << "Browse avahi: " << (avahi_browse_option ? "true" : "false");
    OPTION_PRINT << "Serial device: " << serial;
    OPTION_PRINT << "Brand: " << brand.ToString();
    OPTION_PRINT << "Product name: " << product_name;
    OPTION_PRINT << "Url config server: " << http_read_config_server_t::baseUrl();
    OPTION_PRINT << "Installation id: " << installation_id;
    OPTION_PRINT << "Folder Log: " << logs_folder;
    OPTION_PRINT << "Folder plugin: " << plugin_folder;
    OPTION_PRINT << "System CA certs: " << system_ca_certs;
    OPTION_PRINT << "Folder client: " << client_folder;
    OPTION_PRINT << "File certs: ";
    for (const QString& file : std::as_const(ca_certs_file))
        OPTION_PRINT << " - " << file;
    OPTION_PRINT << "Bus monitor: " << level_bus_monitor;
    OPTION_PRINT << "Cloud Web url: " << cloud_web;
    OPTION_PRINT << "Cloud Service url: " << cloud_service;
    OPTION_PRINT << "Cloud MQTT url: " << cloud_mqtt_url;
    OPTION_PRINT << "Starting server with log level stdout: " << log_level_std;
    OPTION_PRINT << "Starting server with log level file: " << log_level_file;
    OPTION_PRINT << "Starting server with log size: " << log_size << " MB";
    OPTION_PRINT << "Starting server with log rotation: " << log_rotate;
    OPTION_PRINT << "Dalay to save: " << delay_to_save << " msec.";
    OPTION_PRINT << "Iteration force save: " << delay_iteration_to_force_save;
    OPTION_PRINT << "Update datetime to realtime db: " << update_date_time_to_database << " sec.";
    OPTION_PRINT << kDashLine;
    OPTION_PRINT << "Resource";
    OPTION_PRINT << kDashLine;
    int depth = 0;
    print_dir(QStringLiteral(":/"), depth);
    OPTION_PRINT << kDashLine;
}

void orvane_option_t::print_dir(const QString& folder, int& depth)
{
    const QFileInfoList entries = QDir(folder).entryInfoList(
        QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden, QDir::Name | QDir::DirsFirst);
    for (const QFileInfo& entry : entries) {
        OPTION_PRINT << QString(depth * 2, QLatin1Char(' ')) << entry.fileName()
                     << (entry.isDir() ? "/" : "");
        if (entry.isDir()) {
            ++depth;
            print_dir(entry.filePath(), depth);
            --depth;
        }
    }
}

} // namespace utility
