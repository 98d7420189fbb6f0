#include "context_sync_client/file_download_t.h"

#include "context_sync_client/client_connection_t.h"

#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"
#include "context_sync/context_sync/transfer_manager/path_safety_t.h"
#include "platform/database/rr/definition/rr_packet_type_context_sync_t.h"
#include "platform/logs/classlogs.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>

namespace context_sync_client {

namespace {
const char* const kLogSource = "client/context_sync_client/file_download_t";
using packet_t = database::rr::definition::rr_packet_type_context_sync_t;
using codec_t = context_sync_engine::chunk_codec_t;

QString temp_name_for(const QString& target)
{
    const QFileInfo info(target);
    return info.absolutePath() + QLatin1Char('/') + file_download_t::TEMP_PREFIX + info.fileName();
}

// rename(2) replaces an existing destination in one step, which QFile::rename does not.
bool replace_file(const QString& from, const QString& to, QString* error)
{
    if (std::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) == 0)
        return true;
    if (error)
        *error = QStringLiteral("cannot rename %1 to %2: %3")
                     .arg(from, to, QString::fromLocal8Bit(std::strerror(errno)));
    return false;
}
} // namespace

const QString file_download_t::TEMP_PREFIX = QStringLiteral("TMP_ctxsync_");

bool file_download_t::result_t::ok() const
{
    for (const file_result_t& file : files) {
        if (!file.ok)
            return false;
    }
    return true;
}

QStringList file_download_t::result_t::failed() const
{
    QStringList paths;
    for (const file_result_t& file : files) {
        if (!file.ok)
            paths.append(file.path);
    }
    return paths;
}

file_download_t::file_download_t(
    client_connection_t& connection, const QString& dir, QObject* parent)
    : QObject(parent)
    , connection_(connection)
    , dir_(dir)
{
}

file_download_t::~file_download_t()
{
    drop_active();
}

QString file_download_t::prepare_target(const QString& dir, const QString& relative, QString* error)
{
    QString reason;
    if (!context_sync_engine::path_safety_t::is_safe_relative_path(relative, &reason)) {
        if (error)
            *error = QStringLiteral("unsafe path \"%1\" refused: %2")
                         .arg(context_sync_engine::path_safety_t::printable(relative), reason);
        return {};
    }
    if (!QDir().mkpath(dir)) {
        if (error)
            *error = QStringLiteral("cannot create the folder %1").arg(dir);
        return {};
    }
    const QString root = QFileInfo(dir).canonicalFilePath();
    const QString wanted = QDir(root).absoluteFilePath(relative);
    const QString parent = QFileInfo(wanted).absolutePath();
    const auto inside = [&root](const QString& path) {
        return path == root || path.startsWith(root + QLatin1Char('/'));
    };
    // The deepest folder that exists already decides where the missing ones would be created:
    // checked before mkpath, so that no folder is ever made through a link that leads out.
    QString existing = parent;
    while (!QFileInfo::exists(existing) && existing.size() > root.size())
        existing = QFileInfo(existing).absolutePath();
    if (!inside(QFileInfo(existing).canonicalFilePath())) {
        if (error)
            *error
                = QStringLiteral("\"%1\" refused: its folder leads outside %2").arg(relative, root);
        return {};
    }
    if (!QDir().mkpath(parent)) {
        if (error)
            *error = QStringLiteral("cannot create the folder %1").arg(parent);
        return {};
    }
    const QString real_parent = QFileInfo(parent).canonicalFilePath();
    if (!inside(real_parent)) {
        if (error)
            *error
                = QStringLiteral("\"%1\" refused: its folder leads outside %2").arg(relative, root);
        return {};
    }
    const QString target = real_parent + QLatin1Char('/') + QFileInfo(wanted).fileName();
    if (QFileInfo(target).isDir()) {
        if (error)
            *error = QStringLiteral("\"%1\" refused: a folder of that name exists").arg(relative);
        return {};
    }
    return target;
}

