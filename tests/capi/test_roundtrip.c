/* A whole recording written and read back through the C interface alone. */

#include "harness.h"
#include "support.h"

#include <stdlib.h>
#include <string.h>

#define ENTRY_COUNT 100
#define LARGE_ENTRY 50
#define LARGE_SIZE (1024 * 1024)
#define BASE_TIME 1700000000000LL

struct recording {
    int8_t sources[3];
    unsigned char* payloads[ENTRY_COUNT];
    int64_t lengths[ENTRY_COUNT];
};

static const MV_LogDataSourceType SOURCE_TYPES[3] = {MV_LogDataSourceType_Camera, MV_LogDataSourceType_Lidar,
                                                     MV_LogDataSourceType_Navigation};
static const char* const SOURCE_NAMES[3] = {"front camera", "roof lidar", "gnss receiver"};

static const uint8_t CALIBRATION_SEED = 0x5A;
static const uint8_t THUMBNAIL[] = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A, 0x00, 0x00, 0x00, 0x0D,
                                    'I',  'H', 'D', 'R', 0x00, 0x00, 0x00, 0x10, 0x00, 0x00, 0x00, 0x10};
static const uint8_t MARK_PAYLOAD[] = {0xDE, 0xAD, 0xBE, 0xEF, 0x00, 0x01};

static int32_t entry_type(int index) {
    return index % 5 + 1;
}
static int64_t entry_time(int index) {
    return BASE_TIME + 37 * (int64_t)index;
}

/* Entry 0 is empty, entry LARGE_ENTRY holds 1 MiB of noise, the others
 * a mix of runs and counters so that compression has something to do. */
static void make_payloads(struct recording* recording) {
    uint32_t state = 2463534242u;
    int index;
    for (index = 0; index < ENTRY_COUNT; ++index) {
        int64_t length = index == 0 ? 0 : index == LARGE_ENTRY ? LARGE_SIZE : 1 + 13 * (int64_t)index;
        int64_t position;
        unsigned char* bytes = malloc(length == 0 ? 1 : (size_t)length);
        REQUIRE(bytes != NULL);
        for (position = 0; position < length; ++position) {
            if (index == LARGE_ENTRY || index % 3 == 0) {
                state ^= state << 13;
                state ^= state >> 17;
                state ^= state << 5;
                bytes[position] = (unsigned char)state;
            } else {
                bytes[position] = (unsigned char)(index + position / 8);
            }
        }
        recording->payloads[index] = bytes;
        recording->lengths[index] = length;
    }
}

static void free_payloads(struct recording* recording) {
    int index;
    for (index = 0; index < ENTRY_COUNT; ++index) {
        free(recording->payloads[index]);
    }
}

static void calibration_bytes(uint8_t* bytes, size_t length) {
    size_t index;
    for (index = 0; index < length; ++index) {
        bytes[index] = (uint8_t)(CALIBRATION_SEED ^ (index * 11));
    }
}

