// The sender driven on the test's own thread: chunks are collected from publish_chunk and
// acknowledged by the test, so every step of the exchange can be observed. Timeouts of 5000 ms
// are covered by their own executables.
#include "context_sync/context_sync/transfer_manager/file_sender_t.h"

#include "common/log_capture_t.h"
#include "common/temp_tree_t.h"
#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"
#include "transfer_test_util.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <memory>

using context_sync_engine::chunk_codec_t;
using context_sync_engine::file_sender_t;
using test_support::log_capture_t;
using test_support::temp_tree_t;
using transfer_test::wait_until;

namespace {

// A sender on the current thread with every signal recorded. With auto_ack the harness answers
// each chunk the way a well-behaved client does, on the next turn of the event loop.
struct harness_t {
    temp_tree_t tree;
    std::unique_ptr<file_sender_t> sender;
    QList<QJsonObject> chunks;
    QStringList sended;
    QList<double> overall;
    QList<QPair<QString, double>> progress;
    QList<bool> upload_changes;
    QStringList timeouts;
    bool auto_ack = false;

    harness_t()
    {
        sender = std::make_unique<file_sender_t>("c1", tree.root());
        file_sender_t* s = sender.get();
        QObject::connect(s, &file_sender_t::publish_chunk, s,
            [this](const QString& client, const QJsonObject& chunk) {
                EXPECT_EQ(client, "c1");
                chunks.append(chunk);
                if (auto_ack)
                    ack_later(chunk);
            });
        QObject::connect(
            s, &file_sender_t::file_sended, s, [this](const QString& client, const QString& name) {
                EXPECT_EQ(client, "c1");
                sended.append(name);
            });
        QObject::connect(s, &file_sender_t::overallProgressUpdated, s,
            [this](const QString&, double percent) { overall.append(percent); });
        QObject::connect(s, &file_sender_t::fileProgressUpdated, s,
            [this](const QString&, const QString& file, double percent) {
                progress.append({ file, percent });
            });
        QObject::connect(s, &file_sender_t::in_upload_change, s,
            [this](const QString&, bool value) { upload_changes.append(value); });
        QObject::connect(s, &file_sender_t::timeout_occurred, s,
            [this](const QString&, const QString& file) { timeouts.append(file); });
    }

    ~harness_t()
    {
        sender.reset();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }

    void ack_later(const QJsonObject& chunk)
    {
        const QJsonObject ack = chunk_codec_t::build_ack(
            chunk.value("file").toString(), chunk.value("chunk_index").toInt());
        QMetaObject::invokeMethod(
            sender.get(), [s = sender.get(), ack] { s->ackReceiver(ack); }, Qt::QueuedConnection);
    }

    void ack(int index, const QString& file)
    {
        sender->ackReceiver(chunk_codec_t::build_ack(file, index));
    }

    bool wait_chunks(int n)
    {
        return wait_until([&] { return chunks.size() >= n; });
    }
    bool wait_idle()
    {
        return wait_until([&] { return !upload_changes.isEmpty() && !upload_changes.last(); });
    }
};

QByteArray decoded_bytes(const QJsonObject& chunk)
{
    const chunk_codec_t::decoded_t decoded = chunk_codec_t::decode_chunk(chunk);
    EXPECT_TRUE(decoded.valid);
    return decoded.bytes;
}

} // namespace

TEST(FileSender, StartWithEmptyListLogsAndChangesNothing)
{
    log_capture_t logs;
    harness_t h;
    h.sender->start({});
    EXPECT_TRUE(logs.contains("Started file sender for client c1 ", 6));
    EXPECT_TRUE(logs.contains("The file list is empty", 4));
    EXPECT_FALSE(h.sender->inUpload());
    EXPECT_TRUE(h.upload_changes.isEmpty());
    EXPECT_FALSE(logs.contains("Nessun file in coda"));
    EXPECT_TRUE(h.chunks.isEmpty());
}

