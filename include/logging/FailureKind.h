#pragma once

namespace Marivane::Logging {

// What kind of failure a log file's most recent counted failure was
// (SqliteLogFile::getLastFailureKind). The kind says what a caller can do:
// wait and try again, repair or recover the file, free space, open it for
// writing.
enum class FailureKind {
    // No failure so far.
    None,
    // Another connection held a lock past the wait: the file is fine, try
    // again later.
    Busy,
    // The file's content is damaged (or is not a database).
    Damaged,
    // Reading or writing the disk failed.
    IoError,
    // The disk is full.
    Full,
    // The file was opened read-only, or cannot be written.
    ReadOnly,
    // A constraint refused a write (an unknown data source or entry).
    Refused,
    // Anything else.
    Other,
};

}  // namespace Marivane::Logging
