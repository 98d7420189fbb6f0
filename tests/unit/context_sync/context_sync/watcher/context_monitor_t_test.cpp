// The context monitor's model without watching: path helpers, hashing, the cumulative hash, tree
// differences, prefixes, local copy/move/create and the rename of received files.
#include "context_sync/context_sync/watcher/context_monitor_t.h"

#include "common/log_capture_t.h"
#include "common/md5_hex.h"
#include "common/temp_tree_t.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QProcess>
#include <QRandomGenerator>

#include <gtest/gtest.h>

#include <unistd.h>

using context_sync_engine::context_monitor_t;
using test_support::log_capture_t;
using test_support::md5_hex;
using test_support::temp_tree_t;

namespace {

constexpr int kError = 2;
constexpr int kInfo = 4;
constexpr int kTrace = 6;

QString empty_md5()
{
    return QStringLiteral("d41d8cd98f00b204e9800998ecf8427e");
}

// The cumulative hash as clients compute it, written out independently of the monitor.
struct expected_hashes_t {
    QString names;
    QString content;
    QString cumulative;
};

expected_hashes_t expected_hashes(const QMap<QString, QString>& tree)
{
    QByteArray names;
    QByteArray content;
    for (auto it = tree.cbegin(); it != tree.cend(); ++it) {
        names += it.key().toUtf8();
        content += it.value().toUtf8();
    }
    expected_hashes_t result;
    result.names = md5_hex(names);
    result.content = md5_hex(content);
    result.cumulative = md5_hex(result.names.toUtf8() + result.content.toUtf8());
    return result;
}

// Puts a received file in place through the monitor, which enters it into the model.
void add_through_rename(context_monitor_t& monitor, const temp_tree_t& tree,
    const QString& relative, const QByteArray& content)
{
    const QString dir = QFileInfo(relative).path();
    const QString staged = (dir == QStringLiteral(".") ? QString() : dir + QLatin1Char('/'))
        + QStringLiteral("[TO_SEND]") + QFileInfo(relative).fileName();
    ASSERT_TRUE(tree.write(staged, content));
    monitor.rename_file_to_send(tree.path(staged), true);
    ASSERT_TRUE(tree.exists(relative));
}

QSet<QString> string_set(const QJsonValue& value)
{
    QSet<QString> result;
    for (const QJsonValue& v : value.toArray())
        result.insert(v.toString());
    return result;
}

QMap<QString, QString> pair_map(const QJsonValue& value)
{
    QMap<QString, QString> result;
    for (const QJsonValue& v : value.toArray()) {
        const QJsonObject object = v.toObject();
        EXPECT_EQ(object.size(), 1);
        result.insert(object.begin().key(), object.begin().value().toString());
    }
    return result;
}

bool running_as_root()
{
    return ::geteuid() == 0;
}

} // namespace

// ------------------------------------------------------------------------------------------------
// path helpers

TEST(ContextMonitor, AdjustPathDirectoryNormalisesDirectories)
{
    EXPECT_EQ(context_monitor_t::adjust_path_directory("/data/ctx"), "/data/ctx/");
    EXPECT_EQ(context_monitor_t::adjust_path_directory("/data/ctx/"), "/data/ctx/");
    EXPECT_EQ(context_monitor_t::adjust_path_directory("/data/ctx/./"), "/data/ctx/");
    EXPECT_EQ(context_monitor_t::adjust_path_directory("./ctx"), "ctx");
    EXPECT_EQ(context_monitor_t::adjust_path_directory("./"), "./");
    // The early returns do nothing else: "./dir/./" only loses its tail.
    EXPECT_EQ(context_monitor_t::adjust_path_directory("./ctx/./"), "./ctx/");
    EXPECT_EQ(context_monitor_t::adjust_path_directory(""), "/");
}

TEST(ContextMonitor, AbsoluteToRelativeOutsideRootLogsAndReturnsPathUnchanged)
{
    log_capture_t logs;
    EXPECT_EQ(context_monitor_t::absolute_to_relative_path("/data/ctx/", "/other/x"), "/other/x");
    EXPECT_EQ(logs.count("Don't match absolute path", kError), 1);
}

TEST(ContextMonitor, AbsoluteToRelativeInsideRootCutsTheRoot)
{
    log_capture_t logs;
    EXPECT_EQ(
        context_monitor_t::absolute_to_relative_path("/data/ctx/", "/data/ctx/background/a.png"),
        "background/a.png");
    // Case-sensitive: a different case is outside the root.
    EXPECT_EQ(
        context_monitor_t::absolute_to_relative_path("/data/ctx/", "/Data/ctx/a"), "/Data/ctx/a");
    EXPECT_EQ(logs.count("Don't match absolute path", kError), 1);
}

TEST(ContextMonitor, RelativeToAbsoluteIsPlainConcatenation)
{
    EXPECT_EQ(context_monitor_t::relative_to_absolute_path("/data/ctx/", "background/a.png"),
        "/data/ctx/background/a.png");
    EXPECT_EQ(context_monitor_t::relative_to_absolute_path("/data/ctx", "a.png"), "/data/ctxa.png");
    EXPECT_EQ(context_monitor_t::relative_to_absolute_path("/data/ctx/", "../x"), "/data/ctx/../x");
}

