#include "derive/OutputWriter.h"

#include "store/StoreAccess.h"

#include <core/Compression.h>
#include <database/DatabaseAccessError.h>

#include <stdexcept>
#include <utility>

namespace Marivane::Logging::Algorithms {

namespace {

constexpr std::size_t kBatchEntries = 4096;
constexpr std::size_t kBatchBytes = 64 * 1024 * 1024;

}  // namespace

OutputWriter::OutputWriter(SqliteLogFile& file, std::filesystem::path shownPath, WriteChecks checks)
    : file_(file),
      shownPath_(std::move(shownPath)),
      checks_(checks),
      level_(StoreAccess::of(file).compressionLevel) {}

void OutputWriter::beginBatch() {
    batch_.emplace(file_.beginBatch());
}

void OutputWriter::commitBatch() {
    if (batch_ && !batch_->commit()) {
        if (checks_ == WriteChecks::EachCommit) {
            throw Database::DatabaseAccessError("Cannot write '" + shownPath_.string() +
                                                "': " + file_.getLastError());
        }
        throwWriteFailure("committing", StoreAccess::of(file_).lastRecordedFailure());
    }
    batch_.reset();
    entriesInBatch_ = 0;
    bytesInBatch_ = 0;
}

// A payload whose levels match goes in as it is stored, which spares
// expanding and compressing it again; the bytes are those a compression of
// the expanded payload at the same level would give.
const std::byte* OutputWriter::storedFormOf(const EntryRow& row, std::size_t& size) {
    if (row.level == level_) {
        ++payloadsCopiedAsStored_;
        size = row.payloadSize;
        return row.payload;
    }
    const std::byte* expanded = row.payload;
    size = row.payloadSize;
    if (row.level != 0) {
        Compression::uncompressInto(row.payload, row.payloadSize, expanded_);
        expanded = expanded_.data();
        size = expanded_.size();
    }
    if (level_ == 0) {
        return expanded;
    }
    size = Compression::compressInto(expanded, size, level_, compressed_);
    return compressed_.data();
}

int32_t OutputWriter::writeEntry(const EntryRow& row) {
    if (!batch_) {
        beginBatch();
    }
    std::size_t size = 0;
    const std::byte* stored = storedFormOf(row, size);
    const Outcome written =
        StoreAccess::of(file_).insertStoredBytes(row.timestamp, row.type, row.dataSourceId, stored, size);
    if (!written && checks_ == WriteChecks::EachWrite) {
        throwWriteFailure("writing entry " + std::to_string(row.entryId), written);
    }
    ++entriesWritten_;
    bytesInBatch_ += row.readBytes;
    if (++entriesInBatch_ == kBatchEntries || bytesInBatch_ >= kBatchBytes) {
        commitBatch();
    }
    return ++lastEntryId_;
}

void OutputWriter::require(bool written, const std::string& what) {
    if (!written && checks_ == WriteChecks::EachWrite) {
        throwWriteFailure(what, StoreAccess::of(file_).lastRecordedFailure());
    }
}

void OutputWriter::throwWriteFailure(const std::string& what, const Outcome& failure) const {
    throw std::runtime_error("Cannot write '" + shownPath_.string() + "': " + what +
                             " failed: " + failure.message());
}

}  // namespace Marivane::Logging::Algorithms
