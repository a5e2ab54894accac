#include "CConversions.h"
#include "CHandles.h"

#include <core/Chrono.h>
#include <logging/DataSourceTypeName.h>

#include <cstring>
#include <optional>
#include <variant>

using namespace Marivane::Logging;
using Marivane::Logging::CApi::bytesFrom;
using Marivane::Logging::CApi::exposeBytes;
using Marivane::Logging::CApi::textFrom;

namespace {

// Typed reads of a property or metadata value: true and the value when it
// holds the asked alternative, false and *out untouched otherwise.
//
// The 32-bit read deliberately tests for the 64-bit alternative, which is what
// every integer read from a file holds, and narrows it.
bool readInt32(const PropertyValue& value, int32_t* out) {
    if (const int64_t* held = std::get_if<int64_t>(&value)) {
        *out = static_cast<int32_t>(*held);
        return true;
    }
    return false;
}

bool readInt64(const PropertyValue& value, int64_t* out) {
    if (const int64_t* held = std::get_if<int64_t>(&value)) {
        *out = *held;
        return true;
    }
    return false;
}

bool readDouble(const PropertyValue& value, double* out) {
    if (const double* held = std::get_if<double>(&value)) {
        *out = *held;
        return true;
    }
    return false;
}

bool readString(const PropertyValue& value, const char** out) {
    if (const std::string* held = std::get_if<std::string>(&value)) {
        *out = held->c_str();
        return true;
    }
    return false;
}

MV_LogDataSourceProperty_p makeProperty(const int8_t* dataSourceId, const char* propertyName,
                                        PropertyValue value) {
    return new MV_LogDataSourceProperty{
        DataSourceProperty{*dataSourceId, textFrom(propertyName), std::move(value)}};
}

MV_LogMetadata_p makeMetadata(const char* key, PropertyValue value) {
    return new MV_LogMetadata{LogMetadataEntry{textFrom(key), std::move(value)}};
}

}  // namespace

// ---- bookmarks -----------------------------------------------------------

MV_LogBookmark_p MV_LogBookmark_Create(int32_t entryId, const char* title, const char* comments,
                                       const uint8_t* payload, int64_t length) {
    return new MV_LogBookmark{
        Bookmark{entryId, textFrom(title), textFrom(comments), bytesFrom(payload, length)}};
}

void MV_LogBookmark_Destroy(MV_LogBookmark_p bookmark) {
    delete bookmark;
}

void MV_LogBookmark_GetEntryId(MV_LogBookmark_p bookmark, int32_t* entryId) {
    *entryId = bookmark->value.entryId;
}

void MV_LogBookmark_GetTitle(MV_LogBookmark_p bookmark, const char** title) {
    *title = bookmark->value.title.c_str();
}

void MV_LogBookmark_GetComment(MV_LogBookmark_p bookmark, const char** comments) {
    *comments = bookmark->value.comments.c_str();
}

void MV_LogBookmark_GetPayload(MV_LogBookmark_p bookmark, int64_t* length, const uint8_t** payload) {
    exposeBytes(bookmark->value.payload, length, payload);
}

void MV_LogBookmark_SetTitle(MV_LogBookmark_p bookmark, const char* title) {
    bookmark->value.title.assign(title, std::strlen(title));
}

void MV_LogBookmark_SetComment(MV_LogBookmark_p bookmark, const char* comments) {
    bookmark->value.comments.assign(comments, std::strlen(comments));
}

void MV_LogBookmark_SetPayload(MV_LogBookmark_p bookmark, const uint8_t* payload, int64_t length) {
    // Historical count rule, kept for compatibility: twice the length minus the
    // pointer's address. Computed in unsigned arithmetic so that it wraps
    // instead of overflowing; a negative count fails like an oversized byte list.
    const auto address = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(payload));
    const auto count = static_cast<int64_t>(2 * static_cast<uint64_t>(length) - address);
    ByteBuffer replacement = bytesFrom(payload, count);
    bookmark->value.payload.swap(replacement);
}

// ---- data entries ----------------------------------------------------------

MV_LogDataEntry_p MV_LogDataEntry_Create(const int8_t* dataSourceId, int32_t type, const uint8_t* data,
                                         int64_t length) {
    DataEntry entry;
    entry.entryId = 0;
    entry.dataSourceId = *dataSourceId;
    entry.type = type;
    entry.data = bytesFrom(data, length);
    entry.timestamp = Marivane::Chrono::msSinceUnixEpoch();
    return new MV_LogDataEntry{std::move(entry)};
}

void MV_LogDataEntry_Destroy(MV_LogDataEntry_p entry) {
    delete entry;
}

void MV_LogDataEntry_GetDataSourceId(MV_LogDataEntry_p entry, int8_t* dataSourceId) {
    *dataSourceId = entry->value.dataSourceId;
}

void MV_LogDataEntry_GetType(MV_LogDataEntry_p entry, int32_t* type) {
    *type = entry->value.type;
}

void MV_LogDataEntry_GetData(MV_LogDataEntry_p entry, int64_t* length, const uint8_t** data) {
    exposeBytes(entry->value.data, length, data);
}

void MV_LogDataEntry_GetTimestamp(MV_LogDataEntry_p entry, int64_t* timestamp) {
    *timestamp = entry->value.timestamp;
}

void MV_LogDataEntry_SetTimestamp(MV_LogDataEntry_p entry, int64_t timestamp) {
    entry->value.timestamp = timestamp;
}

// ---- data sources ------------------------------------------------------------

MV_LogDataSource_p MV_LogDataSource_Create(MV_LogDataSourceType type, const char* name) {
    return new MV_LogDataSource{DataSource{-1, type, textFrom(name)}};
}

