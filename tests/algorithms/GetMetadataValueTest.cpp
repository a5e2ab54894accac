#include <logging/Algorithms.h>

#include "FakeLogFile.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <variant>

using namespace Marivane::Logging;
using Marivane::Testing::FakeLogFile;

TEST(GetMetadataValueText, ReturnsTheStoredText) {
    FakeLogFile fake;
    fake.metadata = {{"currentTimeZone", std::string("Europe/Paris")}};

    EXPECT_EQ(getMetadataValue<std::string>(fake, "currentTimeZone", "fallback"), "Europe/Paris");
}

TEST(GetMetadataValueText, ReturnsTheDefaultForAMissingKey) {
    FakeLogFile fake;

    EXPECT_EQ(getMetadataValue<std::string>(fake, "currentTimeZone", "fallback"), "fallback");
}

TEST(GetMetadataValueText, ThrowsForAnIntegerValue) {
    FakeLogFile fake;
    fake.metadata = {{"applicationName", int64_t{3}}};

    try {
        getMetadataValue<std::string>(fake, "applicationName", "");
        FAIL() << "an integer was returned as text";
    } catch (const std::bad_variant_access& error) {
        EXPECT_STREQ(error.what(), "std::get: wrong index for variant");
    }
}

TEST(GetMetadataValueText, ThrowsForARealValue) {
    FakeLogFile fake;
    fake.metadata = {{"applicationName", 3.5}};

    EXPECT_THROW(getMetadataValue<std::string>(fake, "applicationName", ""), std::bad_variant_access);
}

TEST(GetMetadataValueText, TheIntegerFormReturnsTheDefaultForTextInsteadOfThrowing) {
    FakeLogFile fake;
    fake.metadata = {{"logVersion", std::string("four")}, {"compressionLevel", int64_t{6}}};

    EXPECT_EQ(getMetadataValue<int>(fake, "logVersion", -7), -7);
    EXPECT_EQ(getMetadataValue<int>(fake, "compressionLevel", -7), 6);
}
