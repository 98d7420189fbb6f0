#include "context_sync/context_sync/context_file_handler_t.h"

#include "common/log_capture_t.h"
#include "common/temp_tree_t.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <unistd.h>

#include <ostream>
#include <vector>

using context_sync_engine::context_file_handler_t;
using handler_t = context_file_handler_t;

namespace {

const QString kHandlerSource
    = QStringLiteral("server/context_sync/context_sync/context_file_handler_t");
const QString kMonitorSource
    = QStringLiteral("server/context_sync/context_sync/watcher/context_monitor_t");

struct line_t {
    int level;
    QString message;
    bool operator==(const line_t& other) const
    {
        return level == other.level && message == other.message;
    }
};

std::ostream& operator<<(std::ostream& out, const line_t& line)
{
    return out << "[" << line.level << "] \"" << line.message.toStdString() << "\"";
}

// Lines logged by one class (the handler unless told otherwise), in order.
std::vector<line_t> lines_of(
    test_support::log_capture_t& capture, const QString& source = kHandlerSource)
{
    std::vector<line_t> result;
    for (const auto& record : capture.records())
        if (record.file == source)
            result.push_back({ record.level, record.message });
    return result;
}

QJsonObject pair(const QString& from, const QString& to)
{
    return QJsonObject { { from, to } };
}

// A context root "ctx/" inside a temporary tree, so that paths leaving the root stay inside the
// tree.
struct fixture_t {
    test_support::temp_tree_t tree;
    QString root = tree.path("ctx/");
    QString in_root(const QString& relative) const { return root + relative; }
    bool write(const QString& relative, const QByteArray& data) const
    {
        return tree.write("ctx/" + relative, data);
    }
    QByteArray read(const QString& relative) const { return tree.read("ctx/" + relative); }
    bool exists(const QString& relative) const { return tree.exists("ctx/" + relative); }
};

} // namespace

// --- construction and create_dir ---------------------------------------------------------------

TEST(ContextFileHandler, ConstructionCreatesAMissingRootAtLevelTwo)
{
    test_support::temp_tree_t tree;
    test_support::log_capture_t capture;
    handler_t handler(tree.path("a/b/ctx"));
    EXPECT_TRUE(QFileInfo(tree.path("a/b/ctx")).isDir());
    // The root is normalised to a directory path before it is created.
    EXPECT_EQ(lines_of(capture),
        (std::vector<line_t> { { 2, "Create a directory " + tree.path("a/b/ctx/") } }));
}

TEST(ContextFileHandler, ConstructionOnAnExistingRootOnlyTraces)
{
    test_support::temp_tree_t tree;
    tree.mkdir("ctx");
    test_support::log_capture_t capture;
    handler_t handler(tree.path("ctx/"));
    EXPECT_EQ(lines_of(capture),
        (std::vector<line_t> { { 6, "Directory " + tree.path("ctx/") + " already existed" } }));
}

TEST(ContextFileHandler, RootWithoutTrailingSlashStillJoinsRelativePaths)
{
    fixture_t f;
    f.write("a.txt", "alpha");
    handler_t handler(f.tree.path("ctx"));
    EXPECT_EQ(handler.handler_file({ { "copied", QJsonArray { pair("a.txt", "b.txt") } } }), 1);
    EXPECT_EQ(f.read("b.txt"), "alpha");
}

TEST(ContextFileHandler, CreateDirReportsEachOutcome)
{
    test_support::temp_tree_t tree;
    tree.write("file", "x");
    test_support::log_capture_t capture;
    EXPECT_TRUE(handler_t::create_dir(tree.path("new/deep")));
    EXPECT_TRUE(QFileInfo(tree.path("new/deep")).isDir());
    EXPECT_TRUE(handler_t::create_dir(tree.path("new/deep")));
    EXPECT_FALSE(handler_t::create_dir(tree.path("file/sub")));
    EXPECT_EQ(lines_of(capture),
        (std::vector<line_t> { { 2, "Create a directory " + tree.path("new/deep") },
            { 6, "Directory " + tree.path("new/deep") + " already existed" },
            { 2, "Unable to create a directory " + tree.path("file/sub") } }));
}

TEST(ContextFileHandler, LinesCarryTheHandlerSourceAndTheCalledOperation)
{
    fixture_t f;
    f.write("a.txt", "alpha");
    handler_t handler(f.root);
    test_support::log_capture_t capture;
    handler_t::handler_file_copy(QJsonArray { pair("a.txt", "b.txt") }, f.root, f.root);
    handler_t::handler_file_rename(QJsonArray { pair("b.txt", "c.txt") }, f.root, f.root);
    handler_t::handler_file_remove(QJsonArray { "" }, f.root);
    QStringList functions;
    for (const auto& record : capture.records()) {
        EXPECT_EQ(record.file, kHandlerSource);
        functions.append(record.function);
    }
    EXPECT_EQ(functions,
        (QStringList { "create_dir", "handler_file_copy", "create_dir", "handler_file_rename",
            "handler_file_remove" }));
}

