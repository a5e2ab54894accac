#include "Commands.h"
#include "Format.h"
#include "LogFileAccess.h"
#include "ProgressBar.h"

#include <logging/Logging.h>

#include <core/Compression.h>

#include <fmt/format.h>
#include <sqlite3.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <variant>
#include <vector>

namespace Mvlog {

using Marivane::Logging::Bookmark;
using Marivane::Logging::DamagedEntry;
using Marivane::Logging::EntryScan;
using Marivane::Logging::EntrySelection;
using Marivane::Logging::LogFileInterface;
using Marivane::Logging::PropertyValue;
using Marivane::Logging::ScannedEntry;
using Marivane::Logging::SqliteLogFile;

namespace {

// Prints each problem as soon as it is found, so that a check that later
// fails hard still shows what it saw.
// Problems are printed as they are found (a long check shows its findings
// at once), or kept for the one JSON document printed at the end.
class ProblemReport {
public:
    explicit ProblemReport(bool collect) : collect_(collect) {}

    void add(const std::string& problem) {
        if (collect_) {
            problems_.push_back(problem);
        } else {
            if (beforePrinting_) {
                beforePrinting_();
            }
            fmt::print("problem: {}\n", problem);
            std::fflush(stdout);
        }
        ++count_;
    }
    // A problem that damaged bytes cause: the report then points to
    // `mvlog recover`, which salvages what is intact.
    void addDamage(const std::string& problem) {
        add(problem);
        damaged_ = true;
    }
    // Damage when SQLite's message says the file is malformed.
    void addNamingDamage(const std::string& problem, const std::string& message) {
        if (message.find("malformed") != std::string::npos) {
            addDamage(problem);
        } else {
            add(problem);
        }
    }
    // Called before a problem is printed (a progress bar steps aside).
    void beforePrinting(std::function<void()> hook) { beforePrinting_ = std::move(hook); }
    std::size_t count() const { return count_; }
    bool foundDamage() const { return damaged_; }
    bool collects() const { return collect_; }
    const std::vector<std::string>& problems() const { return problems_; }

private:
    std::function<void()> beforePrinting_;
    bool collect_;
    std::vector<std::string> problems_;
    std::size_t count_ = 0;
    bool damaged_ = false;
};

// What a check that got as far as reading the file counted.
struct CheckedCounts {
    std::size_t entries = 0;
    std::size_t dataSources = 0;
    std::size_t resources = 0;
    std::size_t bookmarks = 0;
};

struct DatabaseCloser {
    void operator()(sqlite3* database) const { sqlite3_close(database); }
};
struct StatementFinalizer {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using DatabaseHandle = std::unique_ptr<sqlite3, DatabaseCloser>;
using StatementHandle = std::unique_ptr<sqlite3_stmt, StatementFinalizer>;

// A second, read-only connection used for nothing but the two pragmas: the
// class interface does not run SQL, and these must see the file as it is
// before the store opens (and possibly repairs) it.
// As long as the library waits for another connection's lock.
constexpr int kBusyTimeoutMs = 5000;

DatabaseHandle openReadOnly(const std::string& path, ProblemReport& problems) {
    sqlite3* raw = nullptr;
    const int result = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
    DatabaseHandle database(raw);
    if (raw != nullptr) {
        sqlite3_busy_timeout(raw, kBusyTimeoutMs);
    }
    if (result != SQLITE_OK) {
        problems.add(fmt::format("cannot open as an SQLite database: {}",
                                 raw ? sqlite3_errmsg(raw) : sqlite3_errstr(result)));
        return nullptr;
    }
    return database;
}

std::string columnText(sqlite3_stmt* statement, int column) {
    const unsigned char* text = sqlite3_column_text(statement, column);
    return text ? reinterpret_cast<const char*>(text) : "NULL";
}

// A lock held past the wait says nothing about the file's health: the check
// ends as incomplete instead of listing it as a problem.
void refuseBusy(sqlite3* database, int result) {
    if ((result & 0xff) == SQLITE_BUSY || (result & 0xff) == SQLITE_LOCKED) {
        throw ToolError(
            fmt::format("The file '{}' is busy: another connection kept it locked for more than {} ms.",
                        sqlite3_db_filename(database, "main"), kBusyTimeoutMs));
    }
}

template <typename RowHandler>
void runPragma(sqlite3* database, const char* pragma, ProblemReport& problems, RowHandler onRow) {
    sqlite3_stmt* raw = nullptr;
    if (const int prepared = sqlite3_prepare_v2(database, pragma, -1, &raw, nullptr); prepared != SQLITE_OK) {
        refuseBusy(database, sqlite3_extended_errcode(database));
        const std::string message = sqlite3_errmsg(database);
        problems.addNamingDamage(fmt::format("{} cannot run: {}", pragma, message), message);
        return;
    }
    StatementHandle statement(raw);
    int result = SQLITE_ROW;
    while ((result = sqlite3_step(statement.get())) == SQLITE_ROW) {
        onRow(statement.get());
    }
    if (result != SQLITE_DONE) {
        refuseBusy(database, result);
        const std::string message = sqlite3_errmsg(database);
        problems.addNamingDamage(fmt::format("{} stopped: {}", pragma, message), message);
    }
}

bool writeAheadLogHoldsFrames(const std::string& path) {
    constexpr uint64_t kWalHeaderBytes = 32;
    return fileSizeOnDisk(path + "-wal") > kWalHeaderBytes;
}

// One integer a pragma answers; absent when it cannot run.
std::optional<uint64_t> pragmaInteger(sqlite3* database, const char* pragma) {
    std::optional<uint64_t> value;
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v2(database, pragma, -1, &raw, nullptr) != SQLITE_OK) {
        return value;
    }
    StatementHandle statement(raw);
    if (sqlite3_step(statement.get()) == SQLITE_ROW) {
        value = static_cast<uint64_t>(sqlite3_column_int64(statement.get(), 0));
    }
    return value;
}

// SQLite reads the part of a page beyond the end of a file as zeros (the
// library refuses to), so a file cut short would read back wrong bytes: its
// length is compared with the page count its header gives. Called under a
// read lock: a writer's commit writes the header before the pages it counts.
// The file is only stat()ed, never opened: closing a descriptor of it would
// drop this process's locks on it. A write-ahead log holding frames may hold
// the pages the file lacks, so a file beside one is left to the reads.
void checkFileLength(sqlite3* database, const std::string& path, ProblemReport& problems) {
    if (writeAheadLogHoldsFrames(path)) {
        return;
    }
    const std::optional<uint64_t> pageSize = pragmaInteger(database, "PRAGMA page_size;");
    const std::optional<uint64_t> pageCount = pragmaInteger(database, "PRAGMA page_count;");
    if (!pageSize || !pageCount || *pageSize < 512 || (*pageSize & (*pageSize - 1)) != 0) {
        return;  // integrity_check names a header this broken
    }
    const uint64_t size = fileSizeOnDisk(path);
    if (size < *pageCount * *pageSize) {
        problems.addDamage(
            fmt::format("the file is {} bytes, its header says {} pages of {} bytes: it was cut short", size,
                        *pageCount, *pageSize));
    } else if (size % *pageSize != 0) {
        problems.addDamage(
            fmt::format("the file is {} bytes, not a whole number of its {}-byte pages", size, *pageSize));
    }
}

void checkDatabase(const std::string& path, ProblemReport& problems) {
    const DatabaseHandle database = openReadOnly(path, problems);
    if (!database) {
        return;
    }
    // One read transaction: the length is compared under its lock, which
    // keeps a writer's commits out until the checks are done.
    runPragma(database.get(), "BEGIN;", problems, [](sqlite3_stmt*) {});
    runPragma(database.get(), "SELECT count(*) FROM sqlite_master;", problems, [](sqlite3_stmt*) {});
    checkFileLength(database.get(), path, problems);
    runPragma(database.get(), "PRAGMA integrity_check;", problems, [&](sqlite3_stmt* row) {
        // One row may carry several findings, one per line, under a header.
        std::istringstream lines(columnText(row, 0));
        for (std::string line; std::getline(lines, line);) {
            if (line != "ok" && line.rfind("*** in database", 0) != 0) {
                problems.addDamage("integrity_check: " + line);
            }
        }
    });
    runPragma(
        database.get(),
        "SELECT dataSourceId FROM dataSources WHERE typeof(dataSourceId) != 'integer' OR dataSourceId NOT "
        "BETWEEN -128 AND 127;",
        problems, [&](sqlite3_stmt* row) {
            problems.add(fmt::format("data source {}: its id does not fit in 8 bits", columnText(row, 0)));
        });
    runPragma(database.get(), "PRAGMA foreign_key_check;", problems, [&](sqlite3_stmt* row) {
        problems.add(fmt::format("foreign_key_check: row {} of table {} refers to a missing row of table {}",
                                 columnText(row, 1), columnText(row, 0), columnText(row, 2)));
    });
}

enum class ExpectedType { Integer, Text };

struct FixedKey {
    const char* key;
    ExpectedType type;
};

constexpr std::array<FixedKey, 6> kFixedKeys = {{{"createdDateTime", ExpectedType::Integer},
                                                 {"applicationName", ExpectedType::Text},
                                                 {"applicationVersion", ExpectedType::Text},
                                                 {"currentTimeZone", ExpectedType::Text},
                                                 {"logVersion", ExpectedType::Integer},
                                                 {"compressionLevel", ExpectedType::Integer}}};

bool hasType(const PropertyValue& value, ExpectedType type) {
    if (type == ExpectedType::Text) {
        return std::holds_alternative<std::string>(value);
    }
    return std::holds_alternative<int64_t>(value) || std::holds_alternative<int32_t>(value);
}

void checkMetadata(const LogFileInterface& file, ProblemReport& problems) {
    for (const FixedKey& fixed : kFixedKeys) {
        const std::optional<PropertyValue> value = file.getMetadataValue(fixed.key);
        if (!value) {
            problems.add(fmt::format("metadata key \"{}\" is missing", fixed.key));
        } else if (!hasType(*value, fixed.type)) {
            problems.add(fmt::format("metadata key \"{}\" should hold {}", fixed.key,
                                     fixed.type == ExpectedType::Text ? "text" : "an integer"));
        }
    }
    if (const auto level = integerMetadata(file, "compressionLevel");
        level && !Marivane::Logging::isValidCompressionLevel(*level)) {
        problems.add(fmt::format("compression level {} is outside -1 to 9", *level));
    }
    // 2 and 3 are the earlier versions the library still reads: without
    // compressed resources, and without bookmark payloads.
    if (const auto version = integerMetadata(file, "logVersion"); version && (*version < 2 || *version > 4)) {
        problems.add(fmt::format("format version {} is not one this library knows", *version));
    }
}

// "entry 7" or "entries 7 to 12".
std::string idRangeText(int32_t first, int32_t last) {
    return first == last ? fmt::format("entry {}", first) : fmt::format("entries {} to {}", first, last);
}

// The index read stops silently at a page it cannot read, so entries after
// the damage are missing from it. They are looked up by id instead, up to the
// file's highest id: readable ones still count, the others are named.
// What a lookup of one id finds: nothing (its row cannot be read), a readable
// entry, or an entry whose payload does not expand (`reason` says why).
enum class Probe { Missing, Readable, Damaged };

Probe probeEntry(const SqliteLogFile& file, int32_t entryId, std::string& reason) {
    Probe found = Probe::Missing;
    Marivane::Logging::VisitOptions options;
    options.payloadForm = Marivane::Logging::PayloadForm::Stored;
    options.verifyChecksums = true;
    options.onDamagedEntry = [&](int64_t, const std::string& why) {
        found = Probe::Damaged;
        reason = why;
        return true;
    };
    file.visitEntries(
        Marivane::Logging::EntryRange{entryId, entryId}, Marivane::Logging::EntryIndexFilter(),
        [&](const Marivane::Logging::EntryView& view) {
            try {
                ScannedEntry(view).forEachPiece([](const std::byte*, std::size_t) { return true; });
                found = Probe::Readable;
            } catch (const std::exception& error) {
                found = Probe::Damaged;
                reason = fmt::format("payload cannot be expanded: {}", error.what());
            }
            return false;
        },
        options);
    return found;
}

std::size_t probeBeyondIndex(const SqliteLogFile& file, int32_t lastListedId, ProblemReport& problems) {
    constexpr int64_t kMaximumProbes = 10'000'000;
    const int32_t lastId = file.getLastEntryId();
    if (lastId <= lastListedId) {
        return 0;
    }
    if (static_cast<int64_t>(lastId) - lastListedId > kMaximumProbes) {
        problems.add(
            fmt::format("entries after id {} are missing from the index; too many to look up", lastListedId));
        return 0;
    }
    std::size_t readable = 0;
    // The first id of a run that cannot be read; 0 when there is none (the
    // probed ids start above 0). A plain integer: GCC 12 at -O3 takes an
    // optional here for maybe uninitialised.
    int32_t unreadableFrom = 0;
    auto closeUnreadable = [&](int32_t before) {
        if (unreadableFrom != 0) {
            problems.addDamage(fmt::format("{}: cannot be read (a damaged page hides them from the index)",
                                           idRangeText(unreadableFrom, before)));
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
                problems.addDamage(fmt::format("entry {}: {}", id, reason));
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
// EntryScan::runWholeFileUnlisted); a file with more than a few of them,
// or anything the listed scan treats otherwise, goes through that scan.
// Returns the number of entries that could be read in full, or nothing.
std::optional<std::size_t> checkEntriesUnlisted(const SqliteLogFile& file, int32_t counted,
                                                ProblemReport& problems, ProgressBar& bar,
                                                const std::optional<uint64_t>& total) {
    constexpr std::size_t kMostHeldProblems = 1000;
    struct HeldProblem {
        std::string text;
        bool damage = false;
    };
    std::vector<HeldProblem> held;
    std::size_t readable = 0;
    std::size_t met = 0;
    const bool inOrder = EntryScan::runWholeFileUnlisted(
        file, counted,
        [&](const ScannedEntry& entry) {
            if (const std::optional<std::string> problem = storedFormProblem(entry)) {
                held.push_back({fmt::format("entry {}: {}", entry.entryId, *problem), false});
            }
            entry.forEachPiece([](const std::byte*, std::size_t) { return true; });
            ++readable;
            bar.update(++met, total);
        },
        [&](const DamagedEntry& damaged) {
            held.push_back({describe(damaged), true});
            bar.update(++met, total);
        },
        true, [&] { return held.size() <= kMostHeldProblems; });
    if (!inOrder) {
        return std::nullopt;
    }
    for (const HeldProblem& problem : held) {
        if (problem.damage) {
            problems.addDamage(problem.text);
        } else {
            problems.add(problem.text);
        }
    }
    return readable;
}

// Returns the number of entries that could be read in full.
std::size_t checkEntries(const SqliteLogFile& file, ProblemReport& problems, ProgressMode progress) {
    const int32_t counted = file.getEntryCount();
    if (counted < 0) {
        problems.add(fmt::format("cannot count the entries: {}", file.getLastError()));
    }
    std::size_t readable = 0;
    ProgressBar bar("checking", "entries", progress);
    problems.beforePrinting([&bar] { bar.erase(); });
    std::size_t met = 0;
    const std::optional<uint64_t> total =
        counted > 0 ? std::optional<uint64_t>(static_cast<uint64_t>(counted)) : std::nullopt;
    try {
        if (const std::optional<std::size_t> checked =
                checkEntriesUnlisted(file, counted, problems, bar, total)) {
            bar.finish();
            problems.beforePrinting({});
            return *checked;
        }
        EntryScan scanner(file, EntrySelection{});
        scanner.verifyChecksums(true);
        scanner.run(
            [&](const ScannedEntry& entry) {
                if (const std::optional<std::string> problem = storedFormProblem(entry)) {
                    problems.add(fmt::format("entry {}: {}", entry.entryId, *problem));
                }
                entry.forEachPiece([](const std::byte*, std::size_t) { return true; });
                ++readable;
                bar.update(++met, total);
            },
            [&](const DamagedEntry& damaged) {
                problems.addDamage(describe(damaged));
                bar.update(++met, total);
            });
        // The count was taken first: entries that a writer appended since can
        // only make the index longer. A shorter index hides entries.
        if (counted >= 0 && scanner.metCount() < static_cast<std::size_t>(counted)) {
            problems.addDamage(fmt::format("the entry index lists {} entries but the file counts {}",
                                           scanner.metCount(), counted));
            const std::vector<int32_t>& ids = scanner.selectedIds();
            readable += probeBeyondIndex(file, ids.empty() ? 0 : ids.back(), problems);
        }
    } catch (const std::exception& error) {
        problems.addDamage(fmt::format("cannot read the entry index: {}", error.what()));
    }
    bar.finish();
    problems.beforePrinting({});
    return readable;
}

// For ids the (possibly cut) index does not list: a row that exists, even
// with a damaged payload, counts as stored.
bool entryIsStored(const SqliteLogFile& file, int32_t entryId) {
    return file.hasEntry(entryId);
}

std::size_t checkBookmarks(const SqliteLogFile& file, ProblemReport& problems) {
    try {
        const std::vector<Bookmark> bookmarks = file.getBookmarks();
        if (bookmarks.empty()) {
            return 0;  // nothing to look up in an index of millions of ids
        }
        const std::vector<int32_t> ids = file.getEntryIndex(Marivane::Logging::EntryIndexFilter{});
        for (const Bookmark& bookmark : bookmarks) {
            if (!std::binary_search(ids.begin(), ids.end(), bookmark.entryId) &&
                !entryIsStored(file, bookmark.entryId)) {
                problems.add(fmt::format("bookmark \"{}\" points at entry {}, which does not exist",
                                         bookmark.title, bookmark.entryId));
            }
        }
        return bookmarks.size();
    } catch (const std::exception& error) {
        problems.add(fmt::format("bookmarks cannot be read: {}", error.what()));
        return 0;
    }
}

std::size_t checkResources(const SqliteLogFile& file, ProblemReport& problems) {
    std::size_t count = 0;
    try {
        const std::vector<LogResourceEntry> resources = file.getAllResources();
        count = resources.size();
        for (const LogResourceEntry& resource : resources) {
            if (const std::optional<std::string> problem = resourceFormProblem(file, resource.data)) {
                problems.add(fmt::format("{}: {}", resourceLabel(resource.name), *problem));
            }
        }
    } catch (const std::exception& error) {
        problems.add(fmt::format("resources cannot be read: {}", error.what()));
    }
    try {
        file.getThumbnail();
    } catch (const std::exception& error) {
        problems.add(fmt::format("the thumbnail cannot be read: {}", error.what()));
    }
    return count;
}

// Read-only: a check never repairs or otherwise changes what it looks at.
std::unique_ptr<SqliteLogFile> openForCheck(const std::string& path, ProblemReport& problems) {
    try {
        return std::make_unique<SqliteLogFile>(SqliteLogFile::openReadOnly(path));
    } catch (const std::exception& error) {
        problems.addNamingDamage(fmt::format("cannot open as a log file: {}", error.what()), error.what());
        return nullptr;
    }
}

int finishJsonReport(const std::string& path, const ProblemReport& problems,
                     const std::optional<CheckedCounts>& counts) {
    nlohmann::ordered_json document;
    document["file"] = path;
    document["ok"] = problems.count() == 0;
    document["damaged"] = problems.foundDamage();
    document["problems"] = problems.problems();
    if (counts) {
        document["checked"] = {{"entries", counts->entries},
                               {"dataSources", counts->dataSources},
                               {"resources", counts->resources},
                               {"bookmarks", counts->bookmarks}};
    } else {
        document["checked"] = nullptr;
    }
    document["hint"] = problems.foundDamage()
                           ? nlohmann::ordered_json(fmt::format("mvlog recover {} -o NEW", path))
                           : nlohmann::ordered_json(nullptr);
    fmt::print("{}\n", dumpJson(document, 2));
    return problems.count() == 0 ? 0 : 1;
}

int finishReport(const std::string& path, const ProblemReport& problems,
                 const std::optional<CheckedCounts>& counts = std::nullopt) {
    if (problems.collects()) {
        return finishJsonReport(path, problems, counts);
    }
    if (problems.count() != 0) {
        fmt::print("{} problem{} found in {}\n", problems.count(), problems.count() == 1 ? "" : "s", path);
        if (problems.foundDamage()) {
            fmt::print("hint: mvlog recover {} -o NEW salvages what is intact\n", path);
        }
        return 1;
    }
    fmt::print("OK\n");
    return 0;
}

}  // namespace

int runCheck(const CheckOptions& options) {
    requireExistingFile(options.file);
    ProblemReport problems(options.json);
    if (fileSizeOnDisk(options.file) == 0) {
        problems.add("the file is empty (0 bytes)");
        return finishReport(options.file, problems);
    }
    checkDatabase(options.file, problems);
    const auto file = openForCheck(options.file, problems);
    if (!file) {
        return finishReport(options.file, problems);
    }
    std::optional<CheckedCounts> counts;
    try {
        checkMetadata(*file, problems);
        CheckedCounts checked;
        checked.entries =
            checkEntries(*file, problems, options.progress ? ProgressMode::Always : ProgressMode::Auto);
        checked.bookmarks = checkBookmarks(*file, problems);
        checked.resources = checkResources(*file, problems);
        checked.dataSources = file->getDataSources().size();
        counts = checked;
        if (!options.json) {
            fmt::print("Checked {} entries, {} data sources, {} resources, {} bookmarks\n", checked.entries,
                       checked.dataSources, checked.resources, checked.bookmarks);
        }
        // Damage has its own findings above; any other failed read (a lock
        // held past the wait, an I/O error) leaves the check incomplete.
        if (file->getFailureCount() != 0 &&
            file->getLastFailureKind() != Marivane::Logging::FailureKind::Damaged) {
            problems.add(fmt::format("reads failed, so the check is incomplete: {}", file->getLastFailure()));
        }
    } catch (const std::exception& error) {
        problems.add(fmt::format("the check could not go on: {}", error.what()));
    }
    return finishReport(options.file, problems, counts);
}

}  // namespace Mvlog
