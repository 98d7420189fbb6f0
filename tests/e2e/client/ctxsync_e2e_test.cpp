// A user's work with ctxsync, end to end: the real command line as a child process, the real
// server program and a real broker.

#include "client_test_env_t.h"

#include "context_sync_client/context_tree_t.h"

#include "context_sync/context_sync/context_background_image_t.h"

#include "common/qt_message_capture_t.h"
#include "common/temp_tree_t.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

#include <csignal>

#include <gtest/gtest.h>

using context_sync_client::context_tree_t;
using context_sync_client::file_map_t;

namespace {

struct run_t {
    int code = -1;
    QString out;
    QString err;
};

QString image_path(const QString& name)
{
    return QStringLiteral(CONTEXT_SYNC_TEST_DATA_DIR "/images/") + name;
}

QByteArray image(const QString& name)
{
    QFile file(image_path(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QString md5(const QByteArray& bytes)
{
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex());
}

// Runs ctxsync to its end; -1 when it crashed or did not end in time.
run_t ctxsync(const QStringList& arguments, int timeout_ms = 60000)
{
    QProcess process;
    process.start(QStringLiteral(CTXSYNC_PATH), arguments);
    run_t result;
    if (!process.waitForStarted(10000))
        return result;
    if (!process.waitForFinished(timeout_ms)) {
        process.kill();
        process.waitForFinished(5000);
        return result;
    }
    result.code = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    result.out = QString::fromUtf8(process.readAllStandardOutput());
    result.err = QString::fromUtf8(process.readAllStandardError());
    return result;
}

class ctxsync_session : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(env.start()); }

    run_t run(const QStringList& arguments)
    {
        return ctxsync(QStringList { QStringLiteral("--broker"), env.broker_text(),
                           QStringLiteral("--timeout"), QStringLiteral("10") }
            + arguments);
    }

    client_test::client_test_env_t env;
};

} // namespace

