#include "ctxsync_cli_t.h"

#include "progress_line_t.h"

#include "context_sync_client/context_follower_t.h"
#include "context_sync_client/context_requests_t.h"
#include "context_sync_client/file_download_t.h"
#include "context_sync_client/file_upload_t.h"

#include "context_sync/context_sync/context_background_image_t.h"
#include "platform/database/rr/definition/rr_packet_service_t.h"
#include "platform/database/rr/definition/rr_packet_type_context_sync_t.h"
#include "platform/logs/classlogs.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSize>

#include <atomic>
#include <csignal>
#include <limits>

using context_sync_client::client_connection_t;
using context_sync_client::context_follower_t;
using context_sync_client::context_requests_t;
using context_sync_client::context_tree_t;
using context_sync_client::file_download_t;
using context_sync_client::file_map_t;
using context_sync_client::file_upload_t;

namespace {

using packet_t = database::rr::definition::rr_packet_type_context_sync_t;
using image_t = context_sync_engine::context_background_image_t;

volatile std::sig_atomic_t g_stop_requested = 0;

QJsonArray to_array(const QStringList& list)
{
    return QJsonArray::fromStringList(list);
}

// Warnings of the image validator, collected while inspect-image runs.
QStringList* g_captured_warnings = nullptr;

void capture_warning(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    if (g_captured_warnings && type != QtDebugMsg)
        g_captured_warnings->append(message);
}

} // namespace

ctxsync_cli_t::ctxsync_cli_t(std::FILE* out, std::FILE* err)
    : out_(out)
    , err_(err)
{
}

ctxsync_cli_t::~ctxsync_cli_t() = default;

void ctxsync_cli_t::request_stop()
{
    g_stop_requested = 1;
}

QString ctxsync_cli_t::usage()
{
    return QStringLiteral(
        "Usage: ctxsync [options] COMMAND [ARGUMENTS]\n"
        "\n"
        "Commands:\n"
        "  list                   the server's files with their MD5 and the context hash\n"
        "  status DIR             compare DIR with the server's tree\n"
        "  pull DIR [--delete]    download what differs into DIR (--delete: remove local extras);\n"
        "                         a busy server is asked again for up to --deadline seconds\n"
        "  sync DIR [--delete]    keep DIR in step with the server until interrupted (pulls at\n"
        "                         once, then after every change announced by the server)\n"
        "  push FILE... [--to REL] [--force]\n"
        "                         upload files into the folder REL of the server (default\n"
        "                         background/); --force skips the client's background check\n"
        "  rm REL...              remove files from the server\n"
        "  mv OLD NEW             rename a file on the server\n"
        "  replace DIR            make the server's tree equal to DIR\n"
        "  watch                  print the server's announcements until interrupted\n"
        "  inspect-image FILE...  tell whether files are valid background images\n"
        "\n"
        "Options:\n"
        "  --broker HOST:PORT     MQTT broker (default 127.0.0.1:1883)\n"
        "  --client-id ID         client id (default ctxsync-<random>)\n"
        "  --topic-base BASE      topic base of the installation (default orvane)\n"
        "  --protocol VERSION     MQTT version: 5 (default) or 3.1.1\n"
        "  --username NAME, --password SECRET\n"
        "  --cafile FILE, --cert FILE, --key FILE   TLS to the broker\n"
        "  --timeout SECONDS      longest wait for the broker or the server (default 10)\n"
        "  --deadline SECONDS     pull: longest time for the whole download (default 120)\n"
        "  --json                 one JSON document on standard output (watch and sync: one per\n"
        "                         line and event)\n"
        "  --verbose              log lines of the client library on the console\n"
        "  --help, --version\n"
        "\n"
        "Exit codes: 0 done, 1 failed, 2 bad arguments, 3 no broker, 4 time-out,\n"
        "5 refused (file or path), 6 status: not in step.\n");
}

void ctxsync_cli_t::out(const QString& line)
{
    std::fputs(line.toUtf8().constData(), out_);
    std::fputc('\n', out_);
    std::fflush(out_);
}

void ctxsync_cli_t::err(const QString& line)
{
    std::fputs(QStringLiteral("ctxsync: %1\n").arg(line).toUtf8().constData(), err_);
    std::fflush(err_);
}

void ctxsync_cli_t::out_json(const QJsonObject& document)
{
    out(QString::fromUtf8(QJsonDocument(document).toJson(QJsonDocument::Compact)));
}

int ctxsync_cli_t::fail(int code, const QString& message)
{
    err(message);
    // Scripts reading the JSON output get a document in every case.
    if (json_)
        out_json({ { QStringLiteral("error"), message }, { QStringLiteral("exit_code"), code } });
    return code;
}

