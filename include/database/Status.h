#pragma once

#include <database/DatabaseExport.h>

#include <cstdint>
#include <string>
#include <utility>

namespace Marivane::Database {

// What kind of failure an SQLite result code stands for. The store decides
// its results and messages by kind, never by comparing raw numbers.
enum class StatusCode {
    Ok,
    // Another connection holds a lock and the busy timeout ran out.
    Busy,
    // The file's content is damaged.
    Corrupt,
    // The file is not an SQLite database.
    NotADatabase,
    // A read or write of the file failed in the operating system.
    IoError,
    // The disk or the database is full.
    Full,
    // A foreign-key constraint refused the change.
    ForeignKey,
    // Another constraint (unique, not null, check) refused the change.
    Constraint,
    // The connection or the file does not allow writing.
    ReadOnly,
    // The library was used in a way SQLite forbids.
    Misuse,
    // Anything else.
    Other
};

// The kind of an SQLite (extended) result code; Ok for SQLITE_OK, SQLITE_ROW
// and SQLITE_DONE.
MV_DATABASE_EXPORT StatusCode classifyResultCode(int32_t resultCode) noexcept;

// True for the read-only failures that mean a writer stopped in the middle of
// a commit: its journal (or write-ahead log) must be rolled back or
// recovered by a connection that may write before the file can be read.
MV_DATABASE_EXPORT bool isUnfinishedCommit(int32_t resultCode) noexcept;

// True for a failed read or write of the file itself, which the store
// reports in its own words; other I/O failures (a sync, a lock, a journal)
// are not among them.
MV_DATABASE_EXPORT bool isReadOrWriteFailure(int32_t resultCode) noexcept;

// The outcome of one database operation: its kind, SQLite's extended result
// code and a message. Cheap to copy when it is Ok (the message is empty).
class [[nodiscard]] Status {
public:
    Status() = default;
    Status(int32_t resultCode, std::string message)
        : code_(classifyResultCode(resultCode)), resultCode_(resultCode), message_(std::move(message)) {}

    static Status success() { return Status(); }

    bool ok() const { return code_ == StatusCode::Ok; }
    bool isBusy() const { return code_ == StatusCode::Busy; }
    bool isReadOrWriteFailure() const { return Database::isReadOrWriteFailure(resultCode_); }
    bool isUnfinishedCommit() const { return Database::isUnfinishedCommit(resultCode_); }
    StatusCode code() const { return code_; }
    // SQLite's extended result code; 0 when ok.
    int32_t resultCode() const { return resultCode_; }
    const std::string& message() const { return message_; }

private:
    StatusCode code_ = StatusCode::Ok;
    int32_t resultCode_ = 0;
    std::string message_;
};

}  // namespace Marivane::Database
