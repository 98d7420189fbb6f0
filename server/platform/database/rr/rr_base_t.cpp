#include "platform/database/rr/rr_base_t.h"

#include "platform/database/rr/definition/rr_packet_service_t.h"
#include "platform/logs/classlogs.h"

namespace database::rr {

namespace {
const char* const kLogSource = "server/platform/database/rr/rr_base_t";
}

rr_base_t::rr_base_t(rr_type_t type, QObject* parent)
    : QObject(parent)
    , type_(type)
{
}

rr_base_t::~rr_base_t() = default;

void rr_base_t::whois(const QString& origin, const QJsonObject& request)
{
    const QJsonValue type_value = request.value(QStringLiteral("type"));
    if (!type_value.isString()) {
        // The rr server refuses such bodies before they get here; a direct caller gets the same
        // refusal rather than a signal with an empty name.
        ORVANE_LOG(QStringLiteral("[%1] Request from client %2 refused: \"type\" is missing or "
                                  "not a string")
                       .arg(getName(), origin),
            3, kLogSource);
        return;
    }
    const QString type = type_value.toString();

    QJsonObject data;
    data.insert(QStringLiteral("sender"), origin);
    data.insert(QStringLiteral("payload"), request.value(QStringLiteral("payload")).toObject());
    const QVariant variant = QVariant::fromValue(data);
    const QList<QString> caps;
    const QMap<QString, QVariant> params;

    using definition::rr_packet_service_t;
    bool generic = false;
    const rr_packet_service_t service_packet = rr_packet_service_t::fromString(type, &generic);
    if (generic) {
        if (service_packet == rr_packet_service_t::state_of_service)
            emit on_update_state_of_service(type, variant, caps, params);
        else if (service_packet == rr_packet_service_t::start)
            emit on_update_start(type, variant, caps, params);
        else if (service_packet == rr_packet_service_t::abort)
            emit on_update_abort(type, variant, caps, params);
        else
            emit on_update_base(type, variant, caps, params);
        return;
    }
    if (isPacketType(type)) {
        emit on_update_state(type, variant, caps, params);
        return;
    }
    emit on_update_unknon(type, variant, params);
}

} // namespace database::rr
