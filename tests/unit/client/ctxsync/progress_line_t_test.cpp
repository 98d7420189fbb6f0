#include "progress_line_t.h"

#include <cstdio>

#include <gtest/gtest.h>

namespace {

// Everything written to a temporary FILE so far.
std::string written(std::FILE* file)
{
    std::fflush(file);
    const long size = std::ftell(file);
    std::string text(size_t(size), '\0');
    std::rewind(file);
    const size_t got = std::fread(text.data(), 1, text.size(), file);
    text.resize(got);
    std::fseek(file, 0, SEEK_END);
    return text;
}

struct temp_file_t {
    std::FILE* file = std::tmpfile();
    ~temp_file_t()
    {
        if (file)
            std::fclose(file);
    }
};

} // namespace

TEST(progress_line_t, ADisabledLineWritesNothing)
{
    temp_file_t out;
    ASSERT_TRUE(out.file);
    {
        progress_line_t line(out.file, false, QStringLiteral("pull"));
        line.update_at(5000, 100, 1, 2, QStringLiteral("a"));
        EXPECT_FALSE(line.shown());
    }
    EXPECT_EQ(written(out.file), "");
}

TEST(progress_line_t, TheFirstSecondStaysQuiet)
{
    temp_file_t out;
    progress_line_t line(out.file, true, QStringLiteral("push"));
    line.update_at(999, 512, 0, 2, QStringLiteral("background/a.png"));
    EXPECT_EQ(written(out.file), "");
    line.update_at(1000, 512, 0, 2, QStringLiteral("background/a.png"));
    EXPECT_EQ(written(out.file), "\r\033[Kpush 0/2 files, 512 B, 512 B/s  background/a.png");
}

TEST(progress_line_t, RedrawsAtMostTenTimesASecondAndErasesAtTheEnd)
{
    temp_file_t out;
    progress_line_t line(out.file, true, QStringLiteral("pull"));
    line.update_at(1000, 1024, 0, 1, QStringLiteral("x"));
    line.update_at(1099, 2048, 0, 1, QStringLiteral("x"));
    line.update_at(1100, 3 * 1024 * 1024, 1, 1, QStringLiteral("x"));
    line.finish();
    line.finish();
    EXPECT_EQ(written(out.file),
        "\r\033[Kpull 0/1 files, 1.0 KiB, 1.0 KiB/s  x"
        "\r\033[Kpull 1/1 files, 3.0 MiB, 2.7 MiB/s  x"
        "\r\033[K");
    EXPECT_FALSE(line.shown());
}

TEST(progress_line_t, SizesAreWrittenForPeople)
{
    EXPECT_EQ(progress_line_t::human_bytes(0), QStringLiteral("0 B"));
    EXPECT_EQ(progress_line_t::human_bytes(1023), QStringLiteral("1023 B"));
    EXPECT_EQ(progress_line_t::human_bytes(1536), QStringLiteral("1.5 KiB"));
    EXPECT_EQ(progress_line_t::human_bytes(1048576), QStringLiteral("1.0 MiB"));
}

TEST(progress_line_t, AFileIsNotATerminal)
{
    temp_file_t out;
    EXPECT_FALSE(progress_line_t::is_terminal(out.file));
}
