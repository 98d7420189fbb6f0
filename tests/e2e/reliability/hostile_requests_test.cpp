// Hostile requests against the real server program: paths that try to leave the context root in
// every request that carries one (download list, delete, rename, replace description, the "file"
// of a chunk), chunks that announce absurd "total_chunks", and malformed envelopes and origins.
// Each is tried, must be refused (the exact log line, or no effect), and must lose nothing: the
// files beside the root, the root itself and the server's list stay as they were, and the server
// goes on answering.

#include "reliability_env_t.h"

#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>

using context_sync_engine::chunk_codec_t;
using reliability::fixture_image;
using reliability::read_file;
using reliability::snapshot;
using reliability::snapshot_t;

namespace {

const QString kRefusedPath = QStringLiteral("Refused path \"%1\" in %2 from client hostile: %3");
const QString kDotDot = QStringLiteral("contains a '..' segment");
const QString kAbsolute = QStringLiteral("is absolute");

class hostile_requests : public reliability::reliability_test {
protected:
    void SetUp() override
    {
        reliability_test::SetUp();
        ASSERT_TRUE(start_broker()) << broker_.log().toStdString();
        put_image(QStringLiteral("background/one.png"), fixture_image("bg_640x284.png"));
        put_image(QStringLiteral("background/two.jpg"), fixture_image("bg_640x284_baseline.jpg"));
        ASSERT_TRUE(start_server()) << output().toStdString();
        hostile_ = client(QStringLiteral("hostile"));
        observer_ = client(QStringLiteral("observer"));
        ASSERT_TRUE(wait_status(*hostile_, QStringLiteral("online"))) << output().toStdString();
        bool ok = false;
        before_list_ = server_list(*observer_, &ok);
        ASSERT_TRUE(ok) << output().toStdString();
        ASSERT_EQ(before_list_, disk_list());
        ASSERT_EQ(before_list_.size(), 2);
        before_all_ = everything_but_state();
    }

    // Every file of the test's folders except the server's own state (its log grows).
    snapshot_t everything_but_state() const
    {
        snapshot_t all = snapshot(dirs_.root());
        for (auto it = all.begin(); it != all.end();) {
            if (it.key().startsWith(QLatin1String("state/")))
                it = all.erase(it);
            else
                ++it;
        }
        return all;
    }

    // After the hostile requests: a request of the same client is still answered (requests are
    // handled one at a time, so everything sent before has been dealt with), the tree settles
    // (the watcher waits 1000 ms before it rescans), and then nothing has changed anywhere.
    void expect_nothing_lost()
    {
        bool ok = false;
        server_list(*hostile_, &ok);
        EXPECT_TRUE(ok) << "the server stopped answering\n" << output().toStdString();
        rr_test::settle(1500);
        EXPECT_TRUE(server_running());
        EXPECT_EQ(everything_but_state(), before_all_);
        EXPECT_EQ(server_list(*observer_), before_list_);
    }

    int count_of(const QString& type, int from = 0) const
    {
        int count = 0;
        for (int i = from; i < hostile_->responses.size(); ++i)
            count += hostile_->responses.at(i).type == type ? 1 : 0;
        return count;
    }

    void request(const QString& type, const QJsonValue& message)
    {
        hostile_->service()->send_request(
            type, QJsonObject { { QStringLiteral("message"), message } });
    }

    std::unique_ptr<rr_test::client_t> hostile_;
    std::unique_ptr<rr_test::client_t> observer_;
    QJsonObject before_list_;
    snapshot_t before_all_;
};

// The escapes every request type is tried with: relative climbs, absolute paths to real files
// beside the root, a climb hidden behind a real folder, and the other shapes that the boundary
// refuses (a '.' segment, a backslash, a control character, an empty segment, an overlong path).
struct escape_t {
    QString path;
    QString printed; // as the log line shows it
    QString reason;
};

QList<escape_t> escapes(const QString& outside)
{
    const QString long_path = QStringLiteral("background/") + QString(1100, QLatin1Char('a'));
    return {
        { "../outside/secret.txt", "../outside/secret.txt", kDotDot },
        { outside + "secret.txt", outside + "secret.txt", kAbsolute },
        { "background/../../outside/background/keep.png",
            "background/../../outside/background/keep.png", kDotDot },
        { "background/../../root_sibling/note.txt", "background/../../root_sibling/note.txt",
            kDotDot },
        { "background/./one.png", "background/./one.png", "contains a '.' segment" },
        { "..\\outside\\secret.txt", "..\\x5coutside\\x5csecret.txt", "contains a backslash" },
        { "background/one.png\n", "background/one.png\\x0a", "contains a control character" },
        { "background//one.png", "background//one.png", "contains an empty segment" },
        { long_path, long_path, "is longer than 1024 bytes" },
    };
}

} // namespace

