#pragma once

namespace Marivane::Logging {

// How a log file trades speed for safety, chosen when the file is created.
// Safe is kept by the file (opening it again keeps the mode); Fast and
// Balanced are settings of the writing connection.
enum class Durability {
    // The default of SqliteLogFile. Writes are not flushed and the rollback journal
    // lives in memory: fastest, but a crash of the process during a commit,
    // or a power cut, can lose recent writes or damage the file.
    Fast = 0,
    // Write-ahead log with flushes at checkpoints: a commit survives a crash
    // of the process; after a power cut the file is consistent and loses at
    // most the last commits. Other processes can read the file while it is
    // being written.
    Safe = 1,
    // A rollback journal on disk, without flushes: every commit survives a
    // kill of the process (what a commit wrote is in the operating system's
    // hands once it returns, and a commit cut short is rolled back by the
    // next connection that may write); a power cut can lose recent commits
    // or damage the file. Costs little more than Fast. The recorder's
    // default. Not kept by the file: opened again for writing, it is Fast.
    Balanced = 2,
};

}  // namespace Marivane::Logging
