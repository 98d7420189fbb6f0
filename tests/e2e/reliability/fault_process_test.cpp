// Processes killed (SIGKILL) in the middle of an upload, with the real server program and the real
// ctxsync. A client that dies mid-file leaves the server idle after its time-outs, with nothing in
// the tree, and a later upload of that path (another content, another chunk count) is taken whole.
// A server that dies mid-upload starts again with an empty receive folder and a tree whose list and
// hash match what is on disk, and the repeated push converges.

#include "reliability_env_t.h"

#include <QElapsedTimer>

#include <gtest/gtest.h>

#include <iostream>

using reliability::fixture_image;
using reliability::md5_hex;
using reliability::read_file;
using reliability::snapshot;
using reliability::wait_until;

namespace {

class fault_process : public reliability::reliability_test {
protected:
    void SetUp() override
    {
        reliability_test::SetUp();
        ASSERT_TRUE(start_broker()) << broker_.log().toStdString();
        put_image(QStringLiteral("background/one.png"), fixture_image("bg_640x284.png"));
    }

    QString receive_folder() const { return root() + QStringLiteral("TMP_file_receive"); }
};

// The cumulative hash of a list, computed here from its definition.
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

} // namespace

TEST_F(fault_process, ClientKilledMidUploadLeavesTheServerIdleAndALaterUploadOfThePathWhole)
{
    ASSERT_TRUE(start_server()) << output().toStdString();
    auto observer = client(QStringLiteral("observer"));
    bool ok = false;
    const QJsonObject before = server_list(*observer, &ok);
    ASSERT_TRUE(ok);

    // 40 MB in 79 chunks, sent anyway (--force) so that the transfer lasts.
    test_support::temp_tree_t local;
    ASSERT_TRUE(local.write(QStringLiteral("big/wall.png"),
        test_support::temp_tree_t::random_bytes(40 * 1000 * 1000, 7)));
    reliability::ctxsync_process_t pusher;
    ASSERT_TRUE(pusher.start(ctxsync_arguments(
        QStringLiteral("pusher"), { "push", "--force", local.path("big/wall.png") }, 10)));
    ASSERT_TRUE(wait_fragment(QStringLiteral("Send chuck ACK "), 4, 30000))
        << output().toStdString();
    pusher.kill();
    QElapsedTimer since_kill;
    since_kill.start();
    // The broker reports the dead client at once (its socket closed): its Will.
    EXPECT_TRUE(wait_logged(QStringLiteral("[pusher] on_disconnection"), 3, 15000))
        << output().toStdString();

    // The server's own time-outs bring it back to idle.
    ASSERT_TRUE(wait_logged(
        QStringLiteral(
            "Chunk reception timeout! Transfer interrupted! For file background/wall.png"),
        2, 15000))
        << output().toStdString();
    ASSERT_TRUE(wait_logged(QStringLiteral("End of context file received ... "), 2, 5000));
    std::cout << "[ figures  ] client killed to receiver idle: " << since_kill.elapsed() << " ms\n";
    EXPECT_FALSE(output().contains(QStringLiteral("Successfull file received")));
    EXPECT_FALSE(QFile::exists(root() + QStringLiteral("background/wall.png")));
    EXPECT_TRUE(snapshot(receive_folder()).isEmpty());
    EXPECT_EQ(server_list(*observer), before);

    // The user starts again with another file under the same name: one chunk this time. Nothing
    // of the dead upload may be mixed into it or hold it back.
    ASSERT_TRUE(
        local.write(QStringLiteral("wall.png"), read_file(fixture_image("bg_640x284.png"))));
    const reliability::run_t again
        = ctxsync(QStringLiteral("pusher"), { "push", local.path("wall.png") });
    EXPECT_EQ(again.code, 0) << again.err.toStdString();
    EXPECT_TRUE(
        wait_fragment(QStringLiteral("Discarded stale reception of file background/wall.png (")))
        << output().toStdString();
    EXPECT_TRUE(
        output().contains(QStringLiteral(" of 79 chunks held): client pusher announces 1 chunks")));
    QJsonObject expected = before;
    expected.insert(
        QStringLiteral("background/wall.png"), md5_hex(read_file(fixture_image("bg_640x284.png"))));
    EXPECT_TRUE(wait_list(*observer, expected));
    EXPECT_EQ(read_file(root() + QStringLiteral("background/wall.png")),
        read_file(fixture_image("bg_640x284.png")));
    EXPECT_TRUE(snapshot(receive_folder()).isEmpty());

    // A client that vanished after the first chunk of a two-chunk file, then another client's
    // three-chunk file under that name: it must arrive whole, not be cut where the first one would
    // have ended, nor wait for the vanished upload to time out.
    const QString file = QStringLiteral("background/wall2.png");
    {
        auto vanishing = client(QStringLiteral("vanishing"));
        const QByteArray first = test_support::temp_tree_t::random_bytes(600000, 9);
        send_chunk(*vanishing, chunk_of(file, first, 0));
        ASSERT_GE(wait_ack(*vanishing, file, 0), 0) << output().toStdString();
    }
    const QByteArray image = read_file(fixture_image("padded_1048576.png"));
    ASSERT_TRUE(local.write(QStringLiteral("wall2.png"), image));
    const reliability::run_t third
        = ctxsync(QStringLiteral("pusher"), { "push", local.path("wall2.png") });
    EXPECT_EQ(third.code, 0) << third.err.toStdString();
    // Each client's upload has a reception of its own: the vanished one's is left to its timer.
    EXPECT_EQ(count_fragment(QStringLiteral("reception of file background/wall2.png")), 0)
        << output().toStdString();
    expected.insert(file, md5_hex(image));
    EXPECT_TRUE(wait_list(*observer, expected)) << output().toStdString();
    EXPECT_EQ(md5_hex(read_file(root() + file)), md5_hex(image));

    // Once it has timed out, the next upload of the path drops what the vanished client left.
    EXPECT_TRUE(wait_logged(
        QStringLiteral("Chunk reception timeout! Transfer interrupted! For file ") + file, 2))
        << output().toStdString();
    const reliability::run_t fourth
        = ctxsync(QStringLiteral("pusher"), { "push", local.path("wall2.png") });
    EXPECT_EQ(fourth.code, 0) << fourth.err.toStdString();
    EXPECT_TRUE(logged(QStringLiteral("Discarded stalled reception of file background/wall2.png "
                                      "from client vanishing (1 of 2 chunks held): client pusher "
                                      "uploads it anew"),
        3))
        << output().toStdString();
    EXPECT_TRUE(wait_list(*observer, expected)) << output().toStdString();
    EXPECT_EQ(md5_hex(read_file(root() + file)), md5_hex(image));
    EXPECT_TRUE(snapshot(receive_folder()).isEmpty());
    EXPECT_TRUE(server_running());
}

