#include "reliability_env_t.h"

#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"

#include <QCryptographicHash>
#include <QDeadlineTimer>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QRegularExpression>

#include <csignal>
#include <sys/types.h>

namespace reliability {

namespace {

const QString kServiceStarted = QStringLiteral("Context sync service running on ");

int level_number(const QString& name)
{
    static const QMap<QString, int> levels { { QStringLiteral("critical"), 1 },
        { QStringLiteral("error"), 2 }, { QStringLiteral("warning"), 3 },
        { QStringLiteral("info"), 4 }, { QStringLiteral("debug"), 5 },
        { QStringLiteral("trace"), 6 } };
    return levels.value(name, -1);
}

bool run_program(const QString& program, const QStringList& arguments)
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForFinished(30000))
        return false;
    return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

// The ACL block of docs/deployment.md (the one that starts with "# orvane.acl"): the tests run
// behind exactly what the deployment guide tells administrators to install.
QString deployment_acl()
{
    const QString text = QString::fromUtf8(
        read_file(QStringLiteral(CONTEXT_SYNC_SOURCE_DIR "/docs/deployment.md")));
    const QRegularExpression block(QStringLiteral("```conf\\n(# orvane\\.acl\\n.*?)```"),
        QRegularExpression::DotMatchesEverythingOption);
    return block.match(text).captured(1);
}

} // namespace

QList<log_line_t> parse_console(const QString& output)
{
    static const QRegularExpression line_pattern(
        QStringLiteral("^\\[[^\\]]*\\] \\[(\\w+)\\] \\[([^\\]]*)\\] \\[[^\\]]*\\] (.*)$"));
    QList<log_line_t> lines;
    for (const QString& line : output.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        const QRegularExpressionMatch match = line_pattern.match(line);
        const int level = match.hasMatch() ? level_number(match.captured(1)) : -1;
        if (level < 0) {
            lines.append({ -1, QString(), line });
            continue;
        }
        lines.append({ level, match.captured(2), match.captured(3) });
    }
    return lines;
}