bool file_download_t::write_atomically(const QString& path, const QByteArray& bytes, QString* error)
{
    const QString temp = temp_name_for(path);
    QFile file(temp);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(bytes) != bytes.size()
        || !file.flush()) {
        if (error)
            *error = QStringLiteral("cannot write %1: %2").arg(temp, file.errorString());
        file.close();
        QFile::remove(temp);
        return false;
    }
    file.close();
    if (!replace_file(temp, path, error)) {
        QFile::remove(temp);
        return false;
    }
    return true;
}

file_download_t::result_t file_download_t::run(const file_map_t& files, int timeout_ms)
{
    expected_ = files;
    results_.clear();
    order_ = files.keys();
    bytes_ = 0;
    stopped_by_server_ = false;
    end_seen_ms_ = -1;
    drop_active();

    QJsonArray wanted;
    for (auto it = files.cbegin(); it != files.cend(); ++it) {
        QString error;
        const QString target = prepare_target(dir_, it.key(), &error);
        if (target.isEmpty()) {
            ORVANE_LOG(error, 3, kLogSource);
            results_.insert(it.key(), { it.key(), false, true, error });
            continue;
        }
        if (it.value() == context_tree_t::EMPTY_FILE_HASH) {
            // The chunk format has no message for an empty file: the list says all there is.
            const bool ok = write_atomically(target, {}, &error);
            results_.insert(it.key(), { it.key(), ok, false, ok ? QString() : error });
            continue;
        }
        wanted.append(it.key());
    }

    result_t result;
    if (!wanted.isEmpty()) {
        const QMetaObject::Connection link = connect(
            &connection_, &client_connection_t::packet_received, this, &file_download_t::on_packet);
        clock_.start();
        last_activity_ms_ = 0;
        connection_.send(packet_t::ctx_download_request.ToString(),
            QJsonObject { { QStringLiteral("message"), wanted } });
        const int total = int(files.size());
        connection_.wait_until(
            [&] {
                const qint64 now = clock_.elapsed();
                if (results_.size() >= total || stopped_by_server_)
                    return true;
                if (end_seen_ms_ >= 0 && now - end_seen_ms_ > END_GRACE_MS)
                    return true;
                if (now - last_activity_ms_ > timeout_ms) {
                    result.timed_out = true;
                    return true;
                }
                return false;
            },
            std::numeric_limits<int>::max());
        disconnect(link);
        const QString reason = stopped_by_server_
            ? QStringLiteral("the server stopped all transfers before the file arrived")
            : result.timed_out
            ? QStringLiteral("no data from the server for %1 ms").arg(timeout_ms)
            : QStringLiteral("the server ended the batch without sending the file (missing or "
                             "unreadable there)");
        if (active_)
            finish_file(active_->path, false, reason);
        for (const QJsonValue& value : std::as_const(wanted)) {
            if (!results_.contains(value.toString()))
                results_.insert(value.toString(), { value.toString(), false, false, reason });
        }
    }
    for (const QString& path : std::as_const(order_))
        result.files.append(results_.value(path));
    result.bytes = bytes_;
    return result;
}

void file_download_t::on_packet(
    const QString& type, const QString&, const QJsonObject& payload, bool broadcast)
{
    if (type == packet_t::ctx_chunk.ToString() && !broadcast) {
        on_chunk(payload);
    } else if (type == packet_t::ctx_stop_transfer.ToString()) {
        stopped_by_server_ = true;
    } else if (type == packet_t::ctx_list.ToString() && broadcast) {
        // The server broadcasts its list when a client's batch ends; it may also be another
        // client's batch or a change of the tree, so a later chunk of ours cancels it.
        end_seen_ms_ = clock_.elapsed();
    }
}

