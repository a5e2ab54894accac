#include "DamagedFiles.h"
#include "support/TempDir.h"

#include <logging/Recover.h>
#include <logging/SqliteLogFile.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <random>
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
    void add(const Tally& other) {
        files += other.files;
        intact += other.intact;
        intactRecovered += other.intactRecovered;
        damagedRecovered += other.damagedRecovered;
        wrongBytes += other.wrongBytes;
        failures += other.failures;
    }
};

// Salvages one damaged copy and scores it against what the damage left: an
// entry is intact when none of the pages its stored bytes lived on was
// touched. Every entry that comes back must have its original bytes.
Tally scoreOne(const OriginalFile& original, const Damage& damage, const std::filesystem::path& damaged,
               const std::filesystem::path& output) {
    Tally tally;
    tally.files = 1;
    try {
        (void)Algorithms::recover(damaged, output);
    } catch (const std::exception& error) {
        ADD_FAILURE() << damage.kind << ": " << error.what();
        tally.failures = 1;
        return tally;
    }
    const std::map<int32_t, ByteBuffer> recovered = readPayloads(output);
    for (const auto& [id, pages] : original.pagesOf) {
        bool intact = true;
        for (const uint32_t page : pages) {
            intact = intact && damage.pages.count(page) == 0;
        }
        const auto found = recovered.find(id);
        const bool back = found != recovered.end();
        if (back && found->second != original.payloads.at(id)) {
            ++tally.wrongBytes;
            ADD_FAILURE() << damage.kind << ": entry " << id << " came back with other bytes";
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
        std::printf(
            "%-58s files %2llu  intact %5llu  recovered %5llu  damaged but recovered %3llu  wrong %llu\n",
            kind.c_str(), static_cast<unsigned long long>(tally.files),
            static_cast<unsigned long long>(tally.intact),
            static_cast<unsigned long long>(tally.intactRecovered),
            static_cast<unsigned long long>(tally.damagedRecovered),
            static_cast<unsigned long long>(tally.wrongBytes));
    }
    const double share = total.intact == 0 ? 1.0 : static_cast<double>(total.intactRecovered) / total.intact;
    std::printf(
        "corpus: %llu damaged files, %llu intact entries, %llu recovered (%.2f%%), %llu with wrong bytes, "
        "%llu salvages failed\n",
        static_cast<unsigned long long>(total.files), static_cast<unsigned long long>(total.intact),
        static_cast<unsigned long long>(total.intactRecovered), 100.0 * share,
        static_cast<unsigned long long>(total.wrongBytes), static_cast<unsigned long long>(total.failures));
    EXPECT_GE(share, 0.99);
    EXPECT_EQ(total.wrongBytes, 0u);
    EXPECT_EQ(total.failures, 0u);
}

}  // namespace
}  // namespace RecoverTest