static void record(const char* path, int8_t level, struct recording* recording) {
    MV_LogConfig_p config = MV_LogConfig_Create("round-trip", "4.5.6", "Australia/Adelaide");
    MV_LogError_p error = NULL;
    MV_LogFile_p file;
    MV_LogDataSourceProperty_p property;
    MV_LogMetadata_p metadata;
    MV_LogResource_p resource;
    MV_LogBookmark_p bookmark;
    uint8_t calibration[4096];
    int index;

    REQUIRE(MV_LogConfig_SetCompressionLevel(config, level, &error));
    file = MV_LogFile_Create(path, config, &error);
    MV_LogConfig_Destroy(config);
    REQUIRE(file != NULL);

    for (index = 0; index < 3; ++index) {
        recording->sources[index] = add_source(file, SOURCE_TYPES[index], SOURCE_NAMES[index]);
        CHECK_INT_EQ(recording->sources[index], index + 1);
    }

    property = MV_LogDataSourceProperty_CreateInt32(&recording->sources[0], "width", 1920);
    CHECK(MV_LogFile_AddDataSourceProperty(file, property, &error));
    MV_LogDataSourceProperty_Destroy(property);
    property = MV_LogDataSourceProperty_CreateInt64(&recording->sources[1], "serial", 9000000000LL);
    CHECK(MV_LogFile_AddDataSourceProperty(file, property, &error));
    MV_LogDataSourceProperty_Destroy(property);
    property = MV_LogDataSourceProperty_CreateDouble(&recording->sources[2], "rate", 10.5);
    CHECK(MV_LogFile_AddDataSourceProperty(file, property, &error));
    MV_LogDataSourceProperty_Destroy(property);
    property = MV_LogDataSourceProperty_CreateString(&recording->sources[0], "model", "XC-1 \xC3\xA9tude");
    CHECK(MV_LogFile_AddDataSourceProperty(file, property, &error));
    MV_LogDataSourceProperty_Destroy(property);
    REQUIRE(error == NULL);

    for (index = 0; index < ENTRY_COUNT; ++index) {
        log_entry(file, recording->sources[index % 3], entry_type(index), recording->payloads[index],
                  recording->lengths[index], entry_time(index));
    }

    metadata = MV_LogMetadata_CreateString("vehicle", "test car 7");
    CHECK(MV_LogFile_AddMetadata(file, metadata, &error));
    MV_LogMetadata_Destroy(metadata);
    metadata = MV_LogMetadata_CreateInt64("odometer", 123456789012LL);
    CHECK(MV_LogFile_AddMetadata(file, metadata, &error));
    MV_LogMetadata_Destroy(metadata);
    metadata = MV_LogMetadata_CreateDouble("temperature", 21.75);
    CHECK(MV_LogFile_AddMetadata(file, metadata, &error));
    MV_LogMetadata_Destroy(metadata);
    metadata = MV_LogMetadata_CreateInt32("runNumber", -12);
    CHECK(MV_LogFile_AddMetadata(file, metadata, &error));
    MV_LogMetadata_Destroy(metadata);

    calibration_bytes(calibration, sizeof calibration);
    resource = MV_LogResource_Create("calibration", calibration, sizeof calibration);
    CHECK(MV_LogFile_AddResource(file, resource, &error));
    MV_LogResource_Destroy(resource);
    resource = MV_LogResource_Create("thumbnail", THUMBNAIL, sizeof THUMBNAIL);
    CHECK(MV_LogFile_AddResource(file, resource, &error));
    MV_LogResource_Destroy(resource);

    bookmark = MV_LogBookmark_Create(1, "first", "the empty entry", MARK_PAYLOAD, sizeof MARK_PAYLOAD);
    CHECK(MV_LogFile_AddBookmark(file, bookmark, &error));
    MV_LogBookmark_Destroy(bookmark);
    bookmark = MV_LogBookmark_Create(LARGE_ENTRY + 1, "large", "one mebibyte", NULL, 0);
    CHECK(MV_LogFile_AddBookmark(file, bookmark, &error));
    MV_LogBookmark_Destroy(bookmark);
    bookmark = MV_LogBookmark_Create(ENTRY_COUNT, "last", "", MARK_PAYLOAD + 2, 2);
    CHECK(MV_LogFile_AddBookmark(file, bookmark, &error));
    MV_LogBookmark_Destroy(bookmark);
    CHECK(error == NULL);

    MV_LogFile_Destroy(file);
}

static void check_entry(const struct entry_copy* entry, const struct recording* recording, int index) {
    if (entry->source != recording->sources[index % 3] || entry->type != entry_type(index) ||
        entry->timestamp != entry_time(index) || entry->length != recording->lengths[index]) {
        harness_fail(__FILE__, __LINE__, "entry %d: source %d type %d time %lld length %lld", index + 1,
                     entry->source, entry->type, (long long)entry->timestamp, (long long)entry->length);
        return;
    }
    CHECK_MEM_EQ(entry->data, recording->payloads[index], recording->lengths[index]);
}

/* Keeps the data-source handles of a list for later calls; the test
 * destroys them. */
struct kept_sources {
    size_t count;
    MV_LogDataSource_p handles[8];
};

static void keep_source(void* user, MV_LogDataSource_p source) {
    struct kept_sources* kept = user;
    if (kept->count < sizeof kept->handles / sizeof kept->handles[0]) {
        kept->handles[kept->count++] = source;
    } else {
        MV_LogDataSource_Destroy(source);
    }
}

