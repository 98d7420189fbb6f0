#include "temp_tree_t.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>

namespace test_support {

temp_tree_t::temp_tree_t() = default;

QString temp_tree_t::root() const
{
    return dir_.path() + '/';
}

QString temp_tree_t::path(const QString& relative) const
{
    return root() + relative;
}

bool temp_tree_t::write(const QString& relative, const QByteArray& data) const
{
    const QString full = path(relative);
    QDir().mkpath(QFileInfo(full).absolutePath());
    QFile file(full);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    return file.write(data) == data.size();
}

QByteArray temp_tree_t::read(const QString& relative) const
{
    QFile file(path(relative));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}

bool temp_tree_t::exists(const QString& relative) const
{
    return QFileInfo::exists(path(relative));
}

bool temp_tree_t::mkdir(const QString& relative) const
{
    return QDir().mkpath(path(relative));
}

bool temp_tree_t::remove(const QString& relative) const
{
    QFileInfo info(path(relative));
    if (info.isDir() && !info.isSymLink())
        return QDir(info.filePath()).removeRecursively();
    return QFile::remove(info.filePath());
}

QStringList temp_tree_t::files() const
{
    QStringList result;
    QDirIterator it(dir_.path(), QDir::Files | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    const QDir base(dir_.path());
    while (it.hasNext())
        result.append(base.relativeFilePath(it.next()));
    result.sort();
    return result;
}

QByteArray temp_tree_t::random_bytes(qsizetype size, quint32 seed)
{
    QByteArray data(size, Qt::Uninitialized);
    QRandomGenerator generator(seed);
    for (qsizetype i = 0; i < size; ++i)
        data[i] = char(generator.generate() & 0xff);
    return data;
}

QByteArray temp_tree_t::text_bytes(qsizetype size)
{
    static const QByteArray line =
        "The context root holds the backgrounds that every client shows, 640 x 284 pixels.\n";
    QByteArray data;
    data.reserve(size);
    int counter = 0;
    while (data.size() < size)
        data += QByteArray::number(counter++) + ": " + line;
    data.truncate(size);
    return data;
}

}  // namespace test_support
