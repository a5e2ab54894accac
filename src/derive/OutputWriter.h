#pragma once

#include <logging/ByteBuffer.h>
#include <logging/SqliteLogFile.h>

#include "model/Outcome.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace Marivane::Logging::Algorithms {

// How a derivation tells that a write failed. Copy and merge check every
// write and name the one that failed. Slice and clone let a failed write
// show when its batch commits (SQLite abandons the batch on a full disk or
// an I/O error), as a DatabaseAccessError with the file's own error: that is
// the message and the exception type their callers, the C layer among them,
// have always been given.
enum class WriteChecks {
    EachWrite,
    EachCommit,
};

// One entry on its way into the new file: its payload stored at
// `level` (0 for expanded bytes), `readBytes` being what reading it cost,
// which bounds a batch.
struct EntryRow {
    int32_t entryId = 0;
    int64_t timestamp = 0;
    int32_t type = 0;
    int8_t dataSourceId = 0;
    const std::byte* payload = nullptr;
    std::size_t payloadSize = 0;
    int8_t level = 0;
    std::size_t readBytes = 0;
};

// Writes into a new file that the caller owns, in batches of bounded size:
// far faster than one transaction per entry, and a failure part-way keeps
// every batch committed before it.
class OutputWriter {
public:
    // `shownPath` is the path that messages name (the final one, when the
    // file is written under a temporary name).
    OutputWriter(SqliteLogFile& file, std::filesystem::path shownPath, WriteChecks checks);

    SqliteLogFile& file() { return file_; }

    void beginBatch();
    void commitBatch();

    // Writes one entry, numbered one past the previous one; answers its id.
    int32_t writeEntry(const EntryRow& row);

    // `what` ("adding a bookmark") names a write that returned `written`.
    void require(bool written, const std::string& what);

    uint64_t entriesWritten() const { return entriesWritten_; }
    uint64_t payloadsCopiedAsStored() const { return payloadsCopiedAsStored_; }

private:
    const std::byte* storedFormOf(const EntryRow& row, std::size_t& size);
    [[noreturn]] void throwWriteFailure(const std::string& what, const Outcome& failure) const;

    SqliteLogFile& file_;
    std::filesystem::path shownPath_;
    WriteChecks checks_;
    int8_t level_;
    std::optional<SqliteLogFile::WriteBatch> batch_;
    std::size_t entriesInBatch_ = 0;
    std::size_t bytesInBatch_ = 0;
    int32_t lastEntryId_ = 0;
    uint64_t entriesWritten_ = 0;
    uint64_t payloadsCopiedAsStored_ = 0;
    ByteBuffer expanded_;
    ByteBuffer compressed_;
};

}  // namespace Marivane::Logging::Algorithms