TEST_F(ctxsync_session, AUsersSessionKeepsServerAndFolderInStep)
{
    const QString png = QStringLiteral("background/bg_640x284.png");
    const QString jpg = QStringLiteral("background/bg_640x284_baseline.jpg");
    run_t result = run({ QStringLiteral("push"), image_path("bg_640x284.png"),
        image_path("bg_640x284_baseline.jpg") });
    ASSERT_EQ(result.code, 0) << result.err.toStdString();
    EXPECT_EQ(result.out, QStringLiteral("pushed   %1\npushed   %2\n").arg(png, jpg));
    const file_map_t pushed { { png, md5(image("bg_640x284.png")) },
        { jpg, md5(image("bg_640x284_baseline.jpg")) } };

    result = run({ QStringLiteral("--json"), QStringLiteral("list") });
    ASSERT_EQ(result.code, 0) << result.err.toStdString();
    const QJsonObject listed = QJsonDocument::fromJson(result.out.toUtf8()).object();
    EXPECT_EQ(context_tree_t::from_json(listed.value(QStringLiteral("files")).toObject()), pushed);
    EXPECT_EQ(listed.value(QStringLiteral("context_hash")).toString(),
        context_tree_t::cumulative_hash(pushed));
    result = run({ QStringLiteral("list") });
    EXPECT_EQ(result.out,
        QStringLiteral("%1  %2\n%3  %4\n2 files, context hash %5\n")
            .arg(pushed.value(png), png, pushed.value(jpg), jpg,
                context_tree_t::cumulative_hash(pushed)));

    test_support::temp_tree_t pulled;
    result = run({ QStringLiteral("pull"), pulled.root() });
    ASSERT_EQ(result.code, 0) << result.err.toStdString();
    EXPECT_TRUE(
        result.out.endsWith(QStringLiteral("2 pulled (5.8 KiB), 0 failed, 0 deleted; in step\n")))
        << result.out.toStdString();
    EXPECT_EQ(pulled.read(png), image("bg_640x284.png"));
    EXPECT_EQ(pulled.read(jpg), image("bg_640x284_baseline.jpg"));
    EXPECT_EQ(pulled.files(), (QStringList { png, jpg }));

    result = run({ QStringLiteral("status"), pulled.root() });
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.out,
        QStringLiteral("in step: 2 files, context hash %1\n")
            .arg(context_tree_t::cumulative_hash(pushed)));

    const QString moved = QStringLiteral("background/moved.png");
    result = run({ QStringLiteral("mv"), png, moved });
    ASSERT_EQ(result.code, 0) << result.err.toStdString();
    EXPECT_EQ(result.out, QStringLiteral("renamed  %1 -> %2\n").arg(png, moved));
    result = run({ QStringLiteral("status"), pulled.root() });
    EXPECT_EQ(result.code, 6);
    EXPECT_EQ(result.out,
        QStringLiteral(
            "not in step: 1 to pull, 0 differ, 1 only local\n  missing     %1\n  local only  %2\n")
            .arg(moved, png));

    result = run({ QStringLiteral("pull"), QStringLiteral("--delete"), pulled.root() });
    ASSERT_EQ(result.code, 0) << result.err.toStdString();
    EXPECT_EQ(result.out,
        QStringLiteral(
            "pulled   %1\ndeleted  %2\n1 pulled (1.7 KiB), 0 failed, 1 deleted; in step\n")
            .arg(moved, png));
    EXPECT_EQ(pulled.files(), (QStringList { jpg, moved }));
    EXPECT_EQ(run({ QStringLiteral("status"), pulled.root() }).code, 0);

    result = run({ QStringLiteral("rm"), jpg });
    ASSERT_EQ(result.code, 0) << result.err.toStdString();
    EXPECT_EQ(result.out, QStringLiteral("removed  %1\n").arg(jpg));
    EXPECT_EQ(env.server_tree(), (file_map_t { { moved, pushed.value(png) } }));

    // replace: the server's tree becomes the local folder's.
    test_support::temp_tree_t local;
    ASSERT_TRUE(local.write(moved, image("bg_640x284.png")));
    ASSERT_TRUE(local.write(QStringLiteral("background/exif.jpg"), image("bg_640x284_exif.jpg")));
    ASSERT_TRUE(local.write(
        QStringLiteral("background/progressive.jpg"), image("bg_640x284_progressive.jpg")));
    result = run({ QStringLiteral("replace"), local.root() });
    ASSERT_EQ(result.code, 0) << result.err.toStdString();
    const file_map_t replaced = context_tree_t::scan_local(local.root());
    EXPECT_EQ(result.out,
        QStringLiteral("pushed   background/exif.jpg\npushed   background/progressive.jpg\n"
                       "replaced: the server's tree matches %1 (context hash %2)\n")
            .arg(local.root(), context_tree_t::cumulative_hash(replaced)));
    EXPECT_EQ(env.server_tree(), replaced);
    result = run({ QStringLiteral("status"), local.root() });
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.out,
        QStringLiteral("in step: 3 files, context hash %1\n")
            .arg(context_tree_t::cumulative_hash(replaced)));
    // The folder pulled before is behind now, and says so.
    EXPECT_EQ(run({ QStringLiteral("status"), pulled.root() }).code, 6);
}

TEST_F(ctxsync_session, APushOfAWrongSizedImageIsReportedAsRefused)
{
    const QString wrong = image_path("bg_284x640.jpg");
    run_t result = run({ QStringLiteral("push"), wrong });
    EXPECT_EQ(result.code, 5);
    EXPECT_EQ(result.out, QString());
    EXPECT_EQ(result.err,
        QStringLiteral(
            "ctxsync: refused: the server would not keep background/bg_284x640.jpg: 284 x "
            "640 pixels; a background must be 640 x 284 (--force sends it anyway)\n"));

    // Sent anyway, the server takes it and then deletes it; the client notices.
    result = run({ QStringLiteral("push"), QStringLiteral("--force"), wrong });
    EXPECT_EQ(result.code, 5);
    EXPECT_EQ(result.err,
        QStringLiteral("ctxsync: refused background/bg_284x640.jpg: the server removed "
                       "background/bg_284x640.jpg after receiving it (284 x 640 pixels; a "
                       "background must be 640 x 284)\n"));
    result = run({ QStringLiteral("--json"), QStringLiteral("push"), QStringLiteral("--force"),
        wrong, image_path("bg_640x284.png") });
    EXPECT_EQ(result.code, 5);
    const QJsonArray files = QJsonDocument::fromJson(result.out.toUtf8())
                                 .object()
                                 .value(QStringLiteral("files"))
                                 .toArray();
    ASSERT_EQ(files.size(), 2);
    EXPECT_TRUE(files[0].toObject().value(QStringLiteral("refused")).toBool());
    EXPECT_FALSE(files[0].toObject().value(QStringLiteral("ok")).toBool());
    EXPECT_TRUE(files[1].toObject().value(QStringLiteral("ok")).toBool());
    EXPECT_EQ(env.server_tree(),
        (file_map_t {
            { QStringLiteral("background/bg_640x284.png"), md5(image("bg_640x284.png")) } }));
}

