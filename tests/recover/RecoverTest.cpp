#include "DamagedFiles.h"
#include "support/TempDir.h"

#include <logging/MV_Logging.h>
#include <logging/Recover.h>
#include <logging/SqliteLogFile.h>

#include <database/SqliteDatabase.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace RecoverTest {
namespace {

using Marivane::Logging::Bookmark;
using Marivane::Logging::DataEntry;
using Marivane::Logging::DataSource;
using Marivane::Logging::DataSourceProperty;
using Marivane::Logging::Durability;
using Marivane::Logging::EntryIdRange;
using Marivane::Logging::RecoveryReport;
using Marivane::Logging::SqliteLogFile;
using Marivane::Testing::TempDir;
namespace Algorithms = Marivane::Logging::Algorithms;

constexpr int64_t kStart = 1'700'000'000'000;

ByteBuffer smallPayload(int id) {
    ByteBuffer bytes(100);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<std::byte>((id * 7 + static_cast<int>(i)) & 0xff);
    }
    return bytes;
}

// 100 entries of 100 bytes at level 3 from three sources with a property
// each; metadata "site"; two resources; bookmarks on entries 5 and 21.
void writeSimpleFile(const std::filesystem::path& path, Durability durability = Durability::Fast) {
    SqliteLogFile file(path.string(), "UTC", "recovertest", "1", 3, kStart, durability);
    for (const char* name : {"a", "b", "c"}) {
        DataSource source{-1, MV_LogDataSourceType_Camera, name};
        ASSERT_TRUE(file.addDataSource(source));
        ASSERT_TRUE(file.addDataSourceProperty(DataSourceProperty{source.id, "model", std::string(name)}));
    }
    ASSERT_TRUE(file.addMetadata("site", std::string("dock")));
    ASSERT_TRUE(file.addResource("calibration", ByteBuffer(500, std::byte{7})));
    ASSERT_TRUE(file.addResource("notes", ByteBuffer(20, std::byte{'x'})));
    for (int id = 1; id <= 100; ++id) {
        DataEntry entry;
        entry.dataSourceId = static_cast<int8_t>(1 + id % 3);
        entry.type = 4;
        entry.timestamp = kStart + id;
        entry.data = smallPayload(id);
        ASSERT_TRUE(file.logData(entry));
    }
    ASSERT_TRUE(file.addBookmark(Bookmark{5, "five", "a comment", ByteBuffer(3, std::byte{1})}));
    ASSERT_TRUE(file.addBookmark(Bookmark{21, "twenty-one", "", ByteBuffer()}));
}

void execute(const std::filesystem::path& path, const std::string& sql) {
    Marivane::Database::SqliteDatabase database(path.string(), Marivane::Database::OpenReadWrite);
    ASSERT_TRUE(database.execute(sql).ok()) << sql;
}

struct FileState {
    bool exists = false;
    ByteBuffer bytes;
    std::filesystem::file_time_type modified;
    bool operator==(const FileState& other) const {
        return exists == other.exists && bytes == other.bytes && modified == other.modified;
    }
};

FileState stateOf(const std::filesystem::path& path) {
    FileState state;
    state.exists = std::filesystem::exists(path);
    if (state.exists) {
        std::ifstream in(path, std::ios::binary);
        std::vector<char> text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        state.bytes.resize(text.size());
        std::memcpy(state.bytes.data(), text.data(), text.size());
        state.modified = std::filesystem::last_write_time(path);
    }
    return state;
}

