// Captures what is written to Qt's debug/info/warning streams while the object lives (the image
// validator and the idle wait report there instead of the log facility). Messages still go on to
// the previous handler. One capture at a time; it is not meant to be nested across threads.
#pragma once

#include <QList>
#include <QMutex>
#include <QString>
#include <QtGlobal>

namespace test_support {

class qt_message_capture_t {
public:
    struct entry_t {
        QtMsgType type;
        QString message;
    };

    qt_message_capture_t();
    ~qt_message_capture_t();
    qt_message_capture_t(const qt_message_capture_t&) = delete;
    qt_message_capture_t& operator=(const qt_message_capture_t&) = delete;

    QList<entry_t> entries() const;
    QStringList messages(QtMsgType type) const;
    bool contains(QtMsgType type, const QString& message) const;
    void clear();

private:
    static void handler(QtMsgType type, const QMessageLogContext& context, const QString& message);

    QtMessageHandler previous_ = nullptr;
    mutable QMutex mutex_;
    QList<entry_t> entries_;
};

}  // namespace test_support
