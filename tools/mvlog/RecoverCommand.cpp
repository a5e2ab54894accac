#include "Commands.h"
#include "Format.h"
#include "LogFileAccess.h"
#include "ProgressBar.h"

#include <logging/Recover.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <string>

namespace Mvlog {

namespace {

// Long lists of lost runs would bury the counts; the first ones show where
// the damage lies, the count says how much there is.
constexpr std::size_t kRunsShown = 20;

void printReport(const Marivane::Logging::RecoveryReport& report, const std::string& output) {
    // When the file's last id is unknown, entries after the highest id it
    // shows cannot be counted: the count is the least number lost.
    fmt::print("entries: {} recovered, {}{} lost\n", report.entriesRecovered,
               report.entriesLostIsLowerBound ? "at least " : "", report.entriesLost);
    if (!report.lostEntryIds.empty()) {
        std::string runs;
        for (std::size_t i = 0; i < report.lostEntryIds.size() && i < kRunsShown; ++i) {
            runs += i == 0 ? "" : ", ";
            const Marivane::Logging::EntryIdRange& run = report.lostEntryIds[i];
            runs +=
                run.first == run.last ? std::to_string(run.first) : fmt::format("{}-{}", run.first, run.last);
        }
        if (report.lostEntryIds.size() > kRunsShown) {
            runs += fmt::format(", ... ({} runs in all)", report.lostEntryIds.size());
        }
        fmt::print("lost entry ids: {}\n", runs);
    }
    fmt::print("data sources: {} recovered", report.dataSourcesRecovered);
    if (report.dataSourcesRecreated != 0) {
        fmt::print(", {} recreated for entries whose data source was lost", report.dataSourcesRecreated);
    }
    fmt::print("\n");
    fmt::print("properties: {} recovered, {} lost\n", report.propertiesRecovered, report.propertiesLost);
    fmt::print("metadata: {} recovered, {} lost\n", report.metadataRecovered, report.metadataLost);
    fmt::print("resources: {} recovered, {} lost\n", report.resourcesRecovered, report.resourcesLost);
    fmt::print("bookmarks: {} recovered, {} lost\n", report.bookmarksRecovered, report.bookmarksLost);
    for (const std::string& note : report.notes) {
        fmt::print("note: {}\n", note);
    }
    fmt::print("written: {}\n", output);
}

nlohmann::ordered_json recoveredAndLost(uint64_t recovered, uint64_t lost) {
    return {{"recovered", recovered}, {"lost", lost}};
}

void printJsonReport(const Marivane::Logging::RecoveryReport& report, const std::string& input,
                     const std::string& output) {
    nlohmann::ordered_json document;
    document["input"] = input;
    document["output"] = output;
    const auto runJson = [](const Marivane::Logging::EntryIdRange& run) {
        return nlohmann::ordered_json{{"first", run.first}, {"last", run.last}};
    };
    document["entries"] = {{"recovered", report.entriesRecovered},
                           {"lost", report.entriesLost},
                           {"lostIsLowerBound", report.entriesLostIsLowerBound},
                           {"lostIds", jsonArray(report.lostEntryIds, runJson)}};
    document["dataSources"] = {{"recovered", report.dataSourcesRecovered},
                               {"recreated", report.dataSourcesRecreated}};
    document["properties"] = recoveredAndLost(report.propertiesRecovered, report.propertiesLost);
    document["metadata"] = recoveredAndLost(report.metadataRecovered, report.metadataLost);
    document["resources"] = recoveredAndLost(report.resourcesRecovered, report.resourcesLost);
    document["bookmarks"] = recoveredAndLost(report.bookmarksRecovered, report.bookmarksLost);
    document["notes"] = report.notes;
    fmt::print("{}\n", dumpJson(document, 2));
}

}  // namespace

int runRecover(const RecoverOptions& options) {
    requireExistingFile(options.file);
    if (somethingExistsAt(options.output)) {
        throw ToolError(fmt::format("refused: {} already exists (recover never overwrites)", options.output));
    }
    Marivane::Logging::RecoverOptions salvage;
    salvage.applicationName = kToolName;
    salvage.applicationVersion = kToolVersion;
    ProgressBar status("recovering", "entries", progressMode(options.progress));
    if (status.isShown()) {
        salvage.progress = [&](uint64_t recovered) { status.update(recovered); };
    }
    Marivane::Logging::RecoveryReport report;
    try {
        report = Marivane::Logging::Algorithms::recover(options.file, options.output, salvage);
    } catch (const std::exception& error) {
        throw ToolError(
            fmt::format("recover failed: {} (nothing was written to {})", error.what(), options.output));
    }
    status.finish();
    if (options.json) {
        printJsonReport(report, options.file, options.output);
    } else {
        printReport(report, options.output);
    }
    const bool anything = report.entriesRecovered + report.dataSourcesRecovered + report.metadataRecovered +
                              report.resourcesRecovered + report.bookmarksRecovered !=
                          0;
    if (!anything) {
        fmt::print(stderr, "mvlog: nothing could be recovered from {}\n", options.file);
        return 1;
    }
    return 0;
}

}  // namespace Mvlog
