/* Reads and writes on an open log file. */

#include "harness.h"
#include "support.h"

#include <stdlib.h>
#include <string.h>

static const char* const NO_ERROR = "No error";
static const char* const UNKNOWN = "Unknown internal error";
static const char* const SOURCES_REFUSED = "Data sources cannot be added to pre-existing log files.";
static const char* const PROPERTIES_REFUSED =
    "Data source properties cannot be added to pre-existing log files.";
static const char* const DATA_REFUSED = "Data cannot be logged into pre-existing log files.";
static const char* const NO_ENTRY = "The requested data entry does not exist.";
static const char* const NO_PROPERTY = "The requested data source property does not exist.";
static const char* const NO_METADATA = "The requested metadata does not exist.";
static const char* const NO_RESOURCE = "The requested resource does not exist.";
static const char* const UNKNOWN_SOURCE_FOR_DATA =
    "Attempted to log data against a data source that did not exist in the file.";
static const char* const UNKNOWN_SOURCE_FOR_PROPERTY =
    "Attempted to add a data source property for a data source that did not exist in the file.";

/* A recorded file with one camera source (id 1) and three entries of types
 * 10, 20, 30 at timestamps 1000, 2000, 3000, payloads "one", "two", "three". */
static void record_three_entries(const char* path) {
    MV_LogFile_p file = create_log(path, -1);
    int8_t camera = add_source(file, MV_LogDataSourceType_Camera, "camera");
    log_entry(file, camera, 10, "one", 3, 1000);
    log_entry(file, camera, 20, "two", 3, 2000);
    log_entry(file, camera, 30, "three", 5, 3000);
    MV_LogFile_Destroy(file);
}

/* ---- data sources --------------------------------------------------------- */

TEST(add_data_source_writes_back_ids_one_then_two) {
    MV_LogFile_p file = create_log(test_path("sources.mvlog"), -1);
    MV_LogDataSource_p camera = MV_LogDataSource_Create(MV_LogDataSourceType_Camera, "front camera");
    MV_LogDataSource_p lidar = MV_LogDataSource_Create(MV_LogDataSourceType_Lidar, "roof lidar");
    struct source_list sources = {0, NULL};
    MV_LogError_p error = NULL;
    int8_t id = 0;

    MV_LogDataSource_GetId(camera, &id);
    CHECK_INT_EQ(id, -1);
    CHECK(MV_LogFile_AddDataSource(file, camera, &error));
    CHECK(error == NULL);
    MV_LogDataSource_GetId(camera, &id);
    CHECK_INT_EQ(id, 1);
    CHECK(MV_LogFile_AddDataSource(file, lidar, NULL));
    MV_LogDataSource_GetId(lidar, &id);
    CHECK_INT_EQ(id, 2);

    CHECK(MV_LogFile_GetDataSources(file, collect_source, &sources, &error));
    CHECK(error == NULL);
    REQUIRE_INT_EQ(sources.count, 2);
    CHECK_INT_EQ(sources.items[0].id, 1);
    CHECK_INT_EQ(sources.items[0].type, MV_LogDataSourceType_Camera);
    CHECK_STR_EQ(sources.items[0].name, "front camera");
    CHECK_INT_EQ(sources.items[1].id, 2);
    CHECK_INT_EQ(sources.items[1].type, MV_LogDataSourceType_Lidar);
    CHECK_STR_EQ(sources.items[1].name, "roof lidar");

    source_list_free(&sources);
    MV_LogDataSource_Destroy(camera);
    MV_LogDataSource_Destroy(lidar);
    MV_LogFile_Destroy(file);
}

TEST(data_source_type_keeps_any_32_bit_value) {
    MV_LogFile_p file = create_log(test_path("types.mvlog"), -1);
    struct source_list sources = {0, NULL};
    add_source(file, MV_LogDataSourceType_RangeMin, "lowest");
    add_source(file, MV_LogDataSourceType_RangeMax, "highest");
    add_source(file, (MV_LogDataSourceType)123456, "custom");
    CHECK(MV_LogFile_GetDataSources(file, collect_source, &sources, NULL));
    REQUIRE_INT_EQ(sources.count, 3);
    CHECK_INT_EQ(sources.items[0].type, INT32_MIN);
    CHECK_INT_EQ(sources.items[1].type, INT32_MAX);
    CHECK_INT_EQ(sources.items[2].type, 123456);
    source_list_free(&sources);
    MV_LogFile_Destroy(file);
}

/* ---- refusals on opened files --------------------------------------------- */

