// Hostile and boundary input through the class and the C interface: every
// case ends in the documented result or a clear error, never a crash or
// silently wrong bytes.
#include <logging/Logging.h>

#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <climits>

using namespace Marivane::Logging;
using Marivane::Testing::TempDir;

namespace {

// SQLite refuses strings and blobs above this many bytes.
constexpr std::size_t kSqliteMaxLength = 1000000000;

struct CreatedFile {
    explicit CreatedFile(const std::string& path, int8_t level = 0)
        : file(path, "UTC", "bad-input", "1", level, 1700000000000) {
        source.name = "source";
        EXPECT_TRUE(file.addDataSource(source));
    }
    DataEntry entry(ByteBuffer data, int32_t type = 0) const {
        DataEntry made;
        made.dataSourceId = source.id;
        made.type = type;
        made.timestamp = 1700000000000;
        made.data = std::move(data);
        return made;
    }
    SqliteLogFile file;
    DataSource source;
};

std::string errorText(MV_LogError_p error) {
    const char* message = nullptr;
    MV_LogError_GetErrorMessage(error, &message);
    std::string text = message;
    MV_LogError_Destroy(error);
    return text;
}

}  // namespace

TEST(BadInput, PayloadBeyondTheBlobLimitFailsCleanlyAndStoresNothing) {
    TempDir dir;
    CreatedFile created(dir.file("huge.mvlog"), 0);
    ASSERT_TRUE(created.file.logData(created.entry(ByteBuffer(4, std::byte{1}))));
    EXPECT_FALSE(created.file.logData(created.entry(ByteBuffer(kSqliteMaxLength + 1, std::byte{7}))));
    EXPECT_EQ(created.file.getLastError(), "Unknown internal error");
    EXPECT_EQ(created.file.getEntryCount(), 1);
    EXPECT_EQ(created.file.getLastEntryId(), 1);
}

TEST(BadInput, PayloadBeyondTheBlobLimitThroughTheCInterface) {
    TempDir dir;
    MV_LogConfig_p config = MV_LogConfig_Create("bad-input", "1", "UTC");
    ASSERT_TRUE(MV_LogConfig_SetCompressionLevel(config, 0, nullptr));
    MV_LogError_p error = nullptr;
    MV_LogFile_p file = MV_LogFile_Create(dir.file("huge.mvlog").c_str(), config, &error);
    MV_LogConfig_Destroy(config);
    ASSERT_NE(file, nullptr);
    MV_LogDataSource_p source = MV_LogDataSource_Create(MV_LogDataSourceType_Generic, "source");
    ASSERT_TRUE(MV_LogFile_AddDataSource(file, source, &error));
    int8_t id = 0;
    MV_LogDataSource_GetId(source, &id);
    MV_LogDataSource_Destroy(source);

    std::vector<uint8_t> huge(kSqliteMaxLength + 1, 3);
    MV_LogDataEntry_p entry = MV_LogDataEntry_Create(&id, 1, huge.data(), static_cast<int64_t>(huge.size()));
    huge = {};
    EXPECT_FALSE(MV_LogFile_LogData(file, entry, &error));
    EXPECT_EQ(errorText(error), "Unknown internal error");
    MV_LogDataEntry_Destroy(entry);
    int32_t count = -1;
    EXPECT_TRUE(MV_LogFile_GetEntryCount(file, &count, nullptr));
    EXPECT_EQ(count, 0);
    MV_LogFile_Destroy(file);
}

TEST(BadInput, EmptyAndNonUtf8NamesComeBackByteForByte) {
    TempDir dir;
    const std::string path = dir.file("names.mvlog");
    const std::string binaryName("\xff\xfe\x80 name \xc3", 10);
    {
        SqliteLogFile file(path, "UTC", "bad-input", "1", -1, 0);
        DataSource empty{-1, MV_LogDataSourceType_Generic, ""};
        DataSource binary{-1, MV_LogDataSourceType_Generic, binaryName};
        ASSERT_TRUE(file.addDataSource(empty));
        ASSERT_TRUE(file.addDataSource(binary));
        ASSERT_TRUE(file.addMetadata(binaryName, PropertyValue(binaryName)));
        ASSERT_TRUE(file.addResource("", ByteBuffer{std::byte{1}}));
        ASSERT_TRUE(file.addDataSourceProperty({binary.id, "", PropertyValue(std::string())}));
    }
    SqliteLogFile file{std::filesystem::path(path)};
    const std::vector<DataSource> sources = file.getDataSources();
    ASSERT_EQ(sources.size(), 2u);
    EXPECT_EQ(sources[0].name, "");
    EXPECT_EQ(sources[1].name, binaryName);
    EXPECT_EQ(file.getMetadataValue(binaryName), PropertyValue(binaryName));
    EXPECT_EQ(file.getResource(""), ByteBuffer{std::byte{1}});
    EXPECT_EQ(file.getDataSourceProperty(2, ""), PropertyValue(std::string()));
}