TEST(ContextMonitor, MemberPathHelpersUseTheRoot)
{
    temp_tree_t tree;
    context_monitor_t monitor("CONTEXT", tree.root() + "ctx");
    EXPECT_EQ(monitor.getRootPath(), tree.root() + "ctx/");
    EXPECT_EQ(monitor.relative_to_absolute_path("background/a.png"),
        tree.root() + "ctx/background/a.png");
    EXPECT_EQ(monitor.absolute_to_relative_path(tree.root() + "ctx/background/a.png"),
        "background/a.png");
}

TEST(ContextMonitor, ConstructionCreatesAMissingRootAndLogsIt)
{
    temp_tree_t tree;
    log_capture_t logs;
    const QString root = tree.root() + "deep/er/ctx/";
    context_monitor_t monitor("CONTEXT", root);
    EXPECT_TRUE(QDir(root).exists());
    EXPECT_EQ(logs.count(QStringLiteral("Created directory for context: %1").arg(root), kInfo), 1);
    EXPECT_FALSE(monitor.isStarted());
    EXPECT_FALSE(monitor.inUpdate());
    EXPECT_TRUE(monitor.getFileSync().isEmpty());
    EXPECT_TRUE(monitor.get_cumulative_hash().isEmpty());
}

TEST(ContextMonitor, ConstructionOnAnExistingRootLogsNothing)
{
    temp_tree_t tree;
    log_capture_t logs;
    context_monitor_t monitor("CONTEXT", tree.root());
    EXPECT_TRUE(logs.records().isEmpty());
}

TEST(ContextMonitor, RootThatCannotBeCreatedIsOnlyLogged)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.write("plain_file", "x"));
    log_capture_t logs;
    const QString root = tree.root() + "plain_file/ctx/";
    context_monitor_t monitor("CONTEXT", root);
    EXPECT_EQ(
        logs.count(QStringLiteral("Unable to created directory for context: %1").arg(root), kError),
        1);
    EXPECT_EQ(monitor.getRootPath(), root);
}

// ------------------------------------------------------------------------------------------------
// hashing

TEST(ContextMonitor, ComputeHashIsLowerCaseMd5Hex)
{
    EXPECT_EQ(context_monitor_t::compute_hash(QByteArray()), empty_md5());
    EXPECT_EQ(context_monitor_t::compute_hash("abc"), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(context_monitor_t::compute_hash("The quick brown fox jumps over the lazy dog"),
        "9e107d9d372bb6826bd81d3542a419d6");
}

TEST(ContextMonitor, ComputeFileHashMatchesTheWholeContentAtBlockBoundaries)
{
    temp_tree_t tree;
    const QList<qsizetype> sizes { 0, 1, 4095, 4096, 4097, 262143, 262144, 262145,
        3 * 1024 * 1024 + 7 };
    for (const qsizetype size : sizes) {
        const QByteArray content = temp_tree_t::random_bytes(size, static_cast<quint32>(size));
        const QString name = QStringLiteral("f%1").arg(size);
        ASSERT_TRUE(tree.write(name, content));
        EXPECT_EQ(context_monitor_t::compute_file_hash(tree.path(name)), md5_hex(content))
            << "size " << size;
    }
}

TEST(ContextMonitor, ComputeFileHashAgreesWithMd5sum)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.write("big.bin", temp_tree_t::random_bytes(5 * 1024 * 1024 + 123, 7)));
    QProcess md5sum;
    md5sum.start("md5sum", { tree.path("big.bin") });
    ASSERT_TRUE(md5sum.waitForFinished(30000));
    const QString expected = QString::fromLatin1(md5sum.readAllStandardOutput()).section(' ', 0, 0);
    ASSERT_EQ(expected.size(), 32);
    EXPECT_EQ(context_monitor_t::compute_file_hash(tree.path("big.bin")), expected);
}

TEST(ContextMonitor, ComputeFileHashOfAFileThatCannotBeOpenedIsEmpty)
{
    temp_tree_t tree;
    EXPECT_EQ(context_monitor_t::compute_file_hash(tree.path("missing.bin")), "");
    ASSERT_TRUE(tree.mkdir("a_directory"));
    EXPECT_EQ(context_monitor_t::compute_file_hash(tree.path("a_directory")), "");
    EXPECT_EQ(context_monitor_t::compute_file_hash(""), "");
}

TEST(ContextMonitor, ComputeFileHashReadsQtResourcePathsThroughQFile)
{
    // The test embeds its own PNG helper header as a resource (see CMakeLists.txt).
    QFile original(QStringLiteral(CONTEXT_SYNC_TESTS_DIR)
        + QStringLiteral("/unit/context_sync/context_sync/watcher/background_png.h"));
    ASSERT_TRUE(original.open(QIODevice::ReadOnly));
    const QByteArray content = original.readAll();
    ASSERT_FALSE(content.isEmpty());
    EXPECT_EQ(
        context_monitor_t::compute_file_hash(QStringLiteral(":/monitor_test/background_png.h")),
        md5_hex(content));
    EXPECT_EQ(context_monitor_t::compute_file_hash(QStringLiteral(":/monitor_test/missing")), "");
}

TEST(ContextMonitor, ComputeFileHashOfAnUnreadableFileIsEmpty)
{
    if (running_as_root())
        GTEST_SKIP() << "running as root: a chmod 000 file stays readable, nothing to test";
    temp_tree_t tree;
    ASSERT_TRUE(tree.write("locked.bin", "secret"));
    ASSERT_TRUE(QFile::setPermissions(tree.path("locked.bin"), QFileDevice::Permissions()));
    EXPECT_EQ(context_monitor_t::compute_file_hash(tree.path("locked.bin")), "");
}

// ------------------------------------------------------------------------------------------------
// cumulative hash

