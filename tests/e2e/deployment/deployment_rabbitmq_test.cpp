// The broker matrix on RabbitMQ's MQTT plugin (MQTT 3.1.1 only): one node, and a cluster of three
// nodes on this machine with the server on one node and the clients on the other two. The nodes of
// both start side by side once for the whole suite; the test that takes the cluster's majority
// away runs last.
//
// Each known limit of the plugin is asserted where it shows: no MQTT 5; retained messages that
// stay on the node where they were published and never reach a subscription with "+"; "." in a
// topic level taken as a level separator, which loses requests of a client whose id has a dot;
// no service without a majority of the cluster's nodes.

#include "rabbitmq_cluster_t.h"
#include "session_test_t.h"
#include "topic_watch_t.h"

#include <QTemporaryDir>

#include <iostream>

using namespace deployment;

namespace {

class deployment_rabbitmq : public session_test_t {
protected:
    static void SetUpTestSuite()
    {
        folder_ = new QTemporaryDir();
        single_ = new rabbitmq_cluster_t(folder_->filePath(QStringLiteral("single")));
        cluster_ = new rabbitmq_cluster_t(folder_->filePath(QStringLiteral("cluster")));
        launched_ = single_->launch(1) && cluster_->launch(3);
        launched_ = launched_ && single_->wait_ready() && cluster_->wait_ready();
        if (!launched_) {
            for (int i = 0; i < cluster_->size(); ++i)
                std::cerr << cluster_->log(i).toStdString();
        }
    }

    static void TearDownTestSuite()
    {
        delete single_;
        delete cluster_;
        delete folder_;
    }

    void SetUp() override
    {
        session_test_t::SetUp();
        ASSERT_TRUE(launched_) << "RabbitMQ " << rabbitmq_cluster_t::version().toStdString()
                               << " nodes did not start";
    }

    static endpoint_t at(const rabbitmq_cluster_t& nodes, int node)
    {
        endpoint_t endpoint;
        endpoint.port = nodes.mqtt_port(node);
        endpoint.protocol = 4;
        return endpoint;
    }

    static QTemporaryDir* folder_;
    static rabbitmq_cluster_t* single_;
    static rabbitmq_cluster_t* cluster_;
    static bool launched_;
};

QTemporaryDir* deployment_rabbitmq::folder_ = nullptr;
rabbitmq_cluster_t* deployment_rabbitmq::single_ = nullptr;
rabbitmq_cluster_t* deployment_rabbitmq::cluster_ = nullptr;
bool deployment_rabbitmq::launched_ = false;

} // namespace

TEST_F(deployment_rabbitmq, OneNodeCarriesAUsersSessionOverMqtt311)
{
    session_t session;
    session.server = at(*single_, 0);
    session.alice = session.server;
    session.bob = session.server;
    session.alice_id = QStringLiteral("alice-laptop");
    // The retained status comes to a late subscriber of its exact topic, not to one with "+".
    session.late_status = true;
    session.late_status_wildcard = false;
    run_session(session);
}

TEST_F(deployment_rabbitmq, Mqtt5IsRefused)
{
    endpoint_t v5 = at(*single_, 0);
    v5.protocol = 5;
    const run_t result = ctxsync(v5, QStringLiteral("alice"), { QStringLiteral("list") }, 3);
    EXPECT_EQ(result.code, 3);
    EXPECT_EQ(result.err,
        QStringLiteral("ctxsync: cannot connect: no MQTT broker accepted the connection at %1 "
                       "within 3000 ms\n")
            .arg(v5.text()));
    ASSERT_TRUE(installation_->start(v5, QStringLiteral("context-sync-server")));
    // The plugin drops an MQTT 5 connection without an answer; the server logs it and tries
    // again.
    EXPECT_TRUE(installation_->wait_logged(
        QStringLiteral("MQTT connection to %1 closed by the broker before it was accepted: check "
                       "the MQTT version (protocol_version 5) and that the broker allows retained "
                       "messages")
            .arg(v5.text()),
        2, 2))
        << installation_->output().toStdString();
}

