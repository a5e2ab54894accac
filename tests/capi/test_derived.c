/* Slice and clone through the C interface. */

#include "harness.h"
#include "support.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const char* const SLICE_FAILED = "Failed to slice log file";
static const char* const CLONE_FAILED = "Failed to clone log file";
static const char* const NULL_PATH = "basic_string::_M_construct null not valid";
static const char* const SOURCES_REFUSED = "Data sources cannot be added to pre-existing log files.";
static const char* const PROPERTIES_REFUSED =
    "Data source properties cannot be added to pre-existing log files.";
static const char* const DATA_REFUSED = "Data cannot be logged into pre-existing log files.";

static const uint8_t NOTES[] = {'n', 'o', 't', 'e', 's', 0, 1, 2};

/* A source recorded by "source-app" 1.0 in "Europe/Oslo" at level 3: a
 * camera (id 1) and a lidar (id 2) with one property each, ten entries
 * (entry i: source 1 for odd i and 2 for even i, type i, timestamp 500 * i,
 * payload "payload <i>"), the metadata "vehicle" and "runNumber", the resource
 * "notes" and bookmarks on entries 2, 5 and 9. */
static void record_source(const char* path) {
    MV_LogConfig_p config = MV_LogConfig_Create("source-app", "1.0", "Europe/Oslo");
    MV_LogError_p error = NULL;
    MV_LogFile_p file;
    int8_t camera;
    int8_t lidar;
    MV_LogDataSourceProperty_p property;
    MV_LogMetadata_p metadata;
    MV_LogResource_p resource;
    int index;

    REQUIRE(MV_LogConfig_SetCompressionLevel(config, 3, NULL));
    file = MV_LogFile_Create(path, config, &error);
    MV_LogConfig_Destroy(config);
    REQUIRE(file != NULL);
    camera = add_source(file, MV_LogDataSourceType_Camera, "camera");
    lidar = add_source(file, MV_LogDataSourceType_Lidar, "lidar");
    property = MV_LogDataSourceProperty_CreateInt32(&camera, "width", 1280);
    REQUIRE(MV_LogFile_AddDataSourceProperty(file, property, NULL));
    MV_LogDataSourceProperty_Destroy(property);
    property = MV_LogDataSourceProperty_CreateString(&lidar, "model", "L-64");
    REQUIRE(MV_LogFile_AddDataSourceProperty(file, property, NULL));
    MV_LogDataSourceProperty_Destroy(property);

    for (index = 1; index <= 10; ++index) {
        char payload[32];
        const int length = sprintf(payload, "payload %d", index);
        log_entry(file, index % 2 == 1 ? camera : lidar, index, payload, length, 500 * (int64_t)index);
    }

    metadata = MV_LogMetadata_CreateString("vehicle", "test car");
    REQUIRE(MV_LogFile_AddMetadata(file, metadata, NULL));
    MV_LogMetadata_Destroy(metadata);
    metadata = MV_LogMetadata_CreateInt32("runNumber", 17);
    REQUIRE(MV_LogFile_AddMetadata(file, metadata, NULL));
    MV_LogMetadata_Destroy(metadata);
    resource = MV_LogResource_Create("notes", NOTES, sizeof NOTES);
    REQUIRE(MV_LogFile_AddResource(file, resource, NULL));
    MV_LogResource_Destroy(resource);

    for (index = 0; index < 3; ++index) {
        static const int32_t marked[3] = {2, 5, 9};
        char title[32];
        MV_LogBookmark_p bookmark;
        sprintf(title, "mark %d", (int)marked[index]);
        bookmark = MV_LogBookmark_Create(marked[index], title, "comment", (const uint8_t*)title,
                                         (int64_t)strlen(title));
        REQUIRE(MV_LogFile_AddBookmark(file, bookmark, NULL));
        MV_LogBookmark_Destroy(bookmark);
    }
    MV_LogFile_Destroy(file);
}

static MV_LogConfig_p deriving_config(int8_t level) {
    MV_LogConfig_p config = MV_LogConfig_Create("slicer", "2.0", "Asia/Tokyo");
    REQUIRE(MV_LogConfig_SetCompressionLevel(config, level, NULL));
    return config;
}

