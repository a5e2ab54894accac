// What a reader can be sure of: a new file is never seen half made, a file
// cut short never reads back invented bytes, and paths that are no files are
// refused before anything blocks on them.

#include <logging/EntryIndexFilter.h>
#include <logging/EntryRange.h>
#include <logging/EntryView.h>
#include <logging/SqliteLogFile.h>

#include <database/DatabaseAccessError.h>

#include "StoreTestSupport.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

using namespace Marivane::Logging;
using Marivane::Testing::RawDatabase;
using Marivane::Testing::TempDir;
namespace fs = std::filesystem;

namespace {

constexpr int64_t kCreated = 1700000000000;

std::vector<unsigned char> fileBytes(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    return std::vector<unsigned char>(std::istreambuf_iterator<char>(stream), {});
}

uint32_t bigEndian32(const std::vector<unsigned char>& bytes, std::size_t at) {
    return uint32_t{bytes[at]} << 24 | uint32_t{bytes[at + 1]} << 16 | uint32_t{bytes[at + 2]} << 8 |
           uint32_t{bytes[at + 3]};
}

// The header fields that count commits and name the SQLite version that
// wrote them; everything else of a file is its content.
std::vector<unsigned char> withoutCommitCounters(std::vector<unsigned char> bytes) {
    for (std::size_t at : {24u, 92u, 96u}) {
        for (std::size_t i = 0; i < 4 && at + i < bytes.size(); ++i) {
            bytes[at + i] = 0;
        }
    }
    return bytes;
}

ByteBuffer pattern(std::size_t size, unsigned seed) {
    ByteBuffer bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<std::byte>((i * 31 + seed) & 0xff);
    }
    return bytes;
}

// "f<n>.mvlog", built in steps: GCC 12 warns falsely about a literal
// prepended to a temporary string in optimised builds.
std::string numberedName(int number) {
    std::string name = "f";
    name += std::to_string(number);
    name += ".mvlog";
    return name;
}

}  // namespace

TEST(CreationIsAtomic, TablesAndFixedMetadataAreOneCommit) {
    TempDir dir;
    const std::string path = dir.file("one.mvlog");
    { SqliteLogFile file(path, "Etc/UTC", "app", "1.0", 3, kCreated); }
    const std::vector<unsigned char> bytes = fileBytes(path);
    ASSERT_GE(bytes.size(), 100u);
    // The header's change counter counts write transactions.
    EXPECT_EQ(bigEndian32(bytes, 24), 1u);
}

TEST(CreationIsAtomic, TheFinishedFileHoldsWhatTwoCommitsWrote) {
    TempDir dir;
    const std::string made = dir.file("made.mvlog");
    const std::string stepwise = dir.file("stepwise.mvlog");
    for (const Durability durability : {Durability::Fast, Durability::Safe}) {
        fs::remove(made);
        fs::remove(stepwise);
        { SqliteLogFile file(made, "Europe/Paris", "app", "2.5", -1, kCreated, durability); }
        {
            // The tables first, then each key on its own.
            SqliteLogFile file{fs::path(stepwise)};
            ASSERT_TRUE(file.addMetadata("createdDateTime", int64_t{kCreated}));
            ASSERT_TRUE(file.addMetadata("applicationName", std::string("app")));
            ASSERT_TRUE(file.addMetadata("applicationVersion", std::string("2.5")));
            ASSERT_TRUE(file.addMetadata("currentTimeZone", std::string("Europe/Paris")));
            ASSERT_TRUE(file.addMetadata("logVersion", int32_t{4}));
            ASSERT_TRUE(file.addMetadata("compressionLevel", int32_t{-1}));
        }
        if (durability == Durability::Safe) {
            // A safe file keeps its mode in the header: make the stepwise one
            // safe the way the store does, then compare content.
            RawDatabase(stepwise).exec("PRAGMA journal_mode = WAL;");
        }
        EXPECT_EQ(withoutCommitCounters(fileBytes(made)), withoutCommitCounters(fileBytes(stepwise)))
            << "durability " << static_cast<int>(durability);
    }
}

