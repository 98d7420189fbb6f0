// The receiver fed chunk objects directly, as the service's queued connection would deliver
// them, with real files in a temporary context root. The 5000 ms timers have their own
// executables.
#include "context_sync/context_sync/transfer_manager/file_receiver_t.h"

#include "common/log_capture_t.h"
#include "common/qt_message_capture_t.h"
#include "common/temp_tree_t.h"
#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"
#include "context_sync/context_sync/transfer_manager/path_safety_t.h"
#include "transfer_test_util.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>

#include <climits>
#include <memory>

using context_sync_engine::chunk_codec_t;
using context_sync_engine::file_receiver_t;
using test_support::log_capture_t;
using test_support::qt_message_capture_t;
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
    std::unique_ptr<file_receiver_t> receiver;
    QList<ack_record_t> acks;
    QStringList received;
    QList<bool> download_changes;

    harness_t() { make(); }

    void make()
    {
        receiver = std::make_unique<file_receiver_t>(tree.root(), "TMP_file_receive", "server");
        file_receiver_t* r = receiver.get();
        QObject::connect(r, &file_receiver_t::sendChunkAck, r,
            [this](const QString& file, int index, const QJsonObject& ack, const QString& sender) {
                acks.append({ file, index, ack, sender });
            });
        QObject::connect(r, &file_receiver_t::file_received, r,
            [this](const QString& path) { received.append(path); });
        QObject::connect(r, &file_receiver_t::in_download_change, r,
            [this](bool value) { download_changes.append(value); });
    }

    QString tmp() const { return tree.root() + "TMP_file_receive"; }

    void feed(const QJsonObject& chunk, const QString& sender = "c1")
    {
        receiver->processChunk(chunk, sender);
    }

    // Sends every chunk of `content` as file `name`, in index order.
    void feed_file(const QString& name, const QByteArray& content, int remaining = 0)
    {
        const int total = int(chunk_codec_t::chunk_count(content.size()));
        for (int i = 0; i < total; ++i)
            feed(make_chunk(name, i, total, piece(content, i), remaining));
    }

    QList<int> ack_indexes() const
    {
        QList<int> out;
        for (const ack_record_t& a : acks)
            out.append(a.index);
        return out;
    }

    QStringList staged() const { return QDir(tmp()).entryList(QDir::Files | QDir::Hidden); }
};

QJsonObject with(QJsonObject chunk, const QString& key, const QJsonValue& value)
{
    chunk.insert(key, value);
    return chunk;
}

QJsonObject without(QJsonObject chunk, const QString& key)
{
    chunk.remove(key);
    return chunk;
}

QString md5(const QByteArray& bytes)
{
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex());
}

} // namespace

TEST(FileReceiver, ConstructionLeavesAnEmptyStagingFolder)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.write("TMP_file_receive/left.part", "left over"));
    log_capture_t logs;
    file_receiver_t receiver(tree.root(), "TMP_file_receive", "server");
    EXPECT_EQ(receiver.getContextPath(), tree.root());
    EXPECT_EQ(receiver.getTmpFolderPath(), tree.root() + "TMP_file_receive");
    EXPECT_TRUE(QFileInfo(tree.path("TMP_file_receive")).isDir());
    EXPECT_FALSE(tree.exists("TMP_file_receive/left.part"));
    EXPECT_TRUE(logs.contains("Directory ready: " + tree.root() + "TMP_file_receive", 4));
    EXPECT_FALSE(receiver.inDownload());
}

TEST(FileReceiver, RootWithoutTrailingSlashIsNormalised)
{
    temp_tree_t tree;
    QString root = tree.root();
    root.chop(1);
    file_receiver_t receiver(root, "TMP_file_receive", "server");
    EXPECT_EQ(receiver.getContextPath(), tree.root());
    EXPECT_EQ(receiver.getTmpFolderPath(), tree.root() + "TMP_file_receive");
}

