#include "platform/database/database_t.h"
#include "platform/database/rr/rr_context_sync_t.h"

#include "common/log_capture_t.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QSignalSpy>

#include <gtest/gtest.h>

using database::database_t;
using database::rr::rr_base_t;
using database::rr::rr_context_sync_t;

namespace {

QJsonObject body(const QJsonValue& type, const QJsonObject& payload = {})
{
    QJsonObject object { { QStringLiteral("payload"), payload } };
    if (!type.isUndefined())
        object.insert(QStringLiteral("type"), type);
    return object;
}

} // namespace

TEST(database_t, GetRrGivesTheContextSyncDescriptorOnce)
{
    database_t db;
    rr_base_t* first = db.get_rr(QStringLiteral("context_sync"));
    ASSERT_NE(first, nullptr);
    EXPECT_NE(qobject_cast<rr_context_sync_t*>(first), nullptr);
    EXPECT_EQ(first->getName(), QStringLiteral("context_sync"));
    EXPECT_EQ(db.get_rr(QStringLiteral("context_sync")), first);
    EXPECT_EQ(first->thread(), db.thread());
}

TEST(database_t, UnknownServiceGivesNullAndALogLine)
{
    test_support::log_capture_t logs;
    database_t db;
    EXPECT_EQ(db.get_rr(QStringLiteral("weather")), nullptr);
    EXPECT_TRUE(logs.contains(QStringLiteral("No rr descriptor for service weather"), 3));
}

TEST(rr_base_t, WhoisEmitsOnUpdateStateWithSenderFromOriginAndPayload)
{
    database_t db;
    rr_base_t* rr = db.get_rr(QStringLiteral("context_sync"));
    ASSERT_NE(rr, nullptr);
    QSignalSpy state(rr, &rr_base_t::on_update_state);
    QSignalSpy unknown(rr, &rr_base_t::on_update_unknon);

    const QJsonObject payload { { QStringLiteral("message"),
        QJsonArray { QStringLiteral("a.txt") } } };
    QJsonObject request = body(QStringLiteral("ctx_download_request"), payload);
    // A client may write any "sender" it likes; only the origin counts.
    request.insert(QStringLiteral("sender"), QStringLiteral("mallory"));
    rr->whois(QStringLiteral("alice"), request);

    ASSERT_EQ(state.count(), 1);
    EXPECT_EQ(unknown.count(), 0);
    EXPECT_EQ(state.at(0).at(0).toString(), QStringLiteral("ctx_download_request"));
    const QJsonObject data = state.at(0).at(1).toJsonObject();
    EXPECT_EQ(data,
        (QJsonObject { { QStringLiteral("sender"), QStringLiteral("alice") },
            { QStringLiteral("payload"), payload } }));
    EXPECT_TRUE(state.at(0).at(2).toStringList().isEmpty());
}

TEST(rr_base_t, WhoisSortsGenericPacketsToTheirSignals)
{
    database_t db;
    rr_base_t* rr = db.get_rr(QStringLiteral("context_sync"));
    QSignalSpy state_of_service(rr, &rr_base_t::on_update_state_of_service);
    QSignalSpy start(rr, &rr_base_t::on_update_start);
    QSignalSpy abort(rr, &rr_base_t::on_update_abort);
    QSignalSpy base(rr, &rr_base_t::on_update_base);
    QSignalSpy state(rr, &rr_base_t::on_update_state);
    QSignalSpy unknown(rr, &rr_base_t::on_update_unknon);

    rr->whois(QStringLiteral("bob"), body(QStringLiteral("state_of_service")));
    rr->whois(QStringLiteral("bob"), body(QStringLiteral("start")));
    rr->whois(QStringLiteral("bob"), body(QStringLiteral("abort")));
    rr->whois(QStringLiteral("bob"), body(QStringLiteral("base")));
    rr->whois(QStringLiteral("bob"), body(QStringLiteral("ctx_frobnicate")));

    ASSERT_EQ(state_of_service.count(), 1);
    EXPECT_EQ(state_of_service.at(0).at(1).toJsonObject().value(QStringLiteral("sender")),
        QStringLiteral("bob"));
    EXPECT_EQ(start.count(), 1);
    EXPECT_EQ(abort.count(), 1);
    EXPECT_EQ(base.count(), 1);
    EXPECT_EQ(state.count(), 0);
    ASSERT_EQ(unknown.count(), 1);
    EXPECT_EQ(unknown.at(0).at(0).toString(), QStringLiteral("ctx_frobnicate"));
}

TEST(rr_base_t, EveryContextSyncPacketArrivesAsOnUpdateState)
{
    database_t db;
    rr_base_t* rr = db.get_rr(QStringLiteral("context_sync"));
    QSignalSpy state(rr, &rr_base_t::on_update_state);
    const QStringList types { "ctx_request", "ctx_list", "ctx_chunk", "ctx_chunk_ack",
        "ready_to_check", "ctx_stop_transfer", "ctx_delete_request", "ctx_rename_request",
        "ctx_replace_request", "ctx_download_request" };
    for (const QString& type : types)
        rr->whois(QStringLiteral("c1"), body(type));
    ASSERT_EQ(state.count(), types.size());
    for (int i = 0; i < types.size(); ++i)
        EXPECT_EQ(state.at(i).at(0).toString(), types.at(i));
}

TEST(rr_base_t, MissingPayloadReadsAsEmptyObject)
{
    database_t db;
    rr_base_t* rr = db.get_rr(QStringLiteral("context_sync"));
    QSignalSpy state(rr, &rr_base_t::on_update_state);
    rr->whois(QStringLiteral("c1"),
        QJsonObject { { QStringLiteral("type"), QStringLiteral("ctx_request") } });
    ASSERT_EQ(state.count(), 1);
    EXPECT_EQ(state.at(0).at(1).toJsonObject().value(QStringLiteral("payload")), QJsonObject());
}

TEST(rr_base_t, TypeThatIsNotAStringIsRefusedWithALogLine)
{
    test_support::log_capture_t logs;
    database_t db;
    rr_base_t* rr = db.get_rr(QStringLiteral("context_sync"));
    QSignalSpy state(rr, &rr_base_t::on_update_state);
    QSignalSpy unknown(rr, &rr_base_t::on_update_unknon);
    rr->whois(QStringLiteral("c1"), body(QJsonValue(7)));
    rr->whois(QStringLiteral("c2"), body(QJsonValue(QJsonValue::Undefined)));
    EXPECT_EQ(state.count(), 0);
    EXPECT_EQ(unknown.count(), 0);
    EXPECT_TRUE(logs.contains(QStringLiteral("[context_sync] Request from client c1 refused: "
                                             "\"type\" is missing or not a string"),
        3));
    EXPECT_TRUE(logs.contains(QStringLiteral("[context_sync] Request from client c2 refused: "
                                             "\"type\" is missing or not a string"),
        3));
}
