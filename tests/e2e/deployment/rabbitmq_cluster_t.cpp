#include "rabbitmq_cluster_t.h"

#include "common/mosquitto_broker_t.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QProcessEnvironment>
#include <QThread>

#include <csignal>
#include <sys/types.h>

namespace deployment {

namespace {

const QString kServerScript = QStringLiteral("/usr/lib/rabbitmq/bin/rabbitmq-server");

bool write_text(const QString& path, const QString& text)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    return file.write(text.toUtf8()) == text.toUtf8().size();
}

void kill_and_wait(QProcess& process)
{
    if (process.state() == QProcess::NotRunning)
        return;
    ::kill(pid_t(process.processId()), SIGKILL);
    process.waitForFinished(10000);
}

} // namespace

rabbitmq_cluster_t::rabbitmq_cluster_t(const QString& folder)
    : folder_(folder)
{
}

rabbitmq_cluster_t::~rabbitmq_cluster_t()
{
    stop();
}

QString rabbitmq_cluster_t::version()
{
    const QStringList found = QDir(QStringLiteral("/usr/lib/rabbitmq/lib"))
                                  .entryList({ QStringLiteral("rabbitmq_server-*") }, QDir::Dirs);
    return found.isEmpty() ? QString() : found.first().mid(int(strlen("rabbitmq_server-")));
}

bool rabbitmq_cluster_t::launch(int count)
{
    if (!QFile::exists(kServerScript) || !QDir().mkpath(folder_))
        return false;
    // The cookie lives in the nodes' HOME; Erlang wants it readable by its owner alone.
    const QString cookie = folder_ + QStringLiteral("/.erlang.cookie");
    if (!write_text(cookie,
            QStringLiteral("ctxsync-deployment-%1").arg(QCoreApplication::applicationPid())))
        return false;
    QFile::setPermissions(cookie, QFileDevice::ReadOwner);

    epmd_port_ = test_support::mosquitto_broker_t::free_port();
    epmd_.setStandardOutputFile(folder_ + QStringLiteral("/epmd.log"));
    epmd_.setStandardErrorFile(folder_ + QStringLiteral("/epmd.log"), QIODevice::Append);
    epmd_.start(QStringLiteral("epmd"), { QStringLiteral("-port"), QString::number(epmd_port_) });
    if (!epmd_.waitForStarted(5000))
        return false;

    const QString prefix = QStringLiteral("ctxsync%1n").arg(QCoreApplication::applicationPid());
    for (int i = 0; i < count; ++i) {
        node_t node;
        node.name = QStringLiteral("%1%2@localhost").arg(prefix).arg(i + 1);
        node.folder = folder_ + QStringLiteral("/node%1").arg(i + 1);
        node.amqp_port = test_support::mosquitto_broker_t::free_port();
        node.dist_port = test_support::mosquitto_broker_t::free_port();
        node.mqtt_port = test_support::mosquitto_broker_t::free_port();
        nodes_.push_back(std::move(node));
    }
    for (node_t& node : nodes_) {
        if (!QDir().mkpath(node.folder + QStringLiteral("/mnesia"))
            || !QDir().mkpath(node.folder + QStringLiteral("/log")))
            return false;
        QStringList conf {
            QStringLiteral("listeners.tcp.default = 127.0.0.1:%1").arg(node.amqp_port),
            QStringLiteral("mqtt.listeners.tcp.default = 127.0.0.1:%1").arg(node.mqtt_port),
            QStringLiteral("mqtt.allow_anonymous = true"), QStringLiteral("loopback_users = none")
        };
        if (nodes_.size() > 1) {
            conf << QStringLiteral("cluster_formation.peer_discovery_backend = classic_config");
            for (size_t k = 0; k < nodes_.size(); ++k)
                conf << QStringLiteral("cluster_formation.classic_config.nodes.%1 = %2")
                            .arg(k + 1)
                            .arg(nodes_.at(k).name);
        }
        if (!write_text(node.folder + QStringLiteral("/rabbitmq.conf"), conf.join('\n') + '\n'))
            return false;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        const auto set = [&env](const char* key, const QString& value) {
            env.insert(QString::fromLatin1(key), value);
        };
        set("HOME", folder_);
        set("ERL_EPMD_PORT", QString::number(epmd_port_));
        set("RABBITMQ_NODENAME", node.name);
        set("RABBITMQ_NODE_IP_ADDRESS", QStringLiteral("127.0.0.1"));
        set("RABBITMQ_NODE_PORT", QString::number(node.amqp_port));
        set("RABBITMQ_DIST_PORT", QString::number(node.dist_port));
        set("RABBITMQ_MNESIA_BASE", node.folder + QStringLiteral("/mnesia"));
        set("RABBITMQ_LOG_BASE", node.folder + QStringLiteral("/log"));
        set("RABBITMQ_LOGS", QStringLiteral("-"));
        set("RABBITMQ_CONFIG_FILE", node.folder + QStringLiteral("/rabbitmq.conf"));
        set("RABBITMQ_ADVANCED_CONFIG_FILE", node.folder + QStringLiteral("/advanced.config"));
        set("RABBITMQ_CONF_ENV_FILE", node.folder + QStringLiteral("/rabbitmq-env.conf"));
        set("RABBITMQ_ENABLED_PLUGINS", QStringLiteral("rabbitmq_mqtt"));
        set("RABBITMQ_ENABLED_PLUGINS_FILE", node.folder + QStringLiteral("/enabled_plugins"));
        set("RABBITMQ_PID_FILE", node.folder + QStringLiteral("/pid"));
        // The start script then replaces itself with the Erlang VM, so the PID is the node's.
        set("RUNNING_UNDER_SYSTEMD", QStringLiteral("1"));
        node.process = std::make_unique<QProcess>();
        node.process->setProcessEnvironment(env);
        node.process->setWorkingDirectory(node.folder);
        node.process->setStandardOutputFile(node.folder + QStringLiteral("/console.log"));
        node.process->setStandardErrorFile(
            node.folder + QStringLiteral("/console.log"), QIODevice::Append);
        node.process->start(kServerScript, {});
        if (!node.process->waitForStarted(10000))
            return false;
    }
    return true;
}

bool rabbitmq_cluster_t::wait_ready(int timeout_ms)
{
    QDeadlineTimer deadline(timeout_ms);
    while (!deadline.hasExpired()) {
        int ready = 0;
        for (int i = 0; i < size(); ++i) {
            if (nodes_.at(size_t(i)).process->state() == QProcess::NotRunning)
                return false;
            ready += log(i).contains(QLatin1String("Server startup complete")) ? 1 : 0;
        }
        if (ready == size())
            return true;
        QThread::msleep(200);
    }
    return false;
}

qint64 rabbitmq_cluster_t::pid(int node) const
{
    const QProcess* process = nodes_.at(size_t(node)).process.get();
    return process ? process->processId() : 0;
}

QString rabbitmq_cluster_t::log(int node) const
{
    QFile file(nodes_.at(size_t(node)).folder + QStringLiteral("/console.log"));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

void rabbitmq_cluster_t::kill(int node)
{
    if (nodes_.at(size_t(node)).process)
        kill_and_wait(*nodes_.at(size_t(node)).process);
}

void rabbitmq_cluster_t::stop()
{
    for (node_t& node : nodes_) {
        if (node.process)
            kill_and_wait(*node.process);
    }
    kill_and_wait(epmd_);
}

} // namespace deployment