// --- copy --------------------------------------------------------------------------------------

TEST(ContextFileHandler, CopyCopiesTheFileAndLogsAtLevelFour)
{
    fixture_t f;
    f.write("a.txt", "alpha");
    handler_t handler(f.root);
    test_support::log_capture_t capture;
    handler_t::handler_file_copy(QJsonArray { pair("a.txt", "b.txt") }, f.root, f.root);
    EXPECT_EQ(f.read("a.txt"), "alpha");
    EXPECT_EQ(f.read("b.txt"), "alpha");
    EXPECT_EQ(lines_of(capture),
        (std::vector<line_t> { { 6, "Directory " + f.tree.path("ctx") + " already existed" },
            { 4, "File " + f.in_root("a.txt") + " copied to " + f.in_root("b.txt") } }));
}

TEST(ContextFileHandler, CopyOntoAnExistingDestinationFailsAndKeepsIt)
{
    fixture_t f;
    f.write("a.txt", "alpha");
    f.write("b.txt", "beta");
    handler_t handler(f.root);
    test_support::log_capture_t capture;
    handler.handler_file({ { "copied", QJsonArray { pair("a.txt", "b.txt") } } });
    EXPECT_EQ(f.read("b.txt"), "beta");
    EXPECT_EQ(f.read("a.txt"), "alpha");
    EXPECT_TRUE(capture.contains(
        "Unable to copied file " + f.in_root("a.txt") + " to " + f.in_root("b.txt"), 2));
    EXPECT_FALSE(capture.contains_fragment(" copied to "));
}

TEST(ContextFileHandler, CopyOfAMissingSourceCreatesNothing)
{
    fixture_t f;
    handler_t handler(f.root);
    test_support::log_capture_t capture;
    handler_t::handler_file_copy(QJsonArray { pair("missing.txt", "sub/b.txt") }, f.root, f.root);
    EXPECT_FALSE(f.exists("sub"));
    EXPECT_EQ(lines_of(capture),
        (std::vector<line_t> { { 2,
            "Unable to copy file from " + f.in_root("missing.txt") + " to " + f.in_root("sub/b.txt")
                + ", source file not exist" } }));
}

TEST(ContextFileHandler, CopyIntoAMissingSubDirectoryCreatesItFirst)
{
    fixture_t f;
    f.write("a.txt", "alpha");
    handler_t handler(f.root);
    test_support::log_capture_t capture;
    handler_t::handler_file_copy(QJsonArray { pair("a.txt", "x/y/b.txt") }, f.root, f.root);
    EXPECT_EQ(f.read("x/y/b.txt"), "alpha");
    EXPECT_EQ(lines_of(capture),
        (std::vector<line_t> { { 2, "Create a directory " + f.in_root("x/y") },
            { 4, "File " + f.in_root("a.txt") + " copied to " + f.in_root("x/y/b.txt") } }));
}

TEST(ContextFileHandler, CopyOfADirectoryFails)
{
    fixture_t f;
    f.write("dir/inner.txt", "i");
    handler_t handler(f.root);
    test_support::log_capture_t capture;
    handler_t::handler_file_copy(QJsonArray { pair("dir", "dir2") }, f.root, f.root);
    EXPECT_FALSE(f.exists("dir2"));
    EXPECT_TRUE(capture.contains(
        "Unable to copied file " + f.in_root("dir") + " to " + f.in_root("dir2"), 2));
}

TEST(ContextFileHandler, MalformedCopyEntriesReadAsEmptyAndTheBatchGoesOn)
{
    fixture_t f;
    f.write("a.txt", "alpha");
    handler_t handler(f.root);
    test_support::log_capture_t capture;
    const QJsonArray list { pair("", "b.txt"), pair("a.txt", ""), QJsonObject {},
        QJsonObject { { "a.txt", 3 } }, QJsonValue("a.txt"), QJsonValue(7), QJsonArray { "a.txt" },
        pair("a.txt", "ok.txt") };
    handler_t::handler_file_copy(list, f.root, f.root);
    EXPECT_EQ(f.read("ok.txt"), "alpha");
    const QString empty = QStringLiteral("Unable to copy file from %1 to %2, empty from/to");
    EXPECT_EQ(lines_of(capture),
        (std::vector<line_t> { { 2, empty.arg("", "b.txt") }, { 2, empty.arg("a.txt", "") },
            { 2, empty.arg("", "") }, { 2, empty.arg("a.txt", "") }, { 2, empty.arg("", "") },
            { 2, empty.arg("", "") }, { 2, empty.arg("", "") },
            { 6, "Directory " + f.tree.path("ctx") + " already existed" },
            { 4, "File " + f.in_root("a.txt") + " copied to " + f.in_root("ok.txt") } }));
}

