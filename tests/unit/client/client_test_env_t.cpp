#include "client_test_env_t.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QThread>

#include <csignal>

namespace client_test {

client_test_env_t::client_test_env_t() = default;

client_test_env_t::~client_test_env_t()
{
    if (server_ && server_->is_running()) {
        server_->signal(SIGTERM);
        if (!server_->wait_finished(10000))
            server_->signal(SIGKILL);
    }
    server_.reset();
    broker_.stop();
}

QString client_test_env_t::broker_text() const
{
    return QStringLiteral("%1:%2").arg(broker_.host()).arg(broker_.port());
}

bool client_test_env_t::start()
{
    if (!root_.is_valid() || !state_.is_valid() || !root_.mkdir(QStringLiteral("background")))
        return false;
    if (!broker_.start())
        return false;
    return launch_server();
}

bool client_test_env_t::launch_server()
{
    server_ = std::make_unique<server_e2e::server_process_t>();
    if (!server_->start({ QStringLiteral("--root"), root_.root(), QStringLiteral("--state-dir"),
            state_.root(), QStringLiteral("--broker"), broker_text(), QStringLiteral("--log-level"),
            QStringLiteral("2") }))
        return false;
    // The retained status turns "online" when the service has subscribed and started.
    auto probe = connect(QStringLiteral("ctxsync-test-probe"));
    if (!probe)
        return false;
    const bool online = probe->wait_until(
        [&] {
            server_->output();
            return probe->serviceStatus() == QLatin1String("online");
        },
        15000);
    return online;
}

bool client_test_env_t::restart_server()
{
    server_->signal(SIGKILL);
    server_->wait_finished(10000);
    // The broker publishes the killed connection's Will, the retained status "offline"; waiting
    // for it first makes sure that the "online" seen next is the new process's.
    auto probe = connect(QStringLiteral("ctxsync-test-probe"));
    if (!probe
        || !probe->wait_until(
            [&] { return probe->serviceStatus() == QLatin1String("offline"); }, 10000))
        return false;
    probe.reset();
    return launch_server();
}

context_sync_client::client_connection_t::settings_t client_test_env_t::settings(
    const QString& client_id) const
{
    context_sync_client::client_connection_t::settings_t settings;
    settings.host = broker_.host();
    settings.port = broker_.port();
    settings.client_id = client_id;
    return settings;
}

std::unique_ptr<context_sync_client::client_connection_t> client_test_env_t::connect(
    const QString& client_id) const
{
    auto connection
        = std::make_unique<context_sync_client::client_connection_t>(settings(client_id));
    if (!connection->open(10000))
        return nullptr;
    return connection;
}

bool client_test_env_t::wait_for_server_tree(
    const context_sync_client::file_map_t& expected, int timeout_ms)
{
    auto connection = connect();
    if (!connection)
        return false;
    context_sync_client::context_tree_t tree(*connection);
    return tree.wait_for_list(
        [&](const context_sync_client::file_map_t& files) {
            server_->output();
            return files == expected;
        },
        timeout_ms, nullptr);
}

context_sync_client::file_map_t client_test_env_t::server_tree()
{
    auto connection = connect();
    context_sync_client::file_map_t files;
    if (connection)
        context_sync_client::context_tree_t(*connection).fetch_list(10000, &files);
    server_->output();
    return files;
}

} // namespace client_test
