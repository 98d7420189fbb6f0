#include "platform/database/rr/definition/rr_packet_service_t.h"

namespace database::rr::definition {

QString rr_packet_service_t::Topic() const
{
    switch (value_) {
    case state_of_service_value:
        return QStringLiteral("state_of_service");
    case start_value:
        return QStringLiteral("start");
    case abort_value:
        return QStringLiteral("abort");
    case base_value:
        return QStringLiteral("base");
    case invalid_value:
        break;
    }
    return QString();
}

rr_packet_service_t rr_packet_service_t::fromString(const QString& text, bool* ok)
{
    for (const rr_packet_service_t& candidate : { state_of_service, start, abort, base }) {
        if (candidate.Topic() == text) {
            if (ok)
                *ok = true;
            return candidate;
        }
    }
    if (ok)
        *ok = false;
    return rr_packet_service_t();
}

} // namespace database::rr::definition
