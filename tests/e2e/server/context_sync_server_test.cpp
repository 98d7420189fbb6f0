// context_sync_server end to end: the real program as a child process, a real mosquitto, and the
// platform's rr client on the test side. Covers start-up (retained status, the first state of
// service with the cumulative hash, the client file), a list request, clean stops on SIGTERM and
// SIGINT with a flushed log, a SIGKILL and restart, and the command line's refusals.

#include "server_process_t.h"

#include "rr_test_support.h"

#include "common/config_http_server_t.h"
#include "common/md5_hex.h"
#include "common/mosquitto_broker_t.h"
#include "common/temp_tree_t.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <csignal>

using test_support::md5_hex;

namespace {

using server_e2e::server_process_t;

const QString kServiceStarted = QStringLiteral("Context sync service running on ");
const QString kPngFixture = QStringLiteral(CONTEXT_SYNC_TEST_DATA_DIR "/images/bg_640x284.png");
const QString kJpegFixture
    = QStringLiteral(CONTEXT_SYNC_TEST_DATA_DIR "/images/bg_640x284_baseline.jpg");

QByteArray read_file(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// What the server must list for `paths`, relative to the context root `root` inside `tree`: path
// to the MD5 of the content.
QJsonObject expected_files(
    const test_support::temp_tree_t& tree, const QStringList& paths, const QString& root)
{
    QJsonObject files;
    for (const QString& path : paths)
        files.insert(path, md5_hex(tree.read(root + path)));
    return files;
}

// The tree's cumulative hash, computed here independently of the library: MD5 hex of the MD5 hex
// of the sorted paths joined, followed by the MD5 hex of their file hashes joined.
QString cumulative_hash(const QJsonObject& files)
{
    QByteArray names;
    QByteArray hashes;
    for (auto it = files.begin(); it != files.end(); ++it) {
        names += it.key().toUtf8();
        hashes += it.value().toString().toUtf8();
    }
    return md5_hex(md5_hex(names).toLatin1() + md5_hex(hashes).toLatin1());
}

// One server set-up: a broker, a context root with a state folder beside it, and a settings file
// (file mode) that points the server at the broker.
class ContextSyncServer : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(broker_.start()) << broker_.log().toStdString();
        ASSERT_TRUE(dirs_.is_valid());
        ASSERT_TRUE(dirs_.mkdir(QStringLiteral("root/background")));
        root_ = dirs_.path(QStringLiteral("root")) + QLatin1Char('/');
        state_ = dirs_.path(QStringLiteral("state"));
        config_ = dirs_.path(QStringLiteral("settings.json"));
        write_settings(broker_.port());
    }

    void write_settings(int port)
    {
        ASSERT_TRUE(dirs_.write(QStringLiteral("settings.json"),
            QJsonDocument(settings_document(port, QString())).toJson()));
    }

    // A settings document of the configuration server's shape: the client and logs folders in the
    // state folder, and the broker at `port`; with an installation id when `id` is not empty.
    QJsonObject settings_document(int port, const QString& id) const
    {
        const QJsonObject mqtt { { "host", broker_.host() }, { "port", port },
            { "client_id", "context-sync-server" }, { "keepalive", 5 } };
        const QJsonObject document { { "static",
            QJsonObject { { "orvane",
                QJsonObject {
                    { "paths",
                        QJsonObject { { "client_communication", state_ },
                            { "logs", state_ + QStringLiteral("/logs") } } },
                    { "comunication", QJsonObject { { "mqtt", mqtt } } },
                } } } } };
        if (id.isEmpty())
            return document;
        QJsonObject with_id = document;
        with_id.insert(QStringLiteral("installation"),
            QJsonObject { { QStringLiteral("installation_id"), id } });
        return with_id;
    }

    void put_image(const QString& relative, const QString& fixture)
    {
        ASSERT_TRUE(dirs_.write(QStringLiteral("root/") + relative, read_file(fixture)));
    }

    QStringList server_arguments() const
    {
        return { QStringLiteral("--root"), root_, QStringLiteral("--config"), config_,
            QStringLiteral("--log-level"), QStringLiteral("6") };
    }

