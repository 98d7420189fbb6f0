#include "platform/database/definition/type_brand_t.h"

#include <gtest/gtest.h>

using database::definition::type_brand_t;

TEST(TypeBrand, QuelmoTextRoundTrips)
{
    EXPECT_EQ(type_brand_t::QUELMO.ToString(), "QUELMO");
    bool ok = false;
    EXPECT_EQ(type_brand_t::fromString("QUELMO", &ok), type_brand_t::QUELMO);
    EXPECT_TRUE(ok);
    EXPECT_EQ(type_brand_t::fromString("quelmo", &ok), type_brand_t::QUELMO);
    EXPECT_TRUE(ok);
    EXPECT_GE(type_brand_t::count(), 1);
}

TEST(TypeBrand, UnknownTextFallsBackToQuelmo)
{
    bool ok = true;
    EXPECT_EQ(type_brand_t::fromString("unknown", &ok), type_brand_t::QUELMO);
    EXPECT_FALSE(ok);
    EXPECT_EQ(type_brand_t::fromString("", &ok), type_brand_t::QUELMO);
    EXPECT_FALSE(ok);
    EXPECT_EQ(type_brand_t(QStringLiteral("no such brand")), type_brand_t::QUELMO);
}

TEST(TypeBrand, IsRequiresAKnownText)
{
    EXPECT_TRUE(type_brand_t::QUELMO.is("Quelmo"));
    EXPECT_FALSE(type_brand_t::QUELMO.is("unknown"));
    EXPECT_FALSE(type_brand_t::QUELMO != type_brand_t());
}
