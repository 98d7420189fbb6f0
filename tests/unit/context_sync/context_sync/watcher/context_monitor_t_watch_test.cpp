// The context monitor on a real directory tree with a real file system watcher: the first scan,
// the debounced rescans, the rules of what may stay in the root, and the diffs that each
// tree_updated_files carries. Waits are bounded signal waits, never bare sleeps.
#include "context_sync/context_sync/watcher/context_monitor_t.h"

#include "common/log_capture_t.h"
#include "common/md5_hex.h"
#include "common/temp_tree_t.h"
#include "unit/context_sync/context_sync/watcher/background_png.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QMetaMethod>
#include <QSignalSpy>
#include <QTest>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include <sys/stat.h>
#include <unistd.h>

using context_sync_engine::context_monitor_t;
using test_support::log_capture_t;
using test_support::make_background_png;
using test_support::md5_hex;
using test_support::temp_tree_t;

namespace {

constexpr int kError = 2;
constexpr int kWarning = 3;
constexpr int kTrace = 6;
// Long enough for the 1000 ms debounce and a loaded machine, short enough to fail fast.
constexpr int kSignalWaitMs = 8000;
// How long to listen for a signal that must not come: past one whole debounce period.
constexpr int kQuietMs = 1600;

QString cumulative_of(const QMap<QString, QString>& tree)
{
    QByteArray names;
    QByteArray content;
    for (auto it = tree.cbegin(); it != tree.cend(); ++it) {
        names += it.key().toUtf8();
        content += it.value().toUtf8();
    }
    return md5_hex(md5_hex(names).toUtf8() + md5_hex(content).toUtf8());
}

QSet<QString> string_set(const QJsonValue& value)
{
    QSet<QString> result;
    for (const QJsonValue& v : value.toArray())
        result.insert(v.toString());
    return result;
}

bool running_as_root()
{
    return ::geteuid() == 0;
}

// Writes a valid background image and returns its content.
QByteArray put_image(const temp_tree_t& tree, const QString& relative, quint32 seed)
{
    const QByteArray png = make_background_png(seed);
    EXPECT_TRUE(tree.write(relative, png));
    return png;
}

// A monitor on `tree` with spies on its signals.
struct fixture_t {
    explicit fixture_t(const temp_tree_t& tree)
        : monitor("CONTEXT", tree.root())
        , updated(&monitor, &context_monitor_t::tree_updated_files)
        , ended(&monitor, &context_monitor_t::end_of_check)
        , busy(&monitor, &context_monitor_t::in_update_change)
        , timer_starts(&monitor, &context_monitor_t::debounce_timer_start)
    {
    }

    // Waits for the next tree_updated_files and returns its diff.
    QJsonObject next_diff()
    {
        const qsizetype before = updated.size();
        if (!updated.wait(kSignalWaitMs) && updated.size() == before) {
            ADD_FAILURE() << "no tree_updated_files within " << kSignalWaitMs << " ms";
            return {};
        }
        return updated.last().at(2).toJsonObject();
    }

    context_monitor_t monitor;
    QSignalSpy updated;
    QSignalSpy ended;
    QSignalSpy busy;
    QSignalSpy timer_starts;
};

} // namespace

// ------------------------------------------------------------------------------------------------
// layout

TEST(ContextMonitorWatch, SignalsAndSlotsKeepTheirMetaObjectOrder)
{
    const QMetaObject& meta = context_monitor_t::staticMetaObject;
    const QStringList expected {
        "in_update_change(bool)",
        "tree_updated_files(QString,QString,QJsonObject)",
        "end_of_check()",
        "debounce_timer_start()",
        "debounce_timer_stop()",
        "rename_file_to_send(QString,bool)",
        "rename_file_to_send(QString)",
        "start_watcher()",
        "stop_watcher()",
        "validator(QFileInfo,bool&)",
        "scan_directories(QSet<QString>)",
        "scan_directory_recursive(QString)",
        "clean_dir_file_removed()",
        "calculate_cumulative_hash()",
        "on_directory_changed(QString)",
        "on_timeout_debounced()",
    };
    ASSERT_EQ(meta.methodCount() - meta.methodOffset(), expected.size());
    for (int i = 0; i < expected.size(); ++i)
        EXPECT_EQ(QString::fromLatin1(meta.method(meta.methodOffset() + i).methodSignature()),
            expected.at(i))
            << "method " << i;
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(meta.method(meta.methodOffset() + i).methodType(), QMetaMethod::Signal);
}

// ------------------------------------------------------------------------------------------------
// first scan