TEST(FileSender, ZeroByteFileFinishesWithoutAnyChunk)
{
    log_capture_t logs;
    harness_t h;
    ASSERT_TRUE(h.tree.write("empty.bin", QByteArray()));
    h.sender->start({ h.tree.path("empty.bin") });
    EXPECT_TRUE(h.sender->inUpload());
    ASSERT_TRUE(h.wait_idle());
    EXPECT_TRUE(h.chunks.isEmpty());
    EXPECT_EQ(h.sended, QStringList { h.tree.path("empty.bin") });
    // A batch of zero bytes reports no overall progress: batch_bytes is 0.
    EXPECT_TRUE(h.overall.isEmpty());
    EXPECT_EQ(h.upload_changes, (QList<bool> { true, false }));
    EXPECT_TRUE(logs.contains("Prepare the transfer for the file: " + h.tree.path("empty.bin"), 6));
    EXPECT_TRUE(logs.contains("Start sending file: empty.bin with total chunk: 0", 6));
    EXPECT_TRUE(logs.contains("Sending completed for the file: empty.bin", 4));
    EXPECT_TRUE(logs.contains("Nessun file in coda", 6));
}

TEST(FileSender, ZeroByteFileInABatchEmitsOverallProgressWithoutChunk)
{
    harness_t h;
    h.auto_ack = true;
    ASSERT_TRUE(h.tree.write("empty.bin", QByteArray()));
    ASSERT_TRUE(h.tree.write("one.bin", QByteArray("x")));
    h.sender->start({ h.tree.path("empty.bin"), h.tree.path("one.bin") });
    ASSERT_TRUE(h.wait_idle());
    EXPECT_EQ(h.sended, (QStringList { h.tree.path("empty.bin"), h.tree.path("one.bin") }));
    ASSERT_EQ(h.chunks.size(), 1);
    EXPECT_EQ(h.chunks[0].value("file").toString(), "one.bin");
    EXPECT_EQ(h.overall, (QList<double> { 0.0, 100.0 }));
}

TEST(FileSender, FileOfExactlyOneChunkSendsOneChunk)
{
    harness_t h;
    h.auto_ack = true;
    const QByteArray content = temp_tree_t::random_bytes(512000, 4);
    ASSERT_TRUE(h.tree.write("exact.bin", content));
    h.sender->start({ h.tree.path("exact.bin") });
    ASSERT_TRUE(h.wait_idle());
    ASSERT_EQ(h.chunks.size(), 1);
    EXPECT_EQ(h.chunks[0].value("total_chunks").toInt(), 1);
    EXPECT_EQ(h.chunks[0].value("chunk_index").toInt(), 0);
    EXPECT_EQ(decoded_bytes(h.chunks[0]), content);
}

TEST(FileSender, OneByteMoreThanAChunkSendsASecondChunkOfOneByte)
{
    harness_t h;
    h.auto_ack = true;
    const QByteArray content = temp_tree_t::text_bytes(512001);
    ASSERT_TRUE(h.tree.write("dir/long.txt", content));
    h.sender->start({ h.tree.path("dir/long.txt") });
    ASSERT_TRUE(h.wait_idle());
    ASSERT_EQ(h.chunks.size(), 2);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(h.chunks[i].value("file").toString(), "dir/long.txt");
        EXPECT_EQ(h.chunks[i].value("chunk_index").toInt(), i);
        EXPECT_EQ(h.chunks[i].value("total_chunks").toInt(), 2);
        EXPECT_EQ(h.chunks[i].value("compression").toInt(), 9);
    }
    EXPECT_EQ(decoded_bytes(h.chunks[0]), content.left(512000));
    EXPECT_EQ(decoded_bytes(h.chunks[1]), content.right(1));
    // Progress after each accepted ack: file position over file size, not rounded.
    ASSERT_EQ(h.progress.size(), 2);
    EXPECT_EQ(h.progress[0].first, "dir/long.txt");
    EXPECT_DOUBLE_EQ(h.progress[0].second, 512000.0 / 512001.0 * 100.0);
    EXPECT_DOUBLE_EQ(h.progress[1].second, 100.0);
    EXPECT_EQ(h.overall, (QList<double> { 100.0 }));
}

