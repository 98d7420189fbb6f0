// Builds one log line stream-style and hands it to the log facility when the builder dies:
//     utility::logs::LogStream(utility::logs::Info, __func__, "server/x/y_t", __LINE__) << "n=" <<
//     n;
// Without a facility instance the line goes to Qt's information stream instead, prefixed with
// "[file] [function] [line] ". One builder is used by one thread for one line; it owns only its
// text buffer and emits no signals.
#pragma once

#include "context_sync/context_sync_export.h"

#include "platform/logs/log_level.h"

#include <QString>
#include <QTextStream>

namespace utility::logs {

class CONTEXT_SYNC_EXPORT LogStream {
public:
    LogStream(LogLevel level, const QString& function, const QString& file, int line);
    ~LogStream();

    LogStream(const LogStream&) = delete;
    LogStream& operator=(const LogStream&) = delete;

    template <typename T> LogStream& operator<<(const T& value)
    {
        stream << value;
        return *this;
    }

private:
    LogLevel level;
    QString function;
    QString file;
    int line;
    QString buffer;
    QString message;
    QTextStream stream;
};

} // namespace utility::logs

// A LogStream for the calling function and line; `file` is the class's log source name.
#define ORVANE_LOG_STREAM(level, file)                                                             \
    ::utility::logs::LogStream((level), __func__, (file), __LINE__)
