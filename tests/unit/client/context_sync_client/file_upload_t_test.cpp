#include "context_sync_client/file_upload_t.h"

#include "client_test_env_t.h"
#include "peer_fixture_t.h"
#include "scripted_server_t.h"

#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"

#include "common/mosquitto_broker_t.h"
#include "common/temp_tree_t.h"

#include <QCryptographicHash>
#include <QFile>

#include <gtest/gtest.h>

using client_test::peer_fixture_t;
using context_sync_client::client_connection_t;
using context_sync_client::file_map_t;
using context_sync_client::file_upload_t;
using codec_t = context_sync_engine::chunk_codec_t;

namespace {

QString md5(const QByteArray& bytes)
{
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex());
}

QString image_path(const QString& name)
{
    return QStringLiteral(CONTEXT_SYNC_TEST_DATA_DIR "/images/") + name;
}

} // namespace

TEST(file_upload_t, TransferProblemsAreFoundBeforeAnythingIsSent)
{
    test_support::temp_tree_t dir;
    ASSERT_TRUE(dir.write(QStringLiteral("empty"), {}));
    ASSERT_TRUE(dir.write(QStringLiteral("ok"), "x"));
    EXPECT_EQ(file_upload_t::transfer_problem(
                  dir.path(QStringLiteral("empty")), QStringLiteral("background/e")),
        QStringLiteral("%1 is empty: an empty file cannot be sent")
            .arg(dir.path(QStringLiteral("empty"))));
    EXPECT_EQ(file_upload_t::transfer_problem(
                  dir.path(QStringLiteral("missing")), QStringLiteral("background/m")),
        QStringLiteral("%1 is not a readable file").arg(dir.path(QStringLiteral("missing"))));
    EXPECT_EQ(
        file_upload_t::transfer_problem(dir.path(QStringLiteral("ok")), QStringLiteral("../x")),
        QStringLiteral("unsafe destination \"../x\": contains a '..' segment"));
    EXPECT_EQ(file_upload_t::transfer_problem(
                  dir.path(QStringLiteral("ok")), QStringLiteral("background/TMP_x")),
        QStringLiteral("destination \"background/TMP_x\" names a working file (\"TMP_\"), which "
                       "the server ignores"));
    EXPECT_EQ(file_upload_t::transfer_problem(
                  dir.path(QStringLiteral("ok")), QStringLiteral("background/ok")),
        QString());
}

TEST(file_upload_t, TheUploadLimitCountsWholeChunks)
{
    test_support::temp_tree_t dir;
    // 131 chunks of 512000 bytes fit in 64 MiB; one byte more makes a 132nd chunk that does not.
    const qint64 fits = 131 * codec_t::CHUNK_SIZE;
    QFile file(dir.path(QStringLiteral("sparse")));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    ASSERT_TRUE(file.resize(fits));
    file.close();
    EXPECT_EQ(file_upload_t::transfer_problem(file.fileName(), QStringLiteral("background/s")),
        QString());
    ASSERT_TRUE(file.resize(fits + 1));
    EXPECT_EQ(file_upload_t::transfer_problem(file.fileName(), QStringLiteral("background/s")),
        QStringLiteral("%1 is larger than the server's upload limit of 67108864 bytes")
            .arg(file.fileName()));
}

TEST(file_upload_t, PlacementProblemsExplainWhatTheServerWouldRemove)
{
    EXPECT_EQ(file_upload_t::placement_problem(
                  image_path("bg_640x284.png"), QStringLiteral("background/a.png")),
        QString());
    EXPECT_EQ(
        file_upload_t::placement_problem(image_path("bg_640x284.png"), QStringLiteral("a.png")),
        QStringLiteral("the server keeps files only directly under \"background/\""));
    EXPECT_EQ(file_upload_t::placement_problem(
                  image_path("bg_640x284.png"), QStringLiteral("background/sub/a.png")),
        QStringLiteral("the server keeps files only directly under \"background/\""));
    EXPECT_EQ(file_upload_t::placement_problem(
                  image_path("bg_284x640.jpg"), QStringLiteral("background/a.jpg")),
        QStringLiteral("284 x 640 pixels; a background must be 640 x 284"));
    EXPECT_EQ(file_upload_t::placement_problem(
                  image_path("bg_640x284.gif"), QStringLiteral("background/a.gif")),
        QStringLiteral("a GIF image; a background must be JPEG or PNG"));
    EXPECT_EQ(file_upload_t::placement_problem(
                  image_path("padded_1048577.png"), QStringLiteral("background/p.png")),
        QStringLiteral("1048577 bytes, more than the 1048576 a background may have"));
    EXPECT_EQ(file_upload_t::placement_problem(
                  image_path("make_fixtures.sh"), QStringLiteral("background/x")),
        QStringLiteral("not a readable JPEG or PNG image"));
}