TEST(ContextFileHandler, ObjectWithTwoMembersUsesTheAlphabeticallyFirstName)
{
    fixture_t f;
    f.write("a.txt", "alpha");
    f.write("b.txt", "beta");
    handler_t handler(f.root);
    // Inserted in reverse order: the sorted key order decides, not the order of writing.
    QJsonObject two;
    two.insert("b.txt", "from_b.txt");
    two.insert("a.txt", "from_a.txt");
    handler_t::handler_file_copy(QJsonArray { two }, f.root, f.root);
    EXPECT_EQ(f.read("from_a.txt"), "alpha");
    EXPECT_FALSE(f.exists("from_b.txt"));

    handler_t::handler_file_rename(
        QJsonArray { QJsonObject { { "b.txt", "moved_b.txt" }, { "a.txt", "moved_a.txt" } } },
        f.root, f.root);
    EXPECT_EQ(f.read("moved_a.txt"), "alpha");
    EXPECT_FALSE(f.exists("a.txt"));
    EXPECT_EQ(f.read("b.txt"), "beta");
    EXPECT_FALSE(f.exists("moved_b.txt"));
}

TEST(ContextFileHandler, CopyBetweenTwoRootsUsesEachRootForItsSide)
{
    fixture_t f;
    f.tree.write("other/a.txt", "from other");
    f.write("a.txt", "from ctx");
    handler_t::handler_file_copy(
        QJsonArray { pair("a.txt", "b.txt") }, f.tree.path("other/"), f.root);
    EXPECT_EQ(f.read("b.txt"), "from other");
    EXPECT_FALSE(f.tree.exists("other/b.txt"));
}

TEST(ContextFileHandler, NamesWithSpacesBracketsAndNonAsciiCharacters)
{
    fixture_t f;
    const QString name = QStringLiteral("dir with space/[old]ünïcødé name (1).txt");
    const QString target = QStringLiteral("другой каталог/[new] name.txt");
    f.write(name, "payload");
    handler_t handler(f.root);
    test_support::log_capture_t capture;
    EXPECT_EQ(handler.handler_file({ { "copied", QJsonArray { pair(name, target) } } }), 1);
    EXPECT_EQ(f.read(target), "payload");
    EXPECT_TRUE(capture.contains("File " + f.in_root(name) + " copied to " + f.in_root(target), 4));
    EXPECT_EQ(handler.handler_file({ { "removed", QJsonArray { name, target } } }), 2);
    EXPECT_FALSE(f.exists(name));
    EXPECT_FALSE(f.exists(target));
}

TEST(ContextFileHandler, UnreadableSourceIsAFailedCopy)
{
    if (geteuid() == 0)
        GTEST_SKIP() << "running as root: permission bits do not stop root from reading a file";
    fixture_t f;
    f.write("locked.txt", "secret");
    ASSERT_TRUE(QFile::setPermissions(f.in_root("locked.txt"), QFileDevice::Permissions()));
    test_support::log_capture_t capture;
    handler_t::handler_file_copy(QJsonArray { pair("locked.txt", "copy.txt") }, f.root, f.root);
    EXPECT_TRUE(capture.contains(
        "Unable to copied file " + f.in_root("locked.txt") + " to " + f.in_root("copy.txt"), 2));
    EXPECT_FALSE(f.exists("copy.txt"));
}

// --- rename ------------------------------------------------------------------------------------

TEST(ContextFileHandler, RenameMovesTheFileAndLogsAtLevelFour)
{
    fixture_t f;
    f.write("a.txt", "alpha");
    handler_t handler(f.root);
    test_support::log_capture_t capture;
    handler_t::handler_file_rename(QJsonArray { pair("a.txt", "b.txt") }, f.root, f.root);
    EXPECT_FALSE(f.exists("a.txt"));
    EXPECT_EQ(f.read("b.txt"), "alpha");
    EXPECT_TRUE(
        capture.contains("File " + f.in_root("a.txt") + " renamed to " + f.in_root("b.txt"), 4));
}

TEST(ContextFileHandler, RenameIntoAMissingSubDirectoryCreatesItFirst)
{
    fixture_t f;
    f.write("a.txt", "alpha");
    handler_t handler(f.root);
    test_support::log_capture_t capture;
    handler_t::handler_file_rename(QJsonArray { pair("a.txt", "new/dir/b.txt") }, f.root, f.root);
    EXPECT_FALSE(f.exists("a.txt"));
    EXPECT_EQ(f.read("new/dir/b.txt"), "alpha");
    EXPECT_EQ(lines_of(capture),
        (std::vector<line_t> { { 2, "Create a directory " + f.in_root("new/dir") },
            { 4, "File " + f.in_root("a.txt") + " renamed to " + f.in_root("new/dir/b.txt") } }));
}