TEST(opened_file_refuses_data_sources_properties_and_entries) {
    const char* path = test_path("opened.mvlog");
    MV_LogFile_p file;
    MV_LogDataSource_p source = MV_LogDataSource_Create(MV_LogDataSourceType_Radar, "radar");
    int8_t camera = 1;
    MV_LogDataSourceProperty_p property = MV_LogDataSourceProperty_CreateInt64(&camera, "width", 640);
    MV_LogDataEntry_p entry = MV_LogDataEntry_Create(&camera, 10, (const uint8_t*)"four", 4);
    MV_LogEntryIndexFilter_p nothing = MV_LogEntryIndexFilter_Create();
    MV_LogError_p error = NULL;
    int8_t id = 0;
    int32_t count = 0;
    int calls = 0;

    record_three_entries(path);
    file = open_log(path);

    CHECK(!MV_LogFile_AddDataSource(file, source, &error));
    CHECK_ERROR(error, SOURCES_REFUSED);
    MV_LogDataSource_GetId(source, &id);
    CHECK_INT_EQ(id, -1);
    CHECK(!MV_LogFile_AddDataSourceProperty(file, property, &error));
    CHECK_ERROR(error, PROPERTIES_REFUSED);
    CHECK(!MV_LogFile_LogData(file, entry, &error));
    CHECK_ERROR(error, DATA_REFUSED);

    CHECK(!MV_LogFile_AddDataSource(file, source, NULL));
    CHECK(!MV_LogFile_AddDataSourceProperty(file, property, NULL));
    CHECK(!MV_LogFile_LogData(file, entry, NULL));

    /* Nothing reached the file. */
    CHECK(MV_LogFile_GetEntryCount(file, &count, NULL));
    CHECK_INT_EQ(count, 3);
    CHECK(MV_LogFile_GetDataSources(file, count_source, &calls, NULL));
    CHECK_INT_EQ(calls, 1);
    calls = 0;
    CHECK(!MV_LogFile_GetAllDataSourceProperties(file, count_property, &calls, NULL));
    CHECK_INT_EQ(calls, 0);
    /* The refusals are the C layer's: the file's own last error is untouched. */
    MV_LogEntryIndexFilter_AddDataType(nothing, 99);
    CHECK(!MV_LogFile_GetEntryIndex(file, nothing, count_id, &calls, &error));
    CHECK_ERROR(error, NO_ERROR);

    MV_LogEntryIndexFilter_Destroy(nothing);
    MV_LogDataEntry_Destroy(entry);
    MV_LogDataSourceProperty_Destroy(property);
    MV_LogDataSource_Destroy(source);
    MV_LogFile_Destroy(file);
}

TEST(opened_file_accepts_metadata_resources_and_bookmarks) {
    static const uint8_t resourceBytes[] = {9, 8, 7};
    static const uint8_t mark[] = {0xAA, 0xBB};
    const char* path = test_path("annotate.mvlog");
    MV_LogFile_p file;
    MV_LogMetadata_p metadata = MV_LogMetadata_CreateString("reviewer", "alice");
    MV_LogResource_p resource = MV_LogResource_Create("notes", resourceBytes, sizeof resourceBytes);
    MV_LogBookmark_p bookmark = MV_LogBookmark_Create(2, "look here", "odd reading", mark, sizeof mark);
    MV_LogMetadata_p readMetadata = NULL;
    MV_LogResource_p readResource = NULL;
    struct bookmark_list bookmarks = {0, NULL};
    MV_LogError_p error = NULL;
    const char* text = NULL;
    const uint8_t* data = NULL;
    int64_t length = 0;

    record_three_entries(path);
    file = open_log(path);
    CHECK(MV_LogFile_AddMetadata(file, metadata, &error));
    CHECK(MV_LogFile_AddResource(file, resource, &error));
    CHECK(MV_LogFile_AddBookmark(file, bookmark, &error));
    CHECK(error == NULL);
    MV_LogBookmark_SetTitle(bookmark, "look closer");
    CHECK(MV_LogFile_UpdateBookmark(file, bookmark, &error));
    CHECK(error == NULL);
    MV_LogFile_Destroy(file);

    file = open_log(path);
    REQUIRE(MV_LogFile_GetMetadata(file, "reviewer", &readMetadata, &error));
    CHECK(MV_LogMetadata_GetString(readMetadata, &text));
    CHECK_STR_EQ(text, "alice");
    REQUIRE(MV_LogFile_GetResource(file, "notes", &readResource, &error));
    MV_LogResource_GetData(readResource, &length, &data);
    REQUIRE_INT_EQ(length, sizeof resourceBytes);
    CHECK_MEM_EQ(data, resourceBytes, sizeof resourceBytes);
    CHECK(MV_LogFile_GetBookmarks(file, collect_bookmark, &bookmarks));
    REQUIRE_INT_EQ(bookmarks.count, 1);
    CHECK_INT_EQ(bookmarks.items[0].entry_id, 2);
    CHECK_STR_EQ(bookmarks.items[0].title, "look closer");
    CHECK_STR_EQ(bookmarks.items[0].comment, "odd reading");
    REQUIRE_INT_EQ(bookmarks.items[0].length, sizeof mark);
    CHECK_MEM_EQ(bookmarks.items[0].payload, mark, sizeof mark);
    bookmark_list_free(&bookmarks);

    CHECK(MV_LogFile_RemoveBookmark(file, bookmark, &error));
    CHECK(error == NULL);
    CHECK(MV_LogFile_GetBookmarks(file, collect_bookmark, &bookmarks));
    CHECK_INT_EQ(bookmarks.count, 0);
    bookmark_list_free(&bookmarks);

    MV_LogResource_Destroy(readResource);
    MV_LogMetadata_Destroy(readMetadata);
    MV_LogBookmark_Destroy(bookmark);
    MV_LogResource_Destroy(resource);
    MV_LogMetadata_Destroy(metadata);
    MV_LogFile_Destroy(file);
}

/* ---- writes the store refuses ---------------------------------------------- */

TEST(log_data_for_an_unknown_source_fails_with_the_file_error) {
    MV_LogFile_p file = create_log(test_path("unknown.mvlog"), -1);
    int8_t missing = 5;
    MV_LogDataEntry_p entry = MV_LogDataEntry_Create(&missing, 1, (const uint8_t*)"x", 1);
    MV_LogError_p error = NULL;
    int32_t count = -7;

    CHECK(!MV_LogFile_LogData(file, entry, &error));
    CHECK_ERROR(error, UNKNOWN_SOURCE_FOR_DATA);
    CHECK(!MV_LogFile_LogData(file, entry, NULL));
    CHECK(MV_LogFile_GetEntryCount(file, &count, NULL));
    CHECK_INT_EQ(count, 0);

    MV_LogDataEntry_Destroy(entry);
    MV_LogFile_Destroy(file);
}

