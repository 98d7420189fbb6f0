// Brand of the device the server runs on, as an enumeration-like value type. The options object
// reads the brand from the device properties and parses it here; text that names no known brand
// gives QUELMO, the brand of the reference hardware, so a device always has a usable brand.
// Plain value type: no thread affinity, no signals.
#pragma once

#include <QString>
#include <QStringList>

namespace database::definition {

class type_brand_t {
public:
    enum value_t : int { quelmo_value = 0 };

    static const type_brand_t QUELMO;

    // Number of known brands and their texts, indexed by value.
    static int count();
    static const QStringList& texts();

    // Case-insensitive parse of a brand text; unknown or empty text gives QUELMO and, when `ok`
    // is given, sets it to false.
    static type_brand_t fromString(const QString& text, bool* ok = nullptr);

    constexpr type_brand_t() = default;
    explicit type_brand_t(const QString& text)
        : value_(fromString(text).value_)
    {
    }

    QString ToString() const;
    value_t value() const { return value_; }
    bool is(const QString& text) const;

    bool operator==(const type_brand_t& other) const { return value_ == other.value_; }
    bool operator!=(const type_brand_t& other) const { return value_ != other.value_; }

private:
    constexpr explicit type_brand_t(value_t value)
        : value_(value)
    {
    }

    value_t value_ = quelmo_value;
};

} // namespace database::definition