TEST_F(ctxsync_session, AnImageOfSeveralChunksTravelsBothWaysUnchanged)
{
    // 1048576 bytes: three chunks, the largest background the server keeps.
    const QString name = QStringLiteral("padded_1048576.png");
    run_t result = run({ QStringLiteral("--json"), QStringLiteral("push"), image_path(name) });
    ASSERT_EQ(result.code, 0) << result.err.toStdString();
    const QJsonObject document = QJsonDocument::fromJson(result.out.toUtf8()).object();
    const QJsonObject pushed = document.value(QStringLiteral("files")).toArray().first().toObject();
    EXPECT_EQ(pushed.value(QStringLiteral("md5")).toString(), md5(image(name)));
    EXPECT_EQ(document.value(QStringLiteral("bytes")).toInteger(), image(name).size());
    EXPECT_TRUE(document.value(QStringLiteral("transfer_ms")).isDouble());
    EXPECT_GE(document.value(QStringLiteral("transfer_ms")).toInteger(-1), 0);
    EXPECT_EQ(env.root().read(QStringLiteral("background/") + name), image(name));

    test_support::temp_tree_t pulled;
    result = run({ QStringLiteral("--json"), QStringLiteral("pull"), pulled.root() });
    ASSERT_EQ(result.code, 0) << result.err.toStdString();
    const QJsonObject report = QJsonDocument::fromJson(result.out.toUtf8()).object();
    EXPECT_EQ(report.value(QStringLiteral("bytes")).toInt(), 1048576);
    EXPECT_TRUE(report.value(QStringLiteral("in_step")).toBool());
    EXPECT_EQ(pulled.read(QStringLiteral("background/") + name), image(name));
}

TEST_F(ctxsync_session, APullAfterTheServerWasKilledAndRestartedStillConverges)
{
    ASSERT_EQ(run({ QStringLiteral("push"), image_path("bg_640x284.png") }).code, 0);
    ASSERT_TRUE(env.restart_server());
    ASSERT_TRUE(
        env.root().write(QStringLiteral("background/added.jpg"), image("bg_640x284_exif.jpg")));
    const file_map_t expected { { QStringLiteral("background/bg_640x284.png"),
                                    md5(image("bg_640x284.png")) },
        { QStringLiteral("background/added.jpg"), md5(image("bg_640x284_exif.jpg")) } };
    ASSERT_TRUE(env.wait_for_server_tree(expected, 15000));
    test_support::temp_tree_t pulled;
    const run_t result = run({ QStringLiteral("pull"), pulled.root() });
    ASSERT_EQ(result.code, 0) << result.err.toStdString();
    EXPECT_EQ(context_tree_t::scan_local(pulled.root()), expected);
    EXPECT_EQ(run({ QStringLiteral("status"), pulled.root() }).code, 0);
}

