#include "platform/database/rr/definition/rr_packet_service_t.h"
#include "platform/database/rr/definition/rr_packet_type_context_sync_t.h"
#include "platform/database/rr/rr_type_t.h"

#include <QVariant>

#include <gtest/gtest.h>

using database::rr::rr_type_t;
using database::rr::definition::rr_packet_service_t;
using database::rr::definition::rr_packet_type_context_sync_t;

TEST(rr_type_t, ContextSyncServiceIsNamedContextSync)
{
    EXPECT_EQ(rr_type_t::context_sync_service.ToString(), QStringLiteral("context_sync"));
    bool ok = false;
    EXPECT_EQ(rr_type_t::fromString(QStringLiteral("context_sync"), &ok),
        rr_type_t::context_sync_service);
    EXPECT_TRUE(ok);
}

TEST(rr_type_t, UnknownNameGivesInvalidValue)
{
    bool ok = true;
    const rr_type_t parsed = rr_type_t::fromString(QStringLiteral("Context_Sync"), &ok);
    EXPECT_FALSE(ok);
    EXPECT_FALSE(parsed.isValid());
    EXPECT_NE(parsed, rr_type_t::context_sync_service);
    EXPECT_TRUE(parsed.ToString().isEmpty());
}

TEST(rr_packet_service_t, StateOfServiceTopicIsItsName)
{
    EXPECT_EQ(rr_packet_service_t::state_of_service.Topic(), QStringLiteral("state_of_service"));
    EXPECT_EQ(rr_packet_service_t::start.Topic(), QStringLiteral("start"));
    EXPECT_EQ(rr_packet_service_t::abort.Topic(), QStringLiteral("abort"));
    EXPECT_EQ(rr_packet_service_t::base.Topic(), QStringLiteral("base"));
    bool ok = false;
    EXPECT_EQ(rr_packet_service_t::fromString(QStringLiteral("state_of_service"), &ok),
        rr_packet_service_t::state_of_service);
    EXPECT_TRUE(ok);
    EXPECT_FALSE(rr_packet_service_t::fromString(QStringLiteral("ctx_list"), &ok).isValid());
    EXPECT_FALSE(ok);
}

TEST(rr_packet_type_context_sync_t, EveryConstantHasItsOwnNameAsText)
{
    const QList<std::pair<rr_packet_type_context_sync_t, const char*>> expected {
        { rr_packet_type_context_sync_t::ctx_request, "ctx_request" },
        { rr_packet_type_context_sync_t::ctx_list, "ctx_list" },
        { rr_packet_type_context_sync_t::ctx_chunk, "ctx_chunk" },
        { rr_packet_type_context_sync_t::ctx_chunk_ack, "ctx_chunk_ack" },
        { rr_packet_type_context_sync_t::ready_to_check, "ready_to_check" },
        { rr_packet_type_context_sync_t::ctx_stop_transfer, "ctx_stop_transfer" },
        { rr_packet_type_context_sync_t::ctx_delete_request, "ctx_delete_request" },
        { rr_packet_type_context_sync_t::ctx_rename_request, "ctx_rename_request" },
        { rr_packet_type_context_sync_t::ctx_replace_request, "ctx_replace_request" },
        { rr_packet_type_context_sync_t::ctx_download_request, "ctx_download_request" },
    };
    ASSERT_EQ(rr_packet_type_context_sync_t::values().size(), expected.size());
    for (const auto& [constant, text] : expected) {
        EXPECT_EQ(constant.ToString(), QLatin1String(text));
        bool ok = false;
        EXPECT_EQ(rr_packet_type_context_sync_t::fromString(QLatin1String(text), &ok), constant);
        EXPECT_TRUE(ok) << text;
    }
}

TEST(rr_packet_type_context_sync_t, EqualityComparesTheConstant)
{
    EXPECT_TRUE(rr_packet_type_context_sync_t::ctx_list == rr_packet_type_context_sync_t::ctx_list);
    EXPECT_FALSE(
        rr_packet_type_context_sync_t::ctx_list == rr_packet_type_context_sync_t::ctx_request);
    EXPECT_TRUE(
        rr_packet_type_context_sync_t::ctx_list != rr_packet_type_context_sync_t::ctx_chunk);
    const rr_packet_type_context_sync_t copy = rr_packet_type_context_sync_t::ready_to_check;
    EXPECT_EQ(copy, rr_packet_type_context_sync_t::ready_to_check);
}

TEST(rr_packet_type_context_sync_t, UnknownOrDifferentlyCasedTextIsInvalid)
{
    for (const char* text : { "", "CTX_LIST", "ctx_list ", "state_of_service", "ctx" }) {
        bool ok = true;
        const auto parsed = rr_packet_type_context_sync_t::fromString(QLatin1String(text), &ok);
        EXPECT_FALSE(ok) << text;
        EXPECT_FALSE(parsed.isValid()) << text;
        EXPECT_TRUE(parsed.ToString().isEmpty()) << text;
    }
    EXPECT_FALSE(rr_packet_type_context_sync_t().isValid());
}

TEST(rr_packet_type_context_sync_t, TravelsInsideAVariant)
{
    const QVariant variant = QVariant::fromValue(rr_packet_type_context_sync_t::ctx_chunk_ack);
    EXPECT_EQ(variant.value<rr_packet_type_context_sync_t>(),
        rr_packet_type_context_sync_t::ctx_chunk_ack);
}
