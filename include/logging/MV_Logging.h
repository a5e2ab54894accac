#ifndef MARIVANE_MV_LOGGING_H
#define MARIVANE_MV_LOGGING_H

/*
 * The C interface of libmarivane-logging.
 *
 * Conventions
 * - Every object is an opaque handle. A handle returned by a function belongs
 *   to the caller, who gives it back to the family's _Destroy; every _Destroy
 *   accepts NULL and then does nothing.
 * - A fallible function returns true/a handle on success and false/NULL on
 *   failure. When its last argument (MV_LogError_p*) is not NULL, a failure
 *   stores a new error object there, which the caller frees with
 *   MV_LogError_Destroy. Nothing is stored on success. Exception:
 *   MV_LogFile_Create on an existing path always stores its error, so always
 *   pass an error argument to it.
 * - Texts cross as NUL-terminated strings, byte buffers as pointer and length.
 *   Functions copy what they are given; getters hand out borrowed pointers that
 *   stay valid until the handle is destroyed or the same field is set again.
 * - Lists are delivered through a callback, one newly allocated handle per
 *   element, which the callee owns from then on.
 * - Only the lifecycle functions (MV_LogFile_Create, MV_LogFile_Open) and the
 *   derived-file calls (MV_LogAlgorithms_*) turn internal exceptions into error
 *   objects; NULL texts and invalid handles are contract violations.
 * - Threads: a handle is used by one thread at a time; the library takes no
 *   locks in this layer.
 */

#include <logging/LoggingExport.h>
#include <logging/MV_LogDataSourceType.h>

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Opaque handles: pointers to incomplete structs. */
typedef struct MV_LogError* MV_LogError_p;
typedef struct MV_LogConfig* MV_LogConfig_p;
typedef struct MV_LogFile* MV_LogFile_p;
typedef struct MV_LogBookmark* MV_LogBookmark_p;
typedef struct MV_LogDataEntry* MV_LogDataEntry_p;
typedef struct MV_LogDataSource* MV_LogDataSource_p;
typedef struct MV_LogDataSourceProperty* MV_LogDataSourceProperty_p;
typedef struct MV_LogMetadata* MV_LogMetadata_p;
typedef struct MV_LogResource* MV_LogResource_p;
typedef struct MV_LogEntryIndexFilter* MV_LogEntryIndexFilter_p;

/* List callbacks: user data first, then one newly allocated handle that the
 * callee owns from then on (or, for entry ids, the id itself). */
typedef void (*MV_LogDataSourceCallback)(void* userData, MV_LogDataSource_p dataSource);
typedef void (*MV_LogDataSourcePropertyCallback)(void* userData, MV_LogDataSourceProperty_p property);
typedef void (*MV_LogEntryIdCallback)(void* userData, int32_t entryId);
typedef void (*MV_LogDataEntryCallback)(void* userData, MV_LogDataEntry_p entry);
typedef void (*MV_LogBookmarkCallback)(void* userData, MV_LogBookmark_p bookmark);
typedef void (*MV_LogMetadataCallback)(void* userData, MV_LogMetadata_p metadata);
typedef void (*MV_LogResourceCallback)(void* userData, MV_LogResource_p resource);

/* ---- Errors ------------------------------------------------------------ */

MV_LOGGING_EXPORT void MV_LogError_Destroy(MV_LogError_p error);
/* The message stays valid until the error object is destroyed. */
MV_LOGGING_EXPORT void MV_LogError_GetErrorMessage(MV_LogError_p error, const char** message);

/* ---- Creation settings ------------------------------------------------- */

/* Copies the three texts; the compression level starts at -1 (default). */
MV_LOGGING_EXPORT MV_LogConfig_p MV_LogConfig_Create(const char* applicationName,
                                                     const char* applicationVersion, const char* timeZone);
MV_LOGGING_EXPORT void MV_LogConfig_Destroy(MV_LogConfig_p config);
MV_LOGGING_EXPORT void MV_LogConfig_GetTimeZone(MV_LogConfig_p config, const char** timeZone);
/* Always true. */
MV_LOGGING_EXPORT bool MV_LogConfig_SetTimeZone(MV_LogConfig_p config, const char* timeZone);
MV_LOGGING_EXPORT void MV_LogConfig_GetCompressionLevel(MV_LogConfig_p config, int8_t* level);
/* Accepts -1 (the codec's default) to 9; 0 stores payloads uncompressed. */
MV_LOGGING_EXPORT bool MV_LogConfig_SetCompressionLevel(MV_LogConfig_p config, int8_t level,
                                                        MV_LogError_p* error);

/* How a new file trades speed for safety; a SAFE file keeps its mode when it
 * is opened again.
 * FAST (the default of MV_LogFile_Create): no flushes, journal in memory; a
 * crash during a commit or a power cut can lose recent writes or damage the
 * file.
 * SAFE: write-ahead log; a commit survives a crash of the process, after a
 * power cut the file is consistent and loses at most the last commits, and
 * other processes can read the file while it is written.
 * BALANCED (the default of MV_LogRecorder_Create when no mode was set): a
 * journal on disk without flushes; a commit survives a kill of the process
 * at little more cost than FAST, a power cut can lose recent writes or damage
 * the file. */
typedef enum MV_LogDurability {
    MV_LOG_DURABILITY_FAST = 0,
    MV_LOG_DURABILITY_SAFE = 1,
    MV_LOG_DURABILITY_BALANCED = 2
} MV_LogDurability;
/* False, with an error, for a value that is not one of the modes. */
MV_LOGGING_EXPORT bool MV_LogConfig_SetDurability(MV_LogConfig_p config, MV_LogDurability durability,
                                                  MV_LogError_p* error);
