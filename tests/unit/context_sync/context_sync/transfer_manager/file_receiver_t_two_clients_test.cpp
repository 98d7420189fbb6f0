// Two clients uploading the same path at once, through the receiver's public slot with two client
// ids and real files in a temporary context root. A reception belongs to the client that began it:
// the other client's chunks are refused with a refusal acknowledgement while the owner is alive,
// and take the path over once the owner has been silent for the 5000 ms chunk timeout (the one
// test that waits for it).
#include "context_sync/context_sync/transfer_manager/file_receiver_t.h"

#include "common/log_capture_t.h"
#include "common/temp_tree_t.h"
#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"
#include "transfer_test_util.h"

#include <QJsonObject>

#include <gtest/gtest.h>

#include <memory>

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

QString refused_line(int index, const QString& file, const QString& sender, const QString& owner)
{
    return QStringLiteral("Refused chunk %1 of file %2 from client %3: the file is being received "
                          "from client %4")
        .arg(QString::number(index), file, sender, owner);
}

void expect_refusal_ack(const ack_record_t& a, const QString& file, int index)
{
    EXPECT_EQ(a.file, file);
    EXPECT_EQ(a.index, index);
    const QJsonObject expected { { "file", file }, { "chunkIndex", -1 },
        { "error", "refused: the file is being received from another client" } };
    EXPECT_EQ(a.ack, expected);
}

} // namespace

TEST(FileReceiverTwoClients, RefusalAcknowledgementMatchesNoChunk)
{
    const QJsonObject ack
        = file_receiver_t::refusal_ack("a/b.bin", file_receiver_t::ERROR_FILE_BUSY);
    const chunk_codec_t::ack_t read = chunk_codec_t::read_ack(ack);
    EXPECT_EQ(read.file, "a/b.bin");
    EXPECT_EQ(read.chunk_index, -1);
    EXPECT_EQ(
        ack.value("error").toString(), "refused: the file is being received from another client");
}

TEST(FileReceiverTwoClients, InterleavedUploadsOfOnePathNeverMixAndTheFirstCompletesByteExact)
{
    log_capture_t logs;
    harness_t h;
    const QByteArray alice = temp_tree_t::random_bytes(1200000, 1); // 3 chunks
    const QByteArray bob = temp_tree_t::random_bytes(1100000, 2); // 3 chunks as well

    for (int i = 0; i < 3; ++i) {
        h.feed("alice", "background/wall.bin", alice, i);
        h.feed("bob", "background/wall.bin", bob, i);
    }

    // Every chunk of alice acknowledged as itself, the file written once, byte for byte hers.
    const QList<ack_record_t> to_alice = h.acks_to("alice");
    ASSERT_EQ(to_alice.size(), 3);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(to_alice.at(i).ack, chunk_codec_t::build_ack("background/wall.bin", i));
    ASSERT_EQ(h.received, QStringList { h.tree.path("background/wall.bin") });
    EXPECT_EQ(h.tree.read("background/wall.bin"), alice);

    // Bob's first two chunks came while alice's reception was alive: refused, each logged at
    // level 3 and answered with a refusal. His third came after alice's file was in place, so it
    // began a reception of his own that holds 1 of 3 chunks and writes nothing.
    const QList<ack_record_t> to_bob = h.acks_to("bob");
    ASSERT_EQ(to_bob.size(), 3);
    expect_refusal_ack(to_bob.at(0), "background/wall.bin", 0);
    expect_refusal_ack(to_bob.at(1), "background/wall.bin", 1);
    EXPECT_EQ(to_bob.at(2).ack, chunk_codec_t::build_ack("background/wall.bin", 2));
    EXPECT_TRUE(logs.contains(refused_line(0, "background/wall.bin", "bob", "alice"), 3));
    EXPECT_TRUE(logs.contains(refused_line(1, "background/wall.bin", "bob", "alice"), 3));
    EXPECT_EQ(logs.count(refused_line(2, "background/wall.bin", "bob", "alice")), 0);
    EXPECT_EQ(h.receiver.filesInReception(), 1);
    EXPECT_EQ(h.tree.read("background/wall.bin"), alice);
}

