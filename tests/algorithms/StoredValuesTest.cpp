// Stored values that no record can carry: reads and derived files fail
// clearly instead of answering with a value cut to 32 bits.

#include <logging/Algorithms.h>
#include <logging/Copy.h>
#include <logging/SqliteLogFile.h>

#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <string>

using namespace Marivane::Logging;
using Marivane::Testing::TempDir;
namespace fs = std::filesystem;

namespace {

// 300 entries whose last id is 2^31, one past the largest 32-bit id.
std::string fileWithAnIdBeyond32Bits(const TempDir& dir) {
    const std::string path = dir.file("wide.mvlog");
    {
        SqliteLogFile file(path, "UTC", "test", "1", 0, 0);
        DataSource source{-1, MV_LogDataSourceType_Generic, "generic"};
        EXPECT_TRUE(file.addDataSource(source));
        SqliteLogFile::WriteBatch batch = file.beginBatch();
        for (int i = 0; i < 300; ++i) {
            EXPECT_TRUE(file.logData(DataEntry{0, source.id, 1, ByteBuffer(10, std::byte{7}), i}));
        }
        EXPECT_TRUE(batch.commit());
    }
    sqlite3* db = nullptr;
    EXPECT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, "UPDATE data SET entryId = 2147483648 WHERE entryId = 300;", nullptr, nullptr,
                           nullptr),
              SQLITE_OK);
    sqlite3_close(db);
    return path;
}

}  // namespace

TEST(StoredValuesBeyondARecord, TheLastIdIsAFailureNotANegativeId) {
    TempDir dir;
    const std::string path = fileWithAnIdBeyond32Bits(dir);
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    const uint64_t failures = file.getFailureCount();
    EXPECT_EQ(file.getLastEntryId(), -1);
    EXPECT_EQ(file.getFailureCount(), failures + 1);
    EXPECT_EQ(file.getLastFailureKind(), FailureKind::Damaged);
    EXPECT_EQ(file.getLastFailure(),
              "Reading '" + path + "' failed: the stored value 2147483648 does not fit in 32 bits");
    EXPECT_EQ(file.getFirstEntryId(), 1);
    EXPECT_EQ(file.getEntryCount(), 300);
}

TEST(StoredValuesBeyondARecord, ACopyOfTheWholeFileFailsAndLeavesNothing) {
    TempDir dir;
    const std::string path = fileWithAnIdBeyond32Bits(dir);
    const std::string output = dir.file("copy.mvlog");
    try {
        Algorithms::copy(path, output);
        FAIL() << "copied a file whose last id does not fit in 32 bits";
    } catch (const std::runtime_error& error) {
        EXPECT_NE(std::string(error.what()).find("the stored value 2147483648 does not fit in 32 bits"),
                  std::string::npos)
            << error.what();
    }
    EXPECT_FALSE(fs::exists(output));
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 1);
}

TEST(StoredValuesBeyondARecord, ACloneFailsInsteadOfWritingAnEmptyFile) {
    TempDir dir;
    const std::string path = fileWithAnIdBeyond32Bits(dir);
    SqliteLogFile file{fs::path(path)};
    const std::string output = dir.file("clone.mvlog");
    EXPECT_EQ(Algorithms::clone(file, output, "test", "1", 0), nullptr);
    EXPECT_FALSE(fs::exists(output));
}