MV_LOGGING_EXPORT void MV_LogConfig_GetDurability(MV_LogConfig_p config, MV_LogDurability* durability);

/* With `enabled`, files created from this configuration (MV_LogFile_Create,
 * MV_LogRecorder_Create) keep a checksum of every entry's stored payload, so
 * that damage inside an uncompressed payload is found by reads that verify
 * (MV_LogFile_SetChecksumVerification), by mvlog check and by recovery. Off by
 * default: a file created without checksums is exactly what it always was. */
MV_LOGGING_EXPORT bool MV_LogConfig_SetChecksums(MV_LogConfig_p config, bool enabled, MV_LogError_p* error);
MV_LOGGING_EXPORT void MV_LogConfig_GetChecksums(MV_LogConfig_p config, bool* enabled);

/* ---- File lifecycle ---------------------------------------------------- */

/* Creates a new log file; refuses any path where something already exists. Data
 * sources, properties and entries may be added only through handles made here
 * (and by MV_LogAlgorithms_Clone). */
MV_LOGGING_EXPORT MV_LogFile_p MV_LogFile_Create(const char* path, MV_LogConfig_p config,
                                                 MV_LogError_p* error);
/* Opens an existing log file. */
MV_LOGGING_EXPORT MV_LogFile_p MV_LogFile_Open(const char* path, MV_LogError_p* error);
/* Opens an existing log file for reading only: the file is never created,
 * repaired or changed. Data sources, properties and entries are refused as
 * on any opened file; bookmark and metadata edits fail with an error saying
 * the file was opened read-only. A file that a writer keeps locked is waited
 * for (a few seconds) and then reported as busy. Never lets an exception
 * escape. */
MV_LOGGING_EXPORT MV_LogFile_p MV_LogFile_OpenReadOnly(const char* path, MV_LogError_p* error);
/* Closes the file and frees the handle. */
MV_LOGGING_EXPORT void MV_LogFile_Destroy(MV_LogFile_p file);

/* ---- Write batches -------------------------------------------------------- */

/* Groups the following writes into one transaction until MV_LogFile_CommitBatch
 * (MV_LogFile_Destroy commits an open batch too). A batch is about speed, not
 * atomicity: committing always keeps what was written, a failing write fails
 * only itself, and reads see the batch's writes at once. Fails ("A write batch
 * is already open on this log file.") while a batch is open. */
MV_LOGGING_EXPORT bool MV_LogFile_BeginBatch(MV_LogFile_p file, MV_LogError_p* error);
/* Ends the open batch. Fails with "No write batch is open on this log file."
 * when there is none, and with the file's last error when the commit fails. */
MV_LOGGING_EXPORT bool MV_LogFile_CommitBatch(MV_LogFile_p file, MV_LogError_p* error);

/* ---- Operations on an open file ----------------------------------------- */

/* On success the data-source handle receives the id the file assigned. */
MV_LOGGING_EXPORT bool MV_LogFile_AddDataSource(MV_LogFile_p file, MV_LogDataSource_p dataSource,
                                                MV_LogError_p* error);
MV_LOGGING_EXPORT bool MV_LogFile_AddDataSourceProperty(MV_LogFile_p file,
                                                        MV_LogDataSourceProperty_p property,
                                                        MV_LogError_p* error);
MV_LOGGING_EXPORT bool MV_LogFile_LogData(MV_LogFile_p file, MV_LogDataEntry_p entry, MV_LogError_p* error);
MV_LOGGING_EXPORT bool MV_LogFile_AddMetadata(MV_LogFile_p file, MV_LogMetadata_p metadata,
                                              MV_LogError_p* error);
MV_LOGGING_EXPORT bool MV_LogFile_AddResource(MV_LogFile_p file, MV_LogResource_p resource,
                                              MV_LogError_p* error);
MV_LOGGING_EXPORT bool MV_LogFile_AddBookmark(MV_LogFile_p file, MV_LogBookmark_p bookmark,
                                              MV_LogError_p* error);
MV_LOGGING_EXPORT bool MV_LogFile_UpdateBookmark(MV_LogFile_p file, MV_LogBookmark_p bookmark,
                                                 MV_LogError_p* error);
MV_LOGGING_EXPORT bool MV_LogFile_RemoveBookmark(MV_LogFile_p file, MV_LogBookmark_p bookmark,
                                                 MV_LogError_p* error);
/* Single-item reads store a new handle through their out-parameter on success
 * only. */
MV_LOGGING_EXPORT bool MV_LogFile_ReadEntry(MV_LogFile_p file, int32_t entryId, MV_LogDataEntry_p* entry,
                                            MV_LogError_p* error);
MV_LOGGING_EXPORT bool MV_LogFile_GetDataSourceProperty(MV_LogFile_p file, MV_LogDataSource_p dataSource,
                                                        const char* key, MV_LogDataSourceProperty_p* property,
                                                        MV_LogError_p* error);
MV_LOGGING_EXPORT bool MV_LogFile_GetMetadata(MV_LogFile_p file, const char* key, MV_LogMetadata_p* metadata,
                                              MV_LogError_p* error);
MV_LOGGING_EXPORT bool MV_LogFile_GetResource(MV_LogFile_p file, const char* name, MV_LogResource_p* resource,
                                              MV_LogError_p* error);
