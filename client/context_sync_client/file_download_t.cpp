#include "context_sync_client/file_download_t.h"

#include "context_sync_client/client_connection_t.h"

#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"
#include "context_sync/context_sync/transfer_manager/path_safety_t.h"
#include "platform/database/rr/definition/rr_packet_type_context_sync_t.h"
#include "platform/logs/classlogs.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>

#include <algorithm>

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

file_download_t::batch_verdict_t file_download_t::judge_batch_end(const QStringList& pending,
    const file_map_t& expected, const std::optional<file_map_t>& fresh, bool served)
{
    batch_verdict_t verdict;
    for (const QString& path : pending) {
        if (fresh && !fresh->contains(path)) {
            verdict.missing.append(path);
            continue;
        }
        if (fresh && fresh->value(path) != expected.value(path))
            verdict.new_hashes.insert(path, fresh->value(path));
        // A served batch that ended without a listed file: the server could not read it. Asked
        // again, it would only be skipped again.
        if (served)
            verdict.unsent.append(path);
        else
            verdict.retry.append(path);
    }
    return verdict;
}

file_download_t::result_t file_download_t::run(const file_map_t& files, int timeout_ms)
{
    options_t options;
    options.silence_ms = timeout_ms;
    options.deadline_ms = timeout_ms;
    options.busy_window_ms = std::min(BUSY_WINDOW_MS, timeout_ms);
    return run(files, options);
}

file_download_t::result_t file_download_t::run(const file_map_t& files, const options_t& options)
{
    expected_ = files;
    results_.clear();
    order_ = files.keys();
    bytes_ = 0;
    stopped_by_server_ = false;
    server_gone_ = false;
    served_ = false;
    fresh_list_.reset();
    end_seen_ms_ = -1;
    drop_active();

    QStringList wanted;
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
        const QMetaObject::Connection packets = connect(
            &connection_, &client_connection_t::packet_received, this, &file_download_t::on_packet);
        const QMetaObject::Connection status = connect(&connection_,
            &client_connection_t::service_status_changed, this, [this](const QString& text) {
                if (text == QLatin1String("offline"))
                    server_gone_ = true;
            });
        backoff_ = options.seed ? std::make_unique<retry_backoff_t>(*options.seed)
                                : std::make_unique<retry_backoff_t>();
        const auto cancelled = [&options] { return options.cancelled && options.cancelled(); };
        const auto pending = [&] {
            QStringList paths;
            for (const QString& path : std::as_const(wanted)) {
                if (!results_.contains(path))
                    paths.append(path);
            }
            return paths;
        };
        const auto fail_pending = [&](const QString& reason) {
            if (active_)
                finish_file(active_->path, false, reason);
            for (const QString& path : pending())
                finish_file(path, false, reason);
        };
        clock_.start();
        bool send_request = true;
        qint64 try_started_ms = 0;
        QString last_reason;
        while (true) {
            const QStringList asked = pending();
            if (asked.isEmpty())
                break;
            if (send_request) {
                // The list comes with every try: it tells a file gone from the server from a
                // server too busy to answer.
                connection_.send(packet_t::ctx_request.ToString(), {});
                connection_.send(packet_t::ctx_download_request.ToString(),
                    QJsonObject {
                        { QStringLiteral("message"), QJsonArray::fromStringList(asked) } });
                ++result.tries;
                served_ = false;
                fresh_list_.reset();
                end_seen_ms_ = -1;
                slot_free_ms_ = -1;
                try_started_ms = clock_.elapsed();
                last_activity_ms_ = try_started_ms;
            }
            send_request = true;
            enum class outcome_t { done, stopped, gone, cancelled, silent, busy, ended, freed };
            outcome_t outcome = outcome_t::done;
            connection_.wait_until(
                [&] {
                    const qint64 now = clock_.elapsed();
                    if (pending().isEmpty())
                        outcome = outcome_t::done;
                    else if (stopped_by_server_)
                        outcome = outcome_t::stopped;
                    else if (server_gone_)
                        outcome = outcome_t::gone;
                    else if (cancelled())
                        outcome = outcome_t::cancelled;
                    else if (served_ && end_seen_ms_ >= 0 && now - end_seen_ms_ > END_GRACE_MS)
                        outcome = outcome_t::ended;
                    // No chunk 1.5 s after the request, and another client's batch has ended:
                    // ignored by a full server that now has a slot free.
                    else if (!served_ && slot_free_ms_ >= 0
                        && now >= std::max(slot_free_ms_, try_started_ms + END_GRACE_MS)
                                + slot_jitter_ms_)
                        outcome = outcome_t::freed;
                    else if (!served_ && now - try_started_ms > options.busy_window_ms)
                        outcome = outcome_t::busy;
                    else if (served_ && now - last_activity_ms_ > options.silence_ms)
                        outcome = outcome_t::silent;
                    else
                        return false;
                    return true;
                },
                std::numeric_limits<int>::max());
            if (outcome == outcome_t::done)
                break;
            if (outcome == outcome_t::stopped) {
                fail_pending(
                    QStringLiteral("the server stopped all transfers before the file arrived"));
                break;
            }
            if (outcome == outcome_t::gone) {
                result.server_gone = true;
                fail_pending(QStringLiteral("the server went away (its status is \"offline\") "
                                            "before the file arrived"));
                break;
            }
            if (outcome == outcome_t::cancelled) {
                result.cancelled = true;
                fail_pending(QStringLiteral("interrupted before the file arrived"));
                break;
            }
            if (outcome == outcome_t::silent) {
                result.timed_out = true;
                fail_pending(
                    QStringLiteral("no data from the server for %1 ms").arg(options.silence_ms));
                break;
            }
            // The file in progress cannot be finished by a batch that has ended.
            if (active_)
                finish_file(active_->path, false,
                    QStringLiteral("the server ended the batch before the file was complete"));
            const batch_verdict_t verdict
                = judge_batch_end(pending(), expected_, fresh_list_, served_);
            for (const QString& path : verdict.missing) {
                finish_file(path, false, QStringLiteral("the file is no longer on the server"));
                results_[path].missing = true;
            }
            for (const QString& path : verdict.unsent)
                finish_file(path, false,
                    QStringLiteral(
                        "the server ended the batch without sending the file (unreadable there)"));
            for (auto it = verdict.new_hashes.cbegin(); it != verdict.new_hashes.cend(); ++it)
                expected_.insert(it.key(), it.value());
            if (verdict.retry.isEmpty())
                break;
            last_reason = outcome == outcome_t::busy
                ? QStringLiteral("no chunk within %1 ms").arg(options.busy_window_ms)
                : QStringLiteral("another client's batch ended before any chunk came");
            // The back-off still counts the try, so that its fallback grows; after a broadcast the
            // random wait has already been taken.
            const int backoff_ms = backoff_->next_wait();
            const int wait_ms = outcome == outcome_t::freed ? 0 : backoff_ms;
            if (clock_.elapsed() + wait_ms > options.deadline_ms) {
                result.timed_out = true;
                fail_pending(
                    QStringLiteral("the server was busy: no chunk after %1 %2")
                        .arg(result.tries)
                        .arg(result.tries == 1 ? QStringLiteral("try") : QStringLiteral("tries")));
                break;
            }
            ORVANE_LOG(QStringLiteral("The server seems busy (%1): try %2 in %3 ms")
                           .arg(last_reason)
                           .arg(result.tries + 1)
                           .arg(wait_ms),
                4, kLogSource);
            emit retrying(result.tries + 1, wait_ms, last_reason);
            // A chunk that comes during the wait means that the last request was served after
            // all: its batch is followed instead of asking again.
            // A list broadcast during the wait says that a slot is free: the wait ends a random
            // 0 to 250 ms after it.
            const qint64 wait_end = clock_.elapsed() + wait_ms;
            slot_free_ms_ = -1;
            bool early = outcome == outcome_t::freed;
            connection_.wait_until(
                [&] {
                    const qint64 now = clock_.elapsed();
                    if (slot_free_ms_ >= 0 && now >= slot_free_ms_ + slot_jitter_ms_
                        && now < wait_end) {
                        early = true;
                        return true;
                    }
                    return served_ || stopped_by_server_ || server_gone_ || cancelled()
                        || now >= wait_end;
                },
                std::numeric_limits<int>::max());
            if (early && !served_)
                ++result.early_tries;
            if (served_ || stopped_by_server_ || server_gone_ || cancelled()) {
                send_request = false;
                end_seen_ms_ = -1;
            }
        }
        disconnect(packets);
        disconnect(status);
        backoff_.reset();
    }
    for (const QString& path : std::as_const(order_))
        result.files.append(results_.value(path));
    result.bytes = bytes_;
    result.server_gone = result.server_gone || server_gone_;
    return result;
}

