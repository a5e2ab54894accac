#pragma once

#include <logging/ByteBuffer.h>

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Marivane::Logging {

// Small entries that a write batch holds back to insert many in one
// statement: stepping one statement per small entry costs SQLite as much
// again as the row itself. The rows keep their order; their payloads are
// copied, so the caller's bytes are free when logData returns.
//
// An entry waits only when its data source is known to exist in the batch's
// transaction: the one constraint an insert can break is then already met,
// so a refused entry still fails on its own call.
//
// Threads: none of its own; the file guards it.
class DeferredRows {
public:
    // Rows per multi-row insert: beyond 64, a statement gains little more.
    static constexpr std::size_t kRowsPerStatement = 64;
    // Payloads above this size are inserted at once: their copy and their
    // pages cost more than the statement saved.
    static constexpr std::size_t kLargestPayload = 4096;

    struct Row {
        int64_t timestamp;
        int32_t type;
        int8_t dataSourceId;
        std::size_t offset;
        std::size_t size;
    };

    // Whether an entry of `size` stored bytes for `dataSourceId` may wait.
    bool mayHold(int8_t dataSourceId, std::size_t size) const {
        return size <= kLargestPayload && knownSources_.test(static_cast<uint8_t>(dataSourceId));
    }
    // A data source that an insert in the current transaction accepted.
    void noteKnownSource(int8_t dataSourceId) { knownSources_.set(static_cast<uint8_t>(dataSourceId)); }
    // The transaction ended or was lost: what it showed no longer holds.
    void forgetKnownSources() { knownSources_.reset(); }

    void hold(int64_t timestamp, int32_t type, int8_t dataSourceId, const std::byte* data, std::size_t size);
    bool empty() const { return rows_.empty(); }
    bool full() const { return rows_.size() >= kRowsPerStatement; }
    const std::vector<Row>& rows() const { return rows_; }
    const std::byte* payloadOf(const Row& row) const { return bytes_.data() + row.offset; }
    // Empties the rows, keeping their memory for the next ones.
    void clear();

private:
    std::bitset<256> knownSources_;
    std::vector<Row> rows_;
    ByteBuffer bytes_;
};

}  // namespace Marivane::Logging
