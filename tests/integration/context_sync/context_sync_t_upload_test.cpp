// Uploads into the sync service: chunks relayed to the receiver, acknowledgements relayed back,
// the finished file taken in by the watcher and broadcast, and what may not stay deleted by the
// scan without ever being listed. Chunks that name a path outside the root are refused.

#include "service_harness.h"

#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"

#include "common/log_capture_t.h"

#include <QDir>
#include <QJsonArray>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using context_sync_engine::chunk_codec_t;
using service_test::host_t;
using service_test::settle;
using service_test::wait_until;

namespace {

struct fixture_t {
    host_t host;
    std::unique_ptr<service_test::client_t> up;
    std::unique_ptr<service_test::client_t> watcher;

    bool set_up()
    {
        if (!host.tree().write(
                QStringLiteral("background/old.png"), service_test::background_image(3000, 1)))
            return false;
        if (!host.create())
            return false;
        up = host.client(QStringLiteral("up"), false);
        watcher = host.client(QStringLiteral("watcher"), false);
        if (!up || !watcher)
            return false;
        host.start(true);
        if (!up->wait_for(QStringLiteral("ctx_list"))
            || !watcher->wait_for(QStringLiteral("ctx_list")))
            return false;
        settle(200);
        up->clear();
        watcher->clear();
        return true;
    }
};

bool listed_anywhere(const service_test::client_t& client, const QString& file)
{
    for (const auto& list : client.of_type(QStringLiteral("ctx_list"))) {
        if (list.payload.contains(file))
            return true;
    }
    return false;
}

} // namespace

TEST(ContextSyncUpload, AValidBackgroundImageIsTakenInAndEveryClientGetsTheNewList)
{
    test_support::log_capture_t log;
    fixture_t f;
    ASSERT_TRUE(f.set_up());
    const QByteArray image = service_test::background_image(600000, 42);
    const QString hash = service_test::md5_hex(image);

    ASSERT_TRUE(f.up->upload(QStringLiteral("background/new.png"), image));
    const auto acks = f.up->of_type(QStringLiteral("ctx_chunk_ack"));
    ASSERT_EQ(acks.size(), 2);
    for (int i = 0; i < 2; ++i) {
        EXPECT_FALSE(acks.at(i).broadcast);
        EXPECT_EQ(acks.at(i).subtype, QString());
        EXPECT_EQ(
            acks.at(i).payload, chunk_codec_t::build_ack(QStringLiteral("background/new.png"), i));
    }
    EXPECT_TRUE(f.watcher->of_type(QStringLiteral("ctx_chunk_ack")).isEmpty());

    // Every client receives the list that carries the new file with its hash.
    for (auto* client : { f.up.get(), f.watcher.get() }) {
        ASSERT_TRUE(wait_until([&] {
            for (const auto& list : client->of_type(QStringLiteral("ctx_list"))) {
                if (list.broadcast && list.payload.value("background/new.png").toString() == hash)
                    return true;
            }
            return false;
        })) << client->id().toStdString();
    }
    EXPECT_EQ(f.host.tree().read(QStringLiteral("background/new.png")), image);

    EXPECT_TRUE(log.contains(QStringLiteral("Send ACK file background/new.png [0] {0}"), 6));
    EXPECT_TRUE(log.contains(QStringLiteral("Send ACK file background/new.png [1] {1}"), 6));
    EXPECT_TRUE(log.contains(QStringLiteral("File receive with name %1 completed")
                                 .arg(f.host.tree().path(QStringLiteral("background/new.png"))),
        4));
    EXPECT_TRUE(log.contains(QStringLiteral("Starting context file receive ... "), 2));
    EXPECT_TRUE(log.contains(QStringLiteral("End of context file received ... "), 2));
}

TEST(ContextSyncUpload, UploadsThatMayNotStayAreDeletedAndNeverListed)
{
    test_support::log_capture_t log;
    fixture_t f;
    ASSERT_TRUE(f.set_up());

    // A JPEG of the wrong size in background/, and a file in the root.
    ASSERT_TRUE(f.up->upload(
        QStringLiteral("background/tall.jpg"), service_test::fixture("bg_284x640.jpg"), 1));
    ASSERT_TRUE(f.up->upload(QStringLiteral("notes.txt"), QByteArray("not a background"), 0));
    ASSERT_TRUE(wait_until([&] {
        return !f.host.tree().exists(QStringLiteral("background/tall.jpg"))
            && !f.host.tree().exists(QStringLiteral("notes.txt"));
    }));
    // A valid image afterwards: its list proves the watcher has been through the tree since.
    const QByteArray image = service_test::background_image(4000, 9);
    ASSERT_TRUE(f.up->upload(QStringLiteral("background/valid.png"), image));
    ASSERT_TRUE(wait_until([&] { return listed_anywhere(*f.watcher, "background/valid.png"); }));
    settle(1200);

    for (auto* client : { f.up.get(), f.watcher.get() }) {
        EXPECT_FALSE(listed_anywhere(*client, "background/tall.jpg"));
        EXPECT_FALSE(listed_anywhere(*client, "notes.txt"));
    }
    EXPECT_EQ(
        f.host.tree().files(), (QStringList { "background/old.png", "background/valid.png" }));
    EXPECT_EQ(f.host.files_object().value("background/valid.png").toString(),
        service_test::md5_hex(image));
}

TEST(ContextSyncUpload, ChunksNamingAPathOutsideTheRootAreRefused)
{
    test_support::log_capture_t log;
    fixture_t f;
    ASSERT_TRUE(f.set_up());
    QTemporaryDir outside;
    ASSERT_TRUE(outside.isValid());
    const QString escape
        = QStringLiteral("../%1/planted.png").arg(QFileInfo(outside.path()).fileName());
    const QString absolute = outside.path() + QStringLiteral("/absolute.png");

    for (const QString& name : { escape, absolute }) {
        chunk_codec_t::header_t header;
        header.file = name;
        header.total_chunks = 1;
        f.up->send_message(QStringLiteral("ctx_chunk"),
            chunk_codec_t::build_chunk(header, service_test::background_image(3000, 3), 6));
    }
    ASSERT_TRUE(log.wait_for(
        QStringLiteral("[context_sync] Incoming request ctx_chunk from client up"), 6));
    ASSERT_TRUE(wait_until([&] {
        return log.count(
                   QStringLiteral("[context_sync] Incoming request ctx_chunk from client up"), 6)
            == 2;
    }));
    settle(500);

    EXPECT_TRUE(log.contains_fragment(
        QStringLiteral("Refused chunk from client up: file \"%1\"").arg(escape), 3));
    EXPECT_TRUE(log.contains_fragment(
        QStringLiteral("Refused chunk from client up: file \"%1\"").arg(absolute), 3));
    EXPECT_TRUE(f.up->of_type(QStringLiteral("ctx_chunk_ack")).isEmpty());
    EXPECT_TRUE(QDir(outside.path()).entryList(QDir::Files | QDir::Hidden).isEmpty());
    EXPECT_EQ(f.host.tree().files(), QStringList { "background/old.png" });
}