TEST(RecoverTest, ReportCountsWhatCameBackAndWhatWasLost) {
    TempDir directory;
    const std::filesystem::path damaged = directory.path() / "damaged.mvlog";
    const std::filesystem::path output = directory.path() / "new.mvlog";
    writeSimpleFile(damaged);
    // Frames that no longer expand: the checksum or the frame itself is gone.
    execute(damaged, "UPDATE data SET payload = x'28b52ffd00000000' WHERE entryId IN (10, 20, 21, 22);");

    const RecoveryReport report = Algorithms::recover(damaged, output);
    EXPECT_EQ(report.entriesRecovered, 96u);
    EXPECT_EQ(report.entriesLost, 4u);
    ASSERT_EQ(report.lostEntryIds.size(), 2u);
    EXPECT_EQ(report.lostEntryIds[0].first, 10);
    EXPECT_EQ(report.lostEntryIds[0].last, 10);
    EXPECT_EQ(report.lostEntryIds[1].first, 20);
    EXPECT_EQ(report.lostEntryIds[1].last, 22);
    EXPECT_EQ(report.dataSourcesRecovered, 3u);
    EXPECT_EQ(report.dataSourcesRecreated, 0u);
    EXPECT_EQ(report.propertiesRecovered, 3u);
    EXPECT_EQ(report.metadataRecovered, 7u);
    EXPECT_EQ(report.metadataLost, 0u);
    EXPECT_EQ(report.resourcesRecovered, 2u);
    EXPECT_EQ(report.resourcesLost, 0u);
    EXPECT_EQ(report.bookmarksRecovered, 1u);
    EXPECT_EQ(report.bookmarksLost, 1u);
    EXPECT_FALSE(report.pagesScanned);

    const SqliteLogFile file = SqliteLogFile::openReadOnly(output);
    EXPECT_EQ(file.getEntryCount(), 96);
    const std::optional<DataEntry> kept = file.readEntry(23);
    ASSERT_TRUE(kept.has_value());
    EXPECT_EQ(kept->data, smallPayload(23));
    EXPECT_EQ(kept->timestamp, kStart + 23);
    EXPECT_FALSE(file.readEntry(21).has_value());
    ASSERT_EQ(file.getBookmarks().size(), 1u);
    EXPECT_EQ(file.getBookmarks()[0].entryId, 5);
    EXPECT_EQ(file.getBookmarks()[0].payload, ByteBuffer(3, std::byte{1}));
    EXPECT_EQ(file.getResource("calibration"), ByteBuffer(500, std::byte{7}));
    EXPECT_EQ(std::get<std::string>(*file.getMetadataValue("site")), "dock");
    EXPECT_EQ(std::get<std::string>(*file.getMetadataValue("oldApplicationName")), "recovertest");
}

TEST(RecoverTest, NeverWritesTheDamagedFileNorItsSideFiles) {
    TempDir directory;
    std::mt19937 random(7);
    const std::filesystem::path damaged = directory.path() / "damaged.mvlog";
    writeSimpleFile(damaged);
    {
        std::fstream file(damaged, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(8192 * 2);
        const ByteBuffer garbage = randomBytes(8192, random);
        file.write(reinterpret_cast<const char*>(garbage.data()),
                   static_cast<std::streamsize>(garbage.size()));
    }
    for (const char* suffix : {"-journal", "-wal"}) {
        std::ofstream side(damaged.string() + suffix, std::ios::binary);
        const ByteBuffer garbage = randomBytes(4096, random);
        side.write(reinterpret_cast<const char*>(garbage.data()),
                   static_cast<std::streamsize>(garbage.size()));
    }
    std::vector<std::pair<std::string, FileState>> before;
    for (const char* suffix : {"", "-journal", "-wal", "-shm"}) {
        before.emplace_back(suffix, stateOf(damaged.string() + suffix));
    }

    const RecoveryReport report = Algorithms::recover(damaged, directory.path() / "new.mvlog");
    EXPECT_GT(report.entriesRecovered, 0u);
    for (const auto& [suffix, state] : before) {
        EXPECT_TRUE(stateOf(damaged.string() + suffix) == state) << "damaged.mvlog" << suffix << " changed";
    }
    // Nothing is left behind beside the output but the output itself.
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory.path())) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"damaged.mvlog", "damaged.mvlog-journal", "damaged.mvlog-wal",
                                               "new.mvlog"}));
}

TEST(RecoverTest, RefusesAnExistingOutput) {
    TempDir directory;
    const std::filesystem::path damaged = directory.path() / "damaged.mvlog";
    const std::filesystem::path output = directory.path() / "taken.mvlog";
    writeSimpleFile(damaged);
    std::ofstream(output) << "keep me";
    try {
        (void)Algorithms::recover(damaged, output);
        FAIL() << "an existing output was overwritten";
    } catch (const std::runtime_error& error) {
        EXPECT_NE(std::string(error.what()).find(output.string()), std::string::npos) << error.what();
    }
    std::ifstream in(output);
    std::string text;
    std::getline(in, text);
    EXPECT_EQ(text, "keep me");
}