/* The counters always write their value; -1 means failure (and, for the first
 * and last id, an empty file). */
MV_LOGGING_EXPORT bool MV_LogFile_GetFirstEntryId(MV_LogFile_p file, int32_t* entryId, MV_LogError_p* error);
MV_LOGGING_EXPORT bool MV_LogFile_GetLastEntryId(MV_LogFile_p file, int32_t* entryId, MV_LogError_p* error);
MV_LOGGING_EXPORT bool MV_LogFile_GetEntryCount(MV_LogFile_p file, int32_t* count, MV_LogError_p* error);
/* These three return false, without calling back, for an empty list. */
MV_LOGGING_EXPORT bool MV_LogFile_GetDataSources(MV_LogFile_p file, MV_LogDataSourceCallback callback,
                                                 void* userData, MV_LogError_p* error);
MV_LOGGING_EXPORT bool MV_LogFile_GetAllDataSourceProperties(MV_LogFile_p file,
                                                             MV_LogDataSourcePropertyCallback callback,
                                                             void* userData, MV_LogError_p* error);
MV_LOGGING_EXPORT bool MV_LogFile_GetEntryIndex(MV_LogFile_p file, MV_LogEntryIndexFilter_p filter,
                                                MV_LogEntryIdCallback callback, void* userData,
                                                MV_LogError_p* error);
/* These four always return true. Bounds are inclusive; -1 stands for the
 * file's first or last entry; a limit of -1 means no limit. */
MV_LOGGING_EXPORT bool MV_LogFile_ReadEntries(MV_LogFile_p file, int32_t minimumEntryId,
                                              int32_t maximumEntryId, MV_LogEntryIndexFilter_p filter,
                                              int32_t limit, MV_LogDataEntryCallback callback,
                                              void* userData);
MV_LOGGING_EXPORT bool MV_LogFile_GetBookmarks(MV_LogFile_p file, MV_LogBookmarkCallback callback,
                                               void* userData);
MV_LOGGING_EXPORT bool MV_LogFile_GetAllMetadata(MV_LogFile_p file, MV_LogMetadataCallback callback,
                                                 void* userData);
MV_LOGGING_EXPORT bool MV_LogFile_GetAllResources(MV_LogFile_p file, MV_LogResourceCallback callback,
                                                  void* userData);

/* ---- Streaming reads and time ------------------------------------------- */
/* Beyond the calls above: reads for files of any length, in memory that does
 * not grow with the file. None of these lets an exception escape. */

/* One entry handed to a visitor. Borrowed: `data` is valid only during the
 * callback; copy the bytes to keep them. */
typedef struct MV_LogEntryView {
    int32_t entryId;
    int8_t dataSourceId;
    int32_t type;
    int64_t timestamp;
    const uint8_t* data; /* valid only during the callback */
    size_t size;
} MV_LogEntryView;
/* Return false to stop the visit. */
typedef bool (*MV_LogEntryViewCallback)(void* userData, const MV_LogEntryView* entry);
/* Ids: -1 is the first/last entry. Timestamps: inclusive; INT64_MIN/INT64_MAX for no bound.
   filter may be NULL. False, with an error naming the entry id, on a database or
   decompression failure; true when the visit ended or the visitor stopped it.
   Never lets an exception escape. */
MV_LOGGING_EXPORT bool MV_LogFile_VisitEntries(MV_LogFile_p file, int32_t minimumEntryId,
                                               int32_t maximumEntryId, int64_t startTimestamp,
                                               int64_t endTimestamp, MV_LogEntryIndexFilter_p filter,
                                               MV_LogEntryViewCallback callback, void* userData,
                                               MV_LogError_p* error);
/* The order of MV_LogFile_VisitEntriesOrdered. */
typedef enum MV_LogEntryOrder { MV_LOG_ORDER_ID = 0, MV_LOG_ORDER_TIME = 1 } MV_LogEntryOrder;
/* As MV_LogFile_VisitEntries, in the given order; MV_LOG_ORDER_TIME is ascending
   timestamp, ties by ascending id. Never lets an exception escape. */
MV_LOGGING_EXPORT bool MV_LogFile_VisitEntriesOrdered(MV_LogFile_p file, int32_t minimumEntryId,
                                                      int32_t maximumEntryId, int64_t startTimestamp,
                                                      int64_t endTimestamp, MV_LogEntryIndexFilter_p filter,
                                                      MV_LogEntryOrder order,
                                                      MV_LogEntryViewCallback callback, void* userData,
                                                      MV_LogError_p* error);
/* The first and last timestamp of the entries that pass filter (NULL: all).
 * True with *found false when no entry passes; false with an error when the
 * read fails. */
MV_LOGGING_EXPORT bool MV_LogFile_GetTimeRange(MV_LogFile_p file, MV_LogEntryIndexFilter_p filter,
                                               int64_t* firstTimestamp, int64_t* lastTimestamp, bool* found,
                                               MV_LogError_p* error);
/* The entry with the earliest timestamp at or after `timestamp` (lowest id
 * among equal timestamps) that passes filter (NULL: all). True with *found
 * false when there is none; false with an error when the read fails. */
MV_LOGGING_EXPORT bool MV_LogFile_FindEntryAtOrAfter(MV_LogFile_p file, int64_t timestamp,
                                                     MV_LogEntryIndexFilter_p filter, int32_t* entryId,
                                                     bool* found, MV_LogError_p* error);
/* Builds the index on entry timestamps that time-based reads use when it is
 * there. Idempotent. Fails on a read-only handle. */
