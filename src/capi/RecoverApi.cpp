#include "CConversions.h"

#include <logging/MV_Logging.h>
#include <logging/Recover.h>

#include <filesystem>

using namespace Marivane::Logging;
using Marivane::Logging::CApi::reportingFailures;

bool MV_LogAlgorithms_Recover(const char* damagedPath, const char* outputPath, MV_LogError_p* error) {
    return MV_LogAlgorithms_RecoverWithReport(damagedPath, outputPath, nullptr, error);
}

bool MV_LogAlgorithms_RecoverWithReport(const char* damagedPath, const char* outputPath,
                                        MV_LogRecoveryReport* report, MV_LogError_p* error) {
    return reportingFailures(error, [&] {
        const RecoveryReport salvaged =
            Algorithms::recover(std::filesystem::path(CApi::textFrom(damagedPath)),
                                std::filesystem::path(CApi::textFrom(outputPath)));
        if (report != nullptr) {
            report->entriesRecovered = salvaged.entriesRecovered;
            report->entriesLost = salvaged.entriesLost;
            report->dataSourcesRecovered = salvaged.dataSourcesRecovered;
            report->resourcesRecovered = salvaged.resourcesRecovered;
            report->resourcesLost = salvaged.resourcesLost;
            report->bookmarksRecovered = salvaged.bookmarksRecovered;
            report->bookmarksLost = salvaged.bookmarksLost;
            report->metadataRecovered = salvaged.metadataRecovered;
        }
        return true;
    });
}
