#include "check/DatabaseIntegrity.h"

#include <database/DatabaseAccessError.h>
#include <database/DatabaseBusy.h>
#include <database/SqliteDatabase.h>
#include <database/Status.h>

#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

namespace Marivane::Logging::Check {

namespace {

using Database::SqliteDatabase;
using Database::Status;
using Database::StatusCode;
using Row = std::vector<std::optional<std::string>>;

// Not read through the store's strict file layer: SQLite's verdict on a file
// cut short is about the file as it is, whose missing pages read as zeros.
std::unique_ptr<SqliteDatabase> openReadOnly(const std::filesystem::path& path, Findings& findings) {
    try {
        return std::make_unique<SqliteDatabase>(path.string(), Database::OpenReadOnly,
                                                Database::FileLayer::AsStored);
    } catch (const Database::DatabaseAccessError& error) {
        findings.add(CheckProblemKind::File,
                     std::string("cannot open as an SQLite database: ") + error.what());
        return nullptr;
    }
}

std::string columnText(const Row& row, std::size_t column) {
    return column < row.size() && row[column] ? *row[column] : "NULL";
}

// A lock held past the wait says nothing about the file's health: the check
// ends as incomplete instead of listing it as a problem.
void refuseBusy(const SqliteDatabase& database, const Status& status) {
    if (status.isBusy()) {
        throw Database::DatabaseBusy("The file '" + database.filename() +
                                     "' is busy: another connection kept it locked for more than " +
                                     std::to_string(database.busyTimeout()) + " ms.");
    }
}

// `onRow` sees each row; a statement that fails is a problem, damage when
// SQLite says the file is corrupt.
void runStatement(
    SqliteDatabase& database, const std::string& sql, Findings& findings,
    const std::function<void(const Row&)>& onRow = [](const Row&) {}) {
    bool prepared = false;
    const Status status = database.visitRows(sql, onRow, &prepared);
    if (status.ok()) {
        return;
    }
    refuseBusy(database, status);
    findings.add(CheckProblemKind::Database,
                 sql + (prepared ? " stopped: " : " cannot run: ") + status.message(),
                 status.code() == StatusCode::Corrupt);
}

uint64_t sizeOnDisk(const std::filesystem::path& path) {
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(path, error);
    return error ? 0 : static_cast<uint64_t>(size);
}

bool writeAheadLogHoldsFrames(const std::filesystem::path& path) {
    constexpr uint64_t kWalHeaderBytes = 32;
    return sizeOnDisk(path.string() + "-wal") > kWalHeaderBytes;
}

// One integer a pragma answers; absent when it cannot run.
std::optional<uint64_t> pragmaInteger(SqliteDatabase& database, const std::string& pragma) {
    std::optional<uint64_t> value;
    const Status status = database.visitRows(pragma, [&](const Row& row) {
        if (!value && !row.empty() && row[0]) {
            value = std::stoull(*row[0]);
        }
    });
    return status.ok() ? value : std::nullopt;
}

// A file cut short would read back zeros where its pages are missing, so its
// length is compared with the page count its header gives. Called under a
// read lock: a writer's commit writes the header before the pages it counts.
// The file is only stat()ed, never opened: closing a descriptor of it would
// drop this process's locks on it. A write-ahead log holding frames may hold
// the pages the file lacks, so a file beside one is left to the reads.
void checkFileLength(SqliteDatabase& database, const std::filesystem::path& path, Findings& findings) {
    if (writeAheadLogHoldsFrames(path)) {
        return;
    }
    const std::optional<uint64_t> pageSize = pragmaInteger(database, "PRAGMA page_size;");
    const std::optional<uint64_t> pageCount = pragmaInteger(database, "PRAGMA page_count;");
    if (!pageSize || !pageCount || *pageSize < 512 || (*pageSize & (*pageSize - 1)) != 0) {
        return;  // integrity_check names a header this broken
    }
    const uint64_t size = sizeOnDisk(path);
    if (size < *pageCount * *pageSize) {
        findings.addDamage(CheckProblemKind::File,
                           "the file is " + std::to_string(size) + " bytes, its header says " +
                               std::to_string(*pageCount) + " pages of " + std::to_string(*pageSize) +
                               " bytes: it was cut short");
    } else if (size % *pageSize != 0) {
        findings.addDamage(CheckProblemKind::File, "the file is " + std::to_string(size) +
                                                       " bytes, not a whole number of its " +
                                                       std::to_string(*pageSize) + "-byte pages");
    }
}

}  // namespace

void checkDatabase(const std::filesystem::path& path, Findings& findings) {
    const std::unique_ptr<SqliteDatabase> database = openReadOnly(path, findings);
    if (!database) {
        return;
    }
    // One read transaction: the length is compared under its lock, which
    // keeps a writer's commits out until the checks are done.
    runStatement(*database, "BEGIN;", findings);
    runStatement(*database, "SELECT count(*) FROM sqlite_master;", findings);
    checkFileLength(*database, path, findings);
    runStatement(*database, "PRAGMA integrity_check;", findings, [&](const Row& row) {
        // One row may carry several findings, one per line, under a header.
        std::istringstream lines(columnText(row, 0));
        for (std::string line; std::getline(lines, line);) {
            if (line != "ok" && line.rfind("*** in database", 0) != 0) {
                findings.addDamage(CheckProblemKind::Database, "integrity_check: " + line);
            }
        }
    });
    runStatement(
        *database,
        "SELECT dataSourceId FROM dataSources WHERE typeof(dataSourceId) != 'integer' OR dataSourceId NOT "
        "BETWEEN -128 AND 127;",
        findings, [&](const Row& row) {
            findings.add(CheckProblemKind::Database,
                         "data source " + columnText(row, 0) + ": its id does not fit in 8 bits");
        });
    runStatement(*database, "PRAGMA foreign_key_check;", findings, [&](const Row& row) {
        findings.add(CheckProblemKind::Database,
                     "foreign_key_check: row " + columnText(row, 1) + " of table " + columnText(row, 0) +
                         " refers to a missing row of table " + columnText(row, 2));
    });
}

}  // namespace Marivane::Logging::Check
