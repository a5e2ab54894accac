#pragma once

// The whole class interface of libmarivane-logging (C++17 or later).

#include <logging/MV_Logging.h>

#include <logging/Algorithms.h>
#include <logging/Bookmark.h>
#include <logging/ByteBuffer.h>
#include <logging/CheckOptions.h>
#include <logging/CheckProblem.h>
#include <logging/CheckReport.h>
#include <logging/CompressionLevel.h>
#include <logging/Copy.h>
#include <logging/DamagedEntry.h>
#include <logging/DataEntry.h>
#include <logging/DataSource.h>
#include <logging/DataSourceProperty.h>
#include <logging/DataSourceTypeName.h>
#include <logging/Durability.h>
#include <logging/EntryIndexFilter.h>
#include <logging/EntryOrder.h>
#include <logging/EntryScan.h>
#include <logging/EntrySelection.h>
#include <logging/FailureKind.h>
#include <logging/FileCheck.h>
#include <logging/FileSummary.h>
#include <logging/FrameOrder.h>
#include <logging/LegacyLogFileError.h>
#include <logging/LogFileInterface.h>
#include <logging/LogFilePlayer.h>
#include <logging/LogMetadataEntry.h>
#include <logging/LogResourceEntry.h>
#include <logging/MetadataValue.h>
#include <logging/NotALogFileError.h>
#include <logging/NotYetALogFileError.h>
#include <logging/PayloadEncoding.h>
#include <logging/PlaybackPacing.h>
#include <logging/PlayerBookmark.h>
#include <logging/PlayerOptions.h>
#include <logging/PropertyValue.h>
#include <logging/Recorder.h>
#include <logging/Recover.h>
#include <logging/ResourceSummary.h>
#include <logging/ScannedEntry.h>
#include <logging/SourceSummary.h>
#include <logging/SqliteLogFile.h>
#include <logging/ThrownFailure.h>
#include <logging/Version.h>

#include <database/DatabaseAccessError.h>
#include <database/DatabaseBusy.h>
#include <database/FileIsNotDatabase.h>