TEST(CreationIsAtomic, ReadersOpeningDuringCreationNeverSeeAFileWithoutItsLevel) {
    // A reader that opened between the tables and the metadata took the file
    // for an uncompressed one for its whole life. Race creation against
    // opening for a bounded time.
    TempDir dir;
    std::atomic<bool> done{false};
    std::atomic<int> created{0};
    std::atomic<int> opened{0};
    std::atomic<int> wrong{0};
    std::thread reader([&] {
        int next = 0;
        while (!done.load()) {
            const std::string path = dir.file(numberedName(next));
            if (!fs::exists(path)) {
                if (created.load() > next + 1) {
                    ++next;  // missed it; try the next one
                }
                continue;
            }
            try {
                SqliteLogFile file = SqliteLogFile::openReadOnly(path);
                ++opened;
                const std::optional<PropertyValue> level = file.getMetadataValue("compressionLevel");
                if (!level || std::get<int64_t>(*level) != 5) {
                    ++wrong;
                }
                ++next;
            } catch (const std::exception&) {
                // Not a log file yet, or busy: look again.
            }
        }
    });
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    for (int i = 0; std::chrono::steady_clock::now() < until && i < 400; ++i) {
        const std::string path = dir.file(numberedName(i));
        SqliteLogFile file(path, "Etc/UTC", "app", "1.0", 5, kCreated);
        ++created;
        // Give the reader a chance to catch the next one early.
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    done = true;
    reader.join();
    EXPECT_GT(opened.load(), 0);
    EXPECT_EQ(wrong.load(), 0) << "of " << opened.load() << " opens";
}

namespace {

// A level-0 file whose last entry's payload is the last bytes of the file.
std::string uncompressedFileEndingInAPayload(const TempDir& dir, std::vector<ByteBuffer>& payloads) {
    const std::string path = dir.file("cut.mvlog");
    SqliteLogFile file(path, "Etc/UTC", "app", "1.0", 0, kCreated);
    DataSource source{-1, MV_LogDataSourceType(1), "sensor"};
    EXPECT_TRUE(file.addDataSource(source));
    for (unsigned i = 0; i < 40; ++i) {
        payloads.push_back(pattern(3000 + i, i));
        EXPECT_TRUE(file.logData(DataEntry{0, source.id, 1, payloads.back(), kCreated + i}));
    }
    return path;
}

}  // namespace

TEST(FileCutShort, AnEntryOnTheMissingPartFailsInsteadOfReadingZeros) {
    TempDir dir;
    std::vector<ByteBuffer> payloads;
    const std::string path = uncompressedFileEndingInAPayload(dir, payloads);
    const auto size = fs::file_size(path);
    // Find the entry whose bytes end the file: the one whose last byte is
    // the file's last byte is not knowable in general, so cut a byte and
    // compare every entry with what was written.
    fs::resize_file(path, size - 1);
    SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    int failed = 0;
    for (int id = 1; id <= 40; ++id) {
        const std::optional<DataEntry> entry = file.readEntry(id);
        if (!entry) {
            ++failed;
            continue;
        }
        // Never a wrong byte.
        EXPECT_EQ(entry->data, payloads[static_cast<std::size_t>(id - 1)]) << "entry " << id;
    }
    EXPECT_GE(failed, 1) << "a byte was cut from a page holding data, yet every entry read";
    EXPECT_NE(file.getLastFailure().find("database disk image is malformed"), std::string::npos)
        << file.getLastFailure();
}

TEST(FileCutShort, AStreamingReadNamesTheEntryOnTheMissingPart) {
    TempDir dir;
    std::vector<ByteBuffer> payloads;
    const std::string path = uncompressedFileEndingInAPayload(dir, payloads);
    fs::resize_file(path, fs::file_size(path) - 1);
    SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    int delivered = 0;
    const bool finished = file.visitEntries(EntryRange{}, EntryIndexFilter{}, [&](const EntryView& view) {
        EXPECT_EQ(ByteBuffer(view.data, view.data + view.size),
                  payloads[static_cast<std::size_t>(view.entryId - 1)])
            << "entry " << view.entryId;
        ++delivered;
        return true;
    });
    EXPECT_FALSE(finished);
    EXPECT_LT(delivered, 40);
}

TEST(FileCutShort, AWholeFileStillReadsEveryEntry) {
    TempDir dir;
    std::vector<ByteBuffer> payloads;
    const std::string path = uncompressedFileEndingInAPayload(dir, payloads);
    SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    for (int id = 1; id <= 40; ++id) {
        const std::optional<DataEntry> entry = file.readEntry(id);
        ASSERT_TRUE(entry) << "entry " << id;
        EXPECT_EQ(entry->data, payloads[static_cast<std::size_t>(id - 1)]);
    }
}

TEST(SpecialFiles, AFifoIsRefusedWithoutBlocking) {
    TempDir dir;
    const std::string fifo = dir.file("pipe.mvlog");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string expected = "Cannot open database '" + fifo + "': it is not a regular file.";
    const auto started = std::chrono::steady_clock::now();
    for (const bool readOnly : {true, false}) {
        try {
            if (readOnly) {
                (void)SqliteLogFile::openReadOnly(fifo);
            } else {
                SqliteLogFile file{fs::path(fifo)};
            }
            ADD_FAILURE() << "opened a FIFO";
        } catch (const Marivane::Database::DatabaseAccessError& error) {
            EXPECT_EQ(error.what(), expected);
        }
    }
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
}

TEST(SpecialFiles, ADeviceIsRefusedAndASymlinkToAFileIsNot) {
    TempDir dir;
    try {
        (void)SqliteLogFile::openReadOnly("/dev/null");
        ADD_FAILURE() << "opened /dev/null";
    } catch (const Marivane::Database::DatabaseAccessError& error) {
        EXPECT_STREQ(error.what(), "Cannot open database '/dev/null': it is not a regular file.");
    }
    const std::string path = dir.file("real.mvlog");
    { SqliteLogFile file(path, "Etc/UTC", "app", "1.0", 0, kCreated); }
    const std::string link = dir.file("link.mvlog");
    fs::create_symlink(path, link);
    SqliteLogFile file = SqliteLogFile::openReadOnly(link);
    EXPECT_EQ(file.getEntryCount(), 0);
}

namespace {

// A stored payload that declares 2 GiB in 64 KiB of frame (RLE blocks).
std::vector<unsigned char> twoGiBBomb() {
    constexpr uint32_t kBlock = 128 * 1024;
    constexpr uint32_t kBlocks = 16384;
    std::vector<unsigned char> frame = {0x28, 0xB5, 0x2F, 0xFD, 0xE0};
    const uint64_t declared = uint64_t{kBlocks} * kBlock;
    for (int i = 0; i < 8; ++i) {
        frame.push_back(static_cast<unsigned char>(declared >> (8 * i)));
    }
    for (uint32_t block = 0; block < kBlocks; ++block) {
        const uint32_t header = (block + 1 == kBlocks ? 1u : 0u) | (1u << 1) | (kBlock << 3);
        frame.push_back(static_cast<unsigned char>(header));
        frame.push_back(static_cast<unsigned char>(header >> 8));
        frame.push_back(static_cast<unsigned char>(header >> 16));
        frame.push_back(0x42);
    }
    return frame;
}

}  // namespace

TEST(DecompressionBombs, ReadsRefuseAPayloadLargerThanAnyStoredValue) {
    TempDir dir;
    const std::string path = dir.file("bomb.mvlog");
    {
        SqliteLogFile file(path, "Etc/UTC", "app", "1.0", -1, kCreated);
        DataSource source{-1, MV_LogDataSourceType(1), "sensor"};
        ASSERT_TRUE(file.addDataSource(source));
        ASSERT_TRUE(file.logData(DataEntry{0, source.id, 1, pattern(100, 1), kCreated}));
    }
    {
        const std::vector<unsigned char> bomb = twoGiBBomb();
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
        sqlite3_stmt* statement = nullptr;
        ASSERT_EQ(sqlite3_prepare_v2(db, "UPDATE data SET payload = ?, length = ? WHERE entryId = 1;", -1,
                                     &statement, nullptr),
                  SQLITE_OK);
        sqlite3_bind_blob(statement, 1, bomb.data(), static_cast<int>(bomb.size()), SQLITE_STATIC);
        sqlite3_bind_int(statement, 2, static_cast<int>(bomb.size()));
        ASSERT_EQ(sqlite3_step(statement), SQLITE_DONE);
        sqlite3_finalize(statement);
        sqlite3_close(db);
    }
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    const auto started = std::chrono::steady_clock::now();
    try {
        (void)file.readEntry(1);
        ADD_FAILURE() << "expanded a 2 GiB bomb";
    } catch (const std::exception& error) {
        EXPECT_STREQ(
            error.what(),
            "Cannot uncompress data: the frame declares 2147483648 bytes, more than the 1000000000 bytes "
            "any stored value can hold");
    }
    EXPECT_FALSE(file.visitEntries(EntryRange{}, EntryIndexFilter{}, [](const EntryView&) { return true; }));
    EXPECT_NE(file.getLastFailure().find("more than the 1000000000 bytes any stored value can hold"),
              std::string::npos)
        << file.getLastFailure();
    // Refused before anything was allocated or expanded.
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(2));
}