TEST(ContextFileHandler, RenameOntoAnExistingFileFailsAndKeepsBoth)
{
    fixture_t f;
    f.write("a.txt", "alpha");
    f.write("b.txt", "beta");
    handler_t handler(f.root);
    test_support::log_capture_t capture;
    handler_t::handler_file_rename(QJsonArray { pair("a.txt", "b.txt") }, f.root, f.root);
    EXPECT_EQ(f.read("a.txt"), "alpha");
    EXPECT_EQ(f.read("b.txt"), "beta");
    EXPECT_TRUE(capture.contains(
        "Unable to rename file " + f.in_root("a.txt") + " to " + f.in_root("b.txt"), 2));
}

TEST(ContextFileHandler, RenameOfAMissingOrEmptyEntryIsLogged)
{
    fixture_t f;
    handler_t handler(f.root);
    test_support::log_capture_t capture;
    handler_t::handler_file_rename(
        QJsonArray { pair("gone.txt", "b.txt"), pair("", "b.txt"), QJsonValue("gone.txt") }, f.root,
        f.root);
    EXPECT_EQ(lines_of(capture),
        (std::vector<line_t> { { 2,
                                   "Unable to rename file from " + f.in_root("gone.txt") + " to "
                                       + f.in_root("b.txt") + ", source file not exist" },
            { 2, "Unable to rename file from  to b.txt, empty from/to" },
            { 2, "Unable to rename file from  to , empty from/to" } }));
}

// --- remove ------------------------------------------------------------------------------------

TEST(ContextFileHandler, RemoveDeletesFilesWithoutLogging)
{
    fixture_t f;
    f.write("a.txt", "alpha");
    f.write("sub/b.txt", "beta");
    handler_t handler(f.root);
    test_support::log_capture_t capture;
    handler_t::handler_file_remove(QJsonArray { "a.txt", "sub/b.txt" }, f.root);
    EXPECT_FALSE(f.exists("a.txt"));
    EXPECT_FALSE(f.exists("sub/b.txt"));
    EXPECT_TRUE(f.exists("sub"));
    EXPECT_TRUE(capture.records().isEmpty());
}

TEST(ContextFileHandler, RemovingAnAbsentFileLogsNothing)
{
    fixture_t f;
    handler_t handler(f.root);
    test_support::log_capture_t capture;
    handler_t::handler_file_remove(QJsonArray { "absent.txt", "no/such/dir/file" }, f.root);
    EXPECT_TRUE(capture.records().isEmpty());
}

TEST(ContextFileHandler, RemoveNeverRemovesADirectory)
{
    fixture_t f;
    f.write("dir/inner.txt", "i");
    handler_t handler(f.root);
    test_support::log_capture_t capture;
    handler_t::handler_file_remove(QJsonArray { "dir" }, f.root);
    EXPECT_EQ(f.read("dir/inner.txt"), "i");
    EXPECT_EQ(lines_of(capture),
        (std::vector<line_t> { { 2, "Unable to remove " + f.in_root("dir") + " " } }));
}

TEST(ContextFileHandler, EmptyOrNonStringRemovalsAreLoggedAndTheBatchGoesOn)
{
    fixture_t f;
    f.write("a.txt", "alpha");
    handler_t handler(f.root);
    test_support::log_capture_t capture;
    handler_t::handler_file_remove(
        QJsonArray { "", 3, QJsonObject { { "a.txt", "x" } }, "a.txt" }, f.root);
    EXPECT_FALSE(f.exists("a.txt"));
    EXPECT_EQ(lines_of(capture),
        (std::vector<line_t> { { 2, "File to remove is empty" }, { 2, "File to remove is empty" },
            { 2, "File to remove is empty" } }));
}

TEST(ContextFileHandler, RemovingASymlinkRemovesTheLinkNotItsTarget)
{
    fixture_t f;
    f.tree.write("outside/keep.txt", "keep");
    handler_t handler(f.root);
    ASSERT_TRUE(QFile::link(f.tree.path("outside/keep.txt"), f.in_root("link.txt")));
    handler_t::handler_file_remove(QJsonArray { "link.txt" }, f.root);
    EXPECT_FALSE(QFileInfo(f.in_root("link.txt")).isSymLink());
    EXPECT_EQ(f.tree.read("outside/keep.txt"), "keep");
}

// --- handler_file ------------------------------------------------------------------------------

