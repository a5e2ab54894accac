// Crafted but well-formed files: payloads that expand far beyond their
// stored size, and stored values no record type can carry. The tool must
// neither need memory in proportion to what a payload declares nor print a
// narrowed, plausible value that check would call OK.
#include "ToolTestSupport.h"

#include <core/Compression.h>

#include <TempDir.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace MvlogTest {
namespace {

using Marivane::Testing::TempDir;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

constexpr std::size_t kPieceBytes = 128 * 1024;
constexpr std::size_t kFrames = 2048;  // 256 MiB once expanded
constexpr std::size_t kExpandedBytes = kPieceBytes * kFrames;
// Far below the expanded size, well above what the tool needs otherwise.
constexpr const char* kAddressSpaceLimit = "--as=167772160";  // 160 MiB

// Concatenated frames of zeros: a few hundred KiB stored, 256 MiB expanded.
ByteBuffer expandingPayload() {
    const ByteBuffer frame = Marivane::Compression::compress(ByteBuffer(kPieceBytes), 3);
    ByteBuffer payload;
    for (std::size_t i = 0; i < kFrames; ++i) {
        payload.insert(payload.end(), frame.begin(), frame.end());
    }
    return payload;
}

RunResult runMvlogWithin(const std::vector<std::string>& arguments) {
    std::vector<std::string> limited{kAddressSpaceLimit, MVLOG_BINARY};
    limited.insert(limited.end(), arguments.begin(), arguments.end());
    return runProgram("/usr/bin/prlimit", limited);
}

class ExpandingPayload : public ::testing::Test {
protected:
    void SetUp() override {
        if (kSanitized) {
            GTEST_SKIP() << "sanitizers reserve address space beyond any limit worth testing";
        }
        writeKnownFile(path);
        overwriteStoredPayload(path, 42, expandingPayload());
    }

    TempDir directory;
    std::string path = directory.file("expanding.mvlog");
};

TEST_F(ExpandingPayload, CatShowsSizeAndFirstBytesInBoundedMemory) {
    const RunResult result = runMvlogWithin({"cat", path, "--from", "42", "--limit", "1"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_NE(result.out.find("type 10  268435456 B  00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 ...\n"),
              std::string::npos)
        << result.out;
}

TEST_F(ExpandingPayload, InfoCountsTheFullSizeInBoundedMemory) {
    const RunResult result = runMvlogWithin({"info", path, "--json"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const nlohmann::json document = nlohmann::json::parse(result.out);
    EXPECT_GT(document["entries"]["payloadBytes"].get<uint64_t>(), kExpandedBytes);
}

TEST_F(ExpandingPayload, CheckExpandsEveryPayloadInBoundedMemory) {
    const RunResult result = runMvlogWithin({"check", path});
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
    EXPECT_NE(result.out.find("Checked 101 entries"), std::string::npos) << result.out;
}

TEST_F(ExpandingPayload, ExportStreamsThePayloadInBoundedMemory) {
    const std::string output = directory.file("big.bin");
    const RunResult result = runMvlogWithin({"export", path, "--entry", "42", "-o", output});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, "Wrote 268435456 bytes (256.00 MiB) to " + output + "\n");
    EXPECT_EQ(std::filesystem::file_size(output), kExpandedBytes);
}

TEST_F(ExpandingPayload, AnExportThatFailsHalfWayLeavesNoFile) {
    // The frames expand until the damage at the end.
    ByteBuffer payload = expandingPayload();
    payload.resize(payload.size() - 3);
    overwriteStoredPayload(path, 42, payload);
    const std::string output = directory.file("cut.bin");
    const RunResult result = runMvlogWithin({"export", path, "--entry", "42", "-o", output});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err.rfind("mvlog: entry 42: payload cannot be expanded: ", 0), 0u) << result.err;
    EXPECT_FALSE(std::filesystem::exists(output));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory.path()),
                            std::filesystem::directory_iterator()),
              1);
}

class CraftedValues : public ::testing::Test {
protected:
    void SetUp() override { writeKnownFile(path); }

    TempDir directory;
    std::string path = directory.file("crafted.mvlog");
};

