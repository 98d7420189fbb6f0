#include "context_sync_client/context_requests_t.h"

#include "client_test_env_t.h"

#include "common/temp_tree_t.h"

#include <QCryptographicHash>
#include <QFile>

#include <gtest/gtest.h>

using context_sync_client::context_requests_t;
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

// A running server whose tree holds the two images named, under background/.
struct server_fixture_t {
    client_test::client_test_env_t env;
    std::unique_ptr<context_sync_client::client_connection_t> client;
    file_map_t tree;

    bool start(const QStringList& names)
    {
        if (!env.start())
            return false;
        for (const QString& name : names) {
            const QByteArray bytes = image(name);
            if (!env.root().write(QStringLiteral("background/") + name, bytes))
                return false;
            tree.insert(QStringLiteral("background/") + name, md5(bytes));
        }
        if (!env.wait_for_server_tree(tree, 15000))
            return false;
        client = env.connect();
        return client != nullptr;
    }
};

} // namespace

TEST(context_requests_t, RemoveDeletesTheListedFilesAndReportsTheOnesThatAreNotThere)
{
    server_fixture_t fixture;
    ASSERT_TRUE(
        fixture.start({ QStringLiteral("bg_640x284.png"), QStringLiteral("bg_640x284_exif.jpg") }));
    context_requests_t requests(*fixture.client);
    const context_requests_t::result_t result
        = requests.remove({ QStringLiteral("background/bg_640x284.png"),
                              QStringLiteral("background/none.png"), QStringLiteral("../x") },
            10000);
    ASSERT_EQ(result.entries.size(), 3);
    EXPECT_EQ(result.entries[0].path, QStringLiteral("../x"));
    EXPECT_TRUE(result.entries[0].refused);
    EXPECT_EQ(
        result.entries[0].error, QStringLiteral("unsafe path \"../x\": contains a '..' segment"));
    EXPECT_EQ(result.entries[1].path, QStringLiteral("background/none.png"));
    EXPECT_TRUE(result.entries[1].refused);
    EXPECT_EQ(result.entries[1].error, QStringLiteral("no such file on the server"));
    EXPECT_EQ(result.entries[2].path, QStringLiteral("background/bg_640x284.png"));
    EXPECT_TRUE(result.entries[2].ok);
    EXPECT_FALSE(result.ok());
    EXPECT_TRUE(result.any_refused());
    const file_map_t left { { QStringLiteral("background/bg_640x284_exif.jpg"),
        fixture.tree.value(QStringLiteral("background/bg_640x284_exif.jpg")) } };
    EXPECT_EQ(result.server, left);
    EXPECT_FALSE(fixture.env.root().exists(QStringLiteral("background/bg_640x284.png")));
}

TEST(context_requests_t, RenameMovesTheFileOnTheServer)
{
    server_fixture_t fixture;
    ASSERT_TRUE(fixture.start({ QStringLiteral("bg_640x284.png") }));
    context_requests_t requests(*fixture.client);
    const context_requests_t::result_t result = requests.rename(
        QStringLiteral("background/bg_640x284.png"), QStringLiteral("background/name.png"), 10000);
    ASSERT_TRUE(result.ok()) << result.entries.value(0).error.toStdString();
    EXPECT_EQ(result.server,
        (file_map_t { { QStringLiteral("background/name.png"),
            fixture.tree.value(QStringLiteral("background/bg_640x284.png")) } }));
    EXPECT_EQ(
        fixture.env.root().read(QStringLiteral("background/name.png")), image("bg_640x284.png"));
}

