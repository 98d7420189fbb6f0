#include "context_sync_client/file_upload_t.h"

#include "context_sync_client/client_connection_t.h"
#include "context_sync_client/context_tree_t.h"
#include "context_sync_client/upload_chunk_source_t.h"

#include "context_sync/context_sync/context_background_image_t.h"
#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"
#include "context_sync/context_sync/transfer_manager/file_receiver_t.h"
#include "context_sync/context_sync/transfer_manager/path_safety_t.h"
#include "platform/database/rr/definition/rr_packet_type_context_sync_t.h"
#include "platform/logs/classlogs.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>

namespace context_sync_client {

namespace {
const char* const kLogSource = "client/context_sync_client/file_upload_t";
using packet_t = database::rr::definition::rr_packet_type_context_sync_t;
using codec_t = context_sync_engine::chunk_codec_t;
using image_t = context_sync_engine::context_background_image_t;
} // namespace

bool file_upload_t::result_t::ok() const
{
    for (const file_result_t& file : files) {
        if (!file.ok)
            return false;
    }
    return true;
}

bool file_upload_t::result_t::any_refused() const
{
    for (const file_result_t& file : files) {
        if (file.refused)
            return true;
    }
    return false;
}

bool file_upload_t::in_image_folder(const QString& remote_path)
{
    // The server deletes every folder of its root but background/ (sub-folders included) and
    // every plain file directly in the root.
    return remote_path.startsWith(image_t::relative_path)
        && !remote_path.mid(image_t::relative_path.size()).contains(QLatin1Char('/'));
}

file_upload_t::file_upload_t(client_connection_t& connection, QObject* parent)
    : QObject(parent)
    , connection_(connection)
{
}

QString file_upload_t::transfer_problem(const QString& local_path, const QString& remote_path)
{
    QString reason;
    if (!context_sync_engine::path_safety_t::is_safe_relative_path(remote_path, &reason))
        return QStringLiteral("unsafe destination \"%1\": %2")
            .arg(context_sync_engine::path_safety_t::printable(remote_path), reason);
    if (context_tree_t::is_ignored(remote_path))
        return QStringLiteral("destination \"%1\" names a working file (\"TMP_\"), which the "
                              "server ignores")
            .arg(remote_path);
    const QFileInfo info(local_path);
    if (!info.isFile())
        return QStringLiteral("%1 is not a readable file").arg(local_path);
    QFile file(local_path);
    if (!file.open(QIODevice::ReadOnly))
        return QStringLiteral("cannot read %1: %2").arg(local_path, file.errorString());
    if (info.size() == 0)
        return QStringLiteral("%1 is empty: an empty file cannot be sent").arg(local_path);
    const qint64 limit = context_sync_engine::file_receiver_t::DEFAULT_UPLOAD_LIMIT;
    if (codec_t::chunk_count(info.size()) * codec_t::CHUNK_SIZE > limit)
        return QStringLiteral("%1 is larger than the server's upload limit of %2 bytes")
            .arg(local_path)
            .arg(limit);
    return {};
}

QString file_upload_t::placement_problem(const QString& local_path, const QString& remote_path)
{
    if (!in_image_folder(remote_path))
        return QStringLiteral("the server keeps files only directly under \"%1\"")
            .arg(image_t::relative_path);
    image_t::ImageType type = image_t::UNKNOWN;
    QSize size;
    const qint64 bytes = QFileInfo(local_path).size();
    if (bytes > image_t::maximum_file_size)
        return QStringLiteral("%1 bytes, more than the %2 a background may have")
            .arg(bytes)
            .arg(image_t::maximum_file_size);
    if (!image_t::isValidImage(local_path, &type, &size, image_t::maximum_file_size))
        return QStringLiteral("not a readable JPEG or PNG image");
    if (!image_t::supported_format.contains(type))
        return QStringLiteral("a %1 image; a background must be JPEG or PNG")
            .arg(image_t::supported_format_converter.value(type));
    if (size.width() != image_t::supported_width || size.height() != image_t::supported_height)
        return QStringLiteral("%1 x %2 pixels; a background must be %3 x %4")
            .arg(size.width())
            .arg(size.height())
            .arg(image_t::supported_width)
            .arg(image_t::supported_height);
    return {};
}

file_upload_t::result_t file_upload_t::run(const QList<item_t>& items, int timeout_ms, bool verify)
{
    result_t result;
    bytes_ = 0;
    stopped_by_server_ = false;
    QList<int> sendable;
    qint64 batch_bytes = 0;
    for (int i = 0; i < items.size(); ++i) {
        file_result_t file;
        file.local_path = items[i].local_path;
        file.remote_path = items[i].remote_path;
        file.error = transfer_problem(file.local_path, file.remote_path);
        if (file.error.isEmpty()) {
            sendable.append(i);
            batch_bytes += QFileInfo(file.local_path).size();
        } else {
            file.refused = true;
            ORVANE_LOG(QStringLiteral("Upload of %1 refused: %2").arg(file.local_path, file.error),
                3, kLogSource);
        }
        result.files.append(file);
    }

    const QMetaObject::Connection link = connect(&connection_,
        &client_connection_t::packet_received, this,
        [this](const QString& type, const QString&, const QJsonObject& payload, bool broadcast) {
            if (type == packet_t::ctx_stop_transfer.ToString()) {
                stopped_by_server_ = true;
            } else if (type == packet_t::ctx_chunk_ack.ToString() && !broadcast) {
                const codec_t::ack_t ack = codec_t::read_ack(payload);
                if (ack.file == ack_file_ && ack.chunk_index == ack_index_)
                    ack_matched_ = true;
                else
                    ORVANE_LOG(QStringLiteral("Acknowledgement for %1 chunk %2 not expected, "
                                              "ignored")
                                   .arg(ack.file)
                                   .arg(ack.chunk_index),
                        3, kLogSource);
            }
        });
    qint64 completed_bytes = 0;
    bool failed = false;
    int done = 0;
    QElapsedTimer clock;
    clock.start();
    for (int n = 0; n < sendable.size(); ++n) {
        file_result_t& file = result.files[sendable[n]];
        if (failed) {
            file.error = QStringLiteral("not sent: an earlier file of the batch failed");
            continue;
        }
        const int remaining = int(sendable.size()) - n - 1;
        if (!send_file(items[sendable[n]], remaining, batch_bytes, completed_bytes, timeout_ms,
                file, done, int(sendable.size()))) {
            failed = true;
            result.timed_out = !stopped_by_server_;
        }
        ++done;
    }
    result.transfer_ms = clock.elapsed();
    disconnect(link);
    result.bytes = bytes_;

    QList<int> sent;
    for (const int i : std::as_const(sendable)) {
        if (result.files[i].ok)
            sent.append(i);
    }
    if (!verify || sent.isEmpty())
        return result;
    context_tree_t tree(connection_);
    file_map_t server;
    QString error;
    if (!tree.fetch_settled_list(context_tree_t::SERVER_SETTLE_MS, timeout_ms, &server, &error)) {
        for (const int i : std::as_const(sent)) {
            result.files[i].ok = false;
            result.files[i].error = QStringLiteral("sent, but not confirmed: %1").arg(error);
        }
        result.timed_out = true;
        return result;
    }
    for (const int i : std::as_const(sent)) {
        file_result_t& file = result.files[i];
        if (server.value(file.remote_path) == file.hash)
            continue;
        file.ok = false;
        file.refused = true;
        const QString why = placement_problem(file.local_path, file.remote_path);
        file.error = server.contains(file.remote_path)
            ? QStringLiteral("the server lists %1 with another content (MD5 %2, sent %3)")
                  .arg(file.remote_path, server.value(file.remote_path), file.hash)
            : QStringLiteral("the server removed %1 after receiving it%2")
                  .arg(file.remote_path,
                      why.isEmpty() ? QString() : QStringLiteral(" (%1)").arg(why));
        ORVANE_LOG(QStringLiteral("Upload of %1 refused: %2").arg(file.local_path, file.error), 3,
            kLogSource);
    }
    return result;
}

bool file_upload_t::send_file(const item_t& item, int remaining, qint64 batch_bytes,
    qint64& completed_bytes, int timeout_ms, file_result_t& result, int files_done, int files_total)
{
    codec_t::header_t header;
    header.file = item.remote_path;
    header.remaining_files = remaining;
    // Integer quotient first, as the server's sender computes it: 0 until the batch is done.
    header.percent = batch_bytes > 0 ? (completed_bytes / batch_bytes) * 100 : 0;
    upload_chunk_source_t source(item.local_path, header, COMPRESSION_LEVEL);
    if (!source.open()) {
        result.error = source.error();
        return false;
    }
    const qint64 total = source.total_chunks();
    qint64 size = 0;
    while (source.taken() < total) {
        const qint64 index = source.taken();
        const upload_chunk_source_t::chunk_t chunk = source.take();
        if (!chunk.ok) {
            result.error = source.error();
            return false;
        }
        ack_file_ = item.remote_path;
        ack_index_ = int(index);
        ack_matched_ = false;
        connection_.send_raw(chunk.body);
        source.refill();
        const bool acknowledged = connection_.wait_until(
            [this] { return ack_matched_ || stopped_by_server_; }, timeout_ms);
        if (stopped_by_server_) {
            result.error = QStringLiteral("the server stopped all transfers at chunk %1 of %2")
                               .arg(index)
                               .arg(total);
            return false;
        }
        if (!acknowledged) {
            result.error = QStringLiteral("no acknowledgement for chunk %1 of %2 within %3 ms")
                               .arg(index)
                               .arg(total)
                               .arg(timeout_ms);
            ORVANE_LOG(QStringLiteral("Upload of %1: %2").arg(item.local_path, result.error), 3,
                kLogSource);
            return false;
        }
        size += chunk.raw_size;
        bytes_ += chunk.raw_size;
        emit progress(bytes_, files_done, files_total, item.remote_path);
    }
    completed_bytes += size;
    result.hash = source.file_hash();
    result.ok = true;
    return true;
}

} // namespace context_sync_client
