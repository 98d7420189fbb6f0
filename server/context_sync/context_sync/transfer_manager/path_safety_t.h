// path_safety_t decides whether a path that a client sent may be used below the context root: a
// relative path with "/" separators that cannot climb out of the root, name the root itself,
// smuggle a separator or control character into a file name, or grow without bound. Every
// client-supplied path (chunk "file", download lists, delete/rename/copy entries, replace
// descriptions) goes through it before it is joined to the root.
//
// Thread: none; pure static functions. Owns nothing, emits nothing.
#pragma once

#include "context_sync/context_sync_export.h"

#include <QString>

namespace context_sync_engine {

class CONTEXT_SYNC_EXPORT path_safety_t {
public:
    // Longest accepted path, in UTF-8 bytes.
    static constexpr qsizetype MAX_PATH_BYTES = 1024;

    // True when `path` is a safe relative path: not empty, at most MAX_PATH_BYTES bytes of UTF-8,
    // valid UTF-16 without control characters (C0, DEL, C1) or backslashes, not starting with
    // "/", and made only of non-empty segments other than "." and "..". On refusal, `reason`
    // (when given) receives a short English description such as "contains a '..' segment".
    static bool is_safe_relative_path(const QString& path, QString* reason = nullptr);

    // `path` with control characters and backslashes written as \xNN, so that a refused path can
    // be put on one log line as it was received.
    static QString printable(const QString& path);
};

} // namespace context_sync_engine
