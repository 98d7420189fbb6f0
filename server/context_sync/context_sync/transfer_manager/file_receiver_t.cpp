#include "context_sync/context_sync/transfer_manager/file_receiver_t.h"

#include "context_sync/context_sync/context_file_handler_t.h"
#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"
#include "context_sync/context_sync/transfer_manager/path_safety_t.h"
#include "context_sync/context_sync/watcher/context_monitor_t.h"
#include "platform/logs/classlogs.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMutexLocker>
#include <QtGlobal>

#include <climits>
#include <cmath>

namespace context_sync_engine {

namespace {

constexpr const char* LOG_SOURCE
    = "server/context_sync/context_sync/transfer_manager/file_receiver_t";

// Longest staging file name that every file system we run on accepts.
constexpr qsizetype MAX_PART_NAME = 255;

// Truncation toward zero of a percentage; a division by an empty estimate gives 0, not undefined
// behaviour.
int truncate_percent(double value)
{
    if (!std::isfinite(value))
        return 0;
    if (value >= double(INT_MAX))
        return INT_MAX;
    if (value <= double(INT_MIN))
        return INT_MIN;
    return int(value);
}

// The first chunk's decoded size times "total_chunks", multiplied as 32-bit ints (wrapping, not
// overflowing) and widened with sign: the estimate the progress line has always shown.
qint64 estimate_bytes(qsizetype chunk_size, int total_chunks)
{
    const quint32 product = quint32(chunk_size) * quint32(total_chunks);
    return qint64(qint32(product));
}

// Writes all of `bytes`, going on after a short write: the write that then fails carries the
// reason (a full disk reports itself only once nothing more fits).
bool write_all(QFile& file, QByteArrayView bytes)
{
    while (!bytes.isEmpty()) {
        const qint64 written = file.write(bytes.data(), bytes.size());
        if (written <= 0)
            return false;
        bytes = bytes.sliced(written);
    }
    return true;
}

// The key of a reception: the client and the relative path. A path that holds a NUL is refused
// before any reception begins, so the key splits at its last NUL and no two pairs share a key.
QString reception_key(const QString& client, const QString& file)
{
    return client + QChar(u'\0') + file;
}

} // namespace

file_receiver_t::file_receiver_t(const QString& _context_path, const QString& _tmp_folder_path,
    const QString& _client_id, QObject* parent)
    : QObject(parent)
    , wait_next_file_timer(this)
    , client_id(_client_id)
    , context_path(context_monitor_t::adjust_path_directory(_context_path))
    , tmp_folder_path(QStringLiteral("%1%2").arg(
          context_monitor_t::adjust_path_directory(_context_path), _tmp_folder_path))
{
    wait_next_file_timer.setSingleShot(true);
    wait_next_file_timer.setInterval(WAIT_NEXT_FILE_MS);
    connect(this, &file_receiver_t::start_timer_wait_next_file, &wait_next_file_timer,
        qOverload<>(&QTimer::start));
    connect(
        this, &file_receiver_t::stop_timer_wait_next_file, &wait_next_file_timer, &QTimer::stop);
    connect(&wait_next_file_timer, &QTimer::timeout, this, [this] {
        ORVANE_LOG(QStringLiteral("Timeout wait next file "), 2, LOG_SOURCE);
        setInDownload(false);
    });
    clean_tmp_folder_path();
}

file_receiver_t::~file_receiver_t()
{
    const QList<QString> files = handlers.keys();
    for (const QString& file : files)
        discard_handler(file);
}

QString file_receiver_t::part_path_for(const QString& tmp_folder, const QString& _file)
{
    // Hex-encoding flattens any relative path into one file name. A path too long for that still
    // gets a unique name of fixed length.
    QString name = QString::fromLatin1(_file.toUtf8().toHex()) + QStringLiteral(".part");
    if (name.size() > MAX_PART_NAME)
        name = chunk_codec_t::hash_hex(_file.toUtf8()) + QStringLiteral(".long.part");
    return tmp_folder + QStringLiteral("/") + name;
}

void file_receiver_t::discard_handler(const QString& key)
{
    QPointer<file_receiver_handler_t> handler = handlers.take(key);
    if (!handler)
        return;
    handler->reset();
    delete handler.data();
}

void file_receiver_t::discard_stalled_receptions()
{
    const QList<QString> keys = handlers.keys();
    for (const QString& key : keys) {
        const QPointer<file_receiver_handler_t> handler = handlers.value(key);
        if (handler && handler->chunk_timer && handler->chunk_timer->isActive())
            continue;
        ORVANE_LOG(QStringLiteral("Discarded stalled reception of file %1 (%2 chunks held)")
                       .arg(handler ? handler->file : key,
                           QString::number(handler ? handler->chunks.size() : 0)),
            3, LOG_SOURCE);
        discard_handler(key);
    }
}

void file_receiver_t::discard_stalled_receptions_of(const QString& file, const QString& sender)
{
    const QList<QString> keys = handlers.keys();
    for (const QString& key : keys) {
        const QPointer<file_receiver_handler_t> handler = handlers.value(key);
        if (!handler || handler->file != file || handler->owner == sender
            || (handler->chunk_timer && handler->chunk_timer->isActive()))
            continue;
        ORVANE_LOG(QStringLiteral("Discarded stalled reception of file %1 from client %2 (%3 of %4 "
                                  "chunks held): client %5 uploads it anew")
                       .arg(file, handler->owner, QString::number(handler->chunks.size()),
                           QString::number(handler->total_chunks), sender),
            3, LOG_SOURCE);
        discard_handler(key);
    }
}

bool file_receiver_t::admit_new_file(const QString& file, qint64 chunks, const QString& sender)
{
    if (chunks < 0 || chunks > INT_MAX) {
        ORVANE_LOG(QStringLiteral("Refused file %1 from client %2: invalid total_chunks %3")
                       .arg(file, sender, QString::number(chunks)),
            3, LOG_SOURCE);
        return false;
    }
    if (chunks > upload_limit / chunk_codec_t::CHUNK_SIZE) {
        ORVANE_LOG(QStringLiteral("Refused file %1 from client %2: %3 chunks exceed the upload "
                                  "limit of %4 bytes")
                       .arg(file, sender, QString::number(chunks), QString::number(upload_limit)),
            3, LOG_SOURCE);
        return false;
    }
    if (handlers.size() >= max_files_in_reception)
        discard_stalled_receptions();
    if (handlers.size() >= max_files_in_reception) {
        ORVANE_LOG(QStringLiteral("Refused file %1 from client %2: already %3 files in reception")
                       .arg(file, sender, QString::number(handlers.size())),
            3, LOG_SOURCE);
        return false;
    }
    return true;
}

void file_receiver_t::processChunk(const QJsonObject& _data, const QString& _sender)
{
    QMutexLocker locker(&receive_lock);

    const chunk_codec_t::fields_t fields = chunk_codec_t::read_fields(_data);
    const QString& file = fields.header.file;
    const int index = fields.header.chunk_index;
    const int remaining_files = fields.header.remaining_files;

    // Refusals come before any change of state: the chunk is as if it never arrived.
    QString reason;
    if (!path_safety_t::is_safe_relative_path(file, &reason)) {
        ORVANE_LOG(QStringLiteral("Refused chunk from client %1: file \"%2\" %3")
                       .arg(_sender, path_safety_t::printable(file), reason),
            3, LOG_SOURCE);
        return;
    }
    // One reception per client and path: another client's chunks of the same path go into a
    // reception of their own and can never mix into, complete, restart or discard this one.
    const QString key = reception_key(_sender, file);
    QPointer<file_receiver_handler_t> handler = handlers.value(key);
    if (handler && fields.header.total_chunks != handler->total_chunks) {
        // Another chunk count is another upload of the path by this client (its earlier one went
        // away mid-file and a new one began). Completing with what is held would write a file cut
        // at the old count, or never complete while every chunk is acknowledged.
        ORVANE_LOG(QStringLiteral("Discarded stale reception of file %1 (%2 of %3 chunks held): "
                                  "client %4 announces %5 chunks")
                       .arg(file, QString::number(handler->chunks.size()),
                           QString::number(handler->total_chunks), _sender,
                           QString::number(fields.header.total_chunks)),
            3, LOG_SOURCE);
        discard_handler(key);
        handler = nullptr;
    }
    if (!handler && !admit_new_file(file, fields.header.total_chunks, _sender))
        return;

    emit stop_timer_wait_next_file();
    setInDownload(true);
    sender_percent = int(fields.header.percent);
    sender_speed = fields.header.speed;

    const QByteArray bytes = chunk_codec_t::decode_payload(fields.data, fields.compression);
    if (chunk_codec_t::hash_hex(bytes) != fields.hash) {
        ORVANE_LOG(
            QStringLiteral("Integrity error! Invalid chunk hash %1").arg(index), 2, LOG_SOURCE);
        // Everything this client sent for the file so far goes; its ack timeout ends its side.
        discard_handler(key);
        return;
    }

    if (!handler) {
        discard_stalled_receptions_of(file, _sender);
        handler = new file_receiver_handler_t();
        handler->owner = _sender;
        handler->file = file;
        handler->total_chunks = int(fields.header.total_chunks);
        handler->expected_bytes = estimate_bytes(bytes.size(), handler->total_chunks);
        expected_bytes += handler->expected_bytes;
        handler->part_path = part_path_for(tmp_folder_path, file);
        handler->elapsed.start();
        handlers.insert(key, handler);
    }
    if (!handler->chunk_timer) {
        handler->chunk_timer = new QTimer();
        handler->chunk_timer->setSingleShot(true);
        connect(handler->chunk_timer, &QTimer::timeout, this, [this, file] {
            ORVANE_LOG(
                QStringLiteral("Chunk reception timeout! Transfer interrupted! For file ") + file,
                2, LOG_SOURCE);
            setInDownload(false);
        });
    }
    handler->chunk_timer->start(CHUNK_TIMEOUT_MS);

    handler->chunks.insert(index, bytes);
    received_bytes += bytes.size();
    handler->received_bytes += bytes.size();

    ORVANE_LOG(QStringLiteral("Send chuck ACK ") + QString::number(index), 6, LOG_SOURCE);
    emit sendChunkAck(file, index, chunk_codec_t::build_ack(file, index), _sender);

    if (handler->chunks.size() == handler->total_chunks) {
        handler->chunk_timer->stop();
        finalizeFile(file, handler);
        if (remaining_files != 0) {
            ORVANE_LOG(QStringLiteral("Starting timer in download timeout ... "), 6, LOG_SOURCE);
            emit start_timer_wait_next_file();
        } else {
            setInDownload(false);
        }
        ORVANE_LOG(QStringLiteral("Remaining file download ") + QString::number(remaining_files), 4,
            LOG_SOURCE);
    }
    printProgress();
}

bool file_receiver_t::finalizeFile(const QString& _file, QPointer<file_receiver_handler_t> _handler)
{
    if (!_handler)
        return false;
    if (!QDir(tmp_folder_path).exists())
        QDir().mkpath(tmp_folder_path);

    QFile part(_handler->part_path);
    if (!part.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        qWarning("Errore nell'apertura del file di destinazione!");
        return false;
    }
    ORVANE_LOG(QStringLiteral("Extract to disk ") + _handler->part_path, 6, LOG_SOURCE);
    // Every write is checked: on a full or failing disk the part file would otherwise be renamed
    // into the tree cut short, where a truncated image still passes the header-only validation
    // and is listed with content that no client sent.
    bool written = true;
    for (int i = 0; written && i < _handler->total_chunks; ++i) {
        const auto it = _handler->chunks.find(i);
        if (it == _handler->chunks.end())
            continue;
        written = write_all(part, *it);
        _handler->chunks.erase(it);
    }
    written = written && part.flush();
    if (!written) {
        ORVANE_LOG(
            QStringLiteral("Unable to write %1: %2").arg(_handler->part_path, part.errorString()),
            2, LOG_SOURCE);
        part.close();
        part.remove();
        discard_handler(reception_key(_handler->owner, _file));
        return false;
    }
    part.close();

    const QString destination = QStringLiteral("%1%3").arg(context_path, _file);
    const QString destination_dir = QFileInfo(destination).absolutePath();
    if (!QDir(destination_dir).exists())
        QDir().mkpath(destination_dir);
    if (QFile::exists(destination) && !QFile::remove(destination))
        ORVANE_LOG(QStringLiteral("Unable to remove from %1").arg(destination), 2, LOG_SOURCE);

    ORVANE_LOG(QStringLiteral("Move tmp file to: ") + destination, 6, LOG_SOURCE);
    if (!QFile::rename(_handler->part_path, destination)) {
        ORVANE_LOG(
            QStringLiteral("Unable to move from %1 to %2").arg(_handler->part_path, destination), 2,
            LOG_SOURCE);
        return false;
    }
    discard_handler(reception_key(_handler->owner, _file));
    ORVANE_LOG(QStringLiteral("Successfull file received: %1").arg(destination), 4, LOG_SOURCE);
    emit file_received(destination);
    return true;
}

void file_receiver_t::printProgress()
{
    const QList<QPointer<file_receiver_handler_t>> receptions = handlers.values();
    for (const QPointer<file_receiver_handler_t>& handler : receptions) {
        if (handler)
            print_progress(*handler);
    }
}

void file_receiver_t::printProgress(const QString& _path)
{
    bool found = false;
    const QList<QPointer<file_receiver_handler_t>> receptions = handlers.values();
    for (const QPointer<file_receiver_handler_t>& handler : receptions) {
        if (handler && handler->file == _path) {
            print_progress(*handler);
            found = true;
        }
    }
    if (!found)
        ORVANE_LOG(QStringLiteral("Unable to found progress of file %1").arg(_path), 2, LOG_SOURCE);
}

void file_receiver_t::print_progress(file_receiver_handler_t& handler)
{
    overall_percent = truncate_percent(double(received_bytes) * 100.0 / double(expected_bytes));
    handler.percent
        = truncate_percent(double(handler.received_bytes) * 100.0 / double(handler.expected_bytes));
    handler.speed = double(handler.received_bytes) / (double(handler.elapsed.elapsed()) / 1000.0);
    ORVANE_LOG(QStringLiteral("Receive file %1: chunk: %2/%3 percent: %4%[%5%] speed: %6 KB/s")
                   .arg(handler.file, QString::number(handler.chunks.size()),
                       QString::number(handler.total_chunks), QString::number(handler.percent),
                       QString::number(overall_percent), QString::number(handler.speed)),
        6, LOG_SOURCE);
}

void file_receiver_t::setInDownload(const bool& _value)
{
    if (!_value)
        emit stop_timer_wait_next_file();
    if (_value == in_download)
        return;
    in_download = _value;
    emit in_download_change(_value);
}

bool file_receiver_t::inDownload()
{
    return in_download;
}

void file_receiver_t::onChunkTimeout()
{
    ORVANE_LOG(QStringLiteral("Chunk reception timeout! Transfer interrupted!"), 2, LOG_SOURCE);
    setInDownload(false);
}

void file_receiver_t::stop()
{
    in_download = false;
    received_bytes = 0;
    expected_bytes = 0;
    overall_percent = 0;
    sender_percent = 0;
    sender_speed = 0.0;
    clean_tmp_folder_path();
}

void file_receiver_t::clean_tmp_folder_path()
{
    context_file_handler_t::clean_tmp_folder(tmp_folder_path, true);
}

void file_receiver_t::setUploadLimit(qint64 _bytes)
{
    upload_limit = _bytes;
}

qint64 file_receiver_t::uploadLimit() const
{
    return upload_limit;
}

void file_receiver_t::setMaxFilesInReception(int _files)
{
    max_files_in_reception = _files;
}

int file_receiver_t::maxFilesInReception() const
{
    return max_files_in_reception;
}

QString file_receiver_t::getContextPath() const
{
    return context_path;
}

QString file_receiver_t::getTmpFolderPath() const
{
    return tmp_folder_path;
}

qint64 file_receiver_t::receivedBytes() const
{
    return received_bytes;
}

qint64 file_receiver_t::expectedBytes() const
{
    return expected_bytes;
}

int file_receiver_t::filesInReception() const
{
    return int(handlers.size());
}

} // namespace context_sync_engine
