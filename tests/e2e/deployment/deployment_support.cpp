#include "deployment_support.h"

#include "common/temp_tree_t.h"

#include <QFile>
#include <QtEndian>

namespace deployment {

namespace {

quint32 crc32(const QByteArray& bytes)
{
    quint32 crc = 0xffffffffu;
    for (const char byte : bytes) {
        crc ^= quint8(byte);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ (0xedb88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

QByteArray png_chunk(const QByteArray& kind, const QByteArray& data)
{
    QByteArray chunk(4, '\0');
    qToBigEndian(quint32(data.size()), chunk.data());
    const QByteArray body = kind + data;
    QByteArray crc(4, '\0');
    qToBigEndian(crc32(body), crc.data());
    return chunk + body + crc;
}

} // namespace

QStringList ctxsync_arguments(
    const endpoint_t& at, const QString& client_id, const QStringList& command, int timeout_s)
{
    QStringList arguments { QStringLiteral("--broker"), at.text(), QStringLiteral("--client-id"),
        client_id, QStringLiteral("--topic-base"), at.topic_base, QStringLiteral("--protocol"),
        at.protocol == 4 ? QStringLiteral("3.1.1") : QStringLiteral("5"),
        QStringLiteral("--timeout"), QString::number(timeout_s) };
    if (!at.username.isEmpty())
        arguments << QStringLiteral("--username") << at.username << QStringLiteral("--password")
                  << at.password;
    return arguments + command;
}

run_t ctxsync(const endpoint_t& at, const QString& client_id, const QStringList& command,
    int timeout_s, int wall_ms)
{
    reliability::ctxsync_process_t process;
    if (!process.start(ctxsync_arguments(at, client_id, command, timeout_s)))
        return run_t();
    return process.finish(wall_ms);
}

QByteArray fixture(const QString& name)
{
    return reliability::read_file(reliability::fixture_image(name));
}

QByteArray padded_png(qsizetype size, quint32 seed)
{
    const QByteArray png = fixture(QStringLiteral("bg_640x284.png"));
    const qsizetype iend = png.size() - 12;
    const qsizetype filler = size - png.size() - 12;
    if (filler < 0)
        return QByteArray();
    return png.left(iend)
        + png_chunk(
            QByteArrayLiteral("rnDm"), test_support::temp_tree_t::random_bytes(filler, seed))
        + png.mid(iend);
}

qint64 proc_status_kib(qint64 pid, const char* key)
{
    QFile file(QStringLiteral("/proc/%1/status").arg(pid));
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray prefix = QByteArray(key) + ':';
    for (const QByteArray& line : file.readAll().split('\n')) {
        if (line.startsWith(prefix))
            return line.mid(prefix.size()).trimmed().split(' ').value(0).toLongLong();
    }
    return -1;
}

} // namespace deployment