TEST_F(CraftedValues, CheckNamesStoredValuesOutsideTheirTypes) {
    executeSql(
        path,
        "PRAGMA foreign_keys = OFF;"
        "UPDATE data SET entryId = 4294967301 WHERE entryId = 101;"
        "INSERT INTO dataSources (dataSourceId, dataSourceType, dataSourceName) VALUES (300, 1, 'wide');"
        "UPDATE data SET dataSourceId = 300 WHERE entryId = 7;"
        "UPDATE data SET timestamp = '2026-01-01' WHERE entryId = 9;");
    const RunResult check = runMvlog({"check", path});
    EXPECT_EQ(check.exitCode, 1);
    const std::vector<std::string> lines = splitLines(check.out);
    EXPECT_TRUE(containsLine(lines, "problem: data source 300: its id does not fit in 8 bits")) << check.out;
    EXPECT_TRUE(containsLine(lines, "problem: entry 7: its data-source id 300 does not fit in 8 bits"))
        << check.out;
    EXPECT_TRUE(containsLine(lines, "problem: entry 9: its timestamp is not an integer")) << check.out;
    EXPECT_TRUE(containsLine(lines, "problem: entry 4294967301: its id 4294967301 does not fit in 32 bits"))
        << check.out;

    const RunResult cat = runMvlog({"cat", path});
    EXPECT_EQ(cat.exitCode, 1);
    EXPECT_NE(cat.err.find("mvlog: entry 7: its data-source id 300 does not fit in 8 bits\n"),
              std::string::npos)
        << cat.err;
    EXPECT_EQ(cat.out.find("source 44"), std::string::npos) << cat.out;
    EXPECT_EQ(cat.out.find("1970-"), std::string::npos) << cat.out;
}

TEST_F(CraftedValues, CheckNamesCompressedFramesInAnUncompressedFile) {
    const std::string plain = directory.file("plain.mvlog");
    writeKnownFile(plain, 0);
    overwriteStoredPayload(plain, 12, Marivane::Compression::compress(bytesOf("hidden"), 3));
    const RunResult check = runMvlog({"check", plain});
    EXPECT_EQ(check.exitCode, 1);
    EXPECT_TRUE(
        containsLine(splitLines(check.out),
                     "problem: entry 12: the payload is a compressed frame but the file's compression "
                     "level is 0 (payloads stored uncompressed): readers hand it out compressed"))
        << check.out;
}

TEST_F(CraftedValues, CatNamesCompressedFramesInAnUncompressedFileAndPrintsThemNot) {
    const std::string plain = directory.file("plain.mvlog");
    writeKnownFile(plain, 0);
    overwriteStoredPayload(plain, 12, Marivane::Compression::compress(bytesOf("hidden"), 3));
    const std::string expectedError =
        "mvlog: entry 12: the payload is a compressed frame but the file's compression level is 0 (payloads "
        "stored uncompressed): readers hand it out compressed\n"
        "mvlog: 1 of 101 entries could not be read\n";
    for (const char* format : {"text", "json", "hex"}) {
        const RunResult cat = runMvlog({"cat", plain, "--format", format});
        EXPECT_EQ(cat.exitCode, 1) << format;
        EXPECT_EQ(cat.err, expectedError) << format;
        const bool json = std::string(format) == "json";
        EXPECT_EQ(cat.out.find(json ? "\"entryId\":12," : "#12  "), std::string::npos) << format;
        EXPECT_NE(cat.out.find(json ? "\"entryId\":13," : "#13  "), std::string::npos) << format;
    }
    const std::vector<std::string> lines = runMvlog({"cat", plain}).outLines();
    EXPECT_EQ(lines.size(), static_cast<std::size_t>(kKnownEntries - 1));
}