TEST(FileReceiver, CompleteFileIsAcknowledgedStagedAndMovedIntoPlace)
{
    log_capture_t logs;
    harness_t h;
    const QByteArray content = temp_tree_t::random_bytes(700000, 21);
    h.feed_file("dir/f.bin", content);

    ASSERT_EQ(h.acks.size(), 2);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(h.acks[i].file, "dir/f.bin");
        EXPECT_EQ(h.acks[i].index, i);
        EXPECT_EQ(h.acks[i].ack, chunk_codec_t::build_ack("dir/f.bin", i));
        EXPECT_EQ(h.acks[i].sender, "c1");
    }
    const QString destination = h.tree.root() + "dir/f.bin";
    EXPECT_EQ(h.received, QStringList { destination });
    EXPECT_EQ(h.tree.read("dir/f.bin"), content);
    EXPECT_TRUE(h.staged().isEmpty());
    EXPECT_EQ(h.download_changes, (QList<bool> { true, false }));
    EXPECT_FALSE(h.receiver->inDownload());
    EXPECT_EQ(h.receiver->filesInReception(), 0);

    EXPECT_TRUE(logs.contains("Send chuck ACK 0", 6));
    EXPECT_TRUE(logs.contains("Send chuck ACK 1", 6));
    EXPECT_TRUE(logs.contains("Extract to disk " + h.tmp() + "/6469722f662e62696e.part", 6));
    EXPECT_TRUE(logs.contains("Move tmp file to: " + destination, 6));
    EXPECT_TRUE(logs.contains("Successfull file received: " + destination, 4));
    EXPECT_TRUE(logs.contains("Remaining file download 0", 4));
    EXPECT_TRUE(
        logs.contains_fragment("Receive file dir/f.bin: chunk: 1/2 percent: 50%[50%] speed: "));
}

TEST(FileReceiver, OutOfOrderChunksCompleteInIndexOrder)
{
    harness_t h;
    const QByteArray content = temp_tree_t::text_bytes(1200000);
    for (int i : { 2, 0, 1 })
        h.feed(make_chunk("ooo.txt", i, 3, piece(content, i)));
    EXPECT_EQ(h.ack_indexes(), (QList<int> { 2, 0, 1 }));
    ASSERT_EQ(h.received.size(), 1);
    EXPECT_EQ(h.tree.read("ooo.txt"), content);
}

TEST(FileReceiver, RepeatedChunkIsStoredOnceCountedTwiceAndAcknowledgedTwice)
{
    log_capture_t logs;
    harness_t h;
    const QByteArray content = temp_tree_t::random_bytes(600000, 5);
    h.feed(make_chunk("rep.bin", 0, 2, piece(content, 0)));
    h.feed(make_chunk("rep.bin", 0, 2, piece(content, 0)));
    // One distinct index of two: the file is not complete, but the bytes count twice.
    EXPECT_TRUE(h.received.isEmpty());
    EXPECT_EQ(h.receiver->receivedBytes(), 1024000);
    EXPECT_EQ(h.receiver->expectedBytes(), 1024000);
    EXPECT_TRUE(
        logs.contains_fragment("Receive file rep.bin: chunk: 1/2 percent: 100%[100%] speed: "));
    h.feed(make_chunk("rep.bin", 1, 2, piece(content, 1)));
    EXPECT_EQ(h.ack_indexes(), (QList<int> { 0, 0, 1 }));
    EXPECT_EQ(h.receiver->receivedBytes(), 1024000 + 88000);
    EXPECT_EQ(h.tree.read("rep.bin"), content);
}

TEST(FileReceiver, ShortFirstChunkGivesAPercentageAbove100)
{
    log_capture_t logs;
    harness_t h;
    const QByteArray content = temp_tree_t::text_bytes(1024010);
    // The short last chunk arrives first: 10 bytes x 3 chunks = an estimate of 30 bytes.
    h.feed(make_chunk("short.txt", 2, 3, piece(content, 2)));
    EXPECT_EQ(h.receiver->expectedBytes(), 30);
    h.feed(make_chunk("short.txt", 0, 3, piece(content, 0)));
    EXPECT_TRUE(logs.contains_fragment(
        "Receive file short.txt: chunk: 2/3 percent: 1706700%[1706700%] speed: "));
    h.feed(make_chunk("short.txt", 1, 3, piece(content, 1)));
    EXPECT_EQ(h.tree.read("short.txt"), content);
}