bool ctxsync_cli_t::progress_enabled() const
{
    return !json_ && progress_line_t::is_terminal(out_);
}

int ctxsync_cli_t::run(const QStringList& arguments)
{
    const int parsed = parse(arguments);
    if (parsed >= 0)
        return parsed;
    if (command_ == QLatin1String("inspect-image"))
        return cmd_inspect_image();
    static const QStringList server_commands { QStringLiteral("list"), QStringLiteral("status"),
        QStringLiteral("pull"), QStringLiteral("push"), QStringLiteral("rm"), QStringLiteral("mv"),
        QStringLiteral("replace"), QStringLiteral("watch"), QStringLiteral("sync") };
    if (!server_commands.contains(command_)) {
        err(QStringLiteral("unknown command \"%1\" (see ctxsync --help)").arg(command_));
        return exit_usage;
    }
    const int connected = connect_server();
    if (connected != exit_ok)
        return connected;
    int code = exit_failed;
    if (command_ == QLatin1String("list"))
        code = cmd_list();
    else if (command_ == QLatin1String("status"))
        code = cmd_status();
    else if (command_ == QLatin1String("pull"))
        code = cmd_pull();
    else if (command_ == QLatin1String("push"))
        code = cmd_push();
    else if (command_ == QLatin1String("rm"))
        code = cmd_rm();
    else if (command_ == QLatin1String("mv"))
        code = cmd_mv();
    else if (command_ == QLatin1String("replace"))
        code = cmd_replace();
    else if (command_ == QLatin1String("watch"))
        code = cmd_watch();
    else if (command_ == QLatin1String("sync"))
        code = cmd_sync();
    connection_.reset();
    return code;
}

