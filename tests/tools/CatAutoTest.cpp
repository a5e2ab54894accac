// cat --format auto: payloads printed as what their sources declare, or
// what their first bytes say, and the default it is on a terminal.

#include "TerminalSession.h"
#include "ToolTestSupport.h"

#include <logging/PayloadEncoding.h>

#include <TempDir.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace MvlogTest {
namespace {

using Marivane::Logging::ByteBuffer;
using Marivane::Logging::DataEntry;
using Marivane::Logging::DataSource;
using Marivane::Logging::PayloadEncoding;
using Marivane::Logging::SqliteLogFile;
using Marivane::Testing::TempDir;

ByteBuffer bytesOf(const std::string& text) {
    ByteBuffer bytes(text.size());
    std::memcpy(bytes.data(), text.data(), text.size());
    return bytes;
}

// One entry per case, 100 ms apart from 2023-11-14T22:13:20Z.
class CatAutoTest : public ::testing::Test {
protected:
    void SetUp() override {
        SqliteLogFile file(path, "Etc/UTC", "cat-auto", "1.0", 0, 1700000000000);
        DataSource json{0, MV_LogDataSourceType_Environment, "weather"};
        DataSource text{0, MV_LogDataSourceType_Text, "log"};
        DataSource mixed{0, MV_LogDataSourceType_Navigation, "gnss"};
        DataSource plain{0, MV_LogDataSourceType_Generic, "plain"};
        for (DataSource* source : {&json, &text, &mixed, &plain}) {
            ASSERT_TRUE(file.addDataSource(*source));
        }
        ASSERT_TRUE(file.addDataSourceProperty(PayloadEncoding::property(json.id, "application/json")));
        ASSERT_TRUE(file.addDataSourceProperty(PayloadEncoding::property(text.id, "text/plain")));
        ASSERT_TRUE(
            file.addDataSourceProperty(PayloadEncoding::property(mixed.id, "application/octet-stream")));
        const std::string png("\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR", 16);
        const std::vector<std::pair<int8_t, std::string>> entries = {
            {json.id, R"({"t":0,"temperature_c":11.5})"},
            {text.id, "first line\nsecond\tline \x1b[31mred\x1b[0m"},
            {mixed.id, "$STATUS,t=0,fix=RTK"},
            {mixed.id, std::string("\x01\x02\x03\x04", 4)},
            {plain.id, png},
            {plain.id, "[1, 2, 3]"},
            {json.id, "{\"bad\":\"\xff\xfe\"}"},
            {text.id, std::string(2500, 'a') + "\xc3\xa9"},
        };
        int64_t timestamp = 1700000000000;
        for (const auto& [source, payload] : entries) {
            DataEntry entry;
            entry.dataSourceId = source;
            entry.type = 1;
            entry.data = bytesOf(payload);
            entry.timestamp = timestamp;
            ASSERT_TRUE(file.logData(entry)) << file.getLastError();
            timestamp += 100;
        }
    }

    TempDir directory;
    std::string path = directory.file("encodings.mvlog");
};

TEST_F(CatAutoTest, PrintsEachPayloadAsWhatItIs) {
    const RunResult result = runMvlog({"cat", path, "--format", "auto", "--to", "7"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(
        result.outLines(),
        (std::vector<std::string>{
            // Declared JSON, as text.
            R"(#1  2023-11-14T22:13:20.000Z  source 1 "weather"  type 1  28 B  {"t":0,"temperature_c":11.5})",
            // Declared text: control characters escaped for the terminal.
            "#2  2023-11-14T22:13:20.100Z  source 2 \"log\"  type 1  35 B  "
            "first line\\nsecond\\tline \\x1b[31mred\\x1b[0m",
            // Octet-stream declares nothing in particular: text is sniffed...
            "#3  2023-11-14T22:13:20.200Z  source 3 \"gnss\"  type 1  19 B  $STATUS,t=0,fix=RTK",
            // ... and bytes stay bytes, named.
            "#4  2023-11-14T22:13:20.300Z  source 3 \"gnss\"  type 1  4 B  application/octet-stream  "
            "01 02 03 04",
            // No declaration: the first bytes tell.
            "#5  2023-11-14T22:13:20.400Z  source 4 \"plain\"  type 1  16 B  image/png  "
            "89 50 4e 47 0d 0a 1a 0a 00 00 00 0d 49 48 44 52",
            "#6  2023-11-14T22:13:20.500Z  source 4 \"plain\"  type 1  9 B  [1, 2, 3]",
            // Declared JSON that is not valid UTF-8 keeps those bytes as \xNN.
            R"(#7  2023-11-14T22:13:20.600Z  source 1 "weather"  type 1  12 B  {"bad":"\xff\xfe"})",
        }));
}

TEST_F(CatAutoTest, LongTextIsCutAtACharacterWithTheRestCounted) {
    const RunResult result = runMvlog({"cat", path, "--format", "auto", "--from", "8"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, "#8  2023-11-14T22:13:20.700Z  source 2 \"log\"  type 1  2502 B  " +
                              std::string(2000, 'a') + " ... (502 more bytes)\n");
}

TEST_F(CatAutoTest, InAPipeTheDefaultStaysText) {
    const RunResult byDefault = runMvlog({"cat", path});
    const RunResult text = runMvlog({"cat", path, "--format", "text"});
    ASSERT_EQ(byDefault.exitCode, 0) << byDefault.err;
    EXPECT_EQ(byDefault.out, text.out);
    EXPECT_EQ(byDefault.outLines().front(),
              "#1  2023-11-14T22:13:20.000Z  source 1 \"weather\"  type 1  28 B  "
              "7b 22 74 22 3a 30 2c 22 74 65 6d 70 65 72 61 74 ...");
}

TEST_F(CatAutoTest, OnATerminalTheDefaultIsAuto) {
    TerminalSession session({"cat", path, "--to", "1"});
    ASSERT_TRUE(session.started());
    EXPECT_EQ(session.exitCode(), 0);
    EXPECT_NE(session.screen.find(R"(28 B  {"t":0,"temperature_c":11.5})"), std::string::npos)
        << session.screen;
}

TEST_F(CatAutoTest, AnUnknownFormatIsAUsageError) {
    const RunResult result = runMvlog({"cat", path, "--format", "png"});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.out, "");
}

}  // namespace
}  // namespace MvlogTest