TEST(property_for_an_unknown_source_fails_with_the_file_error) {
    MV_LogFile_p file = create_log(test_path("unknown-property.mvlog"), -1);
    int8_t missing = 3;
    MV_LogDataSourceProperty_p property = MV_LogDataSourceProperty_CreateString(&missing, "model", "X1");
    MV_LogError_p error = NULL;
    int calls = 0;

    CHECK(!MV_LogFile_AddDataSourceProperty(file, property, &error));
    CHECK_ERROR(error, UNKNOWN_SOURCE_FOR_PROPERTY);
    CHECK(!MV_LogFile_AddDataSourceProperty(file, property, NULL));
    CHECK(!MV_LogFile_GetAllDataSourceProperties(file, count_property, &calls, &error));
    CHECK_INT_EQ(calls, 0);
    /* The empty list carries the file's last error, which is the refusal. */
    CHECK_ERROR(error, UNKNOWN_SOURCE_FOR_PROPERTY);

    MV_LogDataSourceProperty_Destroy(property);
    MV_LogFile_Destroy(file);
}

/* ---- lists ----------------------------------------------------------------- */

TEST(empty_lists_fail_with_the_file_error_no_error_on_a_fresh_file) {
    MV_LogFile_p file = create_log(test_path("fresh.mvlog"), -1);
    MV_LogEntryIndexFilter_p filter = MV_LogEntryIndexFilter_Create();
    MV_LogError_p error = NULL;
    int calls = 0;

    CHECK(!MV_LogFile_GetDataSources(file, count_source, &calls, &error));
    CHECK_ERROR(error, NO_ERROR);
    CHECK(!MV_LogFile_GetAllDataSourceProperties(file, count_property, &calls, &error));
    CHECK_ERROR(error, NO_ERROR);
    CHECK(!MV_LogFile_GetEntryIndex(file, filter, count_id, &calls, &error));
    CHECK_ERROR(error, NO_ERROR);
    CHECK_INT_EQ(calls, 0);

    CHECK(!MV_LogFile_GetDataSources(file, count_source, &calls, NULL));
    CHECK(!MV_LogFile_GetAllDataSourceProperties(file, count_property, &calls, NULL));
    CHECK(!MV_LogFile_GetEntryIndex(file, filter, count_id, &calls, NULL));
    CHECK_INT_EQ(calls, 0);

    MV_LogEntryIndexFilter_Destroy(filter);
    MV_LogFile_Destroy(file);
}

TEST(empty_lists_carry_the_last_failure_of_the_file) {
    MV_LogFile_p file = create_log(test_path("stale.mvlog"), -1);
    MV_LogError_p error = NULL;
    int32_t first = 0;
    int calls = 0;

    CHECK(!MV_LogFile_GetFirstEntryId(file, &first, NULL));
    CHECK(!MV_LogFile_GetDataSources(file, count_source, &calls, &error));
    CHECK_ERROR(error, UNKNOWN);
    CHECK_INT_EQ(calls, 0);
    MV_LogFile_Destroy(file);
}

TEST(lists_without_error_argument_succeed_empty_without_calling_back) {
    MV_LogFile_p file = create_log(test_path("quiet.mvlog"), -1);
    MV_LogEntryIndexFilter_p filter = MV_LogEntryIndexFilter_Create();
    int calls = 0;

    CHECK(MV_LogFile_ReadEntries(file, -1, -1, filter, -1, count_entry, &calls));
    CHECK(MV_LogFile_ReadEntries(file, 1, 100, filter, -1, count_entry, &calls));
    CHECK(MV_LogFile_GetBookmarks(file, count_bookmark, &calls));
    CHECK(MV_LogFile_GetAllResources(file, count_resource, &calls));
    CHECK_INT_EQ(calls, 0);

    MV_LogEntryIndexFilter_Destroy(filter);
    MV_LogFile_Destroy(file);
}

/* ---- counters ---------------------------------------------------------------- */

TEST(counters_on_an_empty_file) {
    MV_LogFile_p file = create_log(test_path("counters.mvlog"), -1);
    MV_LogError_p error = NULL;
    int32_t value = 99;

    CHECK(MV_LogFile_GetEntryCount(file, &value, &error));
    CHECK_INT_EQ(value, 0);
    CHECK(error == NULL);

    value = 99;
    CHECK(!MV_LogFile_GetFirstEntryId(file, &value, &error));
    CHECK_INT_EQ(value, -1);
    CHECK_ERROR(error, UNKNOWN);
    value = 99;
    CHECK(!MV_LogFile_GetLastEntryId(file, &value, &error));
    CHECK_INT_EQ(value, -1);
    CHECK_ERROR(error, UNKNOWN);

    value = 99;
    CHECK(!MV_LogFile_GetFirstEntryId(file, &value, NULL));
    CHECK_INT_EQ(value, -1);
    value = 99;
    CHECK(!MV_LogFile_GetLastEntryId(file, &value, NULL));
    CHECK_INT_EQ(value, -1);
    MV_LogFile_Destroy(file);
}

TEST(counters_follow_the_entries) {
    const char* path = test_path("three.mvlog");
    MV_LogFile_p file;
    MV_LogError_p error = NULL;
    int32_t value = 0;

    record_three_entries(path);
    file = open_log(path);
    CHECK(MV_LogFile_GetFirstEntryId(file, &value, &error));
    CHECK_INT_EQ(value, 1);
    CHECK(MV_LogFile_GetLastEntryId(file, &value, &error));
    CHECK_INT_EQ(value, 3);
    CHECK(MV_LogFile_GetEntryCount(file, &value, &error));
    CHECK_INT_EQ(value, 3);
    CHECK(error == NULL);
    MV_LogFile_Destroy(file);
}

/* ---- single entries ------------------------------------------------------------- */