TEST(file_upload_t, ChunksFollowTheWireFormatToTheByte)
{
    peer_fixture_t peer;
    ASSERT_TRUE(peer.start(QStringLiteral("uploader")));
    peer.acknowledge_all();
    test_support::temp_tree_t dir;
    const QByteArray first = test_support::temp_tree_t::random_bytes(codec_t::CHUNK_SIZE + 1, 11);
    const QByteArray second = test_support::temp_tree_t::text_bytes(100);
    ASSERT_TRUE(dir.write(QStringLiteral("first.bin"), first));
    ASSERT_TRUE(dir.write(QStringLiteral("second.txt"), second));
    file_upload_t upload(*peer.client);
    const file_upload_t::result_t result = upload.run(
        { { dir.path(QStringLiteral("first.bin")), QStringLiteral("background/first.bin") },
            { dir.path(QStringLiteral("second.txt")), QStringLiteral("background/second.txt") } },
        10000, false);
    ASSERT_TRUE(result.ok());
    EXPECT_EQ(result.bytes, first.size() + second.size());
    EXPECT_EQ(result.files[0].hash, md5(first));
    EXPECT_EQ(result.files[1].hash, md5(second));

    const auto chunks = peer.server->of_type(QStringLiteral("ctx_chunk"));
    ASSERT_EQ(chunks.size(), 3);
    const QStringList keys { QStringLiteral("chunk_index"), QStringLiteral("compression"),
        QStringLiteral("data"), QStringLiteral("file"), QStringLiteral("hash"),
        QStringLiteral("percent"), QStringLiteral("remaining_files"), QStringLiteral("speed"),
        QStringLiteral("total_chunks") };
    const QList<QByteArray> raw { first.left(codec_t::CHUNK_SIZE), first.mid(codec_t::CHUNK_SIZE),
        second };
    const QList<int> indexes { 0, 1, 0 };
    const QList<int> totals { 2, 2, 1 };
    const QList<int> remaining { 1, 1, 0 };
    for (int i = 0; i < 3; ++i) {
        const QJsonObject chunk = chunks[i].message();
        EXPECT_EQ(chunk.keys(), keys);
        EXPECT_EQ(chunk.value(QStringLiteral("chunk_index")).toInt(), indexes[i]);
        EXPECT_EQ(chunk.value(QStringLiteral("total_chunks")).toInt(), totals[i]);
        EXPECT_EQ(chunk.value(QStringLiteral("remaining_files")).toInt(), remaining[i]);
        EXPECT_EQ(chunk.value(QStringLiteral("compression")).toInt(), 9);
        EXPECT_EQ(chunk.value(QStringLiteral("percent")).toInt(), 0);
        EXPECT_EQ(chunk.value(QStringLiteral("hash")).toString(), md5(raw[i]));
        // Base64 of the qCompress framing: 4-byte big-endian length, then the zlib stream.
        const QByteArray payload
            = QByteArray::fromBase64(chunk.value(QStringLiteral("data")).toString().toUtf8());
        EXPECT_EQ(payload, qCompress(raw[i], 9));
        const codec_t::decoded_t decoded = codec_t::decode_chunk(chunk);
        EXPECT_TRUE(decoded.valid);
        EXPECT_EQ(decoded.bytes, raw[i]);
    }
    EXPECT_EQ(chunks[2].message().value(QStringLiteral("file")).toString(),
        QStringLiteral("background/second.txt"));
}

