#include "context_sync_client/file_download_t.h"

#include "client_test_env_t.h"
#include "peer_fixture_t.h"
#include "scripted_server_t.h"

#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"

#include "common/mosquitto_broker_t.h"
#include "common/temp_tree_t.h"

#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QProcess>

#include <gtest/gtest.h>

using client_test::peer_fixture_t;
using context_sync_client::client_connection_t;
using context_sync_client::context_tree_t;
using context_sync_client::file_download_t;
using context_sync_client::file_map_t;
using codec_t = context_sync_engine::chunk_codec_t;

namespace {

QString md5(const QByteArray& bytes)
{
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex());
}

QJsonObject chunk_of(const QString& file, const QByteArray& content, int index)
{
    codec_t::header_t header;
    header.file = file;
    header.chunk_index = index;
    header.total_chunks = codec_t::chunk_count(content.size());
    return codec_t::build_chunk(
        header, content.mid(index * codec_t::CHUNK_SIZE, codec_t::CHUNK_SIZE), 9);
}

// The server side of a download done right: every file in order, each chunk after the
// acknowledgement of the previous one.
void serve_files(client_test::scripted_server_t& server, const QMap<QString, QByteArray>& files)
{
    server.react = [&server, files](const client_test::scripted_server_t::request_t& request) {
        if (request.type == QLatin1String("ctx_download_request")) {
            const QString first
                = request.payload.value(QStringLiteral("message")).toArray().first().toString();
            server.respond(QStringLiteral("ctx_chunk"), request.origin,
                chunk_of(first, files.value(first), 0));
        } else if (request.type == QLatin1String("ctx_chunk_ack")) {
            const codec_t::ack_t ack = codec_t::read_ack(request.message());
            const QByteArray content = files.value(ack.file);
            if (ack.chunk_index + 1 < codec_t::chunk_count(content.size())) {
                server.respond(QStringLiteral("ctx_chunk"), request.origin,
                    chunk_of(ack.file, content, ack.chunk_index + 1));
                return;
            }
            const auto next = std::next(files.find(ack.file));
            if (next != files.end())
                server.respond(QStringLiteral("ctx_chunk"), request.origin,
                    chunk_of(next.key(), next.value(), 0));
        }
    };
}

} // namespace

TEST(file_download_t, PrepareTargetRefusesUnsafePaths)
{
    test_support::temp_tree_t dir;
    const QList<QPair<QString, QString>> cases {
        { QStringLiteral("../x"),
            QStringLiteral("unsafe path \"../x\" refused: contains a '..' segment") },
        { QStringLiteral("/etc/x"), QStringLiteral("unsafe path \"/etc/x\" refused: is absolute") },
        { QStringLiteral("a/./b"),
            QStringLiteral("unsafe path \"a/./b\" refused: contains a '.' segment") },
        { QStringLiteral("a\\b"),
            QStringLiteral("unsafe path \"a\\x5cb\" refused: contains a backslash") },
        { QString(), QStringLiteral("unsafe path \"\" refused: is empty") },
    };
    for (const auto& [path, message] : cases) {
        QString error;
        EXPECT_TRUE(file_download_t::prepare_target(dir.root(), path, &error).isEmpty())
            << path.toStdString();
        EXPECT_EQ(error, message);
    }
    EXPECT_TRUE(dir.files().isEmpty());
}

TEST(file_download_t, PrepareTargetRefusesAFolderThatLinksOutOfTheDestination)
{
    test_support::temp_tree_t dir;
    test_support::temp_tree_t outside;
    ASSERT_TRUE(QFile::link(outside.root(), dir.path(QStringLiteral("escape"))));
    QString error;
    EXPECT_TRUE(
        file_download_t::prepare_target(dir.root(), QStringLiteral("escape/sub/x.png"), &error)
            .isEmpty());
    EXPECT_EQ(error,
        QStringLiteral("\"escape/sub/x.png\" refused: its folder leads outside %1")
            .arg(QFileInfo(dir.root()).canonicalFilePath()));
    // The check comes before any folder is made: nothing appears behind the link.
    EXPECT_TRUE(outside.files().isEmpty());
    EXPECT_FALSE(QFileInfo::exists(outside.path(QStringLiteral("sub"))));
}

