// The request protocol of the sync service: list, stop, replace, delete, rename, hash check and
// acknowledgement routing, with real clients on a real broker and a real context root. Client
// paths that would leave the root are refused entry by entry.

#include "service_harness.h"

#include "common/log_capture_t.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <utility>

using context_sync_engine::context_monitor_t;
using context_sync_engine::context_sync_t;
using context_sync_engine::context_sync_test_peer_t;
using service_test::as_map;
using service_test::host_t;
using service_test::settle;
using service_test::unicast_count;
using service_test::wait_until;

namespace {

const QString kSource = QStringLiteral("server/context_sync/context_sync/context_sync_t");
const QString kItalianNote = QStringLiteral("Se aspetto che finisca lo scan posso togliere il "
                                            "secondo replace dal client nella funzione handler "
                                            "import");

QString compact(const QJsonObject& object)
{
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

// A started service over a root with three background images, and two ready clients.
struct fixture_t {
    host_t host;
    std::unique_ptr<service_test::client_t> a;
    std::unique_ptr<service_test::client_t> b;

    bool set_up()
    {
        if (!host.tree().write(
                QStringLiteral("background/a.png"), service_test::background_image(3000, 1))
            || !host.tree().write(
                QStringLiteral("background/b.png"), service_test::background_image(3500, 2))
            || !host.tree().write(
                QStringLiteral("background/c.png"), service_test::background_image(4000, 3)))
            return false;
        if (!host.create())
            return false;
        // Clients first, so that they see the start-up messages.
        a = host.client(QStringLiteral("a"), false);
        b = host.client(QStringLiteral("b"), false);
        if (!a || !b)
            return false;
        host.start(true);
        // The start-up messages (state of service, the first list) have arrived.
        if (!a->wait_for(QStringLiteral("ctx_list")) || !b->wait_for(QStringLiteral("ctx_list")))
            return false;
        settle(200);
        a->clear();
        b->clear();
        return true;
    }

    // Waits until the service has nothing more to say: the monitor is not updating and neither
    // client has received anything for `quiet_ms` (a write can reach the watcher as two changes,
    // the second one a debounce later, each followed by its broadcast).
    bool wait_quiet(int quiet_ms = 1200, int timeout_ms = 15000)
    {
        QElapsedTimer timer;
        timer.start();
        while (timer.elapsed() < timeout_ms) {
            const auto before = std::make_pair(a->responses.size(), b->responses.size());
            settle(quiet_ms);
            const bool updating = context_sync_test_peer_t::monitor(*host.service()).inUpdate();
            if (!updating && before == std::make_pair(a->responses.size(), b->responses.size()))
                return true;
        }
        return false;
    }

    // Waits until the watcher has taken in the tree as it is on disk (a broadcast list equal to
    // it has arrived at client a).
    bool wait_list_matches_disk(int timeout_ms = 10000)
    {
        return wait_until(
            [this] {
                const QJsonObject disk = host.files_object();
                for (const auto& response : a->of_type(QStringLiteral("ctx_list"))) {
                    if (response.broadcast && response.payload == disk)
                        return true;
                }
                return false;
            },
            timeout_ms);
    }
};

} // namespace

// Position of the first record whose message satisfies `match`, or -1.
template <typename match_t>
qsizetype first_record(const QList<utility::logs::log_record_t>& records, match_t match)
{
    for (qsizetype i = 0; i < records.size(); ++i) {
        if (match(records.at(i).message))
            return i;
    }
    return -1;
}

TEST(ContextSyncRequests, ListRequestWhileTheMonitorUpdatesIsNotAnswered)
{
    test_support::log_capture_t log;
    fixture_t f;
    ASSERT_TRUE(f.set_up());

    // The request must reach the service inside the 1000 ms debounce. On a loaded machine the
    // test thread can miss that window; the log's order tells whether it did (the request is
    // logged before the debounced update begins), and a missed window is tried again with
    // another image rather than judged.
    const QString request_line
        = QStringLiteral("[context_sync] Incoming request ctx_request from client a");
    QString added;
    for (int attempt = 0; attempt < 4 && added.isEmpty(); ++attempt) {
        const QString name = QStringLiteral("background/new%1.png").arg(attempt);
        log.clear();
        f.a->clear();
        // A new image starts the watcher's debounce: the monitor is updating until it fires.
        ASSERT_TRUE(
            f.host.tree().write(name, service_test::background_image(5000 + attempt, 9 + attempt)));
        ASSERT_TRUE(log.wait_for(QStringLiteral("Directory change ..."), 6));
        const bool updating = wait_until(
            [&] { return context_sync_test_peer_t::monitor(*f.host.service()).inUpdate(); }, 900);
        if (updating) {
            f.a->send(QStringLiteral("ctx_request"), QJsonObject());
            ASSERT_TRUE(log.wait_for(request_line, 6));
        }
        // The tree settles whatever happened, so that the next attempt starts from rest.
        ASSERT_TRUE(f.wait_list_matches_disk());
        if (!updating)
            continue;
        const auto records = log.records();
        const qsizetype request_at
            = first_record(records, [&](const QString& m) { return m == request_line; });
        const qsizetype update_at = first_record(records, [](const QString& m) {
            return m.endsWith(QStringLiteral("=> Debounced update: "
                                             "recalculate cumulative hash."));
        });
        ASSERT_GE(request_at, 0);
        ASSERT_GE(update_at, 0);
        if (request_at > update_at)
            continue;
        // Inside the window: the list arrives only as the broadcast that follows the update.
        EXPECT_EQ(unicast_count(*f.a, "ctx_list"), 0);
        added = name;
    }
    ASSERT_FALSE(added.isEmpty()) << "the request never reached the service during an update";
    EXPECT_TRUE(f.host.files_object().contains(added));

    // Afterwards the same request is answered, to the requester only.
    ASSERT_TRUE(f.wait_quiet());
    f.a->clear();
    f.b->clear();
    f.a->send(QStringLiteral("ctx_request"), QJsonObject());
    ASSERT_TRUE(wait_until([&] { return unicast_count(*f.a, "ctx_list") == 1; }));
    EXPECT_EQ(f.a->of_type("ctx_list").first().payload, f.host.files_object());
    EXPECT_EQ(f.a->of_type("ctx_list").first().subtype, QString());
    settle(500);
    EXPECT_TRUE(f.b->responses.isEmpty());
    EXPECT_EQ(f.a->responses.size(), 1);
}

TEST(ContextSyncRequests, DeleteWithAnEmptyListStillAnswersEveryClient)
{
    test_support::log_capture_t log;
    fixture_t f;
    ASSERT_TRUE(f.set_up());
    const QStringList before = f.host.tree().files();

    f.a->send_message(QStringLiteral("ctx_delete_request"), QJsonArray());
    ASSERT_TRUE(f.a->wait_for(QStringLiteral("ctx_list")));
    ASSERT_TRUE(f.b->wait_for(QStringLiteral("ctx_list")));
    for (auto* client : { f.a.get(), f.b.get() }) {
        const auto lists = client->of_type(QStringLiteral("ctx_list"));
        ASSERT_EQ(lists.size(), 1);
        EXPECT_TRUE(lists.first().broadcast);
        EXPECT_EQ(lists.first().payload, f.host.files_object());
    }
    EXPECT_EQ(f.host.tree().files(), before);
    EXPECT_TRUE(log.contains(QStringLiteral("Delete request from client a ... "), 6));
    EXPECT_TRUE(log.contains(QStringLiteral("[]"), 6));
}

TEST(ContextSyncRequests, ReplaceWithTheServerTreeChangesNothingAndStopsTransfers)
{
    test_support::log_capture_t log;
    fixture_t f;
    ASSERT_TRUE(f.set_up());
    const QStringList before = f.host.tree().files();
    log.clear();

    f.a->send_message(QStringLiteral("ctx_replace_request"), f.host.files_object());
    ASSERT_TRUE(f.a->wait_for(QStringLiteral("ctx_stop_transfer")));
    ASSERT_TRUE(f.b->wait_for(QStringLiteral("ctx_stop_transfer")));
    ASSERT_TRUE(log.wait_for(kItalianNote, 2));
    settle(1500);

    EXPECT_TRUE(log.contains(QStringLiteral("Import request from client a ... "), 6));
    EXPECT_EQ(log.count(kItalianNote, 2), 4);
    for (auto* client : { f.a.get(), f.b.get() }) {
        const auto stops = client->of_type(QStringLiteral("ctx_stop_transfer"));
        ASSERT_EQ(stops.size(), 1);
        EXPECT_TRUE(stops.first().broadcast);
        EXPECT_TRUE(stops.first().payload.isEmpty());
        EXPECT_EQ(client->count(QStringLiteral("ctx_list")), 0);
    }
    // No change set was logged and nothing changed on disk.
    for (const auto& record : log.records()) {
        if (record.file == kSource && record.level == 4) {
            EXPECT_FALSE(record.message.startsWith(QLatin1Char('{')))
                << record.message.toStdString();
        }
    }
    EXPECT_EQ(f.host.tree().files(), before);
}

TEST(ContextSyncRequests, ReplaceRoundTripAppliesTheDifference)
{
    test_support::log_capture_t log;
    fixture_t f;
    ASSERT_TRUE(f.set_up());
    const QByteArray a = f.host.tree().read(QStringLiteral("background/a.png"));
    const QByteArray b = f.host.tree().read(QStringLiteral("background/b.png"));
    const QJsonObject server = f.host.files_object();

    // a.png moves to x.png, b.png stays and is copied to y.png, c.png goes, z.png is new.
    const QJsonObject description {
        { "background/x.png", server.value("background/a.png") },
        { "background/b.png", server.value("background/b.png") },
        { "background/y.png", server.value("background/b.png") },
        { "background/z.png", service_test::md5_hex("not here") },
    };
    const QJsonObject expected_diff
        = context_monitor_t::calculate_diff_json_objects(as_map(server), as_map(description));

    f.a->send_message(QStringLiteral("ctx_replace_request"), description);
    ASSERT_TRUE(f.a->wait_for(QStringLiteral("ctx_stop_transfer")));
    ASSERT_TRUE(log.wait_for(compact(expected_diff), 4));

    EXPECT_EQ(f.host.tree().files(),
        (QStringList { "background/b.png", "background/x.png", "background/y.png" }));
    EXPECT_EQ(f.host.tree().read(QStringLiteral("background/x.png")), a);
    EXPECT_EQ(f.host.tree().read(QStringLiteral("background/y.png")), b);
    EXPECT_EQ(f.host.tree().read(QStringLiteral("background/b.png")), b);

    // The new list reaches every client when the watcher has seen the change.
    ASSERT_TRUE(f.wait_list_matches_disk());
}

TEST(ContextSyncRequests, RenameAndDeleteRoundTrips)
{
    test_support::log_capture_t log;
    fixture_t f;
    ASSERT_TRUE(f.set_up());
    const QByteArray a = f.host.tree().read(QStringLiteral("background/a.png"));

    const QJsonArray renames { QJsonObject { { "background/a.png", "background/renamed.png" } } };
    f.a->send_message(QStringLiteral("ctx_rename_request"), renames);
    ASSERT_TRUE(f.b->wait_for(QStringLiteral("ctx_list")));
    EXPECT_TRUE(f.b->of_type("ctx_list").first().broadcast);
    EXPECT_TRUE(log.contains(QStringLiteral("Rename request from client a ... "), 6));
    EXPECT_TRUE(
        log.contains(QStringLiteral("[{\"background/a.png\":\"background/renamed.png\"}]"), 6));
    EXPECT_EQ(f.host.tree().files(),
        (QStringList { "background/b.png", "background/c.png", "background/renamed.png" }));
    EXPECT_EQ(f.host.tree().read(QStringLiteral("background/renamed.png")), a);
    ASSERT_TRUE(f.wait_list_matches_disk());

    f.a->clear();
    f.b->clear();
    f.b->send_message(QStringLiteral("ctx_delete_request"), QJsonArray { "background/c.png" });
    ASSERT_TRUE(f.a->wait_for(QStringLiteral("ctx_list")));
    EXPECT_TRUE(log.contains(QStringLiteral("Delete request from client b ... "), 6));
    EXPECT_EQ(
        f.host.tree().files(), (QStringList { "background/b.png", "background/renamed.png" }));
    ASSERT_TRUE(f.wait_list_matches_disk());
}

TEST(ContextSyncRequests, PathsOutsideTheRootAreRefusedAndTheBatchGoesOn)
{
    test_support::log_capture_t log;
    fixture_t f;
    ASSERT_TRUE(f.set_up());
    QTemporaryDir outside;
    ASSERT_TRUE(outside.isValid());
    const QString outside_name = QFileInfo(outside.path()).fileName();
    const QString victim = outside.path() + QStringLiteral("/victim.png");
    {
        QFile file(victim);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(service_test::background_image(3000, 1));
    }
    // Relative to background/, so that a plain join would land in the outside folder.
    const QString escape = QStringLiteral("../") + outside_name + QStringLiteral("/victim.png");
    const QString climb
        = QStringLiteral("background/../../") + outside_name + QStringLiteral("/stolen.png");

    // Delete: the unsafe entries are refused, the safe one is applied.
    f.a->send_message(
        QStringLiteral("ctx_delete_request"), QJsonArray { escape, victim, "background/c.png" });
    ASSERT_TRUE(f.a->wait_for(QStringLiteral("ctx_list")));
    EXPECT_TRUE(QFile::exists(victim));
    EXPECT_FALSE(f.host.tree().exists(QStringLiteral("background/c.png")));
    EXPECT_TRUE(log.contains_fragment(
        QStringLiteral("Refused path \"%1\" in ctx_delete_request from client a: ").arg(escape),
        3));
    EXPECT_TRUE(log.contains_fragment(
        QStringLiteral("Refused path \"%1\" in ctx_delete_request from client a: ").arg(victim),
        3));

    // Rename: out of the root, into the root from outside; a safe rename in the same batch.
    f.a->clear();
    f.a->send_message(QStringLiteral("ctx_rename_request"),
        QJsonArray {
            QJsonObject { { "background/a.png", climb } },
            QJsonObject { { escape, "background/v.png" } },
            QJsonObject { { "background/b.png", "background/b2.png" } },
        });
    ASSERT_TRUE(f.a->wait_for(QStringLiteral("ctx_list")));
    EXPECT_TRUE(QFile::exists(victim));
    EXPECT_FALSE(QFile::exists(outside.path() + QStringLiteral("/stolen.png")));
    EXPECT_EQ(f.host.tree().files(), (QStringList { "background/a.png", "background/b2.png" }));
    EXPECT_TRUE(log.contains_fragment(
        QStringLiteral("Refused path \"%1\" in ctx_rename_request from client a: ").arg(climb), 3));
    EXPECT_TRUE(log.contains_fragment(
        QStringLiteral("Refused path \"%1\" in ctx_rename_request from client a: ").arg(escape),
        3));
    ASSERT_TRUE(f.wait_list_matches_disk());

    // Replace: a description that names a.png's content outside the root, and b2.png inside.
    const QJsonObject server = f.host.files_object();
    f.a->clear();
    const QString escaped = QStringLiteral("../") + outside_name + QStringLiteral("/escaped.png");
    f.a->send_message(QStringLiteral("ctx_replace_request"),
        QJsonObject {
            { escaped, server.value("background/a.png") },
            { "background/b3.png", server.value("background/b2.png") },
        });
    ASSERT_TRUE(f.a->wait_for(QStringLiteral("ctx_stop_transfer")));
    ASSERT_TRUE(log.wait_for(kItalianNote, 2));
    ASSERT_TRUE(
        wait_until([&] { return f.host.tree().exists(QStringLiteral("background/b3.png")); }));
    EXPECT_FALSE(QFile::exists(outside.path() + QStringLiteral("/escaped.png")));
    // a.png is neither moved out nor removed: only the unsafe entry was dropped.
    EXPECT_EQ(f.host.tree().files(), (QStringList { "background/a.png", "background/b3.png" }));
    EXPECT_TRUE(log.contains_fragment(
        QStringLiteral("Refused path \"%1\" in ctx_replace_request from client a: ").arg(escaped),
        3));
    EXPECT_EQ(QDir(outside.path()).entryList(QDir::Files), QStringList { "victim.png" });
}

TEST(ContextSyncRequests, ConcurrentRequestsAreHandledOneAfterTheOther)
{
    test_support::log_capture_t log;
    fixture_t f;
    ASSERT_TRUE(f.set_up());
    log.clear();

    // Each rename request names many missing files, so that handling one takes a while and
    // leaves a trail of lines that carry the client's prefix.
    const auto batch = [](const QString& prefix) {
        QJsonArray list;
        for (int i = 0; i < 40; ++i) {
            list.append(QJsonObject { { QStringLiteral("background/%1_%2.png").arg(prefix).arg(i),
                QStringLiteral("background/%1_%2_to.png").arg(prefix).arg(i) } });
        }
        return list;
    };
    for (int round = 0; round < 3; ++round) {
        f.a->send_message(
            QStringLiteral("ctx_rename_request"), batch(QStringLiteral("a%1").arg(round)));
        f.b->send_message(
            QStringLiteral("ctx_rename_request"), batch(QStringLiteral("b%1").arg(round)));
    }
    ASSERT_TRUE(f.a->wait_for(QStringLiteral("ctx_list"), 6, 20000));

    // Group the lines of each request: its "Incoming request" line and every line that names
    // its files. Groups may come in any order but must never overlap.
    const QList<utility::logs::log_record_t> records = log.records();
    QMap<QString, QPair<qsizetype, qsizetype>> spans;
    for (qsizetype i = 0; i < records.size(); ++i) {
        const QString& message = records.at(i).message;
        for (const QString& client : { QStringLiteral("a"), QStringLiteral("b") }) {
            for (int round = 0; round < 3; ++round) {
                const QString key = client + QString::number(round);
                if (message.contains(QStringLiteral("background/%1_").arg(key))) {
                    auto& span = spans[key];
                    if (span.first == 0 && span.second == 0)
                        span.first = i;
                    span.second = i;
                }
            }
        }
    }
    ASSERT_EQ(spans.size(), 6);
    const QList<QPair<qsizetype, qsizetype>> values = spans.values();
    for (qsizetype i = 0; i < values.size(); ++i) {
        for (qsizetype j = i + 1; j < values.size(); ++j) {
            const bool apart
                = values[i].second < values[j].first || values[j].second < values[i].first;
            EXPECT_TRUE(apart) << spans.keys().at(i).toStdString() << " and "
                               << spans.keys().at(j).toStdString() << " interleave";
        }
    }
}

TEST(ContextSyncRequests, HashCheckAnswersOnlyADifference)
{
    test_support::log_capture_t log;
    fixture_t f;
    ASSERT_TRUE(f.set_up());
    const QString server_hash = host_t::cumulative_hash(as_map(f.host.files_object()));

    f.a->send_message(
        QStringLiteral("ready_to_check"), QJsonObject { { "context_hash", server_hash } });
    ASSERT_TRUE(log.wait_for(QStringLiteral("a has same context context. It's OK"), 4));
    settle(500);
    EXPECT_TRUE(f.a->responses.isEmpty());

    const QString stale = service_test::md5_hex("stale");
    f.a->send_message(QStringLiteral("ready_to_check"), QJsonObject { { "context_hash", stale } });
    ASSERT_TRUE(f.a->wait_for(QStringLiteral("ready_to_check")));
    settle(500);
    const auto answers = f.a->of_type(QStringLiteral("ready_to_check"));
    ASSERT_EQ(answers.size(), 1);
    EXPECT_EQ(f.a->responses.size(), 1);
    EXPECT_FALSE(answers.first().broadcast);
    EXPECT_EQ(answers.first().subtype, QString());
    EXPECT_EQ(answers.first().payload, (QJsonObject { { "context_hash", server_hash } }));
    EXPECT_TRUE(f.b->responses.isEmpty());
    EXPECT_TRUE(
        log.contains(QStringLiteral("Context is different send ready to check to client a"), 3));
    EXPECT_TRUE(
        log.contains(QStringLiteral("current: %1 incoming: %2").arg(server_hash, stale), 6));
}

TEST(ContextSyncRequests, AckWithoutSenderAndEmptyDownloadListAreRefused)
{
    test_support::log_capture_t log;
    fixture_t f;
    ASSERT_TRUE(f.set_up());

    f.a->send_message(QStringLiteral("ctx_chunk_ack"),
        QJsonObject { { "file", "background/a.png" }, { "chunkIndex", 0 } });
    EXPECT_TRUE(log.wait_for(QStringLiteral("Not found file sender for clinet a"), 2));

    f.a->send_message(QStringLiteral("ctx_download_request"), QJsonArray());
    EXPECT_TRUE(log.wait_for(QStringLiteral("For client a download request is empty!"), 2));
    EXPECT_TRUE(log.contains(QStringLiteral("Download request from client a"), 6));
    EXPECT_FALSE(log.contains_fragment(QStringLiteral("Create a new file_sender")));
    EXPECT_EQ(context_sync_test_peer_t::sender_count(*f.host.service()), 0);
    settle(300);
    EXPECT_TRUE(f.a->responses.isEmpty());
}

TEST(ContextSyncRequests, RequestWithoutSenderIsHandledWithAnEmptyClient)
{
    test_support::log_capture_t log;
    fixture_t f;
    ASSERT_TRUE(f.set_up());
    context_sync_t* service = f.host.service();
    const QVariant data = QVariant::fromValue(QJsonObject { { "payload",
        QJsonObject { { "message", QJsonObject { { "file", "x" }, { "chunkIndex", 0 } } } } } });

    f.host.on_service_thread([service, data] {
        service->on_update_state(QStringLiteral("ctx_chunk_ack"), data, {}, {});
    });
    EXPECT_TRUE(log.wait_for(
        QStringLiteral("[context_sync] Incoming request ctx_chunk_ack from client "), 6));
    EXPECT_TRUE(log.wait_for(QStringLiteral("Not found file sender for clinet "), 2));

    // An unknown packet type is only logged as incoming.
    log.clear();
    f.host.on_service_thread(
        [service, data] { service->on_update_state(QStringLiteral("ctx_list"), data, {}, {}); });
    EXPECT_TRUE(
        log.wait_for(QStringLiteral("[context_sync] Incoming request ctx_list from client "), 6));
    settle(300);
    EXPECT_EQ(log.records().size(), 1);
}
