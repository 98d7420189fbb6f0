// One line handed to the log facility, as it reaches the writer thread and any listener.
#pragma once

#include <QDateTime>
#include <QString>

namespace utility::logs {

struct log_record_t {
    QString message;
    int level = 0;
    QString function;
    QString file;
    int line = 0;
    QDateTime time;
};

}  // namespace utility::logs