TEST(file_download_t, PrepareTargetCreatesFoldersInsideTheDestination)
{
    test_support::temp_tree_t dir;
    QString error;
    const QString target = file_download_t::prepare_target(
        dir.root(), QStringLiteral("background/deep/x.png"), &error);
    EXPECT_EQ(target,
        QFileInfo(dir.root()).canonicalFilePath() + QStringLiteral("/background/deep/x.png"));
    EXPECT_TRUE(QFileInfo(dir.path(QStringLiteral("background/deep"))).isDir());
}

TEST(file_download_t, WriteAtomicallyReplacesTheFileAndLeavesNoTemporary)
{
    test_support::temp_tree_t dir;
    ASSERT_TRUE(dir.write(QStringLiteral("a.txt"), "old"));
    QString error;
    ASSERT_TRUE(
        file_download_t::write_atomically(dir.path(QStringLiteral("a.txt")), "new", &error));
    EXPECT_EQ(dir.read(QStringLiteral("a.txt")), QByteArray("new"));
    EXPECT_EQ(dir.files(), QStringList { QStringLiteral("a.txt") });
}

TEST(file_download_t, FilesArriveChunkByChunkAndEachChunkIsAcknowledged)
{
    peer_fixture_t peer;
    ASSERT_TRUE(peer.start(QStringLiteral("downloader")));
    const QByteArray big = test_support::temp_tree_t::random_bytes(codec_t::CHUNK_SIZE + 1, 7);
    const QByteArray small = test_support::temp_tree_t::text_bytes(1000);
    const QMap<QString, QByteArray> files { { QStringLiteral("background/big.bin"), big },
        { QStringLiteral("background/small.txt"), small } };
    serve_files(*peer.server, files);
    test_support::temp_tree_t dir;
    file_download_t download(*peer.client, dir.root());
    const file_map_t wanted { { QStringLiteral("background/big.bin"), md5(big) },
        { QStringLiteral("background/small.txt"), md5(small) } };
    const file_download_t::result_t result = download.run(wanted, 10000);
    ASSERT_TRUE(result.ok()) << result.failed().join(',').toStdString();
    EXPECT_EQ(result.bytes, big.size() + small.size());
    EXPECT_EQ(dir.read(QStringLiteral("background/big.bin")), big);
    EXPECT_EQ(dir.read(QStringLiteral("background/small.txt")), small);
    EXPECT_EQ(dir.files(),
        (QStringList {
            QStringLiteral("background/big.bin"), QStringLiteral("background/small.txt") }));

    const auto requests = peer.server->of_type(QStringLiteral("ctx_download_request"));
    ASSERT_EQ(requests.size(), 1);
    EXPECT_EQ(requests[0].payload.value(QStringLiteral("message")).toArray(),
        (QJsonArray {
            QStringLiteral("background/big.bin"), QStringLiteral("background/small.txt") }));
    ASSERT_TRUE(client_test::wait_until(
        [&] { return peer.server->of_type(QStringLiteral("ctx_chunk_ack")).size() == 3; }, 5000));
    const auto acks = peer.server->of_type(QStringLiteral("ctx_chunk_ack"));
    EXPECT_EQ(acks[0].message(),
        (QJsonObject { { QStringLiteral("file"), QStringLiteral("background/big.bin") },
            { QStringLiteral("chunkIndex"), 0 } }));
    EXPECT_EQ(acks[1].message(),
        (QJsonObject { { QStringLiteral("file"), QStringLiteral("background/big.bin") },
            { QStringLiteral("chunkIndex"), 1 } }));
    EXPECT_EQ(acks[2].message(),
        (QJsonObject { { QStringLiteral("file"), QStringLiteral("background/small.txt") },
            { QStringLiteral("chunkIndex"), 0 } }));
}

