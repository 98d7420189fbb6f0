#include "context_sync_client/context_tree_t.h"

#include "client_test_env_t.h"

#include "context_sync/context_sync/watcher/context_monitor_t.h"

#include "common/temp_tree_t.h"

#include <QCryptographicHash>
#include <QFile>

#include <cstdio>

#include <gtest/gtest.h>

using context_sync_client::context_tree_t;
using context_sync_client::file_map_t;

namespace {

QString md5(const QByteArray& bytes)
{
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex());
}

QByteArray image(const QString& name)
{
    QFile file(QStringLiteral(CONTEXT_SYNC_TEST_DATA_DIR "/images/") + name);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

TEST(context_tree_t, CumulativeHashOfAnEmptyTreeIsTheHashOfTwoEmptyDigests)
{
    EXPECT_EQ(context_tree_t::EMPTY_FILE_HASH, md5({}));
    EXPECT_EQ(context_tree_t::cumulative_hash({}),
        md5("d41d8cd98f00b204e9800998ecf8427ed41d8cd98f00b204e9800998ecf8427e"));
}

TEST(context_tree_t, CumulativeHashJoinsPathsThenHashesInPathOrder)
{
    const file_map_t files { { QStringLiteral("b/2"), QStringLiteral("22") },
        { QStringLiteral("a/1"), QStringLiteral("11") } };
    EXPECT_EQ(context_tree_t::cumulative_hash(files), md5((md5("a/1b/2") + md5("1122")).toUtf8()));
}

TEST(context_tree_t, CumulativeHashEqualsTheServerMonitorsOnTheSameTree)
{
    test_support::temp_tree_t tree;
    ASSERT_TRUE(tree.write(QStringLiteral("background/a.png"), image("bg_640x284.png")));
    ASSERT_TRUE(tree.write(QStringLiteral("background/b.jpg"), image("bg_640x284_exif.jpg")));
    context_sync_engine::context_monitor_t monitor(QStringLiteral("CONTEXT"), tree.root());
    monitor.start_watcher();
    const file_map_t local = context_tree_t::scan_local(tree.root());
    EXPECT_EQ(local, monitor.getFileWithHashSync());
    EXPECT_EQ(context_tree_t::cumulative_hash(local), monitor.get_cumulative_hash());
    EXPECT_EQ(context_tree_t::to_json(local), monitor.get_files_json_object());
    monitor.stop_watcher();
}

TEST(context_tree_t, ScanLeavesOutWorkingFilesHiddenFilesAndLinks)
{
    test_support::temp_tree_t tree;
    test_support::temp_tree_t outside;
    ASSERT_TRUE(tree.write(QStringLiteral("background/a.png"), "a"));
    ASSERT_TRUE(tree.write(QStringLiteral(".hidden"), "h"));
    ASSERT_TRUE(tree.write(QStringLiteral("TMP_work/x"), "x"));
    ASSERT_TRUE(tree.write(QStringLiteral("background/tmp_part"), "p"));
    ASSERT_TRUE(outside.write(QStringLiteral("secret"), "s"));
    ASSERT_TRUE(
        QFile::link(outside.path(QStringLiteral("secret")), tree.path(QStringLiteral("link"))));
    ASSERT_TRUE(QFile::link(outside.root(), tree.path(QStringLiteral("linked_dir"))));

    const file_map_t files = context_tree_t::scan_local(tree.root());
    EXPECT_EQ(files.keys(), QStringList { QStringLiteral("background/a.png") });
    EXPECT_EQ(files.value(QStringLiteral("background/a.png")), md5("a"));
}

TEST(context_tree_t, ScanOfAMissingFolderIsEmpty)
{
    EXPECT_TRUE(context_tree_t::scan_local(QStringLiteral("/nonexistent/ctxsync")).isEmpty());
}

TEST(context_tree_t, ScanTakesTheRecordedHashOfAFileWhoseStampIsUnchanged)
{
    test_support::temp_tree_t tree;
    ASSERT_TRUE(tree.write(QStringLiteral("background/kept.png"), "kept"));
    ASSERT_TRUE(tree.write(QStringLiteral("background/other.png"), "other"));
    context_tree_t::known_file_t kept;
    ASSERT_TRUE(
        context_tree_t::stamp_of(tree.path(QStringLiteral("background/kept.png")), &kept.stamp));
    // A hash that the file's bytes do not have: finding it in the result shows the file was not
    // read.
    kept.hash = md5("recorded");
    const context_tree_t::known_files_t known { { QStringLiteral("background/kept.png"), kept } };

    const file_map_t files = context_tree_t::scan_local(tree.root(), known);
    EXPECT_EQ(files,
        (file_map_t { { QStringLiteral("background/kept.png"), md5("recorded") },
            { QStringLiteral("background/other.png"), md5("other") } }));
}

TEST(context_tree_t, ScanHashesAgainAFileRewrittenInPlaceSinceItsStamp)
{
    test_support::temp_tree_t tree;
    ASSERT_TRUE(tree.write(QStringLiteral("a.png"), "before"));
    context_tree_t::known_file_t known { md5("before"), {} };
    ASSERT_TRUE(context_tree_t::stamp_of(tree.path(QStringLiteral("a.png")), &known.stamp));
    QFile file(tree.path(QStringLiteral("a.png")));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    ASSERT_EQ(file.write("after, longer"), 13);
    file.close();

    const file_map_t files
        = context_tree_t::scan_local(tree.root(), { { QStringLiteral("a.png"), known } });
    EXPECT_EQ(files.value(QStringLiteral("a.png")), md5("after, longer"));
}

TEST(context_tree_t, ScanHashesAgainAFileReplacedSinceItsStamp)
{
    test_support::temp_tree_t tree;
    ASSERT_TRUE(tree.write(QStringLiteral("a.png"), "before"));
    context_tree_t::known_file_t known { md5("before"), {} };
    ASSERT_TRUE(context_tree_t::stamp_of(tree.path(QStringLiteral("a.png")), &known.stamp));
    // The same size, put in place by a rename as editors and sync tools do: only the inode
    // tells the versions apart when both writes fall into one tick of the file system's clock.
    ASSERT_TRUE(tree.write(QStringLiteral("new.png"), "BEFORE"));
    ASSERT_EQ(std::rename(QFile::encodeName(tree.path(QStringLiteral("new.png"))).constData(),
                  QFile::encodeName(tree.path(QStringLiteral("a.png"))).constData()),
        0);

    const file_map_t files
        = context_tree_t::scan_local(tree.root(), { { QStringLiteral("a.png"), known } });
    EXPECT_EQ(files, (file_map_t { { QStringLiteral("a.png"), md5("BEFORE") } }));
}

TEST(context_tree_t, ScanLeavesOutARecordedFileThatIsGone)
{
    test_support::temp_tree_t tree;
    ASSERT_TRUE(tree.write(QStringLiteral("a.png"), "a"));
    context_tree_t::known_file_t known { md5("a"), {} };
    ASSERT_TRUE(context_tree_t::stamp_of(tree.path(QStringLiteral("a.png")), &known.stamp));
    ASSERT_TRUE(tree.remove(QStringLiteral("a.png")));

    EXPECT_TRUE(
        context_tree_t::scan_local(tree.root(), { { QStringLiteral("a.png"), known } }).isEmpty());
}

TEST(context_tree_t, StampIsHadOnlyForARegularFileItself)
{
    test_support::temp_tree_t tree;
    ASSERT_TRUE(tree.write(QStringLiteral("dir/a.png"), "abc"));
    ASSERT_TRUE(
        QFile::link(tree.path(QStringLiteral("dir/a.png")), tree.path(QStringLiteral("link"))));
    context_tree_t::file_stamp_t stamp;
    ASSERT_TRUE(context_tree_t::stamp_of(tree.path(QStringLiteral("dir/a.png")), &stamp));
    EXPECT_EQ(stamp.size, 3);
    EXPECT_NE(stamp.inode, 0u);
    EXPECT_FALSE(context_tree_t::stamp_of(tree.path(QStringLiteral("link")), &stamp));
    EXPECT_FALSE(context_tree_t::stamp_of(tree.path(QStringLiteral("dir")), &stamp));
    EXPECT_FALSE(context_tree_t::stamp_of(tree.path(QStringLiteral("missing")), &stamp));
}

TEST(context_tree_t, IgnoredPathsHaveATmpComponentInAnyCase)
{
    EXPECT_TRUE(context_tree_t::is_ignored(QStringLiteral("TMP_file_receive/x")));
    EXPECT_TRUE(context_tree_t::is_ignored(QStringLiteral("a/tmp_b")));
    EXPECT_TRUE(context_tree_t::is_ignored(QStringLiteral("a/Tmp_b/c")));
    EXPECT_FALSE(context_tree_t::is_ignored(QStringLiteral("background/my_TMP_.png")));
}

TEST(context_tree_t, CompareSortsEveryDifference)
{
    const file_map_t local { { QStringLiteral("same"), QStringLiteral("1") },
        { QStringLiteral("changed"), QStringLiteral("2") },
        { QStringLiteral("local"), QStringLiteral("3") } };
    const file_map_t server { { QStringLiteral("same"), QStringLiteral("1") },
        { QStringLiteral("changed"), QStringLiteral("9") },
        { QStringLiteral("remote"), QStringLiteral("4") } };
    const context_tree_t::comparison_t diff = context_tree_t::compare(local, server);
    EXPECT_EQ(diff.missing_locally, QStringList { QStringLiteral("remote") });
    EXPECT_EQ(diff.changed, QStringList { QStringLiteral("changed") });
    EXPECT_EQ(diff.only_local, QStringList { QStringLiteral("local") });
    EXPECT_FALSE(diff.in_step());
    EXPECT_TRUE(context_tree_t::compare(server, server).in_step());
}

TEST(context_tree_t, JsonRoundTripKeepsEveryPair)
{
    const file_map_t files { { QStringLiteral("background/a.png"), md5("a") },
        { QStringLiteral("background/b.png"), md5("b") } };
    const QJsonObject json = context_tree_t::to_json(files);
    EXPECT_EQ(json.value(QStringLiteral("background/a.png")).toString(), md5("a"));
    EXPECT_EQ(context_tree_t::from_json(json), files);
}

TEST(context_tree_t, FetchListTimesOutWhenNoServerAnswers)
{
    test_support::mosquitto_broker_t broker;
    ASSERT_TRUE(broker.start());
    context_sync_client::client_connection_t::settings_t settings;
    settings.host = broker.host();
    settings.port = broker.port();
    context_sync_client::client_connection_t connection(settings);
    ASSERT_TRUE(connection.open(10000));
    context_tree_t tree(connection);
    file_map_t files;
    QString error;
    EXPECT_FALSE(tree.fetch_list(300, &files, &error));
    EXPECT_EQ(error, QStringLiteral("no file list from the server within 300 ms"));
    EXPECT_TRUE(files.isEmpty());
}

TEST(context_tree_t, FetchListReturnsTheServersFiles)
{
    client_test::client_test_env_t env;
    ASSERT_TRUE(env.start());
    const QByteArray png = image("bg_640x284.png");
    ASSERT_TRUE(env.root().write(QStringLiteral("background/a.png"), png));
    const file_map_t expected { { QStringLiteral("background/a.png"), md5(png) } };
    // The server's watcher needs its debounce before the file is listed.
    ASSERT_TRUE(env.wait_for_server_tree(expected, 15000));
    auto connection = env.connect();
    ASSERT_TRUE(connection);
    context_tree_t tree(*connection);
    file_map_t files;
    ASSERT_TRUE(tree.fetch_list(10000, &files));
    EXPECT_EQ(files, expected);
}
