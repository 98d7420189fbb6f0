// context_sync_server: the program that runs the sync service. It reads its command line, builds
// the options object and the log facility, takes its settings from a file or from the
// configuration server, starts the service (server_host_t) and runs until SIGINT or SIGTERM.
//
// Exit status: 0 after a clean stop (and for --help and --version), 2 for a command line that
// cannot be obeyed, 1 when the server cannot start (context root or settings file unusable).

#include "context_sync/context_sync/context_sync_t.h"
#include "context_sync/context_sync/transfer_manager/chunk_cache_t.h"
#include "context_sync/library_info.h"
#include "host/host_options_t.h"
#include "host/host_settings_t.h"
#include "host/server_host_t.h"
#include "host/signal_notifier_t.h"
#include "platform/logs/classlogs.h"
#include "utility/allocator_tuning_t.h"
#include "utility/http_read_config_server_t.h"
#include "utility/orvane_option_t.h"
#include "utility/type_configuration_mode_t.h"

#include <QCoreApplication>
#include <QDir>
#include <QJsonObject>
#include <QTextStream>
#include <QTimer>

#include <cstdio>

namespace {

const char* const kLogSource = "server/host/context_sync_server";
const char* const kProgram = "context_sync_server";

#ifdef Q_OS_ANDROID
const char* const kPlatform = "android_embedded";
#else
const char* const kPlatform = "linux";
#endif

// The kept pages (see allocator_tuning_t) are only worth keeping while chunks flow: now and then
// every free page goes back to the system, so that an idle server returns to its resting size (a
// round of page faults per interval while transfers go on costs next to nothing).
constexpr int kGiveBackIntervalMs = 10000;

void print_error(const QString& message)
{
    QTextStream(stderr) << kProgram << ": " << message << Qt::endl;
}

utility::logs::classlogs_settings_t log_settings(const utility::orvane_option_t& options)
{
    utility::logs::classlogs_settings_t settings;
    settings.level_std = options.LogLevelStd();
    settings.level_file = options.LogLevelFile();
    settings.size_mb = options.LogSize();
    settings.rotate = options.LogRotate();
    settings.folder = options.LogsFolder();
    settings.file_name = options.LogFileName();
    return settings;
}

// File mode: the document is applied as the configuration server's would be, and its
// communication settings are written to the client folder.
bool read_file_settings(
    const QString& path, const QString& state_dir, utility::orvane_option_t& options)
{
    options.set_configuration_mode(utility::type_configuration_mode_t::file);
    QJsonObject document;
    QString error;
    if (!host::host_settings_t::read_document(path, document, error)) {
        ORVANE_LOG(error, 2, kLogSource);
        print_error(error);
        return false;
    }
    ORVANE_LOG(QStringLiteral("Reading settings from file %1").arg(path), 4, kLogSource);
    host::host_settings_t::apply_document(document, options);
    if (options.ClientFolder().isEmpty())
        options.set_client_folder(state_dir);
    host::host_settings_t::ensure_installation_id(document, options.ClientFolder(), options);
    utility::http_read_config_server_t::getInstance()->generate_HTTP_ClientFileConfig(document);
    return true;
}

// http mode: a configuration server that does not answer leaves the options as they are; the
// client file written by an earlier start, if any, is then used as it stands.
void read_http_settings(
    const QString& url, const QString& state_dir, utility::orvane_option_t& options)
{
    options.set_configuration_mode(utility::type_configuration_mode_t::http);
    if (!url.isEmpty())
        utility::http_read_config_server_t::setBaseUrl(url);
    utility::http_read_config_server_t* client = utility::http_read_config_server_t::getInstance();
    ORVANE_LOG(QStringLiteral("Reading settings from configuration server %1")
                   .arg(utility::http_read_config_server_t::baseUrl()),
        4, kLogSource);
    if (!client->read_configuration()) {
        ORVANE_LOG(QStringLiteral("No settings from the configuration server, going on with the "
                                  "current ones"),
            2, kLogSource);
    }
    if (options.ClientFolder().isEmpty())
        options.set_client_folder(state_dir);
}

int run(QCoreApplication& app, const host::host_options_t& command_line)
{
    // Until the settings say where the log file goes, lines go to the console only.
    utility::logs::classlogs_settings_t bootstrap;
    if (command_line.log_level >= 0)
        bootstrap.level_std = unsigned(command_line.log_level);
    utility::logs::classlogs::createInstance(bootstrap);

    QJsonObject versions;
    versions.insert(
        QStringLiteral("context_sync_server"), QStringLiteral(CONTEXT_SYNC_SERVER_VERSION));
    versions.insert(QStringLiteral("libcontext_sync"),
        QString::fromLatin1(context_sync_engine::library_version()));
    utility::orvane_option_t* options = utility::orvane_option_t::createInstance(&app,
        QString::fromLatin1(kPlatform), QStringLiteral(CONTEXT_SYNC_SERVER_VERSION), versions,
        QStringLiteral(CONTEXT_SYNC_SERVER_BRANCH), QStringLiteral(CONTEXT_SYNC_SERVER_COMMIT),
        QStringLiteral(CONTEXT_SYNC_SERVER_BUILD_TIME));

    auto shutdown_facilities = [] {
        utility::http_read_config_server_t::destroyInstance();
        utility::orvane_option_t::destroyInstance();
        // Drains the log queue: every line logged so far reaches the console and the file.
        utility::logs::classlogs::destroyInstance();
    };

    QString root = context_sync_engine::context_sync_t::context_root;
    if (!command_line.root.isEmpty())
        root = host::host_settings_t::normalise_root(command_line.root);
    if (!QDir().mkpath(root)) {
        const QString message = QStringLiteral("cannot create the context root %1").arg(root);
        ORVANE_LOG(message, 2, kLogSource);
        print_error(message);
        shutdown_facilities();
        return 1;
    }
    // Every component takes the root from here when the service is constructed.
    context_sync_engine::context_sync_t::context_root = root;

    const QString state_dir = command_line.state_dir.isEmpty()
        ? host::host_settings_t::default_state_dir(root)
        : QDir::cleanPath(QDir(command_line.state_dir).absolutePath());

    if (!command_line.config_file.isEmpty()) {
        if (!read_file_settings(command_line.config_file, state_dir, *options)) {
            shutdown_facilities();
            return 1;
        }
    } else {
        read_http_settings(command_line.config_server, state_dir, *options);
    }
    if (options->LogsFolder().isEmpty())
        options->set_logs_folder(QDir(state_dir).filePath(QStringLiteral("logs")));
    if (command_line.log_level >= 0) {
        options->set_log_level_std(unsigned(command_line.log_level));
        options->set_log_level_file(unsigned(command_line.log_level));
    }
    if (command_line.chunk_cache_mb >= 0)
        options->set_chunk_cache_size(qint64(command_line.chunk_cache_mb) * 1024 * 1024);

    // Now that the settings are known, the facility starts again with its file; nothing runs on
    // other threads yet, so no line falls between the two.
    utility::logs::classlogs::destroyInstance();
    utility::logs::classlogs::createInstance(log_settings(*options));
    ORVANE_LOG(
        QStringLiteral("%1 %2 starting, context root %3, client folder %4")
            .arg(QString::fromLatin1(kProgram), options->Version(), root, options->ClientFolder()),
        4, kLogSource);
    options->print();
    // Before the service exists, so that no sender is running yet.
    context_sync_engine::chunk_cache_t::shared().set_capacity(options->ChunkCacheSize());
    if (options->ChunkCacheSize() > 0) {
        ORVANE_LOG(QStringLiteral("Chunk cache: %1 bytes shared by the file senders")
                       .arg(options->ChunkCacheSize()),
            4, kLogSource);
    } else {
        ORVANE_LOG(QStringLiteral("Chunk cache off: every chunk is compressed for each client"), 4,
            kLogSource);
    }

    const comunication::config::mosquittocnf_t cnf = host::host_settings_t::mqtt_settings(
        options->ClientFolder(), command_line.broker_host, command_line.broker_port);

    host::signal_notifier_t signals_in;
    if (!signals_in.isValid())
        ORVANE_LOG(QStringLiteral("Unable to install the SIGINT/SIGTERM handlers"), 2, kLogSource);
    QObject::connect(&signals_in, &host::signal_notifier_t::termination_requested, &app,
        [&app](int signal_number) {
            ORVANE_LOG(
                QStringLiteral("Signal %1 received, stopping").arg(signal_number), 4, kLogSource);
            app.quit();
        });

    host::server_host_t server;
    if (!server.start(cnf)) {
        print_error(QStringLiteral("the context sync service could not be started"));
        shutdown_facilities();
        return 1;
    }
    QTimer give_back;
    give_back.callOnTimeout(&utility::allocator_tuning_t::give_back_free_memory);
    give_back.start(kGiveBackIntervalMs);
    app.exec();
    give_back.stop();
    server.stop();
    ORVANE_LOG(QStringLiteral("%1 stopped").arg(QString::fromLatin1(kProgram)), 4, kLogSource);
    shutdown_facilities();
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    utility::allocator_tuning_t::keep_chunk_pages();
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QString::fromLatin1(kProgram));
    QCoreApplication::setApplicationVersion(QStringLiteral(CONTEXT_SYNC_SERVER_VERSION));

    host::host_options_t command_line;
    QString error;
    if (!host::host_options_t::parse(app.arguments(), command_line, error)) {
        print_error(error);
        QTextStream(stderr) << "Try '" << kProgram << " --help' for the options." << Qt::endl;
        return host::host_options_t::usage_exit_code;
    }
    switch (command_line.action) {
    case host::host_options_t::action_t::help:
        QTextStream(stdout) << host::host_options_t::usage(app.arguments().constFirst());
        return 0;
    case host::host_options_t::action_t::version:
        QTextStream(stdout) << kProgram << ' ' << CONTEXT_SYNC_SERVER_VERSION
                            << " (libcontext_sync " << context_sync_engine::library_version() << ')'
                            << Qt::endl;
        return 0;
    case host::host_options_t::action_t::run:
        break;
    }
    return run(app, command_line);
}
