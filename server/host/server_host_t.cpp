#include "host/server_host_t.h"

#include "context_sync/context_sync/context_sync_t.h"
#include "platform/comunication/protoserver_t.h"
#include "platform/database/database_t.h"
#include "platform/logs/classlogs.h"
#include "utility/tsan_annotations.h"

#include <QMetaObject>

namespace host {

namespace {

const char* const kLogSource = "server/host/server_host_t";

} // namespace

server_host_t::server_host_t(QObject* parent)
    : QObject(parent)
{
    service_thread_.setObjectName(QStringLiteral("context_sync_service"));
}

server_host_t::~server_host_t()
{
    stop();
}

template <typename F> void server_host_t::run_on_service_thread(F&& call)
{
    QMetaObject::invokeMethod(
        anchor_, utility::tsan::handed_over(std::forward<F>(call)), Qt::BlockingQueuedConnection);
}

bool server_host_t::start(const comunication::config::mosquittocnf_t& cnf)
{
    if (service_)
        return true;
    ORVANE_LOG(QStringLiteral("Connecting to MQTT broker %1:%2 as %3, topic base %4")
                   .arg(cnf.getHost())
                   .arg(cnf.getPort())
                   .arg(cnf.getClientId(), cnf.getTopicBase()),
        4, kLogSource);
    protoserver_ = std::make_unique<comunication::protoserver_t>(cnf);

    service_thread_.start();
    anchor_ = new QObject;
    anchor_->moveToThread(&service_thread_);

    comunication::protoserver_t* const protoserver = protoserver_.get();
    run_on_service_thread([this, protoserver] {
        database_ = new database::database_t;
        // The constructor waits for the protoserver thread to create the rr server, so it must
        // run here and never on the protoserver's own thread.
        service_ = new context_sync_engine::context_sync_t(protoserver, database_, nullptr);
        service_->start(true);
    });
    if (!service_) {
        ORVANE_LOG(QStringLiteral("Unable to create the context sync service"), 2, kLogSource);
        stop();
        return false;
    }
    ORVANE_LOG(QStringLiteral("Context sync service running on %1")
                   .arg(context_sync_engine::context_sync_t::context_root),
        4, kLogSource);
    return true;
}

void server_host_t::stop()
{
    if (anchor_) {
        run_on_service_thread([this] {
            if (service_) {
                service_->start(false);
                // Stops the file senders and waits for their threads.
                delete service_;
                service_ = nullptr;
            }
            delete database_;
            database_ = nullptr;
        });
        // Deferred, so that it goes on its own thread before that thread's loop ends.
        anchor_->deleteLater();
        anchor_ = nullptr;
    }
    if (service_thread_.isRunning()) {
        service_thread_.quit();
        service_thread_.wait();
    }
    if (protoserver_) {
        // Publishes the retained "offline" status and disconnects cleanly, so no Will is sent.
        protoserver_.reset();
        ORVANE_LOG(QStringLiteral("Context sync service stopped"), 4, kLogSource);
    }
}

} // namespace host