TEST(ContextFileHandler, HandlerFileWithoutKnownKeysDoesNothingAndReturnsZero)
{
    fixture_t f;
    f.write("a.txt", "alpha");
    handler_t handler(f.root);
    test_support::log_capture_t capture;
    EXPECT_EQ(handler.handler_file(QJsonObject {}), 0);
    EXPECT_EQ(
        handler.handler_file({ { "new", QJsonArray { "a.txt", "b.txt" } }, { "other", 1 } }), 0);
    // Keys that are not arrays count as empty arrays.
    EXPECT_EQ(handler.handler_file({ { "copied", "a.txt" }, { "removed", "a.txt" } }), 0);
    EXPECT_EQ(f.tree.files(), QStringList { "ctx/a.txt" });
    EXPECT_TRUE(capture.records().isEmpty());
}

TEST(ContextFileHandler, HandlerFileReturnsTheSubmittedCountEvenWhenEverythingFails)
{
    fixture_t f;
    handler_t handler(f.root);
    test_support::log_capture_t capture;
    const QJsonObject change {
        { "copied", QJsonArray { pair("x1", "y1"), pair("x2", "y2") } },
        { "renamed", QJsonArray { pair("x3", "y3") } },
        { "removed", QJsonArray { "", "", "" } },
        { "new", QJsonArray { "n1", "n2" } },
    };
    EXPECT_EQ(handler.handler_file(change), 6);
    EXPECT_EQ(lines_of(capture).size(), 6u);
    EXPECT_TRUE(f.tree.files().isEmpty());
}

TEST(ContextFileHandler, HandlerFileCopiesThenRenamesThenRemoves)
{
    fixture_t f;
    f.write("a.txt", "alpha");
    handler_t handler(f.root);
    // Only this order ends with c.txt holding a's content and nothing else in the root.
    const QJsonObject change {
        { "removed", QJsonArray { "a.txt" } },
        { "renamed", QJsonArray { pair("b.txt", "c.txt") } },
        { "copied", QJsonArray { pair("a.txt", "b.txt") } },
    };
    EXPECT_EQ(handler.handler_file(change), 3);
    EXPECT_EQ(f.tree.files(), QStringList { "ctx/c.txt" });
    EXPECT_EQ(f.read("c.txt"), "alpha");
}

TEST(ContextFileHandler, ParentSegmentsAreJoinedAsTheyStand)
{
    // The handler joins root and relative path by plain concatenation; paths from clients are
    // refused at the protocol boundary before they get here. This pins what it does with one
    // that was not.
    fixture_t f;
    f.write("a.txt", "alpha");
    f.tree.write("victim.txt", "v");
    handler_t handler(f.root);
    test_support::log_capture_t capture;
    EXPECT_EQ(handler.handler_file({ { "copied", QJsonArray { pair("a.txt", "../escaped.txt") } },
                  { "removed", QJsonArray { "../victim.txt" } } }),
        2);
    EXPECT_EQ(f.tree.read("escaped.txt"), "alpha");
    EXPECT_FALSE(f.tree.exists("victim.txt"));
    EXPECT_TRUE(capture.contains(
        "File " + f.in_root("a.txt") + " copied to " + f.in_root("../escaped.txt"), 4));
}

// --- import ------------------------------------------------------------------------------------

TEST(ContextFileHandler, ImportCopiesNewAndCopiedFromTheImportTreeThenRenamesAndRemoves)
{
    fixture_t f;
    f.tree.write("import/n1.txt", "new one");
    f.tree.write("import/sub/n2.txt", "new two");
    f.tree.write("import/src.txt", "import source");
    f.write("src.txt", "root source");
    f.write("old.txt", "old");
    handler_t handler(f.root);
    test_support::log_capture_t capture;

    const QJsonObject change {
        { "new", QJsonArray { "n1.txt", "sub/n2.txt" } },
        { "copied", QJsonArray { pair("src.txt", "copy.txt") } },
        // n1.txt exists only once "new" has been applied: new comes before renamed.
        { "renamed", QJsonArray { pair("n1.txt", "moved/n1.txt") } },
        { "removed", QJsonArray { "old.txt" } },
    };
    // Without its trailing slash: the import path is normalised first.
    handler.handler_import_file(change, f.tree.path("import"));

    EXPECT_EQ(f.tree.files(),
        (QStringList { "ctx/copy.txt", "ctx/moved/n1.txt", "ctx/src.txt", "ctx/sub/n2.txt",
            "import/n1.txt", "import/src.txt", "import/sub/n2.txt" }));
    EXPECT_EQ(f.read("moved/n1.txt"), "new one");
    EXPECT_EQ(f.read("sub/n2.txt"), "new two");
    EXPECT_EQ(f.read("copy.txt"), "import source");
    EXPECT_EQ(f.read("src.txt"), "root source");

    const QString import_root = f.tree.path("import/");
    const std::vector<line_t> successes {
        { 4, "File " + import_root + "n1.txt copied to " + f.in_root("n1.txt") },
        { 4, "File " + import_root + "sub/n2.txt copied to " + f.in_root("sub/n2.txt") },
        { 4, "File " + import_root + "src.txt copied to " + f.in_root("copy.txt") },
        { 4, "File " + f.in_root("n1.txt") + " renamed to " + f.in_root("moved/n1.txt") },
    };
    std::vector<line_t> logged;
    for (const line_t& line : lines_of(capture))
        if (line.level == 4)
            logged.push_back(line);
    EXPECT_EQ(logged, successes);
}

