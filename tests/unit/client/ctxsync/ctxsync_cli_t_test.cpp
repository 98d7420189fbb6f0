#include "ctxsync_cli_t.h"

#include "context_sync/context_sync/context_background_image_t.h"

#include "common/mosquitto_broker_t.h"
#include "common/qt_message_capture_t.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

#include <cstdio>

#include <gtest/gtest.h>

namespace {

struct run_t {
    int code = -1;
    QString out;
    QString err;
};

QString read_all(std::FILE* file)
{
    std::fflush(file);
    const long size = std::ftell(file);
    std::string text(size_t(size), '\0');
    std::rewind(file);
    text.resize(std::fread(text.data(), 1, text.size(), file));
    return QString::fromStdString(text);
}

// Runs the command line in this process, with its two streams caught in temporary files.
run_t run(const QStringList& arguments)
{
    std::FILE* out = std::tmpfile();
    std::FILE* err = std::tmpfile();
    run_t result;
    {
        ctxsync_cli_t cli(out, err);
        result.code = cli.run(arguments);
    }
    result.out = read_all(out);
    result.err = read_all(err);
    std::fclose(out);
    std::fclose(err);
    return result;
}

} // namespace

TEST(ctxsync_cli_t, HelpListsTheCommandsAndSucceeds)
{
    const run_t result = run({ QStringLiteral("--help") });
    EXPECT_EQ(result.code, ctxsync_cli_t::exit_ok);
    EXPECT_EQ(result.out, ctxsync_cli_t::usage());
    EXPECT_TRUE(result.out.contains(QStringLiteral("  pull DIR [--delete]")));
    EXPECT_TRUE(result.out.contains(QStringLiteral("  sync DIR [--delete]")));
}

TEST(ctxsync_cli_t, BadArgumentsExitWithTheUsageCode)
{
    const QList<QPair<QStringList, QString>> cases {
        { {}, QStringLiteral("ctxsync: no command given (see ctxsync --help)\n") },
        { { QStringLiteral("fly") },
            QStringLiteral("ctxsync: unknown command \"fly\" (see ctxsync --help)\n") },
        { { QStringLiteral("mv"), QStringLiteral("a") },
            QStringLiteral("ctxsync: wrong number of arguments for mv (see ctxsync --help)\n") },
        { { QStringLiteral("list"), QStringLiteral("extra") },
            QStringLiteral("ctxsync: wrong number of arguments for list (see ctxsync --help)\n") },
        { { QStringLiteral("--broker"), QStringLiteral("host:port"), QStringLiteral("list") },
            QStringLiteral("ctxsync: --broker wants HOST:PORT, not \"host:port\"\n") },
        { { QStringLiteral("--timeout"), QStringLiteral("0"), QStringLiteral("list") },
            QStringLiteral("ctxsync: --timeout wants a number of seconds, not \"0\"\n") },
        { { QStringLiteral("--to"), QStringLiteral("x"), QStringLiteral("list") },
            QStringLiteral("ctxsync: --to belongs to push\n") },
        { { QStringLiteral("--delete"), QStringLiteral("status"), QStringLiteral("d") },
            QStringLiteral("ctxsync: --delete belongs to pull and sync\n") },
        { { QStringLiteral("sync") },
            QStringLiteral("ctxsync: wrong number of arguments for sync (see ctxsync --help)\n") },
        { { QStringLiteral("--deadline"), QStringLiteral("0"), QStringLiteral("pull"),
              QStringLiteral("d") },
            QStringLiteral("ctxsync: --deadline wants a number of seconds, not \"0\"\n") },
        { { QStringLiteral("--cert"), QStringLiteral("c.pem"), QStringLiteral("list") },
            QStringLiteral("ctxsync: --cert and --key need --cafile\n") },
        { { QStringLiteral("--protocol"), QStringLiteral("3.1"), QStringLiteral("list") },
            QStringLiteral("ctxsync: --protocol wants 5 or 3.1.1, not \"3.1\"\n") },
        { { QStringLiteral("--bogus"), QStringLiteral("list") },
            QStringLiteral("ctxsync: Unknown option 'bogus'.\n") },
    };
    for (const auto& [arguments, message] : cases) {
        const run_t result = run(arguments);
        EXPECT_EQ(result.code, ctxsync_cli_t::exit_usage) << arguments.join(' ').toStdString();
        EXPECT_EQ(result.err, message);
        EXPECT_EQ(result.out, QString());
    }
}

TEST(ctxsync_cli_t, NoBrokerIsReportedWithItsOwnExitCode)
{
    const quint16 port = test_support::mosquitto_broker_t::free_port();
    const run_t result = run({ QStringLiteral("--broker"), QStringLiteral("127.0.0.1:%1").arg(port),
        QStringLiteral("--timeout"), QStringLiteral("0.5"), QStringLiteral("list") });
    EXPECT_EQ(result.code, ctxsync_cli_t::exit_no_broker);
    EXPECT_EQ(result.err,
        QStringLiteral("ctxsync: cannot connect: no MQTT broker accepted the connection at "
                       "127.0.0.1:%1 within 500 ms\n")
            .arg(port));
}