TEST(BadInput, NulBytesInPayloadsAndPropertyTextsAreKept) {
    TempDir dir;
    const std::string path = dir.file("nul.mvlog");
    const std::string textWithNul("a\0b\0", 4);
    const ByteBuffer zeros(1000, std::byte{0});
    {
        CreatedFile created(path, 5);
        ASSERT_TRUE(created.file.logData(created.entry(zeros)));
        ASSERT_TRUE(
            created.file.addDataSourceProperty({created.source.id, textWithNul, PropertyValue(textWithNul)}));
        ASSERT_TRUE(created.file.addBookmark({1, textWithNul, textWithNul, zeros}));
    }
    SqliteLogFile file{std::filesystem::path(path)};
    EXPECT_EQ(file.readEntry(1)->data, zeros);
    EXPECT_EQ(file.getDataSourceProperty(1, textWithNul), PropertyValue(textWithNul));
    const std::vector<Bookmark> bookmarks = file.getBookmarks();
    ASSERT_EQ(bookmarks.size(), 1u);
    EXPECT_EQ(bookmarks[0].title, textWithNul);
    EXPECT_EQ(bookmarks[0].comments, textWithNul);
    EXPECT_EQ(bookmarks[0].payload, zeros);
}

TEST(BadInput, DataSourceIdBoundaries) {
    TempDir dir;
    SqliteLogFile file(dir.file("ids.mvlog"), "UTC", "bad-input", "1", 0, 0);
    for (const int8_t id : {int8_t{-128}, int8_t{127}, int8_t{0}, int8_t{-1}}) {
        ASSERT_TRUE(file.addDataSource(DataSource{id, MV_LogDataSourceType_Generic, "s"}));
        DataEntry entry;
        entry.dataSourceId = id;
        entry.type = id;
        entry.data = ByteBuffer{std::byte{static_cast<unsigned char>(id)}};
        ASSERT_TRUE(file.logData(entry));
    }
    EntryIndexFilter filter;
    filter.dataSources = {-128, 127};
    EXPECT_EQ(file.getEntryIndex(filter), (std::vector<int32_t>{1, 2}));
    const std::vector<DataEntry> entries = file.readEntries(-1, -1, EntryIndexFilter{}, -1);
    ASSERT_EQ(entries.size(), 4u);
    EXPECT_EQ(entries[0].dataSourceId, -128);
    EXPECT_EQ(entries[1].dataSourceId, 127);
    EXPECT_EQ(entries[3].dataSourceId, -1);
}

TEST(BadInput, EntryIdBoundaries) {
    TempDir dir;
    CreatedFile created(dir.file("entries.mvlog"));
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(
            created.file.logData(created.entry(ByteBuffer(3, std::byte{static_cast<unsigned char>(i)}))));
    }
    SqliteLogFile& file = created.file;
    const std::string before = file.getLastError();
    for (const int32_t id : {INT32_MIN, INT32_MAX, -128, 127, 0, -1}) {
        EXPECT_FALSE(file.readEntry(id).has_value()) << id;
    }
    EXPECT_EQ(file.getLastError(), before);
    EXPECT_EQ(file.readEntries(INT32_MIN, INT32_MAX, EntryIndexFilter{}, -1).size(), 3u);
    EXPECT_TRUE(file.readEntries(INT32_MAX, INT32_MIN, EntryIndexFilter{}, -1).empty());
    EXPECT_EQ(file.readEntries(-1, INT32_MAX, EntryIndexFilter{}, -1).size(), 3u);
    EXPECT_FALSE(file.addBookmark({INT32_MAX, "t", "c", {}}));
    EXPECT_EQ(file.getLastError(), "Unknown internal error");
    EXPECT_TRUE(file.removeBookmark({INT32_MIN, "", "", {}}));
}