TEST(read_entry_returns_what_was_logged) {
    const char* path = test_path("read.mvlog");
    MV_LogFile_p file;
    MV_LogDataEntry_p entry = NULL;
    MV_LogError_p error = NULL;
    const uint8_t* data = NULL;
    int64_t length = 0;
    int64_t timestamp = 0;
    int32_t type = 0;
    int8_t source = 0;

    record_three_entries(path);
    file = open_log(path);
    REQUIRE(MV_LogFile_ReadEntry(file, 3, &entry, &error));
    CHECK(error == NULL);
    MV_LogDataEntry_GetDataSourceId(entry, &source);
    CHECK_INT_EQ(source, 1);
    MV_LogDataEntry_GetType(entry, &type);
    CHECK_INT_EQ(type, 30);
    MV_LogDataEntry_GetTimestamp(entry, &timestamp);
    CHECK_INT_EQ(timestamp, 3000);
    MV_LogDataEntry_GetData(entry, &length, &data);
    REQUIRE_INT_EQ(length, 5);
    CHECK_MEM_EQ(data, "three", 5);
    MV_LogDataEntry_Destroy(entry);
    MV_LogFile_Destroy(file);
}

TEST(read_entry_of_a_missing_id_leaves_the_output_alone) {
    static const int32_t missing[] = {4, 0, -1, -100, 2147483647};
    const char* path = test_path("missing-entry.mvlog");
    MV_LogFile_p file;
    int8_t source = 1;
    MV_LogDataEntry_p sentinel = MV_LogDataEntry_Create(&source, 0, NULL, 0);
    size_t index;

    record_three_entries(path);
    file = open_log(path);
    for (index = 0; index < sizeof missing / sizeof missing[0]; ++index) {
        MV_LogDataEntry_p entry = sentinel;
        MV_LogError_p error = NULL;
        CHECK(!MV_LogFile_ReadEntry(file, missing[index], &entry, &error));
        CHECK(entry == sentinel);
        CHECK_ERROR(error, NO_ENTRY);
        CHECK(!MV_LogFile_ReadEntry(file, missing[index], &entry, NULL));
        CHECK(entry == sentinel);
    }
    MV_LogDataEntry_Destroy(sentinel);
    MV_LogFile_Destroy(file);
}

/* ---- data-source properties ----------------------------------------------------- */

TEST(properties_read_back_with_integers_as_64_bit_values) {
    const char* path = test_path("properties.mvlog");
    MV_LogFile_p file = create_log(path, -1);
    MV_LogDataSource_p camera = MV_LogDataSource_Create(MV_LogDataSourceType_Camera, "camera");
    MV_LogDataSourceProperty_p created[4];
    MV_LogDataSourceProperty_p read = NULL;
    MV_LogError_p error = NULL;
    int8_t id = 0;
    int32_t narrow = 0;
    int64_t wide = 0;
    double real = 0.0;
    const char* text = NULL;
    size_t index;

    REQUIRE(MV_LogFile_AddDataSource(file, camera, &error));
    MV_LogDataSource_GetId(camera, &id);
    created[0] = MV_LogDataSourceProperty_CreateInt32(&id, "width", 1920);
    created[1] = MV_LogDataSourceProperty_CreateInt64(&id, "serial", 5000000000LL);
    created[2] = MV_LogDataSourceProperty_CreateDouble(&id, "rate", 29.97);
    created[3] = MV_LogDataSourceProperty_CreateString(&id, "model", "XC-1");
    for (index = 0; index < 4; ++index) {
        CHECK(MV_LogFile_AddDataSourceProperty(file, created[index], &error));
        CHECK(error == NULL);
        MV_LogDataSourceProperty_Destroy(created[index]);
    }
    MV_LogFile_Destroy(file);
    file = open_log(path);

    /* Written as a 32-bit integer, read back as a 64-bit one: both integer
     * getters answer. */
    REQUIRE(MV_LogFile_GetDataSourceProperty(file, camera, "width", &read, &error));
    CHECK(error == NULL);
    MV_LogDataSourceProperty_GetDataSourceId(read, &id);
    CHECK_INT_EQ(id, 1);
    MV_LogDataSourceProperty_GetPropertyName(read, &text);
    CHECK_STR_EQ(text, "width");
    CHECK(MV_LogDataSourceProperty_GetInt32(read, &narrow));
    CHECK_INT_EQ(narrow, 1920);
    CHECK(MV_LogDataSourceProperty_GetInt64(read, &wide));
    CHECK_INT_EQ(wide, 1920);
    CHECK(!MV_LogDataSourceProperty_GetDouble(read, &real));
    MV_LogDataSourceProperty_Destroy(read);

    REQUIRE(MV_LogFile_GetDataSourceProperty(file, camera, "serial", &read, &error));
    CHECK(MV_LogDataSourceProperty_GetInt64(read, &wide));
    CHECK_INT_EQ(wide, 5000000000LL);
    MV_LogDataSourceProperty_Destroy(read);

    REQUIRE(MV_LogFile_GetDataSourceProperty(file, camera, "rate", &read, &error));
    CHECK(MV_LogDataSourceProperty_GetDouble(read, &real));
    CHECK(real == 29.97);
    CHECK(!MV_LogDataSourceProperty_GetInt64(read, &wide));
    MV_LogDataSourceProperty_Destroy(read);

    REQUIRE(MV_LogFile_GetDataSourceProperty(file, camera, "model", &read, &error));
    CHECK(MV_LogDataSourceProperty_GetString(read, &text));
    CHECK_STR_EQ(text, "XC-1");
    MV_LogDataSourceProperty_GetPropertyName(read, &text);
    CHECK_STR_EQ(text, "model");
    MV_LogDataSourceProperty_Destroy(read);

    MV_LogDataSource_Destroy(camera);
    MV_LogFile_Destroy(file);
}

