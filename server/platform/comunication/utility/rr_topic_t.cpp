#include "platform/comunication/utility/rr_topic_t.h"

namespace comunication::utility {

QString rr_topic_t::request(const QString& base, const QString& service, const QString& client)
{
    return requestPrefix(base, service) + client;
}

QString rr_topic_t::response(const QString& base, const QString& service, const QString& client)
{
    return QStringLiteral("%1/rr/%2/res/%3").arg(base, service, client);
}

QString rr_topic_t::broadcast(const QString& base, const QString& service)
{
    return QStringLiteral("%1/rr/%2/bcast").arg(base, service);
}

QString rr_topic_t::status(const QString& base, const QString& service)
{
    return QStringLiteral("%1/rr/%2/status").arg(base, service);
}

QString rr_topic_t::presence(const QString& base, const QString& client)
{
    return presencePrefix(base) + client;
}

QString rr_topic_t::requestFilter(const QString& base, const QString& service)
{
    return QStringLiteral("%1/rr/%2/req/#").arg(base, service);
}

QString rr_topic_t::presenceFilter(const QString& base)
{
    return presencePrefix(base) + QLatin1Char('+');
}

QString rr_topic_t::tail(const QString& topic, const QString& prefix)
{
    if (!topic.startsWith(prefix))
        return QString();
    // Never null for a match, so that an empty last level is told apart from "no match".
    QString rest = topic.mid(prefix.size());
    if (rest.isNull())
        rest = QLatin1String("");
    return rest;
}

QString rr_topic_t::requestPrefix(const QString& base, const QString& service)
{
    return QStringLiteral("%1/rr/%2/req/").arg(base, service);
}

QString rr_topic_t::presencePrefix(const QString& base)
{
    return QStringLiteral("%1/rr/presence/").arg(base);
}

} // namespace comunication::utility
