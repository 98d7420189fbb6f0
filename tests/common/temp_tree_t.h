// A temporary directory tree for one test, removed when the object dies. Paths given to it are
// relative to its root; parent folders are created as needed.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

namespace test_support {

class temp_tree_t {
public:
    temp_tree_t();

    bool is_valid() const { return dir_.isValid(); }
    // The root with a trailing "/", as the library expects a context root.
    QString root() const;
    QString path(const QString& relative) const;

    bool write(const QString& relative, const QByteArray& data) const;
    QByteArray read(const QString& relative) const;
    bool exists(const QString& relative) const;
    bool mkdir(const QString& relative) const;
    bool remove(const QString& relative) const;
    // Relative paths of every regular file below the root (hidden ones included), sorted.
    QStringList files() const;

    // Deterministic content for transfer tests: incompressible bytes, and compressible text.
    static QByteArray random_bytes(qsizetype size, quint32 seed = 1);
    static QByteArray text_bytes(qsizetype size);

private:
    QTemporaryDir dir_;
};

}  // namespace test_support
