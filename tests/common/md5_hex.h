// The MD5 of some bytes as 32 lower-case hexadecimal characters, the form in which the system
// names a file's content. Computed with Qt alone, so that a test never takes the hash it expects
// from the code it checks.
#pragma once

#include <QByteArray>
#include <QCryptographicHash>
#include <QString>

namespace test_support {

inline QString md5_hex(const QByteArray& bytes)
{
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex());
}

} // namespace test_support