void file_download_t::on_packet(
    const QString& type, const QString&, const QJsonObject& payload, bool broadcast)
{
    if (type == packet_t::ctx_chunk.ToString() && !broadcast) {
        on_chunk(payload);
    } else if (type == packet_t::ctx_stop_transfer.ToString()) {
        stopped_by_server_ = true;
    } else if (type == packet_t::ctx_list.ToString()) {
        fresh_list_ = context_tree_t::from_json(payload);
        // The server broadcasts its list when a client's batch ends; it may also be another
        // client's batch or a change of the tree, so a later chunk of ours cancels it.
        if (broadcast) {
            end_seen_ms_ = clock_.elapsed();
            if (slot_free_ms_ < 0 && backoff_) {
                slot_free_ms_ = end_seen_ms_;
                slot_jitter_ms_ = backoff_->slot_free_wait();
            }
        }
    }
}

void file_download_t::on_chunk(const QJsonObject& chunk)
{
    const codec_t::decoded_t decoded = codec_t::decode_chunk(chunk);
    const QString path = decoded.fields.header.file;
    const int index = decoded.fields.header.chunk_index;
    if (decoded.valid && results_.value(path).ok) {
        // A second request, sent while the first was served after all, has the server send the
        // file again: acknowledged, so that its sender moves on at once.
        connection_.send(packet_t::ctx_chunk_ack.ToString(),
            QJsonObject { { QStringLiteral("message"), codec_t::build_ack(path, index) } });
        return;
    }
    if (!expected_.contains(path) || results_.contains(path)) {
        ORVANE_LOG(QStringLiteral("Chunk %1 of %2 was not asked for, ignored").arg(index).arg(path),
            3, kLogSource);
        return;
    }
    last_activity_ms_ = clock_.elapsed();
    end_seen_ms_ = -1;
    served_ = true;
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