QByteArray read_file(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QString fixture_image(const QString& name)
{
    return QStringLiteral(CONTEXT_SYNC_TEST_DATA_DIR "/images/") + name;
}

snapshot_t snapshot(const QString& dir)
{
    snapshot_t files;
    const QDir base(dir);
    QDirIterator it(dir, QDir::Files | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
        QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        QFile file(path);
        QCryptographicHash hash(QCryptographicHash::Md5);
        if (file.open(QIODevice::ReadOnly))
            hash.addData(&file);
        files.insert(base.relativeFilePath(path), QString::fromLatin1(hash.result().toHex()));
    }
    return files;
}

// ------------------------------------------------------------------------------------------------

ctxsync_process_t::~ctxsync_process_t()
{
    kill();
}

bool ctxsync_process_t::start(const QStringList& arguments)
{
    process_.start(QStringLiteral(CTXSYNC_PATH), arguments);
    return process_.waitForStarted(10000);
}

void ctxsync_process_t::kill()
{
    if (process_.state() == QProcess::NotRunning)
        return;
    ::kill(pid_t(process_.processId()), SIGKILL);
    process_.waitForFinished(5000);
}

run_t ctxsync_process_t::finish(int timeout_ms)
{
    run_t result;
    const bool finished
        = wait_until([this] { return process_.state() == QProcess::NotRunning; }, timeout_ms);
    result.out = QString::fromUtf8(process_.readAllStandardOutput());
    result.err = QString::fromUtf8(process_.readAllStandardError());
    if (finished && process_.exitStatus() == QProcess::NormalExit)
        result.code = process_.exitCode();
    return result;
}

// ------------------------------------------------------------------------------------------------

void reliability_test::SetUp()
{
    ASSERT_TRUE(dirs_.is_valid());
    ASSERT_TRUE(dirs_.mkdir(QStringLiteral("root/background")));
    root_ = dirs_.path(QStringLiteral("root")) + QLatin1Char('/');
    state_ = dirs_.path(QStringLiteral("state"));
    outside_ = dirs_.path(QStringLiteral("outside")) + QLatin1Char('/');
    settings_path_ = dirs_.path(QStringLiteral("settings.json"));
    // What a path that escapes the root would reach: files beside the root, and a folder named
    // like the root with a suffix (a prefix check without the separator would let it through).
    ASSERT_TRUE(dirs_.write(QStringLiteral("outside/secret.txt"), "not for clients\n"));
    ASSERT_TRUE(dirs_.write(
        QStringLiteral("outside/background/keep.png"), read_file(fixture_image("bg_640x284.png"))));
    ASSERT_TRUE(dirs_.write(QStringLiteral("root_sibling/note.txt"), "beside the root\n"));
}

void reliability_test::TearDown()
{
    if (server_ && server_->is_running()) {
        server_->signal(SIGTERM);
        if (!server_->wait_finished(15000))
            server_->signal(SIGKILL);
        server_->wait_finished(5000);
    }
    server_.reset();
    broker_.stop();
}

bool reliability_test::start_broker()
{
    return broker_.start();
}

bool reliability_test::start_acl_broker()
{
    const QString acl = deployment_acl();
    if (acl.isEmpty())
        return false;
    const QString dir = broker_.work_dir();
    QFile acl_file(dir + QStringLiteral("/orvane.acl"));
    if (!acl_file.open(QIODevice::WriteOnly))
        return false;
    acl_file.write(acl.toUtf8());
    acl_file.close();
    const QString passwd = dir + QStringLiteral("/orvane.passwd");
    const QString tool = QStringLiteral("mosquitto_passwd");
    if (!run_program(tool, { "-c", "-b", passwd, "context-sync-server", "context-sync-server-pw" })
        || !run_program(tool, { "-b", passwd, "alice", "alice-pw" })
        || !run_program(tool, { "-b", passwd, "mallory", "mallory-pw" }))
        return false;
    test_support::mosquitto_broker_t::config_t config;
    config.allow_anonymous = false;
    config.global = { QStringLiteral("per_listener_settings false"),
        QStringLiteral("password_file %1").arg(passwd),
        QStringLiteral("acl_file %1/orvane.acl").arg(dir) };
    config.listener = { QStringLiteral("use_username_as_clientid true") };
    server_user_ = QStringLiteral("context-sync-server");
    server_password_ = QStringLiteral("context-sync-server-pw");
    return broker_.start(config);
}

QString reliability_test::broker_text() const
{
    return QStringLiteral("%1:%2").arg(broker_.host()).arg(broker_.port());
}

void reliability_test::write_settings()
{
    QJsonObject mqtt { { "host", broker_.host() }, { "port", broker_.port() },
        { "client_id", "context-sync-server" }, { "keepalive", 5 } };
    if (!server_user_.isEmpty()) {
        mqtt.insert(QStringLiteral("username"), server_user_);
        mqtt.insert(QStringLiteral("password"), server_password_);
    }
    const QJsonObject document { { "static",
        QJsonObject { { "orvane",
            QJsonObject {
                { "paths",
                    QJsonObject { { "client_communication", state_ },
                        { "logs", state_ + QStringLiteral("/logs") } } },
                { "comunication", QJsonObject { { "mqtt", mqtt } } },
            } } } } };
    QFile file(settings_path_);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(QJsonDocument(document).toJson());
}

bool reliability_test::start_server(int log_level)
{
    if (server_) {
        previous_output_ += server_->output();
        server_.reset();
    }
    write_settings();
    server_ = std::make_unique<server_e2e::server_process_t>();
    if (!server_->start({ QStringLiteral("--root"), root_, QStringLiteral("--config"),
            settings_path_, QStringLiteral("--log-level"), QString::number(log_level) }))
        return false;
    return server_->wait_for_output(kServiceStarted, 20000);
}

void reliability_test::kill_server()
{
    if (!server_)
        return;
    server_->signal(SIGKILL);
    server_->wait_finished(10000);
}

QString reliability_test::output()
{
    return server_ ? server_->output() : QString();
}

QList<log_line_t> reliability_test::logs()
{
    return parse_console(output());
}

bool reliability_test::logged(const QString& message, int level)
{
    return count_logged(message, level) > 0;
}

int reliability_test::count_logged(const QString& message, int level)
{
    int count = 0;
    for (const log_line_t& line : logs()) {
        if (line.message == message && (level < 0 || line.level == level))
            ++count;
    }
    return count;
}

int reliability_test::count_fragment(const QString& fragment)
{
    return int(output().count(fragment));
}

bool reliability_test::wait_logged(const QString& message, int level, int timeout_ms)
{
    return wait_until([&] { return logged(message, level); }, timeout_ms);
}

bool reliability_test::wait_fragment(const QString& fragment, int count, int timeout_ms)
{
    return wait_until([&] { return count_fragment(fragment) >= count; }, timeout_ms);
}

QStringList reliability_test::complaints(const QStringList& expected)
{
    QStringList found;
    for (const log_line_t& line : logs()) {
        if (line.level < 1 || line.level > 3)
            continue;
        bool known = false;
        for (const QString& fragment : expected)
            known = known || line.message.contains(fragment);
        if (!known)
            found.append(line.message);
    }
    return found;
}

std::unique_ptr<rr_test::client_t> reliability_test::client(
    const QString& id, const QString& user, const QString& password)
{
    comunication::config::mosquittocnf_t cnf = rr_test::settings(broker_, id);
    if (!user.isEmpty())
        cnf.setCredentials(user, password);
    auto made = std::make_unique<rr_test::client_t>(cnf);
    if (user.isEmpty()) {
        EXPECT_TRUE(made->wait_ready()) << id.toStdString();
        return made;
    }
    // Behind the ACL a client may not write the probe that wait_ready() sends; the retained
    // status comes through the last of its subscriptions, so its arrival proves all of them.
    EXPECT_TRUE(wait_until([&] { return !made->statuses.isEmpty(); }, 10000)) << id.toStdString();
    return made;
}

void reliability_test::publish_raw(
    rr_test::client_t& client, const QString& topic, const QByteArray& body)
{
    comunication::protoserver_t* proto = &client.proto();
    comunication::service::service_rr_client_t* service = client.service();
    QMetaObject::invokeMethod(
        proto, [proto, service, topic, body] { proto->publish(service, topic, body, false); },
        Qt::BlockingQueuedConnection);
}

QString reliability_test::request_topic(const QString& client_id) const
{
    return QStringLiteral("orvane/rr/context_sync/req/") + client_id;
}

QJsonObject reliability_test::chunk_of(
    const QString& file, const QByteArray& bytes, int index, int remaining_files, int level)
{
    using context_sync_engine::chunk_codec_t;
    chunk_codec_t::header_t header;
    header.file = file;
    header.chunk_index = index;
    header.remaining_files = remaining_files;
    header.total_chunks = chunk_codec_t::chunk_count(bytes.size());
    const QByteArrayView raw
        = QByteArrayView(bytes).sliced(qsizetype(index) * chunk_codec_t::CHUNK_SIZE,
            qMin<qsizetype>(chunk_codec_t::CHUNK_SIZE,
                bytes.size() - qsizetype(index) * chunk_codec_t::CHUNK_SIZE));
    return chunk_codec_t::build_chunk(header, raw, level);
}

void reliability_test::send_chunk(rr_test::client_t& client, const QJsonObject& chunk)
{
    client.service()->send_request(
        QStringLiteral("ctx_chunk"), QJsonObject { { QStringLiteral("message"), chunk } });
}

int reliability_test::wait_ack(
    rr_test::client_t& client, const QString& file, int index, int from, int timeout_ms)
{
    int found = -1;
    wait_until(
        [&] {
            for (int i = from; i < client.responses.size(); ++i) {
                const rr_test::response_t& response = client.responses.at(i);
                if (response.type == QLatin1String("ctx_chunk_ack")
                    && response.payload.value(QStringLiteral("file")).toString() == file
                    && response.payload.value(QStringLiteral("chunkIndex")).toInt(-1) == index) {
                    found = i;
                    return true;
                }
            }
            return false;
        },
        timeout_ms);
    return found;
}

bool reliability_test::wait_status(rr_test::client_t& client, const QString& status, int timeout_ms)
{
    return wait_until(
        [&] {
            output(); // keeps the server's pipe drained
            return !client.statuses.isEmpty() && client.statuses.last() == status;
        },
        timeout_ms);
}

int reliability_test::wait_response(
    rr_test::client_t& client, const QString& type, int from, int timeout_ms, to_t to)
{
    int found = -1;
    wait_until(
        [&] {
            for (int i = from; i < client.responses.size(); ++i) {
                const rr_test::response_t& response = client.responses.at(i);
                const bool addressed
                    = to == to_t::anyone || response.broadcast == (to == to_t::everybody);
                if (response.type == type && addressed) {
                    found = i;
                    return true;
                }
            }
            return false;
        },
        timeout_ms);
    return found;
}

QJsonObject reliability_test::server_list(rr_test::client_t& client, bool* ok, int timeout_ms)
{
    QDeadlineTimer deadline(timeout_ms);
    while (!deadline.hasExpired()) {
        const int from = int(client.responses.size());
        client.service()->send_request(QStringLiteral("ctx_request"), QJsonObject());
        const int wait = int(qMin<qint64>(1000, qMax<qint64>(1, deadline.remainingTime())));
        const int index
            = wait_response(client, QStringLiteral("ctx_list"), from, wait, to_t::requester);
        if (index >= 0) {
            if (ok)
                *ok = true;
            return client.responses.at(index).payload;
        }
        output();
    }
    if (ok)
        *ok = false;
    return QJsonObject();
}

bool reliability_test::wait_list(
    rr_test::client_t& client, const QJsonObject& expected, int timeout_ms)
{
    QDeadlineTimer deadline(timeout_ms);
    while (!deadline.hasExpired()) {
        bool ok = false;
        const QJsonObject listed
            = server_list(client, &ok, int(qMax<qint64>(1, deadline.remainingTime())));
        if (ok && listed == expected)
            return true;
        rr_test::settle(200);
    }
    return false;
}

QJsonObject reliability_test::disk_list()
{
    QJsonObject files;
    const snapshot_t all = snapshot(root_);
    for (auto it = all.begin(); it != all.end(); ++it) {
        bool listed = true;
        for (const QString& segment : it.key().split(QLatin1Char('/'))) {
            if (segment.startsWith(QLatin1Char('.'))
                || segment.startsWith(QLatin1String("TMP_"), Qt::CaseInsensitive))
                listed = false;
        }
        if (listed)
            files.insert(it.key(), it.value());
    }
    return files;
}

QStringList reliability_test::ctxsync_arguments(
    const QString& client_id, const QStringList& command, int timeout_s) const
{
    QStringList arguments { QStringLiteral("--broker"), broker_text(),
        QStringLiteral("--client-id"), client_id, QStringLiteral("--timeout"),
        QString::number(timeout_s) };
    return arguments + command;
}

run_t reliability_test::ctxsync(
    const QString& client_id, const QStringList& command, int timeout_s, int wall_ms)
{
    ctxsync_process_t process;
    if (!process.start(ctxsync_arguments(client_id, command, timeout_s)))
        return run_t();
    run_t result = process.finish(wall_ms);
    output();
    return result;
}

void reliability_test::put_image(const QString& relative, const QString& fixture)
{
    ASSERT_TRUE(QDir().mkpath(QFileInfo(root_ + relative).absolutePath()));
    QFile file(root_ + relative);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    ASSERT_EQ(file.write(read_file(fixture)), read_file(fixture).size());
}

} // namespace reliability