TEST(ContextMonitorWatch, StartOnAPopulatedRootReportsEveryFileAsNew)
{
    temp_tree_t tree;
    QMap<QString, QString> expected;
    for (quint32 i = 1; i <= 3; ++i) {
        const QString rel = QStringLiteral("background/img_%1.png").arg(i);
        expected.insert(rel, md5_hex(put_image(tree, rel, i)));
    }
    fixture_t f(tree);
    f.monitor.start_watcher();

    EXPECT_TRUE(f.monitor.isStarted());
    ASSERT_EQ(f.updated.size(), 1);
    const QList<QVariant> args = f.updated.first();
    const QJsonObject diff = args.at(2).toJsonObject();
    EXPECT_EQ(diff.keys(), QStringList { "new" });
    EXPECT_EQ(string_set(diff.value("new")), QSet<QString>(expected.keyBegin(), expected.keyEnd()));
    EXPECT_EQ(args.at(0).toString(), f.monitor.get_names_hash());
    EXPECT_EQ(args.at(1).toString(), f.monitor.get_content_hash());

    EXPECT_EQ(f.monitor.getFileWithHashSync(), expected);
    EXPECT_EQ(f.monitor.get_cumulative_hash(), cumulative_of(expected));
    QStringList watched = f.monitor.getFileList();
    watched.sort();
    EXPECT_EQ(watched,
        (QStringList { tree.path("background/img_1.png"), tree.path("background/img_2.png"),
            tree.path("background/img_3.png") }));
    EXPECT_EQ(f.monitor.get_files_json_object().size(), 3);
    EXPECT_EQ(f.ended.size(), 0);
}

TEST(ContextMonitorWatch, StartOnAnEmptyRootReportsTheEmptyTree)
{
    temp_tree_t tree;
    fixture_t f(tree);
    f.monitor.start_watcher();
    ASSERT_EQ(f.updated.size(), 1);
    EXPECT_TRUE(f.updated.first().at(2).toJsonObject().isEmpty());
    EXPECT_EQ(f.updated.first().at(0).toString(), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(f.updated.first().at(1).toString(), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(f.monitor.get_cumulative_hash(), cumulative_of({}));
}

TEST(ContextMonitorWatch, PlainFileInTheRootIsDeletedAtTheFirstScan)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.write("readme.txt", "not allowed here"));
    put_image(tree, "stray.png", 1); // even a valid image may not lie in the root itself
    fixture_t f(tree);
    log_capture_t logs;
    f.monitor.start_watcher();
    EXPECT_FALSE(tree.exists("readme.txt"));
    EXPECT_FALSE(tree.exists("stray.png"));
    EXPECT_EQ(
        logs.count(QStringLiteral("Validator failed, delete file: %1").arg(tree.path("readme.txt")),
            kError),
        1);
    EXPECT_EQ(
        logs.count(QStringLiteral("Validator failed, delete file: %1").arg(tree.path("stray.png")),
            kError),
        1);
    EXPECT_TRUE(f.monitor.getFileSync().isEmpty());
}

TEST(ContextMonitorWatch, StraySubdirectoryIsDeletedWhole)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.write("other/deep/x.txt", "x"));
    put_image(tree, "other/y.png", 2);
    put_image(tree, "background/ok.png", 3);
    fixture_t f(tree);
    log_capture_t logs;
    f.monitor.start_watcher();
    EXPECT_FALSE(tree.exists("other"));
    EXPECT_EQ(
        logs.count(
            QStringLiteral("Directory not in path validator delete  %1 ").arg(tree.path("other/")),
            kError),
        1);
    EXPECT_EQ(f.monitor.getFileSync(), QStringList { "background/ok.png" });
}

TEST(ContextMonitorWatch, SubdirectoryOfBackgroundIsDeleted)
{
    temp_tree_t tree;
    put_image(tree, "background/sub/nested.png", 4);
    fixture_t f(tree);
    log_capture_t logs;
    f.monitor.start_watcher();
    EXPECT_FALSE(tree.exists("background/sub"));
    EXPECT_TRUE(tree.exists("background"));
    EXPECT_TRUE(logs.contains(QStringLiteral("Directory not in path validator delete  %1 ")
                                  .arg(tree.path("background/sub/")),
        kError));
}

TEST(ContextMonitorWatch, TmpEntriesInAnyCaseSurviveUntouched)
{
    temp_tree_t tree;
    const QStringList kept { "TMP_work/a.txt", "tmp_lower/b.bin", "TmP_Mixed/deep/c",
        "tMp_file.txt", "TMP_root_file", "background/TMP_x.bin", "background/tmp_y.txt",
        "background/Tmp_dir/z" };
    for (const QString& rel : kept)
        ASSERT_TRUE(tree.write(rel, "working data"));
    fixture_t f(tree);
    log_capture_t logs;
    f.monitor.start_watcher();
    for (const QString& rel : kept)
        EXPECT_EQ(tree.read(rel), "working data") << rel.toStdString();
    EXPECT_TRUE(f.monitor.getFileSync().isEmpty());
    EXPECT_TRUE(f.monitor.getFileList().isEmpty());
    EXPECT_FALSE(logs.contains_fragment("delete", kError));
    EXPECT_FALSE(logs.contains_fragment("Delete"));
}

TEST(ContextMonitorWatch, ToSendFilesInBackgroundAreDeletedInAnyCase)
{
    temp_tree_t tree;
    put_image(tree, "background/[TO_SEND]a.png", 5);
    put_image(tree, "background/[to_send]b.png", 6);
    put_image(tree, "background/keep.png", 7);
    fixture_t f(tree);
    log_capture_t logs;
    f.monitor.start_watcher();
    EXPECT_FALSE(tree.exists("background/[TO_SEND]a.png"));
    EXPECT_FALSE(tree.exists("background/[to_send]b.png"));
    EXPECT_TRUE(tree.exists("background/keep.png"));
    EXPECT_EQ(logs.count(QStringLiteral("File with prefix %1 not permitted! Delete %2")
                             .arg("[TO_SEND]", tree.path("background/[TO_SEND]a.png")),
                  kWarning),
        1);
    EXPECT_EQ(logs.count(QStringLiteral("File with prefix %1 not permitted! Delete %2")
                             .arg("[TO_SEND]", tree.path("background/[to_send]b.png")),
                  kWarning),
        1);
    EXPECT_EQ(f.monitor.getFileSync(), QStringList { "background/keep.png" });
}

