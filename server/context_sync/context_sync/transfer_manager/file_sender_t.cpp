#include "context_sync/context_sync/transfer_manager/file_sender_t.h"

#include "context_sync/context_sync/transfer_manager/chunk_cache_t.h"
#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"
#include "context_sync/context_sync/transfer_manager/path_safety_t.h"
#include "context_sync/context_sync/watcher/context_monitor_t.h"
#include "platform/logs/classlogs.h"

#include <QDateTime>
#include <QFileInfo>
#include <QMutexLocker>
#include <QThread>

namespace context_sync_engine {

namespace {

constexpr const char* LOG_SOURCE
    = "server/context_sync/context_sync/transfer_manager/file_sender_t";

double now_seconds()
{
    return double(QDateTime::currentSecsSinceEpoch());
}

} // namespace

std::atomic<int> file_sender_t::COMPRESSION_LEVEL { 9 };
std::atomic<int> file_sender_t::INTERVAL_BETWEEN_PACKET { 5 };
std::atomic<int> file_sender_t::INTERVAL_BETWEEN_FILES { 5 };

file_sender_t::file_sender_t(const QString& _client_id, const QString& _root_path, QObject* parent)
    : QObject(parent)
    , root_path(context_monitor_t::adjust_path_directory(_root_path))
    , client_id(_client_id)
{
}

file_sender_t::~file_sender_t()
{
    // The service deletes a sender later on its thread and at once asks that thread to quit, so
    // this destructor often runs while the thread finishes: a deleteLater() posted from here
    // would never be delivered. Objects of this thread are therefore deleted at once.
    const auto release = [](QObject* object) {
        if (object->thread() == QThread::currentThread())
            delete object;
        else
            object->deleteLater();
    };
    if (ack_timer) {
        ack_timer->stop();
        release(ack_timer.data());
    }
    if (current_file)
        release(current_file.data());
}

bool file_sender_t::inUpload()
{
    QMutexLocker locker(&upload_lock);
    return in_upload;
}

void file_sender_t::setInUpload(const bool& _value)
{
    // Only this sender's thread writes the flag, so the unlocked comparison sees the last write.
    if (_value == in_upload)
        return;
    {
        QMutexLocker locker(&upload_lock);
        in_upload = _value;
    }
    emit in_upload_change(client_id, _value);
}

bool file_sender_t::file_open() const
{
    return current_file && current_file->isOpen();
}

void file_sender_t::close_current_file()
{
    if (!current_file)
        return;
    current_file->close();
    delete current_file.data();
    current_file = nullptr;
}

bool file_sender_t::queueable(const QString& path)
{
    QString reason;
    if (!path.startsWith(root_path)) {
        reason = QStringLiteral("it is not below the root");
    } else if (path_safety_t::is_safe_relative_path(path.mid(root_path.size()), &reason)) {
        return true;
    }
    ORVANE_LOG(QStringLiteral("Refused to queue file %1 for client %2: its path %3")
                   .arg(path_safety_t::printable(path), client_id, reason),
        3, LOG_SOURCE);
    return false;
}

void file_sender_t::start(const QList<QString>& files)
{
    if (!ack_timer) {
        ack_timer = new QTimer();
        ack_timer->setSingleShot(true);
        ack_timer->setInterval(ACK_TIMEOUT_MS);
        connect(ack_timer, &QTimer::timeout, this, &file_sender_t::onAckTimeout);
    }
    ORVANE_LOG(QStringLiteral("Started file sender for client %1 ").arg(client_id), 6, LOG_SOURCE);
    if (files.isEmpty()) {
        ORVANE_LOG(QStringLiteral("The file list is empty"), 4, LOG_SOURCE);
        return;
    }

    const bool sending = file_open();
    if (sending) {
        ORVANE_LOG(
            QStringLiteral("File transfer in progress, add new files to queue"), 4, LOG_SOURCE);
        files_taken = 0;
    }

    for (const QString& path : files) {
        if (queue.contains(path))
            continue;
        if (!queueable(path))
            continue;
        const QFileInfo info(path);
        if (info.exists()) {
            QMutexLocker locker(&queue_lock);
            queue.append(path);
            batch_bytes += info.size();
        } else {
            ORVANE_LOG(QStringLiteral("Unable to add to queue: file %1 not exist").arg(path), 2,
                LOG_SOURCE);
        }
    }

    // A running transfer reaches the new files by itself.
    if (sending)
        return;
    last_send_time = now_seconds();
    processNextFile();
}

void file_sender_t::processNextFile()
{
    if (queue.isEmpty()) {
        ORVANE_LOG(QStringLiteral("Nessun file in coda"), 6, LOG_SOURCE);
        setInUpload(false);
        return;
    }
    setInUpload(true);
    QString path;
    {
        QMutexLocker locker(&queue_lock);
        path = queue.takeFirst();
        ++files_taken;
    }
    ORVANE_LOG(QStringLiteral("Prepare the transfer for the file: %1").arg(path), 6, LOG_SOURCE);
    startSendingFileChunks(path);
}

void file_sender_t::startSendingFileChunks(const QString& _path)
{
    close_current_file();
    ++generation;

    current_file = new QFile(_path);
    if (!current_file->open(QIODevice::ReadOnly)) {
        ORVANE_LOG(QStringLiteral("Unable open file: %1. Try next...").arg(_path), 6, LOG_SOURCE);
        current_file->deleteLater();
        current_file = nullptr;
        processNextFile();
        return;
    }

    current_relative_path
        = context_monitor_t::absolute_to_relative_path(root_path, current_file->fileName());
    chunk_index = 0;
    file_size = current_file->size();
    total_chunks = int(chunk_codec_t::chunk_count(file_size));

    const quint64 scheduled = generation;
    QTimer::singleShot(INTERVAL_BETWEEN_PACKET.load(), this, [this, scheduled] {
        if (scheduled != generation)
            return;
        ORVANE_LOG(QStringLiteral("Start sending file: %1 with total chunk: %2")
                       .arg(current_relative_path, QString::number(total_chunks)),
            6, LOG_SOURCE);
        sendNextChunk();
    });
}

void file_sender_t::sendNextChunk()
{
    if (ack_timer)
        ack_timer->stop();
    if (!file_open())
        return;

    if (current_file->atEnd()) {
        ORVANE_LOG(QStringLiteral("Sending completed for the file: %1").arg(current_relative_path),
            4, LOG_SOURCE);
        completed_bytes += file_size;
        const QString name = current_file->fileName();
        current_file->close();
        emit file_sended(client_id, name);
        close_current_file();
        if (batch_bytes >= 1) {
            overall_percent = int(double(completed_bytes) / double(batch_bytes) * 100.0);
            emit overallProgressUpdated(client_id, overall_percent);
        }
        const quint64 scheduled = generation;
        QTimer::singleShot(INTERVAL_BETWEEN_FILES.load(), this, [this, scheduled] {
            // A start() in between may already have taken the next file.
            if (scheduled != generation || file_open())
                return;
            processNextFile();
        });
        return;
    }

    // The rate is computed and dropped on purpose: "speed" carries the scheduling timestamp.
    const double now = now_seconds();
    last_send_time = double(chunk_codec_t::CHUNK_SIZE) / (last_send_time - now);
    last_send_time = now;

    const quint64 scheduled = generation;
    QTimer::singleShot(
        INTERVAL_BETWEEN_PACKET.load(), this, [this, scheduled] { send_chunk(scheduled); });
}

void file_sender_t::send_chunk(quint64 scheduled)
{
    // A step left pending by stop() or a timeout finds its file gone and does nothing.
    if (scheduled != generation || !file_open())
        return;

    if (!chunk_codec_t::read_chunk(*current_file, chunk_buffer)) {
        ORVANE_LOG(QStringLiteral("Unable to read file: %1 (%2)")
                       .arg(current_relative_path, current_file->errorString()),
            2, LOG_SOURCE);
        close_current_file();
        ++generation;
        processNextFile();
        return;
    }

    chunk_codec_t::header_t header;
    header.file = current_relative_path;
    header.chunk_index = chunk_index;
    header.remaining_files = int(queue.size());
    header.total_chunks = total_chunks;
    // The quotient is taken first, so this stays 0 until the batch is complete.
    header.percent = batch_bytes > 0 ? (completed_bytes / batch_bytes) * 100 : 0;
    header.speed = last_send_time;
    // The "data" text comes from the cache shared by all senders when another client was sent
    // the same bytes lately: the chunk is then not compressed again.
    emit publish_chunk(client_id,
        chunk_codec_t::build_chunk(
            header, chunk_buffer, COMPRESSION_LEVEL.load(), chunk_cache_t::shared()));

    // Only %1 is filled: the literal "%8" is part of the line.
    ORVANE_LOG(
        QStringLiteral("Sending file %1 for client: %8").arg(current_relative_path), 4, LOG_SOURCE);
    if (ack_timer)
        ack_timer->start(ACK_TIMEOUT_MS);
}

void file_sender_t::ackReceiver(const QJsonObject& _data)
{
    if (!file_open())
        return;

    const chunk_codec_t::ack_t ack = chunk_codec_t::read_ack(_data);
    ORVANE_LOG(QStringLiteral("Ack received for file: %1 chunk: %2 ")
                   .arg(ack.file, QString::number(ack.chunk_index)),
        6, LOG_SOURCE);
    if (ack.file != current_relative_path) {
        ORVANE_LOG(QStringLiteral("Error ack incoming file: %1 aspected file: %2")
                       .arg(ack.file, current_relative_path),
            2, LOG_SOURCE);
        return;
    }
    if (ack.chunk_index != chunk_index) {
        ORVANE_LOG(
            QStringLiteral("Error ack for file %1 incoming chunk index: %2 aspected index: %3")
                .arg(ack.file, QString::number(ack.chunk_index), QString::number(chunk_index)),
            2, LOG_SOURCE);
        return;
    }
    // Stop-and-wait: an acknowledgement is only meaningful for the chunk in flight. One that
    // arrives before that chunk was published would make two chunk steps run for one index.
    if (!ack_timer || !ack_timer->isActive()) {
        ORVANE_LOG(
            QStringLiteral("Ack for file %1 chunk %2 arrived while no chunk was waiting for it")
                .arg(ack.file, QString::number(ack.chunk_index)),
            3, LOG_SOURCE);
        return;
    }

    ack_timer->stop();
    ++chunk_index;
    const double percent = double(current_file->pos()) / double(file_size) * 100.0;
    emit fileProgressUpdated(client_id, current_relative_path, percent);
    sendNextChunk();
}

void file_sender_t::onAckTimeout()
{
    ORVANE_LOG(QStringLiteral(
                   "[Transfer file terminated] Timeout ack for client %1 for file %2 chunck: %3")
                   .arg(client_id, current_relative_path, QString::number(chunk_index)),
        3, LOG_SOURCE);
    emit timeout_occurred(client_id, current_relative_path);
    if (current_file) {
        close_current_file();
        ++generation;
    }
}

void file_sender_t::stop()
{
    QMutexLocker locker(&queue_lock);
    ORVANE_LOG(QStringLiteral("Stop transfer for client id: ") + client_id, 6, LOG_SOURCE);
    queue.clear();
    files_taken = 0;
    setInUpload(false);
    if (current_file) {
        // Closed at once so that every "is a file open" test fails from here on; the object
        // itself goes on the next turn of the event loop.
        current_file->close();
        current_file->deleteLater();
    }
    ++generation;
    last_send_time = 0;
    chunk_index = 0;
    total_chunks = 0;
    batch_bytes = 0;
    completed_bytes = 0;
    file_size = 0;
    overall_percent = 0;
}

} // namespace context_sync_engine
