// Names of the rr services that the platform knows, as an enumeration-like value type. The text of
// a value is the service name used on the wire (in topics) and as the key of the service
// descriptor in database_t. Plain value type: no thread affinity, no signals.
#pragma once

#include <QMetaType>
#include <QString>

namespace database::rr {

class rr_type_t {
public:
    enum value_t : int { invalid_value = -1, context_sync_value = 0 };

    static const rr_type_t context_sync_service;

    // Parses a service name; unknown text gives an invalid value and sets `ok` to false.
    static rr_type_t fromString(const QString& text, bool* ok = nullptr);

    constexpr rr_type_t() = default;

    QString ToString() const;
    value_t value() const { return value_; }
    bool isValid() const { return value_ != invalid_value; }

    bool operator==(const rr_type_t& other) const { return value_ == other.value_; }
    bool operator!=(const rr_type_t& other) const { return value_ != other.value_; }

private:
    constexpr explicit rr_type_t(value_t value)
        : value_(value)
    {
    }

    value_t value_ = invalid_value;
};

inline constexpr rr_type_t rr_type_t::context_sync_service { rr_type_t::context_sync_value };

} // namespace database::rr

Q_DECLARE_METATYPE(database::rr::rr_type_t)
