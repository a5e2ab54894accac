#include "Commands.h"
#include "Format.h"
#include "LogFileAccess.h"
#include "ProgressBar.h"

#include <logging/Logging.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

namespace Mvlog {

using Marivane::Logging::CheckProblem;
using Marivane::Logging::CheckProgress;
using Marivane::Logging::CheckReport;

namespace {

int finishJsonReport(const std::string& path, const CheckReport& report) {
    nlohmann::ordered_json document;
    document["file"] = path;
    document["ok"] = report.isClean();
    document["damaged"] = report.foundDamage();
    document["problems"] =
        jsonArray(report.problems, [](const CheckProblem& problem) { return problem.message; });
    document["checked"] = nullptr;
    if (const std::optional<CheckReport::Counts>& counts = report.checked) {
        document["checked"] = {{"entries", counts->entries},
                               {"dataSources", counts->dataSources},
                               {"resources", counts->resources},
                               {"bookmarks", counts->bookmarks}};
    }
    document["hint"] = report.foundDamage()
                           ? nlohmann::ordered_json(fmt::format("mvlog recover {} -o NEW", path))
                           : nlohmann::ordered_json(nullptr);
    fmt::print("{}\n", dumpJson(document, 2));
    return report.isClean() ? 0 : 1;
}

int finishTextReport(const std::string& path, const CheckReport& report) {
    if (report.isClean()) {
        fmt::print("OK\n");
        return 0;
    }
    const std::size_t count = report.problems.size();
    fmt::print("{} problem{} found in {}\n", count, count == 1 ? "" : "s", path);
    if (report.foundDamage()) {
        fmt::print("hint: mvlog recover {} -o NEW salvages what is intact\n", path);
    }
    return 1;
}

}  // namespace

int runCheck(const CheckOptions& options) {
    requireExistingFile(options.file);
    // As the check runs: in text, problems are printed as they are found (a
    // long check shows its findings at once, and one that later fails hard
    // still shows what it saw), and the progress bar steps aside for them;
    // JSON waits for the one document printed at the end.
    std::optional<ProgressBar> bar;
    Marivane::Logging::CheckOptions check;
    check.onProblem = [&](const CheckProblem& problem) {
        if (options.json) {
            return;
        }
        if (bar) {
            bar->erase();
        }
        fmt::print("problem: {}\n", problem.message);
        std::fflush(stdout);
    };
    check.onCounted = [&](const CheckReport::Counts& counts) {
        if (!options.json) {
            fmt::print("Checked {} entries, {} data sources, {} resources, {} bookmarks\n", counts.entries,
                       counts.dataSources, counts.resources, counts.bookmarks);
        }
    };
    check.onProgress = [&](const CheckProgress& progress) {
        switch (progress.step) {
            case CheckProgress::Step::Started:
                bar.emplace("checking", "entries", progressMode(options.progress));
                break;
            case CheckProgress::Step::Advanced:
                bar->update(progress.entries, progress.total);
                break;
            case CheckProgress::Step::Finished:
                bar->finish();
                bar.reset();
                break;
        }
    };
    const CheckReport report = Marivane::Logging::checkLogFile(options.file, check);
    return options.json ? finishJsonReport(options.file, report) : finishTextReport(options.file, report);
}

}  // namespace Mvlog
