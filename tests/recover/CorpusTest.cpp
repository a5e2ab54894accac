#include "DamagedFiles.h"
#include "support/TempDir.h"

#include <logging/Recover.h>
#include <logging/SqliteLogFile.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <random>
#include <set>
#include <string>

namespace RecoverTest {
namespace {

using Marivane::Logging::RecoveryReport;
using Marivane::Testing::TempDir;
namespace Algorithms = Marivane::Logging::Algorithms;

struct Tally {
    uint64_t files = 0;
    uint64_t intact = 0;
    uint64_t intactRecovered = 0;
    uint64_t damagedRecovered = 0;
    uint64_t wrongBytes = 0;
    uint64_t failures = 0;
    // Original entries that did not come back, and how many of them the
    // report counted as lost.
    uint64_t missing = 0;
    uint64_t countedLost = 0;
    // Reports whose lost count was a lower bound.
    uint64_t lowerBounds = 0;
    // Reports whose counts contradict what was written.
    uint64_t dishonestCounts = 0;
    void add(const Tally& other) {
        files += other.files;
        intact += other.intact;
        intactRecovered += other.intactRecovered;
        damagedRecovered += other.damagedRecovered;
        wrongBytes += other.wrongBytes;
        failures += other.failures;
        missing += other.missing;
        countedLost += other.countedLost;
        lowerBounds += other.lowerBounds;
        dishonestCounts += other.dishonestCounts;
    }
};

// The report's counts against the original: the lost ids are exactly the
// ids from 1 to the highest one counted that did not come back, and they
// account for every missing entry unless the report says its count is a
// lower bound (then they never count more than were written).
void checkCounts(const OriginalFile& original, const Damage& damage, const RecoveryReport& report,
                 const std::map<int32_t, ByteBuffer>& recovered, Tally& tally) {
    const uint64_t written = original.payloads.size();
    tally.missing = written - std::min<uint64_t>(written, recovered.size());
    tally.countedLost = report.entriesLost;
    tally.lowerBounds = report.entriesLostIsLowerBound ? 1 : 0;
    bool honest = report.entriesRecovered == recovered.size();
    std::set<int64_t> lost;
    for (const auto& run : report.lostEntryIds) {
        for (int64_t id = run.first; id <= run.last; ++id) {
            lost.insert(id);
            honest = honest && recovered.count(static_cast<int32_t>(id)) == 0;
        }
    }
    const uint64_t counted = report.entriesRecovered + report.entriesLost;
    honest = honest && lost.size() == report.entriesLost;
    for (int64_t id = 1; honest && id <= static_cast<int64_t>(counted); ++id) {
        honest = lost.count(id) != 0 || recovered.count(static_cast<int32_t>(id)) != 0;
    }
    honest = honest && (report.entriesLostIsLowerBound ? counted <= written : counted == written);
    if (!honest) {
        tally.dishonestCounts = 1;
        ADD_FAILURE() << damage.kind << ": " << report.entriesRecovered << " recovered, "
                      << (report.entriesLostIsLowerBound ? "at least " : "") << report.entriesLost
                      << " lost of " << written << " written";
    }
}

// Salvages one damaged copy and scores it against what the damage left: an
// entry is intact when none of the pages its stored bytes lived on was
// touched and its own bytes were not changed. Every entry that comes back
// must have its original bytes, unless `wrongBytesExpected` (a file that
// cannot tell, scored to show it).
Tally scoreOne(const OriginalFile& original, const Damage& damage, const std::filesystem::path& damaged,
               const std::filesystem::path& output, bool wrongBytesExpected = false) {
    Tally tally;
    tally.files = 1;
    RecoveryReport report;
    try {
        report = Algorithms::recover(damaged, output);
    } catch (const std::exception& error) {
        ADD_FAILURE() << damage.kind << ": " << error.what();
        tally.failures = 1;
        return tally;
    }
    const std::map<int32_t, ByteBuffer> recovered = readPayloads(output);
    checkCounts(original, damage, report, recovered, tally);
    for (const auto& [id, pages] : original.pagesOf) {
        bool intact = damage.entries.count(id) == 0;
        for (const uint32_t page : pages) {
            intact = intact && damage.pages.count(page) == 0;
        }
        const auto found = recovered.find(id);
        const bool back = found != recovered.end();
        if (back && found->second != original.payloads.at(id)) {
            ++tally.wrongBytes;
            if (!wrongBytesExpected) {
                ADD_FAILURE() << damage.kind << ": entry " << id << " came back with other bytes";
            }
            continue;
        }
        tally.intact += intact ? 1 : 0;
        tally.intactRecovered += intact && back ? 1 : 0;
        tally.damagedRecovered += !intact && back ? 1 : 0;
    }
    for (const auto& [id, bytes] : recovered) {
        if (original.payloads.count(id) == 0) {
            ++tally.wrongBytes;
            ADD_FAILURE() << damage.kind << ": entry " << id << " never existed";
        }
    }
    return tally;
}

void printTally(const std::string& kind, const Tally& tally) {
    std::printf(
        "%-58s files %2llu  intact %5llu  recovered %5llu  damaged but recovered %3llu  wrong %llu  "
        "missing %5llu  counted lost %5llu  lower bounds %llu\n",
        kind.c_str(), static_cast<unsigned long long>(tally.files),
        static_cast<unsigned long long>(tally.intact), static_cast<unsigned long long>(tally.intactRecovered),
        static_cast<unsigned long long>(tally.damagedRecovered),
        static_cast<unsigned long long>(tally.wrongBytes), static_cast<unsigned long long>(tally.missing),
        static_cast<unsigned long long>(tally.countedLost),
        static_cast<unsigned long long>(tally.lowerBounds));
}

TEST(RecoverCorpusTest, IntactEntriesComeBackWithTheirOwnBytes) {
    TempDir directory;
    std::mt19937 random(20261124);
    constexpr int kSeedsPerKind = 6;
    std::map<std::string, Tally> byKind;
    Tally total;
    for (const int8_t level : {int8_t{0}, int8_t{-1}}) {
        const std::string levelName = level == 0 ? "uncompressed" : "compressed";
        const OriginalFile original = writeOriginal(
            directory.path() / ("original" + std::to_string(level) + ".mvlog"), level, 900, random);
        for (int kind = 0; kind < kDamageKinds; ++kind) {
            for (int seed = 0; seed < kSeedsPerKind; ++seed) {
                const std::string stem = levelName + "-" + std::to_string(kind) + "-" + std::to_string(seed);
                const std::filesystem::path damaged = directory.path() / (stem + ".mvlog");
                const Damage damage = damageCopy(original, damaged, kind, random);
                const Tally tally =
                    scoreOne(original, damage, damaged, directory.path() / (stem + "-new.mvlog"));
                byKind[levelName + ", " + damage.kind].add(tally);
                total.add(tally);
            }
        }
    }
    for (const auto& [kind, tally] : byKind) {
        printTally(kind, tally);
    }
    const double share = total.intact == 0 ? 1.0 : static_cast<double>(total.intactRecovered) / total.intact;
    std::printf(
        "corpus: %llu damaged files, %llu intact entries, %llu recovered (%.2f%%), %llu with wrong bytes, "
        "%llu salvages failed\n",
        static_cast<unsigned long long>(total.files), static_cast<unsigned long long>(total.intact),
        static_cast<unsigned long long>(total.intactRecovered), 100.0 * share,
        static_cast<unsigned long long>(total.wrongBytes), static_cast<unsigned long long>(total.failures));
    std::printf(
        "counts: %llu entries missing, %llu counted as lost, %llu of %llu reports a lower bound\n",
        static_cast<unsigned long long>(total.missing), static_cast<unsigned long long>(total.countedLost),
        static_cast<unsigned long long>(total.lowerBounds), static_cast<unsigned long long>(total.files));
    EXPECT_GE(share, 0.99);
    EXPECT_EQ(total.wrongBytes, 0u);
    EXPECT_EQ(total.failures, 0u);
    EXPECT_EQ(total.dishonestCounts, 0u);
}

// Files with entry checksums take every kind of damage above, and one more
// that keeps every page well formed: a byte changed inside a few payloads.
// The checksum tells those entries from intact ones, so none comes back with
// other bytes; a file without checksums, damaged the same way, cannot tell
// (scored beside them to show the difference).
TEST(RecoverCorpusTest, FilesWithChecksumsNeverGiveBackOtherBytes) {
    TempDir directory;
    std::mt19937 random(20261125);
    constexpr int kSeedsPerKind = 6;
    std::map<std::string, Tally> byKind;
    Tally total;
    Tally garbledPayloads;
    for (const int8_t level : {int8_t{0}, int8_t{-1}}) {
        const std::string levelName = level == 0 ? "uncompressed" : "compressed";
        const OriginalFile original = writeOriginal(
            directory.path() / ("checked" + std::to_string(level) + ".mvlog"), level, 900, random, true);
        ASSERT_TRUE(Marivane::Logging::SqliteLogFile::openReadOnly(original.path).hasEntryChecksums());
        for (int kind = 0; kind <= kGarbledInsidePayloads; ++kind) {
            for (int seed = 0; seed < kSeedsPerKind; ++seed) {
                const std::string stem =
                    "checked-" + levelName + "-" + std::to_string(kind) + "-" + std::to_string(seed);
                const std::filesystem::path damaged = directory.path() / (stem + ".mvlog");
                const Damage damage = damageCopy(original, damaged, kind, random);
                const std::filesystem::path output = directory.path() / (stem + "-new.mvlog");
                const Tally tally = scoreOne(original, damage, damaged, output);
                if (tally.failures == 0) {
                    EXPECT_TRUE(Marivane::Logging::SqliteLogFile::openReadOnly(output).hasEntryChecksums())
                        << stem;
                }
                byKind[levelName + " with checksums, " + damage.kind].add(tally);
                total.add(tally);
                if (kind == kGarbledInsidePayloads) {
                    garbledPayloads.add(tally);
                }
            }
        }
    }
    const OriginalFile plain = writeOriginal(directory.path() / "plain.mvlog", 0, 900, random);
    Tally withoutChecksums;
    for (int seed = 0; seed < kSeedsPerKind; ++seed) {
        const std::string stem = "plain-" + std::to_string(seed);
        const std::filesystem::path damaged = directory.path() / (stem + ".mvlog");
        const Damage damage = damageCopy(plain, damaged, kGarbledInsidePayloads, random);
        withoutChecksums.add(
            scoreOne(plain, damage, damaged, directory.path() / (stem + "-new.mvlog"), true));
    }
    for (const auto& [kind, tally] : byKind) {
        printTally(kind, tally);
    }
    printTally("uncompressed without checksums, garbled inside a payload", withoutChecksums);
    const double share = total.intact == 0 ? 1.0 : static_cast<double>(total.intactRecovered) / total.intact;
    std::printf(
        "checksummed corpus: %llu damaged files, %llu intact entries, %llu recovered (%.2f%%), %llu with "
        "wrong "
        "bytes, %llu salvages failed\n",
        static_cast<unsigned long long>(total.files), static_cast<unsigned long long>(total.intact),
        static_cast<unsigned long long>(total.intactRecovered), 100.0 * share,
        static_cast<unsigned long long>(total.wrongBytes), static_cast<unsigned long long>(total.failures));
    EXPECT_GE(share, 0.99);
    EXPECT_EQ(total.wrongBytes, 0u);
    EXPECT_EQ(total.failures, 0u);
    EXPECT_EQ(total.dishonestCounts, 0u);
    // Every garbled entry was counted as lost, and nothing else was.
    EXPECT_EQ(garbledPayloads.intactRecovered, garbledPayloads.intact);
    EXPECT_EQ(garbledPayloads.damagedRecovered, 0u);
    EXPECT_EQ(garbledPayloads.countedLost, garbledPayloads.missing);
    EXPECT_GT(garbledPayloads.countedLost, 0u);
    // Without checksums the garbled uncompressed entries come back changed.
    EXPECT_GT(withoutChecksums.wrongBytes, 0u);
    EXPECT_EQ(withoutChecksums.countedLost, 0u);
}

}  // namespace
}  // namespace RecoverTest
