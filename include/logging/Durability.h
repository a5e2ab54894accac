#pragma once

namespace Marivane::Logging {

// How a log file trades speed for safety, chosen when the file is created and
// kept by the file: opening it again keeps its mode.
enum class Durability {
    // The default. Writes are not flushed to the disk and the rollback journal
    // lives in memory: fastest, but a crash of the process during a commit,
    // or a power cut, can lose recent writes or damage the file.
    Fast = 0,
    // Write-ahead log with flushes at checkpoints: a commit survives a crash
    // of the process; after a power cut the file is consistent and loses at
    // most the last commits. Other processes can read the file while it is
    // being written.
    Safe = 1,
};

}  // namespace Marivane::Logging