MV_LOGGING_EXPORT bool MV_LogFile_CreateTimeIndex(MV_LogFile_p file, MV_LogError_p* error);
/* *present tells whether the file holds the time index. */
MV_LOGGING_EXPORT bool MV_LogFile_HasTimeIndex(MV_LogFile_p file, bool* present, MV_LogError_p* error);
/* Whether the file keeps entry checksums (chosen when it was created). */
MV_LOGGING_EXPORT bool MV_LogFile_HasChecksums(MV_LogFile_p file, bool* present, MV_LogError_p* error);
/* With `enabled`, this handle's MV_LogFile_VisitEntries compares every stored
 * payload with its checksum, in files that keep them: an entry that does not
 * match ends the visit with an error naming the entry. */
MV_LOGGING_EXPORT bool MV_LogFile_SetChecksumVerification(MV_LogFile_p file, bool enabled,
                                                          MV_LogError_p* error);
/* The threads that expand compressed payloads during this handle's
 * MV_LogFile_VisitEntries and MV_LogFile_VisitEntriesOrdered: 1 (the
 * default) expands on the calling thread, 0 uses one per core, N uses N.
 * Entries still reach the callback in order, on the calling thread, and a
 * failure names its entry as before; what is read ahead is bounded. A
 * negative number fails. */
MV_LOGGING_EXPORT bool MV_LogFile_SetReadThreads(MV_LogFile_p file, int32_t threads, MV_LogError_p* error);

/* ---- Recorder -------------------------------------------------------------- */
/* Records into a new file from any number of threads: MV_LogRecorder_Record
 * only enqueues; compression runs on a pool of threads and one writer thread
 * inserts the entries in the order the recorder accepted them. None of these
 * lets an exception escape. */

typedef struct MV_LogRecorder* MV_LogRecorder_p;
typedef struct MV_LogRecorderOptions* MV_LogRecorderOptions_p;
typedef enum MV_LogOverflowPolicy {
    MV_LOG_OVERFLOW_BLOCK = 0,
    MV_LOG_OVERFLOW_DROP_NEWEST = 1,
    MV_LOG_OVERFLOW_REFUSE = 2
} MV_LogOverflowPolicy;
typedef struct MV_LogRecorderStats {
    uint64_t accepted, written, dropped, failed;
    uint64_t bytesIn, bytesStored, queueHighWaterBytes;
    int64_t maxLatencyMicroseconds;
} MV_LogRecorderStats;
/* Defaults: 256 MiB of queue, the cores minus one compression threads, 100 ms
 * of commit delay, MV_LOG_OVERFLOW_BLOCK, no reorder window, the time index
 * built on close. Null when out of memory. */
MV_LOGGING_EXPORT MV_LogRecorderOptions_p MV_LogRecorderOptions_Create(void);
MV_LOGGING_EXPORT void MV_LogRecorderOptions_Destroy(MV_LogRecorderOptions_p options);
/* At least 1. */
MV_LOGGING_EXPORT bool MV_LogRecorderOptions_SetQueueBytes(MV_LogRecorderOptions_p options, uint64_t bytes,
                                                           MV_LogError_p* error);
/* 0 picks the default; otherwise 1 to 256. */
MV_LOGGING_EXPORT bool MV_LogRecorderOptions_SetCompressionThreads(MV_LogRecorderOptions_p options,
                                                                   int32_t threads, MV_LogError_p* error);
/* 1 ms or more. */
MV_LOGGING_EXPORT bool MV_LogRecorderOptions_SetMaxCommitDelay(MV_LogRecorderOptions_p options,
                                                               int32_t milliseconds, MV_LogError_p* error);
MV_LOGGING_EXPORT bool MV_LogRecorderOptions_SetOverflowPolicy(MV_LogRecorderOptions_p options,
                                                               MV_LogOverflowPolicy policy,
                                                               MV_LogError_p* error);
/* Time order in the file: entries are held until one at least `milliseconds`
 * later (by timestamp) was recorded, and written in timestamp order (equal
 * timestamps in the order they were recorded), so entry ids follow time when
 * sources lag each other by less than the window. Later arrivals are written
 * anyway and counted (MV_LogRecorder_GetLateCount). Flushing, closing and the
 * other operations write everything held first. 0 (the default) writes in the
 * order entries were recorded; negative values are refused. */
MV_LOGGING_EXPORT bool MV_LogRecorderOptions_SetReorderWindow(MV_LogRecorderOptions_p options,
                                                              int32_t milliseconds, MV_LogError_p* error);
/* Whether closing builds the time index (as MV_LogFile_CreateTimeIndex);
 * true by default. */
MV_LOGGING_EXPORT void MV_LogRecorderOptions_SetBuildTimeIndexOnClose(MV_LogRecorderOptions_p options,
                                                                      bool build);
/* Refuses an existing path like MV_LogFile_Create; options may be NULL for the defaults. */
MV_LOGGING_EXPORT MV_LogRecorder_p MV_LogRecorder_Create(const char* path, MV_LogConfig_p config,
                                                         MV_LogRecorderOptions_p options,
                                                         MV_LogError_p* error);
/* Writes the assigned id back into the data-source handle, as MV_LogFile_AddDataSource does. */
MV_LOGGING_EXPORT bool MV_LogRecorder_AddDataSource(MV_LogRecorder_p recorder, MV_LogDataSource_p dataSource,
                                                    MV_LogError_p* error);
MV_LOGGING_EXPORT bool MV_LogRecorder_AddDataSourceProperty(MV_LogRecorder_p recorder,
                                                            MV_LogDataSourceProperty_p property,
                                                            MV_LogError_p* error);
