// Downloads through the sync service: one sender per client on a thread of its own, every chunk
// and every file checked by the client against the list, the shared pacing as senders come and
// go, the ten-sender limit, the acknowledgement time-out and the stop of every sender.

#include "service_harness.h"

#include "common/log_capture_t.h"

#include <QDir>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using context_sync_engine::context_sync_test_peer_t;
using context_sync_engine::file_sender_t;
using service_test::host_t;
using service_test::settle;
using service_test::unicast_count;
using service_test::wait_until;

namespace {

QJsonArray keys_of(const QJsonObject& object)
{
    QJsonArray keys;
    for (const QString& key : object.keys())
        keys.append(key);
    return keys;
}

int senders(host_t& host)
{
    return context_sync_test_peer_t::sender_count(*host.service());
}

// Every file of `list` arrived whole, chunk by chunk in order, each chunk and the whole file
// matching its hash.
void expect_downloaded(const service_test::client_t& client, const QJsonObject& list)
{
    EXPECT_EQ(client.bad_chunks, 0) << client.id().toStdString();
    for (auto it = list.begin(); it != list.end(); ++it) {
        EXPECT_TRUE(client.complete(it.key())) << it.key().toStdString();
        EXPECT_EQ(service_test::md5_hex(client.files.value(it.key())), it.value().toString())
            << client.id().toStdString() << " " << it.key().toStdString();
    }
}

} // namespace

TEST(ContextSyncDownload, ClientDownloadsATreeAndChecksEveryChunkAndFile)
{
    test_support::log_capture_t log;
    host_t host;
    auto& tree = host.tree();
    ASSERT_TRUE(tree.write(
        QStringLiteral("background/small.png"), service_test::background_image(3000, 1)));
    ASSERT_TRUE(tree.write(
        QStringLiteral("background/photo.jpg"), service_test::fixture("bg_640x284_baseline.jpg")));
    ASSERT_TRUE(tree.write(
        QStringLiteral("background/two.png"), service_test::background_image(600000, 2)));
    ASSERT_TRUE(tree.write(
        QStringLiteral("background/exact.png"), service_test::background_image(512000, 3)));
    ASSERT_TRUE(tree.write(
        QStringLiteral("background/full.png"), service_test::background_image(1048576, 4)));
    QTemporaryDir outside;
    ASSERT_TRUE(outside.isValid());
    const QString secret = outside.path() + QStringLiteral("/secret.png");
    {
        QFile file(secret);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(service_test::background_image(3000, 5));
    }
    ASSERT_TRUE(host.create());
    host.start(true);
    auto client = host.client(QStringLiteral("downloader"));
    auto other = host.client(QStringLiteral("other"));
    ASSERT_TRUE(client && other);

    client->send(QStringLiteral("ctx_request"), QJsonObject());
    ASSERT_TRUE(wait_until([&] { return unicast_count(*client, "ctx_list") == 1; }));
    const QJsonObject list = client->of_type(QStringLiteral("ctx_list")).constLast().payload;
    ASSERT_EQ(list.size(), 5);
    ASSERT_EQ(list, host.files_object());

    // The list plus names that would read outside the root: those are refused, the rest goes.
    QJsonArray wanted = keys_of(list);
    const QString escape = QStringLiteral("background/../../%1/secret.png")
                               .arg(QFileInfo(outside.path()).fileName());
    wanted.append(escape);
    wanted.append(secret);
    client->clear();
    other->clear();
    log.clear();
    client->send_message(QStringLiteral("ctx_download_request"), wanted);

    ASSERT_TRUE(wait_until(
        [&] {
            for (auto it = list.begin(); it != list.end(); ++it) {
                if (!client->complete(it.key()))
                    return false;
            }
            return true;
        },
        30000));
    expect_downloaded(*client, list);
    EXPECT_EQ(client->files.size(), 5);
    EXPECT_EQ(client->chunks_seen.value("background/exact.png"), 1);
    EXPECT_EQ(client->chunks_seen.value("background/two.png"), 2);
    EXPECT_EQ(client->chunks_seen.value("background/full.png"), 3);
    EXPECT_TRUE(other->of_type(QStringLiteral("ctx_chunk")).isEmpty());
    for (const auto& chunk : client->of_type(QStringLiteral("ctx_chunk"))) {
        EXPECT_FALSE(chunk.broadcast);
        EXPECT_EQ(chunk.subtype, QString());
    }

    // The sender ends with its download and every client receives the list.
    ASSERT_TRUE(wait_until([&] { return senders(host) == 0; }));
    ASSERT_TRUE(other->wait_for(QStringLiteral("ctx_list")));
    EXPECT_TRUE(other->of_type(QStringLiteral("ctx_list")).first().broadcast);
    EXPECT_EQ(other->of_type(QStringLiteral("ctx_list")).first().payload, list);

    EXPECT_TRUE(log.contains(QStringLiteral("Download request from client downloader"), 6));
    EXPECT_TRUE(log.contains(QStringLiteral("Create a new file_sender for downloader ..."), 6));
    EXPECT_TRUE(log.contains(QStringLiteral("Set file sender INTERVAL_BETWEEN_FILES to 10"), 4));
    EXPECT_TRUE(log.contains(QStringLiteral("Try to start file sender for client downloader"), 6));
    EXPECT_TRUE(log.contains(QStringLiteral("Starting upload context for downloader... "), 4));
    EXPECT_TRUE(log.contains(QStringLiteral("End of upload context for downloader ... "), 4));
    EXPECT_EQ(log.count(QStringLiteral("Publish ctx_chunk for downloader"), 6), 1 + 1 + 2 + 1 + 3);
    EXPECT_TRUE(log.contains(QStringLiteral("End of send file %1 to client downloader!")
                                 .arg(tree.path("background/full.png")),
        6));
    EXPECT_TRUE(log.contains(QStringLiteral("Progress for client downloader 100%"), 4));
    EXPECT_TRUE(log.contains(QStringLiteral("on_fs_fileProgressUpdated Progress for client "
                                            "downloader file background/two.png [%1 %]")
                                 .arg(QString::number(double(512000) / double(600000) * 100.0, 'g',
                                     QLocale::FloatingPointShortest)),
        6));
    EXPECT_TRUE(log.contains(QStringLiteral("Try to delete instance "), 6));
    EXPECT_TRUE(log.contains(QStringLiteral("Instance of  destroyed"), 6));
    EXPECT_TRUE(log.contains_fragment(
        QStringLiteral("Refused path \"%1\" in ctx_download_request from client downloader: ")
            .arg(escape),
        3));
    EXPECT_TRUE(log.contains_fragment(
        QStringLiteral("Refused path \"%1\" in ctx_download_request from client downloader: ")
            .arg(secret),
        3));
}