TEST(ContextMonitorWatch, InvalidImagesInBackgroundAreDeleted)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.write("background/notes.txt", "text"));
    ASSERT_TRUE(tree.write("background/wrong_size.png", test_support::make_png(284, 640, 1)));
    ASSERT_TRUE(tree.write("background/empty.png", QByteArray()));
    fixture_t f(tree);
    log_capture_t logs;
    f.monitor.start_watcher();
    for (const QString rel :
        { "background/notes.txt", "background/wrong_size.png", "background/empty.png" }) {
        EXPECT_FALSE(tree.exists(rel)) << rel.toStdString();
        EXPECT_EQ(
            logs.count(
                QStringLiteral("Validator failed, delete file: %1").arg(tree.path(rel)), kError),
            1);
    }
}

TEST(ContextMonitorWatch, HiddenEntriesAreNotListed)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.write(".hidden", "h"));
    ASSERT_TRUE(tree.write("background/.hidden.png", "h"));
    fixture_t f(tree);
    f.monitor.start_watcher();
    EXPECT_TRUE(tree.exists(".hidden"));
    EXPECT_TRUE(tree.exists("background/.hidden.png"));
    EXPECT_TRUE(f.monitor.getFileSync().isEmpty());
}

TEST(ContextMonitorWatch, NamesWithSpacesNonAsciiAndBracketsAreKept)
{
    temp_tree_t tree;
    const QStringList names { QString::fromUtf8("background/my image (1) [x].png"),
        QString::fromUtf8("background/été ünï 雪.png"),
        QString::fromUtf8("background/[old]new.png") };
    QMap<QString, QString> expected;
    quint32 seed = 10;
    for (const QString& rel : names)
        expected.insert(rel, md5_hex(put_image(tree, rel, ++seed)));
    fixture_t f(tree);
    f.monitor.start_watcher();
    EXPECT_EQ(f.monitor.getFileWithHashSync(), expected);
    for (const QString& rel : names)
        EXPECT_TRUE(tree.exists(rel));
}

TEST(ContextMonitorWatch, RootThatDoesNotExistAtStartIsReportedAndLeftEmpty)
{
    temp_tree_t tree;
    const QString root = tree.root() + "ctx/";
    context_monitor_t monitor("CONTEXT", root);
    ASSERT_TRUE(QDir(root).removeRecursively());
    QSignalSpy updated(&monitor, &context_monitor_t::tree_updated_files);
    log_capture_t logs;
    monitor.start_watcher();
    EXPECT_EQ(
        logs.count(
            QStringLiteral("[CONTEXT] Directory %1 not exist!").arg(tree.root() + "ctx"), kError),
        1);
    ASSERT_EQ(updated.size(), 1);
    EXPECT_TRUE(updated.first().at(2).toJsonObject().isEmpty());
    EXPECT_TRUE(monitor.getFileSync().isEmpty());
    EXPECT_TRUE(monitor.getFileList().isEmpty());
    EXPECT_EQ(monitor.get_cumulative_hash(), cumulative_of({}));
}

// ------------------------------------------------------------------------------------------------
// links and special files: nothing outside the root is ever read or deleted

TEST(ContextMonitorWatch, SymlinkedDirectoryInBackgroundIsRemovedAsALinkOnly)
{
    temp_tree_t tree;
    temp_tree_t outside;
    put_image(outside, "target/img.png", 20);
    ASSERT_TRUE(outside.write("target/notes.txt", "precious"));
    ASSERT_TRUE(tree.mkdir("background"));
    ASSERT_TRUE(QFile::link(outside.path("target"), tree.path("background/linked")));
    fixture_t f(tree);
    log_capture_t logs;
    f.monitor.start_watcher();

    EXPECT_FALSE(QFileInfo(tree.path("background/linked")).isSymLink());
    EXPECT_FALSE(QFileInfo::exists(tree.path("background/linked")));
    EXPECT_EQ(outside.read("target/notes.txt"), "precious");
    EXPECT_TRUE(outside.exists("target/img.png"));
    EXPECT_TRUE(logs.contains(QStringLiteral("Directory not in path validator delete  %1 ")
                                  .arg(tree.path("background/linked")),
        kError));
    EXPECT_TRUE(f.monitor.getFileSync().isEmpty());
    EXPECT_TRUE(f.monitor.getFileList().isEmpty());
}

