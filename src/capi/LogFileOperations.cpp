#include "CConversions.h"
#include "CHandles.h"

#include <exception>
#include <optional>
#include <utility>

using namespace Marivane::Logging;
using Marivane::Logging::CApi::populateErrorOnFailure;
using Marivane::Logging::CApi::storeError;

namespace {

// Data sources, properties and entries go only into files that this handle
// created; the store itself would accept them anywhere.
template <typename Write>
bool writeData(MV_LogFile_p file, const char* refusal, MV_LogError_p* error, Write write) {
    if (!file->canAddData) {
        storeError(error, refusal);
        return false;
    }
    return populateErrorOnFailure(write(), file, error);
}

// Hands each element to the callback in a new handle that the callee owns.
template <typename Handle, typename Element, typename Callback>
bool deliverAll(std::vector<Element> elements, Callback callback, void* userData) {
    for (Element& element : elements) {
        callback(userData, new Handle{std::move(element)});
    }
    return true;
}

// As deliverAll, but an empty list is a failure carrying whatever the file's
// last error is.
template <typename Handle, typename Element, typename Callback>
bool deliverNonEmpty(MV_LogFile_p file, std::vector<Element> elements, Callback callback, void* userData,
                     MV_LogError_p* error) {
    if (elements.empty()) {
        return populateErrorOnFailure(false, file, error);
    }
    return deliverAll<Handle>(std::move(elements), callback, userData);
}

// Stores a new handle made from a present result, or the fixed message.
template <typename Handle, typename Value, typename MakeRecord>
bool deliverSingle(std::optional<Value> result, Handle** out, const char* missing, MV_LogError_p* error,
                   MakeRecord makeRecord) {
    if (!result) {
        storeError(error, missing);
        return false;
    }
    *out = new Handle{makeRecord(std::move(*result))};
    return true;
}

// The value is always written; -1 is a failure with the file's last error.
bool deliverCounter(int32_t value, int32_t* out, MV_LogFile_p file, MV_LogError_p* error) {
    *out = value;
    return populateErrorOnFailure(value != -1, file, error);
}

}  // namespace

bool MV_LogFile_AddDataSource(MV_LogFile_p file, MV_LogDataSource_p dataSource, MV_LogError_p* error) {
    return writeData(file, "Data sources cannot be added to pre-existing log files.", error,
                     [&] { return file->file->addDataSource(dataSource->value); });
}

bool MV_LogFile_AddDataSourceProperty(MV_LogFile_p file, MV_LogDataSourceProperty_p property,
                                      MV_LogError_p* error) {
    return writeData(file, "Data source properties cannot be added to pre-existing log files.", error,
                     [&] { return file->file->addDataSourceProperty(property->value); });
}

bool MV_LogFile_LogData(MV_LogFile_p file, MV_LogDataEntry_p entry, MV_LogError_p* error) {
    return writeData(file, "Data cannot be logged into pre-existing log files.", error,
                     [&] { return file->file->logData(entry->value); });
}

bool MV_LogFile_AddMetadata(MV_LogFile_p file, MV_LogMetadata_p metadata, MV_LogError_p* error) {
    return populateErrorOnFailure(file->file->addMetadata(metadata->value.key, metadata->value.value), file,
                                  error);
}

bool MV_LogFile_AddResource(MV_LogFile_p file, MV_LogResource_p resource, MV_LogError_p* error) {
    return populateErrorOnFailure(file->file->addResource(resource->value.name, resource->value.data), file,
                                  error);
}

bool MV_LogFile_AddBookmark(MV_LogFile_p file, MV_LogBookmark_p bookmark, MV_LogError_p* error) {
    return populateErrorOnFailure(file->file->addBookmark(bookmark->value), file, error);
}

bool MV_LogFile_UpdateBookmark(MV_LogFile_p file, MV_LogBookmark_p bookmark, MV_LogError_p* error) {
    return populateErrorOnFailure(file->file->updateBookmark(bookmark->value), file, error);
}

bool MV_LogFile_RemoveBookmark(MV_LogFile_p file, MV_LogBookmark_p bookmark, MV_LogError_p* error) {
    return populateErrorOnFailure(file->file->removeBookmark(bookmark->value), file, error);
}

bool MV_LogFile_ReadEntry(MV_LogFile_p file, int32_t entryId, MV_LogDataEntry_p* entry,
                          MV_LogError_p* error) {
    return deliverSingle(file->file->readEntry(entryId), entry, "The requested data entry does not exist.",
                         error, [](DataEntry value) { return value; });
}