int ctxsync_cli_t::parse(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    const QCommandLineOption broker(QStringLiteral("broker"), {}, QStringLiteral("HOST:PORT"));
    const QCommandLineOption client_id(QStringLiteral("client-id"), {}, QStringLiteral("ID"));
    const QCommandLineOption topic_base(QStringLiteral("topic-base"), {}, QStringLiteral("BASE"));
    const QCommandLineOption protocol(QStringLiteral("protocol"), {}, QStringLiteral("VERSION"));
    const QCommandLineOption username(QStringLiteral("username"), {}, QStringLiteral("NAME"));
    const QCommandLineOption password(QStringLiteral("password"), {}, QStringLiteral("SECRET"));
    const QCommandLineOption cafile(QStringLiteral("cafile"), {}, QStringLiteral("FILE"));
    const QCommandLineOption cert(QStringLiteral("cert"), {}, QStringLiteral("FILE"));
    const QCommandLineOption key(QStringLiteral("key"), {}, QStringLiteral("FILE"));
    const QCommandLineOption timeout(QStringLiteral("timeout"), {}, QStringLiteral("SECONDS"));
    const QCommandLineOption deadline(QStringLiteral("deadline"), {}, QStringLiteral("SECONDS"));
    const QCommandLineOption to(QStringLiteral("to"), {}, QStringLiteral("REL"));
    const QCommandLineOption json(QStringLiteral("json"));
    const QCommandLineOption remove_extras(QStringLiteral("delete"));
    const QCommandLineOption force(QStringLiteral("force"));
    const QCommandLineOption verbose(QStringLiteral("verbose"));
    const QCommandLineOption help(QStringList { QStringLiteral("h"), QStringLiteral("help") });
    const QCommandLineOption version(QStringLiteral("version"));
    parser.addOptions({ broker, client_id, topic_base, protocol, username, password, cafile, cert,
        key, timeout, deadline, to, json, remove_extras, force, verbose, help, version });
    if (!parser.parse(QStringList { QStringLiteral("ctxsync") } + arguments)) {
        err(parser.errorText());
        return exit_usage;
    }
    if (parser.isSet(help)) {
        std::fputs(usage().toUtf8().constData(), out_);
        return exit_ok;
    }
    if (parser.isSet(version)) {
        out(QStringLiteral("ctxsync %1").arg(QCoreApplication::applicationVersion()));
        return exit_ok;
    }
    json_ = parser.isSet(json);
    delete_ = parser.isSet(remove_extras);
    force_ = parser.isSet(force);
    if (parser.isSet(verbose) && !utility::logs::classlogs::getInstance()) {
        utility::logs::classlogs_settings_t log_settings;
        log_settings.level_std = 6;
        utility::logs::classlogs::createInstance(log_settings);
    }
    if (parser.isSet(broker)) {
        const QString text = parser.value(broker);
        const int colon = text.lastIndexOf(QLatin1Char(':'));
        bool ok = true;
        const int port = colon < 0 ? 1883 : text.mid(colon + 1).toInt(&ok);
        const QString host = colon < 0 ? text : text.left(colon);
        if (!ok || port < 1 || port > 65535 || host.isEmpty()) {
            err(QStringLiteral("--broker wants HOST:PORT, not \"%1\"").arg(text));
            return exit_usage;
        }
        settings_.host = host;
        settings_.port = port;
    }
    if (parser.isSet(client_id))
        settings_.client_id = parser.value(client_id);
    if (parser.isSet(topic_base))
        settings_.topic_base = parser.value(topic_base);
    if (parser.isSet(protocol)) {
        // The same spellings as "protocol_version" in the server's settings.
        const QString text = parser.value(protocol);
        if (text == QLatin1String("5"))
            settings_.protocol_version = 5;
        else if (text == QLatin1String("3.1.1") || text == QLatin1String("311")
            || text == QLatin1String("4"))
            settings_.protocol_version = 4;
        else {
            err(QStringLiteral("--protocol wants 5 or 3.1.1, not \"%1\"").arg(text));
            return exit_usage;
        }
    }
    settings_.username = parser.value(username);
    settings_.password = parser.value(password);
    settings_.ca_file = parser.value(cafile);
    settings_.cert_file = parser.value(cert);
    settings_.key_file = parser.value(key);
    if ((!settings_.cert_file.isEmpty() || !settings_.key_file.isEmpty())
        && settings_.ca_file.isEmpty()) {
        err(QStringLiteral("--cert and --key need --cafile"));
        return exit_usage;
    }
    // A number of seconds in (0, 86400], as milliseconds; -1 when the text is not one.
    const auto milliseconds = [this, &parser](const QCommandLineOption& option) -> qint64 {
        bool ok = false;
        const double seconds = parser.value(option).toDouble(&ok);
        if (ok && seconds > 0 && seconds <= 86400)
            return qint64(seconds * 1000);
        err(QStringLiteral("--%1 wants a number of seconds, not \"%2\"")
                .arg(option.names().first(), parser.value(option)));
        return -1;
    };
    if (parser.isSet(timeout)) {
        const qint64 value = milliseconds(timeout);
        if (value < 0)
            return exit_usage;
        timeout_ms_ = int(value);
    }
    if (parser.isSet(deadline)) {
        deadline_ms_ = milliseconds(deadline);
        if (deadline_ms_ < 0)
            return exit_usage;
    }
    if (parser.isSet(to)) {
        to_ = parser.value(to);
        if (!to_.isEmpty() && !to_.endsWith(QLatin1Char('/')))
            to_ += QLatin1Char('/');
    }
    const QStringList positional = parser.positionalArguments();
    if (positional.isEmpty()) {
        err(QStringLiteral("no command given (see ctxsync --help)"));
        return exit_usage;
    }
    command_ = positional.first();
    positional_ = positional.mid(1);

    struct arity_t {
        const char* command;
        int min;
        int max;
    };
    static const arity_t arities[] = { { "list", 0, 0 }, { "status", 1, 1 }, { "pull", 1, 1 },
        { "push", 1, 1 << 20 }, { "rm", 1, 1 << 20 }, { "mv", 2, 2 }, { "replace", 1, 1 },
        { "watch", 0, 0 }, { "sync", 1, 1 }, { "inspect-image", 1, 1 << 20 } };
    for (const arity_t& arity : arities) {
        if (command_ != QLatin1String(arity.command))
            continue;
        if (positional_.size() < arity.min || positional_.size() > arity.max) {
            err(QStringLiteral("wrong number of arguments for %1 (see ctxsync --help)")
                    .arg(command_));
            return exit_usage;
        }
    }
    if (parser.isSet(to) && command_ != QLatin1String("push")) {
        err(QStringLiteral("--to belongs to push"));
        return exit_usage;
    }
    if (delete_ && command_ != QLatin1String("pull") && command_ != QLatin1String("sync")) {
        err(QStringLiteral("--delete belongs to pull and sync"));
        return exit_usage;
    }
    return -1;
}

int ctxsync_cli_t::connect_server()
{
    connection_ = std::make_unique<client_connection_t>(settings_);
    QString error;
    if (!connection_->open(timeout_ms_, &error)) {
        connection_.reset();
        return fail(error.startsWith(QLatin1String("client id")) ? exit_usage : exit_no_broker,
            QStringLiteral("cannot connect: %1").arg(error));
    }
    return exit_ok;
}

