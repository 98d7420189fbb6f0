#include "service_harness.h"

#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QJsonDocument>

#if defined(__SANITIZE_THREAD__)
// The broker fixture starts mosquitto with fork() while the process already runs threads (the log
// writer, the connections); the child only execs, which the race detector must be told to allow.
extern "C" const char* __tsan_default_options()
{
    return "die_after_fork=0";
}
#endif

namespace service_test {

using comunication::protoserver_t;
using comunication::service::service_rr_base_t;
using comunication::service::service_rr_client_t;
using context_sync_engine::chunk_codec_t;
using context_sync_engine::context_sync_t;

comunication::config::mosquittocnf_t settings(
    const test_support::mosquitto_broker_t& broker, const QString& client_id)
{
    comunication::config::mosquittocnf_t cnf(broker.host(), broker.port(), client_id);
    cnf.setReconnectDelays(50, 400);
    cnf.setKeepalive(5);
    cnf.setPublishTimeoutMs(8000);
    cnf.setSubscribeTimeoutMs(8000);
    cnf.setResponseTimeoutMs(60000);
    return cnf;
}

QByteArray fixture(const QString& name)
{
    QFile file(QStringLiteral(CONTEXT_SYNC_TEST_DATA_DIR "/images/") + name);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    return file.readAll();
}

QByteArray background_image(qsizetype size, quint32 seed)
{
    QByteArray image = fixture(QStringLiteral("bg_640x284.png"));
    if (size > image.size())
        image.append(test_support::temp_tree_t::random_bytes(size - image.size(), seed));
    return image;
}

// ------------------------------------------------------------------------------------------------

client_t::client_t(const test_support::mosquitto_broker_t& broker, const QString& id)
    : id_(id)
    , proto_(std::make_unique<protoserver_t>(settings(broker, id)))
{
    QMetaObject::invokeMethod(
        proto_.get(),
        [this] { service_ = proto_->create_client_service(QStringLiteral("context_sync")); },
        Qt::BlockingQueuedConnection);
    connect(service_, &service_rr_client_t::on_response, this, &client_t::on_response);
    connect(service_, &service_rr_client_t::on_service_status, this,
        [this](QString status) { statuses_.append(status); });
    service_->start(service_rr_base_t::finish_on_stop);
}

client_t::~client_t()
{
    proto_.reset();
}

bool client_t::wait_ready(bool wait_service, int timeout_ms)
{
    QDeadlineTimer deadline(timeout_ms);
    if (!wait_until([this] { return proto_->isConnected(); }, timeout_ms))
        return false;
    // A probe on this client's own answer topic, published after the SUBSCRIBE packets on the
    // same connection, proves that the broker has the subscriptions once it comes back.
    const QString topic = QStringLiteral("%1/rr/context_sync/res/%2")
                              .arg(proto_->getMosquittoCnf().getTopicBase(), id_);
    QMetaObject::invokeMethod(
        proto_.get(),
        [this, topic] {
            proto_->publish(service_, topic, QByteArrayLiteral("{\"type\":\"probe\"}"), false);
        },
        Qt::BlockingQueuedConnection);
    const auto remaining = [&deadline] { return int(qMax<qint64>(1, deadline.remainingTime())); };
    if (!wait_for(QStringLiteral("probe"), 1, remaining()))
        return false;
    responses.erase(std::remove_if(responses.begin(), responses.end(),
                        [](const response_t& r) { return r.type == QLatin1String("probe"); }),
        responses.end());
    if (!wait_service)
        return true;
    return wait_until([this] { return statuses_.contains(QStringLiteral("online")); }, remaining());
}

void client_t::send(const QString& type, const QJsonObject& payload)
{
    service_->send_request(type, payload);
}

void client_t::send_message(const QString& type, const QJsonValue& message)
{
    send(type, QJsonObject { { QStringLiteral("message"), message } });
}

void client_t::send_raw(const QByteArray& body)
{
    service_->send_raw_request(body);
}

QList<response_t> client_t::of_type(const QString& type) const
{
    QList<response_t> result;
    for (const response_t& response : responses) {
        if (response.type == type)
            result.append(response);
    }
    return result;
}

bool client_t::wait_for(const QString& type, int wanted, int timeout_ms)
{
    return wait_until([this, &type, wanted] { return count(type) >= wanted; }, timeout_ms);
}

int unicast_count(const client_t& client, const QString& type)
{
    int n = 0;
    for (const auto& response : client.of_type(type))
        n += response.broadcast ? 0 : 1;
    return n;
}

QMap<QString, QString> as_map(const QJsonObject& files)
{
    QMap<QString, QString> map;
    for (auto it = files.begin(); it != files.end(); ++it)
        map.insert(it.key(), it.value().toString());
    return map;
}

bool client_t::complete(const QString& file) const
{
    return total_chunks.contains(file) && chunks_seen.value(file) == total_chunks.value(file);
}

void client_t::on_response(QString type, QString subtype, QJsonObject payload, bool broadcast)
{
    responses.append({ type, subtype, payload, broadcast });
    if (type == QLatin1String("ctx_chunk") && acknowledge)
        handle_chunk(payload);
}

void client_t::handle_chunk(const QJsonObject& payload)
{
    const chunk_codec_t::decoded_t chunk = chunk_codec_t::decode_chunk(payload);
    const QString file = chunk.fields.header.file;
    // Stop-and-wait: the chunks of a file come in order, each exactly once.
    if (!chunk.valid || chunk.fields.header.chunk_index != chunks_seen.value(file))
        ++bad_chunks;
    files[file].append(chunk.bytes);
    chunks_seen[file] = chunks_seen.value(file) + 1;
    total_chunks[file] = chunk.fields.header.total_chunks;
    send_message(QStringLiteral("ctx_chunk_ack"),
        chunk_codec_t::build_ack(file, chunk.fields.header.chunk_index));
}

bool client_t::upload(
    const QString& file, const QByteArray& bytes, int remaining_files, int timeout_ms)
{
    const qint64 total = chunk_codec_t::chunk_count(bytes.size());
    for (qint64 index = 0; index < total; ++index) {
        chunk_codec_t::header_t header;
        header.file = file;
        header.chunk_index = int(index);
        header.remaining_files = remaining_files;
        header.total_chunks = total;
        const qint64 offset = index * chunk_codec_t::CHUNK_SIZE;
        const QByteArrayView raw = QByteArrayView(bytes).sliced(
            offset, qMin<qint64>(chunk_codec_t::CHUNK_SIZE, bytes.size() - offset));
        const int acks_before = count(QStringLiteral("ctx_chunk_ack"));
        send_message(QStringLiteral("ctx_chunk"), chunk_codec_t::build_chunk(header, raw, 6));
        if (!wait_for(QStringLiteral("ctx_chunk_ack"), acks_before + 1, timeout_ms))
            return false;
        const chunk_codec_t::ack_t ack
            = chunk_codec_t::read_ack(of_type(QStringLiteral("ctx_chunk_ack")).constLast().payload);
        if (ack.file != file || ack.chunk_index != int(index))
            return false;
    }
    return true;
}

// ------------------------------------------------------------------------------------------------

host_t::host_t()
{
    thread_.setObjectName(QStringLiteral("service"));
    thread_.start();
    anchor_ = new QObject();
    anchor_->moveToThread(&thread_);
}

host_t::~host_t()
{
    destroy();
    // Deleted as the thread finishes: a queued deleteLater could still be waiting when quit()
    // ends the loop, and the anchor, its thread's data and the events posted there would leak.
    QObject::connect(&thread_, &QThread::finished, anchor_, &QObject::deleteLater);
    thread_.quit();
    thread_.wait();
    proto_.reset();
}

bool host_t::create()
{
    if (!tree_.is_valid() || !broker_.start())
        return false;
    proto_
        = std::make_unique<protoserver_t>(settings(broker_, QStringLiteral("context-sync-server")));
    context_sync_t::context_root = tree_.root();
    comunication::protoserver_t* proto = proto_.get();
    database::database_t* db = &database_;
    on_service_thread([this, proto, db] { service_ = new context_sync_t(proto, db, nullptr); });
    return service_ != nullptr;
}

void host_t::start(bool on)
{
    QMetaObject::invokeMethod(service_, "start", Qt::BlockingQueuedConnection, Q_ARG(bool, on));
}

void host_t::on_service_thread(const std::function<void()>& call)
{
    QMetaObject::invokeMethod(anchor_, call, Qt::BlockingQueuedConnection);
}

void host_t::destroy()
{
    if (!service_)
        return;
    context_sync_t* service = service_;
    service_ = nullptr;
    on_service_thread([service] { delete service; });
}

std::unique_ptr<client_t> host_t::client(const QString& id, bool wait_service)
{
    auto result = std::make_unique<client_t>(broker_, id);
    if (!result->wait_ready(wait_service))
        return nullptr;
    return result;
}

QString host_t::cumulative_hash(const QMap<QString, QString>& files)
{
    QByteArray names;
    QByteArray contents;
    for (auto it = files.cbegin(); it != files.cend(); ++it) {
        names.append(it.key().toUtf8());
        contents.append(it.value().toUtf8());
    }
    return md5_hex(md5_hex(names).toUtf8() + md5_hex(contents).toUtf8());
}

QJsonObject host_t::files_object() const
{
    QJsonObject result;
    for (const QString& file : tree_.files()) {
        if (file.startsWith(QLatin1String("TMP_"), Qt::CaseInsensitive))
            continue;
        result.insert(file, md5_hex(tree_.read(file)));
    }
    return result;
}

} // namespace service_test