TEST_F(hostile_requests, PathEscapesInADownloadListAreRefusedAndOnlyTheSafeFileIsSent)
{
    QJsonArray list;
    for (const escape_t& escape : escapes(outside()))
        list.append(escape.path);
    request(QStringLiteral("ctx_download_request"), list);
    ASSERT_TRUE(wait_logged(QStringLiteral("For client hostile download request is empty!"), 2))
        << output().toStdString();
    for (const escape_t& escape : escapes(outside()))
        EXPECT_TRUE(
            logged(kRefusedPath.arg(escape.printed, "ctx_download_request", escape.reason), 3))
            << escape.printed.toStdString();
    // Refused one by one: the safe name of a mixed batch is still sent, and only it.
    const int from = int(hostile_->responses.size());
    request(QStringLiteral("ctx_download_request"),
        QJsonArray { "../outside/secret.txt", "background/one.png", outside() + "secret.txt" });
    const int chunk = wait_response(*hostile_, QStringLiteral("ctx_chunk"), from);
    ASSERT_GE(chunk, 0) << output().toStdString();
    const QJsonObject sent = hostile_->responses.at(chunk).payload;
    EXPECT_EQ(sent.value("file").toString(), QStringLiteral("background/one.png"));
    hostile_->service()->send_request(QStringLiteral("ctx_chunk_ack"),
        QJsonObject { { "message", chunk_codec_t::build_ack("background/one.png", 0) } });
    ASSERT_TRUE(wait_logged(QStringLiteral("End of upload context for hostile ... "), 4));
    EXPECT_EQ(count_of(QStringLiteral("ctx_chunk")), 1);
    expect_nothing_lost();
}

TEST_F(hostile_requests, PathEscapesInADeleteRequestAreRefusedAndNothingIsRemoved)
{
    QJsonArray list;
    for (const escape_t& escape : escapes(outside()))
        list.append(escape.path);
    list.append(QStringLiteral("../root_sibling/note.txt"));
    list.append(dirs_.path(QStringLiteral("root_sibling/note.txt")));
    const int from = int(observer_->responses.size());
    request(QStringLiteral("ctx_delete_request"), list);
    // The answer goes to every client, as for any delete.
    ASSERT_GE(
        wait_response(*observer_, QStringLiteral("ctx_list"), from, 10000, to_t::everybody), 0)
        << output().toStdString();
    for (const escape_t& escape : escapes(outside()))
        EXPECT_TRUE(
            logged(kRefusedPath.arg(escape.printed, "ctx_delete_request", escape.reason), 3))
            << escape.printed.toStdString();
    EXPECT_TRUE(
        logged(kRefusedPath.arg("../root_sibling/note.txt", "ctx_delete_request", kDotDot), 3));
    EXPECT_TRUE(logged(
        kRefusedPath.arg(dirs_.path("root_sibling/note.txt"), "ctx_delete_request", kAbsolute), 3));
    expect_nothing_lost();
}

