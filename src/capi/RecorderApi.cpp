#include "CConversions.h"
#include "CHandles.h"

#include <logging/Recorder.h>

#include <core/Filesystem.h>

#include <chrono>
#include <filesystem>
#include <new>

using namespace Marivane::Logging;
using Marivane::Logging::CApi::reportingFailures;
using Marivane::Logging::CApi::storeError;

namespace {

// The recorder's failure text, or the last refusal of its file.
bool answerWithStats(bool done, MV_LogRecorder_p recorder, MV_LogError_p* error) {
    if (!done) {
        const std::string reason = recorder->recorder->stats().lastError;
        storeError(error, reason.empty() ? "The recorder has stopped." : reason);
    }
    return done;
}

}  // namespace

MV_LogRecorderOptions_p MV_LogRecorderOptions_Create(void) {
    return new (std::nothrow) MV_LogRecorderOptions{};
}

void MV_LogRecorderOptions_Destroy(MV_LogRecorderOptions_p options) {
    delete options;
}

bool MV_LogRecorderOptions_SetQueueBytes(MV_LogRecorderOptions_p options, uint64_t bytes,
                                         MV_LogError_p* error) {
    if (bytes == 0) {
        storeError(error, "Invalid queue size, value must be at least 1 byte.");
        return false;
    }
    options->value.queueBytes = static_cast<std::size_t>(bytes);
    return true;
}

bool MV_LogRecorderOptions_SetCompressionThreads(MV_LogRecorderOptions_p options, int32_t threads,
                                                 MV_LogError_p* error) {
    if (threads < 0 || threads > 256) {
        storeError(error, "Invalid number of compression threads, value must be in the range [0,256].");
        return false;
    }
    options->value.compressionThreads = threads;
    return true;
}

bool MV_LogRecorderOptions_SetMaxCommitDelay(MV_LogRecorderOptions_p options, int32_t milliseconds,
                                             MV_LogError_p* error) {
    if (milliseconds < 1) {
        storeError(error, "Invalid commit delay, value must be at least 1 ms.");
        return false;
    }
    options->value.maxCommitDelay = std::chrono::milliseconds(milliseconds);
    return true;
}

bool MV_LogRecorderOptions_SetOverflowPolicy(MV_LogRecorderOptions_p options, MV_LogOverflowPolicy policy,
                                             MV_LogError_p* error) {
    if (policy != MV_LOG_OVERFLOW_BLOCK && policy != MV_LOG_OVERFLOW_DROP_NEWEST &&
        policy != MV_LOG_OVERFLOW_REFUSE) {
        storeError(
            error,
            "Invalid overflow policy, value must be MV_LOG_OVERFLOW_BLOCK, MV_LOG_OVERFLOW_DROP_NEWEST or "
            "MV_LOG_OVERFLOW_REFUSE.");
        return false;
    }
    options->value.overflowPolicy = static_cast<OverflowPolicy>(policy);
    return true;
}

bool MV_LogRecorderOptions_SetReorderWindow(MV_LogRecorderOptions_p options, int32_t milliseconds,
                                            MV_LogError_p* error) {
    if (milliseconds < 0) {
        storeError(error, "Invalid reorder window, value must be 0 (off) or more milliseconds.");
        return false;
    }
    options->value.reorderWindow = std::chrono::milliseconds(milliseconds);
    return true;
}

void MV_LogRecorderOptions_SetBuildTimeIndexOnClose(MV_LogRecorderOptions_p options, bool build) {
    options->value.buildTimeIndexOnClose = build;
}