TEST(missing_property_leaves_the_output_alone) {
    MV_LogFile_p file = create_log(test_path("no-property.mvlog"), -1);
    MV_LogDataSource_p camera = MV_LogDataSource_Create(MV_LogDataSourceType_Camera, "camera");
    MV_LogDataSource_p unsaved = MV_LogDataSource_Create(MV_LogDataSourceType_Camera, "unsaved");
    int8_t id = 0;
    MV_LogDataSourceProperty_p sentinel;
    MV_LogDataSourceProperty_p out;
    MV_LogError_p error = NULL;

    REQUIRE(MV_LogFile_AddDataSource(file, camera, NULL));
    MV_LogDataSource_GetId(camera, &id);
    sentinel = MV_LogDataSourceProperty_CreateInt64(&id, "width", 640);
    REQUIRE(MV_LogFile_AddDataSourceProperty(file, sentinel, NULL));

    out = sentinel;
    CHECK(!MV_LogFile_GetDataSourceProperty(file, camera, "height", &out, &error));
    CHECK(out == sentinel);
    CHECK_ERROR(error, NO_PROPERTY);
    /* Right key, but a data source (id -1) that the file does not have. */
    CHECK(!MV_LogFile_GetDataSourceProperty(file, unsaved, "width", &out, &error));
    CHECK(out == sentinel);
    CHECK_ERROR(error, NO_PROPERTY);
    CHECK(!MV_LogFile_GetDataSourceProperty(file, camera, "height", &out, NULL));
    CHECK(out == sentinel);

    MV_LogDataSourceProperty_Destroy(sentinel);
    MV_LogDataSource_Destroy(unsaved);
    MV_LogDataSource_Destroy(camera);
    MV_LogFile_Destroy(file);
}

TEST(all_properties_are_listed_with_their_sources_and_duplicates) {
    MV_LogFile_p file = create_log(test_path("all-properties.mvlog"), -1);
    int8_t camera = add_source(file, MV_LogDataSourceType_Camera, "camera");
    int8_t gnss = add_source(file, MV_LogDataSourceType_Navigation, "gnss");
    MV_LogDataSourceProperty_p properties[4];
    struct property_list list = {0, NULL};
    MV_LogError_p error = NULL;
    size_t index;

    properties[0] = MV_LogDataSourceProperty_CreateInt32(&camera, "exposure", -3);
    properties[1] = MV_LogDataSourceProperty_CreateString(&gnss, "datum", "WGS84");
    properties[2] = MV_LogDataSourceProperty_CreateDouble(&gnss, "rate", 0.5);
    properties[3] = MV_LogDataSourceProperty_CreateInt32(&camera, "exposure", 4);
    for (index = 0; index < 4; ++index) {
        CHECK(MV_LogFile_AddDataSourceProperty(file, properties[index], NULL));
        MV_LogDataSourceProperty_Destroy(properties[index]);
    }

    CHECK(MV_LogFile_GetAllDataSourceProperties(file, collect_property, &list, &error));
    CHECK(error == NULL);
    REQUIRE_INT_EQ(list.count, 4);
    CHECK_INT_EQ(list.items[0].source, camera);
    CHECK_STR_EQ(list.items[0].name, "exposure");
    CHECK_INT_EQ(list.items[0].value.kind, VALUE_INT);
    CHECK_INT_EQ(list.items[0].value.integer, -3);
    CHECK_INT_EQ(list.items[1].source, gnss);
    CHECK_STR_EQ(list.items[1].name, "datum");
    CHECK_INT_EQ(list.items[1].value.kind, VALUE_STRING);
    CHECK_STR_EQ(list.items[1].value.text, "WGS84");
    CHECK_INT_EQ(list.items[2].source, gnss);
    CHECK_INT_EQ(list.items[2].value.kind, VALUE_DOUBLE);
    CHECK(list.items[2].value.real == 0.5);
    CHECK_INT_EQ(list.items[3].source, camera);
    CHECK_STR_EQ(list.items[3].name, "exposure");
    CHECK_INT_EQ(list.items[3].value.integer, 4);
    property_list_free(&list);
    MV_LogFile_Destroy(file);
}

/* ---- metadata ----------------------------------------------------------------- */

TEST(all_metadata_lists_the_six_fixed_keys_as_configured) {
    MV_LogConfig_p config = MV_LogConfig_Create("capi-suite", "9.8.7", "Pacific/Auckland");
    MV_LogError_p error = NULL;
    MV_LogFile_p file;
    struct metadata_list list = {0, NULL};
    const int64_t before = now_ms();
    int64_t after;
    int32_t narrow = 0;
    MV_LogMetadata_p logVersion = NULL;

    REQUIRE(MV_LogConfig_SetCompressionLevel(config, 7, NULL));
    file = MV_LogFile_Create(test_path("metadata.mvlog"), config, &error);
    MV_LogConfig_Destroy(config);
    REQUIRE(file != NULL);
    after = now_ms() + 1000;

    CHECK(MV_LogFile_GetAllMetadata(file, collect_metadata, &list));
    REQUIRE_INT_EQ(list.count, 6);
    CHECK_STR_EQ(list.items[0].key, "createdDateTime");
    CHECK_INT_EQ(list.items[0].value.kind, VALUE_INT);
    CHECK(list.items[0].value.integer >= before - 1000);
    CHECK(list.items[0].value.integer <= after);
    CHECK_STR_EQ(list.items[1].key, "applicationName");
    CHECK_STR_EQ(list.items[1].value.text, "capi-suite");
    CHECK_STR_EQ(list.items[2].key, "applicationVersion");
    CHECK_STR_EQ(list.items[2].value.text, "9.8.7");
    CHECK_STR_EQ(list.items[3].key, "currentTimeZone");
    CHECK_STR_EQ(list.items[3].value.text, "Pacific/Auckland");
    CHECK_STR_EQ(list.items[4].key, "logVersion");
    CHECK_INT_EQ(list.items[4].value.kind, VALUE_INT);
    CHECK_INT_EQ(list.items[4].value.integer, 4);
    CHECK_STR_EQ(list.items[5].key, "compressionLevel");
    CHECK_INT_EQ(list.items[5].value.kind, VALUE_INT);
    CHECK_INT_EQ(list.items[5].value.integer, 7);
    metadata_list_free(&list);

    /* Stored as a 32-bit value, "logVersion" reads back as the 64-bit one,
     * which the 32-bit getter serves. */
    REQUIRE(MV_LogFile_GetMetadata(file, "logVersion", &logVersion, &error));
    CHECK(MV_LogMetadata_GetInt32(logVersion, &narrow));
    CHECK_INT_EQ(narrow, 4);
    MV_LogMetadata_Destroy(logVersion);
    MV_LogFile_Destroy(file);
}

