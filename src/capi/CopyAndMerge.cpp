#include "CConversions.h"
#include "CHandles.h"

#include <logging/CompressionLevel.h>
#include <logging/Copy.h>

#include <cstdint>
#include <filesystem>
#include <vector>

using namespace Marivane::Logging;
using Marivane::Logging::CApi::reportingFailures;
using Marivane::Logging::CApi::storeError;

namespace {

const CopyOptions& optionsOrDefaults(MV_LogCopyOptions_p options) {
    static const CopyOptions defaults;
    return options != nullptr ? options->value : defaults;
}

}  // namespace

MV_LogCopyOptions_p MV_LogCopyOptions_Create(const char* applicationName, const char* applicationVersion) {
    try {
        auto* options = new MV_LogCopyOptions{};
        options->value.applicationName = CApi::textFrom(applicationName);
        options->value.applicationVersion = CApi::textFrom(applicationVersion);
        return options;
    } catch (...) {
        return nullptr;
    }
}

void MV_LogCopyOptions_Destroy(MV_LogCopyOptions_p options) {
    delete options;
}

bool MV_LogCopyOptions_SetEntryRange(MV_LogCopyOptions_p options, int32_t firstEntryId, int32_t lastEntryId,
                                     MV_LogError_p* error) {
    if (firstEntryId != -1 && lastEntryId != -1 && lastEntryId < firstEntryId) {
        storeError(error, "Invalid entry range: the last entry id is below the first.");
        return false;
    }
    options->value.firstEntryId = firstEntryId;
    options->value.lastEntryId = lastEntryId;
    return true;
}

bool MV_LogCopyOptions_SetTimeRange(MV_LogCopyOptions_p options, int64_t startTimestamp, int64_t endTimestamp,
                                    MV_LogError_p* error) {
    if (endTimestamp < startTimestamp) {
        storeError(error, "Invalid time range: the end is before the start.");
        return false;
    }
    options->value.startTimestamp = startTimestamp;
    options->value.endTimestamp = endTimestamp;
    return true;
}

bool MV_LogCopyOptions_SetFilter(MV_LogCopyOptions_p options, MV_LogEntryIndexFilter_p filter,
                                 MV_LogError_p* error) {
    return reportingFailures(error, [&] {
        options->value.filter = filter != nullptr ? filter->value : EntryIndexFilter{};
        return true;
    });
}

bool MV_LogCopyOptions_SetCompressionLevel(MV_LogCopyOptions_p options, int8_t level, MV_LogError_p* error) {
    if (!isValidCompressionLevel(level)) {
        storeError(error, "Invalid compression level, value must be in the range [-1,9].");
        return false;
    }
    options->value.compressionLevel = level;
    return true;
}

bool MV_LogCopyOptions_SetDurability(MV_LogCopyOptions_p options, MV_LogDurability durability,
                                     MV_LogError_p* error) {
    if (!CApi::isDurability(durability)) {
        storeError(error, CApi::kInvalidDurability);
        return false;
    }
    options->value.durability = CApi::durabilityFrom(durability);
    return true;
}

bool MV_LogAlgorithms_Copy(const char* sourcePath, const char* outputPath, MV_LogCopyOptions_p options,
                           MV_LogError_p* error) {
    return reportingFailures(error, [&] {
        Algorithms::copy(std::filesystem::path(sourcePath), std::filesystem::path(outputPath),
                         optionsOrDefaults(options));
        return true;
    });
}

bool MV_LogAlgorithms_Merge(const char* const* inputPaths, size_t inputCount, const char* outputPath,
                            MV_LogCopyOptions_p options, MV_LogError_p* error) {
    return reportingFailures(error, [&] {
        std::vector<std::filesystem::path> inputs;
        inputs.reserve(inputCount);
        for (size_t i = 0; i < inputCount; ++i) {
            inputs.emplace_back(inputPaths[i]);
        }
        Algorithms::merge(inputs, std::filesystem::path(outputPath), optionsOrDefaults(options));
        return true;
    });
}
