// Descriptor of the context-sync rr service (service name "context_sync"): its packet types are
// the ten values of rr_packet_type_context_sync_t, which whois() reports through on_update_state.
// Thread and ownership as rr_base_t.
#pragma once

#include "platform/database/rr/rr_base_t.h"

namespace database::rr {

class rr_context_sync_t : public rr_base_t {
    Q_OBJECT
public:
    explicit rr_context_sync_t(QObject* parent = nullptr);
    ~rr_context_sync_t() override;

    bool isPacketType(const QString& type) const override;
};

} // namespace database::rr