TEST(FileReceiver, UploadOfAnExistingFileReplacesIt)
{
    harness_t h;
    ASSERT_TRUE(h.tree.write("background/wall.png", "old content"));
    h.feed_file("background/wall.png", "new content");
    EXPECT_EQ(h.tree.read("background/wall.png"), "new content");
    EXPECT_EQ(h.received, QStringList { h.tree.root() + "background/wall.png" });
}

TEST(FileReceiver, DirectoriesOfANewPathAreCreated)
{
    harness_t h;
    h.feed_file("a/b/c/d.txt", "deep");
    EXPECT_EQ(h.tree.read("a/b/c/d.txt"), "deep");
}

TEST(FileReceiver, RelativePathABIsStagedAs612f62Part)
{
    log_capture_t logs;
    harness_t h;
    EXPECT_EQ(file_receiver_t::part_path_for(h.tmp(), "a/b"), h.tmp() + "/612f62.part");
    // A non-empty directory in the way: removal and move fail, so the staged file stays.
    ASSERT_TRUE(h.tree.write("a/b/blocker.txt", "x"));
    h.feed_file("a/b", "payload of a/b");
    const QString part = h.tmp() + "/612f62.part";
    const QString destination = h.tree.root() + "a/b";
    EXPECT_TRUE(logs.contains("Extract to disk " + part, 6));
    EXPECT_TRUE(logs.contains("Unable to remove from " + destination, 2));
    EXPECT_TRUE(logs.contains("Unable to move from " + part + " to " + destination, 2));
    EXPECT_EQ(h.staged(), QStringList { "612f62.part" });
    EXPECT_EQ(transfer_test::read_all(part), "payload of a/b");
    EXPECT_TRUE(h.received.isEmpty());
    // The acknowledgement went out before the failure, and the file's state stays behind.
    EXPECT_EQ(h.acks.size(), 1);
    EXPECT_EQ(h.receiver->filesInReception(), 1);
}

TEST(FileReceiver, PathTooLongForAHexNameStillGetsAStagingFile)
{
    harness_t h;
    const QString name = QString(200, 'n') + ".txt";
    const QString part = file_receiver_t::part_path_for(h.tmp(), name);
    EXPECT_EQ(part, h.tmp() + "/" + md5(name.toUtf8()) + ".long.part");
    h.feed_file(name, "long name");
    EXPECT_EQ(h.tree.read(name), "long name");
}

TEST(FileReceiver, TotalChunksZeroNeverCompletesItsFile)
{
    harness_t h;
    h.feed(make_chunk("zero.txt", 0, 0, "some bytes"));
    h.feed(make_chunk("zero.txt", 1, 0, "more bytes"));
    EXPECT_EQ(h.ack_indexes(), (QList<int> { 0, 1 }));
    EXPECT_TRUE(h.received.isEmpty());
    EXPECT_FALSE(h.tree.exists("zero.txt"));
    EXPECT_TRUE(h.receiver->inDownload());
    EXPECT_EQ(h.receiver->filesInReception(), 1);
}

TEST(FileReceiver, ChunkIndexesAreNotRangeChecked)
{
    harness_t h;
    // Two distinct indexes complete a two-chunk file; index 1 is absent and contributes nothing.
    h.feed(make_chunk("gap.txt", 0, 2, "first"));
    h.feed(make_chunk("gap.txt", 7, 2, "seventh"));
    EXPECT_EQ(h.received.size(), 1);
    EXPECT_EQ(h.tree.read("gap.txt"), "first");
}

