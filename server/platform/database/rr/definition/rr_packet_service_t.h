// Packet types that every rr service understands besides its own ones: the state-of-service
// query and answer, and the generic start, abort and base requests. Topic() is the text carried in
// the "type" of a request or answer. Plain value type: no thread affinity, no signals.
#pragma once

#include <QMetaType>
#include <QString>

namespace database::rr::definition {

class rr_packet_service_t {
public:
    enum value_t : int {
        invalid_value = -1,
        state_of_service_value = 0,
        start_value,
        abort_value,
        base_value
    };

    static const rr_packet_service_t state_of_service;
    static const rr_packet_service_t start;
    static const rr_packet_service_t abort;
    static const rr_packet_service_t base;

    // Parses a packet text; unknown text gives an invalid value and sets `ok` to false.
    static rr_packet_service_t fromString(const QString& text, bool* ok = nullptr);

    constexpr rr_packet_service_t() = default;

    QString Topic() const;
    QString ToString() const { return Topic(); }
    value_t value() const { return value_; }
    bool isValid() const { return value_ != invalid_value; }

    bool operator==(const rr_packet_service_t& other) const { return value_ == other.value_; }
    bool operator!=(const rr_packet_service_t& other) const { return value_ != other.value_; }

private:
    constexpr explicit rr_packet_service_t(value_t value)
        : value_(value)
    {
    }

    value_t value_ = invalid_value;
};

inline constexpr rr_packet_service_t rr_packet_service_t::state_of_service {
    rr_packet_service_t::state_of_service_value
};
inline constexpr rr_packet_service_t rr_packet_service_t::start {
    rr_packet_service_t::start_value
};
inline constexpr rr_packet_service_t rr_packet_service_t::abort {
    rr_packet_service_t::abort_value
};
inline constexpr rr_packet_service_t rr_packet_service_t::base { rr_packet_service_t::base_value };

} // namespace database::rr::definition

Q_DECLARE_METATYPE(database::rr::definition::rr_packet_service_t)
