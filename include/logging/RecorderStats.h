#pragma once

#include <cstdint>
#include <string>

namespace Marivane::Logging {

// What a Recorder has done so far (Recorder::stats). A plain value.
struct RecorderStats {
    // Entries record() took, and of those: committed to the file, and not
    // written because the file refused them or the writer failed.
    uint64_t accepted = 0;
    uint64_t written = 0;
    uint64_t failed = 0;
    // Entries record() turned away: dropped (OverflowPolicy::DropNewest) and
    // refused (OverflowPolicy::Refuse, or after the recorder stopped).
    uint64_t dropped = 0;
    uint64_t refused = 0;
    // Written entries whose timestamp is earlier than that of an entry
    // written before them: out of time order in the file, beyond what
    // RecorderOptions::reorderWindow could mend (every such entry when there
    // is no window).
    uint64_t late = 0;
    // Payload bytes accepted, and the bytes stored for the written entries
    // (compressed when the file compresses).
    uint64_t bytesIn = 0;
    uint64_t bytesStored = 0;
    // The most payload bytes that waited in the queue at once.
    uint64_t queueHighWaterBytes = 0;
    // The longest time from record() to the commit that made an entry durable.
    int64_t maxLatencyMicroseconds = 0;
    // Why the recorder stopped accepting, or the last refusal of the file;
    // empty when nothing went wrong.
    std::string lastError;
};

}  // namespace Marivane::Logging