TEST(file_upload_t, AMissingAcknowledgementFailsTheFileAndTheRestOfTheBatch)
{
    peer_fixture_t peer;
    ASSERT_TRUE(peer.start(QStringLiteral("uploader")));
    test_support::temp_tree_t dir;
    ASSERT_TRUE(dir.write(QStringLiteral("a"), "a"));
    ASSERT_TRUE(dir.write(QStringLiteral("b"), "b"));
    file_upload_t upload(*peer.client);
    const file_upload_t::result_t result
        = upload.run({ { dir.path(QStringLiteral("a")), QStringLiteral("background/a") },
                         { dir.path(QStringLiteral("b")), QStringLiteral("background/b") } },
            300, false);
    EXPECT_TRUE(result.timed_out);
    ASSERT_EQ(result.files.size(), 2);
    EXPECT_EQ(
        result.files[0].error, QStringLiteral("no acknowledgement for chunk 0 of 1 within 300 ms"));
    EXPECT_EQ(
        result.files[1].error, QStringLiteral("not sent: an earlier file of the batch failed"));
    EXPECT_EQ(peer.server->of_type(QStringLiteral("ctx_chunk")).size(), 1);
}

TEST(file_upload_t, AnAcknowledgementForAnotherChunkIsIgnored)
{
    peer_fixture_t peer;
    ASSERT_TRUE(peer.start(QStringLiteral("uploader")));
    peer.server->react = [&peer](const client_test::scripted_server_t::request_t& request) {
        if (request.type != QLatin1String("ctx_chunk"))
            return;
        const codec_t::fields_t fields = codec_t::read_fields(request.message());
        // First a wrong index, then a wrong file, then the right one.
        peer.server->respond(QStringLiteral("ctx_chunk_ack"), request.origin,
            codec_t::build_ack(fields.header.file, fields.header.chunk_index + 5));
        peer.server->respond(QStringLiteral("ctx_chunk_ack"), request.origin,
            codec_t::build_ack(QStringLiteral("background/other"), fields.header.chunk_index));
        peer.server->respond(QStringLiteral("ctx_chunk_ack"), request.origin,
            codec_t::build_ack(fields.header.file, fields.header.chunk_index));
    };
    test_support::temp_tree_t dir;
    ASSERT_TRUE(dir.write(QStringLiteral("a"), "a"));
    file_upload_t upload(*peer.client);
    const file_upload_t::result_t result = upload.run(
        { { dir.path(QStringLiteral("a")), QStringLiteral("background/a") } }, 10000, false);
    EXPECT_TRUE(result.ok());
}

TEST(file_upload_t, AStopFromTheServerEndsTheUpload)
{
    peer_fixture_t peer;
    ASSERT_TRUE(peer.start(QStringLiteral("uploader")));
    peer.server->react = [&peer](const client_test::scripted_server_t::request_t& request) {
        if (request.type == QLatin1String("ctx_chunk"))
            peer.server->respond(QStringLiteral("ctx_stop_transfer"), QStringLiteral("all"), {});
    };
    test_support::temp_tree_t dir;
    ASSERT_TRUE(dir.write(QStringLiteral("a"), "a"));
    file_upload_t upload(*peer.client);
    const file_upload_t::result_t result = upload.run(
        { { dir.path(QStringLiteral("a")), QStringLiteral("background/a") } }, 60000, false);
    EXPECT_FALSE(result.timed_out);
    ASSERT_EQ(result.files.size(), 1);
    EXPECT_EQ(
        result.files[0].error, QStringLiteral("the server stopped all transfers at chunk 0 of 1"));
}

TEST(file_upload_t, TheRealServerKeepsAValidBackgroundAndRemovesAWrongSizedOne)
{
    client_test::client_test_env_t env;
    ASSERT_TRUE(env.start());
    auto connection = env.connect();
    ASSERT_TRUE(connection);
    file_upload_t upload(*connection);
    const file_upload_t::result_t result
        = upload.run({ { image_path("bg_640x284.png"), QStringLiteral("background/good.png") },
                         { image_path("bg_284x640.jpg"), QStringLiteral("background/wrong.jpg") } },
            10000, true);
    ASSERT_EQ(result.files.size(), 2);
    EXPECT_TRUE(result.files[0].ok) << result.files[0].error.toStdString();
    EXPECT_FALSE(result.files[1].ok);
    EXPECT_TRUE(result.files[1].refused);
    EXPECT_EQ(result.files[1].error,
        QStringLiteral("the server removed background/wrong.jpg after receiving it (284 x 640 "
                       "pixels; a background must be 640 x 284)"));
    EXPECT_TRUE(result.any_refused());
    QFile good(image_path("bg_640x284.png"));
    ASSERT_TRUE(good.open(QIODevice::ReadOnly));
    EXPECT_EQ(env.server_tree(),
        (file_map_t { { QStringLiteral("background/good.png"), md5(good.readAll()) } }));
}