TEST(file_download_t, AChunkThatFailsItsHashIsNotAcknowledgedAndNothingIsWritten)
{
    peer_fixture_t peer;
    ASSERT_TRUE(peer.start(QStringLiteral("downloader")));
    const QByteArray content = test_support::temp_tree_t::text_bytes(5000);
    peer.server->react = [&](const client_test::scripted_server_t::request_t& request) {
        if (request.type != QLatin1String("ctx_download_request"))
            return;
        QJsonObject chunk = chunk_of(QStringLiteral("background/a.txt"), content, 0);
        chunk.insert(QStringLiteral("hash"), md5("something else"));
        peer.server->respond(QStringLiteral("ctx_chunk"), request.origin, chunk);
    };
    test_support::temp_tree_t dir;
    file_download_t download(*peer.client, dir.root());
    const file_download_t::result_t result
        = download.run({ { QStringLiteral("background/a.txt"), md5(content) } }, 10000);
    ASSERT_EQ(result.files.size(), 1);
    EXPECT_FALSE(result.files[0].ok);
    EXPECT_EQ(result.files[0].error,
        QStringLiteral("chunk 0 failed its MD5 check (expected %1, decoded data has %2)")
            .arg(md5("something else"), md5(content)));
    EXPECT_FALSE(result.timed_out);
    client_test::wait_until([] { return false; }, 300);
    EXPECT_TRUE(peer.server->of_type(QStringLiteral("ctx_chunk_ack")).isEmpty());
    EXPECT_TRUE(dir.files().isEmpty());
}

TEST(file_download_t, AWholeFileThatDiffersFromTheListIsNotRenamedIntoPlace)
{
    peer_fixture_t peer;
    ASSERT_TRUE(peer.start(QStringLiteral("downloader")));
    const QByteArray sent = test_support::temp_tree_t::text_bytes(3000);
    serve_files(*peer.server, { { QStringLiteral("background/a.txt"), sent } });
    test_support::temp_tree_t dir;
    ASSERT_TRUE(dir.write(QStringLiteral("background/a.txt"), "kept"));
    file_download_t download(*peer.client, dir.root());
    const QString listed = md5("what the list said");
    const file_download_t::result_t result
        = download.run({ { QStringLiteral("background/a.txt"), listed } }, 10000);
    ASSERT_EQ(result.files.size(), 1);
    EXPECT_FALSE(result.files[0].ok);
    EXPECT_EQ(result.files[0].error,
        QStringLiteral("the whole file has MD5 %1, the server's list says %2")
            .arg(md5(sent), listed));
    EXPECT_EQ(dir.read(QStringLiteral("background/a.txt")), QByteArray("kept"));
    EXPECT_EQ(dir.files(), QStringList { QStringLiteral("background/a.txt") });
}

TEST(file_download_t, EmptyFilesAreMadeFromTheListAndUnsafePathsAreNeverAskedFor)
{
    peer_fixture_t peer;
    ASSERT_TRUE(peer.start(QStringLiteral("downloader")));
    test_support::temp_tree_t dir;
    file_download_t download(*peer.client, dir.root());
    const file_download_t::result_t result = download.run(
        { { QStringLiteral("background/empty.png"), context_tree_t::EMPTY_FILE_HASH },
            { QStringLiteral("../evil"), md5("x") } },
        10000);
    ASSERT_EQ(result.files.size(), 2);
    EXPECT_EQ(result.files[0].path, QStringLiteral("../evil"));
    EXPECT_FALSE(result.files[0].ok);
    EXPECT_TRUE(result.files[0].refused);
    EXPECT_EQ(result.files[0].error,
        QStringLiteral("unsafe path \"../evil\" refused: contains a '..' segment"));
    EXPECT_TRUE(result.files[1].ok);
    EXPECT_TRUE(QFileInfo(dir.path(QStringLiteral("background/empty.png"))).isFile());
    EXPECT_EQ(dir.read(QStringLiteral("background/empty.png")), QByteArray());
    EXPECT_FALSE(QFileInfo::exists(QDir(dir.root()).absoluteFilePath(QStringLiteral("../evil"))));
    client_test::wait_until([] { return false; }, 300);
    EXPECT_TRUE(peer.server->requests.isEmpty());
}

TEST(file_download_t, ABatchThatEndsWithoutTheFileFailsItWithoutWaitingForTheTimeOut)
{
    peer_fixture_t peer;
    ASSERT_TRUE(peer.start(QStringLiteral("downloader")));
    peer.server->react = [&](const client_test::scripted_server_t::request_t& request) {
        if (request.type == QLatin1String("ctx_download_request"))
            peer.server->respond(QStringLiteral("ctx_list"), QStringLiteral("all"), {});
    };
    test_support::temp_tree_t dir;
    file_download_t download(*peer.client, dir.root());
    const file_download_t::result_t result
        = download.run({ { QStringLiteral("background/gone.png"), md5("x") } }, 60000);
    ASSERT_EQ(result.files.size(), 1);
    EXPECT_FALSE(result.files[0].ok);
    EXPECT_TRUE(result.files[0].missing);
    EXPECT_FALSE(result.timed_out);
    EXPECT_EQ(result.tries, 1);
    // The batch's end brought the server's list, which no longer holds the file.
    EXPECT_EQ(result.files[0].error, QStringLiteral("the file is no longer on the server"));
}

