#pragma once

#include <logging/CheckOptions.h>
#include <logging/CheckReport.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace Marivane::Logging::Check {

// The report a check builds, told to the caller's handler as each problem
// is added.
class Findings {
public:
    explicit Findings(const CheckOptions& options) : options_(options) {}

    void add(CheckProblemKind kind, std::string message, bool damage = false,
             std::optional<int64_t> entryId = std::nullopt) {
        CheckProblem problem{kind, entryId, std::move(message), damage};
        if (options_.onProblem) {
            options_.onProblem(problem);
        }
        report_.problems.push_back(std::move(problem));
    }
    void addDamage(CheckProblemKind kind, std::string message,
                   std::optional<int64_t> entryId = std::nullopt) {
        add(kind, std::move(message), true, entryId);
    }
    void counted(const CheckReport::Counts& counts) {
        report_.checked = counts;
        if (options_.onCounted) {
            options_.onCounted(counts);
        }
    }
    void progress(CheckProgress::Step step, uint64_t entries, std::optional<uint64_t> total) const {
        if (options_.onProgress) {
            options_.onProgress(CheckProgress{step, entries, total});
        }
    }

    CheckReport take() { return std::move(report_); }

private:
    const CheckOptions& options_;
    CheckReport report_;
};

}  // namespace Marivane::Logging::Check