TEST(ContextMonitor, CumulativeHashOfTheEmptyTree)
{
    temp_tree_t tree;
    context_monitor_t monitor("CONTEXT", tree.root());
    EXPECT_TRUE(monitor.calculate_cumulative_hash()); // starts empty, so the first call changes
    EXPECT_EQ(monitor.get_names_hash(), empty_md5());
    EXPECT_EQ(monitor.get_content_hash(), empty_md5());
    EXPECT_EQ(monitor.get_cumulative_hash(), md5_hex((empty_md5() + empty_md5()).toUtf8()));
    EXPECT_EQ(monitor.get_cumulative_hash(), expected_hashes({}).cumulative);
    EXPECT_TRUE(monitor.get_files_json_object().isEmpty());
}

TEST(ContextMonitor, CumulativeHashTwiceWithoutChangeReportsTheChangeOnce)
{
    temp_tree_t tree;
    context_monitor_t monitor("CONTEXT", tree.root());
    add_through_rename(monitor, tree, "background/a.png", "aaa");
    const QString first = monitor.get_cumulative_hash();
    EXPECT_FALSE(monitor.calculate_cumulative_hash()); // rename_file_to_send already computed it
    EXPECT_EQ(monitor.get_cumulative_hash(), first);
    EXPECT_FALSE(monitor.calculate_cumulative_hash());
}

TEST(ContextMonitor, CumulativeHashMatchesAnIndependentComputation)
{
    temp_tree_t tree;
    context_monitor_t monitor("CONTEXT", tree.root());
    QMap<QString, QString> expected_tree;
    for (int i = 0; i < 40; ++i) {
        const QString relative = QStringLiteral("background/%1/f_%2.png").arg(i % 3).arg(i);
        const QByteArray content = temp_tree_t::random_bytes(100 + i, i);
        add_through_rename(monitor, tree, relative, content);
        expected_tree.insert(relative, md5_hex(content));
    }
    EXPECT_EQ(monitor.getFileWithHashSync(), expected_tree);
    EXPECT_EQ(monitor.getFileSync(), expected_tree.keys());

    const expected_hashes_t expected = expected_hashes(expected_tree);
    EXPECT_EQ(monitor.get_names_hash(), expected.names);
    EXPECT_EQ(monitor.get_content_hash(), expected.content);
    EXPECT_EQ(monitor.get_cumulative_hash(), expected.cumulative);

    const QJsonObject json = monitor.get_files_json_object();
    ASSERT_EQ(json.size(), expected_tree.size());
    for (auto it = expected_tree.cbegin(); it != expected_tree.cend(); ++it)
        EXPECT_EQ(json.value(it.key()).toString(), it.value());
}

TEST(ContextMonitor, ChangedContentChangesContentHashNotNamesHash)
{
    temp_tree_t tree_a;
    temp_tree_t tree_b;
    context_monitor_t a("A", tree_a.root());
    context_monitor_t b("B", tree_b.root());
    add_through_rename(a, tree_a, "background/x.png", "same");
    add_through_rename(a, tree_a, "background/y.png", "one");
    add_through_rename(b, tree_b, "background/x.png", "same");
    add_through_rename(b, tree_b, "background/y.png", "two");

    EXPECT_EQ(a.get_names_hash(), b.get_names_hash());
    EXPECT_NE(a.get_content_hash(), b.get_content_hash());
    EXPECT_NE(a.get_cumulative_hash(), b.get_cumulative_hash());
}

TEST(ContextMonitor, RenamedFileChangesNamesHashNotContentHash)
{
    temp_tree_t tree_a;
    temp_tree_t tree_b;
    context_monitor_t a("A", tree_a.root());
    context_monitor_t b("B", tree_b.root());
    add_through_rename(a, tree_a, "background/x.png", "content");
    add_through_rename(b, tree_b, "background/renamed.png", "content");

    EXPECT_NE(a.get_names_hash(), b.get_names_hash());
    EXPECT_EQ(a.get_content_hash(), b.get_content_hash());
    EXPECT_NE(a.get_cumulative_hash(), b.get_cumulative_hash());
}

TEST(ContextMonitor, PrintWritesTheStateAtLevelTwo)
{
    temp_tree_t tree;
    context_monitor_t monitor("CONTEXT", tree.root());
    add_through_rename(monitor, tree, "background/a.png", "a");
    add_through_rename(monitor, tree, "background/b.png", "b");
    log_capture_t logs;
    monitor.print();

    const QString sep(53, QLatin1Char('_'));
    const QStringList expected {
        sep,
        "[CONTEXT] WATCH DIRECTORIES: 0",
        sep,
        "[CONTEXT] WATCH FILES: 2",
        "[CONTEXT] Watch file: " + tree.path("background/a.png"),
        "[CONTEXT] Watch file: " + tree.path("background/b.png"),
        sep,
        "[CONTEXT] FILES: 2",
        "[CONTEXT] FILE: background/a.png",
        "[CONTEXT] FILE: background/b.png",
    };
    EXPECT_EQ(logs.messages(), expected);
    EXPECT_EQ(logs.messages(kError), expected);
}

// ------------------------------------------------------------------------------------------------
// tree differences

TEST(ContextMonitorDiff, SameHashAtANewPathIsARename)
{
    const QJsonObject diff
        = context_monitor_t::calculate_diff_json_objects({ { "a", "H1" } }, { { "b", "H1" } });
    EXPECT_EQ(diff, QJsonObject({ { "renamed", QJsonArray { QJsonObject { { "a", "b" } } } } }));
}