TEST_F(CraftedValues, AnEntryOfAMissingDataSourceIsNamedAsSuch) {
    executeSql(path, "PRAGMA foreign_keys = OFF; UPDATE data SET dataSourceId = 9 WHERE entryId = 7;");
    const RunResult check = runMvlog({"check", path});
    EXPECT_EQ(check.exitCode, 1);
    const std::vector<std::string> lines = splitLines(check.out);
    EXPECT_EQ(
        lines,
        (std::vector<std::string>{
            "problem: foreign_key_check: row 7 of table data refers to a missing row of table dataSources",
            "problem: entry 7 refers to data source 9, which the file does not have",
            "Checked 100 entries, 3 data sources, 2 resources, 1 bookmarks", "2 problems found in " + path,
            "hint: mvlog recover " + path + " -o NEW salvages what is intact"}));

    const RunResult cat = runMvlog({"cat", path});
    EXPECT_EQ(cat.exitCode, 1);
    EXPECT_EQ(cat.err,
              "mvlog: entry 7 refers to data source 9, which the file does not have\n"
              "mvlog: 1 of 101 entries could not be read\n");
    EXPECT_EQ(cat.outLines().size(), static_cast<std::size_t>(kKnownEntries - 1));
    // By id and by time too, though the index leaves the entry out.
    const RunResult byId = runMvlog({"cat", path, "--from", "7", "--to", "7"});
    EXPECT_EQ(byId.exitCode, 1);
    EXPECT_EQ(byId.err,
              "mvlog: entry 7 refers to data source 9, which the file does not have\n"
              "mvlog: 1 of 1 entries could not be read\n");
    const RunResult byTime = runMvlog({"cat", path, "--start", "+0.5", "--end", "+0.7"});
    EXPECT_EQ(byTime.exitCode, 1);
    EXPECT_EQ(byTime.err,
              "mvlog: entry 7 refers to data source 9, which the file does not have\n"
              "mvlog: 1 of 3 entries could not be read\n");
    EXPECT_EQ(byTime.outLines().size(), 2u) << byTime.out;

    const RunResult info = runMvlog({"info", path});
    EXPECT_EQ(info.exitCode, 0) << info.err;
    const std::vector<std::string> infoLines = info.outLines();
    EXPECT_TRUE(containsLine(infoLines, "Damaged entries (1; run `mvlog check` for a full report)"))
        << info.out;
    EXPECT_TRUE(containsLine(infoLines, "  entry 7 refers to data source 9, which the file does not have"))
        << info.out;
    EXPECT_EQ(info.out.find("damaged page"), std::string::npos) << info.out;
}

// The index narrows 4294967299 (2^32 + 3) onto 3, which another entry has:
// the count still holds every entry, and the wide one is named.
TEST_F(CraftedValues, AnIdBeyond32BitsIsCountedOnceAndNamed) {
    executeSql(path, "PRAGMA foreign_keys = OFF; UPDATE data SET entryId = 4294967299 WHERE entryId = 101;");
    const RunResult cat = runMvlog({"cat", path});
    EXPECT_EQ(cat.exitCode, 1);
    EXPECT_EQ(cat.err,
              "mvlog: entry 4294967299: its id 4294967299 does not fit in 32 bits\n"
              "mvlog: 1 of 101 entries could not be read\n");
    EXPECT_EQ(cat.outLines().size(), static_cast<std::size_t>(kKnownEntries - 1));

    const RunResult check = runMvlog({"check", path});
    EXPECT_EQ(check.exitCode, 1);
    const std::vector<std::string> lines = splitLines(check.out);
    EXPECT_TRUE(containsLine(lines, "problem: entry 4294967299: its id 4294967299 does not fit in 32 bits"))
        << check.out;
    EXPECT_EQ(check.out.find("the entry index lists"), std::string::npos) << check.out;
    EXPECT_TRUE(containsLine(lines, "Checked 100 entries, 3 data sources, 2 resources, 1 bookmarks"))
        << check.out;
}

// 2147483648 narrows onto -2147483648, which no entry has: that index entry
// is not a second entry, nor one whose row is missing.
TEST_F(CraftedValues, AnIdOf2To31IsOneEntryNamedByItsRealId) {
    executeSql(path, "PRAGMA foreign_keys = OFF; UPDATE data SET entryId = 2147483648 WHERE entryId = 101;");
    const RunResult cat = runMvlog({"cat", path});
    EXPECT_EQ(cat.exitCode, 1);
    EXPECT_EQ(cat.err,
              "mvlog: entry 2147483648: its id 2147483648 does not fit in 32 bits\n"
              "mvlog: 1 of 101 entries could not be read\n");
    const RunResult check = runMvlog({"check", path});
    EXPECT_EQ(check.exitCode, 1);
    EXPECT_EQ(check.out.find("-2147483648"), std::string::npos) << check.out;
    EXPECT_TRUE(containsLine(splitLines(check.out),
                             "problem: entry 2147483648: its id 2147483648 does not fit in 32 bits"))
        << check.out;
}

}  // namespace
}  // namespace MvlogTest