int ctxsync_cli_t::cmd_list()
{
    context_tree_t tree(*connection_);
    file_map_t server;
    QString error;
    if (!tree.fetch_list(timeout_ms_, &server, &error)) {
        return fail(exit_timeout, error);
    }
    const QString hash = context_tree_t::cumulative_hash(server);
    if (json_) {
        out_json({ { QStringLiteral("files"), context_tree_t::to_json(server) },
            { QStringLiteral("context_hash"), hash } });
        return exit_ok;
    }
    for (auto it = server.cbegin(); it != server.cend(); ++it)
        out(QStringLiteral("%1  %2").arg(it.value(), it.key()));
    out(QStringLiteral("%1 files, context hash %2").arg(server.size()).arg(hash));
    return exit_ok;
}

int ctxsync_cli_t::cmd_status()
{
    const QString dir = positional_.first();
    if (!QFileInfo(dir).isDir()) {
        err(QStringLiteral("no such folder: %1").arg(dir));
        return exit_failed;
    }
    context_tree_t tree(*connection_);
    file_map_t server;
    QString error;
    if (!tree.fetch_list(timeout_ms_, &server, &error)) {
        return fail(exit_timeout, error);
    }
    const file_map_t local = context_tree_t::scan_local(dir);
    const context_tree_t::comparison_t diff = context_tree_t::compare(local, server);
    const QString server_hash = context_tree_t::cumulative_hash(server);
    const QString local_hash = context_tree_t::cumulative_hash(local);
    if (json_) {
        out_json({ { QStringLiteral("in_step"), diff.in_step() },
            { QStringLiteral("server_hash"), server_hash },
            { QStringLiteral("local_hash"), local_hash },
            { QStringLiteral("missing"), to_array(diff.missing_locally) },
            { QStringLiteral("changed"), to_array(diff.changed) },
            { QStringLiteral("only_local"), to_array(diff.only_local) } });
    } else if (diff.in_step()) {
        out(QStringLiteral("in step: %1 files, context hash %2")
                .arg(server.size())
                .arg(server_hash));
    } else {
        out(QStringLiteral("not in step: %1 to pull, %2 differ, %3 only local")
                .arg(diff.missing_locally.size())
                .arg(diff.changed.size())
                .arg(diff.only_local.size()));
        for (const QString& path : diff.missing_locally)
            out(QStringLiteral("  missing     %1").arg(path));
        for (const QString& path : diff.changed)
            out(QStringLiteral("  differs     %1").arg(path));
        for (const QString& path : diff.only_local)
            out(QStringLiteral("  local only  %1").arg(path));
    }
    return diff.in_step() ? exit_ok : exit_not_in_step;
}