TEST(ContextMonitorDiff, SameHashBesideAnUnchangedSourceIsACopy)
{
    const QJsonObject diff = context_monitor_t::calculate_diff_json_objects(
        { { "a", "H1" } }, { { "a", "H1" }, { "b", "H1" } });
    EXPECT_EQ(diff, QJsonObject({ { "copied", QJsonArray { QJsonObject { { "a", "b" } } } } }));
}

TEST(ContextMonitorDiff, ChangedContentIsNew)
{
    const QJsonObject diff
        = context_monitor_t::calculate_diff_json_objects({ { "a", "H1" } }, { { "a", "H2" } });
    EXPECT_EQ(diff, QJsonObject({ { "new", QJsonArray { "a" } } }));
}

TEST(ContextMonitorDiff, MissingPathIsRemoved)
{
    const QJsonObject diff = context_monitor_t::calculate_diff_json_objects(
        { { "a", "H1" }, { "b", "H2" } }, { { "b", "H2" } });
    EXPECT_EQ(diff, QJsonObject({ { "removed", QJsonArray { "a" } } }));
}

TEST(ContextMonitorDiff, TwoNewPathsForOneRenameSourceKeepOnlyTheLaterOne)
{
    const QJsonObject diff = context_monitor_t::calculate_diff_json_objects(
        { { "a", "H1" } }, { { "b", "H1" }, { "c", "H1" } });
    ASSERT_EQ(diff.keys(), QStringList { "renamed" });
    const QMap<QString, QString> renamed = pair_map(diff.value("renamed"));
    ASSERT_EQ(renamed.size(), 1);
    ASSERT_TRUE(renamed.contains("a"));
    // Which one is later depends on the set's order; the other path is reported nowhere.
    EXPECT_TRUE(renamed.value("a") == "b" || renamed.value("a") == "c");
}

TEST(ContextMonitorDiff, IdenticalTreesGiveTheEmptyObject)
{
    const QMap<QString, QString> tree { { "a", "H1" }, { "b", "H2" }, { "c/d", "H1" } };
    EXPECT_TRUE(context_monitor_t::calculate_diff_json_objects(tree, tree).isEmpty());
    EXPECT_TRUE(context_monitor_t::calculate_diff_json_objects({}, {}).isEmpty());
}

TEST(ContextMonitorDiff, EmptyOldTreeListsEverythingAsNew)
{
    const QJsonObject diff = context_monitor_t::calculate_diff_json_objects(
        {}, { { "a", "H1" }, { "b", "H1" }, { "c", "H2" } });
    ASSERT_EQ(diff.keys(), QStringList { "new" });
    EXPECT_EQ(string_set(diff.value("new")), (QSet<QString> { "a", "b", "c" }));
}

TEST(ContextMonitorDiff, ChangedSourceWhoseOldContentMovedIsARenameAndNew)
{
    // a's old content moved to b and a got new content: a rename from a, and a is new.
    const QJsonObject diff = context_monitor_t::calculate_diff_json_objects(
        { { "a", "H1" } }, { { "a", "H2" }, { "b", "H1" } });
    EXPECT_EQ(pair_map(diff.value("renamed")), (QMap<QString, QString> { { "a", "b" } }));
    EXPECT_EQ(string_set(diff.value("new")), QSet<QString> { "a" });
    EXPECT_FALSE(diff.contains("removed"));
    EXPECT_FALSE(diff.contains("copied"));
}

TEST(ContextMonitorDiff, CopyTakesTheFirstUnchangedCandidateInPathOrder)
{
    const QJsonObject diff = context_monitor_t::calculate_diff_json_objects(
        { { "m", "H1" }, { "k", "H1" } }, { { "m", "H1" }, { "k", "H1" }, { "z", "H1" } });
    EXPECT_EQ(diff, QJsonObject({ { "copied", QJsonArray { QJsonObject { { "k", "z" } } } } }));
}

TEST(ContextMonitorDiff, RenameSourcesComeInPathOrder)
{
    const QJsonObject diff = context_monitor_t::calculate_diff_json_objects(
        { { "c", "H3" }, { "a", "H1" }, { "b", "H2" } },
        { { "x", "H3" }, { "y", "H1" }, { "z", "H2" } });
    const QJsonArray expected { QJsonObject { { "a", "y" } }, QJsonObject { { "b", "z" } },
        QJsonObject { { "c", "x" } } };
    EXPECT_EQ(diff, QJsonObject({ { "renamed", expected } }));
}