TEST(BadInput, LimitsOfZeroAndBelow) {
    TempDir dir;
    CreatedFile created(dir.file("limits.mvlog"));
    for (int i = 0; i < 6; ++i) {
        ASSERT_TRUE(
            created.file.logData(created.entry(ByteBuffer(1, std::byte{static_cast<unsigned char>(i)}))));
    }
    EXPECT_TRUE(created.file.readEntries(-1, -1, EntryIndexFilter{}, 0).empty());
    // SQLite reads a negative LIMIT as no limit at all.
    EXPECT_EQ(created.file.readEntries(-1, -1, EntryIndexFilter{}, -2).size(), 6u);
    EXPECT_EQ(created.file.readEntries(-1, -1, EntryIndexFilter{}, INT32_MIN).size(), 6u);
    EXPECT_EQ(created.file.readEntries(-1, -1, EntryIndexFilter{}, INT32_MAX).size(), 6u);
}

TEST(BadInput, DirectoryPathsAreRefusedWithTheDatabaseMessage) {
    TempDir dir;
    EXPECT_THROW(SqliteLogFile{dir.path()}, Marivane::Database::DatabaseAccessError);
    try {
        SqliteLogFile file{dir.path()};
    } catch (const Marivane::Database::FileIsNotDatabase&) {
        FAIL() << "a directory is not a foreign file";
    } catch (const Marivane::Database::DatabaseAccessError& error) {
        EXPECT_NE(std::string(error.what()).find("unable to open database file"), std::string::npos)
            << error.what();
    }
    MV_LogError_p error = nullptr;
    EXPECT_EQ(MV_LogFile_Open(dir.path().c_str(), &error), nullptr);
    EXPECT_NE(errorText(error).find("unable to open database file"), std::string::npos);
}

namespace {

// Runs `check` in a child that has dropped root, so file permissions apply;
// returns the child's exit code (0 when every check held).
template <typename Check>
int runAsNobody(Check check) {
    const pid_t child = fork();
    if (child == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0) {
            _exit(90);
        }
        _exit(check());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 99;
}

void writeLogFile(const std::string& path) {
    CreatedFile created(path, -1);
    ASSERT_TRUE(created.file.logData(created.entry(ByteBuffer(10, std::byte{9}))));
}

}  // namespace

TEST(BadInput, UnreadableFileIsRefusedWithAClearError) {
    TempDir dir;
    const std::string path = dir.file("unreadable.mvlog");
    writeLogFile(path);
    ASSERT_EQ(chmod(path.c_str(), 0000), 0);
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
    const int result = runAsNobody([&] {
        try {
            SqliteLogFile file{std::filesystem::path(path)};
            return 1;
        } catch (const Marivane::Database::FileIsNotDatabase&) {
            return 2;
        } catch (const Marivane::Database::DatabaseAccessError& error) {
            return std::string(error.what()).find("unable to open database file") != std::string::npos ? 0
                                                                                                       : 3;
        }
    });
    EXPECT_EQ(result, 0);
}

TEST(BadInput, FileInAReadOnlyDirectoryReadsButRefusesWrites) {
    TempDir dir;
    const std::filesystem::path locked = dir.path() / "locked";
    std::filesystem::create_directory(locked);
    const std::string path = (locked / "readonly.mvlog").string();
    writeLogFile(path);
    ASSERT_EQ(chmod(path.c_str(), 0644), 0);
    ASSERT_EQ(chmod(locked.c_str(), 0555), 0);
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
    const int result = runAsNobody([&] {
        SqliteLogFile file{std::filesystem::path(path)};
        const std::optional<DataEntry> entry = file.readEntry(1);
        if (!entry || entry->data != ByteBuffer(10, std::byte{9})) {
            return 1;
        }
        if (file.addMetadata("note", PropertyValue(std::string("x")))) {
            return 2;
        }
        if (file.getLastError() != "Unknown internal error") {
            return 3;
        }
        if (file.getEntryCount() != 1) {
            return 4;
        }
        // A new file cannot be made there either.
        MV_LogConfig_p config = MV_LogConfig_Create("a", "1", "UTC");
        MV_LogError_p error = nullptr;
        MV_LogFile_p created = MV_LogFile_Create(
            (std::filesystem::path(path).parent_path() / "new.mvlog").c_str(), config, &error);
        MV_LogConfig_Destroy(config);
        if (created != nullptr || error == nullptr) {
            MV_LogFile_Destroy(created);
            return 5;
        }
        return errorText(error).empty() ? 6 : 0;
    });
    EXPECT_EQ(result, 0);
    chmod(locked.c_str(), 0755);
}
