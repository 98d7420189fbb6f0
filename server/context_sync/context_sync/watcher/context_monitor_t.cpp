#include "context_sync/context_sync/watcher/context_monitor_t.h"

#include "context_sync/context_sync/context_background_image_t.h"
#include "context_sync/context_sync/context_file_handler_t.h"
#include "context_sync/context_sync/watcher/file_hash_batch_t.h"
#include "platform/logs/classlogs.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonValue>
#include <QRegularExpression>
#include <QThread>

#include <algorithm>
#include <cerrno>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

namespace context_sync_engine {

namespace {

constexpr const char* log_source = "server/context_sync/context_sync/watcher/context_monitor_t";
constexpr int debounce_interval_ms = 1000;
// Large enough that hashing is bound by MD5, not by system calls; small files get a buffer of
// their own size.
constexpr qint64 hash_read_block = 256 * 1024;
// Coarsest modification-time granularity of the file systems the root may live on (FAT: 2 s).
constexpr qint64 racy_window_ns = 2000000000;
// Files per watcher: adding or removing one costs a scan of that watcher's list (see the header).
constexpr qsizetype file_watcher_share = 512;
// Watchers for files at most, the monitor's own included: each is an inotify instance, of which a
// user has few (128 by default). Past 16 shares the files go to the least loaded watcher.
constexpr qsizetype max_file_watchers = 16;

#define MONITOR_LOG(message, level) ORVANE_LOG((message), (level), log_source)

const QString& separator_line()
{
    static const QString line(53, QLatin1Char('_'));
    return line;
}

bool accept_all(const QString&)
{
    return true;
}

bool reject_all(const QString&)
{
    return false;
}

QString without_trailing_separator(const QString& path)
{
    QString result = path;
    while (result.size() > 1 && result.endsWith(QLatin1Char('/')))
        result.chop(1);
    return result;
}

// Removes a directory that may not stay. A link is removed as a link: removing recursively
// through it would delete whatever it points at, possibly outside the root.
qint64 realtime_ns()
{
    struct timespec now;
    ::clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<qint64>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

void remove_stray_directory(const QString& path)
{
    if (QFileInfo(path).isSymLink()) {
        QFile::remove(path);
        return;
    }
    QDir(path).removeRecursively();
}

} // namespace

// ----------------------------------------------------------------------------------------------
// construction

context_monitor_t::context_monitor_t(const QString& name, const QString& root, QObject* parent)
    : QObject(parent)
{
    // Only background images may live below the root (besides "TMP_" working folders).
    directory_validators.insert(
        context_background_image_t::relative_path, &context_background_image_t::validator);

    monitor_name = name;
    root_path = adjust_path_directory(root);
    // A relative root is resolved once against the working directory: the scan compares it with
    // absolute paths, and a mismatch would make the root look like a stray folder.
    if (QDir::isRelativePath(root_path))
        root_path = adjust_path_directory(QDir(root_path).absolutePath());
    current_dir_prefix = QStringLiteral(".%1").arg(QStringLiteral("/"));

    init_root_dir(root_path);

    debounce_timer.setSingleShot(true);
    debounce_timer.setInterval(debounce_interval_ms);
    connect(this, &context_monitor_t::debounce_timer_start, this,
        &context_monitor_t::restart_debounce_timer);
    connect(this, &context_monitor_t::debounce_timer_stop, this,
        &context_monitor_t::stop_debounce_timer);
    connect(&debounce_timer, &QTimer::timeout, this, &context_monitor_t::on_timeout_debounced);
}

context_monitor_t::~context_monitor_t()
{
    debounce_timer.stop();
    timer_running = false;
    stop_watcher();
}

// ----------------------------------------------------------------------------------------------
// getters

QString context_monitor_t::getRootPath() const
{
    return root_path;
}

QStringList context_monitor_t::getFileList() const
{
    return watched_files();
}

QStringList context_monitor_t::getFileSync() const
{
    std::lock_guard<std::mutex> lock(model_lock);
    return files_with_hash.keys();
}

QMap<QString, QString> context_monitor_t::getFileWithHashSync() const
{
    return model_copy();
}

QStringList context_monitor_t::getFileToSendList() const
{
    std::lock_guard<std::mutex> lock(model_lock);
    return file_to_send_list;
}

QJsonObject context_monitor_t::get_files_json_object() const
{
    std::lock_guard<std::mutex> lock(model_lock);
    return files_json_object;
}

QString context_monitor_t::get_cumulative_hash() const
{
    std::lock_guard<std::mutex> lock(model_lock);
    return cumulative_hash;
}

QString context_monitor_t::get_names_hash() const
{
    std::lock_guard<std::mutex> lock(model_lock);
    return names_hash;
}

QString context_monitor_t::get_content_hash() const
{
    std::lock_guard<std::mutex> lock(model_lock);
    return content_hash;
}

bool context_monitor_t::isStarted() const
{
    return started;
}

quint64 context_monitor_t::get_bytes_hashed() const
{
    return bytes_hashed;
}

bool context_monitor_t::inUpdate()
{
    const bool running = timer_running;
    if (in_update != running)
        setInUpdate(running);
    return in_update;
}

void context_monitor_t::setInUpdate(const bool& _value)
{
    const bool value = _value;
    if (in_update.exchange(value) != value)
        emit in_update_change(value);
}

void context_monitor_t::print() const
{
    const QStringList dirs = watched_dirs();
    const QStringList files = watched_files();
    const QStringList known = getFileSync();

    MONITOR_LOG(separator_line(), 2);
    MONITOR_LOG(QStringLiteral("[%1] WATCH DIRECTORIES: %2").arg(monitor_name).arg(dirs.size()), 2);
    for (const QString& dir : dirs)
        MONITOR_LOG(QStringLiteral("[%1] Watch directory: %2").arg(monitor_name, dir), 2);
    MONITOR_LOG(separator_line(), 2);
    MONITOR_LOG(QStringLiteral("[%1] WATCH FILES: %2").arg(monitor_name).arg(files.size()), 2);
    for (const QString& file : files)
        MONITOR_LOG(QStringLiteral("[%1] Watch file: %2").arg(monitor_name, file), 2);
    MONITOR_LOG(separator_line(), 2);
    MONITOR_LOG(QStringLiteral("[%1] FILES: %2").arg(monitor_name).arg(known.size()), 2);
    for (const QString& file : known)
        MONITOR_LOG(QStringLiteral("[%1] FILE: %2").arg(monitor_name, file), 2);
}

// ----------------------------------------------------------------------------------------------
// path helpers

QString context_monitor_t::adjust_path_directory(const QString& path)
{
    const QString current_dir = QStringLiteral(".%1").arg(QStringLiteral("/"));
    // The early returns are deliberate: "dir/./" loses its "./" and nothing else happens, "./dir"
    // loses its "./" and gets no trailing separator.
    if (path != current_dir && path.endsWith(current_dir))
        return path.left(path.size() - 2);
    if (path != current_dir && path.startsWith(current_dir))
        return path.mid(2);
    if (path.endsWith(QLatin1Char('/')))
        return path;
    return QStringLiteral("%1%2").arg(path, QStringLiteral("/"));
}

QString context_monitor_t::absolute_to_relative_path(const QString& root, const QString& path)
{
    if (path.startsWith(root))
        return path.mid(root.size());
    MONITOR_LOG(QStringLiteral("Don't match absolute path"), 2);
    return path;
}

QString context_monitor_t::absolute_to_relative_path(const QString& path) const
{
    return absolute_to_relative_path(root_path, path);
}

QString context_monitor_t::relative_to_absolute_path(const QString& root, const QString& relative)
{
    return QStringLiteral("%1%2").arg(root, relative);
}

QString context_monitor_t::relative_to_absolute_path(const QString& relative) const
{
    return relative_to_absolute_path(root_path, relative);
}

void context_monitor_t::init_root_dir(const QString& path)
{
    if (QDir(path).exists())
        return;
    if (QDir().mkpath(path))
        MONITOR_LOG(QStringLiteral("Created directory for context: %1").arg(path), 4);
    else
        MONITOR_LOG(QStringLiteral("Unable to created directory for context: %1").arg(path), 2);
}

// ----------------------------------------------------------------------------------------------
// hashing

QString context_monitor_t::compute_hash(const QByteArray& data)
{
    return QString::fromLatin1(QCryptographicHash::hash(data, algorithm_hash).toHex());
}

QString context_monitor_t::compute_file_hash(const QString& path)
{
    // Qt's resource (":/") and Android asset ("assets:/") paths exist only for QFile.
    if (path.startsWith(QLatin1Char(':')) || path.startsWith(QLatin1String("assets:")))
        return compute_qfile_hash(path);

    // The system calls directly: a QFile costs two more status calls and its engine per file,
    // which a scan of thousands of small images pays thousands of times.
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return QString();
    struct stat info;
    const qint64 size = ::fstat(fd, &info) == 0 ? static_cast<qint64>(info.st_size) : 0;

    // A file is never held whole in memory: it is fed to the hasher block by block. A block of
    // the file's size + 1 reads a small file in one call and sees its end in the next.
    const qint64 block = std::clamp<qint64>(size + 1, 4096, hash_read_block);
    std::unique_ptr<char[]> buffer(new char[static_cast<size_t>(block)]);

    QCryptographicHash hasher(algorithm_hash);
    bool failed = false;
    for (;;) {
        const ssize_t got = ::read(fd, buffer.get(), static_cast<size_t>(block));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0) {
            // A directory opens but does not read (EISDIR): no hash, as for QFile.
            failed = true;
            break;
        }
        if (got == 0)
            break;
        hasher.addData(QByteArrayView(buffer.get(), static_cast<qsizetype>(got)));
    }
    ::close(fd);
    return failed ? QString() : QString::fromLatin1(hasher.result().toHex());
}

QString context_monitor_t::compute_qfile_hash(const QString& path)
{
    QFile file(path);
    // Unbuffered: every block goes straight from the engine into our buffer, no second copy.
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return QString();

    const qint64 size = file.size();
    const qint64 block = std::clamp<qint64>(size + 1, 4096, hash_read_block);
    std::unique_ptr<char[]> buffer(new char[static_cast<size_t>(block)]);

    QCryptographicHash hasher(algorithm_hash);
    for (;;) {
        const qint64 got = file.read(buffer.get(), block);
        if (got < 0)
            return QString();
        if (got == 0)
            break;
        hasher.addData(QByteArrayView(buffer.get(), got));
    }
    return QString::fromLatin1(hasher.result().toHex());
}

bool context_monitor_t::calculate_cumulative_hash()
{
    const QMap<QString, QString> tree = model_copy();

    QByteArray names;
    QByteArray contents;
    contents.reserve(tree.size() * 32);
    for (auto it = tree.cbegin(); it != tree.cend(); ++it) {
        contents.append(it.value().toUtf8());
        names.append(it.key().toUtf8());
    }

    const QString new_names_hash = compute_hash(names);
    const QString new_content_hash = compute_hash(contents);
    const QString new_cumulative_hash
        = compute_hash(new_names_hash.toUtf8() + new_content_hash.toUtf8());

    {
        std::lock_guard<std::mutex> lock(model_lock);
        if (new_cumulative_hash == cumulative_hash)
            return false;
    }

    QJsonObject json;
    for (auto it = tree.cbegin(); it != tree.cend(); ++it)
        json.insert(it.key(), it.value());

    std::lock_guard<std::mutex> lock(model_lock);
    cumulative_hash = new_cumulative_hash;
    names_hash = new_names_hash;
    content_hash = new_content_hash;
    files_json_object = json;
    return true;
}

// ----------------------------------------------------------------------------------------------
// tree differences

QJsonObject context_monitor_t::calculate_diff_json_objects(
    const QMap<QString, QString>& old_tree, const QMap<QString, QString>& new_tree)
{
    QSet<QString> added;
    QSet<QString> removed;
    QSet<QString> common;

    for (auto it = new_tree.cbegin(); it != new_tree.cend(); ++it) {
        auto old_it = old_tree.constFind(it.key());
        if (old_it == old_tree.cend())
            added.insert(it.key());
        else if (old_it.value() != it.value())
            added.insert(it.key()); // same path, new content
        else
            common.insert(it.key());
    }
    for (auto it = old_tree.cbegin(); it != old_tree.cend(); ++it) {
        if (!new_tree.contains(it.key()))
            removed.insert(it.key());
    }

    // Old paths by hash, each list in path order because the map iterates sorted.
    QHash<QString, QStringList> old_by_hash;
    if (!added.isEmpty()) {
        old_by_hash.reserve(old_tree.size());
        for (auto it = old_tree.cbegin(); it != old_tree.cend(); ++it)
            old_by_hash[it.value()].append(it.key());
    }

    QMap<QString, QString> renamed;
    QMap<QString, QString> copied;
    const QSet<QString> to_explain = added;
    for (const QString& path : to_explain) {
        auto candidates_it = old_by_hash.constFind(new_tree.value(path));
        if (candidates_it == old_by_hash.cend())
            continue;
        const QStringList& candidates = candidates_it.value();

        // A source that is gone or changed explains the new path as a rename; a source that is
        // still there unchanged explains it as a copy. A later path replaces an earlier one for
        // the same source, which then is reported nowhere.
        auto source = std::find_if(candidates.cbegin(), candidates.cend(),
            [&common](const QString& c) { return !common.contains(c); });
        if (source != candidates.cend()) {
            renamed.insert(*source, path);
            added.remove(path);
            removed.remove(*source);
        } else {
            copied.insert(candidates.first(), path);
            added.remove(path);
        }
    }

    QJsonObject diff;
    if (!removed.isEmpty()) {
        QJsonArray array;
        for (const QString& path : std::as_const(removed))
            array.append(path);
        diff.insert(QStringLiteral("removed"), array);
    }
    if (!added.isEmpty()) {
        QJsonArray array;
        for (const QString& path : std::as_const(added))
            array.append(path);
        diff.insert(QStringLiteral("new"), array);
    }
    if (!renamed.isEmpty()) {
        QJsonArray array;
        for (auto it = renamed.cbegin(); it != renamed.cend(); ++it)
            array.append(QJsonObject { { it.key(), it.value() } });
        diff.insert(QStringLiteral("renamed"), array);
    }
    if (!copied.isEmpty()) {
        QJsonArray array;
        for (auto it = copied.cbegin(); it != copied.cend(); ++it)
            array.append(QJsonObject { { it.key(), it.value() } });
        diff.insert(QStringLiteral("copied"), array);
    }
    return diff;
}

QJsonObject context_monitor_t::calculate_diff_json_objects(const QJsonObject& other) const
{
    QMap<QString, QString> other_tree;
    for (auto it = other.constBegin(); it != other.constEnd(); ++it)
        other_tree.insert(it.key(), it.value().toString());
    return calculate_diff_json_objects(model_copy(), other_tree);
}

QHash<QString, QSet<QString>> context_monitor_t::calculate_diff_stringlist(
    const QList<QString>& old, const QList<QString>& actual)
{
    const QSet<QString> old_set(old.cbegin(), old.cend());
    const QSet<QString> actual_set(actual.cbegin(), actual.cend());
    QHash<QString, QSet<QString>> result;
    result.insert(QStringLiteral("actual"), actual_set);
    result.insert(QStringLiteral("old"), old_set);
    result.insert(QStringLiteral("added"), QSet<QString>(actual_set).subtract(old_set));
    result.insert(QStringLiteral("deleted"), QSet<QString>(old_set).subtract(actual_set));
    return result;
}

QHash<QString, QHash<QString, QSet<QString>>> context_monitor_t::calculate_diff_qhash(
    const QHash<QString, QList<QString>>& old, const QHash<QString, QList<QString>>& actual)
{
    QSet<QString> keys;
    for (auto it = old.cbegin(); it != old.cend(); ++it)
        keys.insert(it.key());
    for (auto it = actual.cbegin(); it != actual.cend(); ++it)
        keys.insert(it.key());

    QHash<QString, QHash<QString, QSet<QString>>> result;
    for (const QString& key : std::as_const(keys))
        result.insert(key, calculate_diff_stringlist(old.value(key), actual.value(key)));
    return result;
}

// ----------------------------------------------------------------------------------------------
// name prefixes

QString context_monitor_t::set_prefix_from_file_name(const QString& prefix, const QString& path)
{
    const QFileInfo info(path);
    const QString name = info.fileName();
    if (name.startsWith(prefix))
        return path;
    return QStringLiteral("%1%2%3").arg(info.absolutePath(), QStringLiteral("/"), prefix + name);
}

QString context_monitor_t::unset_prefix_from_file_name(const QString& prefix, const QString& path)
{
    const QString name = QFileInfo(path).fileName();
    if (!name.startsWith(prefix))
        return path;
    // Only the file name changes; the directory part stays exactly as the caller wrote it.
    return path.left(path.size() - name.size()) + name.mid(prefix.size());
}

QPair<QString, QString> context_monitor_t::getRenameValue(const QString& path)
{
    static const QRegularExpression pattern(QStringLiteral("^\\[([\\w.\\-]+)\\]([\\w.\\-]+)$"),
        QRegularExpression::UseUnicodePropertiesOption);

    const QString name = QFileInfo(path).fileName();
    const QRegularExpressionMatch match = pattern.match(name);
    if (!match.hasMatch())
        return {};

    const QString dir = path.left(path.size() - name.size());
    const QString first = dir + match.captured(2);
    const QString second = dir + match.captured(1);
    if (first == second)
        return {};
    return { first, second };
}

// ----------------------------------------------------------------------------------------------
// local file operations

bool context_monitor_t::create_dir(const QString& path)
{
    if (QDir(path).exists()) {
        MONITOR_LOG(QStringLiteral("Directory %1 already existed").arg(path), 6);
        return true;
    }
    if (QDir().mkpath(path)) {
        MONITOR_LOG(QStringLiteral("Create a directory %1").arg(path), 4);
        return true;
    }
    MONITOR_LOG(QStringLiteral("Unable to create a directory %1").arg(path), 2);
    return false;
}

bool context_monitor_t::prepare_copy_move_file(
    const QString& src, const QString& dst, const bool& create_directory, const bool& overwrite)
{
    if (!QFile::exists(src)) {
        MONITOR_LOG(QStringLiteral("Unable to copy file because %1 does not exist!").arg(src), 2);
        return false;
    }

    const QString dst_dir = QFileInfo(dst).absolutePath();
    if (!QDir(dst_dir).exists()) {
        if (!create_directory) {
            MONITOR_LOG(QStringLiteral("Destination directory %1 does not exist!").arg(dst_dir), 2);
            return false;
        }
        if (!create_dir(dst_dir)) {
            MONITOR_LOG(
                QStringLiteral("Failed to create destination directory: %1").arg(dst_dir), 2);
            return false;
        }
    }

    // Without overwrite an existing destination stays, and the copy or move that follows fails.
    if (!overwrite)
        return true;
    if (!QFile::exists(dst) || QFile::remove(dst))
        return true;
    MONITOR_LOG(QStringLiteral("Failed to remove existing destination file: %1").arg(dst), 2);
    return false;
}

bool context_monitor_t::move_file(
    const QString& src, const QString& dst, const bool& create_directory, const bool& overwrite)
{
    if (!prepare_copy_move_file(src, dst, create_directory, overwrite))
        return false;
    QFile file(src);
    const bool moved = file.rename(dst);
    if (moved)
        MONITOR_LOG(QStringLiteral("Successfully moved %1 to %2").arg(src, dst), 6);
    else
        MONITOR_LOG(
            QStringLiteral("Unable to move file %1 to %2, %3!").arg(src, dst, file.errorString()),
            2);
    return moved;
}

bool context_monitor_t::copy_file(
    const QString& src, const QString& dst, const bool& create_directory, const bool& overwrite)
{
    if (!prepare_copy_move_file(src, dst, create_directory, overwrite))
        return false;
    const bool copied = QFile::copy(src, dst);
    if (copied) {
        MONITOR_LOG(QStringLiteral("Successfully copied %1 to %2").arg(src, dst), 6);
    } else {
        // The error text comes from a file object that took no part in the copy, so it is Qt's
        // generic "Unknown error"; clients and log readers know the message in this form.
        const QFile untouched(src);
        MONITOR_LOG(QStringLiteral("Unable to copy file %1 to %2, %3!")
                        .arg(src, dst, untouched.errorString()),
            2);
    }
    return copied;
}

void context_monitor_t::rename_file_to_send(const QString& _filePath, const bool& _update_file_list)
{
    QMutexLocker locker(&mutex);

    if (!QFile::exists(_filePath))
        return;
    const QString target = unset_prefix_from_file_name(prefix_file_to_send, _filePath);
    if (target == _filePath)
        return;

    if (QFile::exists(target)) {
        MONITOR_LOG(
            QStringLiteral("File ") + target + QStringLiteral(" existing! Try to remove it!"), 2);
        if (!QFile::remove(target))
            MONITOR_LOG(QStringLiteral("Unable to remove ") + target + QStringLiteral("!"), 2);
    }
    if (!QFile::rename(_filePath, target))
        MONITOR_LOG(
            QStringLiteral("Error to rename: ") + _filePath + QStringLiteral(" to ") + target, 2);

    if (!_update_file_list)
        return;

    file_to_send_remove_all(_filePath);
    model_insert(absolute_to_relative_path(root_path, target), compute_file_hash(target));
    if (!is_watched_file(target) && !watch_add(target, false))
        MONITOR_LOG(QStringLiteral("Error to add: ") + target, 2);
    calculate_cumulative_hash();
    MONITOR_LOG(QStringLiteral("Added to files and recalculate cumulative!"), 6);
}

// ----------------------------------------------------------------------------------------------
// watching and scanning

void context_monitor_t::start_watcher()
{
    watch_clear();
    model_clear();
    scan_directories(QSet<QString> { root_path });
    const QJsonObject diff = calculate_diff_json_objects(QMap<QString, QString>(), model_copy());
    emit tree_updated_files(get_names_hash(), get_content_hash(), diff);
    connect(&watcher, &QFileSystemWatcher::directoryChanged, this,
        &context_monitor_t::on_directory_changed,
        static_cast<Qt::ConnectionType>(Qt::QueuedConnection | Qt::UniqueConnection));
    started = true;
}

void context_monitor_t::stop_watcher()
{
    disconnect(&watcher, &QFileSystemWatcher::directoryChanged, this,
        &context_monitor_t::on_directory_changed);
    watch_clear();
    model_clear();
    hash_cache.clear();
    started = false;
}

file_validator_t context_monitor_t::validator(const QFileInfo& dir_info, bool& _deleted)
{
    const QString dir = adjust_path_directory(dir_info.absoluteFilePath());
    const QString relative = absolute_to_relative_path(root_path, dir);
    _deleted = false;

    if (directory_validators.isEmpty())
        return accept_all;
    auto registered = directory_validators.constFind(relative);
    if (registered != directory_validators.cend())
        return registered.value();

    // The name is taken without the trailing separator, so that "TMP_x/" is recognised as well as
    // "TMP_x". The root itself is never a working folder, whatever its name.
    const QString dir_name = without_trailing_separator(dir);
    if (dir != root_path
        && QFileInfo(dir_name).baseName().startsWith(prefix_to_ignore, Qt::CaseInsensitive)) {
        _deleted = true;
        return reject_all;
    }

    if (dir != root_path) {
        MONITOR_LOG(QStringLiteral("Directory not in path validator delete  %1 ")
                        .arg(dir_info.absoluteFilePath()),
            2);
        // The handler unlinks a linked folder rather than emptying what it points at.
        context_file_handler_t::clean_tmp_folder(dir, false);
        _deleted = true;
        return file_validator_t();
    }
    return reject_all;
}

bool context_monitor_t::scan_directories(const QSet<QString>& paths)
{
    for (const QString& path : paths)
        scan_directory_recursive(adjust_path_directory(path));
    clean_dir_file_removed();
    return calculate_cumulative_hash();
}

void context_monitor_t::scan_directory_recursive(const QString& path)
{
    if (scan_depth == 0) {
        sync_watch_sets();
        scan_helpers = file_hash_batch_t::default_helpers();
    }
    ++scan_depth;
    scan_one_directory(path);
    --scan_depth;
    if (scan_depth == 0) {
        // Every accepted file is in the model and watched before the scan's caller goes on.
        finish_scanned_files(true);
        hash_batch.reset();
    }
}

void context_monitor_t::scan_one_directory(const QString& path)
{
    const QString dir = adjust_path_directory(path);
    MONITOR_LOG(QStringLiteral("[%1] Scan directory %2").arg(monitor_name, dir), 6);

    bool deleted = false;
    const file_validator_t judge = validator(QFileInfo(dir), deleted);
    if (deleted)
        return;

    const QDir directory(dir);
    if (!directory.exists()) {
        MONITOR_LOG(QStringLiteral("[%1] Directory %2 not exist!")
                        .arg(monitor_name, directory.absolutePath()),
            2);
        return;
    }
    if (!QFileInfo(dir).isReadable()) {
        MONITOR_LOG(QStringLiteral("Not readable file %1, remove it!").arg(dir), 2);
        remove_stray_directory(without_trailing_separator(dir));
        return;
    }

    if (!is_watched_dir(dir) && !watch_add(dir, true))
        MONITOR_LOG(QStringLiteral("Error to add: ") + dir, 2);

    // System entries are listed too (dangling links, pipes, sockets) so that they can be removed:
    // only plain files and directories may live in the tree.
    const QFileInfoList entries = directory.entryInfoList(
        QDir::Files | QDir::Dirs | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
    for (const QFileInfo& entry : entries) {
        const QString absolute = entry.absoluteFilePath();
        if (entry.baseName().startsWith(prefix_to_ignore, Qt::CaseInsensitive))
            continue;

        // A link is never followed: neither the scan nor a deletion may reach outside the root.
        // The link itself is removed as a stray entry.
        if (entry.isSymLink()) {
            if (entry.isDir())
                MONITOR_LOG(
                    QStringLiteral("Directory not in path validator delete  %1 ").arg(absolute), 2);
            else
                MONITOR_LOG(QStringLiteral("Validator failed, delete file: %1").arg(absolute), 2);
            if (!QFile::remove(absolute))
                MONITOR_LOG(QStringLiteral("Unable to remove: %1").arg(absolute), 2);
            continue;
        }

        if (!entry.isReadable()) {
            MONITOR_LOG(QStringLiteral("Not readable file %1, remove it!").arg(absolute), 2);
            if (entry.isDir())
                remove_stray_directory(absolute);
            else
                QFile::remove(absolute);
            continue;
        }

        if (entry.isDir()) {
            // A directory already watched is rescanned only when it is itself reported changed.
            if (!is_watched_dir(adjust_path_directory(absolute)))
                scan_one_directory(absolute);
            continue;
        }

        if (entry.baseName().startsWith(prefix_file_to_send, Qt::CaseInsensitive)) {
            MONITOR_LOG(QStringLiteral("File with prefix %1 not permitted! Delete %2")
                            .arg(prefix_file_to_send, absolute),
                3);
            QFile::remove(absolute);
            continue;
        }

        // Pipes, sockets and devices are never hashed: opening a pipe would block the scan.
        if (entry.isFile() && judge && judge(absolute)) {
            queue_scanned_file(absolute);
            continue;
        }

        MONITOR_LOG(QStringLiteral("Validator failed, delete file: %1").arg(absolute), 2);
        if (!QFile::remove(absolute))
            MONITOR_LOG(QStringLiteral("Unable to remove: %1").arg(absolute), 2);
    }
}

bool context_monitor_t::read_file_stamp(const QString& path, file_stamp_t& stamp) const
{
    struct stat info;
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return false;
    stamp.size = static_cast<qint64>(info.st_size);
    stamp.mtime_ns = static_cast<qint64>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
    stamp.ctime_ns = static_cast<qint64>(info.st_ctim.tv_sec) * 1000000000 + info.st_ctim.tv_nsec;
    stamp.inode = static_cast<quint64>(info.st_ino);
    stamp.device = static_cast<quint64>(info.st_dev);
    return true;
}

void context_monitor_t::remember_hash(
    const QString& path, const file_stamp_t& stamp, const QString& hash, qint64 started_ns)
{
    bytes_hashed += static_cast<quint64>(stamp.size);
    if (hash.isEmpty()) {
        hash_cache.remove(path);
        return;
    }
    // A file modified less than the coarsest timestamp granularity (2 s) before hashing began
    // could be modified again without its times changing: hash it again at the next scan.
    const bool trusted = started_ns - stamp.mtime_ns >= racy_window_ns;
    hash_cache.insert(path, cached_hash_t { stamp, hash, trusted });
}

QString context_monitor_t::scanned_file_hash(const QString& path)
{
    file_stamp_t stamp;
    if (!read_file_stamp(path, stamp)) {
        hash_cache.remove(path);
        return compute_file_hash(path);
    }
    auto cached = hash_cache.constFind(path);
    if (cached != hash_cache.cend() && cached->trusted && cached->stamp == stamp)
        return cached->hash;

    const qint64 started_ns = realtime_ns();
    const QString hash = compute_file_hash(path);
    remember_hash(path, stamp, hash, started_ns);
    return hash;
}

void context_monitor_t::queue_scanned_file(const QString& path)
{
    if (scan_helpers == 0) {
        accept_scanned_file(path, scanned_file_hash(path));
        return;
    }

    pending_file_t file;
    file.path = path;
    file.stamped = read_file_stamp(path, file.stamp);
    if (!file.stamped) {
        hash_cache.remove(path);
        file.hashing = true;
    } else {
        auto cached = hash_cache.constFind(path);
        if (cached != hash_cache.cend() && cached->trusted && cached->stamp == file.stamp)
            file.hash = cached->hash;
        else
            file.hashing = true;
    }

    if (!file.hashing && pending_files.empty()) {
        accept_scanned_file(path, file.hash);
        return;
    }
    if (file.hashing) {
        if (!hash_batch)
            hash_batch = std::make_unique<file_hash_batch_t>(&compute_file_hash, scan_helpers);
        hash_batch->add(path);
    }
    pending_files.push_back(std::move(file));
    // What the helpers have finished meanwhile is watched and recorded now, while they go on.
    finish_scanned_files(false);
}

void context_monitor_t::finish_scanned_files(bool wait)
{
    while (!pending_files.empty()) {
        pending_file_t& file = pending_files.front();
        if (file.hashing) {
            // The batch hands results back in the order the files were queued, which is the
            // order of the queued files among the pending ones.
            file_hash_batch_t::result_t result;
            if (!hash_batch
                || !(wait ? hash_batch->take_next(result) : hash_batch->take_ready(result)))
                return;
            file.hash = result.hash;
            if (file.stamped)
                remember_hash(file.path, file.stamp, file.hash, result.started_ns);
        }
        const pending_file_t done = std::move(file);
        pending_files.pop_front();
        accept_scanned_file(done.path, done.hash);
    }
}

void context_monitor_t::accept_scanned_file(const QString& path, const QString& hash)
{
    if (hash.isEmpty())
        return;
    if (!is_watched_file(path) && !watch_add(path, false))
        MONITOR_LOG(QStringLiteral("Error to add: ") + path, 2);
    model_insert(absolute_to_relative_path(root_path, path), hash);
}

void context_monitor_t::clean_dir_file_removed()
{
    sync_watch_sets();

    QStringList gone;
    for (const QString& dir : watched_dirs()) {
        if (!QFileInfo::exists(dir))
            gone.append(dir);
    }
    watch_remove(gone);

    gone.clear();
    for (const QString& file : watched_files()) {
        if (!QFileInfo::exists(file)) {
            gone.append(file);
            model_remove(absolute_to_relative_path(root_path, file));
        }
    }
    watch_remove(gone);

    {
        std::lock_guard<std::mutex> lock(model_lock);
        for (auto it = files_with_hash.begin(); it != files_with_hash.end();) {
            if (watched_file_index.contains(relative_to_absolute_path(root_path, it.key())))
                ++it;
            else
                it = files_with_hash.erase(it);
        }
        for (auto it = hash_cache.begin(); it != hash_cache.end();) {
            if (watched_file_index.contains(it.key()))
                ++it;
            else
                it = hash_cache.erase(it);
        }
        for (qsizetype i = file_to_send_list.size() - 1; i >= 0; --i) {
            if (!QFileInfo::exists(file_to_send_list.at(i)))
                file_to_send_list.removeAt(i);
        }
    }
}

void context_monitor_t::on_directory_changed(const QString& path)
{
    QMutexLocker locker(&mutex);
    MONITOR_LOG(QStringLiteral("Directory change ..."), 6);
    if (pending_directories.contains(path))
        return;
    pending_directories.insert(path);
    emit debounce_timer_start();
}

void context_monitor_t::on_timeout_debounced()
{
    // The single-shot timer is no longer running once it has fired.
    timer_running = false;

    QMutexLocker locker(&mutex);
    const QSet<QString> taken = pending_directories;
    pending_directories.clear();

    const QStringList taken_list(taken.cbegin(), taken.cend());
    MONITOR_LOG(QStringLiteral("[%1] Process %2 => Debounced update: recalculate cumulative hash.")
                    .arg(monitor_name, taken_list.join(QStringLiteral(", "))),
        6);

    const QMap<QString, QString> old_tree = model_copy();
    const bool changed = scan_directories(taken);
    const QJsonObject diff
        = changed ? calculate_diff_json_objects(old_tree, model_copy()) : QJsonObject();

    if (!changed && getFileToSendList().isEmpty()) {
        MONITOR_LOG(QStringLiteral("[%1] Not change dir ....").arg(monitor_name), 6);
        emit end_of_check();
        return;
    }
    emit tree_updated_files(get_names_hash(), get_content_hash(), diff);
}

// ----------------------------------------------------------------------------------------------
// debounce timer

void context_monitor_t::restart_debounce_timer()
{
    debounce_timer.stop();
    debounce_timer.start();
    timer_running = debounce_timer.isActive();
    setInUpdate(timer_running);
}

void context_monitor_t::stop_debounce_timer()
{
    debounce_timer.stop();
    timer_running = false;
    setInUpdate(false);
}

// ----------------------------------------------------------------------------------------------
// model and watcher access

void context_monitor_t::model_insert(const QString& relative, const QString& hash)
{
    std::lock_guard<std::mutex> lock(model_lock);
    files_with_hash.insert(relative, hash);
}

void context_monitor_t::model_remove(const QString& relative)
{
    std::lock_guard<std::mutex> lock(model_lock);
    files_with_hash.remove(relative);
}

void context_monitor_t::model_clear()
{
    std::lock_guard<std::mutex> lock(model_lock);
    files_with_hash.clear();
    file_to_send_list.clear();
}

void context_monitor_t::file_to_send_remove_all(const QString& path)
{
    std::lock_guard<std::mutex> lock(model_lock);
    file_to_send_list.removeAll(path);
}

QMap<QString, QString> context_monitor_t::model_copy() const
{
    std::lock_guard<std::mutex> lock(model_lock);
    return files_with_hash;
}

bool context_monitor_t::watch_add(const QString& path, bool is_dir)
{
    std::lock_guard<std::mutex> lock(model_lock);
    if (is_dir) {
        if (!watcher.addPath(path))
            return false;
        watched_dir_set.insert(path);
        return true;
    }
    const qsizetype index = file_watcher_for_new_file();
    if (!file_watcher_at(index)->addPath(path))
        return false;
    watched_file_index.insert(path, index);
    return true;
}

QFileSystemWatcher* context_monitor_t::file_watcher_at(qsizetype index)
{
    return index == 0 ? &watcher : file_watchers[static_cast<size_t>(index - 1)].get();
}

qsizetype context_monitor_t::file_watcher_for_new_file()
{
    const qsizetype count = 1 + static_cast<qsizetype>(file_watchers.size());
    if (file_watcher_cursor >= count)
        file_watcher_cursor = 0;
    if (file_watcher_at(file_watcher_cursor)->files().size() < file_watcher_share)
        return file_watcher_cursor;

    qsizetype least = 0;
    qsizetype least_size = -1;
    for (qsizetype i = 0; i < count; ++i) {
        const qsizetype size = file_watcher_at(i)->files().size();
        if (size < file_watcher_share) {
            file_watcher_cursor = i;
            return i;
        }
        if (least_size < 0 || size < least_size) {
            least = i;
            least_size = size;
        }
    }

    // A new watcher is made only on the monitor's own thread, where the watchers live.
    if (count < max_file_watchers && QThread::currentThread() == thread()) {
        auto added = std::make_unique<QFileSystemWatcher>();
        // Qt makes the watcher's inotify engine its child; without one (no inotify instance
        // left) it would fall back to polling every file each second, so the files go to the
        // watchers that exist instead.
        if (!added->children().isEmpty()) {
            file_watchers.push_back(std::move(added));
            file_watcher_cursor = count;
            return count;
        }
    }
    return least;
}

bool context_monitor_t::is_watched_dir(const QString& path) const
{
    std::lock_guard<std::mutex> lock(model_lock);
    return watched_dir_set.contains(path);
}

bool context_monitor_t::is_watched_file(const QString& path) const
{
    std::lock_guard<std::mutex> lock(model_lock);
    return watched_file_index.contains(path);
}

void context_monitor_t::watch_remove(const QStringList& paths)
{
    if (paths.isEmpty())
        return;
    std::lock_guard<std::mutex> lock(model_lock);
    // Each path goes to the watcher that holds it; a path held by none goes to the watcher, which
    // ignores it, as before.
    std::vector<QStringList> by_watcher(1 + file_watchers.size());
    for (const QString& path : paths) {
        const auto held = watched_file_index.constFind(path);
        by_watcher[static_cast<size_t>(held == watched_file_index.cend() ? 0 : held.value())]
            .append(path);
        watched_dir_set.remove(path);
        watched_file_index.remove(path);
    }
    for (size_t i = 0; i < by_watcher.size(); ++i) {
        if (!by_watcher[i].isEmpty())
            file_watcher_at(static_cast<qsizetype>(i))->removePaths(by_watcher[i]);
    }
}

QStringList context_monitor_t::watched_dirs() const
{
    std::lock_guard<std::mutex> lock(model_lock);
    return watcher.directories();
}

QStringList context_monitor_t::watched_files() const
{
    std::lock_guard<std::mutex> lock(model_lock);
    // In the order the watchers were filled: for a first scan, the order of the scan.
    QStringList files = watcher.files();
    for (const auto& more : file_watchers)
        files += more->files();
    return files;
}

void context_monitor_t::sync_watch_sets()
{
    // A watcher forgets a path by itself when the path is deleted or replaced; the sets follow.
    std::lock_guard<std::mutex> lock(model_lock);
    const QStringList dirs = watcher.directories();
    watched_dir_set = QSet<QString>(dirs.cbegin(), dirs.cend());
    watched_file_index.clear();
    const qsizetype count = 1 + static_cast<qsizetype>(file_watchers.size());
    for (qsizetype i = 0; i < count; ++i) {
        const QStringList files = file_watcher_at(i)->files();
        for (const QString& file : files)
            watched_file_index.insert(file, i);
    }
}

void context_monitor_t::watch_clear()
{
    std::lock_guard<std::mutex> lock(model_lock);
    const QStringList dirs = watcher.directories();
    const QStringList files = watcher.files();
    if (!dirs.isEmpty())
        watcher.removePaths(dirs);
    if (!files.isEmpty())
        watcher.removePaths(files);
    // The further watchers give up their files too but stay for the next start: closing an
    // inotify instance waits for the kernel's grace period (3 to 30 ms each, measured), which
    // for ten watchers took longer than removing their paths, at most one share each.
    for (const auto& more : file_watchers) {
        const QStringList held = more->files();
        if (!held.isEmpty())
            more->removePaths(held);
    }
    file_watcher_cursor = 0;
    watched_dir_set.clear();
    watched_file_index.clear();
}

} // namespace context_sync_engine
