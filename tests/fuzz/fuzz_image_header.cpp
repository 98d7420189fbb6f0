// Background-image signature detection and the four header readers, on files a client may push
// into the background folder. The input is the whole file; it is written to the scratch folder
// (the readers take paths, as the monitor calls them) and then judged by every entry point. The
// first 16 bytes, with any declared file size, go to detectType as well. Properties: detection
// from the file agrees with detection from its first bytes, and an accepted image is a JPEG or PNG
// of the supported size and no larger than the limit.

#include "context_sync/context_sync/context_background_image_t.h"

#include "fuzz_support.h"

#include <QByteArray>
#include <QSize>

#include <cstddef>
#include <cstdint>

using context_sync_engine::context_background_image_t;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz_support::ensure_application();
    static const QString path = fuzz_support::scratch_dir() + QStringLiteral("image");

    const QByteArray bytes(reinterpret_cast<const char*>(data), qsizetype(size));
    const QByteArray header = bytes.left(16);

    // detectType alone, with the true size and with sizes a caller might get wrong.
    const auto from_header = context_background_image_t::detectType(header, int(size));
    context_background_image_t::detectType(header, 0);
    context_background_image_t::detectType(header, -1);
    context_background_image_t::detectType(QByteArray(), int(size));

    if (!fuzz_support::write_file(path, bytes))
        return 0;

    QSize read_size;
    context_background_image_t::readJPEG(path, read_size);
    context_background_image_t::readPNG(path, read_size);
    context_background_image_t::readGIF(path, read_size);
    context_background_image_t::readWebP(path, read_size);

    auto type = context_background_image_t::UNKNOWN;
    QSize pixels;
    context_background_image_t::isValidImage(path, &type, &pixels, 0);
    FUZZ_CHECK(type == from_header);
    context_background_image_t::isValidImage(path, nullptr, nullptr, 0);
    context_background_image_t::isValidImage(path, &type, nullptr, 16);

    if (context_background_image_t::validator(path)) {
        FUZZ_CHECK(from_header == context_background_image_t::JPEG
            || from_header == context_background_image_t::PNG);
        FUZZ_CHECK(qint64(size) <= context_background_image_t::maximum_file_size);
        QSize accepted;
        FUZZ_CHECK(context_background_image_t::isValidImage(path, nullptr, &accepted, 0));
        FUZZ_CHECK(accepted
            == QSize(context_background_image_t::supported_width,
                context_background_image_t::supported_height));
    }
    return 0;
}
