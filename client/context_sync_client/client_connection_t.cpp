#include "context_sync_client/client_connection_t.h"

#include "platform/comunication/config/mosquittocnf_t.h"
#include "platform/comunication/protoserver_t.h"
#include "platform/comunication/service/service_rr_client_t.h"
#include "platform/logs/classlogs.h"
#include "utility/tsan_annotations.h"

#include <QDeadlineTimer>
#include <QEventLoop>
#include <QMetaObject>
#include <QRandomGenerator>
#include <QTimer>

namespace context_sync_client {

namespace {
const char* const kLogSource = "client/context_sync_client/client_connection_t";
}

const QString client_connection_t::SERVICE_NAME = QStringLiteral("context_sync");

client_connection_t::client_connection_t(const settings_t& settings, QObject* parent)
    : QObject(parent)
    , settings_(settings)
    , client_id_(settings.client_id.isEmpty() ? random_client_id() : settings.client_id)
{
    comunication::config::mosquittocnf_t cnf(settings_.host, settings_.port, client_id_);
    cnf.setTopicBase(settings_.topic_base);
    cnf.setProtocolVersion(settings_.protocol_version);
    if (!settings_.username.isEmpty())
        cnf.setCredentials(settings_.username, settings_.password);
    if (!settings_.ca_file.isEmpty())
        cnf.setTls(settings_.ca_file, settings_.cert_file, settings_.key_file);
    // A command line run is short: retry a lost connection quickly, and leave the answer
    // time-outs to the operations, which know what they wait for.
    cnf.setReconnectDelays(250, 2000);
    cnf.setResponseTimeoutMs(24 * 3600 * 1000);
    proto_ = std::make_unique<comunication::protoserver_t>(cnf);

    comunication::protoserver_t* proto = proto_.get();
    comunication::service::service_rr_client_t* created = nullptr;
    QMetaObject::invokeMethod(proto, utility::tsan::handed_over([proto, &created] {
        created = proto->create_client_service(SERVICE_NAME);
    }),
        Qt::BlockingQueuedConnection);
    service_ = created;
    if (!service_)
        return;
    // Queued: the service emits on the protoserver thread, the operations run on ours.
    connect(service_, &comunication::service::service_rr_client_t::on_response, this,
        &client_connection_t::packet_received, Qt::QueuedConnection);
    connect(
        service_, &comunication::service::service_rr_client_t::on_service_status, this,
        [this](const QString& status) {
            service_status_ = status;
            emit service_status_changed(status);
        },
        Qt::QueuedConnection);
    connect(proto, &comunication::protoserver_t::disconnected, this,
        &client_connection_t::connection_lost, Qt::QueuedConnection);
    connect(proto, &comunication::protoserver_t::connected, this, &client_connection_t::connected,
        Qt::QueuedConnection);
}

client_connection_t::~client_connection_t()
{
    // The protoserver's destructor stops the service (presence "offline") and disconnects
    // cleanly, so the broker does not publish the Will "lost" for a normal exit.
    proto_.reset();
}

QString client_connection_t::brokerText() const
{
    return QStringLiteral("%1:%2").arg(settings_.host).arg(settings_.port);
}

bool client_connection_t::isConnected() const
{
    return proto_ && proto_->isConnected();
}

bool client_connection_t::open(int timeout_ms, QString* error)
{
    if (!service_) {
        if (error)
            *error = QStringLiteral("the MQTT connection could not be set up");
        return false;
    }
    if (!comunication::config::mosquittocnf_t::isValidClientId(client_id_)) {
        if (error)
            *error = QStringLiteral("client id \"%1\" refused: use 1 to 64 characters of "
                                    "A-Z a-z 0-9 . _ -")
                         .arg(client_id_);
        return false;
    }
    service_->start(comunication::service::service_rr_base_t::finish_on_stop);
    const bool up = wait_until([this] { return isConnected(); }, timeout_ms);
    if (!up) {
        const QString text = QStringLiteral("no MQTT broker accepted the connection at %1 within "
                                            "%2 ms")
                                 .arg(brokerText())
                                 .arg(timeout_ms);
        ORVANE_LOG(text, 3, kLogSource);
        if (error)
            *error = text;
        return false;
    }
    ORVANE_LOG(
        QStringLiteral("Connected to %1 as %2").arg(brokerText(), client_id_), 4, kLogSource);
    return true;
}

void client_connection_t::send(const QString& type, const QJsonObject& payload)
{
    if (service_)
        service_->send_request(type, payload);
}

void client_connection_t::send_raw(const QByteArray& body)
{
    if (service_)
        service_->send_raw_request(body);
}

bool client_connection_t::wait_until(const std::function<bool()>& done, int timeout_ms)
{
    if (done())
        return true;
    QEventLoop loop;
    QTimer tick;
    tick.setInterval(20);
    QTimer deadline;
    deadline.setSingleShot(true);
    const auto check = [&] {
        if (done())
            loop.quit();
    };
    connect(&tick, &QTimer::timeout, &loop, check);
    // A packet is the usual reason to look again; check right after it has been delivered.
    const QMetaObject::Connection on_packet
        = connect(this, &client_connection_t::packet_received, &loop, check, Qt::QueuedConnection);
    connect(&deadline, &QTimer::timeout, &loop, &QEventLoop::quit);
    tick.start();
    deadline.start(std::max(0, timeout_ms));
    loop.exec();
    disconnect(on_packet);
    return done();
}

QString client_connection_t::random_client_id()
{
    return QStringLiteral("ctxsync-%1")
        .arg(QRandomGenerator::global()->generate(), 8, 16, QLatin1Char('0'));
}

} // namespace context_sync_client
