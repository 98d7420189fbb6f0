// Two clients uploading the same path at once, through the receiver's public slot with two client
// ids and real files in a temporary context root. Each client's upload has a reception of its own:
// the chunks never mix, each completed file reaches the tree whole, and the one completed last
// stays. One test waits for the 5000 ms chunk timeout.
#include "context_sync/context_sync/transfer_manager/file_receiver_t.h"

#include "common/log_capture_t.h"
#include "common/temp_tree_t.h"
#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"
#include "transfer_test_util.h"

#include <QJsonObject>

#include <gtest/gtest.h>

using context_sync_engine::chunk_codec_t;
using context_sync_engine::file_receiver_t;
using test_support::log_capture_t;
using test_support::temp_tree_t;
using transfer_test::make_chunk;
using transfer_test::piece;

namespace {

struct ack_record_t {
    QString file;
    int index;
    QJsonObject ack;
    QString sender;
};

struct harness_t {
    temp_tree_t tree;
    file_receiver_t receiver { tree.root(), "TMP_file_receive", "server" };
    QList<ack_record_t> acks;
    QStringList received;

    harness_t()
    {
        QObject::connect(&receiver, &file_receiver_t::sendChunkAck, &receiver,
            [this](const QString& file, int index, const QJsonObject& ack, const QString& sender) {
                acks.append({ file, index, ack, sender });
            });
        QObject::connect(&receiver, &file_receiver_t::file_received, &receiver,
            [this](const QString& path) { received.append(path); });
    }

    void feed(const QString& sender, const QString& file, const QByteArray& content, int index)
    {
        const int total = int(chunk_codec_t::chunk_count(content.size()));
        receiver.processChunk(make_chunk(file, index, total, piece(content, index)), sender);
    }

    QList<ack_record_t> acks_to(const QString& sender) const
    {
        QList<ack_record_t> out;
        for (const ack_record_t& a : acks)
            if (a.sender == sender)
                out.append(a);
        return out;
    }
};

} // namespace

TEST(FileReceiverTwoClients, InterleavedUploadsOfOnePathNeverMixAndEachArrivesWhole)
{
    log_capture_t logs;
    harness_t h;
    // The same chunk count: with one reception per path, bob's chunk 0 would have replaced
    // alice's and her file would have been written with it.
    const QByteArray alice = temp_tree_t::random_bytes(1200000, 1);
    const QByteArray bob = temp_tree_t::random_bytes(1100000, 2);
    ASSERT_EQ(chunk_codec_t::chunk_count(alice.size()), 3);
    ASSERT_EQ(chunk_codec_t::chunk_count(bob.size()), 3);

    h.feed("alice", "background/wall.bin", alice, 0);
    h.feed("bob", "background/wall.bin", bob, 0);
    h.feed("alice", "background/wall.bin", alice, 1);
    h.feed("bob", "background/wall.bin", bob, 1);
    EXPECT_EQ(h.receiver.filesInReception(), 2);
    h.feed("alice", "background/wall.bin", alice, 2);

    // Alice's upload completes first, byte for byte hers; bob's goes on untouched.
    ASSERT_EQ(h.received, QStringList { h.tree.path("background/wall.bin") });
    EXPECT_EQ(h.tree.read("background/wall.bin"), alice);
    EXPECT_EQ(h.receiver.filesInReception(), 1);

    // Bob's completes last and replaces it, byte for byte his.
    h.feed("bob", "background/wall.bin", bob, 2);
    ASSERT_EQ(h.received.size(), 2);
    EXPECT_EQ(h.tree.read("background/wall.bin"), bob);
    EXPECT_EQ(h.receiver.filesInReception(), 0);
    EXPECT_TRUE(h.tree.files().filter("TMP_file_receive/").isEmpty());

    // Every chunk acknowledged to the client that sent it, as the plain acknowledgement.
    for (const QString& client : { QStringLiteral("alice"), QStringLiteral("bob") }) {
        const QList<ack_record_t> acks = h.acks_to(client);
        ASSERT_EQ(acks.size(), 3) << client.toStdString();
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(acks.at(i).ack, chunk_codec_t::build_ack("background/wall.bin", i));
    }
    EXPECT_FALSE(logs.contains_fragment("Discarded"));
}

TEST(FileReceiverTwoClients, AnotherClientsLastChunkCannotCompleteTheFirstClientsFile)
{
    log_capture_t logs;
    harness_t h;
    const QByteArray alice = temp_tree_t::random_bytes(1200000, 3);
    const QByteArray bob = temp_tree_t::random_bytes(1200000, 4);

    h.feed("alice", "f.bin", alice, 0);
    h.feed("alice", "f.bin", alice, 1);
    // The one index alice still lacks: in a shared reception it would complete her file with
    // bob's bytes. It is bob's first chunk instead.
    h.feed("bob", "f.bin", bob, 2);
    EXPECT_TRUE(h.received.isEmpty());
    EXPECT_FALSE(h.tree.exists("f.bin"));
    EXPECT_EQ(h.receiver.filesInReception(), 2);

    h.feed("alice", "f.bin", alice, 2);
    ASSERT_EQ(h.received.size(), 1);
    EXPECT_EQ(h.tree.read("f.bin"), alice);
    EXPECT_EQ(h.receiver.filesInReception(), 1);
}