    // Starts the server and waits until the service has started.
    void start_server(server_process_t& server, const QStringList& arguments)
    {
        ASSERT_TRUE(server.start(arguments));
        ASSERT_TRUE(server.wait_for_output(kServiceStarted, 20000))
            << server.output().toStdString();
    }

    std::unique_ptr<rr_test::client_t> make_client(const QString& id)
    {
        auto client = std::make_unique<rr_test::client_t>(rr_test::settings(broker_, id));
        EXPECT_TRUE(client->wait_ready());
        return client;
    }

    enum class to_t { anyone, requester, everybody };

    // The index of the first response of `type` from position `from` on, sent to `to`, or -1
    // after the wait.
    static int wait_response(rr_test::client_t& client, const QString& type, int from = 0,
        int timeout_ms = 10000, to_t to = to_t::anyone)
    {
        int found = -1;
        rr_test::wait_until(
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

    QString log_file() const { return state_ + QStringLiteral("/logs/server-orvane.log"); }

    test_support::mosquitto_broker_t broker_;
    test_support::temp_tree_t dirs_;
    QString root_;
    QString state_;
    QString config_;
};

// Relative paths of the files in `tree` below `relative` (recursive).
QStringList files_below(const test_support::temp_tree_t& tree, const QString& relative)
{
    QStringList below;
    for (const QString& path : tree.files()) {
        if (path.startsWith(relative + QLatin1Char('/')))
            below.append(path);
    }
    return below;
}

} // namespace

TEST_F(ContextSyncServer, StartPublishesRetainedStatusAndStateOfServiceWithCumulativeHash)
{
    put_image(QStringLiteral("background/one.png"), kPngFixture);
    put_image(QStringLiteral("background/two.jpg"), kJpegFixture);
    const QString hash = cumulative_hash(expected_files(dirs_,
        { QStringLiteral("background/one.png"), QStringLiteral("background/two.jpg") },
        QStringLiteral("root/")));
    EXPECT_EQ(hash.size(), 32);

    auto early = make_client(QStringLiteral("e2e-early"));
    server_process_t server;
    start_server(server, server_arguments());

    const int index = wait_response(*early, QStringLiteral("state_of_service"));
    ASSERT_GE(index, 0) << server.output().toStdString();
    const rr_test::response_t& state = early->responses.at(index);
    EXPECT_EQ(state.subtype, QStringLiteral("ready_to_check"));
    EXPECT_TRUE(state.broadcast);
    EXPECT_EQ(state.payload.keys(), QStringList { QStringLiteral("context_hash") });
    EXPECT_EQ(state.payload.value(QStringLiteral("context_hash")).toString(), hash);
    EXPECT_TRUE(rr_test::wait_until([&] { return early->statuses.contains("online"); }));

    // A client that comes later finds the status retained.
    auto late = make_client(QStringLiteral("e2e-late"));
    EXPECT_TRUE(rr_test::wait_until([&] { return late->statuses.contains("online"); }));

    // File mode wrote the client file from the settings, with an installation id.
    const QJsonObject client_file
        = QJsonDocument::fromJson(read_file(state_ + QStringLiteral("/config/comunication.json")))
              .object();
    EXPECT_EQ(client_file.value("mqtt").toObject().value("port").toInt(), broker_.port());
    const QString id = client_file.value("global").toObject().value("installation_id").toString();
    EXPECT_TRUE(QRegularExpression(QStringLiteral("^[0-9a-f]{32}$")).match(id).hasMatch())
        << id.toStdString();
}

TEST_F(ContextSyncServer, AnswersAContextRequestWithTheFileListToTheRequesterAlone)
{
    put_image(QStringLiteral("background/one.png"), kPngFixture);
    put_image(QStringLiteral("background/two.jpg"), kJpegFixture);
    // The settings name a broker port where nothing listens: --broker must win.
    write_settings(test_support::mosquitto_broker_t::free_port());

    server_process_t server;
    QStringList arguments = server_arguments();
    arguments << QStringLiteral("--broker")
              << QStringLiteral("%1:%2").arg(broker_.host()).arg(broker_.port());
    start_server(server, arguments);

    auto asking = make_client(QStringLiteral("e2e-asking"));
    auto other = make_client(QStringLiteral("e2e-other"));
    ASSERT_TRUE(rr_test::wait_until([&] { return asking->statuses.contains("online"); }))
        << server.output().toStdString();
    asking->service()->send_request(QStringLiteral("ctx_request"), QJsonObject());

    const int index = wait_response(*asking, QStringLiteral("ctx_list"), 0, 10000, to_t::requester);
    ASSERT_GE(index, 0) << server.output().toStdString();
    EXPECT_EQ(asking->responses.at(index).subtype, QString());
    EXPECT_EQ(asking->responses.at(index).payload,
        QJsonObject({
            { "background/one.png", md5_hex(read_file(kPngFixture)) },
            { "background/two.jpg", md5_hex(read_file(kJpegFixture)) },
        }));
    // The answer went to the requester's own topic: the other client saw none addressed to it.
    rr_test::settle(300);
    EXPECT_EQ(wait_response(*other, QStringLiteral("ctx_list"), 0, 0, to_t::requester), -1);
    for (const rr_test::response_t& response : other->responses)
        EXPECT_TRUE(response.broadcast) << response.type.toStdString();
}

TEST_F(ContextSyncServer, SigtermStopsWithExitCodeZeroAndAFlushedLog)
{
    auto client = make_client(QStringLiteral("e2e-watch"));
    server_process_t server;
    start_server(server, server_arguments());
    ASSERT_TRUE(rr_test::wait_until([&] { return client->statuses.contains("online"); }));

    server.signal(SIGTERM);
    ASSERT_TRUE(server.wait_finished(20000)) << server.output().toStdString();
    EXPECT_EQ(server.exit_status(), QProcess::NormalExit);
    EXPECT_EQ(server.exit_code(), 0) << server.output().toStdString();

    // The log file ends with the program's last line: the writer was drained before exit.
    const QString log = QString::fromUtf8(read_file(log_file()));
    EXPECT_TRUE(log.contains(QStringLiteral("Signal 15 received, stopping"))) << log.toStdString();
    EXPECT_TRUE(log.contains(QStringLiteral("Stoppic context sync")));
    const QStringList lines = log.trimmed().split(QLatin1Char('\n'));
    EXPECT_TRUE(lines.last().contains(QStringLiteral("context_sync_server stopped")))
        << lines.last().toStdString();
    EXPECT_TRUE(server.output().contains(QStringLiteral("context_sync_server stopped")));

    // The service left cleanly: its retained status says so.
    EXPECT_TRUE(rr_test::wait_until([&] { return client->statuses.last() == "offline"; }));
}

TEST_F(ContextSyncServer, SigtermDuringADownloadStopsTheSenderAndExitsZero)
{
    put_image(QStringLiteral("background/one.png"), kPngFixture);
    auto client = make_client(QStringLiteral("e2e-downloader"));
    server_process_t server;
    start_server(server, server_arguments());
    ASSERT_TRUE(rr_test::wait_until([&] { return client->statuses.contains("online"); }));

    // The first chunk arrives and is never acknowledged: the sender waits for it.
    client->service()->send_request(QStringLiteral("ctx_download_request"),
        QJsonObject { { "message", QJsonArray { "background/one.png" } } });
    const int chunk = wait_response(*client, QStringLiteral("ctx_chunk"));
    ASSERT_GE(chunk, 0) << server.output().toStdString();
    EXPECT_EQ(client->responses.at(chunk).payload.value("file").toString(),
        QStringLiteral("background/one.png"));

    server.signal(SIGTERM);
    ASSERT_TRUE(server.wait_finished(20000)) << server.output().toStdString();
    EXPECT_EQ(server.exit_status(), QProcess::NormalExit);
    EXPECT_EQ(server.exit_code(), 0);
    const QString log = QString::fromUtf8(read_file(log_file()));
    // Stopped by the shutdown, not abandoned to its acknowledgement time-out.
    EXPECT_TRUE(log.contains(QStringLiteral("Stop transfer for client id: e2e-downloader")))
        << log.toStdString();
    EXPECT_FALSE(log.contains(QStringLiteral("[Transfer file terminated] Timeout ack")));
    EXPECT_TRUE(log.trimmed().endsWith(QStringLiteral("context_sync_server stopped")));
}

TEST_F(ContextSyncServer, SigintStopsWithExitCodeZero)
{
    server_process_t server;
    start_server(server, server_arguments());
    server.signal(SIGINT);
    ASSERT_TRUE(server.wait_finished(20000)) << server.output().toStdString();
    EXPECT_EQ(server.exit_status(), QProcess::NormalExit);
    EXPECT_EQ(server.exit_code(), 0);
    EXPECT_TRUE(server.output().contains(QStringLiteral("Signal 2 received, stopping")));
    EXPECT_TRUE(QString::fromUtf8(read_file(log_file()))
                    .contains(QStringLiteral("context_sync_server stopped")));
}

TEST_F(ContextSyncServer, KilledAndRestartedEmptiesTheReceiveFolderAndConverges)
{
    put_image(QStringLiteral("background/one.png"), kPngFixture);
    auto client = make_client(QStringLiteral("e2e-survivor"));
    {
        server_process_t server;
        start_server(server, server_arguments());
        ASSERT_TRUE(rr_test::wait_until([&] { return client->statuses.contains("online"); }));
        // Half an upload in the receive folder, as a crash mid-transfer leaves it.
        ASSERT_TRUE(dirs_.write(QStringLiteral("root/TMP_file_receive/[TO_SEND]two.jpg"),
            read_file(kJpegFixture).left(1000)));
        server.signal(SIGKILL);
        ASSERT_TRUE(server.wait_finished(10000));
        EXPECT_EQ(server.exit_status(), QProcess::CrashExit);
    }
    // The broker published the connection's Will.
    EXPECT_TRUE(rr_test::wait_until([&] { return client->statuses.last() == "offline"; }));

    // The tree changes while the server is down.
    put_image(QStringLiteral("background/two.jpg"), kJpegFixture);
    ASSERT_TRUE(dirs_.remove(QStringLiteral("root/background/one.png")));
    put_image(QStringLiteral("background/three.png"), kPngFixture);
    const QJsonObject files {
        { "background/three.png", md5_hex(read_file(kPngFixture)) },
        { "background/two.jpg", md5_hex(read_file(kJpegFixture)) },
    };

    const int before = client->responses.size();
    server_process_t restarted;
    start_server(restarted, server_arguments());
    const int state = wait_response(*client, QStringLiteral("state_of_service"), before);
    ASSERT_GE(state, 0) << restarted.output().toStdString();
    EXPECT_EQ(client->responses.at(state).payload.value("context_hash").toString(),
        cumulative_hash(files));
    EXPECT_TRUE(files_below(dirs_, QStringLiteral("root/TMP_file_receive")).isEmpty());

    const int asked = client->responses.size();
    client->service()->send_request(QStringLiteral("ctx_request"), QJsonObject());
    const int list
        = wait_response(*client, QStringLiteral("ctx_list"), asked, 10000, to_t::requester);
    ASSERT_GE(list, 0) << restarted.output().toStdString();
    EXPECT_EQ(client->responses.at(list).payload, files);
    EXPECT_TRUE(client->statuses.last() == "online");
}

TEST_F(ContextSyncServer, HttpModeTakesItsSettingsFromTheConfigurationServer)
{
    test_support::config_http_server_t configuration;
    ASSERT_TRUE(configuration.start(settings_document(broker_.port(), QString())))
        << configuration.error().toStdString();
    auto client = make_client(QStringLiteral("e2e-http"));

    server_process_t server;
    start_server(server,
        { "--root", root_, "--config-server", configuration.base_url(), "--log-level", "6" });
    EXPECT_TRUE(server.output().contains(
        QStringLiteral("Reading settings from configuration server ") + configuration.base_url()));
    ASSERT_TRUE(rr_test::wait_until([&] { return client->statuses.contains("online"); }))
        << server.output().toStdString();

    // The document had no installation id: one was made and stored on the configuration server,
    // and the client file carries it.
    ASSERT_EQ(configuration.puts().size(), 1);
    EXPECT_EQ(configuration.puts().first().path,
        QStringLiteral("/installation/installation_id?runtriggers=true"));
    const QJsonObject client_file
        = QJsonDocument::fromJson(read_file(state_ + QStringLiteral("/config/comunication.json")))
              .object();
    const QString id = client_file.value("global").toObject().value("installation_id").toString();
    EXPECT_EQ(configuration.puts().first().body, QStringLiteral("\"%1\"").arg(id));
    EXPECT_EQ(client_file.value("mqtt").toObject().value("port").toInt(), broker_.port());

    server.signal(SIGTERM);
    ASSERT_TRUE(server.wait_finished(20000));
    EXPECT_EQ(server.exit_code(), 0);
}

TEST_F(ContextSyncServer, HttpModeWithoutAnAnsweringServerUsesTheClientFileOfAnEarlierStart)
{
    // What an earlier start wrote: the broker's settings in the state folder.
    ASSERT_TRUE(dirs_.write(QStringLiteral("state/config/comunication.json"),
        QJsonDocument(
            QJsonObject { { "mqtt",
                QJsonObject { { "host", broker_.host() }, { "port", broker_.port() } } } })
            .toJson()));
    const QString url = QStringLiteral("http://127.0.0.1:%1/")
                            .arg(test_support::config_http_server_t::unused_port());
    auto client = make_client(QStringLiteral("e2e-nohttp"));

    server_process_t server;
    start_server(server,
        { "--root", root_, "--config-server", url, "--state-dir", state_, "--log-level", "6" });
    const QString output = server.output();
    EXPECT_TRUE(output.contains(QStringLiteral("Config server - wrong reponse to ") + url));
    EXPECT_TRUE(output.contains(QStringLiteral(
        "No settings from the configuration server, going on with the current ones")));
    EXPECT_TRUE(rr_test::wait_until([&] { return client->statuses.contains("online"); }))
        << server.output().toStdString();
}

TEST_F(ContextSyncServer, HttpModeEndsWithStatusZeroWhenANewInstallationIdCannotBeStored)
{
    test_support::config_http_server_t::options_t failing;
    failing.fail_put = true;
    test_support::config_http_server_t configuration;
    ASSERT_TRUE(configuration.start(settings_document(broker_.port(), QString()), failing));

    QString out;
    QString err;
    const int code = server_process_t::run(
        { "--root", root_, "--config-server", configuration.base_url(), "--log-level", "4" }, out,
        err);
    EXPECT_EQ(code, 0);
    EXPECT_TRUE((out + err).contains(QStringLiteral("Unable to genarate installation id ...")))
        << (out + err).toStdString();
    EXPECT_FALSE((out + err).contains(kServiceStarted));
}

TEST(ContextSyncServerCommandLine, BadOptionsAreUsageErrorsWithExitCodeTwo)
{
    struct row_t {
        QStringList arguments;
        QString message;
    };
    const QList<row_t> rows {
        { { "--no-such-option" }, "Unknown option 'no-such-option'." },
        { { "--broker", "localhost" },
            "Invalid value for '--broker': 'localhost' (expected "
            "HOST:PORT)." },
        { { "--broker", "127.0.0.1:70000" }, "Invalid value for '--broker': '127.0.0.1:70000'" },
        { { "--broker", ":1883" }, "Invalid value for '--broker': ':1883'" },
        { { "--log-level", "9" }, "Invalid value for '--log-level': '9' (expected 0 to 6)." },
        { { "--log-level", "high" }, "Invalid value for '--log-level': 'high'" },
        { { "--chunk-cache-mb", "-1" },
            "Invalid value for '--chunk-cache-mb': '-1' (expected 0 to 4096)." },
        { { "--chunk-cache-mb", "lots" }, "Invalid value for '--chunk-cache-mb': 'lots'" },
        { { "--config", "a.json", "--config-server", "http://127.0.0.1:4321/" },
            "Options '--config' and '--config-server' exclude each other." },
        { { "--config-server", "ftp://127.0.0.1/" }, "Invalid value for '--config-server'" },
        { { "--root" }, "Missing value after '--root'." },
        { { "--root", "" }, "Option '--root' needs a non-empty value." },
        { { "stray" }, "Unexpected argument: 'stray'." },
    };
    for (const row_t& row : rows) {
        QString out;
        QString err;
        const int code = server_process_t::run(row.arguments, out, err);
        EXPECT_EQ(code, 2) << row.arguments.join(' ').toStdString();
        EXPECT_TRUE(err.contains(row.message)) << err.toStdString();
        EXPECT_TRUE(err.contains(QStringLiteral("Try 'context_sync_server --help'")))
            << err.toStdString();
        EXPECT_TRUE(out.isEmpty()) << out.toStdString();
    }
}

TEST(ContextSyncServerCommandLine, HelpAndVersionPrintAndExitZero)
{
    QString out;
    QString err;
    ASSERT_EQ(server_process_t::run({ "--help" }, out, err), 0);
    EXPECT_TRUE(out.startsWith(QStringLiteral("Usage: context_sync_server [options]")));
    for (const char* option :
        { "--root DIR", "--config FILE", "--config-server URL", "--broker HOST:PORT",
            "--log-level N", "--chunk-cache-mb N", "--state-dir DIR", "--help", "--version" })
        EXPECT_TRUE(out.contains(QLatin1String(option))) << option;
    EXPECT_TRUE(err.isEmpty());

    ASSERT_EQ(server_process_t::run({ "--version" }, out, err), 0);
    EXPECT_TRUE(QRegularExpression(
        QStringLiteral(
            "^context_sync_server \\d+\\.\\d+\\.\\d+ \\(libcontext_sync \\d+\\.\\d+\\.\\d+\\)\n$"))
                    .match(out)
                    .hasMatch())
        << out.toStdString();
}

TEST(ContextSyncServerCommandLine, UnusableSettingsFileIsAStartFailureWithExitCodeOne)
{
    test_support::temp_tree_t dirs;
    ASSERT_TRUE(dirs.write(QStringLiteral("array.json"), "[1, 2]"));
    ASSERT_TRUE(dirs.write(QStringLiteral("broken.json"), "{\"static\": "));
    struct row_t {
        QString file;
        QString message;
    };
    const QList<row_t> rows {
        { dirs.path("missing.json"),
            QStringLiteral("cannot read settings file %1").arg(dirs.path("missing.json")) },
        { dirs.path("array.json"),
            QStringLiteral("settings file %1 is not a JSON object").arg(dirs.path("array.json")) },
        { dirs.path("broken.json"),
            QStringLiteral("settings file %1 is not JSON").arg(dirs.path("broken.json")) },
    };
    for (const row_t& row : rows) {
        QString out;
        QString err;
        const int code = server_process_t::run(
            { "--root", dirs.path("root"), "--config", row.file, "--log-level", "2" }, out, err);
        EXPECT_EQ(code, 1) << row.file.toStdString();
        EXPECT_TRUE(err.contains(row.message)) << err.toStdString();
    }
}

TEST(ContextSyncServerCommandLine, UncreatableRootIsAStartFailureWithExitCodeOne)
{
    test_support::temp_tree_t dirs;
    ASSERT_TRUE(dirs.write(QStringLiteral("plain_file"), "not a folder"));
    const QString root = dirs.path(QStringLiteral("plain_file/root"));
    QString out;
    QString err;
    const int code = server_process_t::run({ "--root", root, "--log-level", "2" }, out, err);
    EXPECT_EQ(code, 1);
    EXPECT_TRUE(err.contains(QStringLiteral("cannot create the context root %1/").arg(root)))
        << err.toStdString();
}
