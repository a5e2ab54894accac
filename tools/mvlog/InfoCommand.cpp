#include "Commands.h"
#include "FileSummary.h"
#include "Format.h"
#include "LogFileAccess.h"

#include <fmt/format.h>

namespace Mvlog {

int runInfo(const InfoOptions& options) {
    const auto file = openExistingLogFile(options.file);
    const FileSummary summary = summarizeLogFile(*file);
    requireCompleteReads(*file);
    if (options.json) {
        fmt::print("{}\n", dumpJson(summaryJson(summary), 2));
    } else {
        fmt::print("{}", summaryText(summary));
    }
    return 0;
}

}  // namespace Mvlog