TEST(ContextMonitorDiff, LargeTreeMixingEveryKindOfChange)
{
    QMap<QString, QString> old_tree;
    for (int i = 0; i < 400; ++i)
        old_tree.insert(
            QStringLiteral("background/d%1/file_%2.png").arg(i % 7).arg(i, 4, 10, QChar('0')),
            md5_hex(QByteArray::number(i)));

    QMap<QString, QString> new_tree = old_tree;
    QMap<QString, QString> expected_renamed;
    QMap<QString, QString> expected_copied;
    QSet<QString> expected_new;
    QSet<QString> expected_removed;

    const QStringList keys = old_tree.keys();
    int serial = 0;
    // 60 renames, 40 copies, 50 content changes, 45 removals, 35 brand-new files.
    for (int i = 0; i < 60; ++i) {
        const QString from = keys.at(i);
        const QString to = QStringLiteral("background/moved/r_%1.png").arg(i);
        new_tree.insert(to, new_tree.take(from));
        expected_renamed.insert(from, to);
    }
    for (int i = 60; i < 100; ++i) {
        const QString to = QStringLiteral("background/copies/c_%1.png").arg(i);
        new_tree.insert(to, old_tree.value(keys.at(i)));
        expected_copied.insert(keys.at(i), to);
    }
    for (int i = 100; i < 150; ++i) {
        new_tree.insert(keys.at(i), md5_hex("changed" + QByteArray::number(++serial)));
        expected_new.insert(keys.at(i));
    }
    for (int i = 150; i < 195; ++i) {
        new_tree.remove(keys.at(i));
        expected_removed.insert(keys.at(i));
    }
    for (int i = 0; i < 35; ++i) {
        const QString path = QStringLiteral("background/fresh/n_%1.png").arg(i);
        new_tree.insert(path, md5_hex("fresh" + QByteArray::number(i)));
        expected_new.insert(path);
    }

    const QJsonObject diff = context_monitor_t::calculate_diff_json_objects(old_tree, new_tree);
    EXPECT_EQ(diff.size(), 4);
    EXPECT_EQ(pair_map(diff.value("renamed")), expected_renamed);
    EXPECT_EQ(pair_map(diff.value("copied")), expected_copied);
    EXPECT_EQ(string_set(diff.value("new")), expected_new);
    EXPECT_EQ(string_set(diff.value("removed")), expected_removed);
    EXPECT_EQ(diff.value("new").toArray().size(), expected_new.size());
    EXPECT_EQ(diff.value("removed").toArray().size(), expected_removed.size());

    // "renamed" and "copied" come in source path order.
    QStringList renamed_sources;
    for (const QJsonValue& v : diff.value("renamed").toArray())
        renamed_sources.append(v.toObject().begin().key());
    EXPECT_EQ(renamed_sources, expected_renamed.keys());
}

TEST(ContextMonitorDiff, JsonOverloadComparesTheModelWithAClientTree)
{
    temp_tree_t tree;
    context_monitor_t monitor("CONTEXT", tree.root());
    add_through_rename(monitor, tree, "background/a.png", "A");
    add_through_rename(monitor, tree, "background/b.png", "B");
    const QString hash_a = md5_hex("A");

    QJsonObject client { { "background/b.png", md5_hex("B") }, { "background/z.png", hash_a },
        { "background/new.png", md5_hex("N") } };
    const QJsonObject diff = monitor.calculate_diff_json_objects(client);
    EXPECT_EQ(pair_map(diff.value("renamed")),
        (QMap<QString, QString> { { "background/a.png", "background/z.png" } }));
    EXPECT_EQ(string_set(diff.value("new")), QSet<QString> { "background/new.png" });
    EXPECT_FALSE(diff.contains("removed"));
    EXPECT_TRUE(monitor.calculate_diff_json_objects(monitor.get_files_json_object()).isEmpty());
}

TEST(ContextMonitorDiff, StringListDifference)
{
    const auto diff
        = context_monitor_t::calculate_diff_stringlist({ "a", "b", "b", "c" }, { "b", "c", "d" });
    EXPECT_EQ(diff.size(), 4);
    EXPECT_EQ(diff.value("actual"), (QSet<QString> { "b", "c", "d" }));
    EXPECT_EQ(diff.value("old"), (QSet<QString> { "a", "b", "c" }));
    EXPECT_EQ(diff.value("added"), (QSet<QString> { "d" }));
    EXPECT_EQ(diff.value("deleted"), (QSet<QString> { "a" }));
}

TEST(ContextMonitorDiff, HashDifferenceCoversTheKeysOfBoth)
{
    const QHash<QString, QList<QString>> old { { "k1", { "a", "b" } }, { "k2", { "x" } } };
    const QHash<QString, QList<QString>> actual { { "k1", { "b", "c" } }, { "k3", { "y" } } };
    const auto diff = context_monitor_t::calculate_diff_qhash(old, actual);
    ASSERT_EQ(diff.size(), 3);
    EXPECT_EQ(diff.value("k1").value("added"), QSet<QString> { "c" });
    EXPECT_EQ(diff.value("k1").value("deleted"), QSet<QString> { "a" });
    EXPECT_EQ(diff.value("k2").value("deleted"), QSet<QString> { "x" });
    EXPECT_TRUE(diff.value("k2").value("actual").isEmpty());
    EXPECT_EQ(diff.value("k3").value("added"), QSet<QString> { "y" });
    EXPECT_TRUE(diff.value("k3").value("old").isEmpty());
}

// ------------------------------------------------------------------------------------------------
// prefixes

TEST(ContextMonitorPrefix, SetPutsThePrefixBeforeTheFileNameAndMakesTheDirectoryAbsolute)
{
    EXPECT_EQ(
        context_monitor_t::set_prefix_from_file_name("[TO_SEND]", "/data/ctx/background/a.png"),
        "/data/ctx/background/[TO_SEND]a.png");
    EXPECT_EQ(context_monitor_t::set_prefix_from_file_name("[TO_SEND]", "background/a.png"),
        QDir::currentPath() + "/background/[TO_SEND]a.png");
}

TEST(ContextMonitorPrefix, SetOnANameThatAlreadyCarriesThePrefixReturnsThePathUnchanged)
{
    EXPECT_EQ(context_monitor_t::set_prefix_from_file_name("[TO_SEND]", "rel/[TO_SEND]a.png"),
        "rel/[TO_SEND]a.png");
    // Case-sensitive: another case is not the prefix.
    EXPECT_EQ(context_monitor_t::set_prefix_from_file_name("[TO_SEND]", "/d/[to_send]a.png"),
        "/d/[TO_SEND][to_send]a.png");
}

