// context_sync_t is the sync service: the one object that the host creates to keep the context
// root in step with its clients. It owns the context monitor (file map, hashes, watcher), the
// chunked file receiver, the file-operation handler and one file sender per downloading client,
// and plugs them into the platform's rr layer: requests come in through the rr server and the rr
// descriptor, answers (file lists, chunks, acknowledgements, state of service) go out through the
// rr server.
//
// Threads: the service lives on the thread that constructs it (the service thread); its slots,
// the monitor, the receiver and the file handler run there. The rr server is created on the
// protoserver's thread by a blocking queued call from the constructor, so the constructor must
// not run on that thread. Every context-sync request is handled on a worker of the global thread
// pool, one at a time under mutex_request. Each file sender runs on a QThread of its own (at most
// ten), reached only through queued or blocking-queued calls.
// Owns: receiver, monitor, file_handler (members) and the senders with their threads. Holds the
// protoserver, the database, the rr server and the rr descriptor without owning them.
// Signals: response_to_service (every answer to clients, queued to the rr server), processChunk
// (queued to the receiver), stop_file_sender (queued to every sender's stop()).
#pragma once

#include "context_sync/context_sync/context_file_handler_t.h"
#include "context_sync/context_sync/transfer_manager/file_receiver_t.h"
#include "context_sync/context_sync/transfer_manager/file_sender_t.h"
#include "context_sync/context_sync/watcher/context_monitor_t.h"
#include "context_sync/context_sync_export.h"

#include "platform/comunication/protoserver_t.h"
#include "platform/comunication/service/service_rr_server_t.h"
#include "platform/database/database_t.h"
#include "platform/database/rr/definition/rr_packet_type_context_sync_t.h"
#include "platform/database/rr/rr_context_sync_t.h"

#include <QHash>
#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QMutex>
#include <QObject>
#include <QPointer>
#include <QRecursiveMutex>
#include <QString>
#include <QVariant>
#include <QWaitCondition>

namespace context_sync_engine {

class CONTEXT_SYNC_EXPORT context_sync_t : public QObject {
    Q_OBJECT

public:
    // Absolute path of the synchronised tree, with a trailing "/". The host (and tests) may set
    // it before constructing the service; every component receives it at construction.
    static QString context_root;
    // The receiver's staging folder, relative to the root ("TMP_file_receive"). Its ignore prefix
    // keeps the watcher from ever reporting it.
    static QString tmp_relative_path_file_recive;

    Q_INVOKABLE context_sync_t(comunication::protoserver_t* _comunication,
        database::database_t* _database, QObject* parent = nullptr);
    ~context_sync_t() override;

    context_sync_t(const context_sync_t&) = delete;
    context_sync_t& operator=(const context_sync_t&) = delete;

    // Connect (true) or disconnect (false) one group of signals; false drops exactly the pairs
    // that true makes.
    void init_event_service(const bool& _init);
    void init_event_state_service(const bool& _init);
    void init_event_context_monitor(const bool& _init);
    void init_event_file_receiver(const bool& _init);
    void init_event_file_sender(QPointer<file_sender_t> _sender, const bool& _init);

    // Compares a client's cumulative hash with the server's; a difference sends ready_to_check
    // with the server's hash to that client. True when equal.
    bool check_cumulative_hash(const QString& _client, const QString& _incoming_hash);

    // Blocks until the monitor (check_update) and/or the receiver (check_download) are idle, or
    // until `_timeout` ms have passed (1..9999 count as 10000, 0 as no limit). Runs a local event
    // loop, so the calling thread must be able to run one; reports on qInfo.
    void waiting_operation(
        const bool& _check_update, const bool& _check_download, const int& _timeout);

signals:
    // The one way out to clients: packet type text, client id or the every-client destination,
    // payload, and a subtype that is empty except for state-of-service messages.
    void response_to_service(const QString& _command, const QString& _destination,
        const QJsonObject& _data, const QString& _state);
    void processChunk(const QJsonObject& _data, const QString& _sender);
    void stop_file_sender();

public slots:
    void init(comunication::protoserver_t* _comunication, database::database_t* _database);
    void start(bool _init);
    void publish_state_of_service(const QString& _destination,
        database::rr::definition::rr_packet_type_context_sync_t _rr_state,
        const QJsonObject& _message);

