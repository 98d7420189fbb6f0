#include "context_sync_client/context_requests_t.h"

#include "context_sync_client/client_connection_t.h"
#include "context_sync_client/file_upload_t.h"

#include "context_sync/context_sync/transfer_manager/path_safety_t.h"
#include "platform/database/rr/definition/rr_packet_type_context_sync_t.h"
#include "platform/logs/classlogs.h"

#include <QDir>
#include <QJsonArray>

namespace context_sync_client {

namespace {
const char* const kLogSource = "client/context_sync_client/context_requests_t";
using packet_t = database::rr::definition::rr_packet_type_context_sync_t;
} // namespace

bool context_requests_t::result_t::ok() const
{
    if (!error.isEmpty() || timed_out)
        return false;
    for (const entry_t& entry : entries) {
        if (!entry.ok)
            return false;
    }
    return true;
}

bool context_requests_t::result_t::any_refused() const
{
    for (const entry_t& entry : entries) {
        if (entry.refused)
            return true;
    }
    return false;
}

context_requests_t::context_requests_t(client_connection_t& connection, QObject* parent)
    : QObject(parent)
    , connection_(connection)
{
}

bool context_requests_t::path_refused(const QString& path, const QString& action, result_t& result)
{
    QString reason;
    if (context_sync_engine::path_safety_t::is_safe_relative_path(path, &reason))
        return false;
    entry_t entry;
    entry.path = path;
    entry.action = action;
    entry.refused = true;
    entry.error = QStringLiteral("unsafe path \"%1\": %2")
                      .arg(context_sync_engine::path_safety_t::printable(path), reason);
    ORVANE_LOG(entry.error, 3, kLogSource);
    result.entries.append(entry);
    return true;
}

context_requests_t::result_t context_requests_t::remove(const QStringList& paths, int timeout_ms)
{
    result_t result;
    QStringList candidates;
    for (const QString& path : paths) {
        if (!path_refused(path, QStringLiteral("remove"), result))
            candidates.append(path);
    }
    if (candidates.isEmpty())
        return result;
    context_tree_t tree(connection_);
    file_map_t before;
    if (!tree.fetch_list(timeout_ms, &before, &result.error)) {
        result.timed_out = true;
        return result;
    }
    QJsonArray present;
    for (const QString& path : std::as_const(candidates)) {
        if (before.contains(path)) {
            present.append(path);
        } else {
            result.entries.append({ path, QStringLiteral("remove"), false, true,
                QStringLiteral("no such file on the server") });
        }
    }
    result.server = before;
    if (present.isEmpty())
        return result;
    connection_.send(packet_t::ctx_delete_request.ToString(),
        QJsonObject { { QStringLiteral("message"), present } });
    const auto all_gone = [&present](const file_map_t& files) {
        for (const QJsonValue& path : present) {
            if (files.contains(path.toString()))
                return false;
        }
        return true;
    };
    QString error;
    if (!tree.wait_for_list(all_gone, timeout_ms, &result.server, &error))
        result.timed_out = true;
    for (const QJsonValue& value : std::as_const(present)) {
        const QString path = value.toString();
        const bool gone = !result.server.contains(path);
        result.entries.append({ path, QStringLiteral("remove"), gone, false,
            gone ? QString() : QStringLiteral("still on the server: %1").arg(error) });
    }
    return result;
}

context_requests_t::result_t context_requests_t::rename(
    const QString& from, const QString& to, int timeout_ms)
{
    result_t result;
    if (path_refused(from, QStringLiteral("rename"), result)
        || path_refused(to, QStringLiteral("rename"), result))
        return result;
    entry_t entry;
    entry.path = from;
    entry.action = QStringLiteral("rename");
    context_tree_t tree(connection_);
    file_map_t before;
    if (!tree.fetch_list(timeout_ms, &before, &result.error)) {
        result.timed_out = true;
        return result;
    }
    result.server = before;
    if (!before.contains(from)) {
        entry.refused = true;
        entry.error = QStringLiteral("no such file on the server: %1").arg(from);
    } else if (before.contains(to)) {
        entry.refused = true;
        entry.error = QStringLiteral("%1 exists on the server already").arg(to);
    }
    if (entry.refused) {
        result.entries.append(entry);
        return result;
    }
    const QString hash = before.value(from);
    connection_.send(packet_t::ctx_rename_request.ToString(),
        QJsonObject { { QStringLiteral("message"), QJsonArray { QJsonObject { { from, to } } } } });
    // The watcher reports the two names in one scan, and drops a file it does not keep in that
    // same scan, so the first list without the old name tells everything.
    QString error;
    if (!tree.wait_for_list([&from](const file_map_t& files) { return !files.contains(from); },
            timeout_ms, &result.server, &error)) {
        result.timed_out = true;
        entry.error = QStringLiteral("%1 is still on the server: %2").arg(from, error);
    } else if (result.server.value(to) == hash) {
        entry.ok = true;
    } else {
        entry.refused = true;
        entry.error = QStringLiteral("the server removed %1 after the rename%2")
                          .arg(to,
                              file_upload_t::in_image_folder(to)
                                  ? QString()
                                  : QStringLiteral(
                                      " (it keeps files only directly under \"background/\")"));
    }
    result.entries.append(entry);
    return result;
}

context_requests_t::result_t context_requests_t::replace(const QString& dir, int timeout_ms)
{
    result_t result;
    if (!QDir(dir).exists()) {
        result.error = QStringLiteral("no such folder: %1").arg(dir);
        return result;
    }
    QStringList unreadable;
    const file_map_t local = context_tree_t::scan_local(dir, &unreadable);
    for (const QString& path : std::as_const(unreadable)) {
        result.entries.append({ path, QStringLiteral("skip"), false, true,
            QStringLiteral("cannot read %1").arg(QDir(dir).filePath(path)) });
    }
    file_map_t kept;
    for (auto it = local.cbegin(); it != local.cend(); ++it) {
        const QString local_path = QDir(dir).filePath(it.key());
        QString problem = file_upload_t::transfer_problem(local_path, it.key());
        if (problem.isEmpty())
            problem = file_upload_t::placement_problem(local_path, it.key());
        if (problem.isEmpty()) {
            kept.insert(it.key(), it.value());
        } else {
            result.entries.append({ it.key(), QStringLiteral("skip"), false, true,
                QStringLiteral("left out: %1").arg(problem) });
        }
    }

    bool acknowledged = false;
    const QMetaObject::Connection link
        = connect(&connection_, &client_connection_t::packet_received, this,
            [&acknowledged](const QString& type, const QString&, const QJsonObject&, bool) {
                if (type == packet_t::ctx_stop_transfer.ToString())
                    acknowledged = true;
            });
    connection_.send(packet_t::ctx_replace_request.ToString(),
        QJsonObject { { QStringLiteral("message"), context_tree_t::to_json(kept) } });
    connection_.wait_until([&acknowledged] { return acknowledged; }, timeout_ms);
    disconnect(link);
    if (!acknowledged) {
        result.timed_out = true;
        result.error = QStringLiteral("the server did not answer the replace request within %1 ms")
                           .arg(timeout_ms);
        return result;
    }

    context_tree_t tree(connection_);
    file_map_t server;
    if (!tree.fetch_settled_list(
            context_tree_t::SERVER_SETTLE_MS, timeout_ms, &server, &result.error)) {
        result.timed_out = true;
        return result;
    }
    const context_tree_t::comparison_t left = context_tree_t::compare(kept, server);
    QList<file_upload_t::item_t> uploads;
    for (const QString& path : left.only_local + left.changed)
        uploads.append({ QDir(dir).filePath(path), path });
    if (!uploads.isEmpty()) {
        file_upload_t upload(connection_);
        connect(&upload, &file_upload_t::progress, this, &context_requests_t::progress);
        const file_upload_t::result_t sent = upload.run(uploads, timeout_ms, false);
        for (const file_upload_t::file_result_t& file : sent.files) {
            result.entries.append(
                { file.remote_path, QStringLiteral("upload"), file.ok, file.refused, file.error });
        }
        result.timed_out = result.timed_out || sent.timed_out;
    }
    if (!left.missing_locally.isEmpty()) {
        const result_t removed = remove(left.missing_locally, timeout_ms);
        result.entries.append(removed.entries);
        result.timed_out = result.timed_out || removed.timed_out;
    }
    if (uploads.isEmpty() && left.missing_locally.isEmpty()) {
        result.server = server;
    } else {
        const auto matches = [&kept](const file_map_t& files) {
            return context_tree_t::compare(kept, files).in_step();
        };
        tree.wait_for_list(matches, timeout_ms, &result.server);
    }
    result.in_step = context_tree_t::compare(kept, result.server).in_step();
    if (!result.in_step && result.error.isEmpty())
        result.error = QStringLiteral("the server's tree does not match the folder");
    return result;
}

} // namespace context_sync_client
