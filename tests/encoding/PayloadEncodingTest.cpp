// Payload encodings: the property that declares one, reading it back, and
// the sniffing of payloads whose source declares none.

#include <logging/MV_Logging.h>
#include <logging/PayloadEncoding.h>
#include <logging/SqliteLogFile.h>

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Marivane::Logging::DataSource;
using Marivane::Logging::PayloadEncoding;
using Marivane::Logging::SqliteLogFile;
using Marivane::Testing::TempDir;

std::string_view sniffed(std::string_view bytes) {
    return PayloadEncoding::sniff(reinterpret_cast<const std::byte*>(bytes.data()), bytes.size());
}

TEST(PayloadEncoding, SniffsImagesByTheirMagicBytes) {
    EXPECT_EQ(sniffed(std::string_view("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16)), "image/png");
    EXPECT_EQ(sniffed(std::string_view("\xff\xd8\xff\xe0\0\x10JFIF", 10)), "image/jpeg");
    EXPECT_EQ(sniffed(std::string_view("P5\n4 2\n255\n\0\1\2\3\4\5\6\7", 19)), "image/x-portable-graymap");
    EXPECT_EQ(sniffed("P2 2 1 255 0 255"), "image/x-portable-graymap");
    EXPECT_EQ(sniffed(std::string_view("P6\n1 1\n255\n\xff\0\0", 14)), "image/x-portable-pixmap");
    EXPECT_EQ(sniffed("P3\n1 1\n255\n255 0 0"), "image/x-portable-pixmap");
    // Almost: a PNG signature cut short, "P7" (not a graymap or pixmap).
    EXPECT_EQ(sniffed(std::string_view("\x89PNG\r\n", 6)), "application/octet-stream");
    EXPECT_EQ(sniffed("P7 WIDTH 1"), "text/plain");
}

TEST(PayloadEncoding, SniffsJsonTextAndTheRest) {
    EXPECT_EQ(sniffed(R"({"t":0,"temperature":12.5})"), "application/json");
    EXPECT_EQ(sniffed(" \n[1, 2, {\"a\": null}]\n"), "application/json");
    // JSON that does not parse is text; a bare number or string is text.
    EXPECT_EQ(sniffed(R"({"t":0,)"), "text/plain");
    EXPECT_EQ(sniffed("42"), "text/plain");
    EXPECT_EQ(sniffed("$GPGGA,123519,4807.038,N,01131.000,E*47\r\n"), "text/plain");
    EXPECT_EQ(sniffed("Temperatur 12,5 \xc2\xb0"
                      "C\tok"),
              "text/plain");
    // Control characters, invalid UTF-8, overlong forms, surrogates: bytes.
    EXPECT_EQ(sniffed(std::string_view("abc\0def", 7)), "application/octet-stream");
    EXPECT_EQ(sniffed("abc\x1b[0m"), "application/octet-stream");
    EXPECT_EQ(sniffed("caf\xe9"), "application/octet-stream");
    EXPECT_EQ(sniffed("\xc0\xaf"), "application/octet-stream");
    EXPECT_EQ(sniffed("\xed\xa0\x80"), "application/octet-stream");
    EXPECT_EQ(sniffed("\xf4\x90\x80\x80"), "application/octet-stream");
    EXPECT_EQ(sniffed("ok \xe2\x82"), "application/octet-stream");
    EXPECT_EQ(sniffed(""), "application/octet-stream");
    EXPECT_EQ(PayloadEncoding::sniff(nullptr, 10), "application/octet-stream");
}

TEST(PayloadEncoding, TextTypes) {
    EXPECT_TRUE(PayloadEncoding::isText("application/json"));
    EXPECT_TRUE(PayloadEncoding::isText("text/plain"));
    EXPECT_TRUE(PayloadEncoding::isText("text/csv"));
    EXPECT_TRUE(PayloadEncoding::isText("application/geo+json"));
    EXPECT_FALSE(PayloadEncoding::isText("image/png"));
    EXPECT_FALSE(PayloadEncoding::isText("application/octet-stream"));
    EXPECT_FALSE(PayloadEncoding::isText("json"));
}

TEST(PayloadEncoding, DeclaredThroughAnOrdinaryPropertyAndReadBack) {
    TempDir directory;
    const std::string path = directory.file("encodings.mvlog");
    {
        SqliteLogFile file(path, "Etc/UTC", "encoding-tests", "1.0", 0, 1700000000000);
        DataSource camera{0, MV_LogDataSourceType_Camera, "camera"};
        DataSource weather{0, MV_LogDataSourceType_Environment, "weather"};
        DataSource odd{0, MV_LogDataSourceType_Generic, "odd"};
        DataSource plain{0, MV_LogDataSourceType_Generic, "plain"};
        ASSERT_TRUE(file.addDataSource(camera));
        ASSERT_TRUE(file.addDataSource(weather));
        ASSERT_TRUE(file.addDataSource(odd));
        ASSERT_TRUE(file.addDataSource(plain));
        ASSERT_TRUE(file.addDataSourceProperty(PayloadEncoding::property(camera.id, "image/png")));
        ASSERT_TRUE(file.addDataSourceProperty(PayloadEncoding::property(weather.id, "application/json")));
        // A number where a media type belongs is no declaration.
        ASSERT_TRUE(file.addDataSourceProperty({odd.id, "encoding", int64_t{7}}));
    }
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    EXPECT_EQ(PayloadEncoding::declared(file, 1), "image/png");
    EXPECT_EQ(PayloadEncoding::declared(file, 2), "application/json");
    EXPECT_EQ(PayloadEncoding::declared(file, 3), std::nullopt);
    EXPECT_EQ(PayloadEncoding::declared(file, 4), std::nullopt);
    EXPECT_EQ(PayloadEncoding::declared(file, 99), std::nullopt);
    // It is stored as the text property "encoding", nothing else.
    const auto stored = file.getDataSourceProperty(1, "encoding");
    ASSERT_TRUE(stored.has_value());
    EXPECT_EQ(std::get<std::string>(*stored), "image/png");
}

TEST(PayloadEncodingC, CreatesThePropertyAndSniffs) {
    const int8_t source = 3;
    MV_LogDataSourceProperty_p property =
        MV_LogDataSourceProperty_CreateEncoding(&source, MV_LOG_ENCODING_JPEG);
    ASSERT_NE(property, nullptr);
    int8_t id = 0;
    const char* name = nullptr;
    const char* value = nullptr;
    MV_LogDataSourceProperty_GetDataSourceId(property, &id);
    MV_LogDataSourceProperty_GetPropertyName(property, &name);
    ASSERT_TRUE(MV_LogDataSourceProperty_GetString(property, &value));
    EXPECT_EQ(id, 3);
    EXPECT_STREQ(name, MV_LOG_ENCODING_PROPERTY);
    EXPECT_STREQ(name, "encoding");
    EXPECT_STREQ(value, "image/jpeg");
    MV_LogDataSourceProperty_Destroy(property);

    const unsigned char png[] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n', 0, 0};
    EXPECT_STREQ(MV_LogEncoding_Sniff(png, sizeof png), MV_LOG_ENCODING_PNG);
    EXPECT_STREQ(MV_LogEncoding_Sniff("{\"a\":1}", 7), MV_LOG_ENCODING_JSON);
    EXPECT_STREQ(MV_LogEncoding_Sniff("hello", 5), MV_LOG_ENCODING_TEXT);
    EXPECT_STREQ(MV_LogEncoding_Sniff(nullptr, 0), MV_LOG_ENCODING_OCTET_STREAM);
    EXPECT_STREQ(MV_LOG_ENCODING_GRAYMAP, "image/x-portable-graymap");
    EXPECT_STREQ(MV_LOG_ENCODING_PIXMAP, "image/x-portable-pixmap");
}

}  // namespace
