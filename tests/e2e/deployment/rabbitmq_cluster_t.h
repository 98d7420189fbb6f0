// RabbitMQ nodes with the MQTT plugin for one test, all on this machine: an Erlang port mapper of
// their own on a free port, and one or more nodes with their own names, AMQP, distribution and
// MQTT ports and data and log folders below the given folder, sharing one Erlang cookie. More
// than one node form one cluster by the classic peer discovery (the node list in each node's
// configuration), so the nodes start side by side instead of joining one after the other. Every
// process is stopped by its own PID when the object dies.
//
// Used from the test's thread only.
#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>

#include <memory>
#include <vector>

namespace deployment {

class rabbitmq_cluster_t {
public:
    explicit rabbitmq_cluster_t(const QString& folder);
    ~rabbitmq_cluster_t();
    rabbitmq_cluster_t(const rabbitmq_cluster_t&) = delete;
    rabbitmq_cluster_t& operator=(const rabbitmq_cluster_t&) = delete;

    // Launches `nodes` nodes without waiting for them.
    bool launch(int nodes);
    // Waits until every node has started (its log says "Server startup complete").
    bool wait_ready(int timeout_ms = 150000);

    int size() const { return int(nodes_.size()); }
    quint16 mqtt_port(int node) const { return nodes_.at(size_t(node)).mqtt_port; }
    QString node_name(int node) const { return nodes_.at(size_t(node)).name; }
    qint64 pid(int node) const;
    // The node's console so far.
    QString log(int node) const;
    // SIGKILL to one node, which then stays down.
    void kill(int node);
    void stop();

    static QString version();

private:
    struct node_t {
        QString name;
        QString folder;
        quint16 amqp_port = 0;
        quint16 dist_port = 0;
        quint16 mqtt_port = 0;
        std::unique_ptr<QProcess> process;
    };

    QString folder_;
    quint16 epmd_port_ = 0;
    QProcess epmd_;
    std::vector<node_t> nodes_;
};

} // namespace deployment