/* Checks that `file` holds the source's entries `first`..`last` as 1, 2, ... */
static void check_copied_entries(int line, MV_LogFile_p file, int first, int last) {
    MV_LogEntryIndexFilter_p filter = MV_LogEntryIndexFilter_Create();
    struct entry_list list = {0, NULL};
    int32_t count = -1;
    size_t index;
    CHECK(MV_LogFile_GetEntryCount(file, &count, NULL));
    if (count != last - first + 1) {
        harness_fail(__FILE__, line, "%d entries, expected %d", count, last - first + 1);
    }
    CHECK(MV_LogFile_ReadEntries(file, -1, -1, filter, -1, collect_entry, &list));
    for (index = 0; index < list.count; ++index) {
        const int source = first + (int)index;
        char payload[32];
        const int length = sprintf(payload, "payload %d", source);
        const struct entry_copy* entry = &list.items[index];
        if (entry->type != source || entry->timestamp != 500 * (int64_t)source ||
            entry->source != (source % 2 == 1 ? 1 : 2) || entry->length != length ||
            memcmp(entry->data, payload, (size_t)length) != 0) {
            harness_fail(__FILE__, line, "entry %lu is not the source's entry %d", (unsigned long)index + 1,
                         source);
        }
    }
    entry_list_free(&list);
    MV_LogEntryIndexFilter_Destroy(filter);
}

/* Data sources, properties, extra metadata and resources are the source's. */
static void check_copied_description(MV_LogFile_p file) {
    struct source_list sources = {0, NULL};
    struct property_list properties = {0, NULL};
    struct metadata_list metadata = {0, NULL};
    struct resource_list resources = {0, NULL};
    const struct metadata_copy* found;

    CHECK(MV_LogFile_GetDataSources(file, collect_source, &sources, NULL));
    REQUIRE_INT_EQ(sources.count, 2);
    CHECK_INT_EQ(sources.items[0].id, 1);
    CHECK_INT_EQ(sources.items[0].type, MV_LogDataSourceType_Camera);
    CHECK_STR_EQ(sources.items[0].name, "camera");
    CHECK_INT_EQ(sources.items[1].id, 2);
    CHECK_INT_EQ(sources.items[1].type, MV_LogDataSourceType_Lidar);
    CHECK_STR_EQ(sources.items[1].name, "lidar");
    source_list_free(&sources);

    CHECK(MV_LogFile_GetAllDataSourceProperties(file, collect_property, &properties, NULL));
    REQUIRE_INT_EQ(properties.count, 2);
    CHECK_INT_EQ(properties.items[0].source, 1);
    CHECK_STR_EQ(properties.items[0].name, "width");
    CHECK_INT_EQ(properties.items[0].value.integer, 1280);
    CHECK_INT_EQ(properties.items[1].source, 2);
    CHECK_STR_EQ(properties.items[1].value.text, "L-64");
    property_list_free(&properties);

    CHECK(MV_LogFile_GetAllMetadata(file, collect_metadata, &metadata));
    found = find_metadata(&metadata, "vehicle");
    REQUIRE(found != NULL);
    CHECK_STR_EQ(found->value.text, "test car");
    found = find_metadata(&metadata, "runNumber");
    REQUIRE(found != NULL);
    CHECK_INT_EQ(found->value.kind, VALUE_INT);
    CHECK_INT_EQ(found->value.integer, 17);
    /* The new file describes itself, except for the time zone. */
    found = find_metadata(&metadata, "applicationName");
    REQUIRE(found != NULL);
    CHECK_STR_EQ(found->value.text, "slicer");
    found = find_metadata(&metadata, "applicationVersion");
    REQUIRE(found != NULL);
    CHECK_STR_EQ(found->value.text, "2.0");
    found = find_metadata(&metadata, "currentTimeZone");
    REQUIRE(found != NULL);
    CHECK_STR_EQ(found->value.text, "Europe/Oslo");
    found = find_metadata(&metadata, "oldApplicationName");
    REQUIRE(found != NULL);
    CHECK_STR_EQ(found->value.text, "source-app");
    found = find_metadata(&metadata, "oldApplicationVersion");
    REQUIRE(found != NULL);
    CHECK_STR_EQ(found->value.text, "1.0");
    metadata_list_free(&metadata);

    CHECK(MV_LogFile_GetAllResources(file, collect_resource, &resources));
    REQUIRE_INT_EQ(resources.count, 1);
    CHECK_STR_EQ(resources.items[0].name, "notes");
    REQUIRE_INT_EQ(resources.items[0].length, sizeof NOTES);
    CHECK_MEM_EQ(resources.items[0].data, NOTES, sizeof NOTES);
    resource_list_free(&resources);
}