void MV_LogDataSource_Destroy(MV_LogDataSource_p dataSource) {
    delete dataSource;
}

void MV_LogDataSource_GetId(MV_LogDataSource_p dataSource, int8_t* id) {
    *id = dataSource->value.id;
}

void MV_LogDataSource_GetName(MV_LogDataSource_p dataSource, const char** name) {
    *name = dataSource->value.name.c_str();
}

void MV_LogDataSource_GetType(MV_LogDataSource_p dataSource, MV_LogDataSourceType* type) {
    *type = dataSource->value.type;
}

const char* MV_LogDataSourceType_GetName(MV_LogDataSourceType type) {
    return commonDataSourceTypeName(type);
}

bool MV_LogDataSourceType_FromName(const char* name, MV_LogDataSourceType* type) {
    if (name == nullptr) {
        return false;
    }
    const std::optional<MV_LogDataSourceType> found = dataSourceTypeFromName(name);
    if (found) {
        *type = *found;
    }
    return found.has_value();
}

// ---- data-source properties -----------------------------------------------------

MV_LogDataSourceProperty_p MV_LogDataSourceProperty_CreateInt32(const int8_t* dataSourceId,
                                                                const char* propertyName, int32_t value) {
    return makeProperty(dataSourceId, propertyName, PropertyValue(std::in_place_index<0>, value));
}

MV_LogDataSourceProperty_p MV_LogDataSourceProperty_CreateInt64(const int8_t* dataSourceId,
                                                                const char* propertyName, int64_t value) {
    return makeProperty(dataSourceId, propertyName, PropertyValue(std::in_place_index<1>, value));
}

MV_LogDataSourceProperty_p MV_LogDataSourceProperty_CreateDouble(const int8_t* dataSourceId,
                                                                 const char* propertyName, double value) {
    return makeProperty(dataSourceId, propertyName, PropertyValue(std::in_place_index<2>, value));
}

MV_LogDataSourceProperty_p MV_LogDataSourceProperty_CreateString(const int8_t* dataSourceId,
                                                                 const char* propertyName,
                                                                 const char* value) {
    return makeProperty(dataSourceId, propertyName, PropertyValue(std::in_place_index<3>, textFrom(value)));
}

void MV_LogDataSourceProperty_Destroy(MV_LogDataSourceProperty_p property) {
    delete property;
}

void MV_LogDataSourceProperty_GetDataSourceId(MV_LogDataSourceProperty_p property, int8_t* dataSourceId) {
    *dataSourceId = property->value.dataSourceId;
}

void MV_LogDataSourceProperty_GetPropertyName(MV_LogDataSourceProperty_p property,
                                              const char** propertyName) {
    *propertyName = property->value.propertyName.c_str();
}

bool MV_LogDataSourceProperty_GetInt32(MV_LogDataSourceProperty_p property, int32_t* value) {
    return readInt32(property->value.value, value);
}

bool MV_LogDataSourceProperty_GetInt64(MV_LogDataSourceProperty_p property, int64_t* value) {
    return readInt64(property->value.value, value);
}

bool MV_LogDataSourceProperty_GetDouble(MV_LogDataSourceProperty_p property, double* value) {
    return readDouble(property->value.value, value);
}

bool MV_LogDataSourceProperty_GetString(MV_LogDataSourceProperty_p property, const char** value) {
    return readString(property->value.value, value);
}

// ---- metadata ------------------------------------------------------------------

MV_LogMetadata_p MV_LogMetadata_CreateInt32(const char* key, int32_t value) {
    return makeMetadata(key, PropertyValue(std::in_place_index<0>, value));
}

MV_LogMetadata_p MV_LogMetadata_CreateInt64(const char* key, int64_t value) {
    return makeMetadata(key, PropertyValue(std::in_place_index<1>, value));
}

MV_LogMetadata_p MV_LogMetadata_CreateDouble(const char* key, double value) {
    return makeMetadata(key, PropertyValue(std::in_place_index<2>, value));
}

MV_LogMetadata_p MV_LogMetadata_CreateString(const char* key, const char* value) {
    return makeMetadata(key, PropertyValue(std::in_place_index<3>, textFrom(value)));
}

void MV_LogMetadata_Destroy(MV_LogMetadata_p metadata) {
    delete metadata;
}

bool MV_LogMetadata_GetInt32(MV_LogMetadata_p metadata, int32_t* value) {
    return readInt32(metadata->value.value, value);
}

bool MV_LogMetadata_GetInt64(MV_LogMetadata_p metadata, int64_t* value) {
    return readInt64(metadata->value.value, value);
}

bool MV_LogMetadata_GetDouble(MV_LogMetadata_p metadata, double* value) {
    return readDouble(metadata->value.value, value);
}

bool MV_LogMetadata_GetString(MV_LogMetadata_p metadata, const char** value) {
    return readString(metadata->value.value, value);
}

void MV_LogMetadata_GetKey(MV_LogMetadata_p metadata, const char** key) {
    *key = metadata->value.key.c_str();
}

// ---- resources -------------------------------------------------------------------

MV_LogResource_p MV_LogResource_Create(const char* name, const uint8_t* data, int64_t length) {
    return new MV_LogResource{LogResourceEntry{textFrom(name), bytesFrom(data, length)}};
}

void MV_LogResource_Destroy(MV_LogResource_p resource) {
    delete resource;
}

void MV_LogResource_GetData(MV_LogResource_p resource, int64_t* length, const uint8_t** data) {
    exposeBytes(resource->value.data, length, data);
}

void MV_LogResource_GetName(MV_LogResource_p resource, const char** name) {
    *name = resource->value.name.c_str();
}