TEST(FileSender, ChunkCarriesRemainingFilesHashAndTimestamp)
{
    harness_t h;
    const double before = double(QDateTime::currentSecsSinceEpoch());
    ASSERT_TRUE(h.tree.write("a.txt", "alpha"));
    ASSERT_TRUE(h.tree.write("b.txt", "beta"));
    ASSERT_TRUE(h.tree.write("c.txt", "gamma"));
    h.sender->start({ h.tree.path("a.txt"), h.tree.path("b.txt"), h.tree.path("c.txt") });
    ASSERT_TRUE(h.wait_chunks(1));
    const QJsonObject chunk = h.chunks[0];
    EXPECT_EQ(chunk.value("remaining_files").toInt(), 2);
    EXPECT_EQ(chunk.value("hash").toString(), "2c1743a391305fbf367df8e4f069f9f9");
    EXPECT_EQ(chunk.value("percent").toInteger(), 0);
    const double speed = chunk.value("speed").toDouble();
    EXPECT_GE(speed, before);
    EXPECT_LE(speed, double(QDateTime::currentSecsSinceEpoch()));
    EXPECT_EQ(speed, double(qint64(speed))); // whole seconds
}

TEST(FileSender, PercentIsZeroInEveryChunkWhileOverallProgressIsTruncated)
{
    harness_t h;
    h.auto_ack = true;
    ASSERT_TRUE(h.tree.write("1.bin", QByteArray(1, 'a')));
    ASSERT_TRUE(h.tree.write("2.bin", QByteArray(2, 'b')));
    ASSERT_TRUE(h.tree.write("3.bin", QByteArray(3, 'c')));
    h.sender->start({ h.tree.path("1.bin"), h.tree.path("2.bin"), h.tree.path("3.bin") });
    ASSERT_TRUE(h.wait_idle());
    ASSERT_EQ(h.chunks.size(), 3);
    for (const QJsonObject& chunk : h.chunks)
        EXPECT_EQ(chunk.value("percent").toInteger(), 0);
    // 1/6 -> 16, 3/6 -> 50, 6/6 -> 100.
    EXPECT_EQ(h.overall, (QList<double> { 16.0, 50.0, 100.0 }));
}

TEST(FileSender, PathAlreadyQueuedIsAddedOnce)
{
    harness_t h;
    h.auto_ack = true;
    ASSERT_TRUE(h.tree.write("a.txt", "a"));
    ASSERT_TRUE(h.tree.write("b.txt", "b"));
    h.sender->start(
        { h.tree.path("a.txt"), h.tree.path("b.txt"), h.tree.path("b.txt"), h.tree.path("a.txt") });
    ASSERT_TRUE(h.wait_idle());
    EXPECT_EQ(h.sended, (QStringList { h.tree.path("a.txt"), h.tree.path("b.txt") }));
    EXPECT_EQ(h.chunks.size(), 2);
}

TEST(FileSender, PathBeingSentMayBeQueuedAgain)
{
    log_capture_t logs;
    harness_t h;
    ASSERT_TRUE(h.tree.write("a.txt", "a"));
    h.sender->start({ h.tree.path("a.txt") });
    ASSERT_TRUE(h.wait_chunks(1));
    h.sender->start({ h.tree.path("a.txt") });
    EXPECT_TRUE(logs.contains("File transfer in progress, add new files to queue", 4));
    h.auto_ack = true;
    h.ack(0, "a.txt");
    ASSERT_TRUE(h.wait_idle());
    EXPECT_EQ(h.sended, (QStringList { h.tree.path("a.txt"), h.tree.path("a.txt") }));
    ASSERT_EQ(h.chunks.size(), 2);
    EXPECT_EQ(h.chunks[0].value("remaining_files").toInt(), 0);
}

TEST(FileSender, StartWhileSendingAppendsWithoutRestartingTheCurrentFile)
{
    log_capture_t logs;
    harness_t h;
    const QByteArray big = temp_tree_t::text_bytes(1100000);
    ASSERT_TRUE(h.tree.write("big.txt", big));
    ASSERT_TRUE(h.tree.write("small.txt", "small"));
    h.sender->start({ h.tree.path("big.txt") });
    ASSERT_TRUE(h.wait_chunks(1));
    h.sender->start({ h.tree.path("small.txt") });
    EXPECT_TRUE(logs.contains("File transfer in progress, add new files to queue", 4));
    h.auto_ack = true;
    h.ack(0, "big.txt");
    ASSERT_TRUE(h.wait_idle());

    QStringList order;
    for (const QJsonObject& chunk : h.chunks)
        order << QStringLiteral("%1#%2").arg(
            chunk.value("file").toString(), QString::number(chunk.value("chunk_index").toInt()));
    EXPECT_EQ(order, (QStringList { "big.txt#0", "big.txt#1", "big.txt#2", "small.txt#0" }));
    // The appended file is counted from the chunk that followed the start().
    EXPECT_EQ(h.chunks[0].value("remaining_files").toInt(), 0);
    EXPECT_EQ(h.chunks[1].value("remaining_files").toInt(), 1);
    QByteArray joined;
    for (int i = 0; i < 3; ++i)
        joined += decoded_bytes(h.chunks[i]);
    EXPECT_EQ(joined, big);
    EXPECT_EQ(h.sended, (QStringList { h.tree.path("big.txt"), h.tree.path("small.txt") }));
}

