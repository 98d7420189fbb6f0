// The broker killed (SIGKILL) in the middle of a transfer, with the real server program and the
// real ctxsync on either side. A download that loses its broker leaves the user's folder with
// complete files only (no partial file, no temporary left behind); an upload that loses it leaves
// the server's tree and list with complete files only. Once the broker is back on the same port,
// the server reconnects by itself and the same command, repeated, converges.

#include "reliability_env_t.h"

#include <QElapsedTimer>
#include <QJsonDocument>

#include <gtest/gtest.h>

#include <iostream>

using reliability::fixture_image;
using reliability::md5_hex;
using reliability::read_file;
using reliability::snapshot;
using reliability::snapshot_t;
using reliability::wait_until;

namespace {

// Sixteen images of 1 MiB (three chunks each): long enough a batch to kill the broker in.
constexpr int kFiles = 16;
const QString kImage = QStringLiteral("padded_1048576.png");

QString image_name(int i)
{
    return QStringLiteral("bg%1.png").arg(i, 2, 10, QLatin1Char('0'));
}

class fault_broker : public reliability::reliability_test {
protected:
    void SetUp() override
    {
        reliability_test::SetUp();
        ASSERT_TRUE(start_broker()) << broker_.log().toStdString();
        image_md5_ = md5_hex(read_file(fixture_image(kImage)));
    }

    // Restarts the killed broker on its port and measures how long the server takes to answer a
    // list request again (it reconnects with its own back-off).
    qint64 restart_broker_and_wait_for_the_server()
    {
        QElapsedTimer since_restart;
        EXPECT_TRUE(broker_.restart()) << broker_.log().toStdString();
        since_restart.start();
        auto observer = client(QStringLiteral("observer"));
        bool ok = false;
        server_list(*observer, &ok, 40000);
        EXPECT_TRUE(ok) << output().toStdString();
        return since_restart.elapsed();
    }

    QString image_md5_;
};

} // namespace

TEST_F(fault_broker, KilledDuringADownloadLeavesOnlyCompleteFilesAndTheRepeatedPullConverges)
{
    QJsonObject expected;
    for (int i = 0; i < kFiles; ++i) {
        put_image(QStringLiteral("background/") + image_name(i), fixture_image(kImage));
        expected.insert(QStringLiteral("background/") + image_name(i), image_md5_);
    }
    ASSERT_TRUE(start_server()) << output().toStdString();
    test_support::temp_tree_t local;

    reliability::ctxsync_process_t pull;
    ASSERT_TRUE(
        pull.start(ctxsync_arguments(QStringLiteral("puller"), { "pull", local.root() }, 3)));
    ASSERT_TRUE(wait_fragment(QStringLiteral("Publish ctx_chunk for puller"), 6, 30000))
        << output().toStdString();
    broker_.kill();
    const reliability::run_t broken = pull.finish(60000);
    EXPECT_NE(broken.code, 0) << broken.out.toStdString();
    EXPECT_NE(broken.code, -1) << "ctxsync did not end by itself";

    // The folder holds whole files only, each exactly the server's, and no temporary file.
    const snapshot_t after_break = snapshot(local.root());
    EXPECT_LT(after_break.size(), kFiles) << "the broker was killed after the transfer had ended";
    for (auto it = after_break.begin(); it != after_break.end(); ++it) {
        EXPECT_TRUE(expected.contains(it.key())) << it.key().toStdString();
        EXPECT_EQ(it.value(), image_md5_) << it.key().toStdString();
    }
    // The server gives the client up after its acknowledgement time-out and stays up.
    EXPECT_TRUE(wait_until(
        [&] {
            return output().contains(
                QStringLiteral("[Transfer file terminated] Timeout ack for client puller"));
        },
        15000));
    EXPECT_TRUE(
        wait_fragment(QStringLiteral("on_fs_timeout_occurred Timeout occured for client puller")));
    EXPECT_TRUE(server_running());

    const qint64 recovery_ms = restart_broker_and_wait_for_the_server();
    std::cout << "[ figures  ] broker restart to the first answered list (download): "
              << recovery_ms << " ms\n";
    RecordProperty("recovery_ms", int(recovery_ms));

    const reliability::run_t again
        = ctxsync(QStringLiteral("puller"), { "pull", local.root() }, 10, 120000);
    ASSERT_EQ(again.code, 0) << again.err.toStdString();
    EXPECT_TRUE(again.out.endsWith(QStringLiteral("in step\n"))) << again.out.toStdString();
    QJsonObject pulled;
    const snapshot_t after = snapshot(local.root());
    for (auto it = after.begin(); it != after.end(); ++it)
        pulled.insert(it.key(), it.value());
    EXPECT_EQ(pulled, expected);
    EXPECT_EQ(ctxsync(QStringLiteral("puller"), { "status", local.root() }).code, 0);
}