TEST_F(hostile_requests, PathEscapesInARenameRequestAreRefusedAndNothingMoves)
{
    const QString stolen = outside() + QStringLiteral("stolen.png");
    const QJsonArray pairs {
        QJsonObject { { "background/one.png", "../outside/stolen.png" } },
        QJsonObject { { "../outside/secret.txt", "background/secret.png" } },
        QJsonObject { { outside() + "background/keep.png", "background/keep.png" } },
        QJsonObject { { "background/two.jpg", stolen } },
        QJsonObject { { "background/two.jpg", "background/../../root_sibling/two.jpg" } },
        QJsonObject {},
        QStringLiteral("background/one.png"),
    };
    const int from = int(observer_->responses.size());
    request(QStringLiteral("ctx_rename_request"), pairs);
    ASSERT_GE(
        wait_response(*observer_, QStringLiteral("ctx_list"), from, 10000, to_t::everybody), 0)
        << output().toStdString();
    const QString rename = QStringLiteral("ctx_rename_request");
    EXPECT_TRUE(logged(kRefusedPath.arg("../outside/stolen.png", rename, kDotDot), 3));
    EXPECT_TRUE(logged(kRefusedPath.arg("../outside/secret.txt", rename, kDotDot), 3));
    EXPECT_TRUE(logged(kRefusedPath.arg(outside() + "background/keep.png", rename, kAbsolute), 3));
    EXPECT_TRUE(logged(kRefusedPath.arg(stolen, rename, kAbsolute), 3));
    EXPECT_TRUE(
        logged(kRefusedPath.arg("background/../../root_sibling/two.jpg", rename, kDotDot), 3));
    // An empty entry and one that is not an object name no path at all.
    EXPECT_EQ(count_logged(kRefusedPath.arg("", rename, "is empty"), 3), 2);
    expect_nothing_lost();
}

TEST_F(hostile_requests, PathEscapesInAReplaceDescriptionAreRefusedAndTheTreeKeepsItsFiles)
{
    const QString one = before_list_.value("background/one.png").toString();
    const QString two = before_list_.value("background/two.jpg").toString();
    // Copies out of the root: the content of both files under names outside it.
    const QString copy_out = outside() + QStringLiteral("two.jpg");
    const QJsonObject copies { { "../outside/copy.png", one }, { "background/one.png", one },
        { "background/two.jpg", two }, { copy_out, two } };
    int from = int(observer_->responses.size());
    request(QStringLiteral("ctx_replace_request"), copies);
    ASSERT_GE(wait_response(*observer_, QStringLiteral("ctx_stop_transfer"), from), 0)
        << output().toStdString();
    const QString replace = QStringLiteral("ctx_replace_request");
    ASSERT_TRUE(wait_logged(kRefusedPath.arg("../outside/copy.png", replace, kDotDot), 3))
        << output().toStdString();
    EXPECT_TRUE(wait_logged(kRefusedPath.arg(copy_out, replace, kAbsolute), 3));

    // A move out of the root: the only name for one.png's content lies outside. Dropping the
    // entry keeps the file where it is; it is neither moved out nor removed.
    from = int(observer_->responses.size());
    request(QStringLiteral("ctx_replace_request"),
        QJsonObject { { "../outside/moved.png", one }, { "background/two.jpg", two } });
    ASSERT_GE(wait_response(*observer_, QStringLiteral("ctx_stop_transfer"), from), 0);
    EXPECT_TRUE(wait_logged(kRefusedPath.arg("../outside/moved.png", replace, kDotDot), 3))
        << output().toStdString();
    expect_nothing_lost();
}

