#include "scripted_server_t.h"

#include "client_test_env_t.h"

#include "platform/comunication/config/mosquittocnf_t.h"
#include "utility/tsan_annotations.h"

#include <QMetaObject>

namespace client_test {

QJsonObject scripted_server_t::request_t::message() const
{
    return payload.value(QStringLiteral("message")).toObject();
}

scripted_server_t::scripted_server_t(const test_support::mosquitto_broker_t& broker)
{
    comunication::config::mosquittocnf_t cnf(
        broker.host(), broker.port(), QStringLiteral("scripted-server"));
    cnf.setReconnectDelays(100, 1000);
    proto_ = std::make_unique<comunication::protoserver_t>(cnf);
    comunication::protoserver_t* proto = proto_.get();
    comunication::service::service_rr_base_t* created = nullptr;
    QMetaObject::invokeMethod(proto, utility::tsan::handed_over([proto, &created] {
        created = proto->create_server_service(QStringLiteral("context_sync"));
    }),
        Qt::BlockingQueuedConnection);
    service_ = qobject_cast<comunication::service::service_rr_server_t*>(created);
    connect(
        service_, &comunication::service::service_rr_server_t::on_request, this,
        [this](const QString& origin, const QJsonObject& body, const QString&) {
            request_t request { origin, body.value(QStringLiteral("type")).toString(),
                body.value(QStringLiteral("payload")).toObject() };
            requests.append(request);
            if (react)
                react(request);
        },
        Qt::QueuedConnection);
}

scripted_server_t::~scripted_server_t()
{
    proto_.reset();
}

bool scripted_server_t::start()
{
    if (!service_)
        return false;
    service_->start(comunication::service::service_rr_base_t::finish_on_stop);
    return wait_until(
        [this] {
            return service_->getState() == comunication::service::service_rr_base_t::running;
        },
        10000);
}

void scripted_server_t::respond(const QString& type, const QString& destination,
    const QJsonObject& payload, const QString& subtype)
{
    service_->response_to_service(type, destination, payload, subtype);
}

QList<scripted_server_t::request_t> scripted_server_t::of_type(const QString& type) const
{
    QList<request_t> found;
    for (const request_t& request : requests) {
        if (request.type == type)
            found.append(request);
    }
    return found;
}

} // namespace client_test
