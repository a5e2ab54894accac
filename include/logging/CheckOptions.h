#pragma once

#include <logging/CheckProblem.h>
#include <logging/CheckReport.h>

#include <cstdint>
#include <functional>
#include <optional>

namespace Marivane::Logging {

// Where a check is in its pass over the entries, the long part of it.
struct CheckProgress {
    enum class Step { Started, Advanced, Finished };
    Step step = Step::Started;
    // Entries met so far (read, or reported as damaged).
    uint64_t entries = 0;
    // The entries the file counts; absent when it cannot count them.
    std::optional<uint64_t> total;
};

// How checkLogFile reports while it runs. All handlers are optional and are
// called on the thread that runs the check; an exception one throws ends the
// check with it. A plain value: copy it freely.
struct CheckOptions {
    // Each problem once it is certain, in the report's order: a long check
    // shows its findings at once.
    std::function<void(const CheckProblem& problem)> onProblem;
    // Once the counts are known, before the last finding (reads that failed
    // for a reason other than damage).
    std::function<void(const CheckReport::Counts& counts)> onCounted;
    // Started once before the entries are read, Advanced after each entry,
    // Finished once after them.
    std::function<void(const CheckProgress& progress)> onProgress;
};

}  // namespace Marivane::Logging
