// A request from the network, from the raw MQTT message to the end of the service's dispatcher:
// the rr server's checks of topic and body (service_rr_server_t::receive), the descriptor's
// reading of the envelope (rr_base_t::whois) and the sync service's dispatcher with every
// context-sync request type (download, delete, rename, replace, chunk, acknowledgement, hash
// check, stop). The service works on a real context root in the scratch folder, restored after
// every input; a sibling folder outside the root holds a file that no request may touch, and no
// new entry may appear next to the root. Nothing goes over a network: the protoserver is never
// opened and the service is never started, so answers are emitted into the void.
//
// Input: the first byte picks the topic: one of three well-formed request topics with different
// client ids, or (every fourth value) the first line of the rest taken as the topic itself. The
// rest (after that line, if any) is the message body.
//
// The dispatcher is private to the service; like the integration tests, this target reaches it
// through context_sync_test_peer_t, which the service declares a friend. It calls it on the
// fuzzer's thread directly instead of on a pool worker, so that each input is finished before the
// next begins.

#include "context_sync/context_sync/context_sync_t.h"

#include "platform/comunication/config/mosquittocnf_t.h"
#include "platform/comunication/protoserver_t.h"
#include "platform/comunication/service/service_rr_server_t.h"
#include "platform/database/database_t.h"
#include "platform/database/rr/rr_base_t.h"

#include "fuzz_support.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonObject>
#include <QPointer>
#include <QStringList>
#include <QVariant>

#include <cstddef>
#include <cstdint>
#include <optional>

namespace context_sync_engine {

// Reaches the service's private dispatcher and its monitor (declared a friend by the service).
class context_sync_test_peer_t {
public:
    static void dispatch(context_sync_t& service, const QString& name, const QVariant& data)
    {
        service.dispatch(name, data);
    }
    static context_monitor_t& monitor(context_sync_t& service) { return service.monitor; }
};

} // namespace context_sync_engine

namespace {

using comunication::service::service_rr_server_t;
using context_sync_engine::context_sync_t;
using context_sync_engine::context_sync_test_peer_t;

const QByteArray kKeepContent = "must never change";

// Every file of the root as it is restored before each input.
const QList<QPair<QString, QByteArray>>& initial_files()
{
    static const QList<QPair<QString, QByteArray>> files {
        { QStringLiteral("a.txt"), "alpha\n" },
        { QStringLiteral("dir/b.txt"), "bravo\n" },
        { QStringLiteral("dir/sub/c.bin"), QByteArray(3000, 'c') },
        { QStringLiteral("same.txt"), "alpha\n" },
    };
    return files;
}

struct world_t {
    QString scratch;
    QString root;
    QString outside;
    comunication::protoserver_t* proto = nullptr;
    QPointer<service_rr_server_t> rr_server;
    database::database_t* database = nullptr;
    database::rr::rr_base_t* descriptor = nullptr;
    context_sync_t* service = nullptr;

