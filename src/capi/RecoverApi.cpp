#include "CConversions.h"

#include <logging/MV_Logging.h>
#include <logging/Recover.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>

using namespace Marivane::Logging;
using Marivane::Logging::CApi::reportingFailures;

namespace {

// The size of MV_LogRecoveryDetails as first published: callers built
// against it pass at least this much.
constexpr std::size_t kFirstDetailsSize = offsetof(MV_LogRecoveryDetails, metadataLost) + sizeof(uint64_t);

RecoveryReport salvage(const char* damagedPath, const char* outputPath) {
    return Algorithms::recover(std::filesystem::path(CApi::textFrom(damagedPath)),
                               std::filesystem::path(CApi::textFrom(outputPath)));
}

void fill(MV_LogRecoveryReport& report, const RecoveryReport& salvaged) {
    report.entriesRecovered = salvaged.entriesRecovered;
    report.entriesLost = salvaged.entriesLost;
    report.dataSourcesRecovered = salvaged.dataSourcesRecovered;
    report.resourcesRecovered = salvaged.resourcesRecovered;
    report.resourcesLost = salvaged.resourcesLost;
    report.bookmarksRecovered = salvaged.bookmarksRecovered;
    report.bookmarksLost = salvaged.bookmarksLost;
    report.metadataRecovered = salvaged.metadataRecovered;
}

}  // namespace

bool MV_LogAlgorithms_Recover(const char* damagedPath, const char* outputPath, MV_LogError_p* error) {
    return MV_LogAlgorithms_RecoverWithReport(damagedPath, outputPath, nullptr, error);
}

bool MV_LogAlgorithms_RecoverWithReport(const char* damagedPath, const char* outputPath,
                                        MV_LogRecoveryReport* report, MV_LogError_p* error) {
    return reportingFailures(error, [&] {
        const RecoveryReport salvaged = salvage(damagedPath, outputPath);
        if (report != nullptr) {
            fill(*report, salvaged);
        }
        return true;
    });
}

bool MV_LogAlgorithms_RecoverWithDetails(const char* damagedPath, const char* outputPath,
                                         MV_LogRecoveryDetails* details, MV_LogError_p* error) {
    return reportingFailures(error, [&] {
        if (details != nullptr && details->structSize < kFirstDetailsSize) {
            throw std::invalid_argument("MV_LogAlgorithms_RecoverWithDetails: structSize is " +
                                        std::to_string(details->structSize) + ", less than the " +
                                        std::to_string(kFirstDetailsSize) +
                                        " bytes of MV_LogRecoveryDetails; set it to "
                                        "sizeof(MV_LogRecoveryDetails).");
        }
        const RecoveryReport salvaged = salvage(damagedPath, outputPath);
        if (details != nullptr) {
            MV_LogRecoveryDetails filled{};
            filled.structSize = details->structSize;
            fill(filled.report, salvaged);
            filled.entriesLostIsLowerBound = salvaged.entriesLostIsLowerBound;
            filled.pagesScanned = salvaged.pagesScanned;
            filled.dataSourcesRecreated = salvaged.dataSourcesRecreated;
            filled.propertiesRecovered = salvaged.propertiesRecovered;
            filled.propertiesLost = salvaged.propertiesLost;
            filled.metadataLost = salvaged.metadataLost;
            // Only the bytes the caller's struct has; a newer caller's extra
            // fields are left as they were.
            std::memcpy(details, &filled, std::min(details->structSize, sizeof filled));
        }
        return true;
    });
}