TEST(FileReceiver, WrongHashGetsNoAckAndDiscardsTheFile)
{
    log_capture_t logs;
    harness_t h;
    const QByteArray content = temp_tree_t::random_bytes(600000, 8);
    h.feed(make_chunk("bad.bin", 0, 2, piece(content, 0)));
    ASSERT_EQ(h.receiver->filesInReception(), 1);
    h.feed(with(make_chunk("bad.bin", 1, 2, piece(content, 1)), "hash", md5("something else")));
    EXPECT_TRUE(logs.contains("Integrity error! Invalid chunk hash 1", 2));
    EXPECT_EQ(h.ack_indexes(), QList<int> { 0 });
    EXPECT_EQ(h.receiver->filesInReception(), 0);
    EXPECT_TRUE(h.receiver->inDownload());
    // The earlier chunk went with the file: a good chunk 1 alone does not complete it.
    h.feed(make_chunk("bad.bin", 1, 2, piece(content, 1)));
    EXPECT_TRUE(h.received.isEmpty());
    EXPECT_EQ(h.receiver->filesInReception(), 1);
}

TEST(FileReceiver, UpperCaseHashGetsNoAck)
{
    log_capture_t logs;
    harness_t h;
    const QByteArray raw = "upper";
    h.feed(with(make_chunk("u.txt", 0, 1, raw), "hash", md5(raw).toUpper()));
    EXPECT_TRUE(h.acks.isEmpty());
    EXPECT_TRUE(logs.contains("Integrity error! Invalid chunk hash 0", 2));
    EXPECT_FALSE(h.tree.exists("u.txt"));
}

TEST(FileReceiver, Base64NoiseIsSkippedButCorruptBase64GetsNoAck)
{
    log_capture_t logs;
    harness_t h;
    const QByteArray raw = temp_tree_t::text_bytes(3000);
    const QJsonObject good = make_chunk("b64.txt", 0, 1, raw, 0, 0);
    QString data = good.value("data").toString();

    QString corrupt = data;
    corrupt[20] = corrupt[20] == 'A' ? 'B' : 'A';
    h.feed(with(good, "data", corrupt));
    EXPECT_TRUE(h.acks.isEmpty());
    EXPECT_TRUE(logs.contains("Integrity error! Invalid chunk hash 0", 2));

    QString noisy = data;
    noisy.insert(16, "#$%");
    h.feed(with(good, "data", noisy));
    EXPECT_EQ(h.acks.size(), 1);
    EXPECT_EQ(h.tree.read("b64.txt"), raw);
}

TEST(FileReceiver, TruncatedCompressionFramingGetsNoAck)
{
    log_capture_t logs;
    harness_t h;
    const QByteArray raw = temp_tree_t::text_bytes(50000);
    const QByteArray framed = qCompress(raw, 9);
    QJsonObject chunk = make_chunk("t.txt", 0, 1, raw);
    chunk.insert("data", QString::fromLatin1(framed.left(framed.size() - 3).toBase64()));
    h.feed(chunk);
    EXPECT_TRUE(h.acks.isEmpty());
    EXPECT_TRUE(logs.contains("Integrity error! Invalid chunk hash 0", 2));
}

TEST(FileReceiver, NegativeCompressionOnRawDataGetsNoAck)
{
    log_capture_t logs;
    harness_t h;
    const QByteArray raw = temp_tree_t::text_bytes(5000);
    h.feed(with(make_chunk("neg.txt", 0, 1, raw, 0, 0), "compression", -1));
    EXPECT_TRUE(h.acks.isEmpty());
    EXPECT_TRUE(logs.contains("Integrity error! Invalid chunk hash 0", 2));
    EXPECT_FALSE(h.tree.exists("neg.txt"));
}

