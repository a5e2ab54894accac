#include "Commands.h"
#include "Format.h"
#include "LogFileAccess.h"
#include "SummaryReport.h"

#include <fmt/format.h>

#include <cstdint>
#include <limits>

namespace Mvlog {

using Marivane::Logging::FileSummary;

namespace {

// Entry records carry 32-bit ids: the file's ids, counts and ranges as the
// library reads them narrow such an id onto another one, so no summary of
// them would be true.
void refuseIdsBeyondRecords(const FileSummary& summary) {
    for (const Marivane::Logging::DamagedEntry& damaged : summary.damagedEntries) {
        if (damaged.entryId < std::numeric_limits<int32_t>::min() ||
            damaged.entryId > std::numeric_limits<int32_t>::max()) {
            throw ToolError(fmt::format(
                "{}: the file holds entry id {}, which no entry record can carry (ids are 32-bit); its ids "
                "and counts cannot be summarized (`mvlog check` lists what is wrong)",
                summary.path.string(), damaged.entryId));
        }
    }
}

}  // namespace

int runInfo(const InfoOptions& options) {
    const auto file = openExistingLogFile(options.file);
    const FileSummary summary = summarizeLogFile(*file);
    requireCompleteReads(*file);
    refuseIdsBeyondRecords(summary);
    if (options.json) {
        fmt::print("{}\n", dumpJson(summaryJson(summary), 2));
    } else {
        fmt::print("{}", summaryText(summary));
    }
    return 0;
}

}  // namespace Mvlog
