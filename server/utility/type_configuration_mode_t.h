// Where the server takes its settings from: the local configuration server over HTTP ("http",
// the default on the device) or a JSON document of the same shape on disk ("file"). An
// enumeration-like value type with a text for each value; no thread affinity, no signals.
#pragma once

#include "context_sync/context_sync_export.h"

#include <QMap>
#include <QString>

namespace utility {

class CONTEXT_SYNC_EXPORT type_configuration_mode_t {
public:
    enum value_t : int { http_value = 0, file_value = 1 };

    static const type_configuration_mode_t http;
    static const type_configuration_mode_t file;

    // Value to text, one entry per mode; count() is the number of modes.
    static const QMap<int, QString>& map();
    static int count();

    // Exact, case-sensitive parse of a mode text; unknown text gives http and sets `ok` false.
    static type_configuration_mode_t fromString(const QString& text, bool* ok = nullptr);

    constexpr type_configuration_mode_t() = default;
    type_configuration_mode_t(const type_configuration_mode_t&) = default;
    type_configuration_mode_t& operator=(const type_configuration_mode_t&) = default;

    QString ToString() const;
    value_t value() const { return value_; }

    bool is(const QString& text) const { return ToString() == text; }
    bool is(const type_configuration_mode_t& other) const { return value_ == other.value_; }

    bool operator==(const type_configuration_mode_t& other) const { return value_ == other.value_; }
    bool operator!=(const type_configuration_mode_t& other) const { return value_ != other.value_; }

private:
    constexpr explicit type_configuration_mode_t(value_t value)
        : value_(value)
    {
    }

    value_t value_ = http_value;
};

} // namespace utility
