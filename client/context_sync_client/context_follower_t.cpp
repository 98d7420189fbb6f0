#include "context_sync_client/context_follower_t.h"

#include "context_sync_client/client_connection_t.h"
#include "context_sync_client/file_download_t.h"

#include "platform/database/rr/definition/rr_packet_service_t.h"
#include "platform/database/rr/definition/rr_packet_type_context_sync_t.h"
#include "platform/logs/classlogs.h"
#include "utility/allocator_tuning_t.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>

#include <algorithm>
#include <limits>

namespace context_sync_client {

namespace {
const char* const kLogSource = "client/context_sync_client/context_follower_t";
using packet_t = database::rr::definition::rr_packet_type_context_sync_t;
// A round's downloads keep retrying a busy server this long before the round counts as failed
// (and is repeated after the round's own back-off).
constexpr qint64 kDownloadDeadlineMs = 5 * 60 * 1000;
} // namespace

context_follower_t::context_follower_t(
    client_connection_t& connection, const QString& dir, const options_t& options, QObject* parent)
    : QObject(parent)
    , connection_(connection)
    , dir_(dir)
    , options_(options)
{
}

bool context_follower_t::in_step(
    const file_map_t& local, const file_map_t& server, bool remove_extras)
{
    const context_tree_t::comparison_t diff = context_tree_t::compare(local, server);
    return diff.missing_locally.isEmpty() && diff.changed.isEmpty()
        && (!remove_extras || diff.only_local.isEmpty());
}

void context_follower_t::emit_event(const QString& name, QJsonObject fields)
{
    fields.insert(QStringLiteral("event"), name);
    fields.insert(QStringLiteral("time"), QDateTime::currentDateTime().toString(Qt::ISODateWithMs));
    emit event(fields);
}

void context_follower_t::schedule(int delay_ms)
{
    const qint64 due = std::max(clock_.elapsed() + delay_ms, not_before_ms_);
    if (check_due_ms_ < 0 || due < check_due_ms_)
        check_due_ms_ = due;
}

void context_follower_t::remember(const QString& relative, const QString& hash)
{
    context_tree_t::known_file_t file;
    file.hash = hash;
    if (context_tree_t::stamp_of(QDir(dir_).filePath(relative), &file.stamp))
        known_.insert(relative, file);
    else
        known_.remove(relative);
}

bool context_follower_t::copy_local(
    const QString& source, const QString& target, const QString& hash, QString* error) const
{
    QFile file(source);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read %1: %2").arg(source, file.errorString());
        return false;
    }
    const QByteArray bytes = file.readAll();
    const QString actual
        = QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex());
    if (actual != hash) {
        *error = QStringLiteral("%1 changed while it was copied").arg(source);
        return false;
    }
    return file_download_t::write_atomically(target, bytes, error);
}