TEST(FileReceiver, MissingOrWronglyTypedFieldsTakeTheirDefaults)
{
    const QByteArray raw = "field test";
    const QJsonObject good = make_chunk("f.txt", 0, 1, raw, 0);
    struct row_t {
        const char* name;
        QJsonObject chunk;
        bool acked;
        bool completed;
    };
    const QList<row_t> rows = {
        { "chunk_index missing", without(good, "chunk_index"), true, true },
        { "chunk_index string", with(good, "chunk_index", "0"), true, true },
        { "remaining_files missing", without(good, "remaining_files"), true, true },
        { "remaining_files array", with(good, "remaining_files", QJsonArray { 1 }), true, true },
        { "total_chunks missing", without(good, "total_chunks"), true, false },
        { "total_chunks string", with(good, "total_chunks", "1"), true, false },
        { "data missing", without(good, "data"), false, false },
        { "data number", with(good, "data", 12), false, false },
        { "compression missing", without(good, "compression"), false, false },
        { "compression string", with(good, "compression", "9"), false, false },
        { "hash missing", without(good, "hash"), false, false },
        { "hash number", with(good, "hash", 5), false, false },
        { "percent string", with(good, "percent", "x"), true, true },
        { "speed object", with(good, "speed", QJsonObject { { "a", 1 } }), true, true },
        { "percent missing", without(good, "percent"), true, true },
        { "speed missing", without(good, "speed"), true, true },
    };
    for (const row_t& row : rows) {
        log_capture_t logs;
        harness_t h;
        h.feed(row.chunk);
        EXPECT_EQ(h.acks.size(), row.acked ? 1 : 0) << row.name;
        EXPECT_EQ(h.tree.exists("f.txt"), row.completed) << row.name;
        if (row.completed) {
            EXPECT_EQ(h.tree.read("f.txt"), raw) << row.name;
        }
        if (!row.acked) {
            EXPECT_TRUE(logs.contains("Integrity error! Invalid chunk hash 0", 2)) << row.name;
        }
    }
}

TEST(FileReceiver, MissingOrWronglyTypedFileIsRefusedAsAnEmptyPath)
{
    log_capture_t logs;
    harness_t h;
    h.feed(without(make_chunk("f.txt", 0, 1, "x"), "file"), "c7");
    h.feed(with(make_chunk("f.txt", 0, 1, "x"), "file", 42), "c7");
    EXPECT_EQ(logs.count("Refused chunk from client c7: file \"\" is empty", 3), 2);
    EXPECT_TRUE(h.acks.isEmpty());
    EXPECT_TRUE(h.download_changes.isEmpty());
    EXPECT_EQ(h.receiver->filesInReception(), 0);
}

TEST(FileReceiver, UnsafePathsAreRefusedAndNothingIsWrittenOutsideTheRoot)
{
    log_capture_t logs;
    temp_tree_t outer; // the root lives one level below, so "../" lands here
    ASSERT_TRUE(outer.mkdir("root"));
    const QString root = outer.path("root/");
    file_receiver_t receiver(root, "TMP_file_receive", "server");
    int acks = 0;
    QObject::connect(&receiver, &file_receiver_t::sendChunkAck, &receiver, [&] { ++acks; });
    const QString absolute = outer.path("abs.txt");

    const QList<QPair<QString, QString>> rows = {
        { "../escape.txt", "contains a '..' segment" },
        { "a/../../escape.txt", "contains a '..' segment" },
        { absolute, "is absolute" },
        { "./x.txt", "contains a '.' segment" },
        { "..\\escape.txt", "contains a backslash" },
        { QString("nul") + QChar(0) + ".txt", "contains a control character" },
        { QString(1100, 'L'), "is longer than 1024 bytes" },
    };
    for (const auto& [path, reason] : rows) {
        receiver.processChunk(make_chunk(path, 0, 1, "evil"), "c9");
        EXPECT_TRUE(
            logs.contains(QStringLiteral("Refused chunk from client c9: file \"%1\" %2")
                              .arg(context_sync_engine::path_safety_t::printable(path), reason),
                3))
            << reason.toStdString();
    }
    EXPECT_EQ(acks, 0);
    EXPECT_FALSE(receiver.inDownload());
    EXPECT_EQ(receiver.filesInReception(), 0);
    EXPECT_EQ(outer.files(), QStringList {});
    EXPECT_TRUE(logs.contains("Refused chunk from client c9: file \"nul\\x00.txt\" contains a "
                              "control character",
        3));
}