TEST(FileSender, StartBetweenFilesDoesNotAbortTheNextFile)
{
    harness_t h;
    file_sender_t::INTERVAL_BETWEEN_FILES = 200;
    ASSERT_TRUE(h.tree.write("a.txt", "a"));
    ASSERT_TRUE(h.tree.write("b.txt", temp_tree_t::text_bytes(600000)));
    ASSERT_TRUE(h.tree.write("c.txt", "c"));
    h.sender->start({ h.tree.path("a.txt") });
    ASSERT_TRUE(h.wait_chunks(1));
    h.ack(0, "a.txt");
    ASSERT_TRUE(wait_until([&] { return h.sended.size() == 1; }));
    // The deferred step that takes the next file is pending; this start() takes b.txt itself.
    h.sender->start({ h.tree.path("b.txt"), h.tree.path("c.txt") });
    ASSERT_TRUE(h.wait_chunks(2));
    // Let the stale step fire while b.txt waits for its acknowledgement: it must not take c.txt.
    QElapsedTimer clock;
    clock.start();
    wait_until([&] { return clock.elapsed() > 400; });
    file_sender_t::INTERVAL_BETWEEN_FILES = 5;
    EXPECT_EQ(h.chunks.size(), 2);
    h.auto_ack = true;
    h.ack(0, "b.txt");
    ASSERT_TRUE(h.wait_idle());

    QStringList order;
    for (const QJsonObject& chunk : h.chunks)
        order << QStringLiteral("%1#%2").arg(
            chunk.value("file").toString(), QString::number(chunk.value("chunk_index").toInt()));
    EXPECT_EQ(order, (QStringList { "a.txt#0", "b.txt#0", "b.txt#1", "c.txt#0" }));
    EXPECT_EQ(h.sended.size(), 3);
    EXPECT_EQ(h.upload_changes, (QList<bool> { true, false }));
}

TEST(FileSender, NonexistentPathIsLoggedAndSkipped)
{
    log_capture_t logs;
    harness_t h;
    h.auto_ack = true;
    ASSERT_TRUE(h.tree.write("real.txt", "real"));
    const QString missing = h.tree.path("missing.txt");
    h.sender->start({ missing, h.tree.path("real.txt") });
    EXPECT_TRUE(logs.contains("Unable to add to queue: file " + missing + " not exist", 2));
    ASSERT_TRUE(h.wait_idle());
    EXPECT_EQ(h.sended, QStringList { h.tree.path("real.txt") });
}

TEST(FileSender, UnopenableFileIsSkippedAtOnce)
{
    log_capture_t logs;
    harness_t h;
    h.auto_ack = true;
    // Running as root, permissions do not stop a read; a directory cannot be opened as a file.
    ASSERT_TRUE(h.tree.mkdir("folder"));
    ASSERT_TRUE(h.tree.write("next.txt", "next"));
    h.sender->start({ h.tree.path("folder"), h.tree.path("next.txt") });
    EXPECT_TRUE(logs.contains("Unable open file: " + h.tree.path("folder") + ". Try next...", 6));
    ASSERT_TRUE(h.wait_idle());
    EXPECT_EQ(h.sended, QStringList { h.tree.path("next.txt") });
}

