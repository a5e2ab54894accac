#pragma once

#include <logging/Durability.h>

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
    std::string applicationVersion = "4.0.0";
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
};

}  // namespace Marivane::Logging