TEST(ContextMonitorWatch, StraySymlinkedFolderInTheRootIsRemovedNeverItsTarget)
{
    temp_tree_t tree;
    temp_tree_t outside;
    ASSERT_TRUE(outside.write("data/keep.txt", "keep"));
    ASSERT_TRUE(QFile::link(outside.path("data"), tree.path("stray_link")));
    fixture_t f(tree);
    log_capture_t logs;
    f.monitor.start_watcher();
    EXPECT_FALSE(QFileInfo(tree.path("stray_link")).isSymLink());
    EXPECT_EQ(outside.read("data/keep.txt"), "keep");
    EXPECT_TRUE(logs.contains(
        QStringLiteral("Directory not in path validator delete  %1 ").arg(tree.path("stray_link")),
        kError));
}

TEST(ContextMonitorWatch, StrayDirectoryReachedByItsPathIsRemovedAsALinkOnly)
{
    // The validator itself, given a linked directory, removes the link and not the target.
    temp_tree_t tree;
    temp_tree_t outside;
    ASSERT_TRUE(outside.write("data/keep.txt", "keep"));
    ASSERT_TRUE(QFile::link(outside.path("data"), tree.path("linked")));
    context_monitor_t monitor("CONTEXT", tree.root());
    bool deleted = false;
    const auto judge = monitor.validator(QFileInfo(tree.path("linked")), deleted);
    EXPECT_TRUE(deleted);
    EXPECT_FALSE(static_cast<bool>(judge));
    EXPECT_FALSE(QFileInfo(tree.path("linked")).isSymLink());
    EXPECT_EQ(outside.read("data/keep.txt"), "keep");
}

TEST(ContextMonitorWatch, SymlinkedImageIsRemovedAsALinkAndItsTargetIsNotRead)
{
    temp_tree_t tree;
    temp_tree_t outside;
    const QByteArray png = put_image(outside, "img.png", 21);
    ASSERT_TRUE(tree.mkdir("background"));
    ASSERT_TRUE(QFile::link(outside.path("img.png"), tree.path("background/img.png")));
    ASSERT_TRUE(QFile::link(outside.path("gone.png"), tree.path("background/dangling.png")));
    fixture_t f(tree);
    log_capture_t logs;
    f.monitor.start_watcher();
    EXPECT_FALSE(QFileInfo(tree.path("background/img.png")).isSymLink());
    EXPECT_FALSE(QFileInfo(tree.path("background/dangling.png")).isSymLink());
    EXPECT_EQ(outside.read("img.png"), png);
    EXPECT_TRUE(logs.contains(
        QStringLiteral("Validator failed, delete file: %1").arg(tree.path("background/img.png")),
        kError));
    EXPECT_TRUE(logs.contains(QStringLiteral("Validator failed, delete file: %1")
                                  .arg(tree.path("background/dangling.png")),
        kError));
    EXPECT_TRUE(f.monitor.getFileSync().isEmpty());
}

TEST(ContextMonitorWatch, PipeInBackgroundIsRemovedWithoutBeingOpened)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.mkdir("background"));
    ASSERT_EQ(::mkfifo(QFile::encodeName(tree.path("background/pipe.png")).constData(), 0644), 0);
    fixture_t f(tree);
    log_capture_t logs;
    f.monitor.start_watcher(); // would block forever if the pipe were opened for hashing
    EXPECT_FALSE(QFileInfo::exists(tree.path("background/pipe.png")));
    EXPECT_TRUE(logs.contains(
        QStringLiteral("Validator failed, delete file: %1").arg(tree.path("background/pipe.png")),
        kError));
}

TEST(ContextMonitorWatch, UnreadableEntriesAreRemoved)
{
    if (running_as_root())
        GTEST_SKIP() << "running as root: chmod 000 does not make an entry unreadable for root, "
                        "so the rule cannot be observed";
    temp_tree_t tree;
    put_image(tree, "background/locked.png", 30);
    ASSERT_TRUE(tree.write("background/locked_dir/x", "x"));
    ASSERT_TRUE(
        QFile::setPermissions(tree.path("background/locked.png"), QFileDevice::Permissions()));
    ASSERT_TRUE(QFile::setPermissions(
        tree.path("background/locked_dir"), QFileDevice::WriteOwner | QFileDevice::ExeOwner));
    fixture_t f(tree);
    log_capture_t logs;
    f.monitor.start_watcher();
    EXPECT_FALSE(tree.exists("background/locked.png"));
    EXPECT_TRUE(logs.contains(
        QStringLiteral("Not readable file %1, remove it!").arg(tree.path("background/locked.png")),
        kError));
    EXPECT_TRUE(logs.contains(
        QStringLiteral("Not readable file %1, remove it!").arg(tree.path("background/locked_dir")),
        kError));
}

// ------------------------------------------------------------------------------------------------
// validator