TEST(file_download_t, AnotherClientsBatchEndIsNotTakenForOurs)
{
    // The server is busy: it ignores the first request, and another client's batch ends (a list
    // broadcast that still holds the file). No chunk of ours follows, so the broadcast says that
    // a slot is free: the second request goes out without the back-off, and is served.
    peer_fixture_t peer;
    ASSERT_TRUE(peer.start(QStringLiteral("downloader")));
    const QByteArray content = test_support::temp_tree_t::text_bytes(4000);
    const QString path = QStringLiteral("background/a.txt");
    int requests = 0;
    peer.server->react = [&](const client_test::scripted_server_t::request_t& request) {
        if (request.type == QLatin1String("ctx_download_request")) {
            if (++requests == 1)
                peer.server->respond(QStringLiteral("ctx_list"), QStringLiteral("all"),
                    QJsonObject { { path, md5(content) } });
            else
                peer.server->respond(
                    QStringLiteral("ctx_chunk"), request.origin, chunk_of(path, content, 0));
        }
    };
    test_support::temp_tree_t dir;
    file_download_t download(*peer.client, dir.root());
    QList<int> waits;
    QStringList reasons;
    QObject::connect(&download, &file_download_t::retrying, &download,
        [&](int try_number, int wait_ms, const QString& reason) {
            EXPECT_EQ(try_number, 2);
            waits.append(wait_ms);
            reasons.append(reason);
        });
    file_download_t::options_t options;
    options.seed = 11;
    const file_download_t::result_t result = download.run({ { path, md5(content) } }, options);
    ASSERT_TRUE(result.ok()) << result.files.value(0).error.toStdString();
    EXPECT_EQ(result.tries, 2);
    EXPECT_EQ(result.retries(), 1);
    EXPECT_EQ(dir.read(path), content);
    EXPECT_EQ(result.early_tries, 1);
    // The random wait after the broadcast (0 to 250 ms) replaced the back-off's 250 to 500 ms.
    EXPECT_EQ(waits, QList<int> { 0 });
    EXPECT_EQ(reasons,
        QStringList { QStringLiteral("another client's batch ended before any chunk came") });
    EXPECT_EQ(peer.server->of_type(QStringLiteral("ctx_download_request")).size(), 2);
}

TEST(file_download_t, ABroadcastDuringTheBackOffBringsTheNextTryForward)
{
    // A full server ignores four requests; the back-off then draws 2 to 4 s before the fifth try.
    // Another client's batch ends during that wait (a list broadcast): a slot is free, and the
    // fifth request goes out within the random 0 to 250 ms that follow the broadcast. It is
    // served.
    peer_fixture_t peer;
    ASSERT_TRUE(peer.start(QStringLiteral("downloader")));
    const QByteArray content = test_support::temp_tree_t::text_bytes(4000);
    const QString path = QStringLiteral("background/a.txt");
    int requests = 0;
    QElapsedTimer since_broadcast;
    qint64 fifth_after_ms = -1;
    peer.server->react = [&](const client_test::scripted_server_t::request_t& request) {
        if (request.type != QLatin1String("ctx_download_request") || ++requests < 5)
            return;
        fifth_after_ms = since_broadcast.elapsed();
        peer.server->respond(
            QStringLiteral("ctx_chunk"), request.origin, chunk_of(path, content, 0));
    };
    test_support::temp_tree_t dir;
    file_download_t download(*peer.client, dir.root());
    QList<int> waits;
    QObject::connect(&download, &file_download_t::retrying, &download,
        [&](int try_number, int wait_ms, const QString& reason) {
            EXPECT_EQ(try_number, waits.size() + 2);
            EXPECT_EQ(reason, QStringLiteral("no chunk within 1000 ms"));
            waits.append(wait_ms);
            if (try_number == 5) {
                // Sent while the client starts its wait: the broadcast arrives during it.
                since_broadcast.start();
                peer.server->respond(QStringLiteral("ctx_list"), QStringLiteral("all"),
                    QJsonObject { { path, md5(content) } });
            }
        });
    file_download_t::options_t options;
    // Long enough that the served fifth request's chunk is never taken for a sixth refusal on a
    // loaded machine.
    options.busy_window_ms = 1000;
    options.seed = 3;
    const file_download_t::result_t result = download.run({ { path, md5(content) } }, options);
    ASSERT_TRUE(result.ok()) << result.files.value(0).error.toStdString();
    EXPECT_EQ(dir.read(path), content);
    EXPECT_EQ(result.tries, 5);
    EXPECT_EQ(result.early_tries, 1);
    ASSERT_EQ(waits.size(), 4);
    EXPECT_GE(waits[3], 2000);
    // The fifth request came before the back-off's wait could have ended.
    ASSERT_GE(fifth_after_ms, 0);
    EXPECT_LT(fifth_after_ms, waits[3]);
    EXPECT_EQ(peer.server->of_type(QStringLiteral("ctx_download_request")).size(), 5);
}