TEST(ContextFileHandler, ImportOfANewFileMissingFromTheImportTreeIsLogged)
{
    fixture_t f;
    f.tree.mkdir("import");
    handler_t handler(f.root);
    test_support::log_capture_t capture;
    handler.handler_import_file(
        { { "new", QJsonArray { "ghost.txt", 5 } } }, f.tree.path("import/"));
    EXPECT_EQ(lines_of(capture),
        (std::vector<line_t> {
            { 2,
                "Unable to copy file from " + f.tree.path("import/ghost.txt") + " to "
                    + f.in_root("ghost.txt") + ", source file not exist" },
            { 2, "Unable to copy file from  to , empty from/to" } }));
}

// --- replace_context ---------------------------------------------------------------------------

TEST(ContextFileHandler, ReplaceRemovesBeforeCopyingSoAFileInBothListsIsReplaced)
{
    fixture_t f;
    f.write("same.txt", "old content");
    f.write("gone.txt", "bye");
    f.tree.write("source/same.txt", "new content");
    f.tree.write("source/deep/added.txt", "added");
    test_support::log_capture_t capture;
    handler_t::replace_context(f.root, { "same.txt", "gone.txt", "absent.txt" },
        f.tree.path("source/"), { "same.txt", "deep/added.txt" });
    EXPECT_EQ(f.read("same.txt"), "new content");
    EXPECT_EQ(f.read("deep/added.txt"), "added");
    EXPECT_FALSE(f.exists("gone.txt"));

    // Level 2 for a successful copy here, unlike handler_file_copy.
    EXPECT_EQ(lines_of(capture),
        (std::vector<line_t> {
            { 2, "File " + f.tree.path("source/same.txt") + " copied to " + f.in_root("same.txt") },
            { 2,
                "File " + f.tree.path("source/deep/added.txt") + " copied to "
                    + f.in_root("deep/added.txt") } }));
    // The destination folder is made by the context monitor's helper, with its own wording.
    EXPECT_TRUE(capture.contains("Create a directory " + f.in_root("deep"), 4));
    EXPECT_EQ(lines_of(capture, kMonitorSource).size(), 2u);
}

TEST(ContextFileHandler, ReplaceReportsAMissingSourceAsAFailedCopy)
{
    fixture_t f;
    f.tree.mkdir("source");
    f.tree.mkdir("ctx");
    f.write("dir/inner.txt", "i");
    test_support::log_capture_t capture;
    handler_t::replace_context(f.root, { "dir" }, f.tree.path("source/"), { "missing.txt" });
    EXPECT_EQ(f.read("dir/inner.txt"), "i");
    EXPECT_FALSE(f.exists("missing.txt"));
    EXPECT_EQ(lines_of(capture),
        (std::vector<line_t> { { 2, "Unable to remove " + f.in_root("dir") + " " },
            { 2,
                "Unable to copied file " + f.tree.path("source/missing.txt") + " to "
                    + f.in_root("missing.txt") } }));
}

TEST(ContextFileHandler, ReplaceWithEmptyListsDoesNothing)
{
    fixture_t f;
    f.write("a.txt", "alpha");
    test_support::log_capture_t capture;
    handler_t::replace_context(f.root, {}, f.tree.path("source/"), {});
    EXPECT_EQ(f.read("a.txt"), "alpha");
    EXPECT_TRUE(capture.records().isEmpty());
}

// --- clean_tmp_folder --------------------------------------------------------------------------

TEST(ContextFileHandler, CleanNonEmptyFolderWithRecreateLeavesItEmpty)
{
    test_support::temp_tree_t tree;
    tree.write("TMP_work/a.part", "a");
    tree.write("TMP_work/sub/b.part", "b");
    const QString path = tree.path("TMP_work");
    test_support::log_capture_t capture;
    handler_t::clean_tmp_folder(path, true);
    EXPECT_TRUE(QFileInfo(path).isDir());
    EXPECT_TRUE(
        QDir(path).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot));
    EXPECT_EQ(lines_of(capture),
        (std::vector<line_t> { { 6, "Try to remove and recreate directory: " + path },
            { 4, "Directory ready: " + path } }));
}

