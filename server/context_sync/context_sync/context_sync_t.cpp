#include "context_sync/context_sync/context_sync_t.h"

#include "context_sync/context_sync/transfer_manager/path_safety_t.h"
#include "platform/comunication/utility/destination_publish_client_t.h"
#include "platform/database/rr/definition/rr_packet_service_t.h"
#include "platform/database/rr/rr_type_t.h"
#include "platform/logs/classlogs.h"
#include "utility/thread_object_t.h"
#include "utility/tsan_annotations.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QFutureWatcher>
#include <QJsonDocument>
#include <QLocale>
#include <QMetaObject>
#include <QMutexLocker>
#include <QThread>
#include <QThreadPool>
#include <QtConcurrent/QtConcurrentRun>

namespace context_sync_engine {

namespace {

constexpr const char* LOG_SOURCE = "server/context_sync/context_sync/context_sync_t";

#define SERVICE_LOG(message, level) ORVANE_LOG((message), (level), LOG_SOURCE)

using packet_t = database::rr::definition::rr_packet_type_context_sync_t;
using comunication::service::service_rr_base_t;
using comunication::service::service_rr_server_t;

constexpr auto queued_unique
    = static_cast<Qt::ConnectionType>(Qt::QueuedConnection | Qt::UniqueConnection);

QString all_destination()
{
    return comunication::utility::destination_publish_client_t::ToString(
        comunication::utility::destination_publish_server_t::all);
}

QString thread_text(const QObject* object)
{
    const QThread* thread = object ? object->thread() : nullptr;
    return QString::number(quintptr(thread), 16);
}

QString compact(const QJsonArray& array)
{
    return QString::fromUtf8(QJsonDocument(array).toJson(QJsonDocument::Compact));
}

QString compact(const QJsonObject& object)
{
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

QJsonObject variant_to_object(const QVariant& value)
{
    if (value.metaType() == QMetaType::fromType<QJsonObject>())
        return value.toJsonObject();
    if (value.metaType() == QMetaType::fromType<QJsonValue>())
        return value.toJsonValue().toObject();
    return QJsonObject::fromVariantMap(value.toMap());
}

// One path that a client sent: true when it may be joined to the root. A refusal is logged at
// level 3 with the client and the path as received.
bool accept_client_path(const QString& path, const QString& client, const QString& request)
{
    QString reason;
    if (path_safety_t::is_safe_relative_path(path, &reason))
        return true;
    SERVICE_LOG(QStringLiteral("Refused path \"%1\" in %2 from client %3: %4")
                    .arg(path_safety_t::printable(path), request, client, reason),
        3);
    return false;
}

// Download list: unsafe names are dropped; empty or non-text elements are left for
// create_file_sender, which skips them.
QJsonArray safe_download_list(const QJsonArray& files, const QString& client)
{
    QJsonArray safe;
    for (const QJsonValue& value : files) {
        const QString path = value.toString();
        if (path.isEmpty()
            || accept_client_path(path, client, packet_t::ctx_download_request.ToString()))
            safe.append(value);
    }
    return safe;
}

// Delete list: every element must be a safe relative path.
QJsonArray safe_remove_list(const QJsonArray& files, const QString& client)
{
    QJsonArray safe;
    for (const QJsonValue& value : files) {
        if (accept_client_path(value.toString(), client, packet_t::ctx_delete_request.ToString()))
            safe.append(value);
    }
    return safe;
}

// Pairwise entries ({from: to}): an element is kept only when every path in it is safe.
QJsonArray safe_pair_list(const QJsonArray& entries, const QString& client, const QString& request)
{
    QJsonArray safe;
    for (const QJsonValue& value : entries) {
        const QJsonObject entry = value.toObject();
        bool ok = !entry.isEmpty();
        if (!ok)
            accept_client_path(QString(), client, request);
        for (auto it = entry.begin(); ok && it != entry.end(); ++it) {
            ok = accept_client_path(it.key(), client, request)
                && accept_client_path(it.value().toString(), client, request);
        }
        if (ok)
            safe.append(value);
    }
    return safe;
}

// The change set computed from a replace description, without the entries whose paths are
// unsafe. Dropping an entry (rather than the description's unsafe key) keeps a server file whose
// content only an unsafe name matched: it is neither renamed out of the root nor removed.
QJsonObject safe_change_set(const QJsonObject& diff, const QString& client)
{
    const QString request = packet_t::ctx_replace_request.ToString();
    QJsonObject safe;
    for (auto it = diff.begin(); it != diff.end(); ++it) {
        const QJsonArray list = it.value().toArray();
        if (it.key() == QLatin1String("renamed") || it.key() == QLatin1String("copied")) {
            safe.insert(it.key(), safe_pair_list(list, client, request));
            continue;
        }
        QJsonArray kept;
        for (const QJsonValue& value : list) {
            if (accept_client_path(value.toString(), client, request))
                kept.append(value);
        }
        safe.insert(it.key(), kept);
    }
    return safe;
}

} // namespace

QString context_sync_t::context_root = QStringLiteral("/kzr-data/orvane/context_root/");
QString context_sync_t::tmp_relative_path_file_recive
    = QStringLiteral("%1file_receive").arg(context_monitor_t::prefix_to_ignore);

// ------------------------------------------------------------------------------------------------
// construction, start, stop

context_sync_t::context_sync_t(
    comunication::protoserver_t* _comunication, database::database_t* _database, QObject* parent)
    : QObject(parent)
    , rr_server(nullptr)
    , receiver(context_root, tmp_relative_path_file_recive,
          _comunication ? _comunication->getMosquittoCnf().getClientId() : QString(), nullptr)
    , monitor(QStringLiteral("CONTEXT"), context_root, nullptr)
    , file_handler(context_root, this)
    , name(database::rr::rr_type_t::context_sync_service.ToString())
    , rr(nullptr)
{
    init(_comunication, _database);

    if (protoserver) {
        comunication::protoserver_t* server = protoserver;
        const QString service_name = name;
        QPointer<service_rr_server_t> created;
        auto create = [server, service_name, &created] {
            created
                = qobject_cast<service_rr_server_t*>(server->create_server_service(service_name));
        };
        // A blocking queued call from the protoserver's own thread would wait for itself.
        if (server->thread() == QThread::currentThread())
            create();
        else
            QMetaObject::invokeMethod(
                server, utility::tsan::handed_over(create), Qt::BlockingQueuedConnection);
        rr_server = created;
    }

    init_event_file_receiver(true);

    SERVICE_LOG(QStringLiteral("Thread comunication 0x%1").arg(thread_text(protoserver)), 6);
    SERVICE_LOG(
        QStringLiteral("Thread service_rr_server 0x%1").arg(thread_text(rr_server.data())), 6);
    SERVICE_LOG(QStringLiteral("Thread context_sync 0x%1").arg(thread_text(this)), 6);
    SERVICE_LOG(QStringLiteral("Thread file_receiver 0x%1").arg(thread_text(&receiver)), 6);
    SERVICE_LOG(QStringLiteral("Thread context_monitor 0x%1").arg(thread_text(&monitor)), 6);
    SERVICE_LOG(QStringLiteral("Thread database 0x%1").arg(thread_text(database)), 6);
}

context_sync_t::~context_sync_t()
{
    SERVICE_LOG(QStringLiteral("Stoppic context sync"), 2);
    init_event_state_service(false);

    // No new request can reach the pool now; those already handed over use this object.
    {
        QMutexLocker locker(&requests_lock);
        while (requests_running > 0)
            requests_done.wait(&requests_lock);
    }

    init_event_file_receiver(false);
    init_event_context_monitor(false);
    receiver.stop();
    stopping_file_sender();
    if (rr_server)
        rr_server->stop();
    monitor.stop_watcher();
}

void context_sync_t::init(
    comunication::protoserver_t* _comunication, database::database_t* _database)
{
    SERVICE_LOG(name + QStringLiteral("  Call Init context sync ..."), 6);
    if (!protoserver)
        protoserver = _comunication;

    bool connect_events = false;
    if (database) {
        SERVICE_LOG(name + QStringLiteral("Un init event service context sync ..."), 4);
    } else {
        database = _database;
        if (database) {
            rr = qobject_cast<database::rr::rr_context_sync_t*>(
                database->get_rr(database::rr::rr_type_t::context_sync_service.ToString()));
        }
        connect_events = true;
    }
    init_event_state_service(connect_events);
}

void context_sync_t::start(bool _init)
{
    SERVICE_LOG(QStringLiteral("%1 incoming %2)")
                    .arg(name, _init ? QStringLiteral("start") : QStringLiteral("stop")),
        4);
    if (_init) {
        init_event_context_monitor(true);
        const QString tmp_folder = monitor.relative_to_absolute_path(tmp_relative_path_file_recive);
        context_file_handler_t::clean_tmp_folder(tmp_folder, true);
        monitor.start_watcher();
        if (rr_server)
            rr_server->start(service_rr_base_t::How_finish(2));
        init_event_service(true);
        publish_state_of_service(all_destination(), packet_t::ready_to_check, QJsonObject());
        return;
    }
    init_event_context_monitor(false);
    if (rr_server)
        rr_server->stop();
    monitor.stop_watcher();
    init_event_service(false);
}

void context_sync_t::publish_state_of_service(
    const QString& _destination, packet_t _rr_state, const QJsonObject& _message)
{
    QJsonObject payload = _message;
    if (_rr_state == packet_t::ready_to_check)
        payload.insert(QStringLiteral("context_hash"), monitor.get_cumulative_hash());
    emit response_to_service(
        database::rr::definition::rr_packet_service_t::state_of_service.Topic(), _destination,
        payload, _rr_state.ToString());
}

void context_sync_t::tree_updated_files(const QString& _cumulative_hash_file,
    const QString& _cumulative_hash_file_name, const QJsonObject& _diff_file_tree)
{
    Q_UNUSED(_cumulative_hash_file);
    Q_UNUSED(_cumulative_hash_file_name);
    Q_UNUSED(_diff_file_tree);
    emit response_to_service(packet_t::ctx_list.ToString(), all_destination(),
        monitor.get_files_json_object(), QString(""));
}

// ------------------------------------------------------------------------------------------------
// signal groups

void context_sync_t::init_event_service(const bool& _init)
{
    if (!rr_server)
        return;
    service_rr_server_t* server = rr_server.data();
    if (_init) {
        connect(this, &context_sync_t::response_to_service, server,
            &service_rr_server_t::response_to_service, Qt::QueuedConnection);
        connect(server, &service_rr_server_t::on_request, this, &context_sync_t::on_request,
            queued_unique);
        connect(server, &service_rr_base_t::on_disconnection, this,
            &context_sync_t::on_disconnection, queued_unique);
        connect(server, &service_rr_base_t::on_end, this, &context_sync_t::on_end, queued_unique);
        connect(server, &service_rr_base_t::on_state_change, this, &context_sync_t::on_state_change,
            queued_unique);
        connect(server, &service_rr_base_t::on_timeout_publish, this,
            &context_sync_t::on_timeout_publish, queued_unique);
        connect(server, &service_rr_base_t::on_timeout_subscribe, this,
            &context_sync_t::on_timeout_subscribe, queued_unique);
        connect(server, &service_rr_base_t::on_timeout_response, this,
            &context_sync_t::on_timeout_response, queued_unique);
        return;
    }
    disconnect(this, &context_sync_t::response_to_service, server,
        &service_rr_server_t::response_to_service);
    disconnect(server, &service_rr_server_t::on_request, this, &context_sync_t::on_request);
    disconnect(
        server, &service_rr_base_t::on_disconnection, this, &context_sync_t::on_disconnection);
    disconnect(server, &service_rr_base_t::on_end, this, &context_sync_t::on_end);
    disconnect(server, &service_rr_base_t::on_state_change, this, &context_sync_t::on_state_change);
    disconnect(
        server, &service_rr_base_t::on_timeout_publish, this, &context_sync_t::on_timeout_publish);
    disconnect(server, &service_rr_base_t::on_timeout_subscribe, this,
        &context_sync_t::on_timeout_subscribe);
    disconnect(server, &service_rr_base_t::on_timeout_response, this,
        &context_sync_t::on_timeout_response);
}

void context_sync_t::init_event_state_service(const bool& _init)
{
    if (!rr)
        return;
    database::rr::rr_base_t* descriptor = rr.data();
    using database::rr::rr_base_t;
    if (_init) {
        connect(descriptor, &rr_base_t::on_update_base, this, &context_sync_t::on_update_base,
            Qt::QueuedConnection);
        connect(descriptor, &rr_base_t::on_update_start, this, &context_sync_t::on_update_start,
            Qt::QueuedConnection);
        connect(descriptor, &rr_base_t::on_update_state_of_service, this,
            &context_sync_t::on_update_state_of_service, Qt::QueuedConnection);
        connect(descriptor, &rr_base_t::on_update_unknon, this, &context_sync_t::on_update_unknon,
            Qt::QueuedConnection);
        connect(descriptor, &rr_base_t::on_update_abort, this, &context_sync_t::on_update_abort,
            Qt::QueuedConnection);
        connect(descriptor, &rr_base_t::on_update_state, this, &context_sync_t::on_update_state,
            Qt::QueuedConnection);
        return;
    }
    disconnect(descriptor, &rr_base_t::on_update_base, this, &context_sync_t::on_update_base);
    disconnect(descriptor, &rr_base_t::on_update_start, this, &context_sync_t::on_update_start);
    disconnect(descriptor, &rr_base_t::on_update_state_of_service, this,
        &context_sync_t::on_update_state_of_service);
    disconnect(descriptor, &rr_base_t::on_update_unknon, this, &context_sync_t::on_update_unknon);
    disconnect(descriptor, &rr_base_t::on_update_abort, this, &context_sync_t::on_update_abort);
    disconnect(descriptor, &rr_base_t::on_update_state, this, &context_sync_t::on_update_state);
}

void context_sync_t::init_event_context_monitor(const bool& _init)
{
    if (_init) {
        connect(&monitor, &context_monitor_t::tree_updated_files, this,
            &context_sync_t::tree_updated_files, queued_unique);
        return;
    }
    disconnect(&monitor, &context_monitor_t::tree_updated_files, this,
        &context_sync_t::tree_updated_files);
}

void context_sync_t::init_event_file_receiver(const bool& _init)
{
    if (_init) {
        connect(&receiver, &file_receiver_t::sendChunkAck, this,
            &context_sync_t::on_fr_sendChunkAck, queued_unique);
        connect(&receiver, &file_receiver_t::file_received, this,
            &context_sync_t::on_fr_file_received, queued_unique);
        connect(&receiver, &file_receiver_t::in_download_change, this,
            &context_sync_t::on_fr_in_download_change, queued_unique);
        connect(this, &context_sync_t::processChunk, &receiver, &file_receiver_t::processChunk,
            Qt::QueuedConnection);
        return;
    }
    disconnect(
        &receiver, &file_receiver_t::sendChunkAck, this, &context_sync_t::on_fr_sendChunkAck);
    disconnect(
        &receiver, &file_receiver_t::file_received, this, &context_sync_t::on_fr_file_received);
    disconnect(&receiver, &file_receiver_t::in_download_change, this,
        &context_sync_t::on_fr_in_download_change);
    disconnect(this, &context_sync_t::processChunk, &receiver, &file_receiver_t::processChunk);
}

void context_sync_t::init_event_file_sender(QPointer<file_sender_t> _sender, const bool& _init)
{
    if (!_sender) {
        SERVICE_LOG(
            QStringLiteral("Unable to connect file sender to event because is nullptr!"), 2);
        return;
    }
    file_sender_t* sender = _sender.data();
    if (_init) {
        connect(sender, &file_sender_t::timeout_occurred, this,
            &context_sync_t::on_fs_timeout_occurred);
        connect(sender, &file_sender_t::fileProgressUpdated, this,
            &context_sync_t::on_fs_fileProgressUpdated);
        connect(sender, &file_sender_t::overallProgressUpdated, this,
            &context_sync_t::on_fs_overallProgressUpdated);
        connect(sender, &file_sender_t::publish_chunk, this, &context_sync_t::on_fs_publish_chunk);
        connect(sender, &file_sender_t::file_sended, this, &context_sync_t::on_fs_file_sended);
        connect(sender, &file_sender_t::in_upload_change, this,
            &context_sync_t::on_fs_in_upload_change);
        connect(this, &context_sync_t::stop_file_sender, sender, &file_sender_t::stop,
            Qt::QueuedConnection);
        return;
    }
    disconnect(
        sender, &file_sender_t::timeout_occurred, this, &context_sync_t::on_fs_timeout_occurred);
    disconnect(sender, &file_sender_t::fileProgressUpdated, this,
        &context_sync_t::on_fs_fileProgressUpdated);
    disconnect(sender, &file_sender_t::overallProgressUpdated, this,
        &context_sync_t::on_fs_overallProgressUpdated);
    disconnect(sender, &file_sender_t::publish_chunk, this, &context_sync_t::on_fs_publish_chunk);
    disconnect(sender, &file_sender_t::file_sended, this, &context_sync_t::on_fs_file_sended);
    disconnect(
        sender, &file_sender_t::in_upload_change, this, &context_sync_t::on_fs_in_upload_change);
    disconnect(this, &context_sync_t::stop_file_sender, sender, &file_sender_t::stop);
}

// ------------------------------------------------------------------------------------------------
// rr server and rr descriptor

QString context_sync_t::service_label() const
{
    return rr ? rr->getName() : name;
}

void context_sync_t::on_request(
    const QString& _origin, const QJsonObject& _request, const QString& _service)
{
    SERVICE_LOG(QStringLiteral("on_request") + QStringLiteral(" ") + service_label()
            + QStringLiteral(" REQUEST: ") + _origin,
        6);
    if (_service == name && rr)
        rr->whois(_origin, _request);
}

void context_sync_t::on_disconnection(const QString& _client)
{
    SERVICE_LOG(QStringLiteral("[%1] %2").arg(_client, QStringLiteral("on_disconnection")), 3);
}

void context_sync_t::on_end(const QString& _client)
{
    SERVICE_LOG(QStringLiteral("[%1] %2").arg(_client, QStringLiteral("on_end")), 3);
}

void context_sync_t::on_state_change(int _state, const QString& _text)
{
    SERVICE_LOG(QStringLiteral("Change state to [%1] %2")
                    .arg(_text, service_rr_base_t::friendlyState(_state)),
        6);
}

void context_sync_t::on_timeout_publish(const QString& _topic)
{
    SERVICE_LOG(QStringLiteral("[%1] %2").arg(_topic, QStringLiteral("on_timeout_publish")), 2);
}

void context_sync_t::on_timeout_subscribe(const QString& _topic)
{
    SERVICE_LOG(QStringLiteral("[%1] %2").arg(_topic, QStringLiteral("on_timeout_subscribe")), 2);
}

void context_sync_t::on_timeout_response(const QString& _topic)
{
    SERVICE_LOG(QStringLiteral("[%1] %2").arg(_topic, QStringLiteral("on_timeout_response")), 2);
}

void context_sync_t::on_update_base(const QString& _topic, const QVariant& _payload,
    const QList<QString>& _caps, const QMap<QString, QVariant>& _params)
{
    Q_UNUSED(_topic);
    Q_UNUSED(_payload);
    Q_UNUSED(_caps);
    Q_UNUSED(_params);
    SERVICE_LOG(
        QStringLiteral("[%1] %2").arg(service_label(), QStringLiteral("on_update_base")), 6);
}

void context_sync_t::on_update_start(const QString& _topic, const QVariant& _payload,
    const QList<QString>& _caps, const QMap<QString, QVariant>& _params)
{
    Q_UNUSED(_topic);
    Q_UNUSED(_payload);
    Q_UNUSED(_caps);
    Q_UNUSED(_params);
    SERVICE_LOG(
        QStringLiteral("[%1] %2").arg(service_label(), QStringLiteral("on_update_start")), 6);
}

void context_sync_t::on_update_state_of_service(const QString& _topic, const QVariant& _payload,
    const QList<QString>& _caps, const QMap<QString, QVariant>& _params)
{
    Q_UNUSED(_topic);
    Q_UNUSED(_caps);
    Q_UNUSED(_params);
    SERVICE_LOG(QStringLiteral("[%1] %2").arg(
                    service_label(), QStringLiteral("on_update_state_of_service")),
        6);
    const QString client = variant_to_object(_payload).value(QStringLiteral("sender")).toString();
    publish_state_of_service(client, packet_t::ready_to_check, QJsonObject());
}

void context_sync_t::on_update_unknon(
    const QString& _topic, const QVariant& _payload, const QMap<QString, QVariant>& _params)
{
    Q_UNUSED(_topic);
    Q_UNUSED(_payload);
    Q_UNUSED(_params);
    SERVICE_LOG(
        QStringLiteral("[%1] %2").arg(service_label(), QStringLiteral("on_update_unknon")), 6);
}

void context_sync_t::on_update_abort(const QString& _topic, const QVariant& _payload,
    const QList<QString>& _caps, const QMap<QString, QVariant>& _params)
{
    Q_UNUSED(_topic);
    Q_UNUSED(_payload);
    Q_UNUSED(_caps);
    Q_UNUSED(_params);
    SERVICE_LOG(
        QStringLiteral("[%1] %2").arg(service_label(), QStringLiteral("on_update_abort")), 6);
}

void context_sync_t::on_update_state(const QString& _topic, const QVariant& _payload,
    const QList<QString>& _caps, const QMap<QString, QVariant>& _params)
{
    Q_UNUSED(_caps);
    Q_UNUSED(_params);
    {
        QMutexLocker locker(&requests_lock);
        ++requests_running;
    }
    const QString packet = _topic;
    const QVariant data = _payload;
    (void)QtConcurrent::run(QThreadPool::globalInstance(), [this, packet, data] {
        dispatch(packet, data);
        QMutexLocker locker(&requests_lock);
        if (--requests_running == 0)
            requests_done.wakeAll();
    });
}

// ------------------------------------------------------------------------------------------------
// request dispatcher (pool worker)

void context_sync_t::dispatch(const QString& _name, const QVariant& _data)
{
    QMutexLocker request_locker(&mutex_request);

    const QJsonObject data = variant_to_object(_data);
    const QString client = data.value(QStringLiteral("sender")).toString();
    const QJsonObject payload = data.value(QStringLiteral("payload")).toObject();
    const QJsonValue message = payload.value(QStringLiteral("message"));

    SERVICE_LOG(QStringLiteral("[%1] Incoming request %2 from client %3")
                    .arg(service_label(), _name, client),
        6);

    if (_name == packet_t::ctx_request.ToString()) {
        // While the monitor is updating, the broadcast that follows the update brings the list.
        if (!monitor.inUpdate()) {
            emit response_to_service(packet_t::ctx_list.ToString(), client,
                monitor.get_files_json_object(), QString(""));
        }
    } else if (_name == packet_t::ctx_stop_transfer.ToString()) {
        SERVICE_LOG(QStringLiteral("Stop all transfer from client %1 ... ").arg(client), 6);
        stopping_file_sender();
        emit response_to_service(
            packet_t::ctx_stop_transfer.ToString(), all_destination(), QJsonObject(), QString(""));
    } else if (_name == packet_t::ctx_replace_request.ToString()) {
        const QJsonObject description = message.toObject();
        SERVICE_LOG(QStringLiteral("Import request from client %1 ... ").arg(client), 6);
        stopping_file_sender();
        // Clients stop their transfers before the tree is touched.
        emit response_to_service(
            packet_t::ctx_stop_transfer.ToString(), all_destination(), QJsonObject(), QString(""));
        for (int i = 0; i < 4; ++i) {
            SERVICE_LOG(QStringLiteral("Se aspetto che finisca lo scan posso togliere il secondo "
                                       "replace dal client nella funzione handler import"),
                2);
        }
        const QJsonObject diff = monitor.calculate_diff_json_objects(description);
        if (!diff.isEmpty())
            SERVICE_LOG(compact(diff), 4);
        file_handler.handler_file(safe_change_set(diff, client));
    } else if (_name == packet_t::ctx_delete_request.ToString()) {
        const QJsonArray files = message.toArray();
        SERVICE_LOG(QStringLiteral("Delete request from client %1 ... ").arg(client), 6);
        SERVICE_LOG(compact(files), 6);
        context_file_handler_t::handler_file_remove(safe_remove_list(files, client), context_root);
        if (rr_server) {
            rr_server->response_to_service(packet_t::ctx_list.ToString(), all_destination(),
                monitor.get_files_json_object(), QString(""));
        }
    } else if (_name == packet_t::ctx_rename_request.ToString()) {
        const QJsonArray files = message.toArray();
        SERVICE_LOG(QStringLiteral("Rename request from client %1 ... ").arg(client), 6);
        SERVICE_LOG(compact(files), 6);
        context_file_handler_t::handler_file_rename(
            safe_pair_list(files, client, packet_t::ctx_rename_request.ToString()), context_root,
            context_root);
        emit response_to_service(packet_t::ctx_list.ToString(), all_destination(),
            monitor.get_files_json_object(), QString(""));
    } else if (_name == packet_t::ctx_download_request.ToString()) {
        const QJsonArray files = message.toArray();
        SERVICE_LOG(QStringLiteral("Download request from client %1").arg(client), 6);
        SERVICE_LOG(compact(files), 6);
        create_file_sender(client, safe_download_list(files, client));
    } else if (_name == packet_t::ctx_chunk_ack.ToString()) {
        receive_file_ack(client, message.toObject());
    } else if (_name == packet_t::ready_to_check.ToString()) {
        check_cumulative_hash(
            client, message.toObject().value(QStringLiteral("context_hash")).toString());
    } else if (_name == packet_t::ctx_chunk.ToString()) {
        emit processChunk(message.toObject(), client);
    }
}

// ------------------------------------------------------------------------------------------------
// upload orchestration

void context_sync_t::update_pacing()
{
    const int interval = 5 * int(file_senders.size()) + 5;
    file_sender_t::INTERVAL_BETWEEN_FILES = interval;
    file_sender_t::INTERVAL_BETWEEN_PACKET = interval;
}

void context_sync_t::create_file_sender(const QString& _client, const QJsonArray& _files)
{
    if (_files.isEmpty()) {
        SERVICE_LOG(QStringLiteral("For client %1 download request is empty!").arg(_client), 2);
        return;
    }

    QMutexLocker locker(&senders_lock);
    // With ten senders alive any further request is ignored without a word, even one from a
    // client that already has a sender.
    if (file_senders.size() > 9)
        return;
    QPointer<file_sender_t> sender = file_senders.value(_client);
    if (!sender) {
        SERVICE_LOG(QStringLiteral("Create a new file_sender for %1 ...").arg(_client), 6);
        auto* thread = new QThread();
        thread->start(QThread::InheritPriority);
        sender = new file_sender_t(_client, context_root, nullptr);
        file_senders.insert(_client, sender);
        sender->moveToThread(thread);
        // The caller may be a pool worker, which runs no event loop: the thread object goes to
        // the service's thread, where its deferred deletion will run.
        if (thread->thread() != this->thread())
            thread->moveToThread(this->thread());
        init_event_file_sender(sender, true);

        update_pacing();
        SERVICE_LOG(QStringLiteral("Set file sender INTERVAL_BETWEEN_FILES to %1")
                        .arg(file_sender_t::INTERVAL_BETWEEN_FILES.load(), 0, 10),
            4);
    }

    QList<QString> paths;
    for (const QJsonValue& value : _files) {
        const QString file = value.toString();
        if (file.isEmpty())
            continue;
        paths.append(context_monitor_t::relative_to_absolute_path(monitor.getRootPath(), file));
    }

    SERVICE_LOG(QStringLiteral("Try to start file sender for client %1").arg(_client), 6);
    file_sender_t* target = sender.data();
    QMetaObject::invokeMethod(target,
        utility::tsan::handed_over([target, paths] { target->start(paths); }),
        Qt::QueuedConnection);
}

void context_sync_t::receive_file_ack(const QString& _client, const QJsonObject& _ack)
{
    QMutexLocker locker(&senders_lock);
    const QPointer<file_sender_t> sender = file_senders.value(_client);
    if (!sender) {
        SERVICE_LOG(QStringLiteral("Not found file sender for clinet %1").arg(_client), 2);
        return;
    }
    file_sender_t* target = sender.data();
    QMetaObject::invokeMethod(target,
        utility::tsan::handed_over([target, _ack] { target->ackReceiver(_ack); }),
        Qt::QueuedConnection);
}

void context_sync_t::stopping_file_sender(const QString& _client)
{
    {
        QMutexLocker locker(&senders_lock);
        const QPointer<file_sender_t> sender = file_senders.value(_client);
        if (!sender) {
            SERVICE_LOG(QStringLiteral("File sender for client %1 not exist!").arg(_client), 3);
            return;
        }
        file_sender_t* target = sender.data();
        QMetaObject::invokeMethod(target, utility::tsan::handed_over([target] { target->stop(); }),
            Qt::BlockingQueuedConnection);
        file_senders.remove(_client);
        SERVICE_LOG(QStringLiteral("Try to delete instance %1").arg(sender->objectName()), 6);
        utility::thread_object_t::deleteInstance<file_sender_t>(sender, true);
        update_pacing();
    }
    if (rr_server) {
        rr_server->response_to_service(packet_t::ctx_list.ToString(), all_destination(),
            monitor.get_files_json_object(), QString(""));
    }
}

void context_sync_t::stopping_file_sender()
{
    QMutexLocker locker(&senders_lock);
    for (auto it = file_senders.begin(); it != file_senders.end();) {
        SERVICE_LOG(QStringLiteral("Stoppin file sender for client ") + it.key(), 2);
        const QPointer<file_sender_t> sender = it.value();
        if (sender) {
            file_sender_t* target = sender.data();
            QMetaObject::invokeMethod(target,
                utility::tsan::handed_over([target] { target->stop(); }),
                Qt::BlockingQueuedConnection);
        }
        it = file_senders.erase(it);
        SERVICE_LOG(QStringLiteral("Try to delete instance %1")
                        .arg(sender ? sender->objectName() : QString()),
            6);
        utility::thread_object_t::deleteInstance<file_sender_t>(sender, true);
    }
}

bool context_sync_t::check_cumulative_hash(const QString& _client, const QString& _incoming_hash)
{
    const QString current = monitor.get_cumulative_hash();
    if (current == _incoming_hash) {
        SERVICE_LOG(QStringLiteral("%1 has same context context. It's OK").arg(_client), 4);
        return true;
    }
    SERVICE_LOG(
        QStringLiteral("Context is different send ready to check to client %1").arg(_client), 3);
    SERVICE_LOG(QStringLiteral("current: %1 incoming: %2").arg(current, _incoming_hash), 6);
    emit response_to_service(packet_t::ready_to_check.ToString(), _client,
        QJsonObject { { QStringLiteral("context_hash"), current } }, QString(""));
    return false;
}

bool context_sync_t::busy_probe(const bool& _check_update, const bool& _check_download)
{
    QMutexLocker locker(&mutex_read);
    qInfo("Read operation .... 00000000000");
    const bool in_update = _check_update && monitor.inUpdate();
    const bool in_download = _check_download && receiver.inDownload();
    const bool busy = in_update || in_download;
    qInfo("Read operation .... 11111111111");
    if (busy) {
        qInfo("###############################################");
        qInfo().noquote() << QStringLiteral(
            "Context monitor busy ... wait ... in_update = %1;  in_download = %2; ")
                                 .arg(in_update ? 1 : 0)
                                 .arg(in_download ? 1 : 0);
        qInfo("###############################################");
    }
    return busy;
}

void context_sync_t::waiting_operation(
    const bool& _check_update, const bool& _check_download, const int& _timeout)
{
    QMutexLocker wait_locker(&mutex_wait);
    const bool check_update = _check_update;
    const bool check_download = _check_download;

    qInfo("Initial check ...");
    if (!busy_probe(check_update, check_download)) {
        qInfo("==============================> Exit initial ... ");
        return;
    }
    qInfo("==============================> Continue initial ... ");
    qInfo("Wait check ...");
    QEventLoop loop;

    QMetaObject::Connection update_connection;
    QMetaObject::Connection download_connection;
    if (check_update) {
        update_connection = connect(
            &monitor, &context_monitor_t::in_update_change, &loop,
            [this, &loop, check_update, check_download](const bool&) {
                qInfo("======> Incoming in_update_change");
                if (!busy_probe(check_update, check_download)) {
                    loop.quit();
                    qInfo("quit!");
                }
            },
            Qt::QueuedConnection);
    }
    if (check_download) {
        download_connection = connect(
            &receiver, &file_receiver_t::in_download_change, &loop,
            [this, &loop, check_update, check_download](bool) {
                qInfo("======> Incoming in_download_change");
                if (!busy_probe(check_update, check_download)) {
                    loop.quit();
                    qInfo("quit!");
                }
            },
            Qt::QueuedConnection);
    }

    // A negative time-out is treated as no limit, like 0.
    qint64 limit = _timeout;
    if (limit >= 1 && limit <= 9999)
        limit = 10000;
    QFutureWatcher<bool> watcher;
    connect(&watcher, &QFutureWatcher<bool>::finished, &loop, &QEventLoop::quit);
    watcher.setFuture(QtConcurrent::run(
        QThreadPool::globalInstance(), [this, &loop, limit, check_update, check_download] {
            qInfo("waiting_operation");
            QElapsedTimer elapsed;
            elapsed.start();
            while (busy_probe(check_update, check_download)
                && (limit <= 0 || elapsed.elapsed() < limit)) {
                qInfo("Wait ...");
                QThread::msleep(1000);
            }
            qInfo("End of wait ...");
            qInfo() << "loop is running: " << loop.isRunning();
            // quit() is thread-safe; the loop may not have been entered yet, so the watcher's
            // finished signal quits it as well.
            QMetaObject::invokeMethod(&loop, &QEventLoop::quit, Qt::QueuedConnection);
            qInfo("quit!");
            return true;
        }));

    qInfo("Before exec");
    if (!watcher.isFinished())
        loop.exec();
    qInfo("After exec");
    watcher.waitForFinished();
    const bool result = watcher.result();
    Q_UNUSED(result);
    qInfo("==============================> Exit wait ... ");
    disconnect(update_connection);
    disconnect(download_connection);
}

// ------------------------------------------------------------------------------------------------
// relays

bool context_sync_t::from_replaced_sender(const QString& _client) const
{
    // Only the pointer value is compared: the emitting sender may be gone already.
    const QObject* origin = sender();
    if (!origin)
        return false;
    QMutexLocker locker(&senders_lock);
    return file_senders.value(_client).data() != origin;
}

void context_sync_t::on_fs_timeout_occurred(const QString& _client, const QString& _file)
{
    SERVICE_LOG(QStringLiteral("%1 Timeout occured for client %2 file %3")
                    .arg(QStringLiteral("on_fs_timeout_occurred"), _client, _file),
        2);
    if (from_replaced_sender(_client))
        return;
    stopping_file_sender(_client);
}

void context_sync_t::on_fs_fileProgressUpdated(
    const QString& _client, const QString& _file, double _percent)
{
    SERVICE_LOG(QStringLiteral("%1 Progress for client %2 file %3 [%4 %]")
                    .arg(QStringLiteral("on_fs_fileProgressUpdated"), _client, _file,
                        QString::number(_percent, 'g', QLocale::FloatingPointShortest)),
        6);
}

void context_sync_t::on_fs_overallProgressUpdated(const QString& _client, double _percent)
{
    SERVICE_LOG(
        QStringLiteral("Progress for client %1 %2%").arg(_client, QString::number(_percent)), 4);
}

void context_sync_t::on_fs_publish_chunk(const QString& _client, const QJsonObject& _chunk)
{
    SERVICE_LOG(QStringLiteral("Publish ctx_chunk for %1").arg(_client), 6);
    emit response_to_service(packet_t::ctx_chunk.ToString(), _client, _chunk, QString(""));
}

void context_sync_t::on_fs_file_sended(const QString& _client, const QString& _file)
{
    SERVICE_LOG(QStringLiteral("End of send file %1 to client %2!").arg(_file, _client), 6);
}

void context_sync_t::on_fs_in_upload_change(const QString& _client, const bool& _value)
{
    if (_value) {
        SERVICE_LOG(QStringLiteral("Starting upload context for %1... ").arg(_client), 4);
        return;
    }
    SERVICE_LOG(QStringLiteral("End of upload context for %1 ... ").arg(_client), 4);
    // A sender lives exactly as long as one download request.
    QMutexLocker locker(&senders_lock);
    if (file_senders.value(_client) && !from_replaced_sender(_client))
        stopping_file_sender(_client);
}

void context_sync_t::on_fr_sendChunkAck(
    const QString& _file, const int& _chunk_index, const QJsonObject& _ack, const QString& _client)
{
    SERVICE_LOG(QStringLiteral("Send ACK file %1 [%2] {%3}")
                    .arg(_file)
                    .arg(_chunk_index)
                    .arg(_ack.value(QStringLiteral("chunkIndex")).toInt()),
        6);
    emit response_to_service(packet_t::ctx_chunk_ack.ToString(), _client, _ack, QString(""));
}

void context_sync_t::on_fr_file_received(const QString& _file)
{
    SERVICE_LOG(QStringLiteral("File receive with name %1 completed").arg(_file), 4);
    monitor.rename_file_to_send(_file, false);
}

void context_sync_t::on_fr_in_download_change(const bool& _value)
{
    SERVICE_LOG(_value ? QStringLiteral("Starting context file receive ... ")
                       : QStringLiteral("End of context file received ... "),
        2);
}

} // namespace context_sync_engine
