// The process's one MQTT connection, and the rr services that run over it.
//
// The object moves itself to a thread of its own at construction and lives there until its
// destructor. libmosquitto is driven from that thread's Qt event loop, never from a thread of its
// own: a read notifier on mosquitto_socket(), a write notifier that is enabled only while
// mosquitto_want_write(), and a timer for mosquitto_loop_misc() (keep-alive) and the time-outs.
// The notifiers are re-created on every connection and dropped on every disconnection, so a dead
// socket is never polled.
//
// The connection opens when the first service is started (or on open()), with
// mosquitto_connect_async(). Lost or failed connections are retried with an exponential back-off
// between the configured minimum and maximum delays; every (re)connection re-subscribes every
// started service's topics and sends what was published while the connection was down (QoS 1,
// kept in order). A publication without PUBACK, or a subscription without SUBACK, within its
// time-out is reported once through the publishing service's on_timeout_publish /
// on_timeout_subscribe.
//
// Services: create_server_service(name) and create_client_service(name) create (or return) the
// service registered under `name`; both must run on this object's thread. Services are children
// of this object and are deleted with it. The first service created chooses the connection's
// Will: a server service its retained status "offline", a client service its presence "lost".
//
// Threads: construct and destroy from the same (other) thread; isConnected(), connectAttempts()
// and getMosquittoCnf() may be called from any thread; everything else runs on this object's
// thread (public slots forward themselves there). Signals are emitted on this object's thread.
#pragma once

#include "platform/comunication/config/mosquittocnf_t.h"
#include "platform/comunication/protobase_t.h"

#include <QByteArray>
#include <QDeadlineTimer>
#include <QHash>
#include <QList>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QThread>

#include <atomic>

struct mosquitto;
struct mosquitto_message;
struct mqtt5__property;
class QSocketNotifier;
class QTimer;

namespace comunication {

namespace service {
class service_rr_base_t;
class service_rr_server_t;
class service_rr_client_t;
} // namespace service

class protoserver_t : public protobase_t {
    Q_OBJECT
public:
    explicit protoserver_t(const config::mosquittocnf_t& cnf);
    ~protoserver_t() override;

    // Immutable after construction.
    const config::mosquittocnf_t& getMosquittoCnf() const { return cnf_; }

    bool isConnected() const { return connected_.load(); }
    // Connection attempts made so far (tests use it to show the back-off).
    int connectAttempts() const { return attempts_.load(); }

    service::service_rr_base_t* create_server_service(const QString& name) override;
    service::service_rr_client_t* create_client_service(const QString& name);
    service::service_rr_base_t* getService(const QString& name) const;

    // For services, on this object's thread.
    void add_subscriptions(service::service_rr_base_t* service, const QStringList& filters);
    void remove_subscriptions(service::service_rr_base_t* service);
    void publish(service::service_rr_base_t* service, const QString& topic,
        const QByteArray& payload, bool retain);
    void set_will(const QString& topic, const QByteArray& payload, bool retain);

public slots:
    // Opens the connection if it is not open or being retried already.
    void open();

signals:
    void connected();
    void disconnected();

private:
    struct pending_t {
        QPointer<service::service_rr_base_t> service;
        QString topic;
        QDeadlineTimer deadline;
        bool reported = false;
    };
    struct outgoing_t {
        pending_t pending;
        QByteArray payload;
        bool retain = false;
    };
    struct subscription_t {
        service::service_rr_base_t* service = nullptr;
        QString filter;
    };
    enum class link_t { none, connecting, connected };

    static void on_connect_cb(struct mosquitto*, void* self, int rc);
    static void on_disconnect_cb(struct mosquitto*, void* self, int rc);
    static void on_message_cb(struct mosquitto*, void* self, const struct mosquitto_message* msg);
    static void on_publish_cb(struct mosquitto*, void* self, int mid, int reason,
        const struct mqtt5__property* properties);
    static void on_subscribe_cb(
        struct mosquitto*, void* self, int mid, int count, const int* granted);

    bool ensure_client();
    void connect_now();
    void schedule_reconnect();
    void link_up();
    void link_down(int rc);
    void subscribe_now(service::service_rr_base_t* service, const QString& filter);
    void send(outgoing_t item);
    void dispatch(const QString& topic, const QByteArray& payload);
    void pump(bool readable, bool writable);
    void loop_failed(int rc);
    void tick();
    void check_timeouts();
    void sync_socket();
    void drop_notifiers();
    void shutdown();

    const config::mosquittocnf_t cnf_;
    QThread thread_;
    struct mosquitto* mosq_ = nullptr;
    QSocketNotifier* read_notifier_ = nullptr;
    QSocketNotifier* write_notifier_ = nullptr;
    int socket_ = -1;
    QTimer* misc_timer_ = nullptr;
    QTimer* reconnect_timer_ = nullptr;
    int backoff_ms_ = 0;
    link_t link_ = link_t::none;
    bool open_requested_ = false;
    bool closing_ = false;
    bool shutting_down_ = false;
    bool refused_ = false; // the broker refused the last CONNECT (logged in the callback)
    std::atomic<bool> connected_ { false };
    std::atomic<int> attempts_ { 0 };

    QHash<QString, service::service_rr_base_t*> services_;
    QList<subscription_t> subscriptions_;
    QHash<int, pending_t> pending_publish_;
    QHash<int, pending_t> pending_subscribe_;
    QList<outgoing_t> outbox_;

    QString will_topic_;
    QByteArray will_payload_;
    bool will_retain_ = false;
};

} // namespace comunication