TEST(FileReceiver, HugeTotalChunksIsRefusedAtTheFirstChunk)
{
    log_capture_t logs;
    harness_t h;
    const QByteArray raw = "x";
    h.feed(make_chunk("huge.bin", 0, qint64(1000000000000), raw), "c2");
    h.feed(make_chunk("max.bin", 0, INT_MAX, raw), "c2");
    h.feed(make_chunk("over.bin", 0, 132, raw), "c2");
    h.feed(make_chunk("negative.bin", 0, -3, raw), "c2");
    EXPECT_TRUE(logs.contains(
        "Refused file huge.bin from client c2: invalid total_chunks 1000000000000", 3));
    EXPECT_TRUE(logs.contains("Refused file max.bin from client c2: 2147483647 chunks exceed the "
                              "upload limit of 67108864 bytes",
        3));
    EXPECT_TRUE(logs.contains("Refused file over.bin from client c2: 132 chunks exceed the upload "
                              "limit of 67108864 bytes",
        3));
    EXPECT_TRUE(
        logs.contains("Refused file negative.bin from client c2: invalid total_chunks -3", 3));
    EXPECT_TRUE(h.acks.isEmpty());
    EXPECT_TRUE(h.download_changes.isEmpty());
    EXPECT_EQ(h.receiver->filesInReception(), 0);
    EXPECT_EQ(h.receiver->expectedBytes(), 0);
    // 131 x 512000 = 67072000 bytes is within 64 MiB.
    h.feed(make_chunk("fits.bin", 0, 131, raw), "c2");
    EXPECT_EQ(h.acks.size(), 1);
}

TEST(FileReceiver, UploadLimitIsSettable)
{
    log_capture_t logs;
    harness_t h;
    EXPECT_EQ(h.receiver->uploadLimit(), 64 * 1024 * 1024);
    h.receiver->setUploadLimit(1024000);
    h.feed(make_chunk("three.bin", 0, 3, "x"));
    EXPECT_TRUE(logs.contains(
        "Refused file three.bin from client c1: 3 chunks exceed the upload limit of 1024000 bytes",
        3));
    h.feed(make_chunk("two.bin", 0, 2, "x"));
    EXPECT_EQ(h.ack_indexes(), QList<int> { 0 });
    // The limit is checked for the first chunk only: later chunks belong to an accepted file.
    h.receiver->setUploadLimit(0);
    h.feed(make_chunk("two.bin", 1, 2, "y"));
    EXPECT_EQ(h.tree.read("two.bin"), "xy");
}

TEST(FileReceiver, FilesBeyondTheReceptionLimitAreRefused)
{
    log_capture_t logs;
    harness_t h;
    EXPECT_EQ(h.receiver->maxFilesInReception(), 32);
    h.receiver->setMaxFilesInReception(2);
    h.feed(make_chunk("one.txt", 0, 2, "1"));
    h.feed(make_chunk("two.txt", 0, 2, "2"));
    h.feed(make_chunk("three.txt", 0, 2, "3"), "c3");
    EXPECT_TRUE(
        logs.contains("Refused file three.txt from client c3: already 2 files in reception", 3));
    EXPECT_EQ(h.acks.size(), 2);
    // Finishing one file frees its place.
    h.feed(make_chunk("one.txt", 1, 2, "1"));
    h.feed(make_chunk("three.txt", 0, 2, "3"), "c3");
    EXPECT_EQ(h.acks.size(), 4);
}

TEST(FileReceiver, DefaultReceptionLimitIs32Files)
{
    log_capture_t logs;
    harness_t h;
    for (int i = 0; i < 33; ++i)
        h.feed(make_chunk(QStringLiteral("f%1.txt").arg(i), 0, 2, "x"));
    EXPECT_EQ(h.acks.size(), 32);
    EXPECT_TRUE(
        logs.contains("Refused file f32.txt from client c1: already 32 files in reception", 3));
}

TEST(FileReceiver, StalledReceptionIsDiscardedToMakeRoom)
{
    log_capture_t logs;
    harness_t h;
    h.receiver->setMaxFilesInReception(1);
    // A failed move leaves a file's state behind with its timer stopped.
    ASSERT_TRUE(h.tree.write("a/b/blocker.txt", "x"));
    h.feed_file("a/b", "stuck");
    ASSERT_EQ(h.receiver->filesInReception(), 1);
    h.feed_file("fresh.txt", "fresh");
    EXPECT_TRUE(logs.contains("Discarded stalled reception of file a/b (0 chunks held)", 3));
    EXPECT_EQ(h.tree.read("fresh.txt"), "fresh");
}