int ctxsync_cli_t::cmd_pull()
{
    const QString dir = positional_.first();
    if (!QDir().mkpath(dir)) {
        err(QStringLiteral("cannot create the folder %1").arg(dir));
        return exit_failed;
    }
    g_stop_requested = 0;
    context_tree_t tree(*connection_);
    tree.set_cancel_check([] { return g_stop_requested != 0; });
    file_map_t server;
    QString error;
    if (!tree.fetch_list(timeout_ms_, &server, &error)) {
        if (g_stop_requested != 0)
            return fail(exit_failed, QStringLiteral("interrupted; nothing was changed"));
        return fail(exit_timeout, error);
    }
    const context_tree_t::comparison_t diff
        = context_tree_t::compare(context_tree_t::scan_local(dir), server);
    file_map_t wanted;
    for (const QString& path : diff.missing_locally + diff.changed)
        wanted.insert(path, server.value(path));

    file_download_t download(*connection_, dir);
    progress_line_t line(out_, progress_enabled(), QStringLiteral("pull"));
    // The download renames a file into place only once its MD5 equals the list's, and reports the
    // file finished right after (the count of finished files goes up). Its stamp taken then lets
    // the final check below take the list's hash instead of reading the file a second time, for
    // as long as nothing has rewritten or replaced it since.
    context_tree_t::known_files_t finished;
    int files_done = 0;
    qint64 bytes_done = 0;
    QObject::connect(&download, &file_download_t::progress, &download,
        [&](qint64 bytes, int done, int total, const QString& current) {
            bytes_done = bytes;
            line.update(bytes, done, total, current);
            if (done == files_done)
                return;
            files_done = done;
            context_tree_t::known_file_t file;
            if (context_tree_t::stamp_of(QDir(dir).filePath(current), &file.stamp))
                finished.insert(current, file);
        });
    // While a busy server has the request wait, the line says so instead of standing still.
    QObject::connect(&download, &file_download_t::retrying, &download,
        [&](int try_number, int wait_ms, const QString&) {
            line.update(bytes_done, files_done, int(wanted.size()),
                QStringLiteral("(server busy: try %1 in %2 ms)").arg(try_number).arg(wait_ms));
        });
    file_download_t::options_t options;
    options.silence_ms = timeout_ms_;
    options.deadline_ms = deadline_ms_;
    options.cancelled = [] { return g_stop_requested != 0; };
    const file_download_t::result_t result = download.run(wanted, options);
    line.finish();

    QStringList deleted;
    QJsonArray failed;
    // A pull cut short by the server's going away or by a signal leaves the folder as it was.
    if (delete_ && !result.server_gone && !result.cancelled) {
        for (const QString& path : diff.only_local) {
            const QString absolute = QDir(dir).filePath(path);
            if (QFile::remove(absolute)) {
                deleted.append(path);
            } else {
                failed.append(QJsonObject { { QStringLiteral("path"), path },
                    { QStringLiteral("error"),
                        QStringLiteral("cannot remove the local file %1").arg(absolute) } });
            }
        }
    }
    QStringList pulled;
    bool refused = false;
    context_tree_t::known_files_t known;
    for (const file_download_t::file_result_t& file : result.files) {
        if (file.ok) {
            pulled.append(file.path);
            const auto stamped = finished.constFind(file.path);
            if (stamped != finished.cend())
                known.insert(file.path, { server.value(file.path), stamped->stamp });
        } else {
            refused = refused || file.refused;
            failed.append(QJsonObject {
                { QStringLiteral("path"), file.path }, { QStringLiteral("error"), file.error } });
        }
    }
    // Every file is looked at again, so that one changed, added or removed during the download
    // is noticed; only the files renamed into place by this pull and untouched since are not read.
    const bool in_step
        = context_tree_t::compare(context_tree_t::scan_local(dir, known), server).in_step();
    if (json_) {
        out_json({ { QStringLiteral("pulled"), to_array(pulled) },
            { QStringLiteral("deleted"), to_array(deleted) }, { QStringLiteral("failed"), failed },
            { QStringLiteral("bytes"), result.bytes }, { QStringLiteral("in_step"), in_step },
            { QStringLiteral("tries"), result.tries },
            { QStringLiteral("retries"), result.retries() },
            { QStringLiteral("server_gone"), result.server_gone } });
    } else {
        for (const QString& path : std::as_const(pulled))
            out(QStringLiteral("pulled   %1").arg(path));
        for (const QString& path : std::as_const(deleted))
            out(QStringLiteral("deleted  %1").arg(path));
        for (const QJsonValue& value : std::as_const(failed)) {
            const QJsonObject failure = value.toObject();
            err(QStringLiteral("%1: %2").arg(failure.value(QStringLiteral("path")).toString(),
                failure.value(QStringLiteral("error")).toString()));
        }
        out(QStringLiteral("%1 pulled (%2), %3 failed, %4 deleted; %5")
                .arg(pulled.size())
                .arg(progress_line_t::human_bytes(result.bytes))
                .arg(failed.size())
                .arg(deleted.size())
                .arg(in_step ? QStringLiteral("in step")
                             : QStringLiteral("not in step (see ctxsync status)"))
            + (result.retries() > 0
                    ? QStringLiteral(" (the server was busy: %1 tries)").arg(result.tries)
                    : QString()));
    }
    if (result.server_gone)
        err(QStringLiteral("the server went away during the transfer; nothing partial was kept"));
    if (result.cancelled)
        err(QStringLiteral("interrupted; nothing partial was kept"));
    if (failed.isEmpty())
        return exit_ok;
    if (refused)
        return exit_refused;
    return result.timed_out ? exit_timeout : exit_failed;
}

