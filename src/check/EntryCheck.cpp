#include "check/EntryCheck.h"

#include <logging/EntryScan.h>
#include <logging/SqliteLogFile.h>

#include <exception>
#include <optional>
#include <string>
#include <vector>

namespace Marivane::Logging::Check {

namespace {

// Counts the entries met and tells the caller's progress handler.
class EntryProgress {
public:
    EntryProgress(const Findings& findings, std::optional<uint64_t> total)
        : findings_(findings), total_(total) {
        findings_.progress(CheckProgress::Step::Started, 0, total_);
    }
    void advance() { findings_.progress(CheckProgress::Step::Advanced, ++met_, total_); }
    void finish() const { findings_.progress(CheckProgress::Step::Finished, met_, total_); }

private:
    const Findings& findings_;
    std::optional<uint64_t> total_;
    uint64_t met_ = 0;
};

void addDamaged(Findings& findings, const DamagedEntry& damaged) {
    findings.addDamage(CheckProblemKind::Entry, describe(damaged), damaged.entryId);
}

// Expands the whole payload; a stored form that is not what was logged is a
// problem of its own.
void readInFull(const ScannedEntry& entry, Findings& findings) {
    if (const std::optional<std::string> problem = storedFormProblem(entry)) {
        findings.add(CheckProblemKind::Entry, "entry " + std::to_string(entry.entryId) + ": " + *problem,
                     false, entry.entryId);
    }
    entry.forEachPiece([](const std::byte*, std::size_t) { return true; });
}

// "entry 7" or "entries 7 to 12".
std::string idRangeText(int32_t first, int32_t last) {
    return first == last ? "entry " + std::to_string(first)
                         : "entries " + std::to_string(first) + " to " + std::to_string(last);
}

// What a lookup of one id finds: nothing (its row cannot be read), a readable
// entry, or an entry whose payload does not expand (`reason` says why).
enum class Probe { Missing, Readable, Damaged };

Probe probeEntry(const SqliteLogFile& file, int32_t entryId, std::string& reason) {
    Probe found = Probe::Missing;
    VisitOptions options;
    options.payloadForm = PayloadForm::Stored;
    options.verifyChecksums = true;
    options.onDamagedEntry = [&](int64_t, const std::string& why) {
        found = Probe::Damaged;
        reason = why;
        return true;
    };
    file.visitEntries(
        EntryRange{entryId, entryId}, EntryIndexFilter(),
        [&](const EntryView& view) {
            try {
                ScannedEntry(view).forEachPiece([](const std::byte*, std::size_t) { return true; });
                found = Probe::Readable;
            } catch (const std::exception& error) {
                found = Probe::Damaged;
                reason = std::string("payload cannot be expanded: ") + error.what();
            }
            return false;
        },
        options);
    return found;
}

// The index read stops silently at a page it cannot read, so entries after
// the damage are missing from it. They are looked up by id instead, up to the
// file's highest id: readable ones still count, the others are named.
std::size_t probeBeyondIndex(const SqliteLogFile& file, int32_t lastListedId, Findings& findings) {
    constexpr int64_t kMaximumProbes = 10'000'000;
    const int32_t lastId = file.getLastEntryId();
    if (lastId <= lastListedId) {
        return 0;
    }
    if (static_cast<int64_t>(lastId) - lastListedId > kMaximumProbes) {
        findings.add(CheckProblemKind::Entry, "entries after id " + std::to_string(lastListedId) +
                                                  " are missing from the index; too many to look up");
        return 0;
    }
    std::size_t readable = 0;
    // The first id of a run that cannot be read; 0 when there is none (the
    // probed ids start above 0). A plain integer: GCC 12 at -O3 takes an
    // optional here for maybe uninitialised.
    int32_t unreadableFrom = 0;
    auto closeUnreadable = [&](int32_t before) {
        if (unreadableFrom != 0) {
            findings.addDamage(CheckProblemKind::Entry,
                               idRangeText(unreadableFrom, before) +
                                   ": cannot be read (a damaged page hides them from the index)",
                               unreadableFrom == before ? std::optional<int64_t>(before) : std::nullopt);
            unreadableFrom = 0;
        }
    };
    for (int32_t id = lastListedId + 1; id <= lastId; ++id) {
        std::string reason;
        switch (probeEntry(file, id, reason)) {
            case Probe::Readable:
                closeUnreadable(id - 1);
                ++readable;
                break;
            case Probe::Damaged:
                closeUnreadable(id - 1);
                findings.addDamage(CheckProblemKind::Entry, "entry " + std::to_string(id) + ": " + reason,
                                   id);
                break;
            case Probe::Missing:
                unreadableFrom = unreadableFrom != 0 ? unreadableFrom : id;
                break;
        }
    }
    closeUnreadable(lastId);
    return readable;
}

// A file in good order is checked in one read, without listing its index
// first: the problems found are held and reported once the read shows that
// the listed scan would have found the same (see
// EntryScan::runWholeFileUnlisted); a file with more than a few of them, or
// anything the listed scan treats otherwise, goes through that scan. Returns
// the number of entries that could be read in full, or nothing.
std::optional<std::size_t> checkEntriesUnlisted(const SqliteLogFile& file, int32_t counted,
                                                Findings& findings, EntryProgress& progress) {
    constexpr std::size_t kMostHeldProblems = 1000;
    CheckOptions holding;
    std::vector<CheckProblem> held;
    holding.onProblem = [&held](const CheckProblem& problem) { held.push_back(problem); };
    Findings heldFindings(holding);
    std::size_t readable = 0;
    const bool inOrder = EntryScan::runWholeFileUnlisted(
        file, counted,
        [&](const ScannedEntry& entry) {
            readInFull(entry, heldFindings);
            ++readable;
            progress.advance();
        },
        [&](const DamagedEntry& damaged) {
            addDamaged(heldFindings, damaged);
            progress.advance();
        },
        true, [&] { return held.size() <= kMostHeldProblems; });
    if (!inOrder) {
        return std::nullopt;
    }
    for (CheckProblem& problem : held) {
        findings.add(problem.kind, std::move(problem.message), problem.damage, problem.entryId);
    }
    return readable;
}

// Adds to `readable` as it goes: a scan that ends in an exception still
// counts what it read.
void checkEntriesListed(const SqliteLogFile& file, int32_t counted, Findings& findings,
                        EntryProgress& progress, std::size_t& readable) {
    EntryScan scan(file, EntrySelection{});
    scan.verifyChecksums(true);
    scan.run(
        [&](const ScannedEntry& entry) {
            readInFull(entry, findings);
            ++readable;
            progress.advance();
        },
        [&](const DamagedEntry& damaged) {
            addDamaged(findings, damaged);
            progress.advance();
        });
    // The count was taken first: entries that a writer appended since can
    // only make the index longer. A shorter index hides entries.
    if (counted >= 0 && scan.metCount() < static_cast<std::size_t>(counted)) {
        findings.addDamage(CheckProblemKind::Entry,
                           "the entry index lists " + std::to_string(scan.metCount()) +
                               " entries but the file counts " + std::to_string(counted));
        const std::vector<int32_t>& ids = scan.selectedIds();
        readable += probeBeyondIndex(file, ids.empty() ? 0 : ids.back(), findings);
    }
}

}  // namespace

std::size_t checkEntries(const SqliteLogFile& file, Findings& findings) {
    const int32_t counted = file.getEntryCount();
    if (counted < 0) {
        findings.add(CheckProblemKind::Entry, "cannot count the entries: " + file.getLastError());
    }
    EntryProgress progress(
        findings, counted > 0 ? std::optional<uint64_t>(static_cast<uint64_t>(counted)) : std::nullopt);
    std::size_t readable = 0;
    try {
        if (const std::optional<std::size_t> checked =
                checkEntriesUnlisted(file, counted, findings, progress)) {
            progress.finish();
            return *checked;
        }
        checkEntriesListed(file, counted, findings, progress, readable);
    } catch (const std::exception& error) {
        findings.addDamage(CheckProblemKind::Entry,
                           std::string("cannot read the entry index: ") + error.what());
    }
    progress.finish();
    return readable;
}

}  // namespace Marivane::Logging::Check
