// The protoserver's service registry and thread rules; no broker is needed because a
// protoserver connects only when a service starts.

#include "platform/comunication/protoserver_t.h"
#include "platform/comunication/service/service_rr_client_t.h"
#include "platform/comunication/service/service_rr_server_t.h"

#include "utility/tsan_annotations.h"

#include "common/log_capture_t.h"

#include <QMetaObject>
#include <QThread>

#include <gtest/gtest.h>

using comunication::protoserver_t;
using comunication::config::mosquittocnf_t;
using comunication::service::service_rr_base_t;
using comunication::service::service_rr_client_t;
using comunication::service::service_rr_server_t;

namespace {

template <typename F> auto on_thread(protoserver_t& server, F&& call)
{
    decltype(call()) result {};
    QMetaObject::invokeMethod(&server, utility::tsan::handed_over([&] { result = call(); }),
        Qt::BlockingQueuedConnection);
    return result;
}

} // namespace

TEST(protoserver_t, LivesOnItsOwnThreadAndKeepsItsSettings)
{
    protoserver_t server(mosquittocnf_t(QStringLiteral("127.0.0.1"), 1, QStringLiteral("srv")));
    EXPECT_NE(server.thread(), QThread::currentThread());
    EXPECT_EQ(server.getMosquittoCnf().getClientId(), QStringLiteral("srv"));
    EXPECT_FALSE(server.isConnected());
    EXPECT_EQ(server.connectAttempts(), 0);
}

TEST(protoserver_t, CreateServerServiceOnItsThreadCreatesOnceAndDownCasts)
{
    protoserver_t server { mosquittocnf_t() };
    service_rr_base_t* first = on_thread(
        server, [&] { return server.create_server_service(QStringLiteral("context_sync")); });
    ASSERT_NE(first, nullptr);
    EXPECT_NE(qobject_cast<service_rr_server_t*>(first), nullptr);
    EXPECT_EQ(first->thread(), server.thread());
    EXPECT_EQ(first->getName(), QStringLiteral("context_sync"));
    EXPECT_EQ(first->getState(), service_rr_base_t::idle);
    EXPECT_EQ(on_thread(server,
                  [&] { return server.create_server_service(QStringLiteral("context_sync")); }),
        first);
    EXPECT_EQ(on_thread(server, [&] { return server.getService(QStringLiteral("context_sync")); }),
        first);
}

TEST(protoserver_t, CreateServerServiceOffItsThreadIsRefused)
{
    test_support::log_capture_t logs;
    protoserver_t server { mosquittocnf_t() };
    EXPECT_EQ(server.create_server_service(QStringLiteral("context_sync")), nullptr);
    EXPECT_TRUE(logs.contains(QStringLiteral("create_server_service(context_sync) refused: not "
                                             "called on the protoserver thread"),
        2));
}

TEST(protoserver_t, ServiceOfAnotherKindDoesNotDownCastToAServer)
{
    protoserver_t server { mosquittocnf_t() };
    service_rr_client_t* client = on_thread(
        server, [&] { return server.create_client_service(QStringLiteral("context_sync")); });
    ASSERT_NE(client, nullptr);
    service_rr_base_t* again = on_thread(
        server, [&] { return server.create_server_service(QStringLiteral("context_sync")); });
    EXPECT_EQ(again, client);
    EXPECT_EQ(qobject_cast<service_rr_server_t*>(again), nullptr);
}

TEST(protoserver_t, ServiceNameThatIsNotATopicLevelIsRefused)
{
    test_support::log_capture_t logs;
    protoserver_t server { mosquittocnf_t() };
    EXPECT_EQ(
        on_thread(server, [&] { return server.create_server_service(QStringLiteral("a/b")); }),
        nullptr);
    EXPECT_TRUE(
        logs.contains(QStringLiteral("Service name \"a/b\" refused: not a valid topic level"), 2));
}
