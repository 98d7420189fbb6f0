// Packet types of the context-sync service, as an enumeration-like value type. ToString() is the
// text carried in the "type" of a request and of an answer; the same text is used in both
// directions. A default-constructed value is invalid and its text is empty. Plain value type: no
// thread affinity, no signals; registered as a meta-type so that it can travel in queued calls.
#pragma once

#include <QList>
#include <QMetaType>
#include <QString>

namespace database::rr::definition {

class rr_packet_type_context_sync_t {
public:
    enum value_t : int {
        invalid_value = -1,
        ctx_request_value = 0,
        ctx_list_value,
        ctx_chunk_value,
        ctx_chunk_ack_value,
        ready_to_check_value,
        ctx_stop_transfer_value,
        ctx_delete_request_value,
        ctx_rename_request_value,
        ctx_replace_request_value,
        ctx_download_request_value,
    };

    static const rr_packet_type_context_sync_t ctx_request;
    static const rr_packet_type_context_sync_t ctx_list;
    static const rr_packet_type_context_sync_t ctx_chunk;
    static const rr_packet_type_context_sync_t ctx_chunk_ack;
    static const rr_packet_type_context_sync_t ready_to_check;
    static const rr_packet_type_context_sync_t ctx_stop_transfer;
    static const rr_packet_type_context_sync_t ctx_delete_request;
    static const rr_packet_type_context_sync_t ctx_rename_request;
    static const rr_packet_type_context_sync_t ctx_replace_request;
    static const rr_packet_type_context_sync_t ctx_download_request;

    // Every valid value, in declaration order.
    static QList<rr_packet_type_context_sync_t> values();

    // Parses a packet text (exact, case-sensitive, as on the wire); unknown text gives an invalid
    // value and sets `ok` to false.
    static rr_packet_type_context_sync_t fromString(const QString& text, bool* ok = nullptr);

    constexpr rr_packet_type_context_sync_t() = default;

    QString ToString() const;
    value_t value() const { return value_; }
    bool isValid() const { return value_ != invalid_value; }

    bool operator==(const rr_packet_type_context_sync_t& other) const
    {
        return value_ == other.value_;
    }
    bool operator!=(const rr_packet_type_context_sync_t& other) const
    {
        return value_ != other.value_;
    }

private:
    constexpr explicit rr_packet_type_context_sync_t(value_t value)
        : value_(value)
    {
    }

    value_t value_ = invalid_value;
};

inline constexpr rr_packet_type_context_sync_t rr_packet_type_context_sync_t::ctx_request {
    rr_packet_type_context_sync_t::ctx_request_value
};
inline constexpr rr_packet_type_context_sync_t rr_packet_type_context_sync_t::ctx_list {
    rr_packet_type_context_sync_t::ctx_list_value
};
inline constexpr rr_packet_type_context_sync_t rr_packet_type_context_sync_t::ctx_chunk {
    rr_packet_type_context_sync_t::ctx_chunk_value
};
inline constexpr rr_packet_type_context_sync_t rr_packet_type_context_sync_t::ctx_chunk_ack {
    rr_packet_type_context_sync_t::ctx_chunk_ack_value
};
inline constexpr rr_packet_type_context_sync_t rr_packet_type_context_sync_t::ready_to_check {
    rr_packet_type_context_sync_t::ready_to_check_value
};
inline constexpr rr_packet_type_context_sync_t rr_packet_type_context_sync_t::ctx_stop_transfer {
    rr_packet_type_context_sync_t::ctx_stop_transfer_value
};
inline constexpr rr_packet_type_context_sync_t rr_packet_type_context_sync_t::ctx_delete_request {
    rr_packet_type_context_sync_t::ctx_delete_request_value
};
inline constexpr rr_packet_type_context_sync_t rr_packet_type_context_sync_t::ctx_rename_request {
    rr_packet_type_context_sync_t::ctx_rename_request_value
};
inline constexpr rr_packet_type_context_sync_t rr_packet_type_context_sync_t::ctx_replace_request {
    rr_packet_type_context_sync_t::ctx_replace_request_value
};
inline constexpr rr_packet_type_context_sync_t rr_packet_type_context_sync_t::ctx_download_request {
    rr_packet_type_context_sync_t::ctx_download_request_value
};

} // namespace database::rr::definition

Q_DECLARE_METATYPE(database::rr::definition::rr_packet_type_context_sync_t)
