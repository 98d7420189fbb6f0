// A sender on a thread of its own, started and stopped the way the service runs it (queued start,
// queued acknowledgements, blocking-queued stop), wired back to back with a receiver on the test's
// thread: every file of a batch must arrive byte for byte in a second root.
#include "context_sync/context_sync/transfer_manager/file_receiver_t.h"
#include "context_sync/context_sync/transfer_manager/file_sender_t.h"

#include "utility/tsan_annotations.h"

#include "common/log_capture_t.h"
#include "common/temp_tree_t.h"
#include "transfer_test_util.h"

#include <QDir>
#include <QThread>

#include <gtest/gtest.h>

using context_sync_engine::file_receiver_t;
using context_sync_engine::file_sender_t;
using test_support::log_capture_t;
using test_support::temp_tree_t;
using transfer_test::wait_until;

namespace {

// The sender's side as the service holds it: the object lives on its own thread and is reached
// only through queued and blocking-queued calls. The calls are functors wrapped in handed_over()
// so that ThreadSanitizer sees the hand-over through Qt's event queue (the sender is built on
// this thread and first used on its own).
struct threaded_sender_t {
    QThread* thread = new QThread();
    file_sender_t* sender;

    threaded_sender_t(const QString& client, const QString& root)
    {
        thread->start(QThread::InheritPriority);
        sender = new file_sender_t(client, root);
        sender->moveToThread(thread);
    }

    ~threaded_sender_t()
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
};

struct wiring_t {
    QList<QString> received;
    QStringList sended;
    bool idle = false;
    int chunks = 0;
};

void wire(threaded_sender_t& side, file_receiver_t& receiver, wiring_t& seen)
{
    // Chunks cross to the receiver's thread, acknowledgements back to the sender's: both queued.
    QObject::connect(side.sender, &file_sender_t::publish_chunk, &receiver,
        [&receiver, &seen](const QString& client, const QJsonObject& chunk) {
            ++seen.chunks;
            receiver.processChunk(chunk, client);
        });
    QObject::connect(&receiver, &file_receiver_t::sendChunkAck, &receiver,
        [sender = side.sender](const QString&, int, const QJsonObject& ack, const QString& client) {
            EXPECT_EQ(client, "phone");
            QMetaObject::invokeMethod(sender,
                utility::tsan::handed_over([sender, ack] { sender->ackReceiver(ack); }),
                Qt::QueuedConnection);
        });
    QObject::connect(&receiver, &file_receiver_t::file_received, &receiver,
        [&seen](const QString& path) { seen.received.append(path); });
    QObject::connect(side.sender, &file_sender_t::file_sended, &receiver,
        [&seen](const QString&, const QString& name) { seen.sended.append(name); });
    QObject::connect(side.sender, &file_sender_t::in_upload_change, &receiver,
        [&seen](const QString&, bool value) { seen.idle = !value; });
}

} // namespace

TEST(FileTransfer, BatchArrivesByteIdenticallyInASecondRoot)
{
    log_capture_t logs;
    temp_tree_t source;
    temp_tree_t target;

    const QList<qsizetype> sizes = { 0, 1, 511999, 512000, 512001, 5 * 1024 * 1024 };
    QStringList names;
    QList<QString> paths;
    for (qsizetype size : sizes) {
        const QString random_name = QStringLiteral("random/r_%1.bin").arg(size);
        const QString text_name = QStringLiteral("text/deep/t_%1.txt").arg(size);
        ASSERT_TRUE(source.write(random_name, temp_tree_t::random_bytes(size, quint32(size) + 1)));
        ASSERT_TRUE(source.write(text_name, temp_tree_t::text_bytes(size)));
        names << random_name << text_name;
        paths << source.path(random_name) << source.path(text_name);
    }

    file_receiver_t receiver(target.root(), "TMP_file_receive", "server");
    wiring_t seen;
    {
        threaded_sender_t side("phone", source.root());
        wire(side, receiver, seen);
        side.start(paths);
        ASSERT_TRUE(
            wait_until([&] { return seen.idle && seen.sended.size() == names.size(); }, 120000));
        ASSERT_TRUE(wait_until([&] { return !receiver.inDownload(); }));
    }

    EXPECT_EQ(seen.sended, QStringList(paths));
    // 0 B files produce no chunk, so they never reach the receiver.
    QStringList expected_received;
    for (const QString& name : names)
        if (!name.contains("_0."))
            expected_received << target.root() + name;
    EXPECT_EQ(QStringList(seen.received), expected_received);
    for (const QString& name : names) {
        if (name.contains("_0.")) {
            EXPECT_FALSE(target.exists(name)) << name.toStdString();
            continue;
        }
        EXPECT_EQ(target.read(name), source.read(name)) << name.toStdString();
    }
    // 1 + 1 + 1 + 2 + 11 chunks per content kind.
    EXPECT_EQ(seen.chunks, 2 * 16);
    EXPECT_EQ(receiver.filesInReception(), 0);
    EXPECT_TRUE(QDir(target.root() + "TMP_file_receive").isEmpty());
    EXPECT_FALSE(logs.contains_fragment("Integrity error"));
    EXPECT_FALSE(logs.contains_fragment("Error ack"));
}

TEST(FileTransfer, SecondBatchOnTheSameSenderAfterTheFirstEnds)
{
    temp_tree_t source;
    temp_tree_t target;
    ASSERT_TRUE(source.write("one.txt", temp_tree_t::text_bytes(700000)));
    ASSERT_TRUE(source.write("two.bin", temp_tree_t::random_bytes(100000, 3)));

    file_receiver_t receiver(target.root(), "TMP_file_receive", "server");
    wiring_t seen;
    threaded_sender_t side("phone", source.root());
    wire(side, receiver, seen);
    side.start({ source.path("one.txt") });
    ASSERT_TRUE(wait_until([&] { return seen.idle && seen.sended.size() == 1; }));
    seen.idle = false;
    side.start({ source.path("two.bin") });
    ASSERT_TRUE(wait_until([&] { return seen.idle && seen.sended.size() == 2; }));
    ASSERT_TRUE(wait_until([&] { return seen.received.size() == 2; }));
    EXPECT_EQ(target.read("one.txt"), source.read("one.txt"));
    EXPECT_EQ(target.read("two.bin"), source.read("two.bin"));
}
