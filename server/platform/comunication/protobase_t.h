// The platform's protocol server interface: the object that owns a process's connection to its
// clients and hands out the rr services that run over it. create_server_service(name) creates, or
// returns, the server-side service registered under `name`; it must run on the protocol server's
// own thread (post it there with QMetaObject::invokeMethod and Qt::BlockingQueuedConnection).
#pragma once

#include <QObject>
#include <QString>

namespace comunication {

namespace service {
class service_rr_base_t;
}

class protobase_t : public QObject {
    Q_OBJECT
public:
    explicit protobase_t(QObject* parent = nullptr)
        : QObject(parent)
    {
    }
    ~protobase_t() override = default;

    virtual service::service_rr_base_t* create_server_service(const QString& name) = 0;
};

} // namespace comunication