/* Metadata, resources and bookmarks keep their place among the entries. */
MV_LOGGING_EXPORT bool MV_LogRecorder_AddMetadata(MV_LogRecorder_p recorder, MV_LogMetadata_p metadata,
                                                  MV_LogError_p* error);
MV_LOGGING_EXPORT bool MV_LogRecorder_AddResource(MV_LogRecorder_p recorder, MV_LogResource_p resource,
                                                  MV_LogError_p* error);
MV_LOGGING_EXPORT bool MV_LogRecorder_AddBookmark(MV_LogRecorder_p recorder, MV_LogBookmark_p bookmark,
                                                  MV_LogError_p* error);
/* Thread-safe. False when the entry was dropped or refused, or the recorder has stopped. */
MV_LOGGING_EXPORT bool MV_LogRecorder_Record(MV_LogRecorder_p recorder, int8_t dataSourceId, int32_t type,
                                             int64_t timestamp, const uint8_t* data, size_t size);
MV_LOGGING_EXPORT bool MV_LogRecorder_Flush(MV_LogRecorder_p recorder, MV_LogError_p* error);
/* `dropped` counts the entries dropped and refused. */
MV_LOGGING_EXPORT void MV_LogRecorder_GetStats(MV_LogRecorder_p recorder, MV_LogRecorderStats* stats);
/* Entries written with a timestamp earlier than that of an entry written
 * before them: out of time order in the file despite the reorder window
 * (every such entry when there is none). */
MV_LOGGING_EXPORT uint64_t MV_LogRecorder_GetLateCount(MV_LogRecorder_p recorder);
/* Flushes, stops the threads, builds the time index unless told not to and
 * closes the file; Record answers false afterwards. */
MV_LOGGING_EXPORT bool MV_LogRecorder_Close(MV_LogRecorder_p recorder, MV_LogError_p* error);
MV_LOGGING_EXPORT void MV_LogRecorder_Destroy(MV_LogRecorder_p recorder); /* closes if needed; accepts NULL */

/* ---- Salvage of damaged files ---------------------------------------------
 * Writes a new log file at outputPath with everything of damagedPath whose
 * stored bytes are intact: entries keep their ids and stored bytes (at the
 * damaged file's compression level), and the readable data sources,
 * properties, metadata, resources and bookmarks come along. The damaged file
 * and its side files are never written; an existing outputPath is refused;
 * the output takes its name only when complete. False (with an error) when
 * the damaged file cannot be read at all or the output cannot be written. */

typedef struct MV_LogRecoveryReport {
    uint64_t entriesRecovered, entriesLost;
    uint64_t dataSourcesRecovered;
    uint64_t resourcesRecovered, resourcesLost;
    uint64_t bookmarksRecovered, bookmarksLost;
    uint64_t metadataRecovered;
} MV_LogRecoveryReport;
MV_LOGGING_EXPORT bool MV_LogAlgorithms_Recover(const char* damagedPath, const char* outputPath,
                                                MV_LogError_p* error);
/* As MV_LogAlgorithms_Recover; on success fills *report (which may be NULL).
 * The lost ids themselves are listed by `mvlog recover` and the class
 * interface. */
MV_LOGGING_EXPORT bool MV_LogAlgorithms_RecoverWithReport(const char* damagedPath, const char* outputPath,
                                                          MV_LogRecoveryReport* report, MV_LogError_p* error);

/* Everything MV_LogRecoveryReport holds, and more. Set structSize to
 * sizeof(MV_LogRecoveryDetails) before the call: later versions may add
 * fields at the end and fill only as many bytes as the caller's structSize
 * says, so a program keeps working with the library it was not built with.
 * entriesLost counts the ids from 1 to the highest id the damaged file still
 * shows (the entries found, bookmark targets, the data table's interior
 * pages and indexes) that did not come back. When the file's last id could
 * not be found (the end of the file or of the data table is gone),
 * entriesLostIsLowerBound is true: entries after that highest id may have
 * existed, so at least entriesLost entries were lost. */
typedef struct MV_LogRecoveryDetails {
    size_t structSize;
    MV_LogRecoveryReport report;
    bool entriesLostIsLowerBound;
    /* True when SQLite could not read everything and the file's pages were
     * searched for records directly. */
    bool pagesScanned;
    /* Data sources made up, as "recovered data source <id>", for entries or
     * properties whose own data source was lost. */
    uint64_t dataSourcesRecreated;
    uint64_t propertiesRecovered, propertiesLost;
    uint64_t metadataLost;
} MV_LogRecoveryDetails;
/* As MV_LogAlgorithms_RecoverWithReport, filling *details (which may be
 * NULL). False, with an error and nothing written, when details->structSize
 * is smaller than the first version of the struct. */
MV_LOGGING_EXPORT bool MV_LogAlgorithms_RecoverWithDetails(const char* damagedPath, const char* outputPath,
                                                           MV_LogRecoveryDetails* details,
                                                           MV_LogError_p* error);

/* ---- Check of a file -------------------------------------------------------
 * Checks the log file at `path` without changing it, as `mvlog check` does:
 * SQLite's integrity and foreign-key checks, the file's length, the fixed
 * metadata keys, every entry's payload (and checksum when the file keeps
 * them), the bookmarks, the resources and the thumbnail. Every finding is a
 * problem in the report; NULL (with an error) only when the check cannot
 * run, e.g. while another connection keeps the file locked. The report owns
 * its problems' texts: they stay valid until MV_LogCheckReport_Destroy. */

