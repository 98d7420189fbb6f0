// Runs the sync service: the MQTT protoserver on its own thread (it makes that thread itself),
// and the database of service descriptors and the context_sync_t service together on a second
// thread, the service thread. The service is built there, not moved there, because its monitor
// and receiver are members without a QObject parent and would stay behind on the building thread.
//
// start() builds and starts everything and returns once the service has sent its first state of
// service; stop() undoes it in reverse: the service stopped and deleted on its thread (which
// stops its file senders), the service thread ended, then the protoserver destroyed, which
// publishes the service's "offline" status and leaves the broker cleanly. Both are called from
// the thread that owns this object (the main thread). Owns all of the above; emits no signals.
#pragma once

#include "platform/comunication/config/mosquittocnf_t.h"

#include <QObject>
#include <QThread>

#include <memory>

namespace comunication {
class protoserver_t;
}
namespace database {
class database_t;
}
namespace context_sync_engine {
class context_sync_t;
}

namespace host {

class server_host_t : public QObject {
    Q_OBJECT
public:
    explicit server_host_t(QObject* parent = nullptr);
    ~server_host_t() override;

    // False when the service could not be built; everything built so far is undone.
    bool start(const comunication::config::mosquittocnf_t& cnf);
    void stop();

    bool isRunning() const { return service_ != nullptr; }
    QThread* serviceThread() { return &service_thread_; }

private:
    // Runs `call` on the service thread and waits for it.
    template <typename F> void run_on_service_thread(F&& call);

    std::unique_ptr<comunication::protoserver_t> protoserver_;
    QThread service_thread_;
    // Lives on the service thread; only a target for the calls posted there.
    QObject* anchor_ = nullptr;
    database::database_t* database_ = nullptr;
    context_sync_engine::context_sync_t* service_ = nullptr;
};

} // namespace host