TEST(FileSender, PathsOutsideTheRootAreRefused)
{
    log_capture_t logs;
    harness_t h;
    temp_tree_t outside;
    ASSERT_TRUE(outside.write("secret.txt", "secret"));
    ASSERT_TRUE(h.tree.write("sub/x.txt", "x"));
    const QString climbing
        = h.tree.root() + "sub/../../" + QFileInfo(outside.path("secret.txt")).fileName();
    h.sender->start({ outside.path("secret.txt"), climbing, h.tree.root() + "./sub/x.txt" });
    EXPECT_TRUE(logs.contains("Refused to queue file " + outside.path("secret.txt")
            + " for client c1: its path it is not below the root",
        3));
    EXPECT_TRUE(logs.contains(
        "Refused to queue file " + climbing + " for client c1: its path contains a '..' segment",
        3));
    EXPECT_TRUE(logs.contains("Refused to queue file " + h.tree.root()
            + "./sub/x.txt for client c1: its path contains a '.' segment",
        3));
    EXPECT_TRUE(logs.contains("Nessun file in coda", 6));
    EXPECT_FALSE(h.sender->inUpload());
    EXPECT_TRUE(h.upload_changes.isEmpty());
    EXPECT_TRUE(h.chunks.isEmpty());
    EXPECT_TRUE(h.sended.isEmpty());
}

TEST(FileSender, SendingLineKeepsTheLiteralPlaceholder)
{
    log_capture_t logs;
    harness_t h;
    ASSERT_TRUE(h.tree.write("a.txt", "a"));
    h.sender->start({ h.tree.path("a.txt") });
    ASSERT_TRUE(h.wait_chunks(1));
    EXPECT_TRUE(logs.contains("Sending file a.txt for client: %8", 4));
    EXPECT_TRUE(logs.contains("Start sending file: a.txt with total chunk: 1", 6));
}

TEST(FileSender, UncompressedWhenLevelIsZero)
{
    harness_t h;
    h.auto_ack = true;
    file_sender_t::COMPRESSION_LEVEL = 0;
    const QByteArray content = temp_tree_t::random_bytes(700000, 11);
    ASSERT_TRUE(h.tree.write("raw.bin", content));
    h.sender->start({ h.tree.path("raw.bin") });
    const bool idle = h.wait_idle();
    file_sender_t::COMPRESSION_LEVEL = 9;
    ASSERT_TRUE(idle);
    ASSERT_EQ(h.chunks.size(), 2);
    EXPECT_EQ(h.chunks[0].value("compression").toInt(), 0);
    EXPECT_EQ(
        h.chunks[0].value("data").toString(), QString::fromLatin1(content.left(512000).toBase64()));
    EXPECT_EQ(decoded_bytes(h.chunks[0]) + decoded_bytes(h.chunks[1]), content);
}

TEST(FileSender, AckWithSnakeCaseIndexIsAcceptedOnlyForIndexZero)
{
    log_capture_t logs;
    harness_t h;
    ASSERT_TRUE(h.tree.write("two.txt", temp_tree_t::text_bytes(600000)));
    h.sender->start({ h.tree.path("two.txt") });
    ASSERT_TRUE(h.wait_chunks(1));

    QJsonObject wrong_key;
    wrong_key.insert("file", "two.txt");
    wrong_key.insert("chunk_index", 0);
    h.sender->ackReceiver(wrong_key); // read as chunkIndex 0: accepted
    EXPECT_TRUE(logs.contains("Ack received for file: two.txt chunk: 0 ", 6));
    ASSERT_EQ(h.progress.size(), 1);
    ASSERT_TRUE(h.wait_chunks(2));

    wrong_key.insert("chunk_index", 1);
    h.sender->ackReceiver(wrong_key); // still read as 0, now one behind
    EXPECT_TRUE(
        logs.contains("Error ack for file two.txt incoming chunk index: 0 aspected index: 1", 2));
    EXPECT_EQ(h.progress.size(), 1);
}

TEST(FileSender, AckForAnotherFileIsLoggedAndIgnored)
{
    log_capture_t logs;
    harness_t h;
    ASSERT_TRUE(h.tree.write("a.txt", "a"));
    h.sender->start({ h.tree.path("a.txt") });
    ASSERT_TRUE(h.wait_chunks(1));
    h.ack(0, "b.txt");
    EXPECT_TRUE(logs.contains("Ack received for file: b.txt chunk: 0 ", 6));
    EXPECT_TRUE(logs.contains("Error ack incoming file: b.txt aspected file: a.txt", 2));
    EXPECT_TRUE(h.progress.isEmpty());
    EXPECT_TRUE(h.sended.isEmpty());
    // The right acknowledgement still finishes the file: the ignored one changed nothing.
    h.ack(0, "a.txt");
    ASSERT_TRUE(h.wait_idle());
    EXPECT_EQ(h.sended, QStringList { h.tree.path("a.txt") });
}

