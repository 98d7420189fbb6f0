// The context root on a file system that fails: full during an upload, and read-only from the
// start. Both use a small tmpfs mounted for the test (the tests run as root); where mounting is
// not permitted they are skipped with the reason. The real server program and the real ctxsync:
// a full disk must leave no partial file in the tree or the list, and the upload goes through once
// there is room again; a read-only root is served for reading, refuses every change without
// losing anything, and keeps the server up.

#include "reliability_env_t.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>

#include <gtest/gtest.h>

#include <sys/statvfs.h>

#include <iostream>

using reliability::fixture_image;
using reliability::md5_hex;
using reliability::read_file;
using reliability::snapshot;
using reliability::snapshot_t;
using reliability::wait_until;

namespace {

// A tmpfs of its own for one test, unmounted (lazily if still busy) when the object dies.
class tmpfs_t {
public:
    ~tmpfs_t() { unmount(); }

    bool mount(const QString& dir, const QString& size)
    {
        dir_ = dir;
        if (!QDir().mkpath(dir))
            return fail(QStringLiteral("cannot create %1").arg(dir));
        mounted_ = run({ "-t", "tmpfs", "-o", "size=" + size, "tmpfs", dir });
        return mounted_;
    }
    bool remount_read_only() { return run({ "-o", "remount,ro", dir_ }); }
    QString error() const { return error_; }

    void unmount()
    {
        if (!mounted_)
            return;
        QProcess umount;
        umount.start(QStringLiteral("umount"), { dir_ });
        if (!umount.waitForFinished(10000) || umount.exitCode() != 0)
            QProcess::execute(QStringLiteral("umount"), { QStringLiteral("-l"), dir_ });
        mounted_ = false;
    }

private:
    bool run(const QStringList& arguments)
    {
        QProcess mount;
        mount.start(QStringLiteral("mount"), arguments);
        if (!mount.waitForFinished(10000))
            return fail(QStringLiteral("mount did not end"));
        if (mount.exitStatus() != QProcess::NormalExit || mount.exitCode() != 0) {
            return fail(QStringLiteral("mount %1: %2")
                            .arg(arguments.join(' '),
                                QString::fromLocal8Bit(mount.readAllStandardError()).trimmed()));
        }
        return true;
    }
    bool fail(const QString& error)
    {
        error_ = error;
        return false;
    }

    QString dir_;
    QString error_;
    bool mounted_ = false;
};

qint64 free_bytes(const QString& dir)
{
    struct statvfs stats { };
    if (::statvfs(QFile::encodeName(dir).constData(), &stats) != 0)
        return -1;
    return qint64(stats.f_bavail) * qint64(stats.f_frsize);
}

class fault_disk : public reliability::reliability_test {
protected:
    void SetUp() override
    {
        reliability_test::SetUp();
        disk_ = dirs_.path(QStringLiteral("disk"));
        ASSERT_TRUE(start_broker()) << broker_.log().toStdString();
    }

    void TearDown() override
    {
        // The server holds the root open: it goes first, then the file system.
        reliability_test::TearDown();
        fs_.unmount();
    }

    // Mounts the tmpfs and puts the root on it; false (with the reason for the skip) when the
    // system does not let this test mount.
    bool mount_root(const QString& size)
    {
        if (!fs_.mount(disk_, size))
            return false;
        set_root(disk_ + QStringLiteral("/root/"));
        return QDir().mkpath(root() + QStringLiteral("background"));
    }

    QString receive_folder() const { return root() + QStringLiteral("TMP_file_receive"); }

    tmpfs_t fs_;
    QString disk_;
};

} // namespace

TEST_F(fault_disk, FullDiskDuringAnUploadLeavesNoPartialFileAndTheUploadPassesOnceThereIsRoom)
{
    if (!mount_root(QStringLiteral("2m")))
        GTEST_SKIP() << "cannot mount a tmpfs for the root: " << fs_.error().toStdString();
    put_image(QStringLiteral("background/one.png"), fixture_image("bg_640x284.png"));
    ASSERT_TRUE(start_server()) << output().toStdString();
    auto observer = client(QStringLiteral("observer"));
    bool ok = false;
    const QJsonObject before = server_list(*observer, &ok);
    ASSERT_TRUE(ok);
    ASSERT_EQ(before.size(), 1);

    // Leave about 400 KB: the 1 MiB image is taken in memory, and its writing runs out of room.
    const qint64 room = free_bytes(disk_);
    ASSERT_GT(room, 1024 * 1024);
    {
        QFile filler(disk_ + QStringLiteral("/filler.bin"));
        ASSERT_TRUE(filler.open(QIODevice::WriteOnly));
        ASSERT_EQ(filler.write(QByteArray(room - 400 * 1024, '\0')), room - 400 * 1024);
    }
    ASSERT_LT(free_bytes(disk_), 512 * 1024);

    const QString image = fixture_image("padded_1048576.png");
    const reliability::run_t full
        = ctxsync(QStringLiteral("pusher"), { "push", "--to", "background/", image });
    // The server took every chunk, then could not write the file: the client learns it from the
    // list, which does not hold the file.
    EXPECT_EQ(full.code, 5) << full.err.toStdString();
    EXPECT_TRUE(full.err.contains(QStringLiteral("background/padded_1048576.png")))
        << full.err.toStdString();
    const QString part = receive_folder() + QStringLiteral("/")
        + QString::fromLatin1(QByteArray("background/padded_1048576.png").toHex())
        + QStringLiteral(".part");
    EXPECT_TRUE(logged(QStringLiteral("Unable to write %1: No space left on device").arg(part), 2))
        << complaints().join('\n').toStdString();
    EXPECT_FALSE(output().contains(QStringLiteral("Successfull file received")));
    EXPECT_FALSE(QFile::exists(root() + QStringLiteral("background/padded_1048576.png")));
    EXPECT_TRUE(snapshot(receive_folder()).isEmpty());
    EXPECT_EQ(server_list(*observer), before);
    EXPECT_EQ(disk_list(), before);
    EXPECT_TRUE(server_running());

    // Room again: the same push goes through whole.
    ASSERT_TRUE(QFile::remove(disk_ + QStringLiteral("/filler.bin")));
    const reliability::run_t again
        = ctxsync(QStringLiteral("pusher"), { "push", "--to", "background/", image });
    EXPECT_EQ(again.code, 0) << again.err.toStdString();
    QJsonObject expected = before;
    expected.insert(QStringLiteral("background/padded_1048576.png"), md5_hex(read_file(image)));
    EXPECT_TRUE(wait_list(*observer, expected));
    EXPECT_EQ(disk_list(), expected);
}