    // From the monitor after a change of the tree: every client gets the new list.
    void tree_updated_files(const QString& _cumulative_hash_file,
        const QString& _cumulative_hash_file_name, const QJsonObject& _diff_file_tree);

    // From the rr server.
    void on_request(const QString& _origin, const QJsonObject& _request, const QString& _service);
    void on_disconnection(const QString& _client);
    void on_end(const QString& _client);
    void on_state_change(int _state, const QString& _text);
    void on_timeout_publish(const QString& _topic);
    void on_timeout_subscribe(const QString& _topic);
    void on_timeout_response(const QString& _topic);

    // From the rr descriptor.
    void on_update_base(const QString& _topic, const QVariant& _payload,
        const QList<QString>& _caps, const QMap<QString, QVariant>& _params);
    void on_update_start(const QString& _topic, const QVariant& _payload,
        const QList<QString>& _caps, const QMap<QString, QVariant>& _params);
    void on_update_state_of_service(const QString& _topic, const QVariant& _payload,
        const QList<QString>& _caps, const QMap<QString, QVariant>& _params);
    void on_update_unknon(
        const QString& _topic, const QVariant& _payload, const QMap<QString, QVariant>& _params);
    void on_update_abort(const QString& _topic, const QVariant& _payload,
        const QList<QString>& _caps, const QMap<QString, QVariant>& _params);
    // A context-sync packet: handed to a pool worker, returns at once.
    void on_update_state(const QString& _topic, const QVariant& _payload,
        const QList<QString>& _caps, const QMap<QString, QVariant>& _params);

    // Upload orchestration.
    void create_file_sender(const QString& _client, const QJsonArray& _files);
    void receive_file_ack(const QString& _client, const QJsonObject& _ack);
    void stopping_file_sender(const QString& _client);
    void stopping_file_sender();

    // Relays from the senders.
    void on_fs_timeout_occurred(const QString& _client, const QString& _file);
    void on_fs_fileProgressUpdated(const QString& _client, const QString& _file, double _percent);
    void on_fs_overallProgressUpdated(const QString& _client, double _percent);
    void on_fs_publish_chunk(const QString& _client, const QJsonObject& _chunk);
    void on_fs_file_sended(const QString& _client, const QString& _file);
    void on_fs_in_upload_change(const QString& _client, const bool& _value);

    // Relays from the receiver.
    void on_fr_sendChunkAck(const QString& _file, const int& _chunk_index, const QJsonObject& _ack,
        const QString& _client);
    void on_fr_file_received(const QString& _file);
    void on_fr_in_download_change(const bool& _value);

private:
    // Lets the integration tests reach the members (the monitor's busy state above all).
    friend class context_sync_test_peer_t;

    // The request dispatcher, run on a pool worker.
    void dispatch(const QString& _name, const QVariant& _data);
    // Prefix of the dispatcher's and the rr slots' log lines: the descriptor's service name.
    QString service_label() const;
    // Sets both sender intervals from the number of senders in the table.
    void update_pacing();
    // True when a relay was emitted by a sender that is no longer the client's current one (a
    // queued signal of a sender that has been replaced since).
    bool from_replaced_sender(const QString& _client) const;
    // Busy probe of waiting_operation.
    bool busy_probe(const bool& _check_update, const bool& _check_download);

    QPointer<comunication::service::service_rr_server_t> rr_server;
    file_receiver_t receiver;
    QHash<QString, QPointer<file_sender_t>> file_senders;
    QMutex mutex_read;
    QMutex mutex_wait;
    QMutex mutex_request;
    QMutex mutex_spare;
    context_monitor_t monitor;
    context_file_handler_t file_handler;
    QString name;
    QPointer<database::rr::rr_context_sync_t> rr;
    database::database_t* database = nullptr;
    comunication::protoserver_t* protoserver = nullptr;
    QMutex mutex_init;

    // Kept after the members above so that their order stays as it is.
    // file_senders is used by the dispatcher's worker and by the service thread's relays; the
    // lock is recursive because a relay that holds it may end a sender through the per-client
    // stop, which takes it again.
    mutable QRecursiveMutex senders_lock;
    // Requests handed to the pool and not finished yet: the destructor waits for them, since
    // every one of them uses this object.
    QMutex requests_lock;
    QWaitCondition requests_done;
    int requests_running = 0;
};

} // namespace context_sync_engine