TEST(default_compression_level_is_recorded_as_minus_one) {
    MV_LogFile_p file = create_log(test_path("default-level.mvlog"), -1);
    struct metadata_list list = {0, NULL};
    const struct metadata_copy* level;
    CHECK(MV_LogFile_GetAllMetadata(file, collect_metadata, &list));
    level = find_metadata(&list, "compressionLevel");
    REQUIRE(level != NULL);
    CHECK_INT_EQ(level->value.kind, VALUE_INT);
    CHECK_INT_EQ(level->value.integer, -1);
    metadata_list_free(&list);
    MV_LogFile_Destroy(file);
}

TEST(metadata_of_every_kind_reads_back) {
    const char* path = test_path("user-metadata.mvlog");
    MV_LogFile_p file = create_log(path, 2);
    MV_LogMetadata_p added[4];
    MV_LogMetadata_p read = NULL;
    MV_LogError_p error = NULL;
    struct metadata_list list = {0, NULL};
    const char* text = NULL;
    int32_t narrow = 0;
    int64_t wide = 0;
    double real = 0.0;
    size_t index;

    added[0] = MV_LogMetadata_CreateInt32("runNumber", 7);
    added[1] = MV_LogMetadata_CreateInt64("odometer", -9000000000LL);
    added[2] = MV_LogMetadata_CreateDouble("temperature", -12.25);
    added[3] = MV_LogMetadata_CreateString("vehicle", "test car");
    for (index = 0; index < 4; ++index) {
        CHECK(MV_LogFile_AddMetadata(file, added[index], &error));
        CHECK(error == NULL);
        MV_LogMetadata_Destroy(added[index]);
    }
    MV_LogFile_Destroy(file);
    file = open_log(path);

    REQUIRE(MV_LogFile_GetMetadata(file, "runNumber", &read, &error));
    MV_LogMetadata_GetKey(read, &text);
    CHECK_STR_EQ(text, "runNumber");
    CHECK(MV_LogMetadata_GetInt32(read, &narrow));
    CHECK_INT_EQ(narrow, 7);
    CHECK(MV_LogMetadata_GetInt64(read, &wide));
    CHECK_INT_EQ(wide, 7);
    MV_LogMetadata_Destroy(read);

    REQUIRE(MV_LogFile_GetMetadata(file, "odometer", &read, &error));
    CHECK(MV_LogMetadata_GetInt64(read, &wide));
    CHECK_INT_EQ(wide, -9000000000LL);
    MV_LogMetadata_Destroy(read);

    REQUIRE(MV_LogFile_GetMetadata(file, "temperature", &read, &error));
    CHECK(MV_LogMetadata_GetDouble(read, &real));
    CHECK(real == -12.25);
    MV_LogMetadata_Destroy(read);

    REQUIRE(MV_LogFile_GetMetadata(file, "vehicle", &read, &error));
    CHECK(MV_LogMetadata_GetString(read, &text));
    CHECK_STR_EQ(text, "test car");
    MV_LogMetadata_GetKey(read, &text);
    CHECK_STR_EQ(text, "vehicle");
    MV_LogMetadata_Destroy(read);
    CHECK(error == NULL);

    /* The fixed six come first, then the additions in order. */
    CHECK(MV_LogFile_GetAllMetadata(file, collect_metadata, &list));
    REQUIRE_INT_EQ(list.count, 10);
    CHECK_STR_EQ(list.items[6].key, "runNumber");
    CHECK_STR_EQ(list.items[7].key, "odometer");
    CHECK_STR_EQ(list.items[8].key, "temperature");
    CHECK_STR_EQ(list.items[9].key, "vehicle");
    metadata_list_free(&list);
    MV_LogFile_Destroy(file);
}

TEST(existing_metadata_key_is_refused_with_the_unchanged_file_error) {
    MV_LogFile_p file = create_log(test_path("duplicate-metadata.mvlog"), -1);
    MV_LogMetadata_p first = MV_LogMetadata_CreateString("vehicle", "car one");
    MV_LogMetadata_p second = MV_LogMetadata_CreateString("vehicle", "car two");
    MV_LogMetadata_p version = MV_LogMetadata_CreateInt32("logVersion", 5);
    MV_LogMetadata_p read = NULL;
    MV_LogError_p error = NULL;
    const char* text = NULL;

    CHECK(MV_LogFile_AddMetadata(file, first, &error));
    CHECK(!MV_LogFile_AddMetadata(file, second, &error));
    CHECK_ERROR(error, NO_ERROR);
    CHECK(!MV_LogFile_AddMetadata(file, version, &error));
    CHECK_ERROR(error, NO_ERROR);
    CHECK(!MV_LogFile_AddMetadata(file, second, NULL));

    REQUIRE(MV_LogFile_GetMetadata(file, "vehicle", &read, &error));
    CHECK(MV_LogMetadata_GetString(read, &text));
    CHECK_STR_EQ(text, "car one");
    MV_LogMetadata_Destroy(read);

    MV_LogMetadata_Destroy(version);
    MV_LogMetadata_Destroy(second);
    MV_LogMetadata_Destroy(first);
    MV_LogFile_Destroy(file);
}

