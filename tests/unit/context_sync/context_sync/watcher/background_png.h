// Real PNG images for the monitor's tests and benchmarks: 8-bit greyscale, zlib-compressed
// scanlines, CRC-checked chunks. A different seed gives different pixels (so a different file
// hash) at the same pixel size; 640 x 284 is the only size background/ accepts.
#pragma once

#include <QByteArray>
#include <QtEndian>

#include <array>
#include <cstdint>

namespace test_support {

inline quint32 png_crc32(const QByteArray& bytes)
{
    static const std::array<quint32, 256> table = [] {
        std::array<quint32, 256> t {};
        for (quint32 n = 0; n < 256; ++n) {
            quint32 c = n;
            for (int k = 0; k < 8; ++k)
                c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            t[n] = c;
        }
        return t;
    }();
    quint32 crc = 0xFFFFFFFFu;
    for (const char byte : bytes)
        crc = table[(crc ^ static_cast<quint8>(byte)) & 0xFF] ^ (crc >> 8);
    return crc ^ 0xFFFFFFFFu;
}

inline void png_append_chunk(QByteArray& out, const char* type, const QByteArray& data)
{
    char length[4];
    qToBigEndian<quint32>(static_cast<quint32>(data.size()), length);
    out.append(length, 4);
    const QByteArray body = QByteArray(type, 4) + data;
    out.append(body);
    char crc[4];
    qToBigEndian<quint32>(png_crc32(body), crc);
    out.append(crc, 4);
}

inline QByteArray make_png(int width, int height, quint32 seed)
{
    QByteArray header(13, '\0');
    qToBigEndian<quint32>(static_cast<quint32>(width), header.data());
    qToBigEndian<quint32>(static_cast<quint32>(height), header.data() + 4);
    header[8] = 8; // bit depth
    header[9] = 0; // greyscale

    QByteArray raw((width + 1) * height, Qt::Uninitialized);
    char* out = raw.data();
    quint32 state = seed * 2654435761u + 1;
    for (int y = 0; y < height; ++y) {
        *out++ = '\0'; // filter: none
        for (int x = 0; x < width; ++x) {
            state = state * 1103515245u + 12345u;
            // Mostly smooth, a little noise: small files, still seed-dependent everywhere.
            *out++ = static_cast<char>(((x + y + seed) & 0xF0) | ((state >> 28) & 0x1));
        }
    }
    // qCompress prefixes the zlib stream with its own 4-byte length; PNG wants the bare stream.
    const QByteArray compressed = qCompress(raw, 1).mid(4);

    QByteArray png = QByteArray::fromHex("89504E470D0A1A0A");
    png_append_chunk(png, "IHDR", header);
    png_append_chunk(png, "IDAT", compressed);
    png_append_chunk(png, "IEND", QByteArray());
    return png;
}

inline QByteArray make_background_png(quint32 seed)
{
    return make_png(640, 284, seed);
}

} // namespace test_support