    // What the rr server and the descriptor produced for the current input.
    std::optional<std::pair<QString, QJsonObject>> request;
    std::optional<std::pair<QString, QVariant>> packet;
};

void restore_root(const world_t& world)
{
    QDir(world.root).removeRecursively();
    for (const auto& [relative, bytes] : initial_files()) {
        const QString path = world.root + relative;
        QDir().mkpath(QFileInfo(path).absolutePath());
        fuzz_support::write_file(path, bytes);
    }
}

// Aborts when anything outside the root changed.
void check_outside(const world_t& world)
{
    QFile keep(world.outside + QStringLiteral("keep.txt"));
    FUZZ_CHECK(keep.open(QIODevice::ReadOnly));
    FUZZ_CHECK(keep.readAll() == kKeepContent);
    const QStringList outside
        = QDir(world.outside).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    FUZZ_CHECK(outside == QStringList { QStringLiteral("keep.txt") });
    const QStringList scratch
        = QDir(world.scratch).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    FUZZ_CHECK(scratch == (QStringList { QStringLiteral("outside"), QStringLiteral("root") }));
}

world_t& world()
{
    static world_t* instance = nullptr;
    if (instance)
        return *instance;
    instance = new world_t;
    world_t& w = *instance;
    w.scratch = fuzz_support::scratch_dir();
    w.root = w.scratch + QStringLiteral("root/");
    w.outside = w.scratch + QStringLiteral("outside/");
    QDir().mkpath(w.outside);
    fuzz_support::write_file(w.outside + QStringLiteral("keep.txt"), kKeepContent);
    restore_root(w);

    comunication::config::mosquittocnf_t cnf(
        QStringLiteral("127.0.0.1"), 1, QStringLiteral("context-sync-fuzz"));
    w.proto = new comunication::protoserver_t(cnf);
    const QString name = database::rr::rr_type_t::context_sync_service.ToString();
    comunication::protoserver_t* proto = w.proto;
    QMetaObject::invokeMethod(
        proto,
        [proto, name, &w] {
            w.rr_server = qobject_cast<service_rr_server_t*>(proto->create_server_service(name));
        },
        Qt::BlockingQueuedConnection);
    FUZZ_CHECK(w.rr_server);
    // Emitted on the protoserver's thread inside receive(); kept for the fuzzer's thread.
    QObject::connect(
        w.rr_server.data(), &service_rr_server_t::on_request, w.rr_server.data(),
        [&w](const QString& origin, const QJsonObject& body, const QString&) {
            w.request = std::make_pair(origin, body);
        },
        Qt::DirectConnection);

    w.database = new database::database_t;
    w.descriptor = w.database->get_rr(name);
    FUZZ_CHECK(w.descriptor);
    QObject::connect(
        w.descriptor, &database::rr::rr_base_t::on_update_state, w.descriptor,
        [&w](const QString& type, const QVariant& payload, const QList<QString>&,
            const QMap<QString, QVariant>&) { w.packet = std::make_pair(type, payload); },
        Qt::DirectConnection);

    context_sync_t::context_root = w.root;
    // No protoserver and no database: the service answers nobody and the fuzzer feeds it.
    w.service = new context_sync_t(nullptr, nullptr);
    context_sync_test_peer_t::monitor(*w.service).scan_directories(QSet<QString> { w.root });
    return w;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz_support::ensure_application();
    world_t& w = world();
    if (size == 0)
        return 0;

    static const QStringList clients { QStringLiteral("alpha"), QStringLiteral("beta.2"),
        QStringLiteral("c-3") };
    QByteArray body(reinterpret_cast<const char*>(data) + 1, qsizetype(size - 1));
    QString topic;
    if (data[0] % 4 == 3) {
        const qsizetype newline = body.indexOf('\n');
        topic = QString::fromUtf8(body.left(newline < 0 ? body.size() : newline));
        body = newline < 0 ? QByteArray() : body.mid(newline + 1);
    } else {
        topic = QStringLiteral("orvane/rr/context_sync/req/") + clients.at(data[0] % 4);
    }

    w.request.reset();
    w.packet.reset();
    service_rr_server_t* server = w.rr_server.data();
    QMetaObject::invokeMethod(
        server, [server, topic, body] { server->receive(topic, body); },
        Qt::BlockingQueuedConnection);

    if (w.request) {
        w.descriptor->whois(w.request->first, w.request->second);
        if (w.packet)
            context_sync_test_peer_t::dispatch(*w.service, w.packet->first, w.packet->second);
    }

    // Let queued work (chunks to the receiver, senders' first chunks) run, then end every sender
    // so that threads do not pile up from one input to the next.
    QCoreApplication::processEvents();
    w.service->stopping_file_sender();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QCoreApplication::processEvents();

    check_outside(w);
    restore_root(w);
    return 0;
}