TEST(ContextSyncDownload, PacingFollowsTheNumberOfSenders)
{
    test_support::log_capture_t log;
    host_t host;
    ASSERT_TRUE(host.tree().write(
        QStringLiteral("background/big.png"), service_test::background_image(600000, 1)));
    ASSERT_TRUE(host.tree().write(
        QStringLiteral("background/small.png"), service_test::background_image(3000, 2)));
    ASSERT_TRUE(host.create());
    host.start(true);
    auto slow = host.client(QStringLiteral("slow"));
    auto quick = host.client(QStringLiteral("quick"));
    ASSERT_TRUE(slow && quick);
    slow->acknowledge = false;

    // The first sender: 5 x 1 + 5.
    slow->send_message(QStringLiteral("ctx_download_request"), QJsonArray { "background/big.png" });
    ASSERT_TRUE(slow->wait_for(QStringLiteral("ctx_chunk")));
    EXPECT_TRUE(log.contains(QStringLiteral("Set file sender INTERVAL_BETWEEN_FILES to 10"), 4));
    EXPECT_EQ(file_sender_t::INTERVAL_BETWEEN_FILES.load(), 10);
    EXPECT_EQ(file_sender_t::INTERVAL_BETWEEN_PACKET.load(), 10);

    // A second client's sender: 15; when it has ended: 10 again.
    const int lists_before = slow->count(QStringLiteral("ctx_list"));
    quick->send_message(
        QStringLiteral("ctx_download_request"), QJsonArray { "background/small.png" });
    ASSERT_TRUE(log.wait_for(QStringLiteral("Set file sender INTERVAL_BETWEEN_FILES to 15"), 4));
    ASSERT_TRUE(
        wait_until([&] { return quick->complete(QStringLiteral("background/small.png")); }));
    ASSERT_TRUE(wait_until([&] { return senders(host) == 1; }));
    // Its end is broadcast as the list.
    ASSERT_TRUE(slow->wait_for(QStringLiteral("ctx_list"), lists_before + 1));
    EXPECT_EQ(file_sender_t::INTERVAL_BETWEEN_FILES.load(), 10);
    EXPECT_EQ(file_sender_t::INTERVAL_BETWEEN_PACKET.load(), 10);

    // Stopping every sender leaves the pacing as it was.
    slow->clear();
    quick->clear();
    log.clear();
    quick->send(QStringLiteral("ctx_stop_transfer"), QJsonObject());
    ASSERT_TRUE(slow->wait_for(QStringLiteral("ctx_stop_transfer")));
    ASSERT_TRUE(quick->wait_for(QStringLiteral("ctx_stop_transfer")));
    EXPECT_TRUE(slow->of_type(QStringLiteral("ctx_stop_transfer")).first().broadcast);
    EXPECT_TRUE(slow->of_type(QStringLiteral("ctx_stop_transfer")).first().payload.isEmpty());
    EXPECT_EQ(senders(host), 0);
    EXPECT_TRUE(log.contains(QStringLiteral("Stop all transfer from client quick ... "), 6));
    EXPECT_TRUE(log.contains(QStringLiteral("Stoppin file sender for client slow"), 2));
    EXPECT_EQ(file_sender_t::INTERVAL_BETWEEN_FILES.load(), 10);
    EXPECT_EQ(file_sender_t::INTERVAL_BETWEEN_PACKET.load(), 10);
    // The stopped sender never times out afterwards.
    settle(5500);
    EXPECT_FALSE(log.contains_fragment(QStringLiteral("Timeout occured")));
    EXPECT_EQ(slow->count(QStringLiteral("ctx_list")), 0);
}

