#pragma once

#include <logging/Durability.h>
#include <logging/Version.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace Marivane::Logging {

// What Recorder::record does when the queue of accepted but not yet written
// entries is full.
enum class OverflowPolicy {
    // Wait until the writer has made room: nothing is lost unless the
    // application asks for it. The default.
    Block = 0,
    // Drop the entry being recorded (record answers false) and count it.
    DropNewest = 1,
    // Refuse the entry being recorded (record answers false) and count it
    // apart from the dropped ones.
    Refuse = 2,
};

// How a Recorder creates its file and runs. A plain value: copy it freely.
struct RecorderOptions {
    // The new file's settings, as the creating constructor of SqliteLogFile
    // takes them.
    std::string timeZone = "Etc/UTC";
    std::string applicationName = "libmarivane-logging";
    std::string applicationVersion = MARIVANE_LOGGING_VERSION;
    int8_t compressionLevel = -1;
    // Balanced: every committed entry survives a kill of the process at
    // nearly the speed of Fast; Safe also survives power cuts.
    Durability durability = Durability::Balanced;
    // Keep a checksum of every entry's stored payload in the file (see
    // SqliteLogFile's creating constructor).
    bool entryChecksums = false;

    // Payload bytes that may wait in the queue (accepted, not yet written).
    // An entry larger than the whole budget is still taken when the queue is
    // empty.
    std::size_t queueBytes = 256u << 20;
    // Threads that compress payloads; 0 picks the cores minus one for the
    // writer, at least one. Unused at level 0.
    int32_t compressionThreads = 0;
    // How long an accepted entry may wait before it is committed, and the
    // most entries one transaction holds.
    std::chrono::milliseconds maxCommitDelay{100};
    std::size_t maxTransactionEntries = 65536;
    OverflowPolicy overflowPolicy = OverflowPolicy::Block;

    // Time order in the file. Above 0, the writer holds each entry until an
    // entry at least this much later (by timestamp) has been accepted, and
    // writes what it holds in timestamp order (equal timestamps in the order
    // record() accepted them): sources whose timestamps lag each other by
    // less than the window get ids that follow time. An entry that arrives
    // after a later one was written is written anyway and counted as late
    // (RecorderStats::late). Held entries count against queueBytes, and the
    // writer lets the earliest go when they fill half of it or a record()
    // waits for room. flush(), close() and the other operations (data
    // sources, metadata, bookmarks, ...) write everything held first. With
    // a window, entry ids follow time rather than acceptance order. 0 (the
    // default): every entry is written in acceptance order.
    std::chrono::milliseconds reorderWindow{0};
    // Builds the time index (SqliteLogFile::createTimeIndex) when the
    // recorder closes, so that the file answers time queries without a scan.
    // Not after a failure of the writer.
    bool buildTimeIndexOnClose = true;
};

}  // namespace Marivane::Logging
