// One mosquitto_sub process that watches topics on a broker for a test: it prints every message as
// "<topic> <payload>", and its debug lines tell when the broker acknowledged the subscriptions and
// with which granted QoS (128 or 135: refused). Independent of the library under test, so what it
// sees is what the broker delivers. Used from the test's thread; the process is killed (by its
// PID) when the object dies.
#pragma once

#include "deployment_support.h"

#include <QList>
#include <QProcess>
#include <QString>
#include <QStringList>

namespace deployment {

class topic_watch_t {
public:
    topic_watch_t() = default;
    ~topic_watch_t();
    topic_watch_t(const topic_watch_t&) = delete;
    topic_watch_t& operator=(const topic_watch_t&) = delete;

    // Connects to `at` as `client_id` (and its credentials), subscribes to `filters` with QoS 1 and
    // waits for the acknowledgement of the subscriptions.
    bool start(const endpoint_t& at, const QString& client_id, const QStringList& filters);
    void stop();

    // The messages so far, "<topic> <payload>".
    QStringList messages();
    // The QoS that the broker granted to each filter, in order (128 or 135: refused).
    QList<int> granted();
    bool wait_message(const QString& message, int timeout_ms = 15000);
    int count(const QString& message);

private:
    void read();

    QProcess process_;
    QString pending_;
    QStringList messages_;
    QList<int> granted_;
    bool subscribed_ = false;
};

// Publishes one message with mosquitto_pub (QoS 1) and waits for it to end; true when it did.
bool publish(const endpoint_t& at, const QString& client_id, const QString& topic,
    const QByteArray& payload, bool retain = false);

} // namespace deployment
