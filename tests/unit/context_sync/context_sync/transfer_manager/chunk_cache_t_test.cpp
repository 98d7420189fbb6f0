// The cache of encoded chunk texts on its own and behind the sender: the objects built through it
// are byte for byte those built without it, a file that changes never gets a text of its old
// content, eviction goes by least recent use within the byte bound, and a capacity of 0 turns the
// cache off.
#include "context_sync/context_sync/transfer_manager/chunk_cache_t.h"
#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"
#include "context_sync/context_sync/transfer_manager/file_sender_t.h"

#include "common/md5_hex.h"
#include "common/temp_tree_t.h"
#include "transfer_test_util.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <memory>

using context_sync_engine::chunk_cache_t;
using context_sync_engine::chunk_codec_t;
using context_sync_engine::file_sender_t;
using test_support::temp_tree_t;
using transfer_test::wait_until;

namespace {

QByteArray wire_bytes(const QJsonObject& chunk)
{
    return QJsonDocument(chunk).toJson(QJsonDocument::Compact);
}

QByteArray md5(const QByteArray& raw)
{
    return QCryptographicHash::hash(raw, QCryptographicHash::Md5);
}

QByteArray key_of(const QByteArray& raw, int level = 9)
{
    return chunk_cache_t::make_key(md5(raw), raw.size(), level);
}

chunk_codec_t::header_t header_for(const QString& file, int index)
{
    chunk_codec_t::header_t header;
    header.file = file;
    header.chunk_index = index;
    header.remaining_files = 2;
    header.total_chunks = 3;
    header.percent = 0;
    header.speed = 1764000000.0;
    return header;
}

// A text of `size` bytes, different per `seed`.
QByteArray text(qsizetype size, char seed)
{
    return QByteArray(size, seed);
}

} // namespace

TEST(ChunkCache, ObjectsBuiltThroughTheCacheEqualThoseBuiltWithout)
{
    chunk_cache_t cache;
    const QList<QByteArray> contents = {
        temp_tree_t::random_bytes(chunk_codec_t::CHUNK_SIZE, 7),
        temp_tree_t::text_bytes(chunk_codec_t::CHUNK_SIZE),
        temp_tree_t::random_bytes(1, 3),
        temp_tree_t::text_bytes(48577),
        QByteArray(),
    };
    for (int level : { 9, 1, 0, -1 }) {
        for (const QByteArray& raw : contents) {
            const chunk_codec_t::header_t header = header_for("background/a.png", 1);
            const QByteArray plain = wire_bytes(chunk_codec_t::build_chunk(header, raw, level));
            // The first build stores the text, the second takes it from the cache.
            EXPECT_EQ(wire_bytes(chunk_codec_t::build_chunk(header, raw, level, cache)), plain)
                << "level " << level << ", " << raw.size() << " bytes, miss";
            EXPECT_EQ(wire_bytes(chunk_codec_t::build_chunk(header, raw, level, cache)), plain)
                << "level " << level << ", " << raw.size() << " bytes, hit";
        }
    }
    // Levels 0 and -1 both send uncompressed bytes ("compression" 0) and so share their texts.
    EXPECT_EQ(cache.count(), 3 * int(contents.size()));
    EXPECT_EQ(cache.misses(), 3 * contents.size());
    EXPECT_EQ(cache.hits(), 5 * contents.size());
}

TEST(ChunkCache, OtherHeadersReuseTheTextOfTheSameBytes)
{
    chunk_cache_t cache;
    const QByteArray raw = temp_tree_t::random_bytes(300000, 11);
    const QJsonObject first
        = chunk_codec_t::build_chunk(header_for("background/a.png", 0), raw, 9, cache);
    const QJsonObject second
        = chunk_codec_t::build_chunk(header_for("background/copy.png", 4), raw, 9, cache);
    EXPECT_EQ(cache.misses(), 1);
    EXPECT_EQ(cache.hits(), 1);
    EXPECT_EQ(second.value("file").toString(), "background/copy.png");
    EXPECT_EQ(second.value("chunk_index").toInt(), 4);
    EXPECT_EQ(second.value("data"), first.value("data"));
    EXPECT_EQ(second.value("hash").toString(), test_support::md5_hex(raw));
    EXPECT_EQ(wire_bytes(second),
        wire_bytes(chunk_codec_t::build_chunk(header_for("background/copy.png", 4), raw, 9)));
    const chunk_codec_t::decoded_t decoded = chunk_codec_t::decode_chunk(second);
    EXPECT_TRUE(decoded.valid);
    EXPECT_EQ(decoded.bytes, raw);
}

TEST(ChunkCache, AHitSharesTheStoredTextWithoutCopyingIt)
{
    chunk_cache_t cache(1000);
    const QByteArray stored = text(100, 'a');
    cache.insert("k", stored);
    const QByteArray first = cache.find("k");
    const QByteArray second = cache.find("k");
    EXPECT_EQ(first, stored);
    EXPECT_EQ(first.constData(), stored.constData());
    EXPECT_EQ(second.constData(), stored.constData());
    int encodes = 0;
    const QByteArray third = cache.encoded("k", [&] {
        ++encodes;
        return text(100, 'z');
    });
    EXPECT_EQ(encodes, 0);
    EXPECT_EQ(third.constData(), stored.constData());
    EXPECT_EQ(cache.hits(), 3);
    EXPECT_EQ(cache.misses(), 0);
}