// A dot in a topic level is a level separator for the plugin: the server's "req/+" never matches
// the requests of "alice.laptop", which therefore time out, and nothing changes on disk.
TEST_F(deployment_rabbitmq, AClientIdWithADotIsNotHeard)
{
    const endpoint_t node = at(*single_, 0);
    ASSERT_TRUE(installation_->start(node, QStringLiteral("context-sync-server")));
    ASSERT_TRUE(
        dirs_.write(QStringLiteral("upload/small.png"), fixture(QStringLiteral("bg_640x284.png"))));
    run_t result = ctxsync(node, QStringLiteral("alice.laptop"),
        { QStringLiteral("push"), dirs_.path(QStringLiteral("upload/small.png")) }, 3);
    EXPECT_EQ(result.code, 4) << result.out.toStdString() << result.err.toStdString();
    EXPECT_EQ(result.err,
        QStringLiteral("ctxsync: failed background/small.png: no acknowledgement for chunk 0 of 1 "
                       "within 3000 ms\n"));
    EXPECT_TRUE(installation_->files().isEmpty());
    // The same client without the dot is heard.
    result = ctxsync(node, QStringLiteral("alice-laptop"),
        { QStringLiteral("push"), dirs_.path(QStringLiteral("upload/small.png")) });
    EXPECT_EQ(result.code, 0) << result.err.toStdString();
    EXPECT_EQ(installation_->files().size(), 1);
}

TEST_F(deployment_rabbitmq, ThreeNodeClusterCarriesAUsersSession)
{
    session_t session;
    session.server = at(*cluster_, 0);
    session.alice = at(*cluster_, 1);
    session.bob = at(*cluster_, 2);
    session.alice_id = QStringLiteral("alice-laptop");
    // The retained status stays on the server's node.
    session.late_status = false;
    session.late_status_wildcard = false;
    run_session(session);
    // On the server's own node a late subscriber gets it.
    EXPECT_TRUE(late_subscriber_gets_status(
        at(*cluster_, 0), at(*cluster_, 0).topic(QStringLiteral("context_sync/status"))));
}

// Runs last: it takes the cluster down node by node.
TEST_F(deployment_rabbitmq, ClusterServesWhileAMajorityOfNodesIsUp)
{
    ASSERT_TRUE(installation_->start(at(*cluster_, 0), QStringLiteral("context-sync-server")));
    run_t result = ctxsync(at(*cluster_, 1), QStringLiteral("bob"), { QStringLiteral("list") });
    EXPECT_EQ(result.code, 0) << result.err.toStdString();
    cluster_->kill(2);
    result = ctxsync(at(*cluster_, 1), QStringLiteral("bob"), { QStringLiteral("list") });
    EXPECT_EQ(result.code, 0) << result.err.toStdString();
    cluster_->kill(1);
    // Once the last node has seen both others go.
    for (int gone : { 1, 2 }) {
        const QString seen
            = QStringLiteral("rabbit on node %1 down").arg(cluster_->node_name(gone));
        EXPECT_TRUE(reliability::wait_until([&] { return cluster_->log(0).contains(seen); }, 30000))
            << seen.toStdString() << "\n"
            << cluster_->log(0).right(3000).toStdString();
    }
    result = ctxsync(at(*cluster_, 0), QStringLiteral("bob"), { QStringLiteral("list") }, 5);
    // One node of three accepts the connection. Whether it still routes depends on whether the
    // plugin's client registration (which needs a majority) has given up yet: both have been seen
    // on one machine. Either way the client gets a whole answer or a clear time-out, never a
    // wrong list.
    if (result.code == 0) {
        EXPECT_TRUE(result.err.isEmpty()) << result.err.toStdString();
    } else {
        EXPECT_EQ(result.code, 4);
        EXPECT_EQ(
            result.err, QStringLiteral("ctxsync: no file list from the server within 5000 ms\n"));
    }
}