static int64_t metadata_integer(MV_LogFile_p file, const char* key) {
    MV_LogMetadata_p metadata = NULL;
    int64_t value = -999;
    REQUIRE(MV_LogFile_GetMetadata(file, key, &metadata, NULL));
    CHECK(MV_LogMetadata_GetInt64(metadata, &value));
    MV_LogMetadata_Destroy(metadata);
    return value;
}

/* ---- slice -------------------------------------------------------------- */

TEST(slice_copies_the_range_with_everything_describing_it) {
    const char* sourcePath = test_path("source.mvlog");
    const char* slicePath = test_path("slice.mvlog");
    MV_LogFile_p source;
    MV_LogFile_p slice;
    MV_LogConfig_p config = deriving_config(0);
    MV_LogError_p error = NULL;
    struct bookmark_list bookmarks = {0, NULL};
    int32_t count = 0;

    record_source(sourcePath);
    source = open_log(sourcePath);
    slice = MV_LogAlgorithms_Slice(source, 4, 7, slicePath, config, &error);
    MV_LogConfig_Destroy(config);
    REQUIRE(slice != NULL);
    CHECK(error == NULL);

    check_copied_entries(__LINE__, slice, 4, 7);
    check_copied_description(slice);
    CHECK_INT_EQ(metadata_integer(slice, "compressionLevel"), 0);
    CHECK_INT_EQ(metadata_integer(slice, "logVersion"), 4);

    /* Only the bookmark on 5 lies inside 4..7; it now marks entry 2. */
    CHECK(MV_LogFile_GetBookmarks(slice, collect_bookmark, &bookmarks));
    REQUIRE_INT_EQ(bookmarks.count, 1);
    CHECK_INT_EQ(bookmarks.items[0].entry_id, 2);
    CHECK_STR_EQ(bookmarks.items[0].title, "mark 5");
    REQUIRE_INT_EQ(bookmarks.items[0].length, 6);
    CHECK_MEM_EQ(bookmarks.items[0].payload, "mark 5", 6);
    bookmark_list_free(&bookmarks);

    /* The source is only read. */
    CHECK(MV_LogFile_GetEntryCount(source, &count, NULL));
    CHECK_INT_EQ(count, 10);
    MV_LogFile_Destroy(slice);
    MV_LogFile_Destroy(source);

    /* What was written is on disk. */
    slice = open_log(slicePath);
    check_copied_entries(__LINE__, slice, 4, 7);
    MV_LogFile_Destroy(slice);
}

TEST(sliced_file_refuses_data_but_accepts_metadata) {
    const char* sourcePath = test_path("source.mvlog");
    MV_LogFile_p source;
    MV_LogFile_p slice;
    MV_LogConfig_p config = deriving_config(-1);
    MV_LogDataSource_p extra = MV_LogDataSource_Create(MV_LogDataSourceType_Radar, "radar");
    int8_t camera = 1;
    MV_LogDataSourceProperty_p property = MV_LogDataSourceProperty_CreateDouble(&camera, "fps", 30.0);
    MV_LogDataEntry_p entry = MV_LogDataEntry_Create(&camera, 1, (const uint8_t*)"x", 1);
    MV_LogMetadata_p metadata = MV_LogMetadata_CreateString("reviewed", "yes");
    MV_LogError_p error = NULL;
    int32_t count = 0;

    record_source(sourcePath);
    source = open_log(sourcePath);
    slice = MV_LogAlgorithms_Slice(source, 1, 10, test_path("slice.mvlog"), config, &error);
    REQUIRE(slice != NULL);

    CHECK(!MV_LogFile_AddDataSource(slice, extra, &error));
    CHECK_ERROR(error, SOURCES_REFUSED);
    CHECK(!MV_LogFile_AddDataSourceProperty(slice, property, &error));
    CHECK_ERROR(error, PROPERTIES_REFUSED);
    CHECK(!MV_LogFile_LogData(slice, entry, &error));
    CHECK_ERROR(error, DATA_REFUSED);
    CHECK(MV_LogFile_GetEntryCount(slice, &count, NULL));
    CHECK_INT_EQ(count, 10);
    CHECK(MV_LogFile_AddMetadata(slice, metadata, &error));
    CHECK(error == NULL);

    MV_LogMetadata_Destroy(metadata);
    MV_LogDataEntry_Destroy(entry);
    MV_LogDataSourceProperty_Destroy(property);
    MV_LogDataSource_Destroy(extra);
    MV_LogConfig_Destroy(config);
    MV_LogFile_Destroy(slice);
    MV_LogFile_Destroy(source);
}

