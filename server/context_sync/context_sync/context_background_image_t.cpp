#include "context_sync/context_sync/context_background_image_t.h"

#include <QDebug>
#include <QFile>
#include <QIODevice>
#include <QStringList>

#include <limits>

namespace context_sync_engine {

const QByteArray context_background_image_t::PNG_SIGNATURE
    = QByteArray::fromHex(QByteArrayLiteral("89504E470D0A1A0A"));

const QString context_background_image_t::relative_path
    = QStringLiteral("%1%2").arg(QStringLiteral("background"), QStringLiteral("/"));

const QMap<context_background_image_t::ImageType, QString>
    context_background_image_t::supported_format {
        { context_background_image_t::JPEG, QStringLiteral("JPEG") },
        { context_background_image_t::PNG, QStringLiteral("PNG") },
    };

const QMap<context_background_image_t::ImageType, QString>
    context_background_image_t::supported_format_converter {
        { context_background_image_t::JPEG, QStringLiteral("JPEG") },
        { context_background_image_t::PNG, QStringLiteral("PNG") },
        { context_background_image_t::GIF, QStringLiteral("GIF") },
        { context_background_image_t::WEBP, QStringLiteral("WEBP") },
        { context_background_image_t::UNKNOWN, QStringLiteral("UNKNOWN") },
    };

namespace {

// Reads exactly `count` bytes; whatever is missing at the end of the device reads as zero, so a
// truncated header yields zero fields instead of an error.
QByteArray read_padded(QIODevice& device, qint64 count)
{
    QByteArray bytes = device.read(count);
    if (bytes.size() < count)
        bytes.append(QByteArray(count - bytes.size(), '\0'));
    return bytes;
}

quint32 big_endian_16(const QByteArray& bytes, qsizetype offset)
{
    return (quint32(quint8(bytes.at(offset))) << 8) | quint32(quint8(bytes.at(offset + 1)));
}

quint32 big_endian_32(const QByteArray& bytes, qsizetype offset)
{
    return (big_endian_16(bytes, offset) << 16) | big_endian_16(bytes, offset + 2);
}

quint32 little_endian_16(const QByteArray& bytes, qsizetype offset)
{
    return quint32(quint8(bytes.at(offset))) | (quint32(quint8(bytes.at(offset + 1))) << 8);
}

quint32 little_endian_32(const QByteArray& bytes, qsizetype offset)
{
    return little_endian_16(bytes, offset) | (little_endian_16(bytes, offset + 2) << 16);
}

bool starts_with_gif_signature(const QByteArray& bytes)
{
    return bytes.startsWith("GIF87a") || bytes.startsWith("GIF89a");
}

// Walks the JPEG marker stream up to the first SOF0..SOF3 frame header. Every other marker is
// taken as a segment with a length field and skipped whole, the other frame types included, so
// arithmetic-coded or hierarchical images (SOF5..SOF15) are never reported.
bool read_jpeg_frame_size(QIODevice& device, QSize& size)
{
    char first = 0;
    char second = 0;
    if (!device.getChar(&first) || !device.getChar(&second) || quint8(first) != 0xFF
        || quint8(second) != 0xD8)
        return false;

    char byte = 0;
    while (device.getChar(&byte)) {
        if (quint8(byte) != 0xFF)
            continue;
        char marker = 0;
        do {
            if (!device.getChar(&marker))
                return false;
        } while (quint8(marker) == 0xFF);

        const QByteArray length_field = device.read(2);
        // A stream that ends inside a length field has no frame header left; stopping here also
        // keeps the seek below from stepping back onto the marker for ever.
        if (length_field.size() < 2)
            return false;
        const qint64 length = big_endian_16(length_field, 0);

        if ((quint8(marker) & 0xFC) == 0xC0) {
            // Sample precision, then height, then width.
            const QByteArray frame = read_padded(device, 5);
            size = QSize(int(big_endian_16(frame, 3)), int(big_endian_16(frame, 1)));
            return true;
        }
        // Lengths below 2 step back onto the length bytes themselves (0x00, 0x01), which the loop
        // then passes over, so the walk always moves forward.
        if (!device.seek(device.pos() + length - 2))
            return false;
    }
    return false;
}

bool read_png_size(QIODevice& device, QSize& size)
{
    if (!device.seek(8))
        return false;
    // Length, type, the 13 data bytes and the CRC of the first chunk, which must be IHDR.
    const QByteArray chunk = read_padded(device, 25);
    if (chunk.sliced(4, 4) != "IHDR")
        return false;
    size = QSize(int(big_endian_32(chunk, 8)), int(big_endian_32(chunk, 12)));
    return true;
}

bool read_gif_size(QIODevice& device, QSize& size)
{
    const QByteArray header = read_padded(device, 10);
    if (!starts_with_gif_signature(header))
        return false;
    // Logical screen width and height.
    size = QSize(int(little_endian_16(header, 6)), int(little_endian_16(header, 8)));
    return true;
}

bool read_webp_size(QIODevice& device, QSize& size)
{
    // Four-character code of the first chunk, its size field, four payload bytes.
    const QByteArray chunk = device.seek(12) ? read_padded(device, 12) : QByteArray(12, '\0');
    size = QSize(int(little_endian_32(chunk, 4)), 0);
    return true;
}

// The header reader of `type` on a device positioned at the start of the file.
bool read_header_size(context_background_image_t::ImageType type, QIODevice& device, QSize& size)
{
    switch (type) {
    case context_background_image_t::JPEG:
        return read_jpeg_frame_size(device, size);
    case context_background_image_t::PNG:
        return read_png_size(device, size);
    case context_background_image_t::GIF:
        return read_gif_size(device, size);
    case context_background_image_t::WEBP:
        return read_webp_size(device, size);
    case context_background_image_t::UNKNOWN:
        break;
    }
    return false;
}

void warn(const QString& message)
{
    // nospace: the space mode of QDebug would chop a trailing blank that belongs to the message.
    qWarning().noquote().nospace() << message;
}

} // namespace

bool context_background_image_t::validator(const QString& path)
{
    ImageType type = UNKNOWN;
    QSize size(0, 0);
    if (!isValidImage(path, &type, &size, maximum_file_size)) {
        warn(QStringLiteral("File %1 not a valid image!").arg(path));
        return false;
    }
    if (!supported_format.contains(type)) {
        qWarning().noquote().nospace()
            << "Format not supported: " << supported_format_converter.value(type)
            << " supported format is " << QStringList(supported_format.values()).join("; ");
        return false;
    }
    if (size.height() == supported_height && size.width() == supported_width)
        return true;
    // Height first, then width, in both pairs.
    warn(QStringLiteral("Size [%1; %2] not supported! Supported size is [%3; %4] ")
             .arg(size.height())
             .arg(size.width())
             .arg(supported_height)
             .arg(supported_width));
    return false;
}

bool context_background_image_t::isValidImage(
    const QString& path, ImageType* type, QSize* size, qint64 max_file_size)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    const qint64 file_size = file.size();
    if (max_file_size >= 1 && file_size > max_file_size)
        return false;

