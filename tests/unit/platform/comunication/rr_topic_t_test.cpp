#include "platform/comunication/service/service_rr_base_t.h"
#include "platform/comunication/utility/destination_publish_client_t.h"
#include "platform/comunication/utility/rr_topic_t.h"

#include <gtest/gtest.h>

using comunication::service::service_rr_base_t;
using comunication::utility::destination_publish_client_t;
using comunication::utility::destination_publish_server_t;
using comunication::utility::rr_topic_t;

TEST(rr_topic_t, TopicsOfOneService)
{
    const QString base = QStringLiteral("orvane/inst1");
    const QString svc = QStringLiteral("context_sync");
    EXPECT_EQ(rr_topic_t::request(base, svc, "alice"), "orvane/inst1/rr/context_sync/req/alice");
    EXPECT_EQ(rr_topic_t::response(base, svc, "alice"), "orvane/inst1/rr/context_sync/res/alice");
    EXPECT_EQ(rr_topic_t::broadcast(base, svc), "orvane/inst1/rr/context_sync/bcast");
    EXPECT_EQ(rr_topic_t::status(base, svc), "orvane/inst1/rr/context_sync/status");
    EXPECT_EQ(rr_topic_t::presence(base, "alice"), "orvane/inst1/rr/presence/alice");
    EXPECT_EQ(rr_topic_t::requestFilter(base, svc), "orvane/inst1/rr/context_sync/req/#");
    EXPECT_EQ(rr_topic_t::presenceFilter(base), "orvane/inst1/rr/presence/+");
}

TEST(rr_topic_t, TailTellsEmptyFromNoMatch)
{
    const QString prefix = QStringLiteral("orvane/rr/context_sync/req/");
    EXPECT_EQ(rr_topic_t::tail(prefix + "bob", prefix), QStringLiteral("bob"));
    EXPECT_EQ(rr_topic_t::tail(prefix + "a/b", prefix), QStringLiteral("a/b"));
    const QString empty = rr_topic_t::tail(prefix, prefix);
    EXPECT_FALSE(empty.isNull());
    EXPECT_TRUE(empty.isEmpty());
    EXPECT_TRUE(rr_topic_t::tail(QStringLiteral("orvane/rr/other/req/bob"), prefix).isNull());
}

TEST(destination_publish_client_t, AllIsTheBroadcastText)
{
    EXPECT_EQ(destination_publish_client_t(destination_publish_server_t::all).ToString(),
        QStringLiteral("all"));
    EXPECT_EQ(destination_publish_client_t::ToString(destination_publish_server_t::all),
        QStringLiteral("all"));
    EXPECT_TRUE(destination_publish_client_t(QStringLiteral("all")).isAll());
    EXPECT_FALSE(destination_publish_client_t(QStringLiteral("alice")).isAll());
    EXPECT_EQ(
        destination_publish_client_t(QStringLiteral("alice")).ToString(), QStringLiteral("alice"));
}

TEST(service_rr_base_t, FriendlyStateNamesEveryState)
{
    EXPECT_EQ(service_rr_base_t::friendlyState(service_rr_base_t::idle), "idle");
    EXPECT_EQ(service_rr_base_t::friendlyState(service_rr_base_t::connecting), "connecting");
    EXPECT_EQ(service_rr_base_t::friendlyState(service_rr_base_t::running), "running");
    EXPECT_EQ(service_rr_base_t::friendlyState(service_rr_base_t::reconnecting), "reconnecting");
    EXPECT_EQ(service_rr_base_t::friendlyState(service_rr_base_t::stopped), "stopped");
    EXPECT_EQ(service_rr_base_t::friendlyState(2), "running");
    EXPECT_EQ(service_rr_base_t::friendlyState(42), "unknown");
    EXPECT_EQ(int(service_rr_base_t::How_finish(2)), int(service_rr_base_t::finish_on_stop));
}
