#include "CConversions.h"
#include "CHandles.h"

#include <logging/Algorithms.h>

using namespace Marivane::Logging;
using Marivane::Logging::CApi::storeError;

namespace {

// Runs a derived-file operation and wraps its result. A refusal (empty result)
// and any exception become error objects; a partly written output stays on
// disk.
template <typename Derive>
MV_LogFile_p deriveFile(Derive derive, bool canAddData, const char* refusal, MV_LogError_p* error) {
    return CApi::returnFileOrError(
        [&]() -> MV_LogFile_p {
            std::unique_ptr<LogFileInterface> output = derive();
            if (!output) {
                storeError(error, refusal);
                return nullptr;
            }
            return new MV_LogFile{std::move(output), canAddData};
        },
        error);
}

}  // namespace

MV_LogEntryIndexFilter_p MV_LogEntryIndexFilter_Create(void) {
    return new MV_LogEntryIndexFilter{};
}

void MV_LogEntryIndexFilter_Destroy(MV_LogEntryIndexFilter_p filter) {
    delete filter;
}

void MV_LogEntryIndexFilter_AddDataType(MV_LogEntryIndexFilter_p filter, int32_t dataType) {
    filter->value.dataTypes.push_back(dataType);
}

void MV_LogEntryIndexFilter_AddDataSource(MV_LogEntryIndexFilter_p filter, int8_t dataSourceId) {
    filter->value.dataSources.push_back(dataSourceId);
}

void MV_LogEntryIndexFilter_AddDataSourceType(MV_LogEntryIndexFilter_p filter,
                                              MV_LogDataSourceType dataSourceType) {
    filter->value.dataSourceTypes.push_back(dataSourceType);
}

// A sliced file is treated like a pre-existing one (no further data), a cloned
// file like a newly created one.
MV_LogFile_p MV_LogAlgorithms_Slice(MV_LogFile_p file, int32_t startEntryId, int32_t endEntryId,
                                    const char* outputPath, MV_LogConfig_p config, MV_LogError_p* error) {
    return deriveFile(
        [&] {
            return Algorithms::slice(*file->file, startEntryId, endEntryId, CApi::textFrom(outputPath),
                                     config->applicationName, config->applicationVersion,
                                     config->compressionLevel);
        },
        false, "Failed to slice log file", error);
}

MV_LogFile_p MV_LogAlgorithms_Clone(MV_LogFile_p file, const char* outputPath, MV_LogConfig_p config,
                                    MV_LogError_p* error) {
    return deriveFile(
        [&] {
            return Algorithms::clone(*file->file, CApi::textFrom(outputPath), config->applicationName,
                                     config->applicationVersion, config->compressionLevel);
        },
        true, "Failed to clone log file", error);
}