TEST(ContextMonitorWatch, ValidatorPicksTheJudgeOfEachDirectory)
{
    temp_tree_t tree;
    put_image(tree, "background/ok.png", 40);
    ASSERT_TRUE(tree.write("background/bad.png", "x"));
    ASSERT_TRUE(tree.write("TMP_work/a", "a"));
    ASSERT_TRUE(tree.write("other/b", "b"));
    context_monitor_t monitor("CONTEXT", tree.root());
    log_capture_t logs;

    bool deleted = true;
    auto root_judge = monitor.validator(QFileInfo(tree.root()), deleted);
    EXPECT_FALSE(deleted);
    ASSERT_TRUE(static_cast<bool>(root_judge));
    EXPECT_FALSE(root_judge(tree.path("background/ok.png"))); // nothing may lie in the root

    auto background_judge = monitor.validator(QFileInfo(tree.path("background")), deleted);
    EXPECT_FALSE(deleted);
    ASSERT_TRUE(static_cast<bool>(background_judge));
    EXPECT_TRUE(background_judge(tree.path("background/ok.png")));
    EXPECT_FALSE(background_judge(tree.path("background/bad.png")));

    auto tmp_judge = monitor.validator(QFileInfo(tree.path("TMP_work")), deleted);
    EXPECT_TRUE(deleted);
    ASSERT_TRUE(static_cast<bool>(tmp_judge));
    EXPECT_FALSE(tmp_judge(tree.path("TMP_work/a")));
    EXPECT_EQ(tree.read("TMP_work/a"), "a");

    auto other_judge = monitor.validator(QFileInfo(tree.path("other")), deleted);
    EXPECT_TRUE(deleted);
    EXPECT_FALSE(static_cast<bool>(other_judge));
    EXPECT_FALSE(tree.exists("other"));
    EXPECT_EQ(
        logs.count(
            QStringLiteral("Directory not in path validator delete  %1 ").arg(tree.path("other")),
            kError),
        1);
}

// ------------------------------------------------------------------------------------------------
// debounced rescans

TEST(ContextMonitorWatch, BurstOfTenChangesGivesOneRescanAndOneNotification)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.mkdir("background"));
    fixture_t f(tree);
    f.monitor.start_watcher();
    f.updated.clear();
    log_capture_t logs;

    QSet<QString> written;
    for (quint32 i = 0; i < 10; ++i) {
        const QString rel = QStringLiteral("background/burst_%1.png").arg(i);
        put_image(tree, rel, 100 + i);
        written.insert(rel);
    }
    const QJsonObject diff = f.next_diff();
    EXPECT_EQ(diff.keys(), QStringList { "new" });
    EXPECT_EQ(string_set(diff.value("new")), written);

    // Nothing more follows: the burst was one batch.
    EXPECT_FALSE(f.updated.wait(kQuietMs));
    EXPECT_EQ(f.updated.size(), 1);
    EXPECT_EQ(f.timer_starts.size(), 1);
    EXPECT_EQ(f.ended.size(), 0);
    EXPECT_EQ(logs.count(QStringLiteral("[CONTEXT] Process %1 => Debounced update: recalculate "
                                        "cumulative hash.")
                             .arg(tree.path("background/")),
                  kTrace),
        1);
    EXPECT_EQ(f.monitor.getFileSync().size(), 10);
}

TEST(ContextMonitorWatch, CheckThatChangesNothingEmitsOnlyEndOfCheck)
{
    temp_tree_t tree;
    put_image(tree, "background/a.png", 1);
    fixture_t f(tree);
    f.monitor.start_watcher();
    const QString hash = f.monitor.get_cumulative_hash();
    const QJsonObject json = f.monitor.get_files_json_object();
    f.updated.clear();
    log_capture_t logs;

    ASSERT_TRUE(tree.write("TMP_scratch.txt", "ignored")); // changes the root, not the tree
    ASSERT_TRUE(f.ended.wait(kSignalWaitMs));
    EXPECT_EQ(f.ended.size(), 1);
    EXPECT_EQ(f.updated.size(), 0);
    EXPECT_TRUE(logs.contains("[CONTEXT] Not change dir ....", kTrace));
    EXPECT_EQ(f.monitor.get_cumulative_hash(), hash);
    EXPECT_EQ(f.monitor.get_files_json_object(), json);
    EXPECT_TRUE(tree.exists("TMP_scratch.txt"));
}

TEST(ContextMonitorWatch, PlainFileDroppedIntoTheRootIsDeletedAtTheNextScan)
{
    temp_tree_t tree;
    fixture_t f(tree);
    f.monitor.start_watcher();
    f.updated.clear();
    log_capture_t logs;
    ASSERT_TRUE(tree.write("dropped.txt", "x"));
    ASSERT_TRUE(logs.wait_for(
        QStringLiteral("Validator failed, delete file: %1").arg(tree.path("dropped.txt")), kError,
        std::chrono::milliseconds(kSignalWaitMs)));
    EXPECT_FALSE(tree.exists("dropped.txt"));
    // The file never entered the tree, so the check reports nothing.
    ASSERT_TRUE(f.ended.size() == 1 || f.ended.wait(kSignalWaitMs));
    EXPECT_EQ(f.updated.size(), 0);
}

TEST(ContextMonitorWatch, NewStraySubdirectoryIsDeletedAtTheNextScan)
{
    temp_tree_t tree;
    fixture_t f(tree);
    f.monitor.start_watcher();
    log_capture_t logs;
    ASSERT_TRUE(tree.write("intruder/file.txt", "x"));
    ASSERT_TRUE(logs.wait_for(
        QStringLiteral("Directory not in path validator delete  %1 ").arg(tree.path("intruder/")),
        kError, std::chrono::milliseconds(kSignalWaitMs)));
    EXPECT_FALSE(tree.exists("intruder"));
}

