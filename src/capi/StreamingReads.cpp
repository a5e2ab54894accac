#include "CConversions.h"
#include "CHandles.h"

#include <logging/SqliteLogFile.h>

#include <cstring>
#include <stdexcept>
#include <string>

using namespace Marivane::Logging;
using Marivane::Logging::CApi::reportingFailures;
using Marivane::Logging::CApi::storeError;

namespace {

// Every handle holds a SqliteLogFile; these reads are that class's own.
SqliteLogFile& sqliteFileOf(MV_LogFile_p file) {
    SqliteLogFile* sqliteFile = file->file->sqliteLogFile();
    if (sqliteFile == nullptr) {
        throw std::logic_error("This log file does not support streaming reads.");
    }
    return *sqliteFile;
}

const EntryIndexFilter& filterOrAll(MV_LogEntryIndexFilter_p filter) {
    static const EntryIndexFilter all;
    return filter != nullptr ? filter->value : all;
}

// A read that returned "nothing" is a failure when the failure count grew.
bool failedSince(const SqliteLogFile& file, uint64_t failuresBefore, MV_LogError_p* error) {
    if (file.getFailureCount() == failuresBefore) {
        return false;
    }
    storeError(error, file.getLastFailure());
    return true;
}

bool visit(MV_LogFile_p file, const EntryRange& range, MV_LogEntryIndexFilter_p filter, EntryOrder order,
           MV_LogEntryViewCallback callback, void* userData, MV_LogError_p* error) {
    SqliteLogFile& sqliteFile = sqliteFileOf(file);
    VisitOptions options;
    options.verifyChecksums = file->verifyChecksums;
    options.order = order;
    options.decompressionThreads = file->readThreads;
    const bool completed = sqliteFile.visitEntries(
        range, filterOrAll(filter),
        [&](const EntryView& view) {
            const MV_LogEntryView entry{view.entryId,
                                        view.dataSourceId,
                                        view.type,
                                        view.timestamp,
                                        reinterpret_cast<const uint8_t*>(view.data),
                                        view.size};
            return callback(userData, &entry);
        },
        options);
    if (!completed) {
        storeError(error, sqliteFile.getLastFailure());
    }
    return completed;
}

}  // namespace

bool MV_LogFile_VisitEntries(MV_LogFile_p file, int32_t minimumEntryId, int32_t maximumEntryId,
                             int64_t startTimestamp, int64_t endTimestamp, MV_LogEntryIndexFilter_p filter,
                             MV_LogEntryViewCallback callback, void* userData, MV_LogError_p* error) {
    return reportingFailures(error, [&] {
        return visit(file, EntryRange{minimumEntryId, maximumEntryId, startTimestamp, endTimestamp}, filter,
                     EntryOrder::Id, callback, userData, error);
    });
}

bool MV_LogFile_VisitEntriesOrdered(MV_LogFile_p file, int32_t minimumEntryId, int32_t maximumEntryId,
                                    int64_t startTimestamp, int64_t endTimestamp,
                                    MV_LogEntryIndexFilter_p filter, MV_LogEntryOrder order,
                                    MV_LogEntryViewCallback callback, void* userData, MV_LogError_p* error) {
    // C lets any int through: the value is read as an int, since reading an
    // enumeration outside its values is undefined in C++.
    int orderValue = 0;
    static_assert(sizeof orderValue == sizeof order);
    std::memcpy(&orderValue, &order, sizeof orderValue);
    return reportingFailures(error, [&] {
        // A value outside the enumeration is refused rather than read as one
        // of the two.
        if (orderValue != MV_LOG_ORDER_ID && orderValue != MV_LOG_ORDER_TIME) {
            storeError(error, "Unknown entry order " + std::to_string(orderValue) + ".");
            return false;
        }
        return visit(file, EntryRange{minimumEntryId, maximumEntryId, startTimestamp, endTimestamp}, filter,
                     orderValue == MV_LOG_ORDER_TIME ? EntryOrder::Time : EntryOrder::Id, callback, userData,
                     error);
    });
}

bool MV_LogFile_GetTimeRange(MV_LogFile_p file, MV_LogEntryIndexFilter_p filter, int64_t* firstTimestamp,
                             int64_t* lastTimestamp, bool* found, MV_LogError_p* error) {
    return reportingFailures(error, [&] {
        const SqliteLogFile& sqliteFile = sqliteFileOf(file);
        const uint64_t failuresBefore = sqliteFile.getFailureCount();
        const std::optional<TimeRange> range = sqliteFile.getTimeRange(filterOrAll(filter));
        if (failedSince(sqliteFile, failuresBefore, error)) {
            return false;
        }
        *found = range.has_value();
        if (range) {
            *firstTimestamp = range->first;
            *lastTimestamp = range->last;
        }
        return true;
    });
}

bool MV_LogFile_FindEntryAtOrAfter(MV_LogFile_p file, int64_t timestamp, MV_LogEntryIndexFilter_p filter,
                                   int32_t* entryId, bool* found, MV_LogError_p* error) {
    return reportingFailures(error, [&] {
        const SqliteLogFile& sqliteFile = sqliteFileOf(file);
        const uint64_t failuresBefore = sqliteFile.getFailureCount();
        const std::optional<int32_t> entry = sqliteFile.findEntryAtOrAfter(timestamp, filterOrAll(filter));
        if (failedSince(sqliteFile, failuresBefore, error)) {
            return false;
        }
        *found = entry.has_value();
        if (entry) {
            *entryId = *entry;
        }
        return true;
    });
}

bool MV_LogFile_CreateTimeIndex(MV_LogFile_p file, MV_LogError_p* error) {
    return reportingFailures(error, [&] {
        SqliteLogFile& sqliteFile = sqliteFileOf(file);
        return CApi::populateErrorOnFailure(sqliteFile.createTimeIndex(), file, error);
    });
}

bool MV_LogFile_HasTimeIndex(MV_LogFile_p file, bool* present, MV_LogError_p* error) {
    return reportingFailures(error, [&] {
        *present = sqliteFileOf(file).hasTimeIndex();
        return true;
    });
}

bool MV_LogFile_HasChecksums(MV_LogFile_p file, bool* present, MV_LogError_p* error) {
    return reportingFailures(error, [&] {
        *present = sqliteFileOf(file).hasEntryChecksums();
        return true;
    });
}

bool MV_LogFile_SetChecksumVerification(MV_LogFile_p file, bool enabled, MV_LogError_p* error) {
    return reportingFailures(error, [&] {
        (void)sqliteFileOf(file);
        file->verifyChecksums = enabled;
        return true;
    });
}

bool MV_LogFile_SetReadThreads(MV_LogFile_p file, int32_t threads, MV_LogError_p* error) {
    return reportingFailures(error, [&] {
        (void)sqliteFileOf(file);
        if (threads < 0) {
            throw std::invalid_argument("MV_LogFile_SetReadThreads: threads is " + std::to_string(threads) +
                                        "; it must be 0 (one per core) or more");
        }
        file->readThreads = threads;
        return true;
    });
}
