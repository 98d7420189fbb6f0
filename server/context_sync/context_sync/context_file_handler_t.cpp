#include "context_sync/context_sync/context_file_handler_t.h"

#include "context_sync/context_sync/watcher/context_monitor_t.h"
#include "platform/logs/classlogs.h"
#include "utility/LogStream.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonValue>

namespace context_sync_engine {

namespace {

constexpr const char* log_source = "server/context_sync/context_sync/context_file_handler_t";

#define HANDLER_LOG(message, level) ORVANE_LOG((message), (level), log_source)

// Logs on behalf of `function`, so that lines written by the shared copy/rename loop name the
// public operation that was called.
void log_for(const QString& message, int level, const char* function, int line)
{
    utility::logs::classlogs::write(message, level, function, log_source, line);
}

// Wording and file operation of one kind of pairwise entry ("copied" or "renamed").
struct pair_operation_t {
    const char* function;
    const char* empty_message; // %1 from, %2 to (both relative, as given)
    const char* missing_message; // %1 from, %2 to (absolute)
    const char* done_message;
    const char* failed_message;
    bool (*apply)(const QString& from, const QString& to);
};

bool copy_one(const QString& from, const QString& to)
{
    return QFile::copy(from, to);
}

bool rename_one(const QString& from, const QString& to)
{
    return QFile::rename(from, to);
}

const pair_operation_t copy_operation {
    "handler_file_copy",
    "Unable to copy file from %1 to %2, empty from/to",
    "Unable to copy file from %1 to %2, source file not exist",
    "File %1 copied to %2",
    "Unable to copied file %1 to %2",
    &copy_one,
};

const pair_operation_t rename_operation {
    "handler_file_rename",
    "Unable to rename file from %1 to %2, empty from/to",
    "Unable to rename file from %1 to %2, source file not exist",
    "File %1 renamed to %2",
    "Unable to rename file %1 to %2",
    &rename_one,
};

// A pairwise element is an object whose first member (keys are sorted) maps the source path to
// the destination path. Anything else reads as an empty pair.
QPair<QString, QString> first_pair(const QJsonValue& element)
{
    const QJsonObject object = element.toObject();
    if (object.isEmpty())
        return {};
    const QString from = object.begin().key();
    return { from, object.begin().value().toString() };
}

void apply_pairs(const pair_operation_t& operation, const QJsonArray& list,
    const QString& from_root, const QString& to_root)
{
    for (const QJsonValue& element : list) {
        const auto [from, to] = first_pair(element);
        if (from.isEmpty() || to.isEmpty()) {
            log_for(QString::fromLatin1(operation.empty_message).arg(from, to), 2,
                operation.function, __LINE__);
            continue;
        }
        const QString from_abs = context_monitor_t::relative_to_absolute_path(from_root, from);
        const QString to_abs = context_monitor_t::relative_to_absolute_path(to_root, to);
        if (!QFileInfo::exists(from_abs)) {
            log_for(QString::fromLatin1(operation.missing_message).arg(from_abs, to_abs), 2,
                operation.function, __LINE__);
            continue;
        }
        // The result does not matter here: a directory that could not be made shows up as a
        // failed copy or rename just below.
        context_file_handler_t::create_dir(QFileInfo(to_abs).absolutePath());
        if (operation.apply(from_abs, to_abs))
            log_for(QString::fromLatin1(operation.done_message).arg(from_abs, to_abs), 4,
                operation.function, __LINE__);
        else
            log_for(QString::fromLatin1(operation.failed_message).arg(from_abs, to_abs), 2,
                operation.function, __LINE__);
    }
}

// The path without trailing separators, so that a symbolic link is seen as the link itself and
// not as the directory it points to ("link/" resolves through the link).
QString without_trailing_separators(QString path)
{
    while (path.size() > 1 && path.endsWith(QLatin1Char('/')))
        path.chop(1);
    return path;
}

// Removes the directory at `path` with everything in it. A symbolic link is unlinked instead:
// emptying it recursively would delete the files of its target, which may lie anywhere.
bool remove_directory(const QString& path, QDir& dir)
{
    const QString link = without_trailing_separators(path);
    if (QFileInfo(link).isSymLink())
        return QFile::remove(link);
    return dir.removeRecursively();
}

// Each line goes through the log stream on its own, at level 2, in the name of the print_file_*
// function that asked for it.
void print_lines(const char* function, const QString& title, const QStringList& lines)
{
    const auto print_line = [function](const QString& text) {
        utility::logs::LogStream(
            utility::logs::Error, QString::fromLatin1(function), log_source, __LINE__)
            << text;
    };
    print_line(QStringLiteral("----------------------"));
    print_line(title);
    for (const QString& line : lines)
        print_line(line);
}

QStringList path_lines(const QJsonArray& list)
{
    QStringList lines;
    lines.reserve(list.size());
    for (const QJsonValue& element : list)
        lines.append(QStringLiteral(" - ") + element.toString());
    return lines;
}

QStringList pair_lines(const QJsonArray& list)
{
    QStringList lines;
    lines.reserve(list.size());
    for (const QJsonValue& element : list) {
        const auto [from, to] = first_pair(element);
        lines.append(QStringLiteral(" - from: ") + from + QStringLiteral(" to: ") + to);
    }
    return lines;
}

} // namespace

context_file_handler_t::context_file_handler_t(const QString& path, QObject* parent)
    : QObject(parent)
    , root(context_monitor_t::adjust_path_directory(path))
    , current_dir_prefix(QStringLiteral("./"))
{
    create_dir(root);
}

int context_file_handler_t::handler_file(const QJsonObject& obj)
{
    const QJsonArray copied = obj.value(QLatin1String("copied")).toArray();
    const QJsonArray renamed = obj.value(QLatin1String("renamed")).toArray();
    const QJsonArray removed = obj.value(QLatin1String("removed")).toArray();
    handler_file_copy(copied, root, root);
    handler_file_rename(renamed, root, root);
    handler_file_remove(removed, root);
    return int(copied.size() + renamed.size() + removed.size());
}

void context_file_handler_t::handler_import_file(const QJsonObject& obj, const QString& import_path)
{
    const QString import_root = context_monitor_t::adjust_path_directory(import_path);

    QJsonArray new_files;
    for (const QJsonValue& element : obj.value(QLatin1String("new")).toArray()) {
        const QString path = element.toString();
        new_files.append(QJsonObject { { path, path } });
    }
    handler_file_copy(new_files, import_root, root);
    handler_file_copy(obj.value(QLatin1String("copied")).toArray(), import_root, root);
    handler_file_rename(obj.value(QLatin1String("renamed")).toArray(), root, root);
    handler_file_remove(obj.value(QLatin1String("removed")).toArray(), root);
}

void context_file_handler_t::handler_file_copy(
    const QJsonArray& list, const QString& from_root, const QString& to_root)
{
    apply_pairs(copy_operation, list, from_root, to_root);
}

void context_file_handler_t::handler_file_rename(
    const QJsonArray& list, const QString& from_root, const QString& to_root)
{
    apply_pairs(rename_operation, list, from_root, to_root);
}

void context_file_handler_t::handler_file_remove(const QJsonArray& list, const QString& root)
{
    for (const QJsonValue& element : list) {
        const QString path = element.toString();
        if (path.isEmpty()) {
            HANDLER_LOG(QStringLiteral("File to remove is empty"), 2);
            continue;
        }
        const QString abs = context_monitor_t::relative_to_absolute_path(root, path);
        // Removing what is already gone is what the client asked for: nothing to report.
        if (!QFileInfo::exists(abs))
            continue;
        // QFile::remove unlinks files and links only; a directory stays and is reported.
        if (!QFile::remove(abs))
            HANDLER_LOG(QStringLiteral("Unable to remove %1 ").arg(abs), 2);
    }
}

void context_file_handler_t::replace_context(const QString& context_root,
    const QList<QString>& remove_list, const QString& source_root, const QList<QString>& copy_list)
{
    for (const QString& path : remove_list) {
        const QString abs = context_monitor_t::relative_to_absolute_path(context_root, path);
        if (QFileInfo::exists(abs) && !QFile::remove(abs))
            HANDLER_LOG(QStringLiteral("Unable to remove %1 ").arg(abs), 2);
    }
    for (const QString& path : copy_list) {
        const QString src = context_monitor_t::relative_to_absolute_path(source_root, path);
        const QString dst = context_monitor_t::relative_to_absolute_path(context_root, path);
        context_monitor_t::create_dir(QFileInfo(dst).absolutePath());
        // No check on the source: a missing one shows as a failed copy.
        if (QFile::copy(src, dst))
            HANDLER_LOG(QStringLiteral("File %1 copied to %2").arg(src, dst), 2);
        else
            HANDLER_LOG(QStringLiteral("Unable to copied file %1 to %2").arg(src, dst), 2);
    }
}

bool context_file_handler_t::create_dir(const QString& path)
{
    if (QDir(path).exists()) {
        HANDLER_LOG(QStringLiteral("Directory %1 already existed").arg(path), 6);
        return true;
    }
    // Success and failure share level 2: creating a directory here is unusual enough to show.
    if (!QDir().mkpath(path)) {
        HANDLER_LOG(QStringLiteral("Unable to create a directory %1").arg(path), 2);
        return false;
    }
    HANDLER_LOG(QStringLiteral("Create a directory %1").arg(path), 2);
    return true;
}

void context_file_handler_t::clean_tmp_folder(const QString& path, const bool& recreate)
{
    // Files and directories without "." and "..": hidden and system entries are not counted,
    // so a folder that holds only those is treated as empty.
    QDir dir(path);
    dir.setFilter(QDir::AllEntries | QDir::NoDotAndDotDot);
    const bool exists = dir.exists();

    if (exists && dir.entryList().isEmpty()) {
        if (!recreate) {
            remove_directory(path, dir);
            return;
        }
        HANDLER_LOG(QStringLiteral("Directory ready: %1").arg(path), 4);
        return;
    }

    if (exists) {
        HANDLER_LOG(QStringLiteral("Try to remove and recreate directory: %1").arg(path), 6);
        if (!remove_directory(path, dir)) {
            HANDLER_LOG(QStringLiteral("Unable to remove directory: %1").arg(path), 2);
            return;
        }
    }

    if (!recreate)
        return;

    if (QDir().mkpath(path))
        HANDLER_LOG(QStringLiteral("Directory ready: %1").arg(path), 4);
    else
        HANDLER_LOG(QStringLiteral("Unable to create directory: %1").arg(path), 2);
}

void context_file_handler_t::print(const QJsonObject& obj)
{
    print_file_new(obj.value(QLatin1String("new")).toArray());
    print_file_remove(obj.value(QLatin1String("removed")).toArray());
    print_file_copy(obj.value(QLatin1String("copied")).toArray());
    print_file_rename(obj.value(QLatin1String("renamed")).toArray());
}

void context_file_handler_t::print_file_new(const QJsonArray& list)
{
    if (list.isEmpty())
        return;
    print_lines(__func__, QStringLiteral("NEW FILEs"), path_lines(list));
}

void context_file_handler_t::print_file_remove(const QJsonArray& list)
{
    if (list.isEmpty())
        return;
    print_lines(__func__, QStringLiteral("REMOVED FILEs"), path_lines(list));
}

void context_file_handler_t::print_file_copy(const QJsonArray& list)
{
    if (list.isEmpty())
        return;
    print_lines(__func__, QStringLiteral("COPIED FILEs"), pair_lines(list));
}

void context_file_handler_t::print_file_rename(const QJsonArray& list)
{
    if (list.isEmpty())
        return;
    print_lines(__func__, QStringLiteral("RENAMED FILEs"), pair_lines(list));
}

} // namespace context_sync_engine