TEST(context_requests_t, RenameChecksBothNamesAgainstTheServersList)
{
    server_fixture_t fixture;
    ASSERT_TRUE(
        fixture.start({ QStringLiteral("bg_640x284.png"), QStringLiteral("bg_640x284_exif.jpg") }));
    context_requests_t requests(*fixture.client);
    context_requests_t::result_t result = requests.rename(
        QStringLiteral("background/none.png"), QStringLiteral("background/x.png"), 10000);
    ASSERT_EQ(result.entries.size(), 1);
    EXPECT_EQ(
        result.entries[0].error, QStringLiteral("no such file on the server: background/none.png"));
    result = requests.rename(QStringLiteral("background/bg_640x284.png"),
        QStringLiteral("background/bg_640x284_exif.jpg"), 10000);
    ASSERT_EQ(result.entries.size(), 1);
    EXPECT_EQ(result.entries[0].error,
        QStringLiteral("background/bg_640x284_exif.jpg exists on the server already"));
    EXPECT_TRUE(result.any_refused());
    result = requests.rename(
        QStringLiteral("background/bg_640x284.png"), QStringLiteral("a/../b"), 10000);
    ASSERT_EQ(result.entries.size(), 1);
    EXPECT_EQ(
        result.entries[0].error, QStringLiteral("unsafe path \"a/../b\": contains a '..' segment"));
    EXPECT_EQ(fixture.env.server_tree(), fixture.tree);
}

TEST(context_requests_t, ARenameOutOfTheBackgroundFolderIsReportedAsRemovedByTheServer)
{
    server_fixture_t fixture;
    ASSERT_TRUE(fixture.start({ QStringLiteral("bg_640x284.png") }));
    context_requests_t requests(*fixture.client);
    const context_requests_t::result_t result = requests.rename(
        QStringLiteral("background/bg_640x284.png"), QStringLiteral("top.png"), 10000);
    ASSERT_EQ(result.entries.size(), 1);
    EXPECT_TRUE(result.entries[0].refused);
    EXPECT_EQ(result.entries[0].error,
        QStringLiteral("the server removed top.png after the rename (it keeps files only directly "
                       "under \"background/\")"));
    EXPECT_TRUE(result.server.isEmpty());
}

TEST(context_requests_t, ReplaceMakesTheServersTreeEqualToTheFolder)
{
    server_fixture_t fixture;
    ASSERT_TRUE(
        fixture.start({ QStringLiteral("bg_640x284.png"), QStringLiteral("bg_640x284_exif.jpg") }));
    test_support::temp_tree_t local;
    // One file renamed on the server's side, one new, one gone; and a file the server would not
    // keep, which is left out and reported.
    ASSERT_TRUE(local.write(QStringLiteral("background/renamed.png"), image("bg_640x284.png")));
    ASSERT_TRUE(
        local.write(QStringLiteral("background/new.jpg"), image("bg_640x284_progressive.jpg")));
    ASSERT_TRUE(local.write(QStringLiteral("notes.txt"), "notes"));
    context_requests_t requests(*fixture.client);
    const context_requests_t::result_t result = requests.replace(local.root(), 10000);
    EXPECT_TRUE(result.in_step) << result.error.toStdString();
    const file_map_t expected { { QStringLiteral("background/renamed.png"),
                                    md5(image("bg_640x284.png")) },
        { QStringLiteral("background/new.jpg"), md5(image("bg_640x284_progressive.jpg")) } };
    EXPECT_EQ(result.server, expected);
    EXPECT_EQ(fixture.env.server_tree(), expected);
    QStringList actions;
    for (const context_requests_t::entry_t& entry : result.entries)
        actions.append(QStringLiteral("%1 %2 %3")
                           .arg(entry.action, entry.path, entry.ok ? "ok" : entry.error));
    EXPECT_EQ(actions,
        (QStringList {
            QStringLiteral("skip notes.txt left out: the server keeps files only directly "
                           "under \"background/\""),
            QStringLiteral("upload background/new.jpg ok") }));
    EXPECT_TRUE(result.any_refused());
}

TEST(context_requests_t, ReplaceOfAMissingFolderSendsNothing)
{
    server_fixture_t fixture;
    ASSERT_TRUE(fixture.start({ QStringLiteral("bg_640x284.png") }));
    context_requests_t requests(*fixture.client);
    const context_requests_t::result_t result
        = requests.replace(QStringLiteral("/nonexistent/ctxsync"), 10000);
    EXPECT_EQ(result.error, QStringLiteral("no such folder: /nonexistent/ctxsync"));
    EXPECT_EQ(fixture.env.server_tree(), fixture.tree);
}