TEST(ContextMonitorWatch, ToSendFileAppearingInBackgroundIsDeleted)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.mkdir("background"));
    fixture_t f(tree);
    f.monitor.start_watcher();
    log_capture_t logs;
    put_image(tree, "background/[To_Send]late.png", 50);
    ASSERT_TRUE(logs.wait_for(QStringLiteral("File with prefix [TO_SEND] not permitted! Delete %1")
                                  .arg(tree.path("background/[To_Send]late.png")),
        kWarning, std::chrono::milliseconds(kSignalWaitMs)));
    EXPECT_FALSE(tree.exists("background/[To_Send]late.png"));
}

TEST(ContextMonitorWatch, RemovedFileLeavesTheModelAndTheWatcher)
{
    temp_tree_t tree;
    put_image(tree, "background/a.png", 1);
    put_image(tree, "background/b.png", 2);
    fixture_t f(tree);
    f.monitor.start_watcher();
    ASSERT_TRUE(tree.remove("background/a.png"));
    const QJsonObject diff = f.next_diff();
    EXPECT_EQ(diff, QJsonObject({ { "removed", QJsonArray { "background/a.png" } } }));
    EXPECT_EQ(f.monitor.getFileSync(), QStringList { "background/b.png" });
    EXPECT_EQ(f.monitor.getFileList(), QStringList { tree.path("background/b.png") });
}

TEST(ContextMonitorWatch, RemovedFileLeavesTheModelAtARescanOfAnyDirectory)
{
    temp_tree_t tree;
    put_image(tree, "background/a.png", 1);
    put_image(tree, "background/b.png", 2);
    fixture_t f(tree);
    f.monitor.start_watcher();
    ASSERT_TRUE(tree.remove("background/b.png"));
    // Only the root is rescanned (background/ is already watched, so not descended into); the
    // vanished file still leaves the model.
    EXPECT_TRUE(f.monitor.scan_directories({ tree.root() }));
    EXPECT_EQ(f.monitor.getFileSync(), QStringList { "background/a.png" });
    EXPECT_EQ(f.monitor.getFileList(), QStringList { tree.path("background/a.png") });
}

TEST(ContextMonitorWatch, InUpdateClearsLazilyAndSignalsOnce)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.mkdir("background"));
    fixture_t f(tree);
    f.monitor.start_watcher();

    put_image(tree, "background/a.png", 1);
    ASSERT_TRUE(f.busy.wait(kSignalWaitMs)); // the first change makes the monitor busy
    ASSERT_EQ(f.busy.size(), 1);
    EXPECT_TRUE(f.busy.first().at(0).toBool());
    EXPECT_TRUE(f.monitor.inUpdate());

    f.next_diff(); // the timer fired and the batch was processed
    EXPECT_EQ(f.busy.size(), 1); // nobody asked yet: the flag is still set, nothing emitted

    EXPECT_FALSE(f.monitor.inUpdate());
    ASSERT_EQ(f.busy.size(), 2);
    EXPECT_FALSE(f.busy.at(1).at(0).toBool());
    EXPECT_FALSE(f.monitor.inUpdate());
    EXPECT_EQ(f.busy.size(), 2);
}

TEST(ContextMonitorWatch, DebounceStopSignalClearsTheBusyFlag)
{
    temp_tree_t tree;
    fixture_t f(tree);
    emit f.monitor.debounce_timer_start();
    EXPECT_TRUE(f.monitor.inUpdate());
    emit f.monitor.debounce_timer_stop();
    EXPECT_FALSE(f.monitor.inUpdate());
    ASSERT_EQ(f.busy.size(), 2);
    EXPECT_TRUE(f.busy.at(0).at(0).toBool());
    EXPECT_FALSE(f.busy.at(1).at(0).toBool());
    // The stopped timer never fires.
    EXPECT_FALSE(f.ended.wait(kQuietMs));
}

TEST(ContextMonitorWatch, ChangeInAnotherDirectoryRestartsTheTimer)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.mkdir("background"));
    fixture_t f(tree);
    f.monitor.start_watcher();
    log_capture_t logs;
    f.monitor.on_directory_changed(tree.path("background/"));
    f.monitor.on_directory_changed(tree.path("background/"));
    EXPECT_EQ(f.timer_starts.size(), 1);
    f.monitor.on_directory_changed(tree.root());
    EXPECT_EQ(f.timer_starts.size(), 2);
    EXPECT_EQ(logs.count("Directory change ...", kTrace), 3);
    ASSERT_TRUE(f.ended.wait(kSignalWaitMs));
    EXPECT_TRUE(
        logs.contains_fragment("=> Debounced update: recalculate cumulative hash.", kTrace));
}

TEST(ContextMonitorWatch, StopWatcherForgetsTheTreeButKeepsTheHashes)
{
    temp_tree_t tree;
    put_image(tree, "background/a.png", 1);
    fixture_t f(tree);
    f.monitor.start_watcher();
    const QString hash = f.monitor.get_cumulative_hash();
    f.monitor.stop_watcher();
    EXPECT_FALSE(f.monitor.isStarted());
    EXPECT_TRUE(f.monitor.getFileSync().isEmpty());
    EXPECT_TRUE(f.monitor.getFileList().isEmpty());
    EXPECT_EQ(f.monitor.get_cumulative_hash(), hash);
    EXPECT_EQ(f.monitor.get_files_json_object().size(), 1);

    f.updated.clear();
    put_image(tree, "background/b.png", 2);
    EXPECT_FALSE(f.updated.wait(kQuietMs));
    EXPECT_EQ(f.ended.size(), 0);
}