TEST(file_download_t, ARequestThatIsIgnoredIsTriedAgainUntilTheDeadline)
{
    peer_fixture_t peer;
    ASSERT_TRUE(peer.start(QStringLiteral("downloader")));
    test_support::temp_tree_t dir;
    file_download_t download(*peer.client, dir.root());
    int retries = 0;
    QObject::connect(
        &download, &file_download_t::retrying, &download, [&](int, int, const QString& reason) {
            ++retries;
            EXPECT_EQ(reason, QStringLiteral("no chunk within 200 ms"));
        });
    file_download_t::options_t options;
    options.busy_window_ms = 200;
    options.deadline_ms = 2500;
    options.seed = 5;
    const file_download_t::result_t result
        = download.run({ { QStringLiteral("background/a.png"), md5("x") } }, options);
    // Waits of 250-500 and 500-1000 ms after windows of 200 ms: at least two tries fit in 2.5 s;
    // the last wait drawn would have ended after the deadline.
    EXPECT_GE(result.tries, 2);
    EXPECT_EQ(retries, result.tries - 1);
    EXPECT_TRUE(result.timed_out);
    ASSERT_EQ(result.files.size(), 1);
    EXPECT_FALSE(result.files[0].missing);
    EXPECT_EQ(result.files[0].error,
        QStringLiteral("the server was busy: no chunk after %1 tries").arg(result.tries));
    EXPECT_EQ(peer.server->of_type(QStringLiteral("ctx_download_request")).size(), result.tries);
    // Every try asked for the list too.
    EXPECT_EQ(peer.server->of_type(QStringLiteral("ctx_request")).size(), result.tries);
    EXPECT_TRUE(dir.files().isEmpty());
}

TEST(file_download_t, SilenceFromTheServerEndsTheDownloadAfterTheTimeOut)
{
    peer_fixture_t peer;
    ASSERT_TRUE(peer.start(QStringLiteral("downloader")));
    const QByteArray big = test_support::temp_tree_t::random_bytes(codec_t::CHUNK_SIZE * 2, 4);
    // The first chunk comes, then nothing.
    peer.server->react = [&](const client_test::scripted_server_t::request_t& request) {
        if (request.type == QLatin1String("ctx_download_request"))
            peer.server->respond(QStringLiteral("ctx_chunk"), request.origin,
                chunk_of(QStringLiteral("background/a.bin"), big, 0));
    };
    test_support::temp_tree_t dir;
    file_download_t download(*peer.client, dir.root());
    const file_download_t::result_t result
        = download.run({ { QStringLiteral("background/a.bin"), md5(big) } }, 2000);
    // 2000 ms rather than less: the first chunk must come within it even on a loaded machine,
    // or the request would count as turned away by a busy server.
    EXPECT_TRUE(result.timed_out);
    EXPECT_EQ(result.tries, 1);
    ASSERT_EQ(result.files.size(), 1);
    EXPECT_EQ(result.files[0].error, QStringLiteral("no data from the server for 2000 ms"));
    EXPECT_TRUE(dir.files().isEmpty());
}