    const QByteArray header = file.read(16);
    const int clamped_size = int(qMin<qint64>(file_size, std::numeric_limits<int>::max()));
    const ImageType detected = detectType(header, clamped_size);

    if (type)
        *type = detected;
    if (detected == UNKNOWN)
        return false;
    if (!size)
        return true;

    // The header readers work on the file already open: the scan validates every file of the
    // tree, and a second open, status and close per image was most of the validator's cost.
    QSize read_size(-1, -1);
    if (!file.seek(0) || !read_header_size(detected, file, read_size))
        return false;
    *size = read_size;
    return true;
}

context_background_image_t::ImageType context_background_image_t::detectType(
    const QByteArray& header, int file_size)
{
    if (file_size >= 5 && header.startsWith(QByteArrayView("\xFF\xD8", 2)))
        return JPEG;
    if (header.startsWith(PNG_SIGNATURE))
        return PNG;
    if (starts_with_gif_signature(header))
        return GIF;
    if (header.size() >= 12 && header.first(4) == "RIFF" && header.sliced(8, 4) == "WEBP")
        return WEBP;
    return UNKNOWN;
}

bool context_background_image_t::readJPEG(const QString& path, QSize& size)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) && read_jpeg_frame_size(file, size);
}

bool context_background_image_t::readPNG(const QString& path, QSize& size)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) && read_png_size(file, size);
}

bool context_background_image_t::readGIF(const QString& path, QSize& size)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) && read_gif_size(file, size);
}

bool context_background_image_t::readWebP(const QString& path, QSize& size)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) && read_webp_size(file, size);
}

} // namespace context_sync_engine
