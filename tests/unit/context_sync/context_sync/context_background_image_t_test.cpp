#include "context_sync/context_sync/context_background_image_t.h"

#include "common/qt_message_capture_t.h"
#include "common/temp_tree_t.h"

#include <QByteArray>
#include <QFile>
#include <QSize>

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

using context_sync_engine::context_background_image_t;
using image_t = context_background_image_t;

namespace {

QString fixture(const char* name)
{
    return QStringLiteral(CONTEXT_SYNC_TEST_DATA_DIR "/images/") + QString::fromLatin1(name);
}

QByteArray read_fixture(const char* name)
{
    QFile file(fixture(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QString not_valid(const QString& path)
{
    return QStringLiteral("File %1 not a valid image!").arg(path);
}

const QString kFormatWarningGif
    = QStringLiteral("Format not supported: GIF supported format is JPEG; PNG");
const QString kFormatWarningWebp
    = QStringLiteral("Format not supported: WEBP supported format is JPEG; PNG");

// The header bytes of a JPEG frame segment: marker, length 17, precision 8, height, width.
QByteArray frame_segment(quint8 marker, quint16 height, quint16 width)
{
    QByteArray bytes("\xFF");
    bytes.append(char(marker));
    bytes.append(QByteArray::fromHex("001108"));
    bytes.append(char(height >> 8)).append(char(height & 0xFF));
    bytes.append(char(width >> 8)).append(char(width & 0xFF));
    bytes.append(QByteArray::fromHex("03012200021101031101"));
    return bytes;
}

const QByteArray kSoi = QByteArray::fromHex("FFD8");

} // namespace

// --- constants ---------------------------------------------------------------------------------

TEST(ContextBackgroundImage, ConstantsHoldTheDocumentedValues)
{
    EXPECT_EQ(image_t::PNG_SIGNATURE, QByteArray::fromHex("89504E470D0A1A0A"));
    EXPECT_EQ(image_t::PNG_SIGNATURE.size(), 8);
    EXPECT_EQ(image_t::relative_path, QStringLiteral("background/"));
    EXPECT_EQ(image_t::supported_format.keys(),
        (QList<image_t::ImageType> { image_t::JPEG, image_t::PNG }));
    EXPECT_EQ(image_t::supported_format.values(), (QStringList { "JPEG", "PNG" }));
    EXPECT_EQ(image_t::supported_format_converter.values(),
        (QStringList { "JPEG", "PNG", "GIF", "WEBP", "UNKNOWN" }));
    EXPECT_EQ(int(image_t::JPEG), 0);
    EXPECT_EQ(int(image_t::PNG), 1);
    EXPECT_EQ(int(image_t::GIF), 2);
    EXPECT_EQ(int(image_t::WEBP), 3);
    EXPECT_EQ(int(image_t::UNKNOWN), 4);
}

// --- validator on real encoder output ---------------------------------------------------------

TEST(ContextBackgroundImage, AcceptsPngOf640x284WithoutWarning)
{
    test_support::qt_message_capture_t capture;
    EXPECT_TRUE(image_t::validator(fixture("bg_640x284.png")));
    EXPECT_TRUE(capture.entries().isEmpty());
}

TEST(ContextBackgroundImage, AcceptsBaselineProgressiveAndExifJpegs)
{
    test_support::qt_message_capture_t capture;
    for (const char* name :
        { "bg_640x284_baseline.jpg", "bg_640x284_progressive.jpg", "bg_640x284_exif.jpg" }) {
        SCOPED_TRACE(name);
        EXPECT_TRUE(image_t::validator(fixture(name)));
        QSize size;
        EXPECT_TRUE(image_t::readJPEG(fixture(name), size));
        EXPECT_EQ(size, QSize(640, 284));
        image_t::ImageType type = image_t::UNKNOWN;
        EXPECT_TRUE(image_t::isValidImage(fixture(name), &type, &size, 1048576));
        EXPECT_EQ(type, image_t::JPEG);
    }
    EXPECT_TRUE(capture.entries().isEmpty());
}

TEST(ContextBackgroundImage, PngOfExactlyTheLimitIsAcceptedAndOneByteMoreIsRefused)
{
    ASSERT_EQ(QFile(fixture("padded_1048576.png")).size(), 1048576);
    ASSERT_EQ(QFile(fixture("padded_1048577.png")).size(), 1048577);

    test_support::qt_message_capture_t capture;
    EXPECT_TRUE(image_t::validator(fixture("padded_1048576.png")));
    EXPECT_TRUE(capture.entries().isEmpty());

    EXPECT_FALSE(image_t::validator(fixture("padded_1048577.png")));
    EXPECT_EQ(
        capture.messages(QtWarningMsg), QStringList { not_valid(fixture("padded_1048577.png")) });
}

TEST(ContextBackgroundImage, OversizedFileIsRefusedBeforeItsTypeIsRead)
{
    image_t::ImageType type = image_t::GIF;
    QSize size(7, 7);
    EXPECT_FALSE(image_t::isValidImage(fixture("padded_1048577.png"), &type, &size, 1048576));
    EXPECT_EQ(type, image_t::GIF);
    EXPECT_EQ(size, QSize(7, 7));
}

TEST(ContextBackgroundImage, ZeroOrNegativeLimitMeansNoLimit)
{
    QSize size;
    image_t::ImageType type = image_t::UNKNOWN;
    EXPECT_TRUE(image_t::isValidImage(fixture("padded_1048577.png"), &type, &size, 0));
    EXPECT_EQ(type, image_t::PNG);
    EXPECT_EQ(size, QSize(640, 284));
    EXPECT_TRUE(image_t::isValidImage(fixture("padded_1048577.png"), nullptr, nullptr, -1));
    EXPECT_FALSE(image_t::isValidImage(fixture("padded_1048577.png"), nullptr, nullptr, 1));
}

TEST(ContextBackgroundImage, PortraitJpegIsRefusedWithTheSizeWarningHeightFirst)
{
    test_support::qt_message_capture_t capture;
    EXPECT_FALSE(image_t::validator(fixture("bg_284x640.jpg")));
    EXPECT_EQ(capture.messages(QtWarningMsg),
        QStringList { "Size [640; 284] not supported! Supported size is [284; 640] " });

    QSize size;
    EXPECT_TRUE(image_t::readJPEG(fixture("bg_284x640.jpg"), size));
    EXPECT_EQ(size, QSize(284, 640));
}

TEST(ContextBackgroundImage, GifOf640x284IsRefusedOnItsFormat)
{
    test_support::qt_message_capture_t capture;
    EXPECT_FALSE(image_t::validator(fixture("bg_640x284.gif")));
    EXPECT_EQ(capture.messages(QtWarningMsg), QStringList { kFormatWarningGif });

    QSize size;
    EXPECT_TRUE(image_t::readGIF(fixture("bg_640x284.gif"), size));
    EXPECT_EQ(size, QSize(640, 284));
}

TEST(ContextBackgroundImage, WebpIsRecognisedButRefusedOnItsFormat)
{
    const QByteArray bytes = read_fixture("bg_640x284.webp");
    ASSERT_GE(bytes.size(), 20);
    EXPECT_EQ(image_t::detectType(bytes.first(16), int(bytes.size())), image_t::WEBP);

    test_support::qt_message_capture_t capture;
    EXPECT_FALSE(image_t::validator(fixture("bg_640x284.webp")));
    EXPECT_EQ(capture.messages(QtWarningMsg), QStringList { kFormatWarningWebp });
}

TEST(ContextBackgroundImage, WebpReaderReportsTheFirstChunkSizeAsWidth)
{
    const QByteArray bytes = read_fixture("bg_640x284.webp");
    ASSERT_GE(bytes.size(), 20);
    const int chunk_size = int(quint8(bytes.at(16)) | (quint8(bytes.at(17)) << 8)
        | (quint8(bytes.at(18)) << 16) | (quint8(bytes.at(19)) << 24));

    QSize size(-5, -5);
    EXPECT_TRUE(image_t::readWebP(fixture("bg_640x284.webp"), size));
    EXPECT_EQ(size, QSize(chunk_size, 0));
    EXPECT_NE(size, QSize(640, 284));
}

TEST(ContextBackgroundImage, JpegWhoseOnlyFrameHeaderIsSof9IsNotValid)
{
    QSize size(3, 3);
    EXPECT_FALSE(image_t::readJPEG(fixture("sof9_only.jpg"), size));
    EXPECT_EQ(size, QSize(3, 3));

    image_t::ImageType type = image_t::UNKNOWN;
    EXPECT_FALSE(image_t::isValidImage(fixture("sof9_only.jpg"), &type, &size, 1048576));
    EXPECT_EQ(type, image_t::JPEG);
    EXPECT_EQ(size, QSize(3, 3));

    test_support::qt_message_capture_t capture;
    EXPECT_FALSE(image_t::validator(fixture("sof9_only.jpg")));
    EXPECT_EQ(capture.messages(QtWarningMsg), QStringList { not_valid(fixture("sof9_only.jpg")) });
}

TEST(ContextBackgroundImage, PngWhoseFirstChunkIsNotIhdrIsNotValid)
{
    QSize size(3, 3);
    EXPECT_FALSE(image_t::readPNG(fixture("first_chunk_not_ihdr.png"), size));
    EXPECT_EQ(size, QSize(3, 3));

    test_support::qt_message_capture_t capture;
    EXPECT_FALSE(image_t::validator(fixture("first_chunk_not_ihdr.png")));
    EXPECT_EQ(capture.messages(QtWarningMsg),
        QStringList { not_valid(fixture("first_chunk_not_ihdr.png")) });
}

TEST(ContextBackgroundImage, NullSizePointerAcceptsAnyRecognisedSignatureWithoutReadingHeader)
{
    // Both files have a header the readers refuse; without a size nothing past 16 bytes is read.
    for (const char* name : { "sof9_only.jpg", "first_chunk_not_ihdr.png", "bg_640x284.gif",
             "bg_640x284.webp", "bg_284x640.jpg" }) {
        SCOPED_TRACE(name);
        image_t::ImageType type = image_t::UNKNOWN;
        EXPECT_TRUE(image_t::isValidImage(fixture(name), &type, nullptr, 1048576));
        EXPECT_NE(type, image_t::UNKNOWN);
        EXPECT_TRUE(image_t::isValidImage(fixture(name), nullptr, nullptr, 0));
    }

    test_support::temp_tree_t tree;
    // Signatures followed by nothing a reader could use.
    tree.write("jpeg", QByteArray::fromHex("FFD8000000"));
    tree.write("png", image_t::PNG_SIGNATURE);
    tree.write("gif", "GIF87a");
    tree.write("webp", QByteArray("RIFF\0\0\0\0WEBP", 12));
    const QList<QPair<QString, image_t::ImageType>> expected { { "jpeg", image_t::JPEG },
        { "png", image_t::PNG }, { "gif", image_t::GIF }, { "webp", image_t::WEBP } };
    for (const auto& [name, expected_type] : expected) {
        SCOPED_TRACE(name.toStdString());
        image_t::ImageType type = image_t::UNKNOWN;
        EXPECT_TRUE(image_t::isValidImage(tree.path(name), &type, nullptr, 0));
        EXPECT_EQ(type, expected_type);
    }
}

// --- signature detection -----------------------------------------------------------------------

TEST(ContextBackgroundImage, FourByteJpegStartIsUnknownBecauseJpegNeedsFiveBytes)
{
    const QByteArray four = QByteArray::fromHex("FFD8FFE0");
    EXPECT_EQ(image_t::detectType(four, 4), image_t::UNKNOWN);
    EXPECT_EQ(image_t::detectType(four, 5), image_t::JPEG);

    test_support::temp_tree_t tree;
    tree.write("four.jpg", four);
    image_t::ImageType type = image_t::JPEG;
    QSize size(9, 9);
    EXPECT_FALSE(image_t::isValidImage(tree.path("four.jpg"), &type, &size, 1048576));
    EXPECT_EQ(type, image_t::UNKNOWN);
    EXPECT_EQ(size, QSize(9, 9));

    test_support::qt_message_capture_t capture;
    EXPECT_FALSE(image_t::validator(tree.path("four.jpg")));
    EXPECT_EQ(capture.messages(QtWarningMsg), QStringList { not_valid(tree.path("four.jpg")) });
}

TEST(ContextBackgroundImage, DetectTypeChecksSignaturesInOrder)
{
    EXPECT_EQ(image_t::detectType(image_t::PNG_SIGNATURE + QByteArray(8, '\0'), 16), image_t::PNG);
    // Seven of the eight PNG bytes are not enough.
    EXPECT_EQ(image_t::detectType(image_t::PNG_SIGNATURE.first(7), 7), image_t::UNKNOWN);
    EXPECT_EQ(image_t::detectType("GIF87a", 6), image_t::GIF);
    EXPECT_EQ(image_t::detectType("GIF89a....", 10), image_t::GIF);
    EXPECT_EQ(image_t::detectType("GIF88a....", 10), image_t::UNKNOWN);
    EXPECT_EQ(image_t::detectType(QByteArray("RIFF\x10\0\0\0WEBPVP8 ", 16), 16), image_t::WEBP);
    EXPECT_EQ(image_t::detectType(QByteArray("RIFF\x10\0\0\0WAVEfmt ", 16), 16), image_t::UNKNOWN);
    EXPECT_EQ(image_t::detectType("RIFF", 4), image_t::UNKNOWN);
    EXPECT_EQ(image_t::detectType(QByteArray(), 0), image_t::UNKNOWN);
    // The JPEG test looks only at the first two bytes and the file size.
    EXPECT_EQ(image_t::detectType(QByteArray::fromHex("FFD8"), 5), image_t::JPEG);
    EXPECT_EQ(image_t::detectType(QByteArray::fromHex("FFD9FFE0"), 100), image_t::UNKNOWN);
    EXPECT_EQ(image_t::detectType("\x89PNG", 100), image_t::UNKNOWN);
}

// --- empty, missing, truncated -----------------------------------------------------------------

TEST(ContextBackgroundImage, EmptyFileIsUnknownAndNotValid)
{
    test_support::temp_tree_t tree;
    tree.write("empty.png", QByteArray());
    image_t::ImageType type = image_t::PNG;
    QSize size(1, 1);
    EXPECT_FALSE(image_t::isValidImage(tree.path("empty.png"), &type, &size, 1048576));
    EXPECT_EQ(type, image_t::UNKNOWN);
    EXPECT_EQ(size, QSize(1, 1));
    for (auto reader : { &image_t::readJPEG, &image_t::readPNG, &image_t::readGIF }) {
        EXPECT_FALSE(reader(tree.path("empty.png"), size));
        EXPECT_EQ(size, QSize(1, 1));
    }
    // The WebP reader does not check anything: an empty file reads as zeros.
    EXPECT_TRUE(image_t::readWebP(tree.path("empty.png"), size));
    EXPECT_EQ(size, QSize(0, 0));

    test_support::qt_message_capture_t capture;
    EXPECT_FALSE(image_t::validator(tree.path("empty.png")));
    EXPECT_EQ(capture.messages(QtWarningMsg), QStringList { not_valid(tree.path("empty.png")) });
}

TEST(ContextBackgroundImage, MissingFileOrDirectoryIsNotValidAndLeavesOutputsUntouched)
{
    test_support::temp_tree_t tree;
    tree.mkdir("background/folder.png");
    for (const QString& path : { tree.path("missing.png"), tree.path("background/folder.png") }) {
        SCOPED_TRACE(path.toStdString());
        image_t::ImageType type = image_t::GIF;
        QSize size(2, 2);
        EXPECT_FALSE(image_t::isValidImage(path, &type, &size, 0));
        EXPECT_EQ(type, image_t::GIF);
        EXPECT_EQ(size, QSize(2, 2));
        EXPECT_FALSE(image_t::readJPEG(path, size));
        EXPECT_FALSE(image_t::readPNG(path, size));
        EXPECT_FALSE(image_t::readGIF(path, size));
        EXPECT_FALSE(image_t::readWebP(path, size));
        EXPECT_EQ(size, QSize(2, 2));

        test_support::qt_message_capture_t capture;
        EXPECT_FALSE(image_t::validator(path));
        EXPECT_EQ(capture.messages(QtWarningMsg), QStringList { not_valid(path) });
    }
}

TEST(ContextBackgroundImage, UnreadableFileIsNotValid)
{
    if (geteuid() == 0)
        GTEST_SKIP() << "running as root: permission bits do not stop root from reading a file";
    test_support::temp_tree_t tree;
    tree.write("locked.png", read_fixture("bg_640x284.png"));
    ASSERT_TRUE(QFile::setPermissions(tree.path("locked.png"), QFileDevice::Permissions()));
    test_support::qt_message_capture_t capture;
    EXPECT_FALSE(image_t::validator(tree.path("locked.png")));
    EXPECT_EQ(capture.messages(QtWarningMsg), QStringList { not_valid(tree.path("locked.png")) });
}

TEST(ContextBackgroundImage, TruncatedPngHeaderReadsMissingBytesAsZero)
{
    const QByteArray png = read_fixture("bg_640x284.png");
    ASSERT_GT(png.size(), 33);
    test_support::temp_tree_t tree;

    // Signature, length and "IHDR", nothing more: a zero size, refused by the size rule.
    tree.write("cut.png", png.first(16));
    QSize size(-1, -1);
    EXPECT_TRUE(image_t::readPNG(tree.path("cut.png"), size));
    EXPECT_EQ(size, QSize(0, 0));
    test_support::qt_message_capture_t capture;
    EXPECT_FALSE(image_t::validator(tree.path("cut.png")));
    EXPECT_EQ(capture.messages(QtWarningMsg),
        QStringList { "Size [0; 0] not supported! Supported size is [284; 640] " });

    // The width complete, the height cut after its first two bytes.
    tree.write("cut.png", png.first(22));
    EXPECT_TRUE(image_t::readPNG(tree.path("cut.png"), size));
    EXPECT_EQ(size, QSize(640, 0));

    // Cut inside the chunk type: no "IHDR", not valid.
    tree.write("cut.png", png.first(14));
    size = QSize(4, 4);
    EXPECT_FALSE(image_t::readPNG(tree.path("cut.png"), size));
    EXPECT_EQ(size, QSize(4, 4));
}

TEST(ContextBackgroundImage, TruncatedGifHeaderReadsMissingBytesAsZero)
{
    test_support::temp_tree_t tree;
    tree.write("cut.gif", read_fixture("bg_640x284.gif").first(8));
    QSize size;
    EXPECT_TRUE(image_t::readGIF(tree.path("cut.gif"), size));
    EXPECT_EQ(size, QSize(640, 0));

    tree.write("cut.gif", "GIF89");
    size = QSize(5, 5);
    EXPECT_FALSE(image_t::readGIF(tree.path("cut.gif"), size));
    EXPECT_EQ(size, QSize(5, 5));
}

TEST(ContextBackgroundImage, EveryPrefixOfRealImagesEndsWithoutCrashOrHang)
{
    test_support::temp_tree_t tree;
    struct case_t {
        const char* name;
        bool (*reader)(const QString&, QSize&);
    };
    for (const case_t& c : { case_t { "bg_640x284_baseline.jpg", &image_t::readJPEG },
             case_t { "bg_640x284_progressive.jpg", &image_t::readJPEG },
             case_t { "bg_640x284_exif.jpg", &image_t::readJPEG },
             case_t { "sof9_only.jpg", &image_t::readJPEG },
             case_t { "bg_640x284.png", &image_t::readPNG },
             case_t { "bg_640x284.gif", &image_t::readGIF } }) {
        SCOPED_TRACE(c.name);
        const QByteArray bytes = read_fixture(c.name);
        QSize full(-1, -1);
        const bool full_ok = c.reader(fixture(c.name), full);
        // Far enough to cover every header; the rest is pixel data the readers never reach.
        const qsizetype limit = qMin<qsizetype>(bytes.size(), 700);
        int accepted = 0;
        for (qsizetype n = 0; n <= limit; ++n) {
            tree.write("cut", bytes.first(n));
            QSize size(-1, -1);
            if (c.reader(tree.path("cut"), size)) {
                ++accepted;
                EXPECT_GE(size.width(), 0);
                EXPECT_GE(size.height(), 0);
            }
            // Once the whole header is there, the result is that of the full file.
            if (n == limit && full_ok) {
                EXPECT_EQ(size, full);
            }
        }
        if (full_ok)
            EXPECT_GT(accepted, 0);
        else
            EXPECT_EQ(accepted, 0);
    }
}

// --- hand-made JPEG marker streams -------------------------------------------------------------

TEST(ContextBackgroundImage, JpegReaderStopsAtSof0ToSof3Only)
{
    test_support::temp_tree_t tree;
    for (quint8 marker : { quint8(0xC0), quint8(0xC1), quint8(0xC2), quint8(0xC3) }) {
        SCOPED_TRACE(int(marker));
        tree.write("f.jpg", kSoi + frame_segment(marker, 284, 640));
        QSize size;
        EXPECT_TRUE(image_t::readJPEG(tree.path("f.jpg"), size));
        EXPECT_EQ(size, QSize(640, 284));
    }
    // The other frame types are skipped as plain segments, whatever follows them.
    for (quint8 marker : { quint8(0xC5), quint8(0xC6), quint8(0xC7), quint8(0xC9), quint8(0xCA),
             quint8(0xCB), quint8(0xCD), quint8(0xCE), quint8(0xCF) }) {
        SCOPED_TRACE(int(marker));
        tree.write("f.jpg", kSoi + frame_segment(marker, 284, 640));
        QSize size(1, 1);
        EXPECT_FALSE(image_t::readJPEG(tree.path("f.jpg"), size));
        EXPECT_EQ(size, QSize(1, 1));

        tree.write("f.jpg", kSoi + frame_segment(marker, 1, 1) + frame_segment(0xC0, 284, 640));
        EXPECT_TRUE(image_t::readJPEG(tree.path("f.jpg"), size));
        EXPECT_EQ(size, QSize(640, 284));
    }
}

TEST(ContextBackgroundImage, JpegReaderSkipsFillBytesSegmentsAndStrayBytes)
{
    test_support::temp_tree_t tree;
    // APP0 of 16 bytes, stray bytes, a marker preceded by fill bytes, then the frame.
    QByteArray stream = kSoi;
    stream += QByteArray::fromHex("FFE00010") + QByteArray(14, '\xFF');
    stream += QByteArray::fromHex("0102FFFFFF");
    stream += frame_segment(0xC0, 284, 640).mid(1);
    tree.write("fill.jpg", stream);
    QSize size;
    EXPECT_TRUE(image_t::readJPEG(tree.path("fill.jpg"), size));
    EXPECT_EQ(size, QSize(640, 284));
}

TEST(ContextBackgroundImage, JpegReaderHandlesTruncationsAndBadLengths)
{
    test_support::temp_tree_t tree;
    QSize size(8, 8);

    // No start-of-image marker.
    tree.write("a.jpg", QByteArray::fromHex("FFD9") + frame_segment(0xC0, 284, 640));
    EXPECT_FALSE(image_t::readJPEG(tree.path("a.jpg"), size));
    // A marker with no length after it, at the very end.
    tree.write("a.jpg", QByteArray::fromHex("FFD8FFE0"));
    EXPECT_FALSE(image_t::readJPEG(tree.path("a.jpg"), size));
    tree.write("a.jpg", QByteArray::fromHex("FFD8FFE000"));
    EXPECT_FALSE(image_t::readJPEG(tree.path("a.jpg"), size));
    // Fill bytes up to the end.
    tree.write("a.jpg", QByteArray::fromHex("FFD8FFFFFFFF"));
    EXPECT_FALSE(image_t::readJPEG(tree.path("a.jpg"), size));
    // Segment lengths 0 and 1 point back into the length field; the walk still ends.
    tree.write("a.jpg", QByteArray::fromHex("FFD8FFE00000FFE10001"));
    EXPECT_FALSE(image_t::readJPEG(tree.path("a.jpg"), size));
    // A segment longer than the file.
    tree.write("a.jpg", QByteArray::fromHex("FFD8FFE0FFFF0000") + frame_segment(0xC0, 2, 2));
    EXPECT_FALSE(image_t::readJPEG(tree.path("a.jpg"), size));
    EXPECT_EQ(size, QSize(8, 8));

    // A frame header cut after the high byte of its height: the rest reads as zero.
    tree.write("a.jpg", QByteArray::fromHex("FFD8FFC0001108011C"));
    EXPECT_TRUE(image_t::readJPEG(tree.path("a.jpg"), size));
    EXPECT_EQ(size, QSize(0, 0x011C));
    test_support::qt_message_capture_t capture;
    EXPECT_FALSE(image_t::validator(tree.path("a.jpg")));
    EXPECT_EQ(capture.messages(QtWarningMsg),
        QStringList { "Size [284; 0] not supported! Supported size is [284; 640] " });
}

TEST(ContextBackgroundImage, ReaderFailureLeavesCallerSizeUntouched)
{
    QSize size(11, 12);
    image_t::ImageType type = image_t::UNKNOWN;
    EXPECT_FALSE(image_t::isValidImage(fixture("first_chunk_not_ihdr.png"), &type, &size, 0));
    EXPECT_EQ(type, image_t::PNG);
    EXPECT_EQ(size, QSize(11, 12));
}

// --- concurrency -------------------------------------------------------------------------------

TEST(ContextBackgroundImage, ValidatesFromManyThreadsAtOnce)
{
    const QStringList paths { fixture("bg_640x284.png"), fixture("bg_640x284_progressive.jpg"),
        fixture("bg_640x284.gif"), fixture("sof9_only.jpg") };
    std::atomic<int> mismatches { 0 };
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&paths, &mismatches] {
            for (int i = 0; i < 50; ++i) {
                for (const QString& path : paths) {
                    image_t::ImageType type = image_t::UNKNOWN;
                    QSize size;
                    const bool ok = image_t::isValidImage(path, &type, &size, 1048576);
                    const bool expected_ok = !path.endsWith("sof9_only.jpg");
                    if (ok != expected_ok || (ok && size != QSize(640, 284)))
                        ++mismatches;
                }
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(mismatches.load(), 0);
}