int ctxsync_cli_t::cmd_push()
{
    QList<file_upload_t::item_t> items;
    QJsonArray files;
    QStringList problems;
    for (const QString& local : std::as_const(positional_)) {
        const QString remote = to_ + QFileInfo(local).fileName();
        QString problem = file_upload_t::transfer_problem(local, remote);
        if (problem.isEmpty() && !force_) {
            const QString placement = file_upload_t::placement_problem(local, remote);
            if (!placement.isEmpty())
                problem = QStringLiteral("the server would not keep %1: %2 (--force sends it "
                                         "anyway)")
                              .arg(remote, placement);
        }
        if (!problem.isEmpty()) {
            problems.append(problem);
            files.append(QJsonObject { { QStringLiteral("file"), local },
                { QStringLiteral("path"), remote }, { QStringLiteral("ok"), false },
                { QStringLiteral("refused"), true }, { QStringLiteral("error"), problem } });
            continue;
        }
        items.append({ local, remote });
    }
    file_upload_t::result_t result;
    if (!items.isEmpty()) {
        file_upload_t upload(*connection_);
        progress_line_t line(out_, progress_enabled(), QStringLiteral("push"));
        QObject::connect(&upload, &file_upload_t::progress, &upload,
            [&line](qint64 bytes, int done, int total, const QString& current) {
                line.update(bytes, done, total, current);
            });
        result = upload.run(items, timeout_ms_, true);
        line.finish();
    }
    bool refused = !problems.isEmpty();
    bool failed = false;
    for (const file_upload_t::file_result_t& file : result.files) {
        refused = refused || file.refused;
        failed = failed || !file.ok;
        files.append(QJsonObject { { QStringLiteral("file"), file.local_path },
            { QStringLiteral("path"), file.remote_path }, { QStringLiteral("ok"), file.ok },
            { QStringLiteral("refused"), file.refused }, { QStringLiteral("error"), file.error },
            { QStringLiteral("md5"), file.hash } });
        if (!json_) {
            if (file.ok)
                out(QStringLiteral("pushed   %1").arg(file.remote_path));
            else
                err(QStringLiteral("%1 %2: %3")
                        .arg(file.refused ? QStringLiteral("refused") : QStringLiteral("failed"),
                            file.remote_path, file.error));
        }
    }
    if (json_)
        out_json({ { QStringLiteral("files"), files }, { QStringLiteral("bytes"), result.bytes },
            { QStringLiteral("transfer_ms"), result.transfer_ms } });
    else
        for (const QString& problem : std::as_const(problems))
            err(QStringLiteral("refused: %1").arg(problem));
    if (refused)
        return exit_refused;
    if (failed)
        return result.timed_out ? exit_timeout : exit_failed;
    return exit_ok;
}

namespace {

int request_exit_code(const context_requests_t::result_t& result)
{
    if (result.ok())
        return ctxsync_cli_t::exit_ok;
    if (result.any_refused())
        return ctxsync_cli_t::exit_refused;
    return result.timed_out ? ctxsync_cli_t::exit_timeout : ctxsync_cli_t::exit_failed;
}

QJsonArray entries_json(const context_requests_t::result_t& result)
{
    QJsonArray entries;
    for (const context_requests_t::entry_t& entry : result.entries) {
        entries.append(QJsonObject { { QStringLiteral("path"), entry.path },
            { QStringLiteral("action"), entry.action }, { QStringLiteral("ok"), entry.ok },
            { QStringLiteral("refused"), entry.refused },
            { QStringLiteral("error"), entry.error } });
    }
    return entries;
}

} // namespace

int ctxsync_cli_t::cmd_rm()
{
    context_requests_t requests(*connection_);
    const context_requests_t::result_t result = requests.remove(positional_, timeout_ms_);
    if (json_) {
        out_json({ { QStringLiteral("entries"), entries_json(result) },
            { QStringLiteral("error"), result.error } });
    } else {
        for (const context_requests_t::entry_t& entry : result.entries) {
            if (entry.ok)
                out(QStringLiteral("removed  %1").arg(entry.path));
            else
                err(QStringLiteral("%1: %2").arg(entry.path, entry.error));
        }
        if (!result.error.isEmpty())
            err(result.error);
    }
    return request_exit_code(result);
}

int ctxsync_cli_t::cmd_mv()
{
    context_requests_t requests(*connection_);
    const context_requests_t::result_t result
        = requests.rename(positional_.at(0), positional_.at(1), timeout_ms_);
    if (json_) {
        out_json({ { QStringLiteral("entries"), entries_json(result) },
            { QStringLiteral("error"), result.error } });
    } else {
        for (const context_requests_t::entry_t& entry : result.entries) {
            if (entry.ok)
                out(QStringLiteral("renamed  %1 -> %2").arg(positional_.at(0), positional_.at(1)));
            else
                err(QStringLiteral("%1: %2").arg(entry.path, entry.error));
        }
        if (!result.error.isEmpty())
            err(result.error);
    }
    return request_exit_code(result);
}