TEST(file_download_t, TheServersOfflineStatusEndsTheDownloadAtOnce)
{
    peer_fixture_t peer;
    ASSERT_TRUE(peer.start(QStringLiteral("downloader")));
    const QByteArray big = test_support::temp_tree_t::random_bytes(codec_t::CHUNK_SIZE * 2, 5);
    bool published = false;
    peer.server->react = [&](const client_test::scripted_server_t::request_t& request) {
        if (request.type == QLatin1String("ctx_download_request")) {
            peer.server->respond(QStringLiteral("ctx_chunk"), request.origin,
                chunk_of(QStringLiteral("background/a.bin"), big, 0));
        } else if (request.type == QLatin1String("ctx_chunk_ack") && !published) {
            // What the broker publishes for a server that died: its Will on the status topic.
            published = true;
            QProcess::execute(QStringLiteral("mosquitto_pub"),
                { QStringLiteral("-h"), peer.broker.host(), QStringLiteral("-p"),
                    QString::number(peer.broker.port()), QStringLiteral("-r"), QStringLiteral("-q"),
                    QStringLiteral("1"), QStringLiteral("-t"),
                    QStringLiteral("orvane/rr/context_sync/status"), QStringLiteral("-m"),
                    QStringLiteral("offline") });
        }
    };
    test_support::temp_tree_t dir;
    file_download_t download(*peer.client, dir.root());
    file_download_t::options_t options;
    options.silence_ms = 600000;
    options.deadline_ms = 600000;
    const file_download_t::result_t result
        = download.run({ { QStringLiteral("background/a.bin"), md5(big) } }, options);
    EXPECT_TRUE(result.server_gone);
    EXPECT_FALSE(result.timed_out);
    ASSERT_EQ(result.files.size(), 1);
    EXPECT_EQ(result.files[0].error,
        QStringLiteral("the server went away (its status is \"offline\") before the file arrived"));
    // The temporary file of the first chunk is gone.
    EXPECT_TRUE(dir.files().isEmpty());
    EXPECT_TRUE(QDir(dir.path(QStringLiteral("background")))
                    .entryList(QDir::Files | QDir::Hidden | QDir::System)
                    .isEmpty());
}

TEST(file_download_t, ACancelledDownloadLeavesNoTemporaryFile)
{
    peer_fixture_t peer;
    ASSERT_TRUE(peer.start(QStringLiteral("downloader")));
    const QByteArray big = test_support::temp_tree_t::random_bytes(codec_t::CHUNK_SIZE * 2, 6);
    bool acked = false;
    peer.server->react = [&](const client_test::scripted_server_t::request_t& request) {
        if (request.type == QLatin1String("ctx_download_request"))
            peer.server->respond(QStringLiteral("ctx_chunk"), request.origin,
                chunk_of(QStringLiteral("background/a.bin"), big, 0));
        else if (request.type == QLatin1String("ctx_chunk_ack"))
            acked = true;
    };
    test_support::temp_tree_t dir;
    file_download_t download(*peer.client, dir.root());
    file_download_t::options_t options;
    options.silence_ms = 600000;
    options.cancelled = [&] {
        return acked && QFileInfo::exists(dir.path(QStringLiteral("background/TMP_ctxsync_a.bin")));
    };
    const file_download_t::result_t result
        = download.run({ { QStringLiteral("background/a.bin"), md5(big) } }, options);
    EXPECT_TRUE(result.cancelled);
    ASSERT_EQ(result.files.size(), 1);
    EXPECT_EQ(result.files[0].error, QStringLiteral("interrupted before the file arrived"));
    EXPECT_FALSE(QFileInfo::exists(dir.path(QStringLiteral("background/TMP_ctxsync_a.bin"))));
    EXPECT_TRUE(dir.files().isEmpty());
}