// ------------------------------------------------------------------------------------------------
// a whole tree over time

TEST(ContextMonitorWatch, WholeTreeScenario)
{
    temp_tree_t tree;
    QMap<QString, QByteArray> files;
    for (quint32 i = 0; i < 6; ++i) {
        const QString rel = QStringLiteral("background/start_%1.png").arg(i);
        files.insert(rel, put_image(tree, rel, 200 + i));
    }
    ASSERT_TRUE(tree.write("TMP_file_receive/partial", "p"));
    auto model_of = [&files] {
        QMap<QString, QString> m;
        for (auto it = files.cbegin(); it != files.cend(); ++it)
            m.insert(it.key(), md5_hex(it.value()));
        return m;
    };

    fixture_t f(tree);
    f.monitor.start_watcher();
    ASSERT_EQ(f.updated.size(), 1);
    EXPECT_EQ(string_set(f.updated.last().at(2).toJsonObject().value("new")),
        QSet<QString>(files.keyBegin(), files.keyEnd()));
    EXPECT_EQ(f.monitor.getFileWithHashSync(), model_of());

    // add
    files.insert("background/added.png", put_image(tree, "background/added.png", 300));
    EXPECT_EQ(f.next_diff(), QJsonObject({ { "new", QJsonArray { "background/added.png" } } }));
    EXPECT_EQ(f.monitor.getFileWithHashSync(), model_of());

    // change by replacing the file (how a writer that cares about atomicity does it): the
    // directory changes, so it is noticed at once
    temp_tree_t staging;
    const QByteArray replaced = put_image(staging, "start_0.png", 301);
    ASSERT_EQ(::rename(QFile::encodeName(staging.path("start_0.png")).constData(),
                  QFile::encodeName(tree.path("background/start_0.png")).constData()),
        0);
    files.insert("background/start_0.png", replaced);
    EXPECT_EQ(f.next_diff(), QJsonObject({ { "new", QJsonArray { "background/start_0.png" } } }));
    EXPECT_EQ(f.monitor.getFileWithHashSync(), model_of());

    // change in place: the directory does not change, so nothing is reported yet
    files.insert("background/start_4.png", put_image(tree, "background/start_4.png", 302));
    EXPECT_FALSE(f.updated.wait(kQuietMs));

    // rename: the rescan it causes also finds the content changed in place
    ASSERT_TRUE(
        QFile::rename(tree.path("background/start_1.png"), tree.path("background/renamed.png")));
    files.insert("background/renamed.png", files.take("background/start_1.png"));
    EXPECT_EQ(f.next_diff(),
        QJsonObject({ { "renamed",
                          QJsonArray { QJsonObject {
                              { "background/start_1.png", "background/renamed.png" } } } },
            { "new", QJsonArray { "background/start_4.png" } } }));
    EXPECT_EQ(f.monitor.getFileWithHashSync(), model_of());

    // copy
    ASSERT_TRUE(QFile::copy(tree.path("background/start_2.png"), tree.path("background/copy.png")));
    files.insert("background/copy.png", files.value("background/start_2.png"));
    EXPECT_EQ(f.next_diff(),
        QJsonObject({ { "copied",
            QJsonArray {
                QJsonObject { { "background/start_2.png", "background/copy.png" } } } } }));

    // delete
    ASSERT_TRUE(tree.remove("background/start_3.png"));
    files.remove("background/start_3.png");
    EXPECT_EQ(
        f.next_diff(), QJsonObject({ { "removed", QJsonArray { "background/start_3.png" } } }));

    const QMap<QString, QString> expected = model_of();
    EXPECT_EQ(f.monitor.getFileWithHashSync(), expected);
    EXPECT_EQ(f.monitor.get_cumulative_hash(), cumulative_of(expected));
    const QList<QVariant> last = f.updated.last();
    EXPECT_EQ(last.at(0).toString(), f.monitor.get_names_hash());
    EXPECT_EQ(last.at(1).toString(), f.monitor.get_content_hash());
    EXPECT_EQ(tree.read("TMP_file_receive/partial"), "p");
    EXPECT_EQ(f.updated.size(), 6);
}

TEST(ContextMonitorWatch, ReceivedFileRenamedIntoPlaceIsReportedOnce)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.mkdir("background"));
    fixture_t f(tree);
    f.monitor.start_watcher();
    f.updated.clear();
    const QByteArray png = put_image(tree, "background/[TO_SEND]incoming.png", 400);
    f.monitor.rename_file_to_send(tree.path("background/[TO_SEND]incoming.png"), false);
    EXPECT_EQ(f.next_diff(), QJsonObject({ { "new", QJsonArray { "background/incoming.png" } } }));
    EXPECT_EQ(f.monitor.getFileWithHashSync(),
        (QMap<QString, QString> { { "background/incoming.png", md5_hex(png) } }));
}