MV_LogRecorder_p MV_LogRecorder_Create(const char* path, MV_LogConfig_p config,
                                       MV_LogRecorderOptions_p options, MV_LogError_p* error) {
    MV_LogRecorder_p created = nullptr;
    reportingFailures(error, [&] {
        if (Marivane::Filesystem::somethingExistsAt(CApi::textFrom(path),
                                                    Marivane::Filesystem::PathLookup::PathItselfIfReadable)) {
            storeError(error, "Cannot record into '" + CApi::textFrom(path) + "': the file already exists.");
            return false;
        }
        RecorderOptions settings = options != nullptr ? options->value : RecorderOptions();
        settings.applicationName = config->applicationName;
        settings.applicationVersion = config->applicationVersion;
        settings.timeZone = config->timeZone;
        settings.compressionLevel = config->compressionLevel;
        settings.entryChecksums = config->entryChecksums;
        if (config->durabilityChosen) {
            settings.durability = CApi::durabilityFrom(config->durability);
        }
        created = new MV_LogRecorder{std::make_unique<Recorder>(std::filesystem::path(path), settings)};
        return true;
    });
    return created;
}

bool MV_LogRecorder_AddDataSource(MV_LogRecorder_p recorder, MV_LogDataSource_p dataSource,
                                  MV_LogError_p* error) {
    return reportingFailures(error, [&] {
        return answerWithStats(recorder->recorder->addDataSource(dataSource->value), recorder, error);
    });
}

bool MV_LogRecorder_AddDataSourceProperty(MV_LogRecorder_p recorder, MV_LogDataSourceProperty_p property,
                                          MV_LogError_p* error) {
    return reportingFailures(error, [&] {
        return answerWithStats(recorder->recorder->addDataSourceProperty(property->value), recorder, error);
    });
}

bool MV_LogRecorder_AddMetadata(MV_LogRecorder_p recorder, MV_LogMetadata_p metadata, MV_LogError_p* error) {
    return reportingFailures(error, [&] {
        return answerWithStats(recorder->recorder->addMetadata(metadata->value.key, metadata->value.value),
                               recorder, error);
    });
}

bool MV_LogRecorder_AddResource(MV_LogRecorder_p recorder, MV_LogResource_p resource, MV_LogError_p* error) {
    return reportingFailures(error, [&] {
        return answerWithStats(recorder->recorder->addResource(resource->value.name, resource->value.data),
                               recorder, error);
    });
}

bool MV_LogRecorder_AddBookmark(MV_LogRecorder_p recorder, MV_LogBookmark_p bookmark, MV_LogError_p* error) {
    return reportingFailures(error, [&] {
        return answerWithStats(recorder->recorder->addBookmark(bookmark->value), recorder, error);
    });
}

bool MV_LogRecorder_Record(MV_LogRecorder_p recorder, int8_t dataSourceId, int32_t type, int64_t timestamp,
                           const uint8_t* data, size_t size) {
    try {
        return recorder->recorder->record(dataSourceId, type, timestamp, data, size);
    } catch (...) {
        return false;
    }
}

bool MV_LogRecorder_Flush(MV_LogRecorder_p recorder, MV_LogError_p* error) {
    return reportingFailures(error,
                             [&] { return answerWithStats(recorder->recorder->flush(), recorder, error); });
}

void MV_LogRecorder_GetStats(MV_LogRecorder_p recorder, MV_LogRecorderStats* stats) {
    RecorderStats current;
    try {
        current = recorder->recorder->stats();
    } catch (...) {
        // Out of memory for the error text: the counts stay zero.
    }
    *stats = MV_LogRecorderStats{current.accepted,
                                 current.written,
                                 current.dropped + current.refused,
                                 current.failed,
                                 current.bytesIn,
                                 current.bytesStored,
                                 current.queueHighWaterBytes,
                                 current.maxLatencyMicroseconds};
}

uint64_t MV_LogRecorder_GetLateCount(MV_LogRecorder_p recorder) {
    try {
        return recorder->recorder->stats().late;
    } catch (...) {
        // Out of memory for the error text that comes with the counts.
        return 0;
    }
}

bool MV_LogRecorder_Close(MV_LogRecorder_p recorder, MV_LogError_p* error) {
    return reportingFailures(error,
                             [&] { return answerWithStats(recorder->recorder->close(), recorder, error); });
}

void MV_LogRecorder_Destroy(MV_LogRecorder_p recorder) {
    delete recorder;
}