TEST(FileSender, AckWithoutOpenFileIsIgnoredSilently)
{
    log_capture_t logs;
    harness_t h;
    h.ack(0, "a.txt");
    EXPECT_FALSE(logs.contains_fragment("Ack received"));
    EXPECT_TRUE(logs.records().isEmpty());
}

TEST(FileSender, AckBeforeTheChunkIsPublishedIsIgnored)
{
    log_capture_t logs;
    harness_t h;
    ASSERT_TRUE(h.tree.write("two.txt", temp_tree_t::text_bytes(600000)));
    h.sender->start({ h.tree.path("two.txt") });
    ASSERT_TRUE(h.wait_chunks(1));
    h.ack(0, "two.txt");
    // Chunk 1 is scheduled, not yet published: an ack for it is premature.
    h.ack(1, "two.txt");
    EXPECT_TRUE(
        logs.contains("Ack for file two.txt chunk 1 arrived while no chunk was waiting for it", 3));
    ASSERT_TRUE(h.wait_chunks(2));
    EXPECT_EQ(h.chunks[1].value("chunk_index").toInt(), 1);
    h.ack(1, "two.txt");
    ASSERT_TRUE(h.wait_idle());
    EXPECT_EQ(h.chunks.size(), 2);
    EXPECT_EQ(h.progress.size(), 2);
}

TEST(FileSender, StopEmptiesTheBatchAndClearsTheBusyFlag)
{
    log_capture_t logs;
    harness_t h;
    ASSERT_TRUE(h.tree.write("a.txt", "a"));
    ASSERT_TRUE(h.tree.write("b.txt", "b"));
    h.sender->start({ h.tree.path("a.txt"), h.tree.path("b.txt") });
    ASSERT_TRUE(h.wait_chunks(1));
    h.sender->stop();
    EXPECT_TRUE(logs.contains("Stop transfer for client id: c1", 6));
    EXPECT_FALSE(h.sender->inUpload());
    EXPECT_EQ(h.upload_changes, (QList<bool> { true, false }));
    // A late acknowledgement finds no open file.
    h.ack(0, "a.txt");
    EXPECT_FALSE(logs.contains_fragment("Ack received"));
    EXPECT_TRUE(h.sended.isEmpty());
}

TEST(FileSender, DeferredChunkStepAfterStopDoesNothing)
{
    harness_t h;
    h.auto_ack = true;
    ASSERT_TRUE(h.tree.write("old.txt", "old"));
    ASSERT_TRUE(h.tree.write("new.txt", "new"));
    h.sender->start({ h.tree.path("old.txt") });
    // The first chunk step of old.txt is pending; stop before it runs.
    h.sender->stop();
    h.sender->start({ h.tree.path("new.txt") });
    ASSERT_TRUE(h.wait_idle());
    ASSERT_EQ(h.chunks.size(), 1);
    EXPECT_EQ(h.chunks[0].value("file").toString(), "new.txt");
    EXPECT_EQ(h.sended, QStringList { h.tree.path("new.txt") });
}

TEST(FileSender, StartAfterStopBeginsANewBatch)
{
    harness_t h;
    h.auto_ack = true;
    ASSERT_TRUE(h.tree.write("a.txt", QByteArray(10, 'a')));
    ASSERT_TRUE(h.tree.write("b.txt", QByteArray(30, 'b')));
    h.sender->start({ h.tree.path("a.txt") });
    ASSERT_TRUE(h.wait_idle());
    h.sender->stop();
    h.upload_changes.clear();
    h.sender->start({ h.tree.path("b.txt") });
    ASSERT_TRUE(h.wait_idle());
    // Counters were reset by stop(): the second batch is b.txt alone.
    EXPECT_EQ(h.overall, (QList<double> { 100.0, 100.0 }));
}
