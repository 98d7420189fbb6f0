#include "context_sync_client/context_follower_t.h"

#include "client_test_env_t.h"

#include "common/temp_tree_t.h"

#include <QCryptographicHash>
#include <QFile>
#include <QJsonObject>

#include <gtest/gtest.h>

using context_sync_client::context_follower_t;
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

TEST(context_follower_t, InStepIgnoresLocalExtrasUnlessTheyAreToBeRemoved)
{
    const file_map_t server { { QStringLiteral("a"), md5("a") },
        { QStringLiteral("b"), md5("b") } };
    file_map_t local = server;
    EXPECT_TRUE(context_follower_t::in_step(local, server, false));
    EXPECT_TRUE(context_follower_t::in_step(local, server, true));
    local.insert(QStringLiteral("extra"), md5("x"));
    EXPECT_TRUE(context_follower_t::in_step(local, server, false));
    EXPECT_FALSE(context_follower_t::in_step(local, server, true));
    local.insert(QStringLiteral("b"), md5("changed"));
    EXPECT_FALSE(context_follower_t::in_step(local, server, false));
    local.remove(QStringLiteral("b"));
    EXPECT_FALSE(context_follower_t::in_step(local, server, false));
}

TEST(context_follower_t, ContentHeldUnderAnotherNameIsCopiedNotDownloaded)
{
    client_test::client_test_env_t env;
    ASSERT_TRUE(env.start());
    const QByteArray png = image(QStringLiteral("bg_640x284.png"));
    const QByteArray jpg = image(QStringLiteral("bg_640x284_baseline.jpg"));
    ASSERT_TRUE(env.root().write(QStringLiteral("background/renamed.png"), png));
    ASSERT_TRUE(env.root().write(QStringLiteral("background/new.jpg"), jpg));
    const file_map_t served { { QStringLiteral("background/new.jpg"), md5(jpg) },
        { QStringLiteral("background/renamed.png"), md5(png) } };
    ASSERT_TRUE(env.wait_for_server_tree(served, 20000));

    test_support::temp_tree_t folder;
    ASSERT_TRUE(folder.write(QStringLiteral("background/old.png"), png));
    auto connection = env.connect();
    ASSERT_TRUE(connection);
    context_follower_t::options_t options;
    options.remove_extras = true;
    bool in_step = false;
    options.stop = [&in_step] { return in_step; };
    context_follower_t follower(*connection, folder.root(), options);
    QList<QJsonObject> events;
    QObject::connect(
        &follower, &context_follower_t::event, &follower, [&](const QJsonObject& event) {
            events.append(event);
            in_step = in_step || event.value(QStringLiteral("event")) == QLatin1String("in_step");
        });
    follower.run();

    EXPECT_EQ(context_tree_t::scan_local(folder.root()), served);
    QStringList names;
    for (const QJsonObject& event : std::as_const(events))
        names.append(event.value(QStringLiteral("event")).toString());
    EXPECT_EQ(names,
        (QStringList { QStringLiteral("started"), QStringLiteral("pulled"),
            QStringLiteral("pulled"), QStringLiteral("deleted"), QStringLiteral("in_step"),
            QStringLiteral("stopped") }));
    ASSERT_EQ(events.size(), 6);
    // The PNG was held as old.png: copied from there. The JPEG came from the server.
    EXPECT_EQ(events[1].value(QStringLiteral("path")).toString(),
        QStringLiteral("background/renamed.png"));
    EXPECT_EQ(
        events[1].value(QStringLiteral("from")).toString(), QStringLiteral("background/old.png"));
    EXPECT_EQ(
        events[2].value(QStringLiteral("path")).toString(), QStringLiteral("background/new.jpg"));
    EXPECT_FALSE(events[2].contains(QStringLiteral("from")));
    EXPECT_EQ(events[2].value(QStringLiteral("bytes")).toInteger(), jpg.size());
    EXPECT_EQ(events[2].value(QStringLiteral("tries")).toInt(), 1);
    EXPECT_EQ(
        events[3].value(QStringLiteral("path")).toString(), QStringLiteral("background/old.png"));
    EXPECT_EQ(events[4].value(QStringLiteral("context_hash")).toString(),
        context_tree_t::cumulative_hash(served));
    EXPECT_EQ(events[4].value(QStringLiteral("files")).toInt(), 2);
}