TEST(ContextSyncDownload, TenClientsDownloadAtOnceAndAnEleventhIsIgnored)
{
    test_support::log_capture_t log;
    host_t host;
    ASSERT_TRUE(host.tree().write(
        QStringLiteral("background/big.png"), service_test::background_image(600000, 1)));
    ASSERT_TRUE(host.tree().write(
        QStringLiteral("background/small.png"), service_test::background_image(3000, 2)));
    ASSERT_TRUE(host.create());
    host.start(true);
    const QJsonObject list = host.files_object();

    std::vector<std::unique_ptr<service_test::client_t>> clients;
    for (int i = 0; i < 11; ++i) {
        clients.push_back(host.client(QStringLiteral("c%1").arg(i)));
        ASSERT_TRUE(clients.back());
        clients.back()->acknowledge = false;
    }

    // Ten downloads, held at their first chunk so that all ten senders are alive at once.
    for (int i = 0; i < 10; ++i)
        clients[i]->send_message(QStringLiteral("ctx_download_request"), keys_of(list));
    ASSERT_TRUE(log.wait_for(QStringLiteral("Set file sender INTERVAL_BETWEEN_FILES to 55"), 4));
    EXPECT_EQ(senders(host), 10);
    QList<int> logged;
    for (const QString& message : log.messages(4)) {
        if (message.startsWith(QStringLiteral("Set file sender INTERVAL_BETWEEN_FILES to ")))
            logged.append(message.section(QLatin1Char(' '), -1).toInt());
    }
    EXPECT_EQ(logged, (QList<int> { 10, 15, 20, 25, 30, 35, 40, 45, 50, 55 }));

    clients[10]->send_message(QStringLiteral("ctx_download_request"), keys_of(list));
    ASSERT_TRUE(log.wait_for(QStringLiteral("Download request from client c10"), 6));
    settle(300);
    EXPECT_EQ(senders(host), 10);
    EXPECT_FALSE(log.contains(QStringLiteral("Create a new file_sender for c10 ..."), 6));
    EXPECT_FALSE(log.contains(QStringLiteral("Try to start file sender for client c10"), 6));

    // Release the ten: each handles (checks and acknowledges) the chunk it holds, and every
    // later one as it comes.
    for (int i = 0; i < 10; ++i) {
        auto& client = *clients[i];
        ASSERT_TRUE(client.wait_for(QStringLiteral("ctx_chunk")));
        client.acknowledge = true;
        for (const auto& response : client.of_type(QStringLiteral("ctx_chunk")))
            client.handle_chunk(response.payload);
    }

    // The pacing follows the senders back down as they end.
    QList<int> seen { file_sender_t::INTERVAL_BETWEEN_FILES.load() };
    ASSERT_TRUE(wait_until(
        [&] {
            const int now = file_sender_t::INTERVAL_BETWEEN_FILES.load();
            if (now != seen.constLast())
                seen.append(now);
            return senders(host) == 0;
        },
        60000));
    if (seen.constLast() != file_sender_t::INTERVAL_BETWEEN_FILES.load())
        seen.append(file_sender_t::INTERVAL_BETWEEN_FILES.load());
    EXPECT_EQ(seen.constFirst(), 55);
    EXPECT_EQ(seen.constLast(), 5);
    for (qsizetype i = 1; i < seen.size(); ++i)
        EXPECT_LT(seen.at(i), seen.at(i - 1));
    EXPECT_EQ(file_sender_t::INTERVAL_BETWEEN_PACKET.load(), 5);

    for (int i = 0; i < 10; ++i)
        expect_downloaded(*clients[i], list);
    EXPECT_EQ(clients[10]->count(QStringLiteral("ctx_chunk")), 0);
}