TEST_F(
    fault_broker, KilledDuringAnUploadLeavesOnlyCompleteFilesInTheTreeAndTheRepeatedPushConverges)
{
    test_support::temp_tree_t local;
    QStringList push { QStringLiteral("push") };
    QJsonObject expected;
    for (int i = 0; i < kFiles; ++i) {
        ASSERT_TRUE(local.write(image_name(i), read_file(fixture_image(kImage))));
        push.append(local.path(image_name(i)));
        expected.insert(QStringLiteral("background/") + image_name(i), image_md5_);
    }
    ASSERT_TRUE(start_server()) << output().toStdString();

    reliability::ctxsync_process_t upload;
    ASSERT_TRUE(upload.start(ctxsync_arguments(QStringLiteral("pusher"), push, 3)));
    ASSERT_TRUE(wait_fragment(QStringLiteral("Send chuck ACK "), 7, 30000))
        << output().toStdString();
    broker_.kill();
    const reliability::run_t broken = upload.finish(60000);
    EXPECT_NE(broken.code, 0) << broken.out.toStdString();
    EXPECT_NE(broken.code, -1) << "ctxsync did not end by itself";

    // The receiver gives the file in progress up after its time-out and returns to idle.
    ASSERT_TRUE(wait_until(
        [&] {
            return output().contains(
                QStringLiteral("Chunk reception timeout! Transfer interrupted! For file "));
        },
        15000))
        << output().toStdString();
    EXPECT_TRUE(wait_logged(QStringLiteral("End of context file received ... "), 2, 10000));
    // The tree holds whole files only; the receive folder holds nothing.
    rr_test::settle(1500);
    const QJsonObject on_disk = disk_list();
    EXPECT_LT(on_disk.size(), kFiles) << "the broker was killed after the transfer had ended";
    for (auto it = on_disk.begin(); it != on_disk.end(); ++it)
        EXPECT_EQ(it.value().toString(), image_md5_) << it.key().toStdString();
    EXPECT_TRUE(snapshot(root() + QStringLiteral("TMP_file_receive")).isEmpty());
    EXPECT_TRUE(server_running());

    const qint64 recovery_ms = restart_broker_and_wait_for_the_server();
    std::cout << "[ figures  ] broker restart to the first answered list (upload): " << recovery_ms
              << " ms\n";
    RecordProperty("recovery_ms", int(recovery_ms));
    // What the server lists after the break is what it holds: complete files only.
    auto observer = client(QStringLiteral("observer2"));
    EXPECT_EQ(server_list(*observer), disk_list());

    const reliability::run_t again = ctxsync(QStringLiteral("pusher"), push, 10, 120000);
    ASSERT_EQ(again.code, 0) << again.err.toStdString();
    EXPECT_TRUE(wait_list(*observer, expected)) << output().toStdString();
    EXPECT_EQ(disk_list(), expected);
    EXPECT_TRUE(snapshot(root() + QStringLiteral("TMP_file_receive")).isEmpty());
}