TEST(ContextMonitorPrefix, UnsetTakesThePrefixOffAndKeepsTheDirectoryAsWritten)
{
    EXPECT_EQ(context_monitor_t::unset_prefix_from_file_name("[TO_SEND]", "rel/dir/[TO_SEND]a.png"),
        "rel/dir/a.png");
    EXPECT_EQ(context_monitor_t::unset_prefix_from_file_name("[TO_SEND]", "/d/[TO_SEND]a.png"),
        "/d/a.png");
    EXPECT_EQ(
        context_monitor_t::unset_prefix_from_file_name("[TO_SEND]", "[TO_SEND]a.png"), "a.png");
}

TEST(ContextMonitorPrefix, UnsetOnANameWithoutThePrefixReturnsThePathUnchanged)
{
    EXPECT_EQ(
        context_monitor_t::unset_prefix_from_file_name("[TO_SEND]", "rel/a.png"), "rel/a.png");
    EXPECT_EQ(context_monitor_t::unset_prefix_from_file_name("[TO_SEND]", "/[TO_SEND]dir/a.png"),
        "/[TO_SEND]dir/a.png");
    EXPECT_EQ(context_monitor_t::unset_prefix_from_file_name("[TO_SEND]", "/d/[to_send]a.png"),
        "/d/[to_send]a.png");
}

TEST(ContextMonitorPrefix, RenameValueGivesNewThenOldName)
{
    const auto value = context_monitor_t::getRenameValue("/ctx/background/[old.png]new.png");
    EXPECT_EQ(value.first, "/ctx/background/new.png");
    EXPECT_EQ(value.second, "/ctx/background/old.png");

    const auto bare = context_monitor_t::getRenameValue("[a-1]b_2");
    EXPECT_EQ(bare.first, "b_2");
    EXPECT_EQ(bare.second, "a-1");

    // Word characters in the Unicode sense.
    const auto unicode = context_monitor_t::getRenameValue(QString::fromUtf8("d/[été]ünï"));
    EXPECT_EQ(unicode.first, QString::fromUtf8("d/ünï"));
    EXPECT_EQ(unicode.second, QString::fromUtf8("d/été"));
}

TEST(ContextMonitorPrefix, RenameValueWithEqualPartsIsEmpty)
{
    const auto value = context_monitor_t::getRenameValue("/ctx/[same.png]same.png");
    EXPECT_TRUE(value.first.isEmpty());
    EXPECT_TRUE(value.second.isEmpty());
}

TEST(ContextMonitorPrefix, RenameValueWithoutAMatchIsEmpty)
{
    for (const QString& path :
        { QString("/ctx/plain.png"), QString("/ctx/[a b]c"), QString("/ctx/[]c"),
            QString("/ctx/[a]"), QString("/ctx/x[a]b"), QString("/ctx/[a]b/"), QString("") }) {
        const auto value = context_monitor_t::getRenameValue(path);
        EXPECT_TRUE(value.first.isEmpty()) << path.toStdString();
        EXPECT_TRUE(value.second.isEmpty()) << path.toStdString();
    }
}

// ------------------------------------------------------------------------------------------------
// local file operations

TEST(ContextMonitorFiles, CreateDirOnAnExistingDirectory)
{
    temp_tree_t tree;
    log_capture_t logs;
    EXPECT_TRUE(context_monitor_t::create_dir(tree.root()));
    EXPECT_EQ(logs.messages(),
        QStringList { QStringLiteral("Directory %1 already existed").arg(tree.root()) });
    EXPECT_EQ(
        logs.count(QStringLiteral("Directory %1 already existed").arg(tree.root()), kTrace), 1);
}

TEST(ContextMonitorFiles, CreateDirMakesAllParents)
{
    temp_tree_t tree;
    log_capture_t logs;
    const QString path = tree.path("a/b/c");
    EXPECT_TRUE(context_monitor_t::create_dir(path));
    EXPECT_TRUE(QDir(path).exists());
    EXPECT_EQ(logs.count(QStringLiteral("Create a directory %1").arg(path), kInfo), 1);
}

TEST(ContextMonitorFiles, CreateDirFailureIsLoggedAndFalse)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.write("file", "x"));
    log_capture_t logs;
    const QString path = tree.path("file/sub");
    EXPECT_FALSE(context_monitor_t::create_dir(path));
    EXPECT_EQ(logs.count(QStringLiteral("Unable to create a directory %1").arg(path), kError), 1);
}

TEST(ContextMonitorFiles, CopyAndMoveOfAMissingSourceFail)
{
    temp_tree_t tree;
    log_capture_t logs;
    const QString src = tree.path("missing");
    EXPECT_FALSE(context_monitor_t::copy_file(src, tree.path("dst"), true, true));
    EXPECT_FALSE(context_monitor_t::move_file(src, tree.path("dst"), true, true));
    EXPECT_EQ(logs.count(QStringLiteral("Unable to copy file because %1 does not exist!").arg(src),
                  kError),
        2);
    EXPECT_EQ(logs.records().size(), 2);
    EXPECT_FALSE(tree.exists("dst"));
}

