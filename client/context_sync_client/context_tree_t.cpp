#include "context_sync_client/context_tree_t.h"

#include "context_sync_client/client_connection_t.h"

#include "context_sync/context_sync/watcher/context_monitor_t.h"
#include "platform/database/rr/definition/rr_packet_type_context_sync_t.h"
#include "platform/logs/classlogs.h"

#include <QCryptographicHash>
#include <QDeadlineTimer>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonValue>

#include <sys/stat.h>

namespace context_sync_client {

namespace {
const char* const kLogSource = "client/context_sync_client/context_tree_t";
using packet_t = database::rr::definition::rr_packet_type_context_sync_t;
} // namespace

const QString context_tree_t::EMPTY_FILE_HASH = QStringLiteral("d41d8cd98f00b204e9800998ecf8427e");

context_tree_t::context_tree_t(client_connection_t& connection)
    : connection_(connection)
{
}

bool context_tree_t::fetch_list(int timeout_ms, file_map_t* files, QString* error)
{
    return wait_for_list([](const file_map_t&) { return true; }, timeout_ms, files, error);
}

bool context_tree_t::fetch_settled_list(
    int settle_ms, int timeout_ms, file_map_t* files, QString* error)
{
    connection_.wait_until([] { return false; }, settle_ms);
    return fetch_list(timeout_ms, files, error);
}

bool context_tree_t::wait_for_list(const std::function<bool(const file_map_t&)>& accept,
    int timeout_ms, file_map_t* files, QString* error)
{
    bool seen = false;
    bool accepted = false;
    file_map_t last;
    const QMetaObject::Connection link
        = QObject::connect(&connection_, &client_connection_t::packet_received,
            [&](const QString& type, const QString&, const QJsonObject& payload, bool) {
                if (accepted || type != packet_t::ctx_list.ToString())
                    return;
                seen = true;
                last = from_json(payload);
                accepted = accept(last);
            });
    const QDeadlineTimer deadline(timeout_ms);
    const auto cancelled = [this] { return cancelled_ && cancelled_(); };
    while (!accepted && !deadline.hasExpired() && !cancelled()) {
        connection_.send(packet_t::ctx_request.ToString(), {});
        const int slice = int(std::min<qint64>(LIST_RETRY_MS, deadline.remainingTime()));
        connection_.wait_until([&] { return accepted || cancelled(); }, slice);
    }
    QObject::disconnect(link);
    if (files)
        *files = last;
    if (!accepted && error) {
        *error = seen ? QStringLiteral("the server's list did not reach the expected state "
                                       "within %1 ms")
                            .arg(timeout_ms)
                      : QStringLiteral("no file list from the server within %1 ms%2")
                            .arg(timeout_ms)
                            .arg(connection_.serviceStatus() == QLatin1String("offline")
                                    ? QStringLiteral(" (the service reports itself offline)")
                                    : QString());
        ORVANE_LOG(*error, 3, kLogSource);
    }
    return accepted;
}

bool context_tree_t::is_ignored(const QString& relative_path)
{
    const QStringList parts = relative_path.split(QLatin1Char('/'));
    for (const QString& part : parts) {
        if (part.startsWith(
                context_sync_engine::context_monitor_t::prefix_to_ignore, Qt::CaseInsensitive))
            return true;
    }
    return false;
}

file_map_t context_tree_t::scan_local(const QString& dir, QStringList* unreadable)
{
    return scan_local(dir, known_files_t(), unreadable);
}

bool context_tree_t::stamp_of(const QString& path, file_stamp_t* stamp)
{
    struct stat status { };
    if (::lstat(QFile::encodeName(path).constData(), &status) != 0 || !S_ISREG(status.st_mode))
        return false;
    stamp->device = quint64(status.st_dev);
    stamp->inode = quint64(status.st_ino);
    stamp->size = qint64(status.st_size);
    stamp->mtime_ns = qint64(status.st_mtim.tv_sec) * 1000000000 + status.st_mtim.tv_nsec;
    stamp->ctime_ns = qint64(status.st_ctim.tv_sec) * 1000000000 + status.st_ctim.tv_nsec;
    return true;
}

file_map_t context_tree_t::scan_local(
    const QString& dir, const known_files_t& known, QStringList* unreadable)
{
    file_map_t files;
    const QDir root(dir);
    if (!root.exists())
        return files;
    // Without FollowSymlinks the walk never enters a linked folder, and NoSymLinks leaves out
    // linked files: a scan sees exactly what lives below `dir`. Hidden entries are left out, as
    // the server's scan never lists them.
    QDirIterator it(
        root.absolutePath(), QDir::Files | QDir::NoSymLinks, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString absolute = it.next();
        const QString relative = root.relativeFilePath(absolute);
        if (is_ignored(relative))
            continue;
        const auto recorded = known.constFind(relative);
        if (recorded != known.cend()) {
            file_stamp_t now;
            if (stamp_of(absolute, &now) && now == recorded->stamp) {
                files.insert(relative, recorded->hash);
                continue;
            }
        }
        const QString hash = context_sync_engine::context_monitor_t::compute_file_hash(absolute);
        if (hash.isEmpty()) {
            if (unreadable)
                unreadable->append(relative);
            continue;
        }
        files.insert(relative, hash);
    }
    return files;
}

QString context_tree_t::cumulative_hash(const file_map_t& files)
{
    QCryptographicHash names(QCryptographicHash::Md5);
    QCryptographicHash contents(QCryptographicHash::Md5);
    for (auto it = files.cbegin(); it != files.cend(); ++it) {
        names.addData(it.key().toUtf8());
        contents.addData(it.value().toUtf8());
    }
    const QByteArray both = names.result().toHex() + contents.result().toHex();
    return QString::fromLatin1(QCryptographicHash::hash(both, QCryptographicHash::Md5).toHex());
}

file_map_t context_tree_t::from_json(const QJsonObject& files)
{
    file_map_t map;
    for (auto it = files.constBegin(); it != files.constEnd(); ++it)
        map.insert(it.key(), it.value().toString());
    return map;
}

QJsonObject context_tree_t::to_json(const file_map_t& files)
{
    QJsonObject object;
    for (auto it = files.cbegin(); it != files.cend(); ++it)
        object.insert(it.key(), it.value());
    return object;
}

context_tree_t::comparison_t context_tree_t::compare(
    const file_map_t& local, const file_map_t& server)
{
    comparison_t result;
    for (auto it = server.cbegin(); it != server.cend(); ++it) {
        const auto found = local.constFind(it.key());
        if (found == local.cend())
            result.missing_locally.append(it.key());
        else if (found.value() != it.value())
            result.changed.append(it.key());
    }
    for (auto it = local.cbegin(); it != local.cend(); ++it) {
        if (!server.contains(it.key()))
            result.only_local.append(it.key());
    }
    return result;
}

} // namespace context_sync_client
