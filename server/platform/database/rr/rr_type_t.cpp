#include "platform/database/rr/rr_type_t.h"

namespace database::rr {

QString rr_type_t::ToString() const
{
    switch (value_) {
    case context_sync_value:
        return QStringLiteral("context_sync");
    case invalid_value:
        break;
    }
    return QString();
}

rr_type_t rr_type_t::fromString(const QString& text, bool* ok)
{
    const bool found = text == context_sync_service.ToString();
    if (ok)
        *ok = found;
    return found ? context_sync_service : rr_type_t();
}

} // namespace database::rr