TEST_F(ctxsync_session, WatchPrintsTheNewListWhenTheTreeChanges)
{
    QProcess watch;
    watch.start(QStringLiteral(CTXSYNC_PATH),
        { QStringLiteral("--broker"), env.broker_text(), QStringLiteral("--json"),
            QStringLiteral("watch") });
    ASSERT_TRUE(watch.waitForStarted(10000));
    QString output;
    const auto seen = [&](const QString& fragment) {
        return client_test::wait_until(
            [&] {
                watch.waitForReadyRead(10);
                output += QString::fromUtf8(watch.readAllStandardOutput());
                return output.contains(fragment);
            },
            15000);
    };
    // The first list answers the watcher's own request.
    ASSERT_TRUE(seen(QStringLiteral("\"type\":\"ctx_list\""))) << output.toStdString();
    ASSERT_EQ(run({ QStringLiteral("push"), image_path("bg_640x284.png") }).code, 0);
    ASSERT_TRUE(seen(
        QStringLiteral("\"background/bg_640x284.png\":\"%1\"").arg(md5(image("bg_640x284.png")))))
        << output.toStdString();
    for (const QString& line : output.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        EXPECT_TRUE(QJsonDocument::fromJson(line.toUtf8()).isObject()) << line.toStdString();
    ::kill(pid_t(watch.processId()), SIGTERM);
    ASSERT_TRUE(watch.waitForFinished(10000));
    EXPECT_EQ(watch.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(watch.exitCode(), 0);
}

TEST(ctxsync_e2e, NoBrokerAndNoServerHaveTheirOwnExitCodes)
{
    const quint16 port = test_support::mosquitto_broker_t::free_port();
    run_t result = ctxsync({ QStringLiteral("--broker"), QStringLiteral("127.0.0.1:%1").arg(port),
        QStringLiteral("--timeout"), QStringLiteral("1"), QStringLiteral("list") });
    EXPECT_EQ(result.code, 3);
    EXPECT_EQ(result.err,
        QStringLiteral("ctxsync: cannot connect: no MQTT broker accepted the connection at "
                       "127.0.0.1:%1 within 1000 ms\n")
            .arg(port));

    test_support::mosquitto_broker_t broker;
    ASSERT_TRUE(broker.start());
    result = ctxsync({ QStringLiteral("--broker"),
        QStringLiteral("%1:%2").arg(broker.host()).arg(broker.port()), QStringLiteral("--timeout"),
        QStringLiteral("1"), QStringLiteral("pull"), test_support::temp_tree_t().root() });
    EXPECT_EQ(result.code, 4);
    EXPECT_EQ(result.err, QStringLiteral("ctxsync: no file list from the server within 1000 ms\n"));
}

TEST(ctxsync_e2e, InspectImageAgreesWithTheValidatorOnEveryImage)
{
    const QDir images(QStringLiteral(CONTEXT_SYNC_TEST_DATA_DIR "/images"));
    QStringList paths;
    for (const QString& name :
        images.entryList({ QStringLiteral("*.png"), QStringLiteral("*.jpg"),
                             QStringLiteral("*.gif"), QStringLiteral("*.webp") },
            QDir::Files, QDir::Name))
        paths.append(images.filePath(name));
    ASSERT_GE(paths.size(), 10);
    const run_t result = ctxsync(
        QStringList { QStringLiteral("--json"), QStringLiteral("inspect-image") } + paths);
    const QJsonArray files = QJsonDocument::fromJson(result.out.toUtf8())
                                 .object()
                                 .value(QStringLiteral("files"))
                                 .toArray();
    ASSERT_EQ(files.size(), paths.size());
    test_support::qt_message_capture_t warnings;
    bool all_valid = true;
    for (int i = 0; i < paths.size(); ++i) {
        const bool valid = context_sync_engine::context_background_image_t::validator(paths[i]);
        all_valid = all_valid && valid;
        EXPECT_EQ(files[i].toObject().value(QStringLiteral("valid")).toBool(), valid)
            << paths[i].toStdString();
    }
    EXPECT_FALSE(all_valid);
    EXPECT_EQ(result.code, 5);
    // One file at a time, in text, each verdict agrees too.
    for (const QString& path : std::as_const(paths)) {
        const run_t one = ctxsync({ QStringLiteral("inspect-image"), path });
        const bool valid = context_sync_engine::context_background_image_t::validator(path);
        EXPECT_EQ(one.code, valid ? 0 : 5) << path.toStdString();
        EXPECT_EQ(one.out.endsWith(QStringLiteral(": valid background\n")), valid)
            << one.out.toStdString();
    }
}