TEST(file_download_t, TheVerdictOnAnEndedBatchTellsMissingFromBusy)
{
    const file_map_t expected { { QStringLiteral("a"), md5("a") },
        { QStringLiteral("b"), md5("b") }, { QStringLiteral("c"), md5("c") } };
    const QStringList pending { QStringLiteral("a"), QStringLiteral("b"), QStringLiteral("c") };
    // No list yet: nothing can be called missing; all are asked for again.
    file_download_t::batch_verdict_t verdict
        = file_download_t::judge_batch_end(pending, expected, std::nullopt, false);
    EXPECT_TRUE(verdict.missing.isEmpty());
    EXPECT_TRUE(verdict.unsent.isEmpty());
    EXPECT_EQ(verdict.retry, pending);
    EXPECT_TRUE(verdict.new_hashes.isEmpty());

    // The fresh list lacks b and holds c with new content.
    const file_map_t fresh { { QStringLiteral("a"), md5("a") }, { QStringLiteral("c"), md5("c2") },
        { QStringLiteral("z"), md5("z") } };
    verdict = file_download_t::judge_batch_end(pending, expected, fresh, false);
    EXPECT_EQ(verdict.missing, QStringList { QStringLiteral("b") });
    EXPECT_EQ(verdict.retry, (QStringList { QStringLiteral("a"), QStringLiteral("c") }));
    EXPECT_TRUE(verdict.unsent.isEmpty());
    EXPECT_EQ(verdict.new_hashes, (file_map_t { { QStringLiteral("c"), md5("c2") } }));

    // The same after a batch of ours that was served: what it left out is unreadable there.
    verdict = file_download_t::judge_batch_end(pending, expected, fresh, true);
    EXPECT_EQ(verdict.missing, QStringList { QStringLiteral("b") });
    EXPECT_TRUE(verdict.retry.isEmpty());
    EXPECT_EQ(verdict.unsent, (QStringList { QStringLiteral("a"), QStringLiteral("c") }));

    // An empty list: every pending file is gone.
    verdict = file_download_t::judge_batch_end(pending, expected, file_map_t(), false);
    EXPECT_EQ(verdict.missing, pending);
    EXPECT_TRUE(verdict.retry.isEmpty());
}

TEST(file_download_t, AStopFromTheServerAbandonsTheFileInProgress)
{
    peer_fixture_t peer;
    ASSERT_TRUE(peer.start(QStringLiteral("downloader")));
    const QByteArray big = test_support::temp_tree_t::random_bytes(codec_t::CHUNK_SIZE * 2, 3);
    peer.server->react = [&](const client_test::scripted_server_t::request_t& request) {
        if (request.type == QLatin1String("ctx_download_request"))
            peer.server->respond(QStringLiteral("ctx_chunk"), request.origin,
                chunk_of(QStringLiteral("background/big.bin"), big, 0));
        else if (request.type == QLatin1String("ctx_chunk_ack"))
            peer.server->respond(QStringLiteral("ctx_stop_transfer"), QStringLiteral("all"), {});
    };
    test_support::temp_tree_t dir;
    file_download_t download(*peer.client, dir.root());
    const file_download_t::result_t result
        = download.run({ { QStringLiteral("background/big.bin"), md5(big) } }, 10000);
    ASSERT_EQ(result.files.size(), 1);
    EXPECT_EQ(result.files[0].error,
        QStringLiteral("the server stopped all transfers before the file arrived"));
    // The partial temporary file is gone with the failure.
    EXPECT_TRUE(dir.files().isEmpty());
}

TEST(file_download_t, PullsAMultiChunkImageFromTheRealServer)
{
    client_test::client_test_env_t env;
    ASSERT_TRUE(env.start());
    QFile source(QStringLiteral(CONTEXT_SYNC_TEST_DATA_DIR "/images/padded_1048576.png"));
    ASSERT_TRUE(source.open(QIODevice::ReadOnly));
    const QByteArray content = source.readAll();
    ASSERT_TRUE(env.root().write(QStringLiteral("background/padded.png"), content));
    const file_map_t expected { { QStringLiteral("background/padded.png"), md5(content) } };
    ASSERT_TRUE(env.wait_for_server_tree(expected, 15000));
    auto connection = env.connect();
    ASSERT_TRUE(connection);
    test_support::temp_tree_t dir;
    file_download_t download(*connection, dir.root());
    int progress_calls = 0;
    QObject::connect(&download, &file_download_t::progress, &download,
        [&progress_calls](qint64, int, int, const QString&) { ++progress_calls; });
    const file_download_t::result_t result = download.run(expected, 10000);
    ASSERT_TRUE(result.ok()) << result.files.value(0).error.toStdString();
    EXPECT_EQ(dir.read(QStringLiteral("background/padded.png")), content);
    // Three chunks and the end of the file.
    EXPECT_EQ(progress_calls, 4);
}