TEST(FileReceiverTwoClients, AnotherClientsBadChunkDoesNotDiscardTheFirstClientsReception)
{
    log_capture_t logs;
    harness_t h;
    const QByteArray alice = temp_tree_t::random_bytes(1000000, 5); // 2 chunks

    h.feed("alice", "f.bin", alice, 0);
    QJsonObject bad = make_chunk("f.bin", 1, 2, "bob's bytes");
    bad.insert("hash", QString(32, QLatin1Char('0')));
    h.receiver.processChunk(bad, "bob");
    EXPECT_TRUE(logs.contains("Integrity error! Invalid chunk hash 1", 2));
    EXPECT_TRUE(h.acks_to("bob").isEmpty());
    EXPECT_EQ(h.receiver.filesInReception(), 1);

    h.feed("alice", "f.bin", alice, 1);
    ASSERT_EQ(h.received.size(), 1);
    EXPECT_EQ(h.tree.read("f.bin"), alice);
}

TEST(FileReceiverTwoClients, AnotherClientsChunkCountDoesNotRestartTheFirstClientsReception)
{
    log_capture_t logs;
    harness_t h;
    const QByteArray alice = temp_tree_t::random_bytes(1000000, 6); // 2 chunks
    const QByteArray bob = temp_tree_t::random_bytes(2100000, 7); // 5 chunks

    h.feed("alice", "f.bin", alice, 0);
    h.feed("bob", "f.bin", bob, 0);
    EXPECT_FALSE(logs.contains_fragment("Discarded stale reception"));
    EXPECT_EQ(h.receiver.filesInReception(), 2);

    h.feed("alice", "f.bin", alice, 1);
    ASSERT_EQ(h.received.size(), 1);
    EXPECT_EQ(h.tree.read("f.bin"), alice);
    for (int i = 1; i < 5; ++i)
        h.feed("bob", "f.bin", bob, i);
    ASSERT_EQ(h.received.size(), 2);
    EXPECT_EQ(h.tree.read("f.bin"), bob);
}

TEST(FileReceiverTwoClients, AClientStartingItsOwnFileAgainStillDiscardsOnlyItsOwnReception)
{
    log_capture_t logs;
    harness_t h;
    const QByteArray alice = temp_tree_t::random_bytes(1000000, 12); // 2 chunks
    const QByteArray bob_first = temp_tree_t::random_bytes(1500000, 13); // 3 chunks
    const QByteArray bob_again = temp_tree_t::random_bytes(600000, 14); // 2 chunks

    h.feed("alice", "f.bin", alice, 0);
    h.feed("bob", "f.bin", bob_first, 0);
    h.feed("bob", "f.bin", bob_again, 0);
    EXPECT_TRUE(logs.contains("Discarded stale reception of file f.bin (1 of 3 chunks held): "
                              "client bob announces 2 chunks",
        3));
    EXPECT_EQ(h.receiver.filesInReception(), 2);
    h.feed("bob", "f.bin", bob_again, 1);
    EXPECT_EQ(h.tree.read("f.bin"), bob_again);
    h.feed("alice", "f.bin", alice, 1);
    EXPECT_EQ(h.tree.read("f.bin"), alice);
}

TEST(FileReceiverTwoClients, ProgressOfAPathCoversEveryClientsReception)
{
    log_capture_t logs;
    harness_t h;
    h.feed("alice", "f.bin", temp_tree_t::random_bytes(1200000, 15), 0);
    h.feed("bob", "f.bin", temp_tree_t::random_bytes(1200000, 16), 0);
    logs.clear();
    h.receiver.printProgress("f.bin");
    int lines = 0;
    for (const QString& line : logs.messages(6))
        lines
            += line.startsWith("Receive file f.bin: chunk: 1/3 percent: 33%[33%] speed: ") ? 1 : 0;
    EXPECT_EQ(lines, 2);
    h.receiver.printProgress("g.bin");
    EXPECT_TRUE(logs.contains("Unable to found progress of file g.bin", 2));
}

TEST(FileReceiverTwoClients, SilentUploadOfAnotherClientIsDroppedWhenTheFileIsBegunAgain)
{
    log_capture_t logs;
    harness_t h;
    const QByteArray alice = temp_tree_t::random_bytes(1200000, 10); // 3 chunks
    const QByteArray bob = temp_tree_t::random_bytes(1000000, 11); // 2 chunks

    h.feed("alice", "f.bin", alice, 0);
    h.feed("alice", "f.bin", alice, 1);
    // The chunk timer fires on this thread: keep its event loop turning while waiting.
    ASSERT_TRUE(transfer_test::wait_until(
        [&] {
            return logs.contains(
                "Chunk reception timeout! Transfer interrupted! For file f.bin", 2);
        },
        8000));

    h.feed("bob", "f.bin", bob, 0);
    EXPECT_TRUE(logs.contains("Discarded stalled reception of file f.bin from client alice (2 of 3 "
                              "chunks held): client bob uploads it anew",
        3));
    EXPECT_EQ(h.receiver.filesInReception(), 1);
    h.feed("bob", "f.bin", bob, 1);
    ASSERT_EQ(h.received.size(), 1);
    EXPECT_EQ(h.tree.read("f.bin"), bob);
    EXPECT_EQ(h.receiver.filesInReception(), 0);
}