TEST(slice_refuses_an_existing_output_and_leaves_it_alone) {
    static const char content[] = "occupied";
    const char* sourcePath = test_path("source.mvlog");
    const char* outputPath = test_path("occupied.mvlog");
    const char* directoryPath = test_path("occupied-directory");
    MV_LogConfig_p config = deriving_config(-1);
    MV_LogFile_p source;
    MV_LogError_p error = NULL;
    unsigned char* bytes;
    size_t length = 0;

    record_source(sourcePath);
    write_file(outputPath, content, sizeof content);
    make_directory(directoryPath);
    source = open_log(sourcePath);

    CHECK(MV_LogAlgorithms_Slice(source, 2, 3, outputPath, config, &error) == NULL);
    CHECK_ERROR(error, SLICE_FAILED);
    CHECK(MV_LogAlgorithms_Slice(source, 2, 3, directoryPath, config, &error) == NULL);
    CHECK_ERROR(error, SLICE_FAILED);
    CHECK(MV_LogAlgorithms_Slice(source, 2, 3, outputPath, config, NULL) == NULL);

    bytes = read_file(outputPath, &length);
    REQUIRE(bytes != NULL);
    CHECK_INT_EQ(length, sizeof content);
    CHECK_MEM_EQ(bytes, content, sizeof content);
    free(bytes);

    MV_LogConfig_Destroy(config);
    MV_LogFile_Destroy(source);
}

TEST(slice_refuses_invalid_ranges_and_writes_nothing) {
    static const int32_t ranges[][2] = {{7, 4}, {4, 11}, {0, 3}, {-1, 5}, {5, -1}, {-1, -2}};
    const char* sourcePath = test_path("source.mvlog");
    const char* outputPath = test_path("never.mvlog");
    MV_LogConfig_p config = deriving_config(-1);
    MV_LogFile_p source;
    size_t index;

    record_source(sourcePath);
    source = open_log(sourcePath);
    for (index = 0; index < sizeof ranges / sizeof ranges[0]; ++index) {
        MV_LogError_p error = NULL;
        CHECK(MV_LogAlgorithms_Slice(source, ranges[index][0], ranges[index][1], outputPath, config,
                                     &error) == NULL);
        CHECK_ERROR(error, SLICE_FAILED);
        CHECK(MV_LogAlgorithms_Slice(source, ranges[index][0], ranges[index][1], outputPath, config, NULL) ==
              NULL);
        CHECK(!path_exists(outputPath));
    }
    MV_LogConfig_Destroy(config);
    MV_LogFile_Destroy(source);
}

TEST(slice_and_clone_report_a_null_output_path) {
    const char* sourcePath = test_path("source.mvlog");
    MV_LogConfig_p config = deriving_config(-1);
    MV_LogFile_p source;
    MV_LogError_p error = NULL;

    record_source(sourcePath);
    source = open_log(sourcePath);
    CHECK(MV_LogAlgorithms_Slice(source, 1, 2, NULL, config, &error) == NULL);
    CHECK_ERROR(error, NULL_PATH);
    CHECK(MV_LogAlgorithms_Slice(source, 1, 2, NULL, config, NULL) == NULL);
    CHECK(MV_LogAlgorithms_Clone(source, NULL, config, &error) == NULL);
    CHECK_ERROR(error, NULL_PATH);
    CHECK(MV_LogAlgorithms_Clone(source, NULL, config, NULL) == NULL);
    MV_LogConfig_Destroy(config);
    MV_LogFile_Destroy(source);
}

TEST(slice_of_a_slice_keeps_the_first_producer) {
    const char* sourcePath = test_path("source.mvlog");
    MV_LogConfig_p second = MV_LogConfig_Create("third-app", "3.0", "UTC");
    MV_LogConfig_p first = deriving_config(-1);
    MV_LogFile_p source;
    MV_LogFile_p once;
    MV_LogFile_p twice;
    struct metadata_list metadata = {0, NULL};
    const struct metadata_copy* found;

    record_source(sourcePath);
    source = open_log(sourcePath);
    once = MV_LogAlgorithms_Slice(source, 2, 9, test_path("once.mvlog"), first, NULL);
    REQUIRE(once != NULL);
    twice = MV_LogAlgorithms_Slice(once, 2, 3, test_path("twice.mvlog"), second, NULL);
    REQUIRE(twice != NULL);
    check_copied_entries(__LINE__, twice, 3, 4);

    CHECK(MV_LogFile_GetAllMetadata(twice, collect_metadata, &metadata));
    found = find_metadata(&metadata, "applicationName");
    REQUIRE(found != NULL);
    CHECK_STR_EQ(found->value.text, "third-app");
    found = find_metadata(&metadata, "oldApplicationName");
    REQUIRE(found != NULL);
    CHECK_STR_EQ(found->value.text, "source-app");
    found = find_metadata(&metadata, "oldApplicationVersion");
    REQUIRE(found != NULL);
    CHECK_STR_EQ(found->value.text, "1.0");
    metadata_list_free(&metadata);

    MV_LogFile_Destroy(twice);
    MV_LogFile_Destroy(once);
    MV_LogFile_Destroy(source);
    MV_LogConfig_Destroy(first);
    MV_LogConfig_Destroy(second);
}

