// Descriptor of one rr service: it knows the service's name and packet types and turns a raw
// request into one of its on_update_* signals. whois(origin, body) builds the request data
// {"sender": origin, "payload": body.payload} (a QJsonObject inside the QVariant) and emits
// on_update_state_of_service for "state_of_service", on_update_start / on_update_abort /
// on_update_base for "start" / "abort" / "base", on_update_state for a packet type of the service
// (name = the packet text) and on_update_unknon for anything else. The sender is always the
// origin handed in (taken from the request's topic by the rr server); a "sender" written into the
// body by a client is ignored.
//
// Thread: lives on the thread of the database that created it; whois() may be called from any
// thread and emits from the calling thread, so receivers connect queued. Owns nothing.
#pragma once

#include "platform/database/rr/rr_type_t.h"

#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QObject>
#include <QString>
#include <QVariant>

namespace database::rr {

class rr_base_t : public QObject {
    Q_OBJECT
public:
    ~rr_base_t() override;

    // Service name (the text of the service's rr_type_t); used by services as their log prefix.
    QString getName() const { return type_.ToString(); }
    rr_type_t getType() const { return type_; }

    // True when `type` is one of this service's own packet texts.
    virtual bool isPacketType(const QString& type) const = 0;

public slots:
    void whois(const QString& origin, const QJsonObject& request);

signals:
    void on_update_base(const QString& name, const QVariant& data, const QList<QString>& caps,
        const QMap<QString, QVariant>& params);
    void on_update_start(const QString& name, const QVariant& data, const QList<QString>& caps,
        const QMap<QString, QVariant>& params);
    void on_update_state_of_service(const QString& name, const QVariant& data,
        const QList<QString>& caps, const QMap<QString, QVariant>& params);
    void on_update_state(const QString& name, const QVariant& data, const QList<QString>& caps,
        const QMap<QString, QVariant>& params);
    void on_update_abort(const QString& name, const QVariant& data, const QList<QString>& caps,
        const QMap<QString, QVariant>& params);
    void on_update_unknon(
        const QString& name, const QVariant& data, const QMap<QString, QVariant>& params);

protected:
    explicit rr_base_t(rr_type_t type, QObject* parent = nullptr);

private:
    const rr_type_t type_;
};

} // namespace database::rr
