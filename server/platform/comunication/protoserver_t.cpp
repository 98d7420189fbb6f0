#include "platform/comunication/protoserver_t.h"

#include "platform/comunication/service/service_rr_client_t.h"
#include "platform/comunication/service/service_rr_server_t.h"
#include "platform/comunication/utility/rr_topic_t.h"
#include "platform/logs/classlogs.h"
#include "utility/tsan_annotations.h"

#include <QElapsedTimer>
#include <QMetaObject>
#include <QSocketNotifier>
#include <QTimer>

#include <mosquitto.h>
#include <sys/socket.h>

#include <algorithm>
#include <mutex>

namespace comunication {

namespace {

const char* const kLogSource = "server/platform/comunication/protoserver_t";

void init_library()
{
    static std::once_flag once;
    std::call_once(once, [] { mosquitto_lib_init(); });
}

QString error_text(int rc)
{
    return QString::fromUtf8(mosquitto_strerror(rc));
}

// Period of the housekeeping timer: short enough to notice a time-out within a quarter of the
// shortest one, never busier than every 20 ms.
int tick_period(const config::mosquittocnf_t& cnf)
{
    const int shortest = std::min({ cnf.getPublishTimeoutMs(), cnf.getSubscribeTimeoutMs(),
        cnf.getResponseTimeoutMs(), 2000 });
    return std::clamp(shortest / 4, 20, 500);
}

} // namespace

protoserver_t::protoserver_t(const config::mosquittocnf_t& cnf)
    : cnf_(cnf)
{
    init_library();
    misc_timer_ = new QTimer(this);
    misc_timer_->setInterval(tick_period(cnf_));
    connect(misc_timer_, &QTimer::timeout, this, &protoserver_t::tick);
    reconnect_timer_ = new QTimer(this);
    reconnect_timer_->setSingleShot(true);
    connect(reconnect_timer_, &QTimer::timeout, this, &protoserver_t::connect_now);
    backoff_ms_ = cnf_.getReconnectMinMs();

    thread_.setObjectName(QStringLiteral("protoserver"));
    moveToThread(&thread_);
    thread_.start();
}

protoserver_t::~protoserver_t()
{
    if (thread_.isRunning()) {
        QThread* const home = QThread::currentThread();
        // Cleanup must run where the notifiers and timers live; the object then comes back to
        // this thread, so that the rest of the destruction happens with no event loop behind it.
        QMetaObject::invokeMethod(this, ::utility::tsan::handed_over([this, home] {
            shutdown();
            moveToThread(home);
        }),
            Qt::BlockingQueuedConnection);
        thread_.quit();
        thread_.wait();
    }
    // Services are children and go with QObject's destructor; they only reach back into this
    // object through their own stop(), which shutdown() has run already.
    if (mosq_) {
        mosquitto_destroy(mosq_);
        mosq_ = nullptr;
    }
}

service::service_rr_base_t* protoserver_t::create_server_service(const QString& name)
{
    if (QThread::currentThread() != thread()) {
        ORVANE_LOG(QStringLiteral("create_server_service(%1) refused: not called on the "
                                  "protoserver thread")
                       .arg(name),
            2, kLogSource);
        return nullptr;
    }
    if (service::service_rr_base_t* found = services_.value(name))
        return found;
    if (!config::mosquittocnf_t::isValidClientId(name)) {
        ORVANE_LOG(QStringLiteral("Service name \"%1\" refused: not a valid topic level").arg(name),
            2, kLogSource);
        return nullptr;
    }
    auto* created = new service::service_rr_server_t(name, this);
    services_.insert(name, created);
    set_will(
        utility::rr_topic_t::status(cnf_.getTopicBase(), name), QByteArrayLiteral("offline"), true);
    return created;
}

service::service_rr_client_t* protoserver_t::create_client_service(const QString& name)
{
    if (QThread::currentThread() != thread()) {
        ORVANE_LOG(QStringLiteral("create_client_service(%1) refused: not called on the "
                                  "protoserver thread")
                       .arg(name),
            2, kLogSource);
        return nullptr;
    }
    if (service::service_rr_base_t* found = services_.value(name))
        return qobject_cast<service::service_rr_client_t*>(found);
    if (!config::mosquittocnf_t::isValidClientId(name)) {
        ORVANE_LOG(QStringLiteral("Service name \"%1\" refused: not a valid topic level").arg(name),
            2, kLogSource);
        return nullptr;
    }
    auto* created = new service::service_rr_client_t(name, this);
    services_.insert(name, created);
    set_will(utility::rr_topic_t::presence(cnf_.getTopicBase(), cnf_.getClientId()),
        QByteArrayLiteral("lost"), false);
    return created;
}

service::service_rr_base_t* protoserver_t::getService(const QString& name) const
{
    return services_.value(name);
}

void protoserver_t::set_will(const QString& topic, const QByteArray& payload, bool retain)
{
    if (!will_topic_.isEmpty())
        return;
    will_topic_ = topic;
    will_payload_ = payload;
    will_retain_ = retain;
}

void protoserver_t::open()
{
    if (QThread::currentThread() != thread()) {
        QMetaObject::invokeMethod(
            this, ::utility::tsan::handed_over([this] { open(); }), Qt::QueuedConnection);
        return;
    }
    open_requested_ = true;
    if (closing_ || link_ != link_t::none || reconnect_timer_->isActive())
        return;
    connect_now();
}

bool protoserver_t::ensure_client()
{
    if (mosq_)
        return true;
    if (!config::mosquittocnf_t::isValidClientId(cnf_.getClientId())) {
        ORVANE_LOG(QStringLiteral("MQTT client id \"%1\" refused: it must be 1 to 64 characters "
                                  "of A-Z a-z 0-9 . _ -")
                       .arg(cnf_.getClientId()),
            2, kLogSource);
        return false;
    }
    mosq_ = mosquitto_new(cnf_.getClientId().toUtf8().constData(), cnf_.getCleanSession(), this);
    if (!mosq_) {
        ORVANE_LOG(QStringLiteral("Unable to create the MQTT client"), 2, kLogSource);
        return false;
    }
    mosquitto_int_option(mosq_, MOSQ_OPT_PROTOCOL_VERSION,
        cnf_.getProtocolVersion() == config::mosquittocnf_t::protocol_v311 ? MQTT_PROTOCOL_V311
                                                                           : MQTT_PROTOCOL_V5);
    // Requests and answers are small packets that wait for each other (a chunk waits for its
    // acknowledgement): with Nagle's algorithm each one could sit out the peer's delayed ACK,
    // about 40 ms per packet even on the loopback interface.
    mosquitto_int_option(mosq_, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_callback_set(mosq_, &protoserver_t::on_connect_cb);
    mosquitto_disconnect_callback_set(mosq_, &protoserver_t::on_disconnect_cb);
    mosquitto_message_callback_set(mosq_, &protoserver_t::on_message_cb);
    mosquitto_publish_v5_callback_set(mosq_, &protoserver_t::on_publish_cb);
    mosquitto_subscribe_callback_set(mosq_, &protoserver_t::on_subscribe_cb);
    if (!cnf_.getUsername().isEmpty()) {
        const QByteArray user = cnf_.getUsername().toUtf8();
        const QByteArray password = cnf_.getPassword().toUtf8();
        mosquitto_username_pw_set(
            mosq_, user.constData(), cnf_.getPassword().isEmpty() ? nullptr : password.constData());
    }
    if (cnf_.isTls()) {
        const QByteArray ca = cnf_.getCaFile().toUtf8();
        const QByteArray cert = cnf_.getCertFile().toUtf8();
        const QByteArray key = cnf_.getKeyFile().toUtf8();
        const int rc = mosquitto_tls_set(mosq_, ca.constData(), nullptr,
            cert.isEmpty() ? nullptr : cert.constData(), key.isEmpty() ? nullptr : key.constData(),
            nullptr);
        if (rc != MOSQ_ERR_SUCCESS) {
            ORVANE_LOG(QStringLiteral("MQTT TLS settings refused (ca %1): %2")
                           .arg(cnf_.getCaFile(), error_text(rc)),
                2, kLogSource);
            mosquitto_destroy(mosq_);
            mosq_ = nullptr;
            return false;
        }
    }
    return true;
}

void protoserver_t::connect_now()
{
    if (closing_ || link_ != link_t::none)
        return;
    if (!ensure_client())
        return;
    if (!will_topic_.isEmpty()) {
        mosquitto_will_set(mosq_, will_topic_.toUtf8().constData(), int(will_payload_.size()),
            will_payload_.constData(), 1, will_retain_);
    }
    attempts_.fetch_add(1);
    const QByteArray host = cnf_.getHost().toUtf8();
    const int rc
        = mosquitto_connect_async(mosq_, host.constData(), cnf_.getPort(), cnf_.getKeepalive());
    if (rc != MOSQ_ERR_SUCCESS) {
        ORVANE_LOG(QStringLiteral("MQTT connection to %1:%2 failed: %3")
                       .arg(cnf_.getHost())
                       .arg(cnf_.getPort())
                       .arg(error_text(rc)),
            2, kLogSource);
        schedule_reconnect();
        return;
    }
    link_ = link_t::connecting;
    refused_ = false;
    misc_timer_->start();
    sync_socket();
}

void protoserver_t::schedule_reconnect()
{
    if (closing_ || !open_requested_ || reconnect_timer_->isActive())
        return;
    reconnect_timer_->start(backoff_ms_);
    backoff_ms_ = std::min(backoff_ms_ * 2, cnf_.getReconnectMaxMs());
}

void protoserver_t::link_up()
{
    link_ = link_t::connected;
    connected_.store(true);
    backoff_ms_ = cnf_.getReconnectMinMs();
    ORVANE_LOG(QStringLiteral("MQTT connected to %1:%2 as %3")
                   .arg(cnf_.getHost())
                   .arg(cnf_.getPort())
                   .arg(cnf_.getClientId()),
        4, kLogSource);
    const QList<subscription_t> subscriptions = subscriptions_;
    for (const subscription_t& subscription : subscriptions)
        subscribe_now(subscription.service, subscription.filter);
    // What was published while the connection was down goes out now, in its original order.
    QList<outgoing_t> queued;
    queued.swap(outbox_);
    for (outgoing_t& item : queued)
        send(std::move(item));
    const QList<service::service_rr_base_t*> services = services_.values();
    for (service::service_rr_base_t* service : services)
        service->connection_up();
    emit connected();
}

void protoserver_t::link_down(int rc)
{
    if (link_ == link_t::none)
        return;
    const bool was_connected = link_ == link_t::connected;
    link_ = link_t::none;
    connected_.store(false);
    drop_notifiers();
    // Subscriptions are sent again on the next connection; their old acknowledgements will not
    // come.
    pending_subscribe_.clear();
    if (closing_)
        return;
    if (was_connected) {
        ORVANE_LOG(QStringLiteral("MQTT connection to %1:%2 lost: %3")
                       .arg(cnf_.getHost())
                       .arg(cnf_.getPort())
                       .arg(error_text(rc)),
            2, kLogSource);
        const QList<service::service_rr_base_t*> services = services_.values();
        for (service::service_rr_base_t* service : services)
            service->connection_down();
        emit disconnected();
    } else if (!refused_ && rc == MOSQ_ERR_CONN_LOST) {
        // Closed without a CONNACK: what a broker does with a protocol version it does not speak,
        // and what an MQTT 3.1.1 broker without retained messages does with our retained Will.
        ORVANE_LOG(QStringLiteral("MQTT connection to %1:%2 closed by the broker before it was "
                                  "accepted: check the MQTT version (protocol_version %3)%4 and "
                                  "that the broker allows retained messages")
                       .arg(cnf_.getHost())
                       .arg(cnf_.getPort())
                       .arg(cnf_.getProtocolVersion() == config::mosquittocnf_t::protocol_v5
                               ? QStringLiteral("5")
                               : QStringLiteral("3.1.1"))
                       .arg(cnf_.isTls() ? QStringLiteral(", the TLS settings") : QString()),
            2, kLogSource);
    } else if (!refused_) {
        // A refused CONNACK has been logged with its reason already.
        ORVANE_LOG(QStringLiteral("MQTT connection to %1:%2 failed: %3")
                       .arg(cnf_.getHost())
                       .arg(cnf_.getPort())
                       .arg(error_text(rc)),
            2, kLogSource);
    }
    schedule_reconnect();
}

void protoserver_t::add_subscriptions(
    service::service_rr_base_t* service, const QStringList& filters)
{
    for (const QString& filter : filters) {
        subscriptions_.append({ service, filter });
        if (link_ == link_t::connected)
            subscribe_now(service, filter);
    }
    sync_socket();
}

void protoserver_t::remove_subscriptions(service::service_rr_base_t* service)
{
    QStringList dropped;
    for (auto it = subscriptions_.begin(); it != subscriptions_.end();) {
        if (it->service == service) {
            dropped.append(it->filter);
            it = subscriptions_.erase(it);
        } else {
            ++it;
        }
    }
    if (link_ != link_t::connected || shutting_down_)
        return;
    for (const QString& filter : dropped) {
        const bool still_used = std::any_of(subscriptions_.cbegin(), subscriptions_.cend(),
            [&](const subscription_t& s) { return s.filter == filter; });
        if (!still_used)
            mosquitto_unsubscribe(mosq_, nullptr, filter.toUtf8().constData());
    }
    sync_socket();
}

void protoserver_t::subscribe_now(service::service_rr_base_t* service, const QString& filter)
{
    int mid = 0;
    const int rc = mosquitto_subscribe(mosq_, &mid, filter.toUtf8().constData(), 1);
    if (rc != MOSQ_ERR_SUCCESS) {
        ORVANE_LOG(QStringLiteral("MQTT subscription to %1 failed: %2").arg(filter, error_text(rc)),
            2, kLogSource);
        return;
    }
    pending_subscribe_.insert(
        mid, pending_t { service, filter, QDeadlineTimer(cnf_.getSubscribeTimeoutMs()), false });
}

void protoserver_t::publish(service::service_rr_base_t* service, const QString& topic,
    const QByteArray& payload, bool retain)
{
    outgoing_t item { pending_t {
                          service, topic, QDeadlineTimer(cnf_.getPublishTimeoutMs()), false },
        payload, retain };
    if (QThread::currentThread() != thread()) {
        QMetaObject::invokeMethod(this,
            ::utility::tsan::handed_over([this, item]() mutable { send(std::move(item)); }),
            Qt::QueuedConnection);
        return;
    }
    send(std::move(item));
}

void protoserver_t::send(outgoing_t item)
{
    if (link_ != link_t::connected) {
        outbox_.append(std::move(item));
        return;
    }
    int mid = 0;
    const QByteArray topic = item.pending.topic.toUtf8();
    const int rc = mosquitto_publish(mosq_, &mid, topic.constData(), int(item.payload.size()),
        item.payload.constData(), 1, item.retain);
    if (rc == MOSQ_ERR_NO_CONN || rc == MOSQ_ERR_CONN_LOST) {
        outbox_.append(std::move(item));
        return;
    }
    if (rc != MOSQ_ERR_SUCCESS) {
        ORVANE_LOG(
            QStringLiteral("MQTT publish to %1 failed: %2").arg(item.pending.topic, error_text(rc)),
            2, kLogSource);
        return;
    }
    pending_publish_.insert(mid, std::move(item.pending));
    sync_socket();
}

void protoserver_t::dispatch(const QString& topic, const QByteArray& payload)
{
    const QByteArray topic_utf8 = topic.toUtf8();
    QList<service::service_rr_base_t*> targets;
    for (const subscription_t& subscription : std::as_const(subscriptions_)) {
        bool match = false;
        mosquitto_topic_matches_sub(
            subscription.filter.toUtf8().constData(), topic_utf8.constData(), &match);
        if (match && !targets.contains(subscription.service))
            targets.append(subscription.service);
    }
    for (service::service_rr_base_t* service : targets) {
        // A receiver may stop its own or another service; only started ones still get messages.
        if (services_.values().contains(service) && service->isStarted())
            service->receive(topic, payload);
    }
}

void protoserver_t::pump(bool readable, bool writable)
{
    if (!mosq_ || link_ == link_t::none)
        return;
    if (readable || writable) {
        // mosquitto_loop() with a zero time-out polls once and returns: it reads what is there,
        // writes what is queued and also finishes a pending TLS handshake, which the separate
        // read/write calls do not.
        const int rc = mosquitto_loop(mosq_, 0, 1);
        if (rc != MOSQ_ERR_SUCCESS)
            loop_failed(rc);
    }
    sync_socket();
}

void protoserver_t::loop_failed(int rc)
{
    // Some failures (a refused TLS handshake among them) leave libmosquitto's socket open; polling
    // it further would spin. The link is given up here and the socket shut down, so the broker
    // sees the connection end; the next attempt's connect closes it for good.
    const int socket = mosquitto_socket(mosq_);
    if (socket >= 0)
        ::shutdown(socket, SHUT_RDWR);
    link_down(rc);
}

void protoserver_t::tick()
{
    if (mosq_ && link_ != link_t::none) {
        const int rc = mosquitto_loop_misc(mosq_);
        if (rc != MOSQ_ERR_SUCCESS)
            loop_failed(rc);
        sync_socket();
    }
    check_timeouts();
}

void protoserver_t::check_timeouts()
{
    for (auto it = pending_publish_.begin(); it != pending_publish_.end(); ++it) {
        if (!it->reported && it->deadline.hasExpired()) {
            it->reported = true;
            ORVANE_LOG(QStringLiteral("MQTT publish to %1 not acknowledged in time").arg(it->topic),
                3, kLogSource);
            if (it->service)
                emit it->service->on_timeout_publish(it->topic);
        }
    }
    for (outgoing_t& item : outbox_) {
        if (!item.pending.reported && item.pending.deadline.hasExpired()) {
            item.pending.reported = true;
            ORVANE_LOG(QStringLiteral("MQTT publish to %1 not acknowledged in time")
                           .arg(item.pending.topic),
                3, kLogSource);
            if (item.pending.service)
                emit item.pending.service->on_timeout_publish(item.pending.topic);
        }
    }
    for (auto it = pending_subscribe_.begin(); it != pending_subscribe_.end();) {
        if (it->deadline.hasExpired()) {
            ORVANE_LOG(
                QStringLiteral("MQTT subscription to %1 not acknowledged in time").arg(it->topic),
                3, kLogSource);
            const pending_t expired = *it;
            it = pending_subscribe_.erase(it);
            if (expired.service)
                emit expired.service->on_timeout_subscribe(expired.topic);
        } else {
            ++it;
        }
    }
    // Services keep their own response deadlines.
    const QList<service::service_rr_base_t*> services = services_.values();
    for (service::service_rr_base_t* service : services) {
        if (auto* client = qobject_cast<service::service_rr_client_t*>(service))
            client->check_response_timeout();
    }
}

void protoserver_t::sync_socket()
{
    if (!mosq_)
        return;
    const int socket = mosquitto_socket(mosq_);
    if (socket < 0) {
        // Closed inside libmosquitto (error, keep-alive, refused connection).
        if (link_ != link_t::none)
            link_down(MOSQ_ERR_CONN_LOST);
        drop_notifiers();
        return;
    }
    if (link_ == link_t::none) {
        // Given up by loop_failed(): the socket is shut down but still open until the next
        // attempt, and a notifier on it would fire without end.
        drop_notifiers();
        return;
    }
    if (socket != socket_) {
        drop_notifiers();
        socket_ = socket;
        read_notifier_ = new QSocketNotifier(socket, QSocketNotifier::Read, this);
        connect(read_notifier_, &QSocketNotifier::activated, this, [this] { pump(true, false); });
        write_notifier_ = new QSocketNotifier(socket, QSocketNotifier::Write, this);
        connect(write_notifier_, &QSocketNotifier::activated, this, [this] { pump(false, true); });
    }
    write_notifier_->setEnabled(mosquitto_want_write(mosq_));
}

void protoserver_t::drop_notifiers()
{
    // Deferred: this may run inside a notifier's own activation.
    for (QSocketNotifier* notifier : { read_notifier_, write_notifier_ }) {
        if (notifier) {
            notifier->setEnabled(false);
            notifier->deleteLater();
        }
    }
    read_notifier_ = nullptr;
    write_notifier_ = nullptr;
    socket_ = -1;
}

void protoserver_t::shutdown()
{
    // Services say goodbye, but keep their subscriptions: a clean session ends with the
    // connection anyway, and a persistent one must keep them for the next run.
    shutting_down_ = true;
    const QList<service::service_rr_base_t*> services = services_.values();
    for (service::service_rr_base_t* service : services)
        service->stop();
    reconnect_timer_->stop();
    if (mosq_ && link_ == link_t::connected) {
        // Give the last messages (status "offline", presence "offline") a moment to be
        // acknowledged, then leave cleanly so that the broker does not send the Will.
        QElapsedTimer waited;
        waited.start();
        while (waited.elapsed() < 1000 && mosquitto_socket(mosq_) >= 0
            && (!pending_publish_.isEmpty() || mosquitto_want_write(mosq_))) {
            mosquitto_loop(mosq_, 20, 1);
        }
        closing_ = true;
        mosquitto_disconnect(mosq_);
        waited.restart();
        // The broker closes the connection once it has read the DISCONNECT. Closing first could
        // make it fail on a reply to an earlier packet before it reads the DISCONNECT, and then
        // it would treat the connection as lost and send the Will.
        while (waited.elapsed() < 500 && mosquitto_socket(mosq_) >= 0)
            mosquitto_loop(mosq_, 20, 1);
    }
    closing_ = true;
    link_ = link_t::none;
    connected_.store(false);
    // Stopped again, last: the goodbye above runs the connection's callbacks, and a lost
    // connection schedules a reconnect. A timer still registered when the destructor moves this
    // object back to its own thread makes Qt queue the timer list for re-registration there, and
    // the object is gone before that runs: the list leaks.
    reconnect_timer_->stop();
    misc_timer_->stop();
    for (QSocketNotifier* notifier : { read_notifier_, write_notifier_ })
        delete notifier;
    read_notifier_ = nullptr;
    write_notifier_ = nullptr;
    socket_ = -1;
}

void protoserver_t::on_connect_cb(struct mosquitto*, void* self, int rc)
{
    auto* server = static_cast<protoserver_t*>(self);
    if (rc != 0) {
        ORVANE_LOG(QStringLiteral("MQTT connection to %1:%2 refused: %3")
                       .arg(server->cnf_.getHost())
                       .arg(server->cnf_.getPort())
                       .arg(QString::fromUtf8(
                           server->cnf_.getProtocolVersion() == config::mosquittocnf_t::protocol_v5
                               ? mosquitto_reason_string(rc)
                               : mosquitto_connack_string(rc))),
            2, kLogSource);
        server->refused_ = true;
        return;
    }
    server->refused_ = false;
    server->link_up();
}

void protoserver_t::on_disconnect_cb(struct mosquitto*, void* self, int rc)
{
    static_cast<protoserver_t*>(self)->link_down(rc);
}

void protoserver_t::on_message_cb(
    struct mosquitto*, void* self, const struct mosquitto_message* msg)
{
    auto* server = static_cast<protoserver_t*>(self);
    const QString topic = QString::fromUtf8(msg->topic);
    const QByteArray payload(static_cast<const char*>(msg->payload), msg->payloadlen);
    // Handled after libmosquitto has returned, so that receivers never run inside its callback.
    QMetaObject::invokeMethod(
        server, [server, topic, payload] { server->dispatch(topic, payload); },
        Qt::QueuedConnection);
}

void protoserver_t::on_publish_cb(
    struct mosquitto*, void* self, int mid, int reason, const struct mqtt5__property*)
{
    auto* server = static_cast<protoserver_t*>(self);
    const pending_t pending = server->pending_publish_.take(mid);
    // MQTT 5 brokers say why they dropped a message (an ACL, a quota); MQTT 3.1.1 ones cannot.
    if (reason >= 0x80) {
        ORVANE_LOG(QStringLiteral("MQTT publish to %1 refused by the broker: %2")
                       .arg(pending.topic, QString::fromUtf8(mosquitto_reason_string(reason))),
            2, kLogSource);
    }
}

void protoserver_t::on_subscribe_cb(
    struct mosquitto*, void* self, int mid, int count, const int* granted)
{
    auto* server = static_cast<protoserver_t*>(self);
    const pending_t pending = server->pending_subscribe_.take(mid);
    for (int i = 0; i < count; ++i) {
        if (granted[i] >= 0x80) {
            ORVANE_LOG(
                QStringLiteral("MQTT subscription to %1 refused by the broker").arg(pending.topic),
                2, kLogSource);
        }
    }
}

} // namespace comunication
