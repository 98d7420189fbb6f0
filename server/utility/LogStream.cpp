#include "utility/LogStream.h"

#include "platform/logs/classlogs.h"

#include <QDebug>
#include <QIODevice>

namespace utility::logs {

LogStream::LogStream(LogLevel level_, const QString& function_, const QString& file_, int line_)
    : level(level_)
    , function(function_)
    , file(file_)
    , line(line_)
    , stream(&buffer, QIODevice::ReadWrite)
{
}

LogStream::~LogStream()
{
    stream.flush();
    message = buffer;
    if (message.isEmpty())
        return;
    // write() queues under the facility's own lock, so a facility destroyed meanwhile on another
    // thread costs this line but never a dangling pointer.
    if (classlogs::getInstance()) {
        classlogs::write(
            message, level, function.toLatin1().constData(), file.toLatin1().constData(), line);
        return;
    }
    qInfo().noquote()
        << QStringLiteral("[%1] [%2] [%3] %4").arg(file, function, QString::number(line), message);
}

} // namespace utility::logs
