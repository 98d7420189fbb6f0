#include "platform/comunication/service/service_rr_base_t.h"

#include "platform/comunication/protoserver_t.h"

namespace comunication::service {

service_rr_base_t::service_rr_base_t(const QString& name, protoserver_t* server)
    : QObject(server)
    , name_(name)
    , server_(server)
{
}

service_rr_base_t::~service_rr_base_t() = default;

QString service_rr_base_t::friendlyState(State_Internal_Service state)
{
    switch (state) {
    case idle:
        return QStringLiteral("idle");
    case connecting:
        return QStringLiteral("connecting");
    case running:
        return QStringLiteral("running");
    case reconnecting:
        return QStringLiteral("reconnecting");
    case stopped:
        return QStringLiteral("stopped");
    }
    return QStringLiteral("unknown");
}

QString service_rr_base_t::friendlyState(int state)
{
    if (state < idle || state > stopped)
        return QStringLiteral("unknown");
    return friendlyState(State_Internal_Service(state));
}

bool service_rr_base_t::isStarted() const
{
    const State_Internal_Service state = state_.load();
    return state == connecting || state == running || state == reconnecting;
}

void service_rr_base_t::start(How_finish how)
{
    on_own_thread([this, how] {
        if (isStarted())
            return;
        how_ = how;
        set_state(server_->isConnected() ? running : connecting);
        server_->add_subscriptions(this, subscriptions());
        if (server_->isConnected())
            connected();
        server_->open();
    });
}

void service_rr_base_t::stop()
{
    on_own_thread([this] {
        if (!isStarted())
            return;
        stopping();
        server_->remove_subscriptions(this);
        set_state(stopped);
    });
}

void service_rr_base_t::publish(const QString& topic, const QByteArray& payload, bool retain)
{
    server_->publish(this, topic, payload, retain);
}

void service_rr_base_t::request_received()
{
    if (how_ == finish_after_request)
        stop();
}

void service_rr_base_t::response_published()
{
    if (how_ == finish_after_response)
        stop();
}

void service_rr_base_t::set_state(State_Internal_Service state)
{
    if (state_.exchange(state) != state)
        emit on_state_change(int(state), name_);
}

void service_rr_base_t::connection_up()
{
    if (!isStarted())
        return;
    set_state(running);
    connected();
}

void service_rr_base_t::connection_down()
{
    if (isStarted())
        set_state(reconnecting);
}

} // namespace comunication::service
