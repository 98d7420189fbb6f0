// The chunk cache under the load it is made for: ten senders on ten threads of their own, the way
// the service runs them, sending the same files to ten clients at once, and ten plain threads
// building chunks through a cache small enough to evict all the time. Every object must be the one
// built without a cache, and simultaneous misses of one chunk must be encoded once.
#include "context_sync/context_sync/transfer_manager/chunk_cache_t.h"
#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"
#include "context_sync/context_sync/transfer_manager/file_sender_t.h"

#include "utility/tsan_annotations.h"

#include "common/temp_tree_t.h"
#include "transfer_test_util.h"

#include <QJsonDocument>
#include <QMutex>
#include <QMutexLocker>
#include <QThread>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

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

// One client's side: a sender on its own thread whose chunks are acknowledged at once from that
// thread, as a quick client would. What it saw is kept under a lock for the test's thread.
struct client_t {
    QThread* thread = new QThread();
    file_sender_t* sender;
    QMutex seen_lock;
    QList<QJsonObject> chunks;
    QStringList sended;

    client_t(const QString& id, const QString& root)
    {
        thread->start();
        sender = new file_sender_t(id, root);
        QObject::connect(sender, &file_sender_t::publish_chunk, sender,
            [this](const QString&, const QJsonObject& chunk) {
                {
                    QMutexLocker locker(&seen_lock);
                    chunks.append(chunk);
                }
                const QJsonObject ack = chunk_codec_t::build_ack(
                    chunk.value("file").toString(), chunk.value("chunk_index").toInt());
                QMetaObject::invokeMethod(
                    sender, [s = sender, ack] { s->ackReceiver(ack); }, Qt::QueuedConnection);
            });
        QObject::connect(sender, &file_sender_t::file_sended, sender,
            [this](const QString&, const QString& name) {
                QMutexLocker locker(&seen_lock);
                sended.append(name);
            });
        sender->moveToThread(thread);
    }

    ~client_t()
    {
        file_sender_t* const target = sender;
        QMetaObject::invokeMethod(sender, utility::tsan::handed_over([target] { target->stop(); }),
            Qt::BlockingQueuedConnection);
        sender->deleteLater();
        thread->quit();
        thread->wait();
        delete thread;
    }

    void start(const QList<QString>& files)
    {
        file_sender_t* const target = sender;
        QMetaObject::invokeMethod(sender,
            utility::tsan::handed_over([target, files] { target->start(files); }),
            Qt::QueuedConnection);
    }

    int files_sended()
    {
        QMutexLocker locker(&seen_lock);
        return int(sended.size());
    }

    QList<QJsonObject> seen_chunks()
    {
        QMutexLocker locker(&seen_lock);
        return chunks;
    }
};

} // namespace

TEST(ChunkCacheThreaded, TenSendersOfTheSameFilesEncodeEachChunkOnce)
{
    chunk_cache_t& cache = chunk_cache_t::shared();
    cache.clear();
    const int interval = file_sender_t::INTERVAL_BETWEEN_PACKET;
    // Tight pacing keeps the ten senders nearly in step, so their misses meet.
    file_sender_t::INTERVAL_BETWEEN_PACKET = 1;
    file_sender_t::INTERVAL_BETWEEN_FILES = 1;

    temp_tree_t tree;
    const QStringList names = { "background/one.png", "background/two.png" };
    const QList<QByteArray> contents
        = { temp_tree_t::random_bytes(1100000, 5), temp_tree_t::text_bytes(600000) };
    QList<QString> paths;
    for (int i = 0; i < names.size(); ++i) {
        ASSERT_TRUE(tree.write(names[i], contents[i]));
        paths.append(tree.path(names[i]));
    }

    {
        std::vector<std::unique_ptr<client_t>> clients;
        for (int i = 0; i < 10; ++i)
            clients.push_back(
                std::make_unique<client_t>(QStringLiteral("c%1").arg(i), tree.root()));
        for (auto& client : clients)
            client->start(paths);
        ASSERT_TRUE(wait_until(
            [&] {
                for (auto& client : clients)
                    if (client->files_sended() != 2)
                        return false;
                return true;
            },
            120000));

        for (auto& client : clients) {
            const QList<QJsonObject> chunks = client->seen_chunks();
            ASSERT_EQ(chunks.size(), 3 + 2);
            int at = 0;
            for (int file = 0; file < names.size(); ++file) {
                const qint64 total = chunk_codec_t::chunk_count(contents[file].size());
                for (int index = 0; index < total; ++index, ++at) {
                    chunk_codec_t::header_t header;
                    header.file = names[file];
                    header.chunk_index = index;
                    header.total_chunks = total;
                    header.remaining_files = file == 0 ? 1 : 0;
                    header.speed = chunks[at].value("speed").toDouble();
                    EXPECT_EQ(wire_bytes(chunks[at]),
                        wire_bytes(chunk_codec_t::build_chunk(
                            header, transfer_test::piece(contents[file], index), 9)))
                        << "file " << file << " chunk " << index;
                }
            }
        }
    }
    // Five distinct chunks: each encoded by one sender, taken from the cache by the nine others.
    EXPECT_EQ(cache.misses(), 5);
    EXPECT_EQ(cache.hits(), 45);
    EXPECT_EQ(cache.count(), 5);
    cache.clear();
    file_sender_t::INTERVAL_BETWEEN_PACKET = interval;
    file_sender_t::INTERVAL_BETWEEN_FILES = interval;
}

TEST(ChunkCacheThreaded, TenThreadsThroughAnEvictingCacheGetTheRightObjects)
{
    // Twelve distinct small chunks, room for about four of their texts: constant eviction.
    QList<QByteArray> raws;
    QList<QByteArray> expected;
    for (int i = 0; i < 12; ++i) {
        raws.append(i % 2 ? temp_tree_t::random_bytes(20000, quint32(i + 1))
                          : temp_tree_t::text_bytes(20000 + i));
    }
    qint64 one_text = 0;
    for (const QByteArray& raw : raws) {
        chunk_codec_t::header_t header;
        header.file = QStringLiteral("f");
        expected.append(wire_bytes(chunk_codec_t::build_chunk(header, raw, 9)));
        one_text = std::max<qint64>(one_text, chunk_codec_t::encode_payload(raw, 9).size());
    }
    chunk_cache_t cache(4 * one_text);

    std::atomic<int> mismatches { 0 };
    std::atomic<qint64> over_bound { 0 };
    std::vector<std::thread> threads;
    for (int t = 0; t < 10; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < 30; ++round) {
                const int i = (t * 7 + round * 5) % int(raws.size());
                chunk_codec_t::header_t header;
                header.file = QStringLiteral("f");
                if (wire_bytes(chunk_codec_t::build_chunk(header, raws[i], 9, cache))
                    != expected[i])
                    ++mismatches;
                if (cache.size_bytes() > cache.capacity())
                    ++over_bound;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(mismatches.load(), 0);
    EXPECT_EQ(over_bound.load(), 0);
    EXPECT_EQ(cache.hits() + cache.misses(), 10 * 30);
    EXPECT_LE(cache.size_bytes(), cache.capacity());
}
