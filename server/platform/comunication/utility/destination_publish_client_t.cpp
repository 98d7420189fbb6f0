#include "platform/comunication/utility/destination_publish_client_t.h"

namespace comunication::utility {

destination_publish_client_t::destination_publish_client_t(destination_publish_server_t destination)
    : text_(ToString(destination))
{
}

destination_publish_client_t::destination_publish_client_t(const QString& client_id)
    : text_(client_id)
{
}

QString destination_publish_client_t::ToString(destination_publish_server_t destination)
{
    switch (destination) {
    case destination_publish_server_t::all:
        return QStringLiteral("all");
    }
    return QString();
}

QString destination_publish_client_t::ToString() const
{
    return text_;
}

bool destination_publish_client_t::isAll() const
{
    return text_ == ToString(destination_publish_server_t::all);
}

} // namespace comunication::utility