TEST_F(fault_process, ServerKilledMidUploadStartsAgainWithAnEmptyReceiveFolderAndAConsistentTree)
{
    ASSERT_TRUE(start_server()) << output().toStdString();
    auto observer = client(QStringLiteral("observer"));
    ASSERT_TRUE(wait_status(*observer, QStringLiteral("online")));

    test_support::temp_tree_t local;
    QStringList push { QStringLiteral("push") };
    QJsonObject expected { { "background/one.png",
        md5_hex(read_file(fixture_image("bg_640x284.png"))) } };
    const QByteArray image = read_file(fixture_image("padded_1048576.png"));
    for (int i = 0; i < 12; ++i) {
        const QString name = QStringLiteral("up%1.png").arg(i, 2, 10, QLatin1Char('0'));
        ASSERT_TRUE(local.write(name, image));
        push.append(local.path(name));
        expected.insert(QStringLiteral("background/") + name, md5_hex(image));
    }
    reliability::ctxsync_process_t pusher;
    ASSERT_TRUE(pusher.start(ctxsync_arguments(QStringLiteral("pusher"), push, 3)));
    ASSERT_TRUE(wait_fragment(QStringLiteral("Send chuck ACK "), 8, 30000))
        << output().toStdString();
    // What a crash in the middle of writing a file leaves in the receive folder.
    ASSERT_TRUE(dirs_.write(
        QStringLiteral("root/TMP_file_receive/6261636b67726f756e642f75.part"), image.left(300000)));
    ASSERT_TRUE(
        dirs_.write(QStringLiteral("root/TMP_file_receive/[TO_SEND]up99.png"), image.left(1000)));
    kill_server();
    const reliability::run_t broken = pusher.finish(60000);
    EXPECT_NE(broken.code, 0);
    EXPECT_NE(broken.code, -1) << "ctxsync did not end by itself";

    // On disk, before the restart: complete files only, partial ones in the receive folder alone.
    const QJsonObject on_disk = disk_list();
    EXPECT_LT(on_disk.size(), expected.size()) << "the server was killed after the transfer";
    for (auto it = on_disk.begin(); it != on_disk.end(); ++it)
        EXPECT_EQ(it.value(), expected.value(it.key())) << it.key().toStdString();

    const int before_restart = int(observer->responses.size());
    ASSERT_TRUE(start_server()) << output().toStdString();
    EXPECT_TRUE(snapshot(receive_folder()).isEmpty());
    const int state = wait_response(*observer, QStringLiteral("state_of_service"), before_restart);
    ASSERT_GE(state, 0) << output().toStdString();
    const QJsonObject listed = server_list(*observer);
    EXPECT_EQ(listed, disk_list());
    EXPECT_EQ(observer->responses.at(state).payload.value("context_hash").toString(),
        cumulative_hash(listed));

    const reliability::run_t again = ctxsync(QStringLiteral("pusher"), push, 10, 120000);
    ASSERT_EQ(again.code, 0) << again.err.toStdString();
    EXPECT_TRUE(wait_list(*observer, expected)) << output().toStdString();
    EXPECT_EQ(disk_list(), expected);
    EXPECT_TRUE(snapshot(receive_folder()).isEmpty());
}