TEST(ContextMonitorWatch, RelativeRootIsResolvedOnceAndNeverTakenForAStrayFolder)
{
    temp_tree_t tree;
    put_image(tree, "ctx/background/a.png", 1);
    const QString previous = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent(tree.root()));
    {
        context_monitor_t monitor("CONTEXT", "./ctx");
        EXPECT_EQ(monitor.getRootPath(), QDir(tree.root()).absolutePath() + "/ctx/");
        monitor.start_watcher();
        EXPECT_EQ(monitor.getFileSync(), QStringList { "background/a.png" });
        monitor.stop_watcher();
    }
    ASSERT_TRUE(QDir::setCurrent(previous));
    EXPECT_TRUE(tree.exists("ctx/background/a.png"));
}

TEST(ContextMonitorWatch, GettersFromAnotherThreadDuringRescansSeeWholeValues)
{
    // The service reads the model from its request workers while the monitor rescans on its own
    // thread; every read must be a consistent copy.
    temp_tree_t tree;
    for (quint32 i = 0; i < 20; ++i)
        put_image(tree, QStringLiteral("background/r_%1.png").arg(i), 500 + i);
    fixture_t f(tree);
    f.monitor.start_watcher();

    std::atomic<bool> stop { false };
    std::atomic<int> reads { 0 };
    std::atomic<int> bad { 0 };
    std::thread reader([&] {
        while (!stop) {
            const QMap<QString, QString> model = f.monitor.getFileWithHashSync();
            for (const QString& hash : model)
                if (hash.size() != 32)
                    ++bad;
            if (f.monitor.get_cumulative_hash().size() != 32)
                ++bad;
            (void)f.monitor.get_files_json_object();
            (void)f.monitor.getFileList();
            (void)f.monitor.getFileSync();
            (void)f.monitor.getFileToSendList();
            (void)f.monitor.inUpdate();
            (void)f.monitor.calculate_diff_json_objects(QJsonObject());
            ++reads;
        }
    });

    for (quint32 round = 0; round < 3; ++round) {
        for (quint32 i = 0; i < 5; ++i)
            put_image(tree, QStringLiteral("background/w_%1_%2.png").arg(round).arg(i), 600 + i);
        f.next_diff();
        ASSERT_TRUE(tree.remove(QStringLiteral("background/r_%1.png").arg(round)));
        f.monitor.scan_directories({ tree.path("background/") });
    }
    stop = true;
    reader.join();
    EXPECT_GT(reads.load(), 0);
    EXPECT_EQ(bad.load(), 0);
    EXPECT_EQ(f.monitor.getFileSync().size(), 20 + 15 - 3);
}

TEST(ContextMonitorWatch, RescanHashesOnlyWhatChanged)
{
    temp_tree_t tree;
    qint64 old_bytes = 0;
    for (quint32 i = 0; i < 4; ++i) {
        const QString rel = QStringLiteral("background/old_%1.png").arg(i);
        old_bytes += put_image(tree, rel, 700 + i).size();
        // Last modified long ago: a hash taken now stays good while nothing changes.
        QFile file(tree.path(rel));
        ASSERT_TRUE(file.open(QIODevice::ReadWrite));
        ASSERT_TRUE(file.setFileTime(
            QDateTime::currentDateTime().addSecs(-3600), QFileDevice::FileModificationTime));
    }
    fixture_t f(tree);
    f.monitor.start_watcher();
    EXPECT_EQ(f.monitor.get_bytes_hashed(), static_cast<quint64>(old_bytes));

    const QByteArray added = put_image(tree, "background/added.png", 800);
    EXPECT_EQ(f.next_diff(), QJsonObject({ { "new", QJsonArray { "background/added.png" } } }));
    EXPECT_EQ(f.monitor.get_bytes_hashed(), static_cast<quint64>(old_bytes + added.size()));
    EXPECT_EQ(f.monitor.getFileSync().size(), 5);
}

TEST(ContextMonitorWatch, SameSizeRewriteWithTheOldModificationTimeIsStillNoticed)
{
    temp_tree_t tree;
    const QByteArray original = put_image(tree, "background/a.png", 900);
    QFile probe(tree.path("background/a.png"));
    ASSERT_TRUE(probe.open(QIODevice::ReadOnly));
    const QDateTime mtime = probe.fileTime(QFileDevice::FileModificationTime);
    probe.close();

    fixture_t f(tree);
    f.monitor.start_watcher();
    const QString before = f.monitor.getFileWithHashSync().value("background/a.png");
    ASSERT_EQ(before, md5_hex(original));

    // Same size, one byte different (inside the compressed pixels: the header stays valid), and
    // the modification time put back as if the file system had not ticked.
    QByteArray changed = original;
    changed[changed.size() - 20] = static_cast<char>(changed.at(changed.size() - 20) ^ 0x55);
    {
        QFile file(tree.path("background/a.png"));
        ASSERT_TRUE(file.open(QIODevice::ReadWrite));
        ASSERT_EQ(file.write(changed), changed.size());
        ASSERT_TRUE(file.setFileTime(mtime, QFileDevice::FileModificationTime));
    }
    EXPECT_TRUE(f.monitor.scan_directories({ tree.path("background/") }));
    EXPECT_EQ(f.monitor.getFileWithHashSync().value("background/a.png"), md5_hex(changed));
}