typedef struct MV_LogCheckReport* MV_LogCheckReport_p;
/* What part of the file a problem is about. */
typedef enum MV_LogCheckProblemKind {
    MV_LOG_CHECK_FILE = 0,
    MV_LOG_CHECK_DATABASE = 1,
    MV_LOG_CHECK_METADATA = 2,
    MV_LOG_CHECK_ENTRY = 3,
    MV_LOG_CHECK_BOOKMARK = 4,
    MV_LOG_CHECK_RESOURCE = 5,
    /* A read failed for a reason other than damage: the check is incomplete. */
    MV_LOG_CHECK_INCOMPLETE = 6
} MV_LogCheckProblemKind;
MV_LOGGING_EXPORT MV_LogCheckReport_p MV_LogAlgorithms_Check(const char* path, MV_LogError_p* error);
MV_LOGGING_EXPORT void MV_LogCheckReport_Destroy(MV_LogCheckReport_p report); /* accepts NULL */
/* True when the check found nothing wrong. */
MV_LOGGING_EXPORT bool MV_LogCheckReport_IsClean(MV_LogCheckReport_p report);
/* True when a problem comes from damaged bytes: MV_LogAlgorithms_Recover
 * salvages what is still intact. */
MV_LOGGING_EXPORT bool MV_LogCheckReport_FoundDamage(MV_LogCheckReport_p report);
MV_LOGGING_EXPORT uint64_t MV_LogCheckReport_GetProblemCount(MV_LogCheckReport_p report);
/* Problem `index` (from 0, in the order found): its kind, the entry it names
 * (-1 when it names none) and its message. False, with an error, for an
 * index beyond the count. Any output pointer may be NULL. */
MV_LOGGING_EXPORT bool MV_LogCheckReport_GetProblem(MV_LogCheckReport_p report, uint64_t index,
                                                    MV_LogCheckProblemKind* kind, int64_t* entryId,
                                                    const char** message, MV_LogError_p* error);
/* What the check went through: entries read in full, data sources,
 * resources and bookmarks. False (the counts untouched) when the check did
 * not get as far as reading the file as a log file. */
MV_LOGGING_EXPORT bool MV_LogCheckReport_GetCheckedCounts(MV_LogCheckReport_p report, uint64_t* entries,
                                                          uint64_t* dataSources, uint64_t* resources,
                                                          uint64_t* bookmarks);

/* ---- Value handles ------------------------------------------------------ */

MV_LOGGING_EXPORT MV_LogBookmark_p MV_LogBookmark_Create(int32_t entryId, const char* title,
                                                         const char* comments, const uint8_t* payload,
                                                         int64_t length);
MV_LOGGING_EXPORT void MV_LogBookmark_Destroy(MV_LogBookmark_p bookmark);
MV_LOGGING_EXPORT void MV_LogBookmark_GetEntryId(MV_LogBookmark_p bookmark, int32_t* entryId);
MV_LOGGING_EXPORT void MV_LogBookmark_GetTitle(MV_LogBookmark_p bookmark, const char** title);
MV_LOGGING_EXPORT void MV_LogBookmark_GetComment(MV_LogBookmark_p bookmark, const char** comments);
MV_LOGGING_EXPORT void MV_LogBookmark_GetPayload(MV_LogBookmark_p bookmark, int64_t* length,
                                                 const uint8_t** payload);
MV_LOGGING_EXPORT void MV_LogBookmark_SetTitle(MV_LogBookmark_p bookmark, const char* title);
MV_LOGGING_EXPORT void MV_LogBookmark_SetComment(MV_LogBookmark_p bookmark, const char* comments);
/* Kept for compatibility with its historical count rule: the number of bytes
 * copied is 2 * length minus the numeric address of `payload`. Use
 * MV_LogBookmark_Create to give a bookmark a payload. */
MV_LOGGING_EXPORT void MV_LogBookmark_SetPayload(MV_LogBookmark_p bookmark, const uint8_t* payload,
                                                 int64_t length);

/* The entry is stamped with the current time; its entry id is 0. */
MV_LOGGING_EXPORT MV_LogDataEntry_p MV_LogDataEntry_Create(const int8_t* dataSourceId, int32_t type,
                                                           const uint8_t* data, int64_t length);
MV_LOGGING_EXPORT void MV_LogDataEntry_Destroy(MV_LogDataEntry_p entry);
MV_LOGGING_EXPORT void MV_LogDataEntry_GetDataSourceId(MV_LogDataEntry_p entry, int8_t* dataSourceId);
MV_LOGGING_EXPORT void MV_LogDataEntry_GetType(MV_LogDataEntry_p entry, int32_t* type);
MV_LOGGING_EXPORT void MV_LogDataEntry_GetData(MV_LogDataEntry_p entry, int64_t* length,
                                               const uint8_t** data);
MV_LOGGING_EXPORT void MV_LogDataEntry_GetTimestamp(MV_LogDataEntry_p entry, int64_t* timestamp);
MV_LOGGING_EXPORT void MV_LogDataEntry_SetTimestamp(MV_LogDataEntry_p entry, int64_t timestamp);

