// The destination of an answer, as the text that service_rr_server_t::response_to_service()
// takes: a client id, or "all" for every client (destination_publish_server_t::all). Because
// "all" names the broadcast, no single client can be addressed under the id "all".
// Plain value type: no thread affinity, no signals.
#pragma once

#include "platform/comunication/utility/destination_publish_server_t.h"

#include <QString>

namespace comunication::utility {

class destination_publish_client_t {
public:
    // Implicit on purpose: destination_publish_client_t(destination_publish_server_t::all).
    destination_publish_client_t(destination_publish_server_t destination);
    explicit destination_publish_client_t(const QString& client_id);

    static QString ToString(destination_publish_server_t destination);
    QString ToString() const;
    bool isAll() const;

    bool operator==(const destination_publish_client_t& other) const
    {
        return text_ == other.text_;
    }
    bool operator!=(const destination_publish_client_t& other) const
    {
        return text_ != other.text_;
    }

private:
    QString text_;
};

} // namespace comunication::utility
