// The topic names of the rr layer, built and taken apart in one place so that the server and the
// client side agree. With <base> the installation's topic base and <svc> the service name:
//   <base>/rr/<svc>/req/<client_id>   client to service, {"type", "payload"}
//   <base>/rr/<svc>/res/<client_id>   service to one client, {"type", "subtype", "payload"}
//   <base>/rr/<svc>/bcast             service to every client
//   <base>/rr/<svc>/status            service state, retained: "online", Will "offline"
//   <base>/rr/presence/<client_id>    client state: "online", "offline", Will "lost"
// Pure functions, no state.
#pragma once

#include <QString>

namespace comunication::utility {

class rr_topic_t {
public:
    static QString request(const QString& base, const QString& service, const QString& client);
    static QString response(const QString& base, const QString& service, const QString& client);
    static QString broadcast(const QString& base, const QString& service);
    static QString status(const QString& base, const QString& service);
    static QString presence(const QString& base, const QString& client);

    // Subscription filters of a server-side service. Requests are taken with a multi-level
    // wildcard so that malformed topics (extra levels) reach the service and are refused with a
    // log line instead of vanishing unseen.
    static QString requestFilter(const QString& base, const QString& service);
    static QString presenceFilter(const QString& base);

    // Text after `prefix` when `topic` starts with it, otherwise a null string. The rest may be
    // empty or contain further "/" levels; callers validate it as a client id.
    static QString tail(const QString& topic, const QString& prefix);
    static QString requestPrefix(const QString& base, const QString& service);
    static QString presencePrefix(const QString& base);
};

} // namespace comunication::utility