TEST(missing_metadata_leaves_the_output_alone) {
    MV_LogFile_p file = create_log(test_path("no-metadata.mvlog"), -1);
    MV_LogMetadata_p sentinel = MV_LogMetadata_CreateInt64("sentinel", 1);
    MV_LogMetadata_p out = sentinel;
    MV_LogError_p error = NULL;

    CHECK(!MV_LogFile_GetMetadata(file, "nothing here", &out, &error));
    CHECK(out == sentinel);
    CHECK_ERROR(error, NO_METADATA);
    CHECK(!MV_LogFile_GetMetadata(file, "nothing here", &out, NULL));
    CHECK(out == sentinel);

    MV_LogMetadata_Destroy(sentinel);
    MV_LogFile_Destroy(file);
}

/* ---- resources ---------------------------------------------------------------- */

TEST(resources_and_the_thumbnail_read_back) {
    static const uint8_t calibration[] = {0x00, 0x01, 0x02, 0xFE, 0xFF, 0x00, 0x7F};
    static const uint8_t thumbnail[] = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A, 0, 0, 0, 0x0D};
    const char* path = test_path("resources.mvlog");
    MV_LogFile_p file = create_log(path, 9);
    MV_LogResource_p added[3];
    MV_LogResource_p read = NULL;
    MV_LogError_p error = NULL;
    struct resource_list list = {0, NULL};
    const uint8_t* data = NULL;
    const char* name = NULL;
    int64_t length = -1;
    size_t index;

    added[0] = MV_LogResource_Create("calibration", calibration, sizeof calibration);
    added[1] = MV_LogResource_Create("thumbnail", thumbnail, sizeof thumbnail);
    added[2] = MV_LogResource_Create("empty", NULL, 0);
    for (index = 0; index < 3; ++index) {
        CHECK(MV_LogFile_AddResource(file, added[index], &error));
        CHECK(error == NULL);
        MV_LogResource_Destroy(added[index]);
    }
    MV_LogFile_Destroy(file);
    file = open_log(path);

    REQUIRE(MV_LogFile_GetResource(file, "calibration", &read, &error));
    MV_LogResource_GetName(read, &name);
    CHECK_STR_EQ(name, "calibration");
    MV_LogResource_GetData(read, &length, &data);
    REQUIRE_INT_EQ(length, sizeof calibration);
    CHECK_MEM_EQ(data, calibration, sizeof calibration);
    MV_LogResource_Destroy(read);

    REQUIRE(MV_LogFile_GetResource(file, "empty", &read, &error));
    MV_LogResource_GetData(read, &length, &data);
    CHECK_INT_EQ(length, 0);
    MV_LogResource_Destroy(read);

    CHECK(MV_LogFile_GetAllResources(file, collect_resource, &list));
    REQUIRE_INT_EQ(list.count, 3);
    CHECK_STR_EQ(list.items[0].name, "calibration");
    CHECK_STR_EQ(list.items[1].name, "thumbnail");
    REQUIRE_INT_EQ(list.items[1].length, sizeof thumbnail);
    CHECK_MEM_EQ(list.items[1].data, thumbnail, sizeof thumbnail);
    CHECK_STR_EQ(list.items[2].name, "empty");
    CHECK_INT_EQ(list.items[2].length, 0);
    resource_list_free(&list);
    MV_LogFile_Destroy(file);
}

TEST(existing_resource_name_is_refused_and_missing_one_reported) {
    static const uint8_t first[] = {1, 2, 3};
    static const uint8_t second[] = {4, 5};
    MV_LogFile_p file = create_log(test_path("duplicate-resource.mvlog"), 0);
    MV_LogResource_p one = MV_LogResource_Create("notes", first, sizeof first);
    MV_LogResource_p two = MV_LogResource_Create("notes", second, sizeof second);
    MV_LogResource_p out = NULL;
    MV_LogResource_p sentinel = one;
    MV_LogError_p error = NULL;
    const uint8_t* data = NULL;
    int64_t length = 0;

    CHECK(MV_LogFile_AddResource(file, one, &error));
    CHECK(!MV_LogFile_AddResource(file, two, &error));
    CHECK_ERROR(error, NO_ERROR);
    CHECK(!MV_LogFile_AddResource(file, two, NULL));

    REQUIRE(MV_LogFile_GetResource(file, "notes", &out, &error));
    MV_LogResource_GetData(out, &length, &data);
    REQUIRE_INT_EQ(length, sizeof first);
    CHECK_MEM_EQ(data, first, sizeof first);
    MV_LogResource_Destroy(out);

    out = sentinel;
    CHECK(!MV_LogFile_GetResource(file, "thumbnail", &out, &error));
    CHECK(out == sentinel);
    CHECK_ERROR(error, NO_RESOURCE);
    CHECK(!MV_LogFile_GetResource(file, "thumbnail", &out, NULL));
    CHECK(out == sentinel);

    MV_LogResource_Destroy(two);
    MV_LogResource_Destroy(one);
    MV_LogFile_Destroy(file);
}

/* ---- bookmarks ---------------------------------------------------------------- */