TEST_F(fault_disk, ReadOnlyRootIsServedForReadingAndRefusesEveryChangeWithoutLosingAnything)
{
    if (!mount_root(QStringLiteral("4m")))
        GTEST_SKIP() << "cannot mount a tmpfs for the root: " << fs_.error().toStdString();
    put_image(QStringLiteral("background/one.png"), fixture_image("bg_640x284.png"));
    put_image(QStringLiteral("background/two.jpg"), fixture_image("bg_640x284_baseline.jpg"));
    ASSERT_TRUE(dirs_.write(QStringLiteral("disk/root/TMP_file_receive/leftover.part"), "old"));
    if (!fs_.remount_read_only())
        GTEST_SKIP() << "cannot make the root read-only: " << fs_.error().toStdString();
    ASSERT_FALSE(dirs_.write(QStringLiteral("disk/root/background/probe.png"), "x"));
    const snapshot_t before_root = snapshot(root());
    const QJsonObject listed_before = disk_list();
    ASSERT_EQ(listed_before.size(), 2);

    ASSERT_TRUE(start_server()) << output().toStdString();
    auto observer = client(QStringLiteral("observer"));

    // Reading works: the list, a pull, a status.
    bool ok = false;
    EXPECT_EQ(server_list(*observer, &ok), listed_before);
    EXPECT_TRUE(ok) << output().toStdString();
    test_support::temp_tree_t local;
    reliability::run_t result = ctxsync(QStringLiteral("reader"), { "pull", local.root() });
    EXPECT_EQ(result.code, 0) << result.err.toStdString();
    EXPECT_EQ(ctxsync(QStringLiteral("reader"), { "status", local.root() }).code, 0);

    // Every change is refused by the file system; the client is told, nothing moves.
    result = ctxsync(QStringLiteral("writer"),
        { "push", "--to", "background/", fixture_image("bg_640x284_exif.jpg") });
    EXPECT_EQ(result.code, 5) << result.err.toStdString();
    EXPECT_TRUE(output().contains(QStringLiteral("Errore nell'apertura del file di destinazione!")))
        << output().toStdString();
    // A removal and a rename are answered, but the list never shows them: the client gives up
    // after its time-out.
    result = ctxsync(QStringLiteral("writer"), { "rm", "background/one.png" }, 3);
    EXPECT_EQ(result.code, 4) << result.err.toStdString();
    result = ctxsync(
        QStringLiteral("writer"), { "mv", "background/two.jpg", "background/three.jpg" }, 3);
    EXPECT_EQ(result.code, 4) << result.err.toStdString();
    // Each failure is logged where it happens, and the start-up's emptying of the receive folder
    // failed too without stopping the service.
    EXPECT_TRUE(
        logged(QStringLiteral("Unable to remove directory: %1TMP_file_receive").arg(root()), 2));
    EXPECT_TRUE(logged(QStringLiteral("Unable to remove %1background/one.png ").arg(root()), 2));
    EXPECT_TRUE(logged(QStringLiteral("Unable to rename file %1background/two.jpg to "
                                      "%1background/three.jpg")
                           .arg(root()),
        2))
        << complaints().join(QLatin1Char('\n')).toStdString();
    rr_test::settle(1500);

    EXPECT_EQ(snapshot(root()), before_root);
    EXPECT_EQ(server_list(*observer, &ok), listed_before);
    EXPECT_TRUE(ok);
    EXPECT_TRUE(server_running());
    // The server does not spin on what it cannot change: its log grows by the requests alone.
    const int lines = int(logs().size());
    rr_test::settle(3000);
    EXPECT_LT(int(logs().size()) - lines, 20) << output().toStdString();
}