static void read_back(const char* path, int8_t level, const struct recording* recording) {
    MV_LogFile_p file = open_log(path);
    MV_LogEntryIndexFilter_p filter = MV_LogEntryIndexFilter_Create();
    MV_LogError_p error = NULL;
    struct entry_list entries = {0, NULL};
    struct source_list sources = {0, NULL};
    struct property_list properties = {0, NULL};
    struct metadata_list metadata = {0, NULL};
    struct resource_list resources = {0, NULL};
    struct bookmark_list bookmarks = {0, NULL};
    const struct metadata_copy* found;
    struct kept_sources kept = {0, {NULL}};
    const char* text = NULL;
    MV_LogDataSourceProperty_p property = NULL;
    MV_LogResource_p resource = NULL;
    uint8_t calibration[4096];
    const uint8_t* bytes = NULL;
    int64_t length = 0;
    double real = 0.0;
    int32_t value = 0;
    int index;

    CHECK(MV_LogFile_GetEntryCount(file, &value, &error));
    CHECK_INT_EQ(value, ENTRY_COUNT);
    CHECK(MV_LogFile_GetFirstEntryId(file, &value, &error));
    CHECK_INT_EQ(value, 1);
    CHECK(MV_LogFile_GetLastEntryId(file, &value, &error));
    CHECK_INT_EQ(value, ENTRY_COUNT);

    /* One by one... */
    for (index = 0; index < ENTRY_COUNT; ++index) {
        MV_LogDataEntry_p entry = NULL;
        REQUIRE(MV_LogFile_ReadEntry(file, index + 1, &entry, &error));
        collect_entry(&entries, entry);
        check_entry(&entries.items[0], recording, index);
        entry_list_free(&entries);
    }
    /* ...and all at once. */
    CHECK(MV_LogFile_ReadEntries(file, -1, -1, filter, -1, collect_entry, &entries));
    REQUIRE_INT_EQ(entries.count, ENTRY_COUNT);
    for (index = 0; index < ENTRY_COUNT; ++index) {
        check_entry(&entries.items[index], recording, index);
    }
    entry_list_free(&entries);
    CHECK(error == NULL);

    CHECK(MV_LogFile_GetDataSources(file, collect_source, &sources, &error));
    REQUIRE_INT_EQ(sources.count, 3);
    for (index = 0; index < 3; ++index) {
        CHECK_INT_EQ(sources.items[index].id, recording->sources[index]);
        CHECK_INT_EQ(sources.items[index].type, SOURCE_TYPES[index]);
        CHECK_STR_EQ(sources.items[index].name, SOURCE_NAMES[index]);
    }
    source_list_free(&sources);

    CHECK(MV_LogFile_GetAllDataSourceProperties(file, collect_property, &properties, &error));
    REQUIRE_INT_EQ(properties.count, 4);
    CHECK_INT_EQ(properties.items[0].source, 1);
    CHECK_STR_EQ(properties.items[0].name, "width");
    CHECK_INT_EQ(properties.items[0].value.kind, VALUE_INT);
    CHECK_INT_EQ(properties.items[0].value.integer, 1920);
    CHECK_INT_EQ(properties.items[1].source, 2);
    CHECK_STR_EQ(properties.items[1].name, "serial");
    CHECK_INT_EQ(properties.items[1].value.integer, 9000000000LL);
    CHECK_INT_EQ(properties.items[2].source, 3);
    CHECK_INT_EQ(properties.items[2].value.kind, VALUE_DOUBLE);
    CHECK(properties.items[2].value.real == 10.5);
    CHECK_INT_EQ(properties.items[3].source, 1);
    CHECK_INT_EQ(properties.items[3].value.kind, VALUE_STRING);
    CHECK_STR_EQ(properties.items[3].value.text, "XC-1 \xC3\xA9tude");
    property_list_free(&properties);

    /* Single properties, asked for through the data-source handles the file
     * hands out. */
    CHECK(MV_LogFile_GetDataSources(file, keep_source, &kept, &error));
    REQUIRE_INT_EQ(kept.count, 3);
    REQUIRE(MV_LogFile_GetDataSourceProperty(file, kept.handles[0], "width", &property, &error));
    CHECK(MV_LogDataSourceProperty_GetInt32(property, &value));
    CHECK_INT_EQ(value, 1920);
    MV_LogDataSourceProperty_Destroy(property);
    REQUIRE(MV_LogFile_GetDataSourceProperty(file, kept.handles[0], "model", &property, &error));
    CHECK(MV_LogDataSourceProperty_GetString(property, &text));
    CHECK_STR_EQ(text, "XC-1 \xC3\xA9tude");
    MV_LogDataSourceProperty_Destroy(property);
    REQUIRE(MV_LogFile_GetDataSourceProperty(file, kept.handles[2], "rate", &property, &error));
    CHECK(MV_LogDataSourceProperty_GetDouble(property, &real));
    CHECK(real == 10.5);
    MV_LogDataSourceProperty_Destroy(property);
    /* The serial belongs to the lidar only. */
    property = NULL;
    CHECK(!MV_LogFile_GetDataSourceProperty(file, kept.handles[0], "serial", &property, NULL));
    CHECK(property == NULL);
    for (index = 0; index < (int)kept.count; ++index) {
        MV_LogDataSource_Destroy(kept.handles[index]);
    }
    CHECK(error == NULL);

    CHECK(MV_LogFile_GetAllMetadata(file, collect_metadata, &metadata));
    REQUIRE_INT_EQ(metadata.count, 10);
    found = find_metadata(&metadata, "applicationName");
    REQUIRE(found != NULL);
    CHECK_STR_EQ(found->value.text, "round-trip");
    found = find_metadata(&metadata, "applicationVersion");
    REQUIRE(found != NULL);
    CHECK_STR_EQ(found->value.text, "4.5.6");
    found = find_metadata(&metadata, "currentTimeZone");
    REQUIRE(found != NULL);
    CHECK_STR_EQ(found->value.text, "Australia/Adelaide");
    found = find_metadata(&metadata, "logVersion");
    REQUIRE(found != NULL);
    CHECK_INT_EQ(found->value.integer, 4);
    found = find_metadata(&metadata, "compressionLevel");
    REQUIRE(found != NULL);
    CHECK_INT_EQ(found->value.integer, level);
    found = find_metadata(&metadata, "vehicle");
    REQUIRE(found != NULL);
    CHECK_STR_EQ(found->value.text, "test car 7");
    found = find_metadata(&metadata, "odometer");
    REQUIRE(found != NULL);
    CHECK_INT_EQ(found->value.integer, 123456789012LL);
    found = find_metadata(&metadata, "temperature");
    REQUIRE(found != NULL);
    CHECK_INT_EQ(found->value.kind, VALUE_DOUBLE);
    CHECK(found->value.real == 21.75);
    found = find_metadata(&metadata, "runNumber");
    REQUIRE(found != NULL);
    CHECK_INT_EQ(found->value.kind, VALUE_INT);
    CHECK_INT_EQ(found->value.integer, -12);
    metadata_list_free(&metadata);

    calibration_bytes(calibration, sizeof calibration);
    REQUIRE(MV_LogFile_GetResource(file, "calibration", &resource, &error));
    MV_LogResource_GetData(resource, &length, &bytes);
    REQUIRE_INT_EQ(length, sizeof calibration);
    CHECK_MEM_EQ(bytes, calibration, sizeof calibration);
    MV_LogResource_Destroy(resource);
    REQUIRE(MV_LogFile_GetResource(file, "thumbnail", &resource, &error));
    MV_LogResource_GetData(resource, &length, &bytes);
    REQUIRE_INT_EQ(length, sizeof THUMBNAIL);
    CHECK_MEM_EQ(bytes, THUMBNAIL, sizeof THUMBNAIL);
    MV_LogResource_Destroy(resource);
    CHECK(MV_LogFile_GetAllResources(file, collect_resource, &resources));
    REQUIRE_INT_EQ(resources.count, 2);
    CHECK_STR_EQ(resources.items[0].name, "calibration");
    CHECK_STR_EQ(resources.items[1].name, "thumbnail");
    REQUIRE_INT_EQ(resources.items[1].length, sizeof THUMBNAIL);
    CHECK_MEM_EQ(resources.items[1].data, THUMBNAIL, sizeof THUMBNAIL);
    resource_list_free(&resources);

    CHECK(MV_LogFile_GetBookmarks(file, collect_bookmark, &bookmarks));
    REQUIRE_INT_EQ(bookmarks.count, 3);
    CHECK_INT_EQ(bookmarks.items[0].entry_id, 1);
    CHECK_STR_EQ(bookmarks.items[0].title, "first");
    CHECK_STR_EQ(bookmarks.items[0].comment, "the empty entry");
    REQUIRE_INT_EQ(bookmarks.items[0].length, sizeof MARK_PAYLOAD);
    CHECK_MEM_EQ(bookmarks.items[0].payload, MARK_PAYLOAD, sizeof MARK_PAYLOAD);
    CHECK_INT_EQ(bookmarks.items[1].entry_id, LARGE_ENTRY + 1);
    CHECK_STR_EQ(bookmarks.items[1].title, "large");
    CHECK_INT_EQ(bookmarks.items[1].length, 0);
    CHECK_INT_EQ(bookmarks.items[2].entry_id, ENTRY_COUNT);
    CHECK_STR_EQ(bookmarks.items[2].comment, "");
    REQUIRE_INT_EQ(bookmarks.items[2].length, 2);
    CHECK_MEM_EQ(bookmarks.items[2].payload, MARK_PAYLOAD + 2, 2);
    bookmark_list_free(&bookmarks);

    MV_LogEntryIndexFilter_Destroy(filter);
    MV_LogFile_Destroy(file);
}

static void round_trip(int8_t level) {
    static struct recording recording;
    const char* path = test_path("round-trip.mvlog");
    memset(&recording, 0, sizeof recording);
    make_payloads(&recording);
    record(path, level, &recording);
    read_back(path, level, &recording);
    free_payloads(&recording);
}

TEST(round_trip_at_compression_level_9) {
    round_trip(9);
}

TEST(round_trip_uncompressed) {
    round_trip(0);
}

TEST(round_trip_at_the_default_level) {
    round_trip(-1);
}