void context_follower_t::run()
{
    clock_.start();
    online_ = connection_.serviceStatus() != QLatin1String("offline");
    ever_connected_ = connection_.isConnected();
    const QString state_of_service
        = database::rr::definition::rr_packet_service_t::state_of_service.Topic();
    const QMetaObject::Connection packets
        = connect(&connection_, &client_connection_t::packet_received, this,
            [this, state_of_service](
                const QString& type, const QString&, const QJsonObject& payload, bool broadcast) {
                if (type == packet_t::ctx_list.ToString() && broadcast) {
                    // The broadcast is the whole list: the check takes it instead of asking. The
                    // end of another client's batch, which changes nothing for a folder in step,
                    // costs the server nothing then, even with a hundred clients listening.
                    const file_map_t listed = context_tree_t::from_json(payload);
                    if (!reported_hash_.isEmpty()
                        && context_tree_t::cumulative_hash(listed) == reported_hash_)
                        return;
                    announced_ = listed;
                    schedule(COALESCE_MS);
                } else if (type == state_of_service) {
                    const QString hash = payload.value(QStringLiteral("context_hash")).toString();
                    if (hash.isEmpty() || hash != reported_hash_)
                        schedule(COALESCE_MS);
                } else if (type == packet_t::ready_to_check.ToString()) {
                    // The answer to our own hash after a reconnection: the trees differ.
                    schedule(COALESCE_MS);
                }
            });
    const QMetaObject::Connection status = connect(&connection_,
        &client_connection_t::service_status_changed, this, [this](const QString& text) {
            if (text == QLatin1String("offline")) {
                if (online_)
                    emit_event(QStringLiteral("disconnected"),
                        { { QStringLiteral("reason"), QStringLiteral("the server went away") } });
                online_ = false;
            } else if (text == QLatin1String("online")) {
                // Also after every reconnection (the status is retained): a server that came
                // back after us never saw our ready_to_check.
                online_ = true;
                schedule(COALESCE_MS);
            }
        });
    const QMetaObject::Connection lost
        = connect(&connection_, &client_connection_t::connection_lost, this, [this] {
              emit_event(QStringLiteral("disconnected"),
                  { { QStringLiteral("reason"),
                      QStringLiteral("connection to %1 lost").arg(connection_.brokerText()) } });
          });
    const QMetaObject::Connection back
        = connect(&connection_, &client_connection_t::connected, this, [this] {
              if (!ever_connected_) {
                  ever_connected_ = true;
                  return;
              }
              // The server answers only when its tree differs from ours; that answer (a
              // ready_to_check) brings the check.
              const QString hash
                  = context_tree_t::cumulative_hash(context_tree_t::scan_local(dir_, known_));
              connection_.send(packet_t::ready_to_check.ToString(),
                  QJsonObject { { QStringLiteral("message"),
                      QJsonObject { { QStringLiteral("context_hash"), hash } } } });
          });

    emit_event(QStringLiteral("started"),
        { { QStringLiteral("dir"), dir_ }, { QStringLiteral("broker"), connection_.brokerText() },
            { QStringLiteral("client_id"), connection_.clientId() },
            { QStringLiteral("delete"), options_.remove_extras } });
    schedule(0);
    while (!stopping()) {
        connection_.wait_until(
            [this] {
                return stopping()
                    || (check_due_ms_ >= 0 && clock_.elapsed() >= check_due_ms_ && online_
                        && connection_.isConnected());
            },
            std::numeric_limits<int>::max());
        if (stopping())
            break;
        check_due_ms_ = -1;
        const round_t round = check();
        switch (round) {
        case round_t::in_step:
        case round_t::stopped:
        case round_t::server_gone:
            // Gone: the "online" that follows the server's return brings the next check.
            break;
        case round_t::changed:
            backoff_.reset();
            // Once more at once: it confirms the folder (and reports it in step), and it sees
            // what changed on the server meanwhile.
            schedule(0);
            break;
        case round_t::failed:
            break;
        }
    }
    disconnect(packets);
    disconnect(status);
    disconnect(lost);
    disconnect(back);
    emit_event(QStringLiteral("stopped"));
}

