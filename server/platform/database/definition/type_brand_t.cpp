#include "platform/database/definition/type_brand_t.h"

namespace database::definition {

const type_brand_t type_brand_t::QUELMO(type_brand_t::quelmo_value);

const QStringList& type_brand_t::texts()
{
    static const QStringList names { QStringLiteral("QUELMO") };
    return names;
}

int type_brand_t::count()
{
    return int(texts().size());
}

type_brand_t type_brand_t::fromString(const QString& text, bool* ok)
{
    const QString wanted = text.trimmed();
    const QStringList& names = texts();
    for (int i = 0; i < names.size(); ++i) {
        if (names.at(i).compare(wanted, Qt::CaseInsensitive) == 0) {
            if (ok)
                *ok = true;
            return type_brand_t(static_cast<value_t>(i));
        }
    }
    if (ok)
        *ok = false;
    return QUELMO;
}

QString type_brand_t::ToString() const
{
    return texts().value(int(value_));
}

bool type_brand_t::is(const QString& text) const
{
    bool ok = false;
    const type_brand_t other = fromString(text, &ok);
    return ok && other == *this;
}

} // namespace database::definition