TEST(bookmarks_are_added_updated_and_removed_by_entry_id) {
    static const uint8_t payload[] = {'m', 'a', 'r', 'k', 0};
    static const uint8_t newPayload[] = {0x10, 0x20, 0x30};
    const char* path = test_path("bookmarks.mvlog");
    MV_LogFile_p file;
    MV_LogBookmark_p first = MV_LogBookmark_Create(1, "start", "first entry", payload, sizeof payload);
    MV_LogBookmark_p second = MV_LogBookmark_Create(3, "end", "", NULL, 0);
    MV_LogBookmark_p change = MV_LogBookmark_Create(1, "beginning", "renamed", newPayload, sizeof newPayload);
    MV_LogBookmark_p nowhere = MV_LogBookmark_Create(2, "none", "no bookmark on 2", NULL, 0);
    struct bookmark_list list = {0, NULL};
    MV_LogError_p error = NULL;

    record_three_entries(path);
    file = open_log(path);

    CHECK(MV_LogFile_AddBookmark(file, first, &error));
    CHECK(MV_LogFile_AddBookmark(file, second, &error));
    CHECK(error == NULL);
    CHECK(MV_LogFile_GetBookmarks(file, collect_bookmark, &list));
    REQUIRE_INT_EQ(list.count, 2);
    CHECK_INT_EQ(list.items[0].entry_id, 1);
    CHECK_STR_EQ(list.items[0].title, "start");
    CHECK_STR_EQ(list.items[0].comment, "first entry");
    REQUIRE_INT_EQ(list.items[0].length, sizeof payload);
    CHECK_MEM_EQ(list.items[0].payload, payload, sizeof payload);
    CHECK_INT_EQ(list.items[1].entry_id, 3);
    CHECK_STR_EQ(list.items[1].title, "end");
    CHECK_STR_EQ(list.items[1].comment, "");
    CHECK_INT_EQ(list.items[1].length, 0);
    bookmark_list_free(&list);

    CHECK(MV_LogFile_UpdateBookmark(file, change, &error));
    CHECK(MV_LogFile_UpdateBookmark(file, nowhere, &error));
    CHECK(MV_LogFile_RemoveBookmark(file, nowhere, &error));
    CHECK(error == NULL);
    CHECK(MV_LogFile_GetBookmarks(file, collect_bookmark, &list));
    REQUIRE_INT_EQ(list.count, 2);
    CHECK_INT_EQ(list.items[0].entry_id, 1);
    CHECK_STR_EQ(list.items[0].title, "beginning");
    CHECK_STR_EQ(list.items[0].comment, "renamed");
    REQUIRE_INT_EQ(list.items[0].length, sizeof newPayload);
    CHECK_MEM_EQ(list.items[0].payload, newPayload, sizeof newPayload);
    CHECK_STR_EQ(list.items[1].title, "end");
    bookmark_list_free(&list);

    CHECK(MV_LogFile_RemoveBookmark(file, first, &error));
    CHECK(MV_LogFile_GetBookmarks(file, collect_bookmark, &list));
    REQUIRE_INT_EQ(list.count, 1);
    CHECK_INT_EQ(list.items[0].entry_id, 3);
    bookmark_list_free(&list);

    MV_LogBookmark_Destroy(nowhere);
    MV_LogBookmark_Destroy(change);
    MV_LogBookmark_Destroy(second);
    MV_LogBookmark_Destroy(first);
    MV_LogFile_Destroy(file);
}

TEST(bookmarks_sharing_an_entry_id_change_together) {
    const char* path = test_path("shared-bookmarks.mvlog");
    MV_LogFile_p file;
    MV_LogBookmark_p one = MV_LogBookmark_Create(2, "one", "a", NULL, 0);
    MV_LogBookmark_p two = MV_LogBookmark_Create(2, "two", "b", NULL, 0);
    struct bookmark_list list = {0, NULL};

    record_three_entries(path);
    file = open_log(path);
    CHECK(MV_LogFile_AddBookmark(file, one, NULL));
    CHECK(MV_LogFile_AddBookmark(file, two, NULL));
    MV_LogBookmark_SetTitle(one, "both");
    CHECK(MV_LogFile_UpdateBookmark(file, one, NULL));
    CHECK(MV_LogFile_GetBookmarks(file, collect_bookmark, &list));
    REQUIRE_INT_EQ(list.count, 2);
    CHECK_STR_EQ(list.items[0].title, "both");
    CHECK_STR_EQ(list.items[1].title, "both");
    CHECK_STR_EQ(list.items[1].comment, "a");
    bookmark_list_free(&list);

    CHECK(MV_LogFile_RemoveBookmark(file, two, NULL));
    CHECK(MV_LogFile_GetBookmarks(file, collect_bookmark, &list));
    CHECK_INT_EQ(list.count, 0);
    bookmark_list_free(&list);

    MV_LogBookmark_Destroy(two);
    MV_LogBookmark_Destroy(one);
    MV_LogFile_Destroy(file);
}

TEST(bookmark_on_a_missing_entry_fails_with_the_file_error) {
    const char* path = test_path("dangling-bookmark.mvlog");
    MV_LogFile_p file;
    MV_LogBookmark_p bookmark = MV_LogBookmark_Create(99, "nowhere", "", NULL, 0);
    MV_LogError_p error = NULL;
    int calls = 0;

    record_three_entries(path);
    file = open_log(path);
    CHECK(!MV_LogFile_AddBookmark(file, bookmark, &error));
    CHECK_ERROR(error, UNKNOWN);
    CHECK(!MV_LogFile_AddBookmark(file, bookmark, NULL));
    CHECK(MV_LogFile_GetBookmarks(file, count_bookmark, &calls));
    CHECK_INT_EQ(calls, 0);

    MV_LogBookmark_Destroy(bookmark);
    MV_LogFile_Destroy(file);
}