TEST_F(hostile_requests, PathEscapesInChunksAreRefusedWithoutAcknowledgement)
{
    const QByteArray image = read_file(fixture_image("bg_640x284.png"));
    QList<escape_t> tried = escapes(outside());
    // Over a file that exists beside the root, and through the receive folder.
    tried.append(
        { outside() + "background/keep.png", outside() + "background/keep.png", kAbsolute });
    tried.append({ "TMP_file_receive/../../outside/evil.png",
        "TMP_file_receive/../../outside/evil.png", kDotDot });
    for (const escape_t& escape : tried)
        send_chunk(*hostile_, chunk_of(escape.path, image, 0));
    for (const escape_t& escape : tried) {
        EXPECT_TRUE(wait_logged(QStringLiteral("Refused chunk from client hostile: file \"%1\" %2")
                                    .arg(escape.printed, escape.reason),
            3))
            << escape.printed.toStdString();
    }
    // The same chunk under a safe name is taken, so the refusals were about the names alone.
    const int from = int(hostile_->responses.size());
    send_chunk(*hostile_, chunk_of(QStringLiteral("background/three.png"), image, 0));
    ASSERT_GE(wait_ack(*hostile_, QStringLiteral("background/three.png"), 0, from), 0)
        << output().toStdString();
    EXPECT_EQ(count_of(QStringLiteral("ctx_chunk_ack")), 1);
    EXPECT_TRUE(wait_list(*observer_,
        QJsonObject { { "background/one.png", before_list_.value("background/one.png") },
            { "background/two.jpg", before_list_.value("background/two.jpg") },
            { "background/three.png", reliability::md5_hex(image) } }));
    ASSERT_TRUE(dirs_.remove(QStringLiteral("root/background/three.png")));
    ASSERT_TRUE(wait_list(*observer_, before_list_));
    expect_nothing_lost();
}

TEST_F(hostile_requests, HugeTotalChunksIsRefusedAtTheFirstChunk)
{
    const QByteArray image = read_file(fixture_image("bg_640x284.png"));
    struct row_t {
        qint64 total;
        QString reason;
    };
    const QString limit = QStringLiteral("chunks exceed the upload limit of 67108864 bytes");
    const QList<row_t> rows {
        { 2147483647, QStringLiteral("2147483647 ") + limit },
        { 4294967296, QStringLiteral("invalid total_chunks 4294967296") },
        { 1099511627776, QStringLiteral("invalid total_chunks 1099511627776") },
        // One more than 64 MiB holds.
        { 132, QStringLiteral("132 ") + limit },
        { -1, QStringLiteral("invalid total_chunks -1") },
        { -2147483648, QStringLiteral("invalid total_chunks -2147483648") },
    };
    int index = 0;
    for (const row_t& row : rows) {
        const QString file = QStringLiteral("background/huge%1.png").arg(index++);
        QJsonObject chunk = chunk_of(file, image, 0);
        chunk.insert(QStringLiteral("total_chunks"), double(row.total));
        send_chunk(*hostile_, chunk);
        EXPECT_TRUE(wait_logged(
            QStringLiteral("Refused file %1 from client hostile: %2").arg(file, row.reason), 3))
            << row.reason.toStdString() << "\n"
            << output().toStdString();
    }
    // At the limit itself the first chunk is taken (and the file then waits for the rest).
    const int from = int(hostile_->responses.size());
    QJsonObject at_limit = chunk_of(QStringLiteral("background/limit.png"), image, 0);
    at_limit.insert(QStringLiteral("total_chunks"), 131);
    send_chunk(*hostile_, at_limit);
    ASSERT_GE(wait_ack(*hostile_, QStringLiteral("background/limit.png"), 0, from), 0);
    EXPECT_EQ(count_of(QStringLiteral("ctx_chunk_ack")), 1);
    EXPECT_TRUE(
        wait_logged(QStringLiteral("Chunk reception timeout! Transfer interrupted! For file "
                                   "background/limit.png"),
            2, 15000));
    expect_nothing_lost();
}