TEST(ChunkCache, EvictsTheLeastRecentlyUsedEntryFirst)
{
    chunk_cache_t cache(300);
    cache.insert("a", text(100, 'a'));
    cache.insert("b", text(100, 'b'));
    cache.insert("c", text(100, 'c'));
    EXPECT_EQ(cache.size_bytes(), 300);
    // "a" is now the most recently used, so "b" is the oldest.
    EXPECT_EQ(cache.find("a"), text(100, 'a'));
    cache.insert("d", text(100, 'd'));
    EXPECT_TRUE(cache.find("b").isNull());
    EXPECT_EQ(cache.find("c"), text(100, 'c'));
    EXPECT_EQ(cache.find("a"), text(100, 'a'));
    EXPECT_EQ(cache.find("d"), text(100, 'd'));
    EXPECT_EQ(cache.count(), 3);
    // Use order now, oldest first: c, a, d. A text of 150 bytes needs two of them to go.
    cache.insert("e", text(150, 'e'));
    EXPECT_TRUE(cache.find("c").isNull());
    EXPECT_TRUE(cache.find("a").isNull());
    EXPECT_EQ(cache.find("d"), text(100, 'd'));
    EXPECT_EQ(cache.find("e"), text(150, 'e'));
    EXPECT_EQ(cache.size_bytes(), 250);
    // Replacing an entry counts its new size only.
    cache.insert("d", text(50, 'D'));
    EXPECT_EQ(cache.find("d"), text(50, 'D'));
    EXPECT_EQ(cache.size_bytes(), 200);
    EXPECT_EQ(cache.count(), 2);
}

TEST(ChunkCache, TheByteBoundHoldsAtEveryInsertion)
{
    chunk_cache_t cache(1000);
    for (int i = 0; i < 200; ++i) {
        cache.insert(QByteArray::number(i), text(1 + (i * 37) % 400, char('a' + i % 26)));
        ASSERT_LE(cache.size_bytes(), 1000) << "after insertion " << i;
    }
    // A text larger than the whole capacity is not stored and evicts nothing.
    const qint64 before = cache.size_bytes();
    const int count = cache.count();
    cache.insert("huge", text(1001, 'h'));
    EXPECT_TRUE(cache.find("huge").isNull());
    EXPECT_EQ(cache.size_bytes(), before);
    EXPECT_EQ(cache.count(), count);
    // A text of exactly the capacity fills it alone.
    cache.insert("full", text(1000, 'f'));
    EXPECT_EQ(cache.count(), 1);
    EXPECT_EQ(cache.size_bytes(), 1000);
    // Lowering the capacity evicts at once, oldest first.
    cache.set_capacity(2000);
    cache.insert("x", text(500, 'x'));
    cache.insert("y", text(500, 'y'));
    cache.set_capacity(1000);
    EXPECT_EQ(cache.size_bytes(), 1000);
    EXPECT_TRUE(cache.find("full").isNull());
    EXPECT_EQ(cache.find("x"), text(500, 'x'));
    EXPECT_EQ(cache.find("y"), text(500, 'y'));
}

TEST(ChunkCache, RealChunkTextsStayWithinTheBound)
{
    // Three incompressible chunks make about 2 MB of Base64; 1.5 MB holds two of them.
    chunk_cache_t cache(1500000);
    QList<QByteArray> raws;
    for (quint32 seed = 1; seed <= 3; ++seed)
        raws.append(temp_tree_t::random_bytes(chunk_codec_t::CHUNK_SIZE, seed));
    for (const QByteArray& raw : raws)
        chunk_codec_t::build_chunk(header_for("f", 0), raw, 9, cache);
    EXPECT_EQ(cache.count(), 2);
    EXPECT_LE(cache.size_bytes(), 1500000);
    EXPECT_TRUE(cache.find(key_of(raws[0])).isNull());
    EXPECT_FALSE(cache.find(key_of(raws[1])).isNull());
    EXPECT_FALSE(cache.find(key_of(raws[2])).isNull());
}

TEST(ChunkCache, CapacityZeroTurnsTheCacheOff)
{
    chunk_cache_t cache(0);
    cache.insert("a", text(1, 'a'));
    EXPECT_EQ(cache.count(), 0);
    EXPECT_TRUE(cache.find("a").isNull());
    int encodes = 0;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(cache.encoded("k",
                      [&] {
                          ++encodes;
                          return text(10, 'k');
                      }),
            text(10, 'k'));
    }
    EXPECT_EQ(encodes, 3);
    EXPECT_EQ(cache.size_bytes(), 0);

    // Built through a cache that is off, the object is still the plain one.
    const QByteArray raw = temp_tree_t::text_bytes(1000);
    EXPECT_EQ(wire_bytes(chunk_codec_t::build_chunk(header_for("f", 0), raw, 9, cache)),
        wire_bytes(chunk_codec_t::build_chunk(header_for("f", 0), raw, 9)));
    EXPECT_EQ(cache.count(), 0);

    // Turning a filled cache off empties it; negative capacities count as 0.
    chunk_cache_t filled(100);
    filled.insert("a", text(10, 'a'));
    filled.set_capacity(-5);
    EXPECT_EQ(filled.capacity(), 0);
    EXPECT_EQ(filled.count(), 0);
    EXPECT_EQ(filled.size_bytes(), 0);
    filled.insert("b", text(10, 'b'));
    EXPECT_EQ(filled.count(), 0);
}