/* ---- clone -------------------------------------------------------------- */

TEST(clone_copies_everything_and_accepts_more_data) {
    const char* sourcePath = test_path("source.mvlog");
    const char* clonePath = test_path("clone.mvlog");
    MV_LogConfig_p config = deriving_config(9);
    MV_LogFile_p source;
    MV_LogFile_p clone;
    MV_LogError_p error = NULL;
    MV_LogDataSource_p radar = MV_LogDataSource_Create(MV_LogDataSourceType_Radar, "radar");
    MV_LogDataSourceProperty_p property;
    struct bookmark_list bookmarks = {0, NULL};
    int8_t id = 0;
    int32_t count = 0;

    record_source(sourcePath);
    source = open_log(sourcePath);
    clone = MV_LogAlgorithms_Clone(source, clonePath, config, &error);
    MV_LogConfig_Destroy(config);
    REQUIRE(clone != NULL);
    CHECK(error == NULL);

    check_copied_entries(__LINE__, clone, 1, 10);
    check_copied_description(clone);
    CHECK_INT_EQ(metadata_integer(clone, "compressionLevel"), 9);
    CHECK(MV_LogFile_GetBookmarks(clone, collect_bookmark, &bookmarks));
    REQUIRE_INT_EQ(bookmarks.count, 3);
    CHECK_INT_EQ(bookmarks.items[0].entry_id, 2);
    CHECK_INT_EQ(bookmarks.items[1].entry_id, 5);
    CHECK_INT_EQ(bookmarks.items[2].entry_id, 9);
    CHECK_STR_EQ(bookmarks.items[2].title, "mark 9");
    bookmark_list_free(&bookmarks);

    /* A clone behaves like a created file. */
    CHECK(MV_LogFile_AddDataSource(clone, radar, &error));
    CHECK(error == NULL);
    MV_LogDataSource_GetId(radar, &id);
    CHECK_INT_EQ(id, 3);
    property = MV_LogDataSourceProperty_CreateInt64(&id, "range", 250);
    CHECK(MV_LogFile_AddDataSourceProperty(clone, property, &error));
    MV_LogDataSourceProperty_Destroy(property);
    log_entry(clone, id, 11, "eleven", 6, 5500);
    CHECK(MV_LogFile_GetEntryCount(clone, &count, NULL));
    CHECK_INT_EQ(count, 11);
    CHECK(MV_LogFile_GetEntryCount(source, &count, NULL));
    CHECK_INT_EQ(count, 10);

    MV_LogDataSource_Destroy(radar);
    MV_LogFile_Destroy(clone);
    MV_LogFile_Destroy(source);
}

TEST(clone_with_an_empty_output_path_writes_beside_the_source) {
    const char* sourcePath = test_path("run.mvlog");
    const char* firstPath = test_path("run_exported.mvlog");
    const char* secondPath = test_path("run_exported-2.mvlog");
    MV_LogConfig_p config = deriving_config(-1);
    MV_LogFile_p source;
    MV_LogFile_p clone;

    record_source(sourcePath);
    source = open_log(sourcePath);
    CHECK(!path_exists(firstPath));
    clone = MV_LogAlgorithms_Clone(source, "", config, NULL);
    REQUIRE(clone != NULL);
    MV_LogFile_Destroy(clone);
    CHECK(path_exists(firstPath));

    /* The derived name is made unique rather than overwritten. */
    clone = MV_LogAlgorithms_Clone(source, "", config, NULL);
    REQUIRE(clone != NULL);
    MV_LogFile_Destroy(clone);
    CHECK(path_exists(secondPath));

    clone = open_log(firstPath);
    check_copied_entries(__LINE__, clone, 1, 10);
    MV_LogFile_Destroy(clone);
    MV_LogConfig_Destroy(config);
    MV_LogFile_Destroy(source);
}

