// Test support for the sync service against a real broker, as the server program runs it: the
// protoserver on its own thread, the service constructed and destroyed on a service thread of its
// own, and clients that each have their own MQTT connection and speak the rr envelope through the
// platform's client-side service. Clients record every answer on the test's thread; a client can
// also take part in downloads (decode and check every chunk, acknowledge it, assemble the files).
#pragma once

#include "context_sync/context_sync/context_sync_t.h"
#include "platform/comunication/config/mosquittocnf_t.h"
#include "platform/comunication/protoserver_t.h"
#include "platform/comunication/service/service_rr_client_t.h"
#include "platform/database/database_t.h"

#include "common/event_wait.h"
#include "common/md5_hex.h"
#include "common/mosquitto_broker_t.h"
#include "common/temp_tree_t.h"

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QObject>
#include <QString>
#include <QThread>

#include <functional>
#include <memory>

namespace context_sync_engine {

// Reaches the service's members from the tests (declared a friend by the service).
class context_sync_test_peer_t {
public:
    static context_monitor_t& monitor(context_sync_t& service) { return service.monitor; }
    static file_receiver_t& receiver(context_sync_t& service) { return service.receiver; }
    static int sender_count(context_sync_t& service)
    {
        QMutexLocker locker(&service.senders_lock);
        return int(service.file_senders.size());
    }
};

} // namespace context_sync_engine

namespace service_test {

// Processes the test thread's events until `done` holds or `timeout_ms` passes.
inline bool wait_until(const std::function<bool()>& done, int timeout_ms = 10000)
{
    return test_support::wait_until(done, timeout_ms);
}
using test_support::settle;

comunication::config::mosquittocnf_t settings(
    const test_support::mosquitto_broker_t& broker, const QString& client_id);

// A valid background image (640 x 284 PNG) padded to `size` bytes with bytes that depend on
// `seed`, so that files of the same size still differ in hash.
QByteArray background_image(qsizetype size, quint32 seed);
QByteArray fixture(const QString& name);
using test_support::md5_hex;

struct response_t {
    QString type;
    QString subtype;
    QJsonObject payload;
    bool broadcast = false;
};

class client_t : public QObject {
public:
    client_t(const test_support::mosquitto_broker_t& broker, const QString& id);
    ~client_t() override;

    QString id() const { return id_; }
    // Connected, subscribed (a probe came back) and, when `wait_service`, the service's retained
    // status "online" seen.
    bool wait_ready(bool wait_service = true, int timeout_ms = 10000);

    void send(const QString& type, const QJsonObject& payload);
    void send_message(const QString& type, const QJsonValue& message);
    void send_raw(const QByteArray& body);

    // Answers so far, optionally only those of one type.
    QList<response_t> responses;
    QList<response_t> of_type(const QString& type) const;
    int count(const QString& type) const { return int(of_type(type).size()); }
    bool wait_for(const QString& type, int count = 1, int timeout_ms = 10000);
    void clear() { responses.clear(); }

    // Downloads: when true, every chunk is decoded, checked and acknowledged.
    bool acknowledge = true;
    // Assembled files by relative path (complete or not), chunks seen and chunks that failed
    // their own hash check or came out of order.
    QMap<QString, QByteArray> files;
    QMap<QString, int> chunks_seen;
    QMap<QString, qint64> total_chunks;
    int bad_chunks = 0;
    bool complete(const QString& file) const;
    // Decodes, checks, records and acknowledges one chunk (done by itself for every chunk that
    // arrives while `acknowledge` is true).
    void handle_chunk(const QJsonObject& chunk);

    // Uploads: sends `bytes` as `file` in chunks, each after the previous one is acknowledged.
    // Returns false when an acknowledgement does not come within `timeout_ms`.
    bool upload(const QString& file, const QByteArray& bytes, int remaining_files = 0,
        int timeout_ms = 10000);

private:
    void on_response(QString type, QString subtype, QJsonObject payload, bool broadcast);

    QString id_;
    std::unique_ptr<comunication::protoserver_t> proto_;
    comunication::service::service_rr_client_t* service_ = nullptr;
    QStringList statuses_;
};

// How many answers of `type` came to `client` alone (broadcasts not counted).
int unicast_count(const client_t& client, const QString& type);
// A files object {relative path: MD5} as a map.
QMap<QString, QString> as_map(const QJsonObject& files);

// Broker, context root, server connection, database and the service on its own thread.
class host_t {
public:
    host_t();
    ~host_t();

    test_support::mosquitto_broker_t& broker() { return broker_; }
    test_support::temp_tree_t& tree() { return tree_; }
    comunication::protoserver_t* proto() { return proto_.get(); }
    database::database_t* db() { return &database_; }
    context_sync_engine::context_sync_t* service() { return service_; }
    QThread* service_thread() { return &thread_; }

    // Starts the broker and the server connection and constructs the service (not started).
    bool create();
    // start(true) / start(false), invoked by name on the service thread; waits for it.
    void start(bool on = true);
    // Runs `call` on the service thread and waits for it.
    void on_service_thread(const std::function<void()>& call);
    // Destroys the service on its thread (idempotent).
    void destroy();

    std::unique_ptr<client_t> client(const QString& id, bool wait_service = true);

    // Cumulative hash of the root as the service computes it, recomputed from the files.
    static QString cumulative_hash(const QMap<QString, QString>& files);
    // The files object {relative path: MD5} of the tree's current content.
    QJsonObject files_object() const;

private:
    test_support::mosquitto_broker_t broker_;
    test_support::temp_tree_t tree_;
    std::unique_ptr<comunication::protoserver_t> proto_;
    database::database_t database_;
    QThread thread_;
    QObject* anchor_ = nullptr; // lives on the service thread; context of the calls there
    context_sync_engine::context_sync_t* service_ = nullptr;
};

} // namespace service_test
