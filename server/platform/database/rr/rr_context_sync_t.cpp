#include "platform/database/rr/rr_context_sync_t.h"

#include "platform/database/rr/definition/rr_packet_type_context_sync_t.h"

namespace database::rr {

rr_context_sync_t::rr_context_sync_t(QObject* parent)
    : rr_base_t(rr_type_t::context_sync_service, parent)
{
}

rr_context_sync_t::~rr_context_sync_t() = default;

bool rr_context_sync_t::isPacketType(const QString& type) const
{
    bool ok = false;
    definition::rr_packet_type_context_sync_t::fromString(type, &ok);
    return ok;
}

} // namespace database::rr