TEST(ContextMonitorFiles, MissingDestinationDirectoryWithoutCreateFails)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.write("src", "data"));
    log_capture_t logs;
    EXPECT_FALSE(
        context_monitor_t::copy_file(tree.path("src"), tree.path("no/dir/dst"), false, false));
    EXPECT_FALSE(
        context_monitor_t::move_file(tree.path("src"), tree.path("no/dir/dst"), false, true));
    EXPECT_EQ(
        logs.count(
            QStringLiteral("Destination directory %1 does not exist!").arg(tree.path("no/dir")),
            kError),
        2);
    EXPECT_TRUE(tree.exists("src"));
    EXPECT_FALSE(tree.exists("no"));
}

TEST(ContextMonitorFiles, MissingDestinationDirectoryIsCreatedWhenAsked)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.write("src", "data"));
    log_capture_t logs;
    EXPECT_TRUE(
        context_monitor_t::copy_file(tree.path("src"), tree.path("new/dir/dst"), true, false));
    EXPECT_EQ(tree.read("new/dir/dst"), "data");
    EXPECT_TRUE(tree.exists("src"));
    EXPECT_TRUE(
        logs.contains(QStringLiteral("Create a directory %1").arg(tree.path("new/dir")), kInfo));
    EXPECT_TRUE(logs.contains(QStringLiteral("Successfully copied %1 to %2")
                                  .arg(tree.path("src"), tree.path("new/dir/dst")),
        kTrace));

    EXPECT_TRUE(
        context_monitor_t::move_file(tree.path("src"), tree.path("moved/dst"), true, false));
    EXPECT_EQ(tree.read("moved/dst"), "data");
    EXPECT_FALSE(tree.exists("src"));
    EXPECT_TRUE(logs.contains(
        QStringLiteral("Successfully moved %1 to %2").arg(tree.path("src"), tree.path("moved/dst")),
        kTrace));
}

TEST(ContextMonitorFiles, DestinationDirectoryThatCannotBeCreatedFails)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.write("src", "data"));
    ASSERT_TRUE(tree.write("blocker", "x"));
    log_capture_t logs;
    const QString dst_dir = tree.path("blocker/sub");
    EXPECT_FALSE(context_monitor_t::move_file(tree.path("src"), dst_dir + "/dst", true, false));
    EXPECT_EQ(logs.messages(),
        (QStringList { QStringLiteral("Unable to create a directory %1").arg(dst_dir),
            QStringLiteral("Failed to create destination directory: %1").arg(dst_dir) }));
    EXPECT_EQ(logs.count(QStringLiteral("Failed to create destination directory: %1").arg(dst_dir),
                  kError),
        1);
    EXPECT_TRUE(tree.exists("src"));
}

TEST(ContextMonitorFiles, MoveOntoAnExistingDestinationWithoutOverwriteFails)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.write("src", "new"));
    ASSERT_TRUE(tree.write("dst", "old"));
    log_capture_t logs;
    EXPECT_FALSE(context_monitor_t::move_file(tree.path("src"), tree.path("dst"), false, false));
    EXPECT_EQ(logs.count(QStringLiteral("Unable to move file %1 to %2, %3!")
                             .arg(tree.path("src"), tree.path("dst"), "Destination file exists"),
                  kError),
        1);
    EXPECT_EQ(tree.read("dst"), "old");
    EXPECT_EQ(tree.read("src"), "new");
}

TEST(ContextMonitorFiles, CopyOntoAnExistingDestinationWithoutOverwriteFailsWithTheGenericError)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.write("src", "new"));
    ASSERT_TRUE(tree.write("dst", "old"));
    log_capture_t logs;
    EXPECT_FALSE(context_monitor_t::copy_file(tree.path("src"), tree.path("dst"), false, false));
    EXPECT_EQ(logs.count(QStringLiteral("Unable to copy file %1 to %2, %3!")
                             .arg(tree.path("src"), tree.path("dst"), "Unknown error"),
                  kError),
        1);
    EXPECT_EQ(tree.read("dst"), "old");
}

TEST(ContextMonitorFiles, OverwriteReplacesAnExistingDestination)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.write("a", "first"));
    ASSERT_TRUE(tree.write("b", "second"));
    ASSERT_TRUE(tree.write("dst", "old"));
    EXPECT_TRUE(context_monitor_t::copy_file(tree.path("a"), tree.path("dst"), false, true));
    EXPECT_EQ(tree.read("dst"), "first");
    EXPECT_TRUE(context_monitor_t::move_file(tree.path("b"), tree.path("dst"), false, true));
    EXPECT_EQ(tree.read("dst"), "second");
    EXPECT_FALSE(tree.exists("b"));
}

TEST(ContextMonitorFiles, OverwriteThatCannotRemoveTheDestinationFails)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.write("src", "data"));
    ASSERT_TRUE(tree.write("dst/inside", "keep")); // a non-empty directory is not a removable file
    log_capture_t logs;
    EXPECT_FALSE(context_monitor_t::copy_file(tree.path("src"), tree.path("dst"), false, true));
    EXPECT_EQ(
        logs.count(
            QStringLiteral("Failed to remove existing destination file: %1").arg(tree.path("dst")),
            kError),
        1);
    EXPECT_EQ(tree.read("dst/inside"), "keep");
}

TEST(ContextMonitorFiles, PrepareChecksWithoutTouchingTheFiles)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.write("src", "data"));
    ASSERT_TRUE(tree.write("dst", "old"));
    log_capture_t logs;
    EXPECT_TRUE(context_monitor_t::prepare_copy_move_file(
        tree.path("src"), tree.path("dst"), false, false));
    EXPECT_EQ(tree.read("dst"), "old");
    EXPECT_TRUE(
        context_monitor_t::prepare_copy_move_file(tree.path("src"), tree.path("dst"), false, true));
    EXPECT_FALSE(tree.exists("dst")); // removed under overwrite
    EXPECT_TRUE(logs.records().isEmpty());
}

