#include "peer_fixture_t.h"

#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"

namespace client_test {

using context_sync_client::client_connection_t;
using codec_t = context_sync_engine::chunk_codec_t;

bool peer_fixture_t::start(const QString& client_id)
{
    if (!broker.start())
        return false;
    server = std::make_unique<scripted_server_t>(broker);
    if (!server->start())
        return false;
    client_connection_t::settings_t settings;
    settings.host = broker.host();
    settings.port = broker.port();
    settings.client_id = client_id;
    client = std::make_unique<client_connection_t>(settings);
    return client->open(10000);
}

void peer_fixture_t::acknowledge_all()
{
    server->react = [this](const scripted_server_t::request_t& request) {
        if (request.type != QLatin1String("ctx_chunk"))
            return;
        const codec_t::fields_t fields = codec_t::read_fields(request.message());
        server->respond(QStringLiteral("ctx_chunk_ack"), request.origin,
            codec_t::build_ack(fields.header.file, fields.header.chunk_index));
    };
}

} // namespace client_test
