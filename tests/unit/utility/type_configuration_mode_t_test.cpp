#include "utility/type_configuration_mode_t.h"

#include <gtest/gtest.h>

using utility::type_configuration_mode_t;

TEST(TypeConfigurationMode, TextsAndCount)
{
    EXPECT_EQ(type_configuration_mode_t::http.ToString(), "http");
    EXPECT_EQ(type_configuration_mode_t::file.ToString(), "file");
    EXPECT_EQ(type_configuration_mode_t::count(), 2);
    EXPECT_EQ(
        type_configuration_mode_t::map().value(type_configuration_mode_t::file_value), "file");
}

TEST(TypeConfigurationMode, DefaultIsHttp)
{
    const type_configuration_mode_t mode;
    EXPECT_EQ(mode, type_configuration_mode_t::http);
    EXPECT_NE(mode, type_configuration_mode_t::file);
}

TEST(TypeConfigurationMode, IsComparesTextAndValue)
{
    const type_configuration_mode_t mode = type_configuration_mode_t::file;
    EXPECT_TRUE(mode.is("file"));
    EXPECT_FALSE(mode.is("http"));
    EXPECT_FALSE(mode.is("FILE"));
    EXPECT_TRUE(mode.is(type_configuration_mode_t::file));
    EXPECT_FALSE(mode.is(type_configuration_mode_t::http));
}

TEST(TypeConfigurationMode, AssignmentCopiesTheValue)
{
    type_configuration_mode_t mode;
    mode = type_configuration_mode_t::file;
    EXPECT_EQ(mode.ToString(), "file");
    mode = type_configuration_mode_t::http;
    EXPECT_EQ(mode.ToString(), "http");
}

TEST(TypeConfigurationMode, FromStringParsesKnownTextsOnly)
{
    bool ok = false;
    EXPECT_EQ(type_configuration_mode_t::fromString("file", &ok), type_configuration_mode_t::file);
    EXPECT_TRUE(ok);
    EXPECT_EQ(type_configuration_mode_t::fromString("ftp", &ok), type_configuration_mode_t::http);
    EXPECT_FALSE(ok);
}