// ------------------------------------------------------------------------------------------------
// rename of received files

TEST(ContextMonitorRename, MissingFileDoesNothing)
{
    temp_tree_t tree;
    context_monitor_t monitor("CONTEXT", tree.root());
    log_capture_t logs;
    monitor.rename_file_to_send(tree.path("background/[TO_SEND]a.png"), true);
    EXPECT_TRUE(logs.records().isEmpty());
    EXPECT_TRUE(monitor.getFileSync().isEmpty());
    EXPECT_TRUE(monitor.get_cumulative_hash().isEmpty());
}

TEST(ContextMonitorRename, NameWithoutThePrefixDoesNothing)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.write("background/a.png", "data"));
    context_monitor_t monitor("CONTEXT", tree.root());
    log_capture_t logs;
    monitor.rename_file_to_send(tree.path("background/a.png"), true);
    EXPECT_TRUE(logs.records().isEmpty());
    EXPECT_TRUE(monitor.getFileSync().isEmpty());
    EXPECT_TRUE(tree.exists("background/a.png"));
}

TEST(ContextMonitorRename, WithoutUpdateOnlyRenames)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.write("background/[TO_SEND]a.png", "data"));
    context_monitor_t monitor("CONTEXT", tree.root());
    log_capture_t logs;
    monitor.rename_file_to_send(tree.path("background/[TO_SEND]a.png"));
    EXPECT_EQ(tree.read("background/a.png"), "data");
    EXPECT_FALSE(tree.exists("background/[TO_SEND]a.png"));
    EXPECT_TRUE(monitor.getFileSync().isEmpty());
    EXPECT_TRUE(monitor.getFileList().isEmpty());
    EXPECT_TRUE(logs.records().isEmpty());
}

TEST(ContextMonitorRename, WithUpdateEntersTheFileIntoTheModel)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.write("background/[TO_SEND]a.png", "data"));
    context_monitor_t monitor("CONTEXT", tree.root());
    log_capture_t logs;
    monitor.rename_file_to_send(tree.path("background/[TO_SEND]a.png"), true);
    EXPECT_EQ(tree.read("background/a.png"), "data");
    EXPECT_EQ(monitor.getFileWithHashSync(),
        (QMap<QString, QString> { { "background/a.png", md5_hex("data") } }));
    EXPECT_EQ(monitor.getFileList(), QStringList { tree.path("background/a.png") });
    EXPECT_EQ(monitor.get_cumulative_hash(),
        expected_hashes({ { "background/a.png", md5_hex("data") } }).cumulative);
    EXPECT_EQ(logs.messages(), QStringList { "Added to files and recalculate cumulative!" });
    EXPECT_EQ(logs.count("Added to files and recalculate cumulative!", kTrace), 1);
}

TEST(ContextMonitorRename, ExistingTargetIsReplaced)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.write("background/a.png", "old"));
    ASSERT_TRUE(tree.write("background/[TO_SEND]a.png", "new"));
    context_monitor_t monitor("CONTEXT", tree.root());
    log_capture_t logs;
    monitor.rename_file_to_send(tree.path("background/[TO_SEND]a.png"), false);
    EXPECT_EQ(tree.read("background/a.png"), "new");
    EXPECT_EQ(logs.messages(),
        QStringList { "File " + tree.path("background/a.png") + " existing! Try to remove it!" });
    EXPECT_EQ(logs.count(
                  "File " + tree.path("background/a.png") + " existing! Try to remove it!", kError),
        1);
}

TEST(ContextMonitorRename, FailuresAreLoggedAndTheTargetStillEntersTheModel)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.write("background/[TO_SEND]a.png", "new"));
    // The target is a non-empty directory: it can neither be removed as a file nor replaced.
    ASSERT_TRUE(tree.write("background/a.png/inside", "keep"));
    context_monitor_t monitor("CONTEXT", tree.root());
    log_capture_t logs;
    const QString source = tree.path("background/[TO_SEND]a.png");
    const QString target = tree.path("background/a.png");
    monitor.rename_file_to_send(source, true);

    EXPECT_EQ(logs.messages(kError),
        (QStringList { "File " + target + " existing! Try to remove it!",
            "Unable to remove " + target + "!", "Error to rename: " + source + " to " + target }));
    EXPECT_EQ(tree.read("background/[TO_SEND]a.png"), "new");
    EXPECT_EQ(tree.read("background/a.png/inside"), "keep");
    // The model takes the target even though its hash is empty.
    EXPECT_EQ(
        monitor.getFileWithHashSync(), (QMap<QString, QString> { { "background/a.png", "" } }));
    EXPECT_TRUE(logs.contains("Added to files and recalculate cumulative!", kTrace));
}

TEST(ContextMonitorRename, TargetOutsideTheRootIsKeyedByItsAbsolutePath)
{
    temp_tree_t root;
    temp_tree_t other;
    ASSERT_TRUE(other.write("[TO_SEND]x.bin", "x"));
    context_monitor_t monitor("CONTEXT", root.root());
    log_capture_t logs;
    monitor.rename_file_to_send(other.path("[TO_SEND]x.bin"), true);
    EXPECT_TRUE(logs.contains("Don't match absolute path", kError));
    EXPECT_EQ(monitor.getFileSync(), QStringList { other.path("x.bin") });
}
