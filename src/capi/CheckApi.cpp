#include "CConversions.h"
#include "CHandles.h"

#include <logging/FileCheck.h>
#include <logging/MV_Logging.h>

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

using namespace Marivane::Logging;
using Marivane::Logging::CApi::reportingFailures;

namespace {

// The C values are fixed in the header; the class interface's order may
// change.
MV_LogCheckProblemKind kindOf(CheckProblemKind kind) {
    switch (kind) {
        case CheckProblemKind::File:
            return MV_LOG_CHECK_FILE;
        case CheckProblemKind::Database:
            return MV_LOG_CHECK_DATABASE;
        case CheckProblemKind::Metadata:
            return MV_LOG_CHECK_METADATA;
        case CheckProblemKind::Entry:
            return MV_LOG_CHECK_ENTRY;
        case CheckProblemKind::Bookmark:
            return MV_LOG_CHECK_BOOKMARK;
        case CheckProblemKind::Resource:
            return MV_LOG_CHECK_RESOURCE;
        case CheckProblemKind::Incomplete:
            return MV_LOG_CHECK_INCOMPLETE;
    }
    return MV_LOG_CHECK_INCOMPLETE;
}

}  // namespace

MV_LogCheckReport_p MV_LogAlgorithms_Check(const char* path, MV_LogError_p* error) {
    MV_LogCheckReport_p report = nullptr;
    reportingFailures(error, [&] {
        auto checked = std::make_unique<MV_LogCheckReport>();
        checked->value = checkLogFile(std::filesystem::path(CApi::textFrom(path)));
        report = checked.release();
        return true;
    });
    return report;
}

void MV_LogCheckReport_Destroy(MV_LogCheckReport_p report) {
    delete report;
}

bool MV_LogCheckReport_IsClean(MV_LogCheckReport_p report) {
    return report != nullptr && report->value.isClean();
}

bool MV_LogCheckReport_FoundDamage(MV_LogCheckReport_p report) {
    return report != nullptr && report->value.foundDamage();
}

uint64_t MV_LogCheckReport_GetProblemCount(MV_LogCheckReport_p report) {
    return report != nullptr ? report->value.problems.size() : 0;
}

bool MV_LogCheckReport_GetProblem(MV_LogCheckReport_p report, uint64_t index, MV_LogCheckProblemKind* kind,
                                  int64_t* entryId, const char** message, MV_LogError_p* error) {
    return reportingFailures(error, [&] {
        if (index >= MV_LogCheckReport_GetProblemCount(report)) {
            throw std::out_of_range("MV_LogCheckReport_GetProblem: problem " + std::to_string(index) +
                                    " of a report of " +
                                    std::to_string(MV_LogCheckReport_GetProblemCount(report)));
        }
        const CheckProblem& problem = report->value.problems[static_cast<std::size_t>(index)];
        if (kind != nullptr) {
            *kind = kindOf(problem.kind);
        }
        if (entryId != nullptr) {
            *entryId = problem.entryId.value_or(-1);
        }
        if (message != nullptr) {
            *message = problem.message.c_str();
        }
        return true;
    });
}

bool MV_LogCheckReport_GetCheckedCounts(MV_LogCheckReport_p report, uint64_t* entries, uint64_t* dataSources,
                                        uint64_t* resources, uint64_t* bookmarks) {
    if (report == nullptr || !report->value.checked) {
        return false;
    }
    const CheckReport::Counts& counts = *report->value.checked;
    for (const auto& [out, value] :
         {std::pair{entries, counts.entries}, std::pair{dataSources, counts.dataSources},
          std::pair{resources, counts.resources}, std::pair{bookmarks, counts.bookmarks}}) {
        if (out != nullptr) {
            *out = value;
        }
    }
    return true;
}