TEST(slice_with_an_empty_output_path_writes_beside_the_source) {
    const char* sourcePath = test_path("drive.log.db");
    MV_LogConfig_p config = deriving_config(-1);
    MV_LogFile_p source;
    MV_LogFile_p slice;

    record_source(sourcePath);
    source = open_log(sourcePath);
    slice = MV_LogAlgorithms_Slice(source, 3, 3, "", config, NULL);
    REQUIRE(slice != NULL);
    MV_LogFile_Destroy(slice);
    CHECK(path_exists(test_path("drive.log_exported.db")));
    MV_LogConfig_Destroy(config);
    MV_LogFile_Destroy(source);
}

TEST(clone_refuses_an_existing_output) {
    const char* sourcePath = test_path("source.mvlog");
    const char* outputPath = test_path("taken.mvlog");
    MV_LogConfig_p config = deriving_config(-1);
    MV_LogFile_p source;
    MV_LogError_p error = NULL;

    record_source(sourcePath);
    write_file(outputPath, "x", 1);
    source = open_log(sourcePath);
    CHECK(MV_LogAlgorithms_Clone(source, outputPath, config, &error) == NULL);
    CHECK_ERROR(error, CLONE_FAILED);
    CHECK(MV_LogAlgorithms_Clone(source, sourcePath, config, &error) == NULL);
    CHECK_ERROR(error, CLONE_FAILED);
    CHECK(MV_LogAlgorithms_Clone(source, outputPath, config, NULL) == NULL);
    MV_LogConfig_Destroy(config);
    MV_LogFile_Destroy(source);
}

TEST(clone_of_a_file_without_entries) {
    const char* sourcePath = test_path("empty-source.mvlog");
    MV_LogConfig_p config = deriving_config(-1);
    MV_LogFile_p source = create_log(sourcePath, -1);
    MV_LogFile_p clone;
    struct source_list sources = {0, NULL};
    int32_t count = -1;

    add_source(source, MV_LogDataSourceType_Environment, "weather");
    clone = MV_LogAlgorithms_Clone(source, test_path("empty-clone.mvlog"), config, NULL);
    REQUIRE(clone != NULL);
    CHECK(MV_LogFile_GetEntryCount(clone, &count, NULL));
    CHECK_INT_EQ(count, 0);
    CHECK(MV_LogFile_GetDataSources(clone, collect_source, &sources, NULL));
    REQUIRE_INT_EQ(sources.count, 1);
    CHECK_STR_EQ(sources.items[0].name, "weather");
    CHECK_INT_EQ(sources.items[0].type, MV_LogDataSourceType_Environment);
    source_list_free(&sources);

    MV_LogFile_Destroy(clone);
    MV_LogConfig_Destroy(config);
    MV_LogFile_Destroy(source);
}

TEST(derived_files_report_an_error_while_copying_with_its_message) {
    const char* sourcePath = test_path("bare.mvlog");
    const char* outputPath = test_path("partial.mvlog");
    const char* quietPath = test_path("partial-quiet.mvlog");
    MV_LogConfig_p config = deriving_config(-1);
    MV_LogMetadata_p numericName = MV_LogMetadata_CreateInt64("applicationName", 5);
    MV_LogFile_p source;
    MV_LogError_p error = NULL;

    /* A file without metadata, then given an application name that is not
     * text: reading it as the previous producer fails halfway through. */
    write_file(sourcePath, "", 0);
    source = open_log(sourcePath);
    REQUIRE(MV_LogFile_AddMetadata(source, numericName, NULL));

    CHECK(MV_LogAlgorithms_Clone(source, outputPath, config, &error) == NULL);
    CHECK_ERROR(error, "std::get: wrong index for variant");
    /* What was written before the failure stays. */
    CHECK(path_exists(outputPath));
    CHECK(MV_LogAlgorithms_Clone(source, quietPath, config, NULL) == NULL);
    CHECK(path_exists(quietPath));
    /* Slice passes the same error on; both bounds -1 stand for a source
     * without entries. */
    CHECK(MV_LogAlgorithms_Slice(source, -1, -1, test_path("partial-slice.mvlog"), config, &error) == NULL);
    CHECK_ERROR(error, "std::get: wrong index for variant");

    MV_LogMetadata_Destroy(numericName);
    MV_LogConfig_Destroy(config);
    MV_LogFile_Destroy(source);
}