TEST(FileReceiver, RemainingFilesKeepTheDownloadStateBetweenFiles)
{
    log_capture_t logs;
    harness_t h;
    h.feed_file("first.txt", "first", 1);
    EXPECT_TRUE(logs.contains("Starting timer in download timeout ... ", 6));
    EXPECT_TRUE(logs.contains("Remaining file download 1", 4));
    EXPECT_TRUE(h.receiver->inDownload());
    EXPECT_EQ(h.download_changes, QList<bool> { true });
    h.feed_file("second.txt", "second", 0);
    EXPECT_FALSE(h.receiver->inDownload());
    EXPECT_EQ(h.download_changes, (QList<bool> { true, false }));
    EXPECT_EQ(h.received.size(), 2);
}

TEST(FileReceiver, UnopenableStagingFileKeepsTheFileInMemory)
{
    harness_t h;
    // Replace the staging folder by a plain file: nothing can be created inside it.
    ASSERT_TRUE(h.tree.remove("TMP_file_receive"));
    ASSERT_TRUE(h.tree.write("TMP_file_receive", "not a folder"));
    qt_message_capture_t messages;
    h.feed_file("kept.txt", "kept");
    EXPECT_TRUE(messages.contains(QtWarningMsg, "Errore nell'apertura del file di destinazione!"));
    EXPECT_EQ(h.acks.size(), 1);
    EXPECT_TRUE(h.received.isEmpty());
    EXPECT_EQ(h.receiver->filesInReception(), 1);
    // Once staging works again, a repeated chunk completes the file from memory.
    ASSERT_TRUE(h.tree.remove("TMP_file_receive"));
    h.feed_file("kept.txt", "kept");
    EXPECT_EQ(h.tree.read("kept.txt"), "kept");
}

TEST(FileReceiver, ProgressOfAnUnknownFileIsAnError)
{
    log_capture_t logs;
    harness_t h;
    h.receiver->printProgress("nowhere.txt");
    EXPECT_TRUE(logs.contains("Unable to found progress of file nowhere.txt", 2));
}

TEST(FileReceiver, ChunkTimeoutSlotEndsTheDownloadState)
{
    log_capture_t logs;
    harness_t h;
    h.feed(make_chunk("slow.txt", 0, 2, "x"));
    ASSERT_TRUE(h.receiver->inDownload());
    ASSERT_TRUE(QMetaObject::invokeMethod(h.receiver.get(), "onChunkTimeout"));
    EXPECT_TRUE(logs.contains("Chunk reception timeout! Transfer interrupted!", 2));
    EXPECT_FALSE(h.receiver->inDownload());
    EXPECT_EQ(h.download_changes, (QList<bool> { true, false }));
}

TEST(FileReceiver, StopForgetsTotalsAndEmptiesTheStagingFolderButKeepsFiles)
{
    harness_t h;
    h.feed(make_chunk("part.txt", 0, 2, "half"));
    ASSERT_TRUE(h.tree.write("TMP_file_receive/junk.part", "junk"));
    h.receiver->stop();
    EXPECT_FALSE(h.receiver->inDownload());
    EXPECT_EQ(h.receiver->receivedBytes(), 0);
    EXPECT_EQ(h.receiver->expectedBytes(), 0);
    EXPECT_TRUE(h.staged().isEmpty());
    EXPECT_TRUE(QFileInfo(h.tmp()).isDir());
    // stop() changes the flag without a signal.
    EXPECT_EQ(h.download_changes, QList<bool> { true });
    EXPECT_EQ(h.receiver->filesInReception(), 1);
    h.feed(make_chunk("part.txt", 1, 2, "-rest"));
    EXPECT_EQ(h.tree.read("part.txt"), "half-rest");
}

TEST(FileReceiver, DestructionReleasesFilesInReception)
{
    harness_t h;
    for (int i = 0; i < 5; ++i)
        h.feed(
            make_chunk(QStringLiteral("d%1.bin").arg(i), 0, 3, temp_tree_t::random_bytes(1000, i)));
    EXPECT_EQ(h.receiver->filesInReception(), 5);
    h.receiver.reset();
    SUCCEED();
}
