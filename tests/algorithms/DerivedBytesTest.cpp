// The exact bytes of files that slice and clone write, over inputs made
// without any clock: every source file gets a fixed creation time and fixed
// contents, so its bytes are the same on every run.
//
// The only time-dependent field of an output is its "createdDateTime", which
// slice and clone stamp from the wall clock. Each output is compared after
// that one stored integer is overwritten with zeros in a copy of the file's
// bytes (it is found by value and must occur exactly once); every other byte,
// the SQLite header with its change counter included, is compared as
// written. The digests below were taken from files written by this code and
// depend on the SQLite and zstd builds in use, as stored pages and frames do.

#include <logging/Algorithms.h>
#include <logging/SqliteLogFile.h>

#include "AlgorithmsTestSupport.h"
#include "FakeLogFile.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

using namespace Marivane::Logging;
using namespace Marivane::Testing;

namespace {

// ---- SHA-256 (FIPS 180-4), enough to name a file's bytes ----------------------

class Sha256 {
public:
    static std::string hexDigestOf(const std::string& bytes) {
        Sha256 hash;
        hash.update(bytes);
        return hash.hexDigest();
    }

private:
    static constexpr std::array<uint32_t, 64> kRoundConstants = {
        0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
        0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
        0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
        0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
        0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
        0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
        0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
        0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

    static uint32_t rotateRight(uint32_t value, int bits) { return (value >> bits) | (value << (32 - bits)); }

    void update(const std::string& bytes) {
        for (const char byte : bytes) {
            block_[blockSize_++] = static_cast<uint8_t>(byte);
            if (blockSize_ == 64) {
                compressBlock();
                blockSize_ = 0;
            }
        }
        length_ += bytes.size();
    }

    std::string hexDigest() {
        const uint64_t bitLength = length_ * 8;
        std::string padding(1, static_cast<char>(0x80));
        padding.append((119 - length_ % 64) % 64, '\0');
        for (int shift = 56; shift >= 0; shift -= 8) {
            padding.push_back(static_cast<char>((bitLength >> shift) & 0xff));
        }
        update(padding);
        std::string hex;
        char digits[9];
        for (const uint32_t word : state_) {
            std::snprintf(digits, sizeof digits, "%08x", word);
            hex += digits;
        }
        return hex;
    }

    void compressBlock() {
        std::array<uint32_t, 64> words{};
        for (std::size_t i = 0; i < 16; ++i) {
            words[i] =
                static_cast<uint32_t>(block_[4 * i]) << 24 | static_cast<uint32_t>(block_[4 * i + 1]) << 16 |
                static_cast<uint32_t>(block_[4 * i + 2]) << 8 | static_cast<uint32_t>(block_[4 * i + 3]);
        }
        for (std::size_t i = 16; i < 64; ++i) {
            const uint32_t s0 =
                rotateRight(words[i - 15], 7) ^ rotateRight(words[i - 15], 18) ^ (words[i - 15] >> 3);
            const uint32_t s1 =
                rotateRight(words[i - 2], 17) ^ rotateRight(words[i - 2], 19) ^ (words[i - 2] >> 10);
            words[i] = words[i - 16] + s0 + words[i - 7] + s1;
        }
        std::array<uint32_t, 8> v = state_;
        for (std::size_t i = 0; i < 64; ++i) {
            const uint32_t s1 = rotateRight(v[4], 6) ^ rotateRight(v[4], 11) ^ rotateRight(v[4], 25);
            const uint32_t choice = (v[4] & v[5]) ^ (~v[4] & v[6]);
            const uint32_t t1 = v[7] + s1 + choice + kRoundConstants[i] + words[i];
            const uint32_t s0 = rotateRight(v[0], 2) ^ rotateRight(v[0], 13) ^ rotateRight(v[0], 22);
            const uint32_t majority = (v[0] & v[1]) ^ (v[0] & v[2]) ^ (v[1] & v[2]);
            v = {t1 + s0 + majority, v[0], v[1], v[2], v[3] + t1, v[4], v[5], v[6]};
        }
        for (std::size_t i = 0; i < 8; ++i) {
            state_[i] += v[i];
        }
    }

    std::array<uint32_t, 8> state_ = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                      0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
    std::array<uint8_t, 64> block_{};
    std::size_t blockSize_ = 0;
    uint64_t length_ = 0;
};

// ---- normalising the creation time ----------------------------------------------

int64_t createdDateTimeOf(const std::string& path) {
    sqlite3* db = nullptr;
    EXPECT_EQ(sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(db, "SELECT value FROM metadata WHERE key = 'createdDateTime';", -1,
                                 &statement, nullptr),
              SQLITE_OK);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW);
    const int64_t created = sqlite3_column_int64(statement, 0);
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return created;
}

// The width of the big-endian integer SQLite stores for `value` in a record.
std::size_t storedIntegerWidth(int64_t value) {
    for (const std::size_t width : {1, 2, 3, 4, 6}) {
        const int64_t limit = int64_t{1} << (8 * width - 1);
        if (value >= -limit && value < limit) {
            return width;
        }
    }
    return 8;
}

// The file's bytes with its stored creation time zeroed.
std::string normalisedContents(const std::string& path) {
    std::string contents = fileContents(path);
    const int64_t created = createdDateTimeOf(path);
    const std::size_t width = storedIntegerWidth(created);
    std::string stored;
    for (std::size_t i = width; i-- > 0;) {
        stored.push_back(static_cast<char>((static_cast<uint64_t>(created) >> (8 * i)) & 0xff));
    }
    const std::size_t at = contents.find(stored);
    EXPECT_NE(at, std::string::npos) << path << ": the creation time " << created << " is not stored";
    if (at == std::string::npos) {
        return contents;
    }
    EXPECT_EQ(contents.find(stored, at + 1), std::string::npos)
        << path << ": the bytes of the creation time occur more than once";
    contents.replace(at, width, std::string(width, '\0'));
    return contents;
}

std::string integrityOf(const std::string& path) {
    sqlite3* db = nullptr;
    EXPECT_EQ(sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
    std::string result;
    sqlite3_exec(
        db, "PRAGMA integrity_check;",
        [](void* text, int, char** values, char**) {
            *static_cast<std::string*>(text) += values[0] ? values[0] : "";
            return 0;
        },
        &result, nullptr);
    sqlite3_close(db);
    return result;
}

// ---- deterministic inputs -----------------------------------------------------

constexpr int kEntries = 40;

ByteBuffer payloadOfSize(int seed, std::size_t size) {
    ByteBuffer buffer = payloadFor(seed, size);
    // Some bytes that do not repeat, so a compressed frame is not trivial.
    for (std::size_t i = 0; i < size; i += 7) {
        buffer[i] = static_cast<std::byte>((seed * 31 + static_cast<int>(i) * 13) & 0xff);
    }
    return buffer;
}

// Three data sources with properties, typed metadata, resources with a
// thumbnail, entries spread over the sources (one without payload) and
// bookmarks added out of id order, two on the same entry.
void writeRichSource(const std::string& path, int8_t level, bool checksums) {
    SqliteLogFile file(path, "Europe/Oslo", "recorder", "1.0", level, 1'600'000'000'000, Durability::Fast,
                       checksums);
    ASSERT_TRUE(file.addDataSource(DataSource{1, MV_LogDataSourceType_Camera, "front camera"}));
    ASSERT_TRUE(file.addDataSource(DataSource{42, MV_LogDataSourceType_Lidar, "roof lidar"}));
    ASSERT_TRUE(file.addDataSource(DataSource{-3, MV_LogDataSourceType_Navigation, "gnss"}));
    ASSERT_TRUE(file.addDataSourceProperty({1, "width", int32_t{1920}}));
    ASSERT_TRUE(file.addDataSourceProperty({1, "fps", 29.97}));
    ASSERT_TRUE(file.addDataSourceProperty({42, "model", std::string("HDL-32")}));
    ASSERT_TRUE(file.addDataSourceProperty({-3, "epoch", int64_t{1} << 35}));
    ASSERT_TRUE(file.addMetadata("vehicle", std::string("test car 3")));
    ASSERT_TRUE(file.addMetadata("runNumber", int32_t{17}));
    ASSERT_TRUE(file.addMetadata("gain", 2.5));
    ASSERT_TRUE(file.addResource("calibration", payloadOfSize(70, 600)));
    ASSERT_TRUE(file.setThumbnail(bytes({0x89, 'P', 'N', 'G', 0, 1, 2, 3})));
    ASSERT_TRUE(file.addResource("empty", {}));
    const int8_t sources[] = {1, 42, -3};
    for (int id = 1; id <= kEntries; ++id) {
        DataEntry entry = entryFor(id, sources[id % 3]);
        entry.data = id == 17 ? ByteBuffer() : payloadOfSize(id, 64 + static_cast<std::size_t>(id) * 11);
        ASSERT_TRUE(file.logData(entry)) << file.getLastError();
    }
    for (const int id : {30, 1, 12, 12, kEntries, 25}) {
        ASSERT_TRUE(file.addBookmark({id, "mark " + std::to_string(id), "about", payloadOfSize(id, 40)}));
    }
}

void fillFake(FakeLogFile& fake) {
    fake.dataSources = {{7, MV_LogDataSourceType_Radar, "corner radar"}};
    fake.properties = {{7, "range", 250.0}};
    for (int id : {5, 6, 8, 9, 12}) {
        DataEntry entry = entryFor(id, 7);
        entry.entryId = id;
        fake.entries.push_back(entry);
    }
    fake.metadata = {{"applicationName", std::string("fake recorder")},
                     {"applicationVersion", std::string("0.1")},
                     {"currentTimeZone", std::string("Asia/Tokyo")},
                     {"site", std::string("track B")}};
    fake.resources = {{"notes", bytes({'h', 'i'})}};
    // Bookmark 7 marks no entry, which only a source without foreign keys
    // can hold: it moves to the entry after it.
    fake.bookmarks = {{8, "eight", "middle", bytes({8})},
                      {5, "five", "", {}},
                      {12, "twelve", "", {}},
                      {7, "seven", "", {}}};
}

// ---- the cases ----------------------------------------------------------------

struct Inputs {
    TempDir dir;
    std::string compressedWithChecksums = dir.file("level5-checksums.mvlog");
    std::string plain = dir.file("level0.mvlog");
    std::string defaultLevel = dir.file("default-level.mvlog");
    std::string gapped = dir.file("gapped.mvlog");
    std::string withoutEntries = dir.file("without-entries.mvlog");
    // More entries than one batch holds, so the commits between batches show
    // in the header's change counter.
    std::string manyEntries = dir.file("many-entries.mvlog");

    Inputs() {
        writeRichSource(compressedWithChecksums, 5, true);
        writeRichSource(plain, 0, false);
        writeRichSource(defaultLevel, -1, true);
        writeGappedSource(gapped);
        {
            SqliteLogFile file{std::filesystem::path(gapped)};
            for (const int id : {12, 5, 9, 8}) {
                EXPECT_TRUE(file.addBookmark({id, "gap " + std::to_string(id), "", {}}));
            }
        }
        {
            SourceSettings settings;
            settings.compressionLevel = 1;
            createSequentialSource(manyEntries, 9000, settings);
        }
        SqliteLogFile empty(withoutEntries, "UTC", "recorder", "1.0", 3, 1'600'000'000'000);
        EXPECT_TRUE(empty.addDataSource(DataSource{4, MV_LogDataSourceType_Inertial, "imu"}));
        EXPECT_TRUE(empty.addDataSourceProperty({4, "rate", int32_t{200}}));
        EXPECT_TRUE(empty.addMetadata("vehicle", std::string("test car 3")));
        EXPECT_TRUE(empty.setThumbnail(bytes({1, 2, 3, 4})));
    }
};

// Makes one derived file at the given path and closes it; false when refused.
using Derivation = std::function<bool(const Inputs&, const std::string& output)>;

bool sliced(const std::string& source, int first, int last, const std::string& output, signed char level,
            const std::string& application = "cutter") {
    SqliteLogFile file{std::filesystem::path(source)};
    return Algorithms::slice(file, first, last, output, application, "2.0", level) != nullptr;
}

bool cloned(const std::string& source, const std::string& output, signed char level) {
    SqliteLogFile file{std::filesystem::path(source)};
    return Algorithms::clone(file, output, "copier", "9.1", level) != nullptr;
}

struct Case {
    const char* name;
    Derivation derive;
    const char* digest;
};

const std::vector<Case>& cases() {
    static const std::vector<Case> all = {
        {"clone-same-level",
         [](const Inputs& in, const std::string& out) { return cloned(in.compressedWithChecksums, out, 5); },
         "631fbf24473d436ac57e6fc9c84386a9d1ff39a80af30145d0771174587c66ff"},
        {"clone-expanding",
         [](const Inputs& in, const std::string& out) { return cloned(in.compressedWithChecksums, out, 0); },
         "c08418ca6e70304dc1f8912ff0d48f56ed9715c6db59b7317d500d65e3e03c8d"},
        {"clone-compressing",
         [](const Inputs& in, const std::string& out) { return cloned(in.plain, out, 9); },
         "cbed7453d0c41384d6ac605282dd1a8762a2263a07e80f7ee643ec98b6836284"},
        {"clone-recompressing",
         [](const Inputs& in, const std::string& out) { return cloned(in.defaultLevel, out, 2); },
         "f373012a419268ab010481245d8302f9d27dd3e8c899801f2b176b44944f350f"},
        {"clone-default-level",
         [](const Inputs& in, const std::string& out) { return cloned(in.defaultLevel, out, -1); },
         "244b0e34e0a3d6468030f193f3a2ae88ec8f976c8513bca25ef502caa50efac0"},
        {"clone-without-entries",
         [](const Inputs& in, const std::string& out) { return cloned(in.withoutEntries, out, 3); },
         "776898ff58866f34a6eca0beb71883aa895a575cd53875f1524a54aa9eb064e7"},
        {"clone-gapped", [](const Inputs& in, const std::string& out) { return cloned(in.gapped, out, -1); },
         "b77f2eafb054c3c9617faa5af143275d0b3005dc20fafdd97e364233f134a5e5"},
        {"slice-middle-same-level",
         [](const Inputs& in, const std::string& out) {
             return sliced(in.compressedWithChecksums, 10, 30, out, 5);
         },
         "4fd32960b5a4aabec4859a8be5276ef8dfc8c481529fe72cd69b3a616e0f14e5"},
        {"slice-middle-expanding",
         [](const Inputs& in, const std::string& out) {
             return sliced(in.compressedWithChecksums, 10, 30, out, 0);
         },
         "5eb33a0a3c5a7640f6f1a32a6346b7e7e05a66d8e87310426b818101c915f370"},
        {"slice-middle-compressing",
         [](const Inputs& in, const std::string& out) { return sliced(in.plain, 12, 25, out, 4); },
         "04df6255349ab29ee1f6a250f33003240bede959a3ebb180bcc594503529345f"},
        {"slice-first-entry",
         [](const Inputs& in, const std::string& out) { return sliced(in.plain, 1, 1, out, 0); },
         "6b72a69a8d68beee3099d16134b45c758a1932e841324766f0a85ed8491a6397"},
        {"slice-last-entry",
         [](const Inputs& in, const std::string& out) {
             return sliced(in.compressedWithChecksums, kEntries, kEntries, out, 5);
         },
         "40f8554c2d264e4df1ae197a34b0f6070c5219393ffee294fe549cedbe63adb6"},
        {"slice-everything",
         [](const Inputs& in, const std::string& out) {
             return sliced(in.defaultLevel, 1, kEntries, out, -1);
         },
         "1a01b8598ebd9ad73f6c55beed79f7c4a3a8c33743d9c1ade7d610b2d08cf956"},
        {"slice-no-entries",
         [](const Inputs& in, const std::string& out) {
             return sliced(in.compressedWithChecksums, -1, -1, out, 5);
         },
         "c6c7174e1ce9fe0bbf1548cb20d7c76e3cd331a122e74ca940ad13ed54aa0a02"},
        {"slice-gapped",
         [](const Inputs& in, const std::string& out) { return sliced(in.gapped, 6, 12, out, 3); },
         "896aec767da2ed763026d0f96d797659bee77b1d754e8aee58b3e0234547c5df"},
        {"clone-many-entries",
         [](const Inputs& in, const std::string& out) { return cloned(in.manyEntries, out, 0); },
         "289e3e73fc86bccd3ca3cee51731b5917637bf5b792bae106211e644c36595a6"},
        {"slice-many-entries",
         [](const Inputs& in, const std::string& out) { return sliced(in.manyEntries, 2, 8999, out, 1); },
         "9313b67b3ab6402289f5c1e94aa1e3853c56f709c5e3837158b38b75083df276"},
        {"slice-of-a-slice",
         [](const Inputs& in, const std::string& out) {
             const std::string first = out + ".first";
             const bool made = sliced(in.compressedWithChecksums, 5, 35, first, 0) &&
                               sliced(first, 3, 20, out, 7, "trimmer");
             std::filesystem::remove(first);
             return made;
         },
         "36e5a884eb39f28f15011a16517c6f466fbe9fb307fbc1383a91f1b6ba0cec3e"},
        {"slice-of-an-interface",
         [](const Inputs&, const std::string& out) {
             FakeLogFile fake;
             fillFake(fake);
             return Algorithms::slice(fake, 6, 12, out, "cutter", "2.0", 1) != nullptr;
         },
         "c25848dc92c4d41debe8102b642df7eb91f66bf357f12e273d8fe40e3c68631c"},
    };
    return all;
}

}  // namespace

TEST(DerivedFileBytes, SliceAndCloneWriteTheRecordedBytes) {
    const Inputs inputs;
    std::string actualTable;
    for (const Case& derived : cases()) {
        SCOPED_TRACE(derived.name);
        const std::string output = inputs.dir.file(std::string(derived.name) + ".mvlog");
        ASSERT_TRUE(derived.derive(inputs, output));
        EXPECT_EQ(integrityOf(output), "ok");
        const std::string digest = Sha256::hexDigestOf(normalisedContents(output));
        EXPECT_EQ(digest, derived.digest);
        actualTable += std::string("    ") + derived.name + " " + digest + "\n";
    }
    if (HasFailure()) {
        std::printf("Digests of this run:\n%s", actualTable.c_str());
    }
}

TEST(DerivedFileBytes, TheDigestOfKnownBytes) {
    EXPECT_EQ(Sha256::hexDigestOf(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(Sha256::hexDigestOf("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(Sha256::hexDigestOf("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
    EXPECT_EQ(Sha256::hexDigestOf(std::string(1'000'000, 'a')),
              "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}
