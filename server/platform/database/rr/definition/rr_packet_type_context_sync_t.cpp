#include "platform/database/rr/definition/rr_packet_type_context_sync_t.h"

namespace database::rr::definition {

QList<rr_packet_type_context_sync_t> rr_packet_type_context_sync_t::values()
{
    return { ctx_request, ctx_list, ctx_chunk, ctx_chunk_ack, ready_to_check, ctx_stop_transfer,
        ctx_delete_request, ctx_rename_request, ctx_replace_request, ctx_download_request };
}

QString rr_packet_type_context_sync_t::ToString() const
{
    switch (value_) {
    case ctx_request_value:
        return QStringLiteral("ctx_request");
    case ctx_list_value:
        return QStringLiteral("ctx_list");
    case ctx_chunk_value:
        return QStringLiteral("ctx_chunk");
    case ctx_chunk_ack_value:
        return QStringLiteral("ctx_chunk_ack");
    case ready_to_check_value:
        return QStringLiteral("ready_to_check");
    case ctx_stop_transfer_value:
        return QStringLiteral("ctx_stop_transfer");
    case ctx_delete_request_value:
        return QStringLiteral("ctx_delete_request");
    case ctx_rename_request_value:
        return QStringLiteral("ctx_rename_request");
    case ctx_replace_request_value:
        return QStringLiteral("ctx_replace_request");
    case ctx_download_request_value:
        return QStringLiteral("ctx_download_request");
    case invalid_value:
        break;
    }
    return QString();
}

rr_packet_type_context_sync_t rr_packet_type_context_sync_t::fromString(
    const QString& text, bool* ok)
{
    const QList<rr_packet_type_context_sync_t> all = values();
    for (const rr_packet_type_context_sync_t& candidate : all) {
        if (candidate.ToString() == text) {
            if (ok)
                *ok = true;
            return candidate;
        }
    }
    if (ok)
        *ok = false;
    return rr_packet_type_context_sync_t();
}

} // namespace database::rr::definition