TEST(ChunkCache, SharedCacheHasTheDefaultCapacity)
{
    EXPECT_EQ(chunk_cache_t::DEFAULT_CAPACITY, 32 * 1024 * 1024);
    EXPECT_EQ(chunk_cache_t::shared().capacity(), chunk_cache_t::DEFAULT_CAPACITY);
}

namespace {

// A sender on the test's thread whose chunks are acknowledged as a client does.
struct sender_harness_t {
    std::unique_ptr<file_sender_t> sender;
    QList<QJsonObject> chunks;
    bool idle = false;

    explicit sender_harness_t(const QString& root)
    {
        sender = std::make_unique<file_sender_t>("panel", root);
        file_sender_t* s = sender.get();
        QObject::connect(
            s, &file_sender_t::publish_chunk, s, [this, s](const QString&, const QJsonObject& c) {
                chunks.append(c);
                const QJsonObject ack = chunk_codec_t::build_ack(
                    c.value("file").toString(), c.value("chunk_index").toInt());
                QMetaObject::invokeMethod(
                    s, [s, ack] { s->ackReceiver(ack); }, Qt::QueuedConnection);
            });
        QObject::connect(s, &file_sender_t::in_upload_change, s,
            [this](const QString&, bool value) { idle = !value; });
    }
    ~sender_harness_t()
    {
        sender.reset();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }

    // Sends `path` and returns the chunks it produced.
    QList<QJsonObject> send(const QString& path)
    {
        chunks.clear();
        idle = false;
        sender->start({ path });
        EXPECT_TRUE(wait_until([&] { return idle; }));
        return chunks;
    }
};

QByteArray reassembled(const QList<QJsonObject>& chunks)
{
    QByteArray bytes;
    for (const QJsonObject& chunk : chunks) {
        const chunk_codec_t::decoded_t decoded = chunk_codec_t::decode_chunk(chunk);
        EXPECT_TRUE(decoded.valid);
        bytes += decoded.bytes;
    }
    return bytes;
}

} // namespace

TEST(ChunkCache, AChangedFileNeverGetsAStaleChunk)
{
    chunk_cache_t& cache = chunk_cache_t::shared();
    cache.clear();
    temp_tree_t tree;
    // Two contents of the same size: the file's size and name say nothing about the change.
    const QByteArray before = temp_tree_t::random_bytes(1100000, 21);
    QByteArray after = before;
    // Only the second chunk differs, by one byte.
    after[600000] = char(after[600000] ^ 0x5a);
    ASSERT_TRUE(tree.write("background/bg.png", before));

    sender_harness_t h(tree.root());
    const QList<QJsonObject> first = h.send(tree.path("background/bg.png"));
    ASSERT_EQ(first.size(), 3);
    EXPECT_EQ(reassembled(first), before);
    EXPECT_EQ(cache.misses(), 3);

    ASSERT_TRUE(tree.write("background/bg.png", after));
    const QList<QJsonObject> second = h.send(tree.path("background/bg.png"));
    ASSERT_EQ(second.size(), 3);
    EXPECT_EQ(reassembled(second), after);
    // Chunks 0 and 2 are the same bytes and come from the cache; chunk 1 is encoded anew.
    EXPECT_EQ(cache.misses(), 4);
    EXPECT_EQ(cache.hits(), 2);
    EXPECT_EQ(second[0].value("data"), first[0].value("data"));
    EXPECT_NE(second[1].value("data"), first[1].value("data"));
    EXPECT_EQ(
        second[1].value("hash").toString(), test_support::md5_hex(transfer_test::piece(after, 1)));
    for (int i = 0; i < 3; ++i) {
        chunk_codec_t::header_t header;
        header.file = "background/bg.png";
        header.chunk_index = i;
        header.total_chunks = 3;
        header.speed = second[i].value("speed").toDouble();
        EXPECT_EQ(wire_bytes(second[i]),
            wire_bytes(chunk_codec_t::build_chunk(header, transfer_test::piece(after, i), 9)))
            << "chunk " << i;
    }

    // And back again: the old content is still cached and is what is sent.
    ASSERT_TRUE(tree.write("background/bg.png", before));
    const QList<QJsonObject> third = h.send(tree.path("background/bg.png"));
    EXPECT_EQ(reassembled(third), before);
    EXPECT_EQ(cache.misses(), 4);
    EXPECT_EQ(cache.hits(), 5);
    cache.clear();
}
