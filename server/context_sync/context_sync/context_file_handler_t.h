// Applies to a directory tree the file operations that a client describes in JSON: "copied" and
// "renamed" (arrays of one-member objects, old path to new path), "removed" and "new" (arrays of
// paths), every path relative to a root. It also imports a change set whose new files come from a
// separate tree, replaces files in bulk from another tree, dumps a change set to the log, creates
// directories and empties scratch folders.
//
// Thread: works synchronously on the caller's thread (the sync service's thread for the instance
// the service owns; any thread for the static operations). Owns nothing but the root path; emits
// no signals. Every outcome is reported only through the log facility; a batch never stops at a
// bad entry and nothing is rolled back. Path joining is a plain concatenation of root and relative
// path: entries from clients are checked for "..", absolute paths and the like before they reach
// this class, not here.
#pragma once

#include "context_sync/context_sync_export.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QString>

namespace context_sync_engine {

class CONTEXT_SYNC_EXPORT context_file_handler_t : public QObject {
    Q_OBJECT

public:
    // Normalises `path` as a directory path and makes sure the directory exists.
    explicit context_file_handler_t(const QString& path, QObject* parent = nullptr);

    // Applies "copied", then "renamed", then "removed", all inside the root. Returns how many
    // entries were submitted (not how many succeeded). "new" is ignored: new files arrive through
    // the file transfer.
    int handler_file(const QJsonObject& obj);

    // Copies every "new" file and every "copied" source from `import_path` into the root at the
    // given relative paths, then applies "renamed" and "removed" inside the root.
    void handler_import_file(const QJsonObject& obj, const QString& import_path);

    // Each element: {source relative path: destination relative path}. Only the first member (in
    // sorted key order) counts. A copy never overwrites an existing destination; the destination's
    // directory is created first.
    static void handler_file_copy(
        const QJsonArray& list, const QString& from_root, const QString& to_root);
    // Like handler_file_copy, moving instead of copying.
    static void handler_file_rename(
        const QJsonArray& list, const QString& from_root, const QString& to_root);
    // Each element: a relative path. Absent files are skipped silently; directories stay.
    static void handler_file_remove(const QJsonArray& list, const QString& root);

    // Removes `remove_list` from `context_root`, then copies `copy_list` from `source_root` to the
    // same relative paths in `context_root`, so a path in both lists is replaced.
    static void replace_context(const QString& context_root, const QList<QString>& remove_list,
        const QString& source_root, const QList<QString>& copy_list);

    static bool create_dir(const QString& path);

    // Leaves an empty directory at `path` (recreate true) or no directory (recreate false). An
    // empty existing directory is kept as it is. When `path` is a symbolic link to a directory,
    // the link is removed, never what it points to.
    static void clean_tmp_folder(const QString& path, const bool& recreate);

    // Logs "new", "removed", "copied" and "renamed" of a change set, one line per entry.
    static void print(const QJsonObject& obj);
    static void print_file_new(const QJsonArray& list);
    static void print_file_remove(const QJsonArray& list);
    static void print_file_copy(const QJsonArray& list);
    static void print_file_rename(const QJsonArray& list);

private:
    QString root;
    // Kept for the layout of the class; no operation reads it.
    QString current_dir_prefix;
};

} // namespace context_sync_engine
