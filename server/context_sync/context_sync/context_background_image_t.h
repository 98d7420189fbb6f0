// Decides whether a file placed in the background-image folder of the context root may stay there:
// it must be a JPEG or PNG of exactly 640 x 284 pixels and at most 1 MiB on disk. The format is
// recognised from the first bytes of the file and the pixel size is read from the format's header;
// nothing is ever decoded.
//
// A namespace of static functions in class form: never instantiated, no signals, owns nothing.
// The constants are built once, when the library is loaded, and only read afterwards, so every
// function may run on any thread at once. Refusals are reported by `validator` on Qt's warning
// stream (default category), not through the log facility; the class never deletes or moves
// files (the context monitor does that with a refused file).
#pragma once

#include "context_sync/context_sync_export.h"

#include <QByteArray>
#include <QMap>
#include <QSize>
#include <QString>
#include <QtGlobal>

namespace context_sync_engine {

class CONTEXT_SYNC_EXPORT context_background_image_t {
public:
    enum ImageType : int {
        JPEG = 0,
        PNG = 1,
        GIF = 2,
        WEBP = 3,
        UNKNOWN = 4,
    };

    // The eight bytes every PNG file starts with.
    static const QByteArray PNG_SIGNATURE;
    // Directory, relative to the context root, whose files this class judges: "background/".
    static const QString relative_path;
    // The formats `validator` accepts, with their display texts: JPEG and PNG.
    static const QMap<ImageType, QString> supported_format;
    // Display text of every ImageType, UNKNOWN included.
    static const QMap<ImageType, QString> supported_format_converter;

    // Limits applied by `validator`.
    static constexpr qint64 maximum_file_size = 1048576;
    static constexpr int supported_width = 640;
    static constexpr int supported_height = 284;

    context_background_image_t() = delete;

    // True when the file at `path` (absolute) is acceptable as a background image; otherwise
    // writes one warning saying why and returns false.
    static bool validator(const QString& path);

    // True when the file can be opened, is not larger than `max_file_size` (0 or less: no limit),
    // has a recognised signature and, when `size` is given, a readable header. `type` receives the
    // detected type (UNKNOWN included) and `size` the pixel size; either may be null. A null
    // `size` skips the header entirely.
    static bool isValidImage(
        const QString& path, ImageType* type, QSize* size, qint64 max_file_size);

    // Identifies the format from the first bytes of a file (16 are enough) and its size.
    static ImageType detectType(const QByteArray& header, int file_size);

    // Header readers: each opens the file itself and stores (width, height) in `size` on success.
    // Bytes missing at the end of a short file read as zero.
    static bool readJPEG(const QString& path, QSize& size);
    static bool readPNG(const QString& path, QSize& size);
    static bool readGIF(const QString& path, QSize& size);
    // Reports the first chunk's size field as the width and 0 as the height: the VP8, VP8L and
    // VP8X headers are deliberately not parsed, since WebP is refused on its format anyway.
    static bool readWebP(const QString& path, QSize& size);
};

} // namespace context_sync_engine