int ctxsync_cli_t::cmd_replace()
{
    context_requests_t requests(*connection_);
    progress_line_t line(out_, progress_enabled(), QStringLiteral("replace"));
    QObject::connect(&requests, &context_requests_t::progress, &requests,
        [&line](qint64 bytes, int done, int total, const QString& current) {
            line.update(bytes, done, total, current);
        });
    const context_requests_t::result_t result = requests.replace(positional_.first(), timeout_ms_);
    line.finish();
    if (json_) {
        out_json({ { QStringLiteral("entries"), entries_json(result) },
            { QStringLiteral("in_step"), result.in_step },
            { QStringLiteral("context_hash"), context_tree_t::cumulative_hash(result.server) },
            { QStringLiteral("error"), result.error } });
    } else {
        for (const context_requests_t::entry_t& entry : result.entries) {
            if (entry.ok)
                out(QStringLiteral("%1 %2").arg(entry.action == QLatin1String("upload")
                        ? QStringLiteral("pushed  ")
                        : QStringLiteral("removed "),
                    entry.path));
            else
                err(QStringLiteral("%1: %2").arg(entry.path, entry.error));
        }
        if (!result.error.isEmpty())
            err(result.error);
        out(result.in_step
                ? QStringLiteral("replaced: the server's tree matches %1 (context hash "
                                 "%2)")
                      .arg(positional_.first(), context_tree_t::cumulative_hash(result.server))
                : QStringLiteral("replace incomplete: the server's tree differs from %1")
                      .arg(positional_.first()));
    }
    return request_exit_code(result);
}

int ctxsync_cli_t::cmd_watch()
{
    g_stop_requested = 0;
    const QString state_of_service
        = database::rr::definition::rr_packet_service_t::state_of_service.Topic();
    const auto print = [this](const QString& type, const QString& subtype,
                           const QJsonObject& payload, bool broadcast) {
        if (type == packet_t::ctx_chunk.ToString() || type == packet_t::ctx_chunk_ack.ToString())
            return;
        const QString time = QDateTime::currentDateTime().toString(Qt::ISODateWithMs);
        QJsonObject event { { QStringLiteral("time"), time }, { QStringLiteral("type"), type },
            { QStringLiteral("subtype"), subtype }, { QStringLiteral("broadcast"), broadcast } };
        QString summary;
        if (type == packet_t::ctx_list.ToString()) {
            const file_map_t files = context_tree_t::from_json(payload);
            const QString hash = context_tree_t::cumulative_hash(files);
            event.insert(QStringLiteral("files"), payload);
            event.insert(QStringLiteral("context_hash"), hash);
            summary = QStringLiteral("%1 files, context hash %2").arg(files.size()).arg(hash);
        } else if (payload.contains(QStringLiteral("context_hash"))) {
            event.insert(
                QStringLiteral("context_hash"), payload.value(QStringLiteral("context_hash")));
            summary = QStringLiteral("context hash %1")
                          .arg(payload.value(QStringLiteral("context_hash")).toString());
        } else if (type == packet_t::ctx_stop_transfer.ToString()) {
            summary = QStringLiteral("the server stopped all transfers");
        } else {
            event.insert(QStringLiteral("payload"), payload);
            summary = QString::fromUtf8(QJsonDocument(payload).toJson(QJsonDocument::Compact));
        }
        if (json_)
            out_json(event);
        else
            out(QStringLiteral("%1 %2%3 %4")
                    .arg(time, type,
                        subtype.isEmpty() ? QString() : QStringLiteral(" [%1]").arg(subtype),
                        summary));
    };
    QObject::connect(
        connection_.get(), &client_connection_t::packet_received, connection_.get(), print);
    QObject::connect(connection_.get(), &client_connection_t::service_status_changed,
        connection_.get(), [this](const QString& status) {
            const QString time = QDateTime::currentDateTime().toString(Qt::ISODateWithMs);
            if (json_)
                out_json({ { QStringLiteral("time"), time },
                    { QStringLiteral("type"), QStringLiteral("service_status") },
                    { QStringLiteral("status"), status } });
            else
                out(QStringLiteral("%1 service %2").arg(time, status));
        });
    // The connection comes back by itself (and the requests below are not repeated: the next
    // change of the tree brings the list).
    QObject::connect(
        connection_.get(), &client_connection_t::connection_lost, connection_.get(), [this] {
            const QString time = QDateTime::currentDateTime().toString(Qt::ISODateWithMs);
            if (json_)
                out_json({ { QStringLiteral("time"), time },
                    { QStringLiteral("type"), QStringLiteral("connection_lost") } });
            else
                out(QStringLiteral("%1 connection to %2 lost, reconnecting")
                        .arg(time, connection_->brokerText()));
        });
    connection_->send(state_of_service, {});
    connection_->send(packet_t::ctx_request.ToString(), {});
    connection_->wait_until([] { return g_stop_requested != 0; }, std::numeric_limits<int>::max());
    return exit_ok;
}

