// Common part of the rr services that run over a protoserver_t connection: the service name, the
// start/stop life cycle, the state and the signals that report connection events, time-outs and
// client presence.
//
// States: idle (created) -> connecting (started, connection not up yet) -> running (connected and
// subscribed) -> reconnecting (connection lost, waiting for the next attempt) -> running ... ->
// stopped (stop()). Every change emits on_state_change(state, service name).
//
// Thread: created by the protoserver on its own thread, as its child, and lives there; start(),
// stop() and the publishing slots of the subclasses may be called from any thread and are
// forwarded to that thread, so every signal is emitted on the protoserver thread (connect queued).
// The protoserver calls the protected hooks on its thread.
#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

#include <atomic>

namespace comunication {
class protoserver_t;
}

namespace comunication::service {

class service_rr_base_t : public QObject {
    Q_OBJECT
public:
    // When a started service stops by itself. "Answer" means one that a server publishes or
    // that a client receives.
    enum How_finish : int {
        finish_after_request = 0, // after the first request it receives
        finish_after_response = 1, // after the first answer
        finish_on_stop = 2, // serves until stop()
    };
    Q_ENUM(How_finish)

    enum State_Internal_Service : int {
        idle = 0,
        connecting = 1,
        running = 2,
        reconnecting = 3,
        stopped = 4,
    };
    Q_ENUM(State_Internal_Service)

    // "idle", "connecting", "running", "reconnecting", "stopped"; "unknown" for other values.
    static QString friendlyState(State_Internal_Service state);
    static QString friendlyState(int state);

    ~service_rr_base_t() override;

    QString getName() const { return name_; }
    State_Internal_Service getState() const { return state_.load(); }
    bool isStarted() const;
    protoserver_t* getProtoserver() const { return server_; }

public slots:
    // Subscribes the service's topics (again on every reconnection) and opens the connection if
    // it is not open yet. Starting a started service does nothing.
    void start(How_finish how);
    // Publishes the service's going-away message, unsubscribes and enters `stopped`. Stopping a
    // service that is not started does nothing.
    void stop();

signals:
    // A client's connection was lost (its Will "lost" on the presence topic).
    void on_disconnection(QString client);
    // A client left cleanly (presence "offline").
    void on_end(QString client);
    void on_state_change(int state, QString name);
    // A QoS 1 publication got no PUBACK within the publish time-out.
    void on_timeout_publish(QString topic);
    // A subscription got no SUBACK within the subscribe time-out.
    void on_timeout_subscribe(QString topic);
    // A request got no answer within the response time-out (client side).
    void on_timeout_response(QString topic);

protected:
    service_rr_base_t(const QString& name, protoserver_t* server);

    // Topic filters to subscribe while started.
    virtual QStringList subscriptions() const = 0;
    // A message on one of the service's subscriptions, on the protoserver thread.
    virtual void receive(const QString& topic, const QByteArray& payload) = 0;
    // The connection is up and the subscriptions have been sent (first connection and each
    // reconnection).
    virtual void connected() { }
    // Called by stop() while still subscribed and connected, for a last message.
    virtual void stopping() { }

    // For subclasses: publishes through the protoserver (QoS 1), on the protoserver thread.
    void publish(const QString& topic, const QByteArray& payload, bool retain = false);
    // Runs `how`-dependent self-stop checks.
    void request_received();
    void response_published();
    void set_state(State_Internal_Service state);
    // Runs `call` on the protoserver thread: at once when already there, else queued.
    template <typename F> void on_own_thread(F&& call);

private:
    friend class comunication::protoserver_t;
    void connection_up();
    void connection_down();

    const QString name_;
    protoserver_t* const server_;
    How_finish how_ = finish_on_stop;
    std::atomic<State_Internal_Service> state_ { idle };
};

} // namespace comunication::service

#include "utility/tsan_annotations.h"

#include <QMetaObject>
#include <QThread>

template <typename F> void comunication::service::service_rr_base_t::on_own_thread(F&& call)
{
    if (QThread::currentThread() == thread())
        call();
    else
        QMetaObject::invokeMethod(
            this, ::utility::tsan::handed_over(std::forward<F>(call)), Qt::QueuedConnection);
}