TEST_F(hostile_requests, MalformedEnvelopesAreRefusedWithALogLineAndNoAnswer)
{
    struct row_t {
        QByteArray body;
        QString reason;
    };
    const QByteArray oversized = QByteArray("{\"type\":\"ctx_request\",\"payload\":{\"pad\":\"")
        + QByteArray(2 * 1024 * 1024, 'x') + QByteArray("\"}}");
    const QList<row_t> rows {
        { QByteArray(), QStringLiteral("empty body") },
        { "not json at all", QStringLiteral("body is not JSON") },
        { "{\"type\": \"ctx_request\", \"payload\": {", QStringLiteral("body is not JSON") },
        { QByteArray(100000, '['), QStringLiteral("body is not JSON") },
        { "{\"type\": \"ctx_request\xff\xfe\"}", QStringLiteral("body is not JSON") },
        { "[\"ctx_request\", {}]", QStringLiteral("body is not a JSON object") },
        { "{\"payload\": {\"message\": []}}",
            QStringLiteral("\"type\" is missing or not a string") },
        { "{\"type\": 42, \"payload\": {}}",
            QStringLiteral("\"type\" is missing or not a string") },
        { "{\"type\": null}", QStringLiteral("\"type\" is missing or not a string") },
        { "{\"type\": [\"ctx_request\"]}", QStringLiteral("\"type\" is missing or not a string") },
        { oversized,
            QStringLiteral("body of %1 bytes exceeds the limit of 2097152 bytes")
                .arg(oversized.size()) },
    };
    for (const row_t& row : rows)
        hostile_->service()->send_raw_request(row.body);
    for (const row_t& row : rows) {
        EXPECT_TRUE(
            wait_logged(QStringLiteral("[context_sync] Request from client hostile refused: %1")
                            .arg(row.reason),
                3))
            << row.reason.toStdString();
    }
    // Envelopes of the right shape with nonsense inside are taken and come to nothing.
    hostile_->service()->send_raw_request("{\"type\": \"ctx_no_such_packet\", \"payload\": {}}");
    hostile_->service()->send_raw_request("{\"type\": \"ctx_download_request\", \"payload\": 7}");
    hostile_->service()->send_raw_request(
        "{\"type\": \"ctx_chunk\", \"payload\": {\"message\": [1, 2, 3]}}");
    hostile_->service()->send_raw_request("{\"type\": \"ctx_delete_request\", \"payload\": "
                                          "{\"message\": {\"background/one.png\": 1}}}");
    hostile_->service()->send_raw_request(
        "{\"type\": \"ctx_chunk_ack\", \"payload\": {\"message\": \"background/one.png\"}}");
    EXPECT_TRUE(wait_logged(QStringLiteral("[context_sync] on_update_unknon"), 6));
    EXPECT_TRUE(wait_logged(QStringLiteral("For client hostile download request is empty!"), 2));
    EXPECT_TRUE(
        wait_logged(QStringLiteral("Refused chunk from client hostile: file \"\" is empty"), 3));
    EXPECT_TRUE(wait_logged(QStringLiteral("Not found file sender for clinet hostile"), 2));
    // Only the delete with an empty list was answered (to everybody, as any delete).
    EXPECT_EQ(count_of(QStringLiteral("ctx_chunk_ack")) + count_of(QStringLiteral("ctx_chunk")), 0);
    expect_nothing_lost();
}

TEST_F(hostile_requests, RequestsFromTopicsWithoutAValidClientIdAreRefused)
{
    struct row_t {
        QString topic;
        QString origin;
    };
    const QString base = QStringLiteral("orvane/rr/context_sync/req");
    const QString too_long(65, QLatin1Char('a'));
    const QList<row_t> rows {
        { base, QString() },
        { base + QStringLiteral("/bad id"), QStringLiteral("bad id") },
        { base + QLatin1Char('/') + too_long, too_long },
        { base + QStringLiteral("/cl\u00efent"), QStringLiteral("cl\u00efent") },
        { base + QStringLiteral("/a$b"), QStringLiteral("a$b") },
    };
    const QByteArray body = "{\"type\": \"ctx_delete_request\", \"payload\": {\"message\": "
                            "[\"background/one.png\"]}}";
    for (const row_t& row : rows)
        publish_raw(*hostile_, row.topic, body);
    for (const row_t& row : rows) {
        EXPECT_TRUE(wait_logged(
            QStringLiteral(
                "[context_sync] Request on topic %1 refused: \"%2\" is not a valid client id")
                .arg(row.topic, row.origin),
            3))
            << row.topic.toStdString() << "\n"
            << output().toStdString();
    }
    // A presence message cannot fake the disconnection of an invalid id either.
    publish_raw(*hostile_, QStringLiteral("orvane/rr/presence/bad id"), "lost");
    EXPECT_TRUE(wait_logged(
        QStringLiteral("[context_sync] Presence of \"bad id\" ignored: not a valid client id"), 3));
    EXPECT_FALSE(output().contains(QStringLiteral("Incoming request ctx_delete_request")));
    expect_nothing_lost();
}
