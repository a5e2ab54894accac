#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace Marivane::Logging {

// What part of a log file a check problem is about.
enum class CheckProblemKind {
    // The file itself: empty, missing, cut short, or not openable.
    File,
    // SQLite's view of the database: its integrity and foreign-key checks.
    Database,
    // The fixed metadata keys and their values.
    Metadata,
    // One entry or a run of entries, or the entry index.
    Entry,
    Bookmark,
    // A resource or the thumbnail.
    Resource,
    // A read failed for a reason other than damage (an I/O error, say), or
    // the check could not go on: what it reports is not all there is.
    Incomplete,
};

// One thing a check found wrong. A plain value: copy it freely.
struct CheckProblem {
    CheckProblemKind kind = CheckProblemKind::File;
    // The entry it names, for a problem about one entry.
    std::optional<int64_t> entryId;
    // A sentence without a final period, e.g. "entry 7: payload cannot be
    // expanded: ..." or "metadata key \"logVersion\" is missing".
    std::string message;
    // Caused by damaged bytes: recovery salvages what is still intact.
    bool damage = false;
};

}  // namespace Marivane::Logging