/* The id starts at -1 (not yet assigned). */
MV_LOGGING_EXPORT MV_LogDataSource_p MV_LogDataSource_Create(MV_LogDataSourceType type, const char* name);
MV_LOGGING_EXPORT void MV_LogDataSource_Destroy(MV_LogDataSource_p dataSource);
MV_LOGGING_EXPORT void MV_LogDataSource_GetId(MV_LogDataSource_p dataSource, int8_t* id);
MV_LOGGING_EXPORT void MV_LogDataSource_GetName(MV_LogDataSource_p dataSource, const char** name);
MV_LOGGING_EXPORT void MV_LogDataSource_GetType(MV_LogDataSource_p dataSource, MV_LogDataSourceType* type);

/* The short name of a common type ("Camera", "VehicleBus"): static text, or
 * NULL for any other value. */
MV_LOGGING_EXPORT const char* MV_LogDataSourceType_GetName(MV_LogDataSourceType type);
/* The type a name stands for: a short name in any letter case, or a decimal
 * 32-bit value. False, and *type untouched, for other text. */
MV_LOGGING_EXPORT bool MV_LogDataSourceType_FromName(const char* name, MV_LogDataSourceType* type);

/* Values read from a file always hold 64-bit integers, which GetInt32 narrows;
 * GetInt32 deliberately answers false for a value made by CreateInt32. */
MV_LOGGING_EXPORT MV_LogDataSourceProperty_p MV_LogDataSourceProperty_CreateInt32(const int8_t* dataSourceId,
                                                                                  const char* propertyName,
                                                                                  int32_t value);
MV_LOGGING_EXPORT MV_LogDataSourceProperty_p MV_LogDataSourceProperty_CreateInt64(const int8_t* dataSourceId,
                                                                                  const char* propertyName,
                                                                                  int64_t value);
MV_LOGGING_EXPORT MV_LogDataSourceProperty_p MV_LogDataSourceProperty_CreateDouble(const int8_t* dataSourceId,
                                                                                   const char* propertyName,
                                                                                   double value);
MV_LOGGING_EXPORT MV_LogDataSourceProperty_p MV_LogDataSourceProperty_CreateString(const int8_t* dataSourceId,
                                                                                   const char* propertyName,
                                                                                   const char* value);
MV_LOGGING_EXPORT void MV_LogDataSourceProperty_Destroy(MV_LogDataSourceProperty_p property);
MV_LOGGING_EXPORT void MV_LogDataSourceProperty_GetDataSourceId(MV_LogDataSourceProperty_p property,
                                                                int8_t* dataSourceId);
MV_LOGGING_EXPORT void MV_LogDataSourceProperty_GetPropertyName(MV_LogDataSourceProperty_p property,
                                                                const char** propertyName);
MV_LOGGING_EXPORT bool MV_LogDataSourceProperty_GetInt32(MV_LogDataSourceProperty_p property, int32_t* value);
MV_LOGGING_EXPORT bool MV_LogDataSourceProperty_GetInt64(MV_LogDataSourceProperty_p property, int64_t* value);
MV_LOGGING_EXPORT bool MV_LogDataSourceProperty_GetDouble(MV_LogDataSourceProperty_p property, double* value);
MV_LOGGING_EXPORT bool MV_LogDataSourceProperty_GetString(MV_LogDataSourceProperty_p property,
                                                          const char** value);

/* Payload encodings: the media type of a data source's payloads, kept as the
 * data source's text property "encoding" (read it back with
 * MV_LogFile_GetDataSourceProperty). Any media type may be declared; these are
 * the ones readers know. */
#define MV_LOG_ENCODING_PROPERTY "encoding"
#define MV_LOG_ENCODING_PNG "image/png"
#define MV_LOG_ENCODING_JPEG "image/jpeg"
#define MV_LOG_ENCODING_GRAYMAP "image/x-portable-graymap"
#define MV_LOG_ENCODING_PIXMAP "image/x-portable-pixmap"
#define MV_LOG_ENCODING_JSON "application/json"
#define MV_LOG_ENCODING_TEXT "text/plain"
#define MV_LOG_ENCODING_OCTET_STREAM "application/octet-stream"
/* The property that declares `mediaType` for a data source; add it with
 * MV_LogFile_AddDataSourceProperty or MV_LogRecorder_AddDataSourceProperty,
 * then destroy it with MV_LogDataSourceProperty_Destroy. */
MV_LOGGING_EXPORT MV_LogDataSourceProperty_p
MV_LogDataSourceProperty_CreateEncoding(const int8_t* dataSourceId, const char* mediaType);
/* The media type of one payload from its first bytes (PNG, JPEG, graymap,
 * pixmap, JSON, text, else octet-stream): a static string, never NULL. */
MV_LOGGING_EXPORT const char* MV_LogEncoding_Sniff(const void* data, size_t size);

MV_LOGGING_EXPORT MV_LogMetadata_p MV_LogMetadata_CreateInt32(const char* key, int32_t value);
MV_LOGGING_EXPORT MV_LogMetadata_p MV_LogMetadata_CreateInt64(const char* key, int64_t value);
MV_LOGGING_EXPORT MV_LogMetadata_p MV_LogMetadata_CreateDouble(const char* key, double value);
MV_LOGGING_EXPORT MV_LogMetadata_p MV_LogMetadata_CreateString(const char* key, const char* value);
MV_LOGGING_EXPORT void MV_LogMetadata_Destroy(MV_LogMetadata_p metadata);
MV_LOGGING_EXPORT bool MV_LogMetadata_GetInt32(MV_LogMetadata_p metadata, int32_t* value);
MV_LOGGING_EXPORT bool MV_LogMetadata_GetInt64(MV_LogMetadata_p metadata, int64_t* value);
MV_LOGGING_EXPORT bool MV_LogMetadata_GetDouble(MV_LogMetadata_p metadata, double* value);
MV_LOGGING_EXPORT bool MV_LogMetadata_GetString(MV_LogMetadata_p metadata, const char** value);
MV_LOGGING_EXPORT void MV_LogMetadata_GetKey(MV_LogMetadata_p metadata, const char** key);

