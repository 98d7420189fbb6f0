#include "utility/type_configuration_mode_t.h"

namespace utility {

const type_configuration_mode_t type_configuration_mode_t::http(
    type_configuration_mode_t::http_value);
const type_configuration_mode_t type_configuration_mode_t::file(
    type_configuration_mode_t::file_value);

const QMap<int, QString>& type_configuration_mode_t::map()
{
    static const QMap<int, QString> texts {
        { http_value, QStringLiteral("http") },
        { file_value, QStringLiteral("file") },
    };
    return texts;
}

int type_configuration_mode_t::count()
{
    return int(map().size());
}

type_configuration_mode_t type_configuration_mode_t::fromString(const QString& text, bool* ok)
{
    const QMap<int, QString>& texts = map();
    for (auto it = texts.cbegin(); it != texts.cend(); ++it) {
        if (it.value() == text) {
            if (ok)
                *ok = true;
            return type_configuration_mode_t(static_cast<value_t>(it.key()));
        }
    }
    if (ok)
        *ok = false;
    return http;
}

QString type_configuration_mode_t::ToString() const
{
    return map().value(int(value_));
}

} // namespace utility