TEST(ContextSyncDownload, ASilentClientHasItsSenderStoppedAndTheListBroadcast)
{
    test_support::log_capture_t log;
    host_t host;
    ASSERT_TRUE(host.tree().write(
        QStringLiteral("background/big.png"), service_test::background_image(600000, 1)));
    ASSERT_TRUE(host.create());
    host.start(true);
    auto silent = host.client(QStringLiteral("silent"));
    auto other = host.client(QStringLiteral("other"));
    ASSERT_TRUE(silent && other);
    silent->acknowledge = false;
    settle(200);
    other->clear();

    silent->send_message(
        QStringLiteral("ctx_download_request"), QJsonArray { "background/big.png" });
    ASSERT_TRUE(silent->wait_for(QStringLiteral("ctx_chunk")));
    QElapsedTimer since_chunk;
    since_chunk.start();
    EXPECT_EQ(senders(host), 1);

    ASSERT_TRUE(log.wait_for(
        QStringLiteral(
            "on_fs_timeout_occurred Timeout occured for client silent file background/big.png"),
        2, std::chrono::milliseconds(15000)));
    EXPECT_GE(since_chunk.elapsed(), 4500);
    ASSERT_TRUE(wait_until([&] { return senders(host) == 0; }));
    ASSERT_TRUE(other->wait_for(QStringLiteral("ctx_list")));
    EXPECT_TRUE(other->of_type(QStringLiteral("ctx_list")).first().broadcast);
    EXPECT_EQ(other->of_type(QStringLiteral("ctx_list")).first().payload, host.files_object());
    EXPECT_EQ(silent->count(QStringLiteral("ctx_chunk")), 1);
}

TEST(ContextSyncDownload, DestroyingTheServiceStopsEverySender)
{
    test_support::log_capture_t log;
    host_t host;
    ASSERT_TRUE(host.tree().write(
        QStringLiteral("background/big.png"), service_test::background_image(600000, 1)));
    ASSERT_TRUE(host.create());
    host.start(true);
    auto client = host.client(QStringLiteral("held"));
    ASSERT_TRUE(client);
    client->acknowledge = false;
    client->send_message(
        QStringLiteral("ctx_download_request"), QJsonArray { "background/big.png" });
    ASSERT_TRUE(client->wait_for(QStringLiteral("ctx_chunk")));

    host.destroy();
    EXPECT_TRUE(log.contains(QStringLiteral("Stoppic context sync"), 2));
    EXPECT_TRUE(log.contains(QStringLiteral("Stoppin file sender for client held"), 2));
    EXPECT_TRUE(log.contains(QStringLiteral("Instance of  destroyed"), 6));
}

TEST(ContextSyncDownload, StoppingAClientWithoutSenderOnlyLogs)
{
    test_support::log_capture_t log;
    host_t host;
    ASSERT_TRUE(host.create());
    host.start(true);
    auto client = host.client(QStringLiteral("nobody"));
    ASSERT_TRUE(client);
    settle(300);
    client->clear();

    ASSERT_TRUE(QMetaObject::invokeMethod(host.service(), "stopping_file_sender",
        Qt::BlockingQueuedConnection, Q_ARG(QString, QStringLiteral("nobody"))));
    EXPECT_TRUE(log.contains(QStringLiteral("File sender for client nobody not exist!"), 3));
    settle(500);
    EXPECT_TRUE(client->responses.isEmpty());
}
