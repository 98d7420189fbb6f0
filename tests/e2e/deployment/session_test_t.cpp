#include "session_test_t.h"

#include "topic_watch_t.h"

#include "context_sync_client/context_tree_t.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

#include <csignal>
#include <sys/types.h>

namespace deployment {

using context_sync_client::context_tree_t;
using context_sync_client::file_map_t;
using reliability::md5_hex;

namespace {

const QString kServerId = QStringLiteral("context-sync-server");

QString status_line(const endpoint_t& at, const QString& status)
{
    return at.topic(QStringLiteral("context_sync/status ")) + status;
}

QString presence_line(const endpoint_t& at, const QString& client, const QString& presence)
{
    return at.topic(QStringLiteral("presence/%1 %2").arg(client, presence));
}

} // namespace

void session_test_t::SetUp()
{
    ASSERT_TRUE(dirs_.is_valid());
    ASSERT_TRUE(dirs_.mkdir(QStringLiteral("installation")));
    installation_ = std::make_unique<installation_t>(
        dirs_.path(QStringLiteral("installation")), QStringLiteral("0123abcd"));
}

void session_test_t::TearDown()
{
    installation_.reset();
}

bool session_test_t::late_subscriber_gets_status(const endpoint_t& at, const QString& filter)
{
    static int serial = 0;
    const QString id = QStringLiteral("late-watch-%1").arg(++serial);
    const QString probe = at.topic_base + QStringLiteral("/probe/") + id;
    topic_watch_t watch;
    EXPECT_TRUE(watch.start(at, id, { filter, probe }));
    // Retained messages are delivered right after the subscription; the probe is published after
    // the acknowledgement, so when it arrives a retained status would have arrived before it.
    EXPECT_TRUE(publish(at, id + QStringLiteral("-probe"), probe, "probe"));
    EXPECT_TRUE(watch.wait_message(probe + QStringLiteral(" probe")));
    return watch.messages().contains(status_line(at, QStringLiteral("online")));
}

void session_test_t::run_session(const session_t& session)
{
    installation_t& server = *installation_;
    const QString alice = session.alice_id;
    const QString bob = session.bob_id;

    // Watchers: the status where the clients are, the clients' presence where the server is.
    topic_watch_t status_watch;
    ASSERT_TRUE(status_watch.start(session.alice, QStringLiteral("status-watch"),
        { session.alice.topic(QStringLiteral("context_sync/status")) }));
    topic_watch_t presence_watch;
    ASSERT_TRUE(presence_watch.start(session.server, QStringLiteral("presence-watch"),
        { session.server.topic(QStringLiteral("presence/+")) }));

    ASSERT_TRUE(server.start(session.server, kServerId)) << server.output().toStdString();
    ASSERT_TRUE(status_watch.wait_message(status_line(session.alice, QStringLiteral("online"))))
        << status_watch.messages().join('\n').toStdString();

    // The retained status for subscribers that come later, on bob's side.
    EXPECT_EQ(late_subscriber_gets_status(
                  session.bob, session.bob.topic(QStringLiteral("context_sync/status"))),
        session.late_status);
    EXPECT_EQ(
        late_subscriber_gets_status(session.bob, session.bob.topic(QStringLiteral("+/status"))),
        session.late_status_wildcard);

    // push: one file of two whole chunks (two messages of ~680 KB each way) and a small one.
    const QByteArray large = padded_png(kLargeSize, 19);
    const QByteArray small = fixture(QStringLiteral("bg_640x284.png"));
    ASSERT_TRUE(dirs_.write(QStringLiteral("upload/large.png"), large));
    ASSERT_TRUE(dirs_.write(QStringLiteral("upload/small.png"), small));
    run_t result = ctxsync(session.alice, alice,
        { QStringLiteral("push"), dirs_.path(QStringLiteral("upload/large.png")),
            dirs_.path(QStringLiteral("upload/small.png")) });
    ASSERT_EQ(result.code, 0) << result.err.toStdString() << server.output().toStdString();
    EXPECT_EQ(result.out,
        QStringLiteral("pushed   background/large.png\npushed   background/small.png\n"));
    const reliability::snapshot_t pushed { { QStringLiteral("background/large.png"),
                                               md5_hex(large) },
        { QStringLiteral("background/small.png"), md5_hex(small) } };
    EXPECT_EQ(server.files(), pushed);
    EXPECT_EQ(
        reliability::read_file(server.root() + QStringLiteral("background/large.png")), large);

    // list, from the other client.
    result = ctxsync(session.bob, bob, { QStringLiteral("--json"), QStringLiteral("list") });
    ASSERT_EQ(result.code, 0) << result.err.toStdString();
    const QJsonObject listed = QJsonDocument::fromJson(result.out.toUtf8()).object();
    const file_map_t expected_map = pushed;
    EXPECT_EQ(
        context_tree_t::from_json(listed.value(QStringLiteral("files")).toObject()), expected_map);
    EXPECT_EQ(listed.value(QStringLiteral("context_hash")).toString(),
        context_tree_t::cumulative_hash(expected_map));

    // pull, byte for byte.
    const QString pulled = dirs_.path(QStringLiteral("pulled"));
    ASSERT_TRUE(dirs_.mkdir(QStringLiteral("pulled")));
    result = ctxsync(session.bob, bob, { QStringLiteral("pull"), pulled });
    ASSERT_EQ(result.code, 0) << result.err.toStdString();
    EXPECT_TRUE(result.out.endsWith(QStringLiteral("; in step\n"))) << result.out.toStdString();
    EXPECT_EQ(dirs_.read(QStringLiteral("pulled/background/large.png")), large);
    EXPECT_EQ(dirs_.read(QStringLiteral("pulled/background/small.png")), small);
    EXPECT_EQ(reliability::snapshot(pulled), pushed);

    // sync: a third client keeps a folder in step while alice changes the tree.
    ASSERT_TRUE(dirs_.mkdir(QStringLiteral("synced")));
    const QString synced = dirs_.path(QStringLiteral("synced"));
    QProcess sync;
    QString sync_out;
    sync.start(QStringLiteral(CTXSYNC_PATH),
        ctxsync_arguments(session.bob, QStringLiteral("dave-sync"),
            { QStringLiteral("sync"), QStringLiteral("--delete"), synced }));
    ASSERT_TRUE(sync.waitForStarted(10000));
    const auto sync_in_step = [&](const reliability::snapshot_t& files) {
        const QString line = QStringLiteral("in step: %1 files, context hash %2\n")
                                 .arg(files.size())
                                 .arg(context_tree_t::cumulative_hash(files));
        return reliability::wait_until(
            [&] {
                sync_out += QString::fromUtf8(sync.readAllStandardOutput());
                return sync_out.contains(line) && reliability::snapshot(synced) == files;
            },
            30000);
    };
    EXPECT_TRUE(sync_in_step(pushed)) << sync_out.toStdString();

    // mv, rm.
    result = ctxsync(session.alice, alice,
        { QStringLiteral("mv"), QStringLiteral("background/small.png"),
            QStringLiteral("background/renamed.png") });
    ASSERT_EQ(result.code, 0) << result.err.toStdString();
    EXPECT_EQ(
        result.out, QStringLiteral("renamed  background/small.png -> background/renamed.png\n"));
    result = ctxsync(
        session.alice, alice, { QStringLiteral("rm"), QStringLiteral("background/large.png") });
    ASSERT_EQ(result.code, 0) << result.err.toStdString();
    EXPECT_EQ(result.out, QStringLiteral("removed  background/large.png\n"));
    const reliability::snapshot_t renamed { { QStringLiteral("background/renamed.png"),
        md5_hex(small) } };
    EXPECT_EQ(server.files(), renamed);
    EXPECT_TRUE(sync_in_step(renamed)) << sync_out.toStdString();

    // replace: the server's tree becomes the folder's.
    const QByteArray jpg = fixture(QStringLiteral("bg_640x284_baseline.jpg"));
    const QByteArray two = fixture(QStringLiteral("bg_640x284_progressive.jpg"));
    ASSERT_TRUE(dirs_.write(QStringLiteral("wanted/background/one.jpg"), jpg));
    ASSERT_TRUE(dirs_.write(QStringLiteral("wanted/background/two.jpg"), two));
    result = ctxsync(
        session.alice, alice, { QStringLiteral("replace"), dirs_.path(QStringLiteral("wanted")) });
    ASSERT_EQ(result.code, 0) << result.err.toStdString();
    const reliability::snapshot_t wanted { { QStringLiteral("background/one.jpg"), md5_hex(jpg) },
        { QStringLiteral("background/two.jpg"), md5_hex(two) } };
    EXPECT_EQ(server.files(), wanted);
    EXPECT_TRUE(sync_in_step(wanted)) << sync_out.toStdString();
    ::kill(pid_t(sync.processId()), SIGINT);
    EXPECT_TRUE(sync.waitForFinished(15000));

    // pull --delete brings bob's folder in step with the change.
    result
        = ctxsync(session.bob, bob, { QStringLiteral("pull"), QStringLiteral("--delete"), pulled });
    ASSERT_EQ(result.code, 0) << result.err.toStdString();
    EXPECT_EQ(reliability::snapshot(pulled), wanted);

    // Presence: every run (alice's four, bob's three) said "online" then "offline" where the
    // server listens.
    EXPECT_EQ(
        presence_watch.count(presence_line(session.server, alice, QStringLiteral("online"))), 4);
    EXPECT_TRUE(reliability::wait_until(
        [&] {
            return presence_watch.count(
                       presence_line(session.server, alice, QStringLiteral("online")))
                == presence_watch.count(
                    presence_line(session.server, alice, QStringLiteral("offline")));
        },
        10000))
        << presence_watch.messages().join('\n').toStdString();
    EXPECT_EQ(
        presence_watch.count(presence_line(session.server, bob, QStringLiteral("online"))), 3);
    // A client that dies: its Will "lost" reaches the server's side.
    reliability::ctxsync_process_t watcher;
    const QString carol = QStringLiteral("carol-tablet");
    ASSERT_TRUE(watcher.start(ctxsync_arguments(session.bob, carol, { QStringLiteral("watch") })));
    ASSERT_TRUE(
        presence_watch.wait_message(presence_line(session.server, carol, QStringLiteral("online"))))
        << presence_watch.messages().join('\n').toStdString();
    watcher.kill();
    EXPECT_TRUE(
        presence_watch.wait_message(presence_line(session.server, carol, QStringLiteral("lost"))))
        << presence_watch.messages().join('\n').toStdString();
    EXPECT_EQ(
        presence_watch.count(presence_line(session.server, carol, QStringLiteral("offline"))), 0);

    // The server dies: its Will "offline" reaches the clients' side; back again, "online".
    server.kill();
    EXPECT_TRUE(status_watch.wait_message(status_line(session.alice, QStringLiteral("offline"))))
        << status_watch.messages().join('\n').toStdString();
    ASSERT_TRUE(server.start(session.server, kServerId)) << server.output().toStdString();
    EXPECT_TRUE(reliability::wait_until(
        [&] {
            const QStringList seen = status_watch.messages();
            return !seen.isEmpty()
                && seen.last() == status_line(session.alice, QStringLiteral("online"));
        },
        15000))
        << status_watch.messages().join('\n').toStdString();
    result = ctxsync(session.bob, bob, { QStringLiteral("status"), pulled });
    EXPECT_EQ(result.code, 0) << result.out.toStdString() << result.err.toStdString();
}

} // namespace deployment