int ctxsync_cli_t::cmd_sync()
{
    g_stop_requested = 0;
    const QString dir = positional_.first();
    if (!QDir().mkpath(dir))
        return fail(exit_failed, QStringLiteral("cannot create the folder %1").arg(dir));
    context_follower_t::options_t options;
    options.remove_extras = delete_;
    options.timeout_ms = timeout_ms_;
    options.stop = [] { return g_stop_requested != 0; };
    context_follower_t follower(*connection_, dir, options);
    QObject::connect(
        &follower, &context_follower_t::event, &follower, [this](const QJsonObject& event) {
            if (json_) {
                out_json(event);
                return;
            }
            const auto text
                = [&event](const char* key) { return event.value(QLatin1String(key)).toString(); };
            const QString name = text("event");
            if (name == QLatin1String("started")) {
                out(QStringLiteral("syncing %1 with %2 as %3%4")
                        .arg(text("dir"), text("broker"), text("client_id"),
                            event.value(QStringLiteral("delete")).toBool()
                                ? QStringLiteral(" (--delete)")
                                : QString()));
            } else if (name == QLatin1String("in_step")) {
                out(QStringLiteral("in step: %1 files, context hash %2")
                        .arg(event.value(QStringLiteral("files")).toInt())
                        .arg(text("context_hash")));
            } else if (name == QLatin1String("pulled")) {
                out(event.contains(QStringLiteral("from"))
                        ? QStringLiteral("pulled   %1 (same content as %2)")
                              .arg(text("path"), text("from"))
                        : QStringLiteral("pulled   %1").arg(text("path")));
            } else if (name == QLatin1String("deleted")) {
                out(QStringLiteral("deleted  %1").arg(text("path")));
            } else if (name == QLatin1String("retrying")) {
                for (const QJsonValue& value : event.value(QStringLiteral("failed")).toArray()) {
                    const QJsonObject failure = value.toObject();
                    err(QStringLiteral("%1: %2").arg(
                        failure.value(QStringLiteral("path")).toString(),
                        failure.value(QStringLiteral("error")).toString()));
                }
                out(QStringLiteral("retrying in %1 ms: %2")
                        .arg(event.value(QStringLiteral("wait_ms")).toInt())
                        .arg(text("reason")));
            } else if (name == QLatin1String("disconnected")) {
                out(QStringLiteral("disconnected: %1; waiting").arg(text("reason")));
            } else if (name == QLatin1String("stopped")) {
                out(QStringLiteral("stopped"));
            }
        });
    follower.run();
    return exit_ok;
}

int ctxsync_cli_t::cmd_inspect_image()
{
    QJsonArray files;
    bool all_valid = true;
    for (const QString& path : std::as_const(positional_)) {
        image_t::ImageType type = image_t::UNKNOWN;
        QSize size;
        const bool readable = image_t::isValidImage(path, &type, &size, 0);
        QStringList warnings;
        g_captured_warnings = &warnings;
        const QtMessageHandler previous = qInstallMessageHandler(capture_warning);
        const bool valid = image_t::validator(path);
        qInstallMessageHandler(previous);
        g_captured_warnings = nullptr;
        all_valid = all_valid && valid;
        const qint64 bytes = QFileInfo(path).size();
        const QString format = image_t::supported_format_converter.value(type);
        const QString reason = warnings.join(QStringLiteral("; "));
        if (json_) {
            files.append(QJsonObject { { QStringLiteral("file"), path },
                { QStringLiteral("format"), format },
                { QStringLiteral("width"), readable ? size.width() : 0 },
                { QStringLiteral("height"), readable ? size.height() : 0 },
                { QStringLiteral("bytes"), bytes }, { QStringLiteral("valid"), valid },
                { QStringLiteral("reason"), reason } });
            continue;
        }
        const QString description = readable ? QStringLiteral("%1 %2 x %3, %4 bytes")
                                                   .arg(format)
                                                   .arg(size.width())
                                                   .arg(size.height())
                                                   .arg(bytes)
            : type != image_t::UNKNOWN
            ? QStringLiteral("%1 with an unreadable header, %2 bytes").arg(format).arg(bytes)
            : QStringLiteral("unknown format, %1 bytes").arg(bytes);
        out(QStringLiteral("%1: %2: %3")
                .arg(path, description,
                    valid ? QStringLiteral("valid background")
                          : QStringLiteral("not a valid background (%1)").arg(reason)));
    }
    if (json_)
        out_json({ { QStringLiteral("files"), files } });
    return all_valid ? exit_ok : exit_refused;
}
