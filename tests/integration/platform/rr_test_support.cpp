#include "rr_test_support.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QThread>

namespace rr_test {

using comunication::protoserver_t;
using comunication::service::service_rr_base_t;
using comunication::service::service_rr_client_t;
using comunication::service::service_rr_server_t;

comunication::config::mosquittocnf_t settings(
    const test_support::mosquitto_broker_t& broker, const QString& client_id)
{
    comunication::config::mosquittocnf_t cnf(broker.host(), broker.port(), client_id);
    cnf.setReconnectDelays(50, 400);
    cnf.setKeepalive(5);
    cnf.setPublishTimeoutMs(5000);
    cnf.setSubscribeTimeoutMs(5000);
    cnf.setResponseTimeoutMs(5000);
    return cnf;
}

server_t::server_t(const comunication::config::mosquittocnf_t& cnf, bool start)
    : proto_(std::make_unique<protoserver_t>(cnf))
{
    QMetaObject::invokeMethod(
        proto_.get(),
        [this] {
            service_ = qobject_cast<service_rr_server_t*>(
                proto_->create_server_service(QStringLiteral("context_sync")));
        },
        Qt::BlockingQueuedConnection);
    // `this` as context: the lambdas run queued on the test's thread.
    connect(service_, &service_rr_server_t::on_request, this,
        [this](QString origin, QJsonObject body, QString name) {
            requests.append({ origin, body, name });
        });
    connect(service_, &service_rr_base_t::on_disconnection, this,
        [this](QString client) { disconnections.append(client); });
    connect(service_, &service_rr_base_t::on_end, this,
        [this](QString client) { ends.append(client); });
    connect(service_, &service_rr_base_t::on_timeout_publish, this,
        [this](QString topic) { timeouts_publish.append(topic); });
    connect(service_, &service_rr_base_t::on_state_change, this,
        [this](int state, QString) { states.append(state); });
    if (start)
        service_->start(service_rr_base_t::How_finish(2));
}

server_t::~server_t()
{
    proto_.reset();
}

client_t::client_t(const comunication::config::mosquittocnf_t& cnf, bool start)
    : proto_(std::make_unique<protoserver_t>(cnf))
{
    QMetaObject::invokeMethod(
        proto_.get(),
        [this] { service_ = proto_->create_client_service(QStringLiteral("context_sync")); },
        Qt::BlockingQueuedConnection);
    connect(service_, &service_rr_client_t::on_response, this,
        [this](QString type, QString subtype, QJsonObject payload, bool broadcast) {
            responses.append({ type, subtype, payload, broadcast });
        });
    connect(service_, &service_rr_client_t::on_service_status, this,
        [this](QString status) { statuses.append(status); });
    connect(service_, &service_rr_base_t::on_timeout_response, this,
        [this](QString topic) { timeouts_response.append(topic); });
    if (start)
        service_->start(service_rr_base_t::finish_on_stop);
}

client_t::~client_t()
{
    proto_.reset();
}

bool client_t::wait_ready(int timeout_ms)
{
    QDeadlineTimer deadline(timeout_ms);
    if (!wait_until([this] { return proto_->isConnected(); }, timeout_ms))
        return false;
    // The status topic is retained only once a server has published it; a probe on this
    // client's own response topic works whether or not a server runs. It is published on the
    // same connection after the SUBSCRIBE packets, so its arrival proves they are in place.
    bool probed = false;
    auto* probe = new QObject(this);
    connect(service_, &service_rr_client_t::on_response, probe,
        [&probed](QString type, QString, QJsonObject, bool) {
            if (type == QLatin1String("probe"))
                probed = true;
        });
    const QString topic = QStringLiteral("%1/rr/context_sync/res/%2")
                              .arg(proto_->getMosquittoCnf().getTopicBase(),
                                  proto_->getMosquittoCnf().getClientId());
    QMetaObject::invokeMethod(
        proto_.get(),
        [this, topic] {
            proto_->publish(service_, topic, QByteArrayLiteral("{\"type\":\"probe\"}"), false);
        },
        Qt::BlockingQueuedConnection);
    const bool ok = wait_until(
        [&probed] { return probed; }, int(std::max<qint64>(1, deadline.remainingTime())));
    delete probe;
    // The probe is not an answer of the service.
    responses.erase(std::remove_if(responses.begin(), responses.end(),
                        [](const response_t& r) { return r.type == "probe"; }),
        responses.end());
    return ok;
}

} // namespace rr_test