TEST(ContextFileHandler, CleanMissingFolderWithoutRecreateDoesNothing)
{
    test_support::temp_tree_t tree;
    test_support::log_capture_t capture;
    handler_t::clean_tmp_folder(tree.path("TMP_none"), false);
    EXPECT_FALSE(tree.exists("TMP_none"));
    EXPECT_TRUE(capture.records().isEmpty());
}

TEST(ContextFileHandler, CleanMissingFolderWithRecreateCreatesItWithItsParents)
{
    test_support::temp_tree_t tree;
    const QString path = tree.path("a/b/TMP_receive/");
    test_support::log_capture_t capture;
    handler_t::clean_tmp_folder(path, true);
    EXPECT_TRUE(QFileInfo(path).isDir());
    EXPECT_EQ(lines_of(capture), (std::vector<line_t> { { 4, "Directory ready: " + path } }));
}

TEST(ContextFileHandler, CleanEmptyFolderWithRecreateKeepsItAsItIs)
{
    test_support::temp_tree_t tree;
    tree.mkdir("TMP_empty");
    const QString path = tree.path("TMP_empty");
    // Unusual permissions show whether the folder was re-made.
    const auto marked = QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner
        | QFileDevice::ReadUser | QFileDevice::WriteUser | QFileDevice::ExeUser;
    ASSERT_TRUE(QFile::setPermissions(path, marked));
    test_support::log_capture_t capture;
    handler_t::clean_tmp_folder(path, true);
    EXPECT_EQ(QFileInfo(path).permissions(), marked);
    EXPECT_EQ(lines_of(capture), (std::vector<line_t> { { 4, "Directory ready: " + path } }));
}

TEST(ContextFileHandler, CleanWithoutRecreateRemovesEmptyAndNonEmptyFolders)
{
    test_support::temp_tree_t tree;
    tree.mkdir("TMP_empty");
    tree.write("TMP_full/x/y.txt", "y");
    test_support::log_capture_t capture;
    handler_t::clean_tmp_folder(tree.path("TMP_empty"), false);
    handler_t::clean_tmp_folder(tree.path("TMP_full"), false);
    EXPECT_FALSE(tree.exists("TMP_empty"));
    EXPECT_FALSE(tree.exists("TMP_full"));
    EXPECT_EQ(lines_of(capture),
        (std::vector<line_t> {
            { 6, "Try to remove and recreate directory: " + tree.path("TMP_full") } }));
}

TEST(ContextFileHandler, CleanCountsOnlyVisibleEntries)
{
    // Hidden entries are outside the entry filter: a folder holding only those counts as empty.
    test_support::temp_tree_t tree;
    tree.write("TMP_hidden/.state", "s");
    test_support::log_capture_t capture;
    handler_t::clean_tmp_folder(tree.path("TMP_hidden"), true);
    EXPECT_EQ(tree.read("TMP_hidden/.state"), "s");
    EXPECT_EQ(lines_of(capture),
        (std::vector<line_t> { { 4, "Directory ready: " + tree.path("TMP_hidden") } }));

    // Removal still takes them along.
    handler_t::clean_tmp_folder(tree.path("TMP_hidden"), false);
    EXPECT_FALSE(tree.exists("TMP_hidden"));
}

TEST(ContextFileHandler, CleanWhereAFileBlocksTheFolderReportsTheFailure)
{
    test_support::temp_tree_t tree;
    tree.write("TMP_file", "not a folder");
    tree.write("plain", "p");
    test_support::log_capture_t capture;
    handler_t::clean_tmp_folder(tree.path("TMP_file"), true);
    handler_t::clean_tmp_folder(tree.path("plain/TMP_sub"), true);
    EXPECT_EQ(tree.read("TMP_file"), "not a folder");
    EXPECT_EQ(lines_of(capture),
        (std::vector<line_t> { { 2, "Unable to create directory: " + tree.path("TMP_file") },
            { 2, "Unable to create directory: " + tree.path("plain/TMP_sub") } }));
}