TEST(FileReceiverTwoClients, AnotherClientsLastChunkCannotFinaliseTheOwnersFile)
{
    log_capture_t logs;
    harness_t h;
    const QByteArray alice = temp_tree_t::random_bytes(1200000, 3);
    const QByteArray bob = temp_tree_t::random_bytes(1200000, 4);

    h.feed("alice", "f.bin", alice, 0);
    h.feed("alice", "f.bin", alice, 1);
    // The one index alice still lacks: stored, it would complete her file with bob's bytes.
    h.feed("bob", "f.bin", bob, 2);
    EXPECT_TRUE(logs.contains(refused_line(2, "f.bin", "bob", "alice"), 3));
    EXPECT_TRUE(h.received.isEmpty());
    EXPECT_FALSE(h.tree.exists("f.bin"));

    h.feed("alice", "f.bin", alice, 2);
    ASSERT_EQ(h.received.size(), 1);
    EXPECT_EQ(h.tree.read("f.bin"), alice);
    EXPECT_EQ(h.receiver.filesInReception(), 0);
}

TEST(FileReceiverTwoClients, AnotherClientsBadChunkDoesNotDiscardTheOwnersReception)
{
    log_capture_t logs;
    harness_t h;
    const QByteArray alice = temp_tree_t::random_bytes(1000000, 5); // 2 chunks

    h.feed("alice", "f.bin", alice, 0);
    QJsonObject bad = make_chunk("f.bin", 1, 2, "bob's bytes");
    bad.insert("hash", QString(32, QLatin1Char('0')));
    h.receiver.processChunk(bad, "bob");

    EXPECT_TRUE(logs.contains(refused_line(1, "f.bin", "bob", "alice"), 3));
    EXPECT_FALSE(logs.contains_fragment("Integrity error!"));
    ASSERT_EQ(h.acks_to("bob").size(), 1);
    expect_refusal_ack(h.acks_to("bob").at(0), "f.bin", 1);

    h.feed("alice", "f.bin", alice, 1);
    ASSERT_EQ(h.received.size(), 1);
    EXPECT_EQ(h.tree.read("f.bin"), alice);
}

TEST(FileReceiverTwoClients, AnotherClientsChunkCountDoesNotRestartTheOwnersReception)
{
    log_capture_t logs;
    harness_t h;
    const QByteArray alice = temp_tree_t::random_bytes(1000000, 6); // 2 chunks
    const QByteArray bob = temp_tree_t::random_bytes(2100000, 7); // 5 chunks

    h.feed("alice", "f.bin", alice, 0);
    h.feed("bob", "f.bin", bob, 0);
    EXPECT_TRUE(logs.contains(refused_line(0, "f.bin", "bob", "alice"), 3));
    EXPECT_FALSE(logs.contains_fragment("Discarded stale reception"));

    h.feed("alice", "f.bin", alice, 1);
    ASSERT_EQ(h.received.size(), 1);
    EXPECT_EQ(h.tree.read("f.bin"), alice);
}

TEST(FileReceiverTwoClients, OtherPathsOfBothClientsAreReceivedSideBySide)
{
    log_capture_t logs;
    harness_t h;
    const QByteArray alice = temp_tree_t::random_bytes(1000000, 8);
    const QByteArray bob = temp_tree_t::random_bytes(1000000, 9);

    for (int i = 0; i < 2; ++i) {
        h.feed("alice", "a.bin", alice, i);
        h.feed("bob", "b.bin", bob, i);
    }
    EXPECT_EQ(h.tree.read("a.bin"), alice);
    EXPECT_EQ(h.tree.read("b.bin"), bob);
    EXPECT_FALSE(logs.contains_fragment("Refused chunk"));
    EXPECT_EQ(h.acks_to("alice").size(), 2);
    EXPECT_EQ(h.acks_to("bob").size(), 2);
}

TEST(FileReceiverTwoClients, SilentOwnerLosesThePathToAnotherClientAfterTheChunkTimeout)
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
    EXPECT_EQ(h.acks_to("bob").at(0).ack, chunk_codec_t::build_ack("f.bin", 0));

    // Alice comes back: now it is her chunk that is refused, and bob's upload completes whole.
    h.feed("alice", "f.bin", alice, 2);
    EXPECT_TRUE(logs.contains(refused_line(2, "f.bin", "alice", "bob"), 3));
    expect_refusal_ack(h.acks_to("alice").last(), "f.bin", 2);
    h.feed("bob", "f.bin", bob, 1);
    ASSERT_EQ(h.received.size(), 1);
    EXPECT_EQ(h.tree.read("f.bin"), bob);
    EXPECT_EQ(h.receiver.filesInReception(), 0);
}
