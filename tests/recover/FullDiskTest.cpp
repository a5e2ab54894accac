// A salvage onto a full disk says so, with the room it needs, and leaves
// nothing behind.
#include "DamagedFiles.h"
#include "store/FaultInjectingVfs.h"
#include "support/TempDir.h"

#include <logging/Recover.h>
#include <logging/SqliteLogFile.h>

#include <gtest/gtest.h>
#include <sys/mount.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>

namespace RecoverTest {
namespace {

using Marivane::Logging::DataEntry;
using Marivane::Logging::DataSource;
using Marivane::Logging::RecoverOptions;
using Marivane::Logging::SqliteLogFile;
using Marivane::Testing::FaultInjectingVfs;
using Marivane::Testing::TempDir;
namespace Algorithms = Marivane::Logging::Algorithms;

constexpr int64_t kStart = 1'700'000'000'000;

// A file of about `bytes` bytes of incompressible entries of 2000 bytes.
void writeFileOf(const std::filesystem::path& path, std::size_t bytes) {
    std::mt19937 random(11);
    SqliteLogFile file(path.string(), "UTC", "fulltest", "1", 0, kStart);
    DataSource source{-1, MV_LogDataSourceType_Generic, "sensor"};
    ASSERT_TRUE(file.addDataSource(source));
    auto batch = file.beginBatch();
    for (std::size_t id = 1; id <= bytes / 2000; ++id) {
        DataEntry entry;
        entry.dataSourceId = source.id;
        entry.timestamp = kStart + static_cast<int64_t>(id);
        entry.data = randomBytes(2000, random);
        ASSERT_TRUE(file.logData(entry));
    }
    ASSERT_TRUE(batch.commit());
}

// Tenths of a mebibyte, as the message gives them.
std::string mebibytes(uintmax_t bytes, bool roundUp) {
    const double tenths = static_cast<double>(bytes) / (1024.0 * 1024.0 / 10.0);
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", (roundUp ? std::ceil(tenths) : std::floor(tenths)) / 10.0);
    return text;
}

std::string recoverFailure(const std::filesystem::path& damaged, const std::filesystem::path& output,
                           const RecoverOptions& options = {}) {
    try {
        (void)Algorithms::recover(damaged, output, options);
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    ADD_FAILURE() << "the salvage onto a full disk succeeded";
    return {};
}

std::vector<std::string> namesIn(const std::filesystem::path& directory) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        names.push_back(entry.path().filename().string());
    }
    return names;
}

// A small file system of its own, when this process may mount one.
class SmallDisk {
public:
    SmallDisk(const std::filesystem::path& where, const char* size) : path_(where) {
        std::filesystem::create_directories(path_);
        const std::string options = std::string("size=") + size;
        mounted_ = ::mount("tmpfs", path_.c_str(), "tmpfs", 0, options.c_str()) == 0;
        error_ = mounted_ ? 0 : errno;
    }
    ~SmallDisk() {
        if (mounted_) {
            ::umount2(path_.c_str(), MNT_DETACH);
        }
    }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;

    bool mounted() const { return mounted_; }
    std::string why() const { return std::strerror(error_); }
    uintmax_t free() const { return std::filesystem::space(path_).available; }

private:
    std::filesystem::path path_;
    bool mounted_ = false;
    int error_ = 0;
};

// The copies of a damaged file larger than the disk are not even started.
TEST(RecoverFullDiskTest, ACopyThatCannotFitIsRefusedWithTheRoomNeeded) {
    TempDir directory;
    SmallDisk disk(directory.path() / "small", "2m");
    if (!disk.mounted()) {
        GTEST_SKIP() << "cannot mount a small file system here: " << disk.why();
    }
    const std::filesystem::path damaged = directory.path() / "damaged.mvlog";
    writeFileOf(damaged, 3 * 1024 * 1024);
    const std::filesystem::path output = directory.path() / "small" / "new.mvlog";
    const std::string message = recoverFailure(damaged, output);
    EXPECT_EQ(message, "Not enough room on the disk for '" + output.string() + "': recovering needs about " +
                           mebibytes(2 * std::filesystem::file_size(damaged), true) + " MiB free, " +
                           mebibytes(disk.free(), false) + " MiB are free.");
    EXPECT_EQ(mebibytes(disk.free(), false), "2.0");
    EXPECT_TRUE(namesIn(directory.path() / "small").empty());
}

// The copy fits, the new file does not: the disk fills while it is written.
TEST(RecoverFullDiskTest, ANewFileThatFillsTheDiskIsNamedWithTheRoomNeeded) {
    TempDir directory;
    SmallDisk disk(directory.path() / "small", "2m");
    if (!disk.mounted()) {
        GTEST_SKIP() << "cannot mount a small file system here: " << disk.why();
    }
    const std::filesystem::path damaged = directory.path() / "damaged.mvlog";
    writeFileOf(damaged, 1200 * 1024);
    const std::filesystem::path output = directory.path() / "small" / "new.mvlog";
    const std::string message = recoverFailure(damaged, output);
    EXPECT_EQ(message, "Not enough room on the disk for '" + output.string() + "': recovering needs about " +
                           mebibytes(2 * std::filesystem::file_size(damaged), true) + " MiB free, " +
                           mebibytes(disk.free(), false) + " MiB are free.");
    EXPECT_TRUE(namesIn(directory.path() / "small").empty());
}

// Wherever the test runs: SQLite reports the disk full part way through the
// new file.
TEST(RecoverFullDiskTest, AFullDiskWhileWritingIsNamedEvenWhereNothingCanBeMounted) {
    TempDir directory;
    const std::filesystem::path damaged = directory.path() / "damaged.mvlog";
    writeFileOf(damaged, 4 * 1024 * 1024);
    const std::filesystem::path output = directory.path() / "new.mvlog";
    FaultInjectingVfs vfs;
    RecoverOptions options;
    options.progress = [&](uint64_t) { vfs.failGrowth(true); };
    const std::string message = recoverFailure(damaged, output, options);
    vfs.failGrowth(false);
    const std::string start = "Not enough room on the disk for '" + output.string() +
                              "': recovering needs about " +
                              mebibytes(2 * std::filesystem::file_size(damaged), true) + " MiB free, ";
    EXPECT_EQ(message.substr(0, start.size()), start) << message;
    EXPECT_EQ(message.substr(message.size() - 14), " MiB are free.") << message;
    EXPECT_EQ(namesIn(directory.path()), std::vector<std::string>{"damaged.mvlog"});
}

}  // namespace
}  // namespace RecoverTest