MV_LOGGING_EXPORT MV_LogResource_p MV_LogResource_Create(const char* name, const uint8_t* data,
                                                         int64_t length);
MV_LOGGING_EXPORT void MV_LogResource_Destroy(MV_LogResource_p resource);
MV_LOGGING_EXPORT void MV_LogResource_GetData(MV_LogResource_p resource, int64_t* length,
                                              const uint8_t** data);
MV_LOGGING_EXPORT void MV_LogResource_GetName(MV_LogResource_p resource, const char** name);

/* ---- Filters and derived files ------------------------------------------ */

/* Within one list the values are alternatives; non-empty lists combine with
 * AND; an empty filter admits every entry. */
MV_LOGGING_EXPORT MV_LogEntryIndexFilter_p MV_LogEntryIndexFilter_Create(void);
MV_LOGGING_EXPORT void MV_LogEntryIndexFilter_Destroy(MV_LogEntryIndexFilter_p filter);
MV_LOGGING_EXPORT void MV_LogEntryIndexFilter_AddDataType(MV_LogEntryIndexFilter_p filter, int32_t dataType);
MV_LOGGING_EXPORT void MV_LogEntryIndexFilter_AddDataSource(MV_LogEntryIndexFilter_p filter,
                                                            int8_t dataSourceId);
MV_LOGGING_EXPORT void MV_LogEntryIndexFilter_AddDataSourceType(MV_LogEntryIndexFilter_p filter,
                                                                MV_LogDataSourceType dataSourceType);
/* Writes entries startEntryId..endEntryId (both must exist) with everything
 * that describes them to a new file; an empty path derives one from the
 * source's ("<name>_exported.<ext>"). The new handle refuses further data
 * sources, properties and entries. The source handle keeps its file. */
MV_LOGGING_EXPORT MV_LogFile_p MV_LogAlgorithms_Slice(MV_LogFile_p file, int32_t startEntryId,
                                                      int32_t endEntryId, const char* outputPath,
                                                      MV_LogConfig_p config, MV_LogError_p* error);
/* Slice over the whole file; the new handle accepts further data. */
MV_LOGGING_EXPORT MV_LogFile_p MV_LogAlgorithms_Clone(MV_LogFile_p file, const char* outputPath,
                                                      MV_LogConfig_p config, MV_LogError_p* error);

/* ---- Filtered copy and merge ---------------------------------------------
 * Both read their inputs read-only, stream in flat memory, refuse an output
 * path where anything exists, write under a temporary name beside it and
 * take the final name only when the file is complete: a failure leaves
 * nothing under outputPath. They never let an exception escape. */

typedef struct MV_LogCopyOptions* MV_LogCopyOptions_p;
/* Everything selected, the input's compression level, fast durability; the
 * two texts name the program that makes the new file (copied). */
MV_LOGGING_EXPORT MV_LogCopyOptions_p MV_LogCopyOptions_Create(const char* applicationName,
                                                               const char* applicationVersion);
MV_LOGGING_EXPORT void MV_LogCopyOptions_Destroy(MV_LogCopyOptions_p options);
/* Inclusive; -1 for the first or last entry. False when last < first (both
 * given). */
MV_LOGGING_EXPORT bool MV_LogCopyOptions_SetEntryRange(MV_LogCopyOptions_p options, int32_t firstEntryId,
                                                       int32_t lastEntryId, MV_LogError_p* error);
/* Inclusive, milliseconds since the Unix epoch; INT64_MIN/INT64_MAX for no
 * bound. False when end < start. */
MV_LOGGING_EXPORT bool MV_LogCopyOptions_SetTimeRange(MV_LogCopyOptions_p options, int64_t startTimestamp,
                                                      int64_t endTimestamp, MV_LogError_p* error);
/* Copies the filter; NULL takes every entry. */
MV_LOGGING_EXPORT bool MV_LogCopyOptions_SetFilter(MV_LogCopyOptions_p options,
                                                   MV_LogEntryIndexFilter_p filter, MV_LogError_p* error);
/* -1 to 9. */
MV_LOGGING_EXPORT bool MV_LogCopyOptions_SetCompressionLevel(MV_LogCopyOptions_p options, int8_t level,
                                                             MV_LogError_p* error);
MV_LOGGING_EXPORT bool MV_LogCopyOptions_SetDurability(MV_LogCopyOptions_p options,
                                                       MV_LogDurability durability, MV_LogError_p* error);
/* The selected entries of sourcePath, numbered from 1, with the data sources,
 * properties, resources, metadata (with the producer history) and the
 * bookmarks of the selected range; options may be NULL. */
MV_LOGGING_EXPORT bool MV_LogAlgorithms_Copy(const char* sourcePath, const char* outputPath,
                                             MV_LogCopyOptions_p options, MV_LogError_p* error);
/* The selected entries of every input, interleaved by timestamp (ties in
 * input order); clashing data-source ids are renumbered; options may be
 * NULL. */
MV_LOGGING_EXPORT bool MV_LogAlgorithms_Merge(const char* const* inputPaths, size_t inputCount,
                                              const char* outputPath, MV_LogCopyOptions_p options,
                                              MV_LogError_p* error);

#ifdef __cplusplus
}
#endif

#endif