context_follower_t::round_t context_follower_t::check()
{
    const auto retry_later = [this](const QString& reason, const QJsonArray& failed = {}) {
        reported_hash_.clear();
        const int wait_ms = backoff_.next_wait();
        QJsonObject fields { { QStringLiteral("reason"), reason },
            { QStringLiteral("wait_ms"), wait_ms } };
        if (!failed.isEmpty())
            fields.insert(QStringLiteral("failed"), failed);
        emit_event(QStringLiteral("retrying"), fields);
        // Announcements during the back-off bring the check no earlier: a crowd of clients that
        // failed together must not come back together.
        not_before_ms_ = clock_.elapsed() + wait_ms;
        check_due_ms_ = not_before_ms_;
        return round_t::failed;
    };

    context_tree_t tree(connection_);
    tree.set_cancel_check([this] { return stopping() || !online_; });
    file_map_t server;
    QString error;
    if (announced_) {
        server = *announced_;
        announced_.reset();
    } else if (!tree.fetch_list(options_.timeout_ms, &server, &error)) {
        if (stopping())
            return round_t::stopped;
        if (!online_)
            return round_t::server_gone;
        return retry_later(error);
    }
    QDir().mkpath(dir_);
    const file_map_t local = context_tree_t::scan_local(dir_, known_);
    for (auto it = known_.begin(); it != known_.end();) {
        if (local.contains(it.key()))
            ++it;
        else
            it = known_.erase(it);
    }
    for (auto it = local.cbegin(); it != local.cend(); ++it) {
        if (!known_.contains(it.key()))
            remember(it.key(), it.value());
    }
    const QString server_hash = context_tree_t::cumulative_hash(server);
    if (in_step(local, server, options_.remove_extras)) {
        if (reported_hash_ != server_hash) {
            reported_hash_ = server_hash;
            emit_event(QStringLiteral("in_step"),
                { { QStringLiteral("files"), int(server.size()) },
                    { QStringLiteral("context_hash"), server_hash } });
        }
        backoff_.reset();
        return round_t::in_step;
    }
    reported_hash_.clear();

    const context_tree_t::comparison_t diff = context_tree_t::compare(local, server);
    QHash<QString, QString> path_of_hash;
    for (auto it = local.cbegin(); it != local.cend(); ++it)
        path_of_hash.insert(it.value(), it.key());
    QJsonArray failed;
    bool changed = false;
    file_map_t wanted;
    for (const QString& path : diff.missing_locally + diff.changed) {
        const QString hash = server.value(path);
        const auto held = path_of_hash.constFind(hash);
        if (held == path_of_hash.cend() || hash == context_tree_t::EMPTY_FILE_HASH) {
            wanted.insert(path, hash);
            continue;
        }
        // The folder holds this content already (the server renamed or copied a file): no
        // download.
        QString target_error;
        const QString target = file_download_t::prepare_target(dir_, path, &target_error);
        if (target.isEmpty()
            || !copy_local(QDir(dir_).filePath(*held), target, hash, &target_error)) {
            failed.append(QJsonObject {
                { QStringLiteral("path"), path }, { QStringLiteral("error"), target_error } });
            continue;
        }
        remember(path, hash);
        changed = true;
        emit_event(QStringLiteral("pulled"),
            { { QStringLiteral("path"), path }, { QStringLiteral("md5"), hash },
                { QStringLiteral("bytes"), 0 }, { QStringLiteral("from"), *held } });
    }

    bool gone = false;
    if (!wanted.isEmpty()) {
        file_download_t download(connection_, dir_);
        connect(&download, &file_download_t::retrying, this,
            [this](int try_number, int wait_ms, const QString& reason) {
                emit_event(QStringLiteral("retrying"),
                    { { QStringLiteral("reason"),
                          QStringLiteral("the server is busy (%1)").arg(reason) },
                        { QStringLiteral("try"), try_number },
                        { QStringLiteral("wait_ms"), wait_ms } });
            });
        file_download_t::options_t options;
        options.silence_ms = options_.timeout_ms;
        options.deadline_ms = kDownloadDeadlineMs;
        options.cancelled = [this] { return stopping(); };
        const file_download_t::result_t result = download.run(wanted, options);
        // The chunks' buffers stay mapped during a transfer (see allocator_tuning_t); between
        // changes of the tree, which may be weeks apart, the process goes back to its resting
        // size.
        utility::allocator_tuning_t::give_back_free_memory();
        if (result.cancelled || stopping())
            return round_t::stopped;
        gone = result.server_gone;
        for (const file_download_t::file_result_t& file : result.files) {
            if (!file.ok) {
                failed.append(QJsonObject { { QStringLiteral("path"), file.path },
                    { QStringLiteral("error"), file.error } });
                continue;
            }
            changed = true;
            remember(file.path, wanted.value(file.path));
            emit_event(QStringLiteral("pulled"),
                { { QStringLiteral("path"), file.path },
                    { QStringLiteral("md5"), wanted.value(file.path) },
                    { QStringLiteral("bytes"), QFileInfo(QDir(dir_).filePath(file.path)).size() },
                    { QStringLiteral("tries"), result.tries } });
        }
    }

    if (options_.remove_extras && !gone) {
        for (const QString& path : diff.only_local) {
            const QString absolute = QDir(dir_).filePath(path);
            if (!QFile::remove(absolute)) {
                failed.append(QJsonObject { { QStringLiteral("path"), path },
                    { QStringLiteral("error"),
                        QStringLiteral("cannot remove the local file %1").arg(absolute) } });
                continue;
            }
            known_.remove(path);
            changed = true;
            emit_event(QStringLiteral("deleted"), { { QStringLiteral("path"), path } });
        }
    }
    if (gone)
        return round_t::server_gone;
    if (!failed.isEmpty()) {
        ORVANE_LOG(QStringLiteral("%1 file(s) not brought in step; checking again later")
                       .arg(failed.size()),
            3, kLogSource);
        return retry_later(QStringLiteral("%1 file(s) not in step").arg(failed.size()), failed);
    }
    return changed ? round_t::changed : round_t::in_step;
}

} // namespace context_sync_client
