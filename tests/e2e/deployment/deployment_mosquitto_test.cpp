// The broker matrix on mosquitto: one broker alone, and a bridge between a "device" broker that
// the server uses and a "cloud" broker that the clients use, the installation's rr tree carried
// both ways below the prefix site/<installation_id>/ on the cloud side.

#include "session_test_t.h"
#include "topic_watch_t.h"

#include "common/mosquitto_broker_t.h"

#include "context_sync_client/context_tree_t.h"

using namespace deployment;
using reliability::md5_hex;

namespace {

const QString kInstallation = QStringLiteral("0123abcd");

// The bridge of docs/deployment.md, for a device broker that connects to `cloud_port`. The
// device's brokers let one message in flight per client: the protocol is stop-and-wait, and
// mosquitto 2.0's bridges obey that limit too.
QStringList bridge_lines(quint16 cloud_port, const QStringList& extra = {})
{
    return QStringList { QStringLiteral("connection cloud-%1").arg(kInstallation),
        QStringLiteral("address 127.0.0.1:%1").arg(cloud_port),
        QStringLiteral("remote_clientid device-%1").arg(kInstallation),
        QStringLiteral("cleansession true"), QStringLiteral("try_private true"),
        QStringLiteral("restart_timeout 1"),
        QStringLiteral("topic rr/# both 1 orvane/ site/%1/orvane/").arg(kInstallation) }
    + extra;
}

class deployment_mosquitto : public session_test_t {
protected:
    // Starts the cloud broker, then the device broker with the bridge, and waits until a message
    // crosses it both ways.
    void start_bridge(const QStringList& extra = {})
    {
        test_support::mosquitto_broker_t::config_t cloud_config;
        cloud_config.global
            = { QStringLiteral("max_inflight_messages 1"), QStringLiteral("set_tcp_nodelay true") };
        ASSERT_TRUE(cloud_.start(cloud_config));
        test_support::mosquitto_broker_t::config_t device_config;
        device_config.global
            = { QStringLiteral("max_inflight_messages 1"), QStringLiteral("set_tcp_nodelay true") };
        device_config.listener = bridge_lines(cloud_.port(), extra);
        ASSERT_TRUE(device_.start(device_config));
        device_at_.port = device_.port();
        cloud_at_.port = cloud_.port();
        cloud_at_.topic_base = QStringLiteral("site/%1/orvane").arg(kInstallation);
        // Up when a message published on one side arrives on the other, both ways.
        topic_watch_t on_cloud;
        ASSERT_TRUE(on_cloud.start(cloud_at_, QStringLiteral("bridge-check-cloud"),
            { cloud_at_.topic(QStringLiteral("check/up")) }));
        ASSERT_TRUE(reliability::wait_until(
            [&] {
                publish(device_at_, QStringLiteral("bridge-check-pub"),
                    device_at_.topic(QStringLiteral("check/up")), "up");
                return on_cloud.wait_message(cloud_at_.topic(QStringLiteral("check/up up")), 500);
            },
            15000));
        topic_watch_t on_device;
        ASSERT_TRUE(on_device.start(device_at_, QStringLiteral("bridge-check-device"),
            { device_at_.topic(QStringLiteral("check/down")) }));
        ASSERT_TRUE(publish(cloud_at_, QStringLiteral("bridge-check-pub"),
            cloud_at_.topic(QStringLiteral("check/down")), "down"));
        ASSERT_TRUE(on_device.wait_message(device_at_.topic(QStringLiteral("check/down down"))));
    }

    test_support::mosquitto_broker_t cloud_;
    test_support::mosquitto_broker_t device_;
    endpoint_t device_at_;
    endpoint_t cloud_at_;
};

} // namespace

TEST_F(deployment_mosquitto, OneBrokerCarriesAUsersSession)
{
    test_support::mosquitto_broker_t broker;
    ASSERT_TRUE(broker.start());
    session_t session;
    session.server.port = broker.port();
    session.alice = session.server;
    session.bob = session.server;
    run_session(session);
}

TEST_F(deployment_mosquitto, OneBrokerOverMqtt311CarriesAUsersSession)
{
    test_support::mosquitto_broker_t broker;
    ASSERT_TRUE(broker.start());
    session_t session;
    session.server.port = broker.port();
    session.server.protocol = 4;
    session.alice = session.server;
    session.bob = session.server;
    run_session(session);
}

TEST_F(deployment_mosquitto, ABridgeCarriesAUsersSessionBothWays)
{
    start_bridge();
    ASSERT_FALSE(HasFatalFailure());
    session_t session;
    session.server = device_at_;
    session.alice = cloud_at_;
    session.bob = cloud_at_;
    run_session(session);
}

// A bridge that caps the size of what it forwards below a chunk's message loses the chunks on
// their way: files of one small message still travel, a file of whole chunks does not.
TEST_F(deployment_mosquitto, ABridgePacketCapBelowAChunkStopsDownloads)
{
    start_bridge({ QStringLiteral("bridge_max_packet_size 600000") });
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(installation_->start(device_at_, QStringLiteral("context-sync-server")));
    const QByteArray large = padded_png(kLargeSize, 23);
    const QByteArray small = fixture(QStringLiteral("bg_640x284.png"));
    ASSERT_TRUE(dirs_.write(QStringLiteral("upload/large.png"), large));
    ASSERT_TRUE(dirs_.write(QStringLiteral("upload/small.png"), small));
    // Uploads cross towards the device, which the cap does not limit.
    run_t result = ctxsync(cloud_at_, QStringLiteral("alice"),
        { QStringLiteral("push"), dirs_.path(QStringLiteral("upload/large.png")),
            dirs_.path(QStringLiteral("upload/small.png")) });
    ASSERT_EQ(result.code, 0) << result.err.toStdString();
    EXPECT_EQ(
        reliability::read_file(installation_->root() + QStringLiteral("background/large.png")),
        large);
    // Listing still works (small messages); the download's chunks never reach the cloud side.
    result = ctxsync(cloud_at_, QStringLiteral("bob"), { QStringLiteral("list") });
    EXPECT_EQ(result.code, 0) << result.err.toStdString();
    EXPECT_TRUE(result.out.endsWith(
        QStringLiteral("2 files, context hash %1\n")
            .arg(context_sync_client::context_tree_t::cumulative_hash(
                { { QStringLiteral("background/large.png"), md5_hex(large) },
                    { QStringLiteral("background/small.png"), md5_hex(small) } }))))
        << result.out.toStdString();
    ASSERT_TRUE(dirs_.mkdir(QStringLiteral("pulled")));
    const QString pulled = dirs_.path(QStringLiteral("pulled"));
    result = ctxsync(cloud_at_, QStringLiteral("bob"),
        { QStringLiteral("--deadline"), QStringLiteral("10"), QStringLiteral("pull"), pulled }, 5);
    EXPECT_EQ(result.code, 4) << result.out.toStdString();
    // The client takes the missing chunks for a busy server and gives up after its tries.
    EXPECT_EQ(result.out,
        QStringLiteral("0 pulled (0 B), 2 failed, 0 deleted; not in step (see ctxsync status) (the "
                       "server was busy: 3 tries)\n"));
    EXPECT_TRUE(result.err.contains(QStringLiteral(
        "ctxsync: background/large.png: the server was busy: no chunk after 3 tries\n")))
        << result.err.toStdString();
    EXPECT_FALSE(dirs_.exists(QStringLiteral("pulled/background/large.png")));
}