bool MV_LogFile_GetDataSourceProperty(MV_LogFile_p file, MV_LogDataSource_p dataSource, const char* key,
                                      MV_LogDataSourceProperty_p* property, MV_LogError_p* error) {
    std::string name = CApi::textFrom(key);
    const int8_t id = dataSource->value.id;
    return deliverSingle(file->file->getDataSourceProperty(id, name), property,
                         "The requested data source property does not exist.", error,
                         [&](PropertyValue value) {
                             return DataSourceProperty{id, std::move(name), std::move(value)};
                         });
}

bool MV_LogFile_GetMetadata(MV_LogFile_p file, const char* key, MV_LogMetadata_p* metadata,
                            MV_LogError_p* error) {
    std::string name = CApi::textFrom(key);
    return deliverSingle(file->file->getMetadataValue(name), metadata,
                         "The requested metadata does not exist.", error, [&](PropertyValue value) {
                             return LogMetadataEntry{std::move(name), std::move(value)};
                         });
}

bool MV_LogFile_GetResource(MV_LogFile_p file, const char* name, MV_LogResource_p* resource,
                            MV_LogError_p* error) {
    std::string resourceName = CApi::textFrom(name);
    return deliverSingle(file->file->getResource(resourceName), resource,
                         "The requested resource does not exist.", error, [&](ByteBuffer data) {
                             return LogResourceEntry{std::move(resourceName), std::move(data)};
                         });
}

bool MV_LogFile_GetFirstEntryId(MV_LogFile_p file, int32_t* entryId, MV_LogError_p* error) {
    return deliverCounter(file->file->getFirstEntryId(), entryId, file, error);
}

bool MV_LogFile_GetLastEntryId(MV_LogFile_p file, int32_t* entryId, MV_LogError_p* error) {
    return deliverCounter(file->file->getLastEntryId(), entryId, file, error);
}

bool MV_LogFile_GetEntryCount(MV_LogFile_p file, int32_t* count, MV_LogError_p* error) {
    return deliverCounter(file->file->getEntryCount(), count, file, error);
}

bool MV_LogFile_GetDataSources(MV_LogFile_p file, MV_LogDataSourceCallback callback, void* userData,
                               MV_LogError_p* error) {
    return deliverNonEmpty<MV_LogDataSource>(file, file->file->getDataSources(), callback, userData, error);
}

bool MV_LogFile_GetAllDataSourceProperties(MV_LogFile_p file, MV_LogDataSourcePropertyCallback callback,
                                           void* userData, MV_LogError_p* error) {
    return deliverNonEmpty<MV_LogDataSourceProperty>(file, file->file->getAllDataSourceProperties(), callback,
                                                     userData, error);
}

bool MV_LogFile_GetEntryIndex(MV_LogFile_p file, MV_LogEntryIndexFilter_p filter,
                              MV_LogEntryIdCallback callback, void* userData, MV_LogError_p* error) {
    const std::vector<int32_t> ids = file->file->getEntryIndex(filter->value);
    if (ids.empty()) {
        return populateErrorOnFailure(false, file, error);
    }
    for (const int32_t id : ids) {
        callback(userData, id);
    }
    return true;
}

bool MV_LogFile_ReadEntries(MV_LogFile_p file, int32_t minimumEntryId, int32_t maximumEntryId,
                            MV_LogEntryIndexFilter_p filter, int32_t limit, MV_LogDataEntryCallback callback,
                            void* userData) {
    return deliverAll<MV_LogDataEntry>(
        file->file->readEntries(minimumEntryId, maximumEntryId, filter->value, limit), callback, userData);
}

bool MV_LogFile_GetBookmarks(MV_LogFile_p file, MV_LogBookmarkCallback callback, void* userData) {
    return deliverAll<MV_LogBookmark>(file->file->getBookmarks(), callback, userData);
}

bool MV_LogFile_GetAllMetadata(MV_LogFile_p file, MV_LogMetadataCallback callback, void* userData) {
    return deliverAll<MV_LogMetadata>(file->file->getAllMetadata(), callback, userData);
}

bool MV_LogFile_GetAllResources(MV_LogFile_p file, MV_LogResourceCallback callback, void* userData) {
    return deliverAll<MV_LogResource>(file->file->getAllResources(), callback, userData);
}

bool MV_LogFile_BeginBatch(MV_LogFile_p file, MV_LogError_p* error) {
    SqliteLogFile* sqliteFile = file->file->sqliteLogFile();
    if (sqliteFile == nullptr) {
        storeError(error, "Write batches are not supported by this log file.");
        return false;
    }
    try {
        file->batch.emplace(sqliteFile->beginBatch());
        return true;
    } catch (const std::exception& exception) {
        storeError(error, exception.what());
        return false;
    }
}

bool MV_LogFile_CommitBatch(MV_LogFile_p file, MV_LogError_p* error) {
    if (!file->batch) {
        storeError(error, "No write batch is open on this log file.");
        return false;
    }
    const bool committed = file->batch->commit();
    file->batch.reset();
    return populateErrorOnFailure(committed, file, error);
}