void file_download_t::on_chunk(const QJsonObject& chunk)
{
    const codec_t::decoded_t decoded = codec_t::decode_chunk(chunk);
    const QString path = decoded.fields.header.file;
    const int index = decoded.fields.header.chunk_index;
    if (!expected_.contains(path) || results_.contains(path)) {
        ORVANE_LOG(QStringLiteral("Chunk %1 of %2 was not asked for, ignored").arg(index).arg(path),
            3, kLogSource);
        return;
    }
    last_activity_ms_ = clock_.elapsed();
    end_seen_ms_ = -1;
    if (!decoded.valid) {
        finish_file(path, false,
            QStringLiteral("chunk %1 failed its MD5 check (expected %2, decoded data has %3)")
                .arg(index)
                .arg(decoded.fields.hash, decoded.actual_hash));
        return;
    }
    if (active_ && active_->path != path)
        finish_file(active_->path, false,
            QStringLiteral("the server moved on to %1 before the file was complete").arg(path));
    if (!active_) {
        const qint64 total = decoded.fields.header.total_chunks;
        if (index != 0 || total < 1) {
            finish_file(path, false,
                QStringLiteral("the transfer began with chunk %1 of %2").arg(index).arg(total));
            return;
        }
        QString error;
        const QString target = prepare_target(dir_, path, &error);
        if (target.isEmpty()) {
            finish_file(path, false, error);
            return;
        }
        active_ = std::make_unique<active_t>();
        active_->path = path;
        active_->target = target;
        active_->total_chunks = total;
        active_->hasher = std::make_unique<QCryptographicHash>(QCryptographicHash::Md5);
        active_->temp = std::make_unique<QFile>(temp_name_for(target));
        if (!active_->temp->open(QIODevice::WriteOnly | QIODevice::Truncate)) {
            finish_file(path, false,
                QStringLiteral("cannot write %1: %2")
                    .arg(active_->temp->fileName(), active_->temp->errorString()));
            return;
        }
    }
    if (index > active_->next_index) {
        finish_file(path, false,
            QStringLiteral("chunk %1 arrived before chunk %2").arg(index).arg(active_->next_index));
        return;
    }
    // Acknowledged as soon as it is verified: the server paces its next chunk from this
    // acknowledgement, so writing and hashing the chunk below overlap with that wait instead of
    // adding to every round trip. A repeated chunk is acknowledged again: the first
    // acknowledgement may have been lost. Should the write fail, the file fails here and the
    // server's next chunk of it is ignored unacknowledged, which ends the server's transfer.
    connection_.send(packet_t::ctx_chunk_ack.ToString(),
        QJsonObject { { QStringLiteral("message"), codec_t::build_ack(path, index) } });
    if (index == active_->next_index) {
        if (active_->temp->write(decoded.bytes) != decoded.bytes.size()) {
            finish_file(path, false,
                QStringLiteral("cannot write %1: %2")
                    .arg(active_->temp->fileName(), active_->temp->errorString()));
            return;
        }
        active_->hasher->addData(decoded.bytes);
        ++active_->next_index;
        bytes_ += decoded.bytes.size();
    }
    emit progress(bytes_, int(results_.size()), int(expected_.size()), path);
    if (active_->next_index < active_->total_chunks)
        return;

    active_->temp->close();
    const QString actual = QString::fromLatin1(active_->hasher->result().toHex());
    const QString wanted = expected_.value(path);
    if (actual != wanted) {
        finish_file(path, false,
            QStringLiteral("the whole file has MD5 %1, the server's list says %2")
                .arg(actual, wanted));
        return;
    }
    QString error;
    if (!replace_file(active_->temp->fileName(), active_->target, &error)) {
        finish_file(path, false, error);
        return;
    }
    finish_file(path, true, {});
}

void file_download_t::finish_file(QString path, bool ok, const QString& error)
{
    if (active_ && active_->path == path) {
        if (!ok)
            drop_active();
        else
            active_.reset();
    }
    if (!ok)
        ORVANE_LOG(QStringLiteral("Download of %1 failed: %2").arg(path, error), 3, kLogSource);
    results_.insert(path, { path, ok, false, error });
    emit progress(bytes_, int(results_.size()), int(expected_.size()), path);
}

void file_download_t::drop_active()
{
    if (!active_)
        return;
    if (active_->temp) {
        active_->temp->close();
        active_->temp->remove();
    }
    active_.reset();
}

} // namespace context_sync_client