TEST(ContextFileHandler, CleaningASymlinkedFolderRemovesTheLinkNeverItsTarget)
{
    for (const bool recreate : { true, false }) {
        for (const QString& suffix : { QString(), QStringLiteral("/") }) {
            SCOPED_TRACE(QStringLiteral("recreate %1, path suffix '%2'")
                             .arg(recreate ? "true" : "false", suffix)
                             .toStdString());
            test_support::temp_tree_t tree;
            tree.write("outside/target/keep.txt", "keep");
            tree.write("outside/target/sub/deep.txt", "deep");
            tree.mkdir("ctx");
            ASSERT_TRUE(QFile::link(tree.path("outside/target"), tree.path("ctx/TMP_link")));
            const QString path = tree.path("ctx/TMP_link") + suffix;

            test_support::log_capture_t capture;
            handler_t::clean_tmp_folder(path, recreate);

            EXPECT_EQ(tree.read("outside/target/keep.txt"), "keep");
            EXPECT_EQ(tree.read("outside/target/sub/deep.txt"), "deep");
            const QFileInfo info(tree.path("ctx/TMP_link"));
            EXPECT_FALSE(info.isSymLink());
            EXPECT_EQ(info.exists(), recreate);
            if (recreate) {
                EXPECT_TRUE(info.isDir());
                EXPECT_TRUE(QDir(info.filePath()).isEmpty());
            }
            std::vector<line_t> expected { { 6, "Try to remove and recreate directory: " + path } };
            if (recreate)
                expected.push_back({ 4, "Directory ready: " + path });
            EXPECT_EQ(lines_of(capture), expected);
        }
    }
}

TEST(ContextFileHandler, CleaningAFolderThatHoldsASymlinkRemovesOnlyTheLink)
{
    test_support::temp_tree_t tree;
    tree.write("outside/keep.txt", "keep");
    tree.write("TMP_work/own.txt", "own");
    ASSERT_TRUE(QFile::link(tree.path("outside"), tree.path("TMP_work/link_to_outside")));
    handler_t::clean_tmp_folder(tree.path("TMP_work"), true);
    EXPECT_EQ(tree.read("outside/keep.txt"), "keep");
    EXPECT_TRUE(
        QDir(tree.path("TMP_work"))
            .isEmpty(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot));
}

TEST(ContextFileHandler, CleaningALinkToAnEmptyFolderWithoutRecreateRemovesOnlyTheLink)
{
    test_support::temp_tree_t tree;
    tree.mkdir("outside/empty");
    ASSERT_TRUE(QFile::link(tree.path("outside/empty"), tree.path("TMP_link")));
    test_support::log_capture_t capture;
    handler_t::clean_tmp_folder(tree.path("TMP_link"), false);
    EXPECT_FALSE(QFileInfo(tree.path("TMP_link")).isSymLink());
    EXPECT_TRUE(QFileInfo(tree.path("outside/empty")).isDir());
    EXPECT_TRUE(capture.records().isEmpty());
}

// --- print -------------------------------------------------------------------------------------

TEST(ContextFileHandler, PrintLogsTheFourArraysInFixedOrderAtLevelTwo)
{
    test_support::log_capture_t capture;
    handler_t::print({
        { "renamed", QJsonArray { pair("r_old", "r_new") } },
        { "copied", QJsonArray { pair("c_src", "c_dst"), pair("c2", "c3") } },
        { "removed", QJsonArray { "gone" } },
        { "new", QJsonArray { "n1", "dir/n2" } },
    });
    EXPECT_EQ(lines_of(capture),
        (std::vector<line_t> {
            { 2, "----------------------" },
            { 2, "NEW FILEs" },
            { 2, " - n1" },
            { 2, " - dir/n2" },
            { 2, "----------------------" },
            { 2, "REMOVED FILEs" },
            { 2, " - gone" },
            { 2, "----------------------" },
            { 2, "COPIED FILEs" },
            { 2, " - from: c_src to: c_dst" },
            { 2, " - from: c2 to: c3" },
            { 2, "----------------------" },
            { 2, "RENAMED FILEs" },
            { 2, " - from: r_old to: r_new" },
        }));
}

TEST(ContextFileHandler, PrintSkipsEmptyArrays)
{
    test_support::log_capture_t capture;
    handler_t::print(QJsonObject {});
    handler_t::print({ { "new", QJsonArray {} }, { "removed", QJsonArray {} } });
    handler_t::print_file_copy(QJsonArray {});
    EXPECT_TRUE(capture.records().isEmpty());

    handler_t::print({ { "removed", QJsonArray { "x" } } });
    EXPECT_EQ(lines_of(capture),
        (std::vector<line_t> {
            { 2, "----------------------" }, { 2, "REMOVED FILEs" }, { 2, " - x" } }));
}

TEST(ContextFileHandler, PrintOfAPairUsesItsFirstNameOnly)
{
    test_support::log_capture_t capture;
    handler_t::print_file_rename(QJsonArray { QJsonObject { { "b", "2" }, { "a", "1" } } });
    EXPECT_EQ(lines_of(capture),
        (std::vector<line_t> {
            { 2, "----------------------" }, { 2, "RENAMED FILEs" }, { 2, " - from: a to: 1" } }));
}