TEST(RecoverTest, MissingDamagedFileIsAnError) {
    TempDir directory;
    EXPECT_THROW((void)Algorithms::recover(directory.path() / "none.mvlog", directory.path() / "new.mvlog"),
                 std::runtime_error);
    EXPECT_FALSE(std::filesystem::exists(directory.path() / "new.mvlog"));
}

// A safe file still being written: the newest entries live only in its
// write-ahead log, which the salvage applies to its own copy.
TEST(RecoverTest, WriteAheadLogIsAppliedAndALostOneCostsOnlyItsEntries) {
    TempDir directory;
    const std::filesystem::path live = directory.path() / "live.mvlog";
    const std::filesystem::path withLog = directory.path() / "with-log.mvlog";
    const std::filesystem::path withoutLog = directory.path() / "without-log.mvlog";
    {
        SqliteLogFile file(live.string(), "UTC", "recovertest", "1", 3, kStart, Durability::Safe);
        DataSource source{-1, MV_LogDataSourceType_Camera, "a"};
        ASSERT_TRUE(file.addDataSource(source));
        for (int id = 1; id <= 50; ++id) {
            DataEntry entry{};
            entry.dataSourceId = source.id;
            entry.timestamp = kStart + id;
            entry.data = smallPayload(id);
            ASSERT_TRUE(file.logData(entry));
        }
        ASSERT_TRUE(std::filesystem::exists(live.string() + "-wal"));
        std::filesystem::copy_file(live, withLog);
        std::filesystem::copy_file(live.string() + "-wal", withLog.string() + "-wal");
        std::filesystem::copy_file(live, withoutLog);
    }
    const RecoveryReport all = Algorithms::recover(withLog, directory.path() / "all.mvlog");
    EXPECT_EQ(all.entriesRecovered, 50u);
    EXPECT_EQ(all.entriesLost, 0u);
    const auto payloads = readPayloads(directory.path() / "all.mvlog");
    for (const auto& [id, bytes] : payloads) {
        EXPECT_EQ(bytes, smallPayload(id)) << id;
    }
    EXPECT_TRUE(std::filesystem::exists(withLog.string() + "-wal"));

    const RecoveryReport some = Algorithms::recover(withoutLog, directory.path() / "some.mvlog");
    for (const auto& [id, bytes] : readPayloads(directory.path() / "some.mvlog")) {
        EXPECT_EQ(bytes, smallPayload(id)) << id;
    }
    EXPECT_LE(some.entriesRecovered, 50u);
}

TEST(RecoverTest, CInterfaceFillsTheReportAndReportsFailures) {
    TempDir directory;
    const std::filesystem::path damaged = directory.path() / "damaged.mvlog";
    writeSimpleFile(damaged);
    execute(damaged, "UPDATE data SET payload = x'00' WHERE entryId = 3;");
    MV_LogRecoveryReport report{};
    MV_LogError_p error = nullptr;
    ASSERT_TRUE(MV_LogAlgorithms_RecoverWithReport(damaged.c_str(), (directory.path() / "new.mvlog").c_str(),
                                                   &report, &error));
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(report.entriesRecovered, 99u);
    EXPECT_EQ(report.entriesLost, 1u);
    EXPECT_EQ(report.dataSourcesRecovered, 3u);
    EXPECT_EQ(report.resourcesRecovered, 2u);
    EXPECT_EQ(report.resourcesLost, 0u);
    EXPECT_EQ(report.bookmarksRecovered, 2u);
    EXPECT_EQ(report.bookmarksLost, 0u);
    EXPECT_EQ(report.metadataRecovered, 7u);

    EXPECT_FALSE(MV_LogAlgorithms_Recover(damaged.c_str(), (directory.path() / "new.mvlog").c_str(), &error));
    ASSERT_NE(error, nullptr);
    const char* message = nullptr;
    MV_LogError_GetErrorMessage(error, &message);
    EXPECT_NE(std::string(message).find("new.mvlog"), std::string::npos) << message;
    MV_LogError_Destroy(error);
    EXPECT_TRUE(
        MV_LogAlgorithms_Recover(damaged.c_str(), (directory.path() / "other.mvlog").c_str(), nullptr));
}

}  // namespace
}  // namespace RecoverTest
