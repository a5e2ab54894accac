#pragma once

#include <logging/Logging.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Mvlog {

// Which entries a scan visits: ids in [from, to] (-1 for the file's first or
// last), admitted by the filter, at most `limit` of them (-1: all).
struct EntrySelection {
    int32_t from = -1;
    int32_t to = -1;
    Marivane::Logging::EntryIndexFilter filter;
    int64_t limit = -1;
};

// An entry in the index whose payload could not be read or expanded.
struct DamagedEntry {
    int32_t entryId = 0;
    std::string reason;
};

// Visits entries in id order through readEntries, a bounded chunk at a time,
// so that a file of any size needs only about `chunkBytes` of payloads in
// memory. A chunk that fails (a payload that does not expand, a page that
// cannot be read) is read again entry by entry, which names the damaged ones
// and still delivers the rest.
class EntryScanner {
public:
    using EntryHandler = std::function<void(Marivane::Logging::DataEntry&&)>;
    using DamageHandler = std::function<void(const DamagedEntry&)>;

    static constexpr std::size_t kDefaultChunkBytes = 8u << 20;

    EntryScanner(const Marivane::Logging::LogFileInterface& file, EntrySelection selection,
                 std::size_t chunkBytes = kDefaultChunkBytes);

    // Number of entries the selection names (from the index, before reading).
    std::size_t selectedCount() const { return ids_.size(); }
    const std::vector<int32_t>& selectedIds() const { return ids_; }

    void run(const EntryHandler& onEntry, const DamageHandler& onDamaged);

private:
    void readChunk(std::size_t begin, std::size_t end, const EntryHandler& onEntry,
                   const DamageHandler& onDamaged);
    void readOneByOne(std::size_t begin, std::size_t end, const EntryHandler& onEntry,
                      const DamageHandler& onDamaged);
    void readSingle(int32_t entryId, const EntryHandler& onEntry, const DamageHandler& onDamaged);
    std::size_t nextChunkLength() const;

    const Marivane::Logging::LogFileInterface& file_;
    EntrySelection selection_;
    std::size_t chunkBytes_;
    std::vector<int32_t> ids_;
    uint64_t bytesSeen_ = 0;
    uint64_t entriesSeen_ = 0;
};

}  // namespace Mvlog
