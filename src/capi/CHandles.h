#pragma once

// The objects behind the C interface's opaque handles: one wrapper per handle
// type, holding the class interface's record or object by value. The C layer
// only converts between these and the class interface.

#include <logging/MV_Logging.h>

#include <logging/Bookmark.h>
#include <logging/CheckReport.h>
#include <logging/CopyOptions.h>
#include <logging/DataEntry.h>
#include <logging/DataSource.h>
#include <logging/DataSourceProperty.h>
#include <logging/EntryIndexFilter.h>
#include <logging/LogFileInterface.h>
#include <logging/LogMetadataEntry.h>
#include <logging/LogResourceEntry.h>
#include <logging/Recorder.h>
#include <logging/RecorderOptions.h>
#include <logging/SqliteLogFile.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

struct MV_LogError {
    std::string message;
};

struct MV_LogCheckReport {
    Marivane::Logging::CheckReport value;
};

struct MV_LogConfig {
    std::string applicationName;
    std::string applicationVersion;
    std::string timeZone;
    int8_t compressionLevel = -1;
    MV_LogDurability durability = MV_LOG_DURABILITY_FAST;
    // A recorder records Balanced unless the application chose a mode.
    bool durabilityChosen = false;
    bool entryChecksums = false;
};

struct MV_LogFile {
    std::unique_ptr<Marivane::Logging::LogFileInterface> file;
    // False for files that were opened (or sliced) rather than created: such
    // handles refuse data sources, properties and entries.
    bool canAddData = false;
    // The open write batch, if any. Declared after `file` so that destroying
    // the handle commits it before the file closes.
    std::optional<Marivane::Logging::SqliteLogFile::WriteBatch> batch = std::nullopt;
    // Streaming reads compare payloads with the file's entry checksums.
    bool verifyChecksums = false;
    // Threads that expand payloads during streaming reads (VisitOptions).
    int32_t readThreads = 1;
};

struct MV_LogBookmark {
    Marivane::Logging::Bookmark value;
};

struct MV_LogDataEntry {
    Marivane::Logging::DataEntry value;
};

struct MV_LogDataSource {
    Marivane::Logging::DataSource value;
};

struct MV_LogDataSourceProperty {
    Marivane::Logging::DataSourceProperty value;
};

struct MV_LogMetadata {
    LogMetadataEntry value;
};

struct MV_LogResource {
    LogResourceEntry value;
};

struct MV_LogEntryIndexFilter {
    Marivane::Logging::EntryIndexFilter value;
};

struct MV_LogRecorderOptions {
    Marivane::Logging::RecorderOptions value;
};

struct MV_LogRecorder {
    std::unique_ptr<Marivane::Logging::Recorder> recorder;
};

struct MV_LogCopyOptions {
    Marivane::Logging::CopyOptions value;
};