TEST(ctxsync_cli_t, NoServerIsATimeOut)
{
    test_support::mosquitto_broker_t broker;
    ASSERT_TRUE(broker.start());
    const run_t result = run(
        { QStringLiteral("--broker"), QStringLiteral("%1:%2").arg(broker.host()).arg(broker.port()),
            QStringLiteral("--timeout"), QStringLiteral("0.5"), QStringLiteral("list") });
    EXPECT_EQ(result.code, ctxsync_cli_t::exit_timeout);
    EXPECT_EQ(result.err, QStringLiteral("ctxsync: no file list from the server within 500 ms\n"));
    const run_t json = run({ QStringLiteral("--json"), QStringLiteral("--broker"),
        QStringLiteral("%1:%2").arg(broker.host()).arg(broker.port()), QStringLiteral("--timeout"),
        QStringLiteral("0.5"), QStringLiteral("status"), QDir::tempPath() });
    EXPECT_EQ(json.code, ctxsync_cli_t::exit_timeout);
    EXPECT_EQ(json.out,
        QStringLiteral(
            "{\"error\":\"no file list from the server within 500 ms\",\"exit_code\":4}\n"));
}

TEST(ctxsync_cli_t, CredentialsAreGivenToTheBroker)
{
    test_support::mosquitto_broker_t broker;
    const QString passwd = broker.work_dir() + QStringLiteral("/users.passwd");
    ASSERT_EQ(QProcess::execute(QStringLiteral("mosquitto_passwd"),
                  { QStringLiteral("-c"), QStringLiteral("-b"), passwd, QStringLiteral("alice"),
                      QStringLiteral("alice-pw") }),
        0);
    test_support::mosquitto_broker_t::config_t config;
    config.allow_anonymous = false;
    config.global = { QStringLiteral("per_listener_settings false"),
        QStringLiteral("password_file %1").arg(passwd) };
    ASSERT_TRUE(broker.start(config));
    const QStringList common { QStringLiteral("--broker"),
        QStringLiteral("%1:%2").arg(broker.host()).arg(broker.port()), QStringLiteral("--timeout"),
        QStringLiteral("0.5") };
    // Without the password the broker refuses the connection; with it, the connection is made and
    // only the (absent) server keeps the command from succeeding.
    EXPECT_EQ(
        run(common + QStringList { QStringLiteral("list") }).code, ctxsync_cli_t::exit_no_broker);
    EXPECT_EQ(
        run(common
            + QStringList { QStringLiteral("--username"), QStringLiteral("alice"),
                QStringLiteral("--password"), QStringLiteral("wrong"), QStringLiteral("list") })
            .code,
        ctxsync_cli_t::exit_no_broker);
    EXPECT_EQ(
        run(common
            + QStringList { QStringLiteral("--username"), QStringLiteral("alice"),
                QStringLiteral("--password"), QStringLiteral("alice-pw"), QStringLiteral("list") })
            .code,
        ctxsync_cli_t::exit_timeout);
}

TEST(ctxsync_cli_t, InspectImageAgreesWithTheValidator)
{
    const QDir images(QStringLiteral(CONTEXT_SYNC_TEST_DATA_DIR "/images"));
    QStringList paths;
    for (const QString& name : images.entryList(QDir::Files, QDir::Name))
        paths.append(images.filePath(name));
    ASSERT_GE(paths.size(), 10);
    const run_t result
        = run(QStringList { QStringLiteral("--json"), QStringLiteral("inspect-image") } + paths);
    EXPECT_EQ(result.code, ctxsync_cli_t::exit_refused);
    const QJsonArray files = QJsonDocument::fromJson(result.out.toUtf8())
                                 .object()
                                 .value(QStringLiteral("files"))
                                 .toArray();
    ASSERT_EQ(files.size(), paths.size());
    // The validator's reasons go to Qt's warning stream; keep them off the test output.
    test_support::qt_message_capture_t warnings;
    for (int i = 0; i < paths.size(); ++i) {
        const QJsonObject file = files[i].toObject();
        EXPECT_EQ(file.value(QStringLiteral("file")).toString(), paths[i]);
        const bool valid = context_sync_engine::context_background_image_t::validator(paths[i]);
        EXPECT_EQ(file.value(QStringLiteral("valid")).toBool(), valid) << paths[i].toStdString();
        EXPECT_EQ(file.value(QStringLiteral("reason")).toString().isEmpty(), valid);
    }
}

TEST(ctxsync_cli_t, InspectImageOfAValidImageSucceeds)
{
    const QString path = QStringLiteral(CONTEXT_SYNC_TEST_DATA_DIR "/images/bg_640x284.png");
    const run_t result = run({ QStringLiteral("inspect-image"), path });
    EXPECT_EQ(result.code, ctxsync_cli_t::exit_ok);
    EXPECT_EQ(
        result.out, QStringLiteral("%1: PNG 640 x 284, 1722 bytes: valid background\n").arg(path));
}
