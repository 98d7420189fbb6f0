// The context monitor on a root too large for one file system watcher's share of files: every
// file is still watched, in scan order, the files of every watcher leave the watch and the model
// when they vanish, stopping gives every watch up, and a restart watches everything again.
#include "context_sync/context_sync/watcher/context_monitor_t.h"

#include "common/log_capture_t.h"
#include "common/md5_hex.h"
#include "common/temp_tree_t.h"
#include "unit/context_sync/context_sync/watcher/background_png.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QSignalSpy>

#include <gtest/gtest.h>

#include <unistd.h>

using context_sync_engine::context_monitor_t;
using test_support::log_capture_t;
using test_support::make_background_png;
using test_support::md5_hex;
using test_support::temp_tree_t;

namespace {

constexpr int kError = 2;
// More than two watchers' shares (512 files each): three watchers hold the files.
constexpr int kFiles = 1100;
constexpr int kDistinctImages = 4;

QString image_name(int i)
{
    return QStringLiteral("background/img_%1.png").arg(i, 4, 10, QLatin1Char('0'));
}

// inotify instances this process holds: one per file system watcher.
int inotify_instances()
{
    int count = 0;
    const QDir fds(QStringLiteral("/proc/self/fd"));
    for (const QString& fd :
        fds.entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)) {
        // readlink itself: Qt would resolve the "anon_inode:inotify" target as a relative path.
        char target[64];
        const ssize_t n
            = ::readlink(QFile::encodeName(fds.filePath(fd)).constData(), target, sizeof(target));
        if (n > 0 && QByteArray(target, static_cast<qsizetype>(n)) == "anon_inode:inotify")
            ++count;
    }
    return count;
}

// A root with kFiles valid images (kDistinctImages different contents) and their hashes.
struct large_root_t {
    large_root_t()
    {
        QList<QByteArray> images;
        for (int i = 0; i < kDistinctImages; ++i)
            images.append(make_background_png(static_cast<quint32>(i) + 1));
        for (int i = 0; i < kFiles; ++i) {
            const QByteArray& image = images.at(i % kDistinctImages);
            EXPECT_TRUE(tree.write(image_name(i), image));
            expected.insert(image_name(i), md5_hex(image));
            watched.append(tree.path(image_name(i)));
        }
    }

    temp_tree_t tree;
    QMap<QString, QString> expected;
    // Absolute paths in scan order (by name).
    QStringList watched;
};

} // namespace

TEST(ContextMonitorLargeTree, EveryFileIsWatchedInScanOrderAcrossSeveralWatchers)
{
    large_root_t root;
    context_monitor_t monitor("CONTEXT", root.tree.root());
    // The monitor's own watcher exists from its construction.
    const int instances_before = inotify_instances();
    log_capture_t logs;

    monitor.start_watcher();

    EXPECT_EQ(monitor.getFileList(), root.watched);
    EXPECT_EQ(monitor.getFileWithHashSync(), root.expected);
    EXPECT_EQ(monitor.get_files_json_object().size(), kFiles);
    // The monitor's own watcher plus two more for the files past the first 512.
    EXPECT_EQ(inotify_instances(), instances_before + 2);
    EXPECT_FALSE(logs.contains_fragment("Error to add", kError));
}

TEST(ContextMonitorLargeTree, StoppingGivesUpEveryWatchAndARestartWatchesEverythingAgain)
{
    large_root_t root;
    const int instances_before = inotify_instances();
    {
        context_monitor_t monitor("CONTEXT", root.tree.root());
        monitor.start_watcher();
        ASSERT_EQ(monitor.getFileList().size(), kFiles);
        monitor.stop_watcher();
        EXPECT_TRUE(monitor.getFileList().isEmpty());
        EXPECT_TRUE(monitor.getFileSync().isEmpty());
        // The further watchers stay, empty, for the next start (closing one is slow).
        EXPECT_EQ(inotify_instances(), instances_before + 3);

        monitor.start_watcher();
        EXPECT_EQ(monitor.getFileList(), root.watched);
        EXPECT_EQ(monitor.getFileWithHashSync(), root.expected);
        EXPECT_EQ(inotify_instances(), instances_before + 3);
    }
    // The monitor's end closes every watcher it made.
    EXPECT_EQ(inotify_instances(), instances_before);
}

TEST(ContextMonitorLargeTree, FilesOfEveryWatcherLeaveWatchAndModelWhenTheyVanish)
{
    large_root_t root;
    context_monitor_t monitor("CONTEXT", root.tree.root());
    monitor.start_watcher();
    QSignalSpy updated(&monitor, &context_monitor_t::tree_updated_files);

    // One file of the first watcher's share, one of the second's, one of the third's.
    const QStringList gone { image_name(3), image_name(700), image_name(1050) };
    for (const QString& rel : gone) {
        ASSERT_TRUE(root.tree.remove(rel));
        root.expected.remove(rel);
        root.watched.removeAll(root.tree.path(rel));
    }
    monitor.on_directory_changed(root.tree.path("background/"));
    monitor.on_timeout_debounced();

    ASSERT_EQ(updated.size(), 1);
    const QJsonArray removed = updated.first().at(2).toJsonObject().value("removed").toArray();
    QStringList removed_paths;
    for (const QJsonValue& v : removed)
        removed_paths.append(v.toString());
    removed_paths.sort();
    EXPECT_EQ(removed_paths, gone);
    EXPECT_EQ(monitor.getFileWithHashSync(), root.expected);
    QStringList watched = monitor.getFileList();
    watched.sort();
    EXPECT_EQ(watched, root.watched);
    emit monitor.debounce_timer_stop();
}

TEST(ContextMonitorLargeTree, AFileAddedLaterIsWatchedWhereThereIsRoom)
{
    large_root_t root;
    context_monitor_t monitor("CONTEXT", root.tree.root());
    monitor.start_watcher();
    const int instances_after_start = inotify_instances();

    const QByteArray image = make_background_png(99);
    ASSERT_TRUE(root.tree.write("background/zz_new.png", image));
    monitor.on_directory_changed(root.tree.path("background/"));
    monitor.on_timeout_debounced();

    EXPECT_TRUE(monitor.getFileList().contains(root.tree.path("background/zz_new.png")));
    EXPECT_EQ(monitor.getFileList().size(), kFiles + 1);
    EXPECT_EQ(monitor.getFileWithHashSync().value("background/zz_new.png"), md5_hex(image));
    // The third watcher still had room: no further watcher was needed.
    EXPECT_EQ(inotify_instances(), instances_after_start);
    emit monitor.debounce_timer_stop();
}
