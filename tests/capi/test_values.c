/* Value handles: bookmarks, data entries, data sources, properties,
 * metadata and resources, on their own. */

#include "harness.h"
#include "support.h"

#include <string.h>

/* ---- bookmarks ---------------------------------------------------------- */

TEST(bookmark_create_copies_texts_and_payload) {
    char title[] = "title";
    char comment[] = "a comment";
    uint8_t payload[] = {1, 2, 3, 0, 255};
    static const uint8_t original[] = {1, 2, 3, 0, 255};
    MV_LogBookmark_p bookmark = MV_LogBookmark_Create(42, title, comment, payload, sizeof payload);
    const char* text = NULL;
    const uint8_t* bytes = NULL;
    int64_t length = 0;
    int32_t entryId = 0;

    memset(title, '#', sizeof title - 1);
    memset(comment, '#', sizeof comment - 1);
    memset(payload, 0xEE, sizeof payload);

    MV_LogBookmark_GetEntryId(bookmark, &entryId);
    CHECK_INT_EQ(entryId, 42);
    MV_LogBookmark_GetTitle(bookmark, &text);
    CHECK_STR_EQ(text, "title");
    MV_LogBookmark_GetComment(bookmark, &text);
    CHECK_STR_EQ(text, "a comment");
    MV_LogBookmark_GetPayload(bookmark, &length, &bytes);
    REQUIRE_INT_EQ(length, sizeof original);
    CHECK_MEM_EQ(bytes, original, sizeof original);
    MV_LogBookmark_Destroy(bookmark);
}

TEST(bookmark_without_payload_has_length_zero) {
    MV_LogBookmark_p bookmark = MV_LogBookmark_Create(-1, "", "", NULL, 0);
    const uint8_t* bytes = NULL;
    int64_t length = 99;
    const char* text = NULL;
    int32_t entryId = 0;
    MV_LogBookmark_GetPayload(bookmark, &length, &bytes);
    CHECK_INT_EQ(length, 0);
    MV_LogBookmark_GetEntryId(bookmark, &entryId);
    CHECK_INT_EQ(entryId, -1);
    MV_LogBookmark_GetTitle(bookmark, &text);
    CHECK_STR_EQ(text, "");
    MV_LogBookmark_Destroy(bookmark);
}

TEST(bookmark_setters_replace_title_and_comment) {
    MV_LogBookmark_p bookmark = MV_LogBookmark_Create(1, "short", "note", NULL, 0);
    char longTitle[] = "a title far too long to be kept inside the handle itself";
    const char* before = NULL;
    const char* after = NULL;
    const char* comment = NULL;

    MV_LogBookmark_GetTitle(bookmark, &before);
    CHECK_STR_EQ(before, "short");
    MV_LogBookmark_SetTitle(bookmark, longTitle);
    longTitle[0] = 'X';
    MV_LogBookmark_GetTitle(bookmark, &after);
    /* The earlier pointer is stale now; only compare addresses. */
    CHECK(after != before);
    CHECK_STR_EQ(after, "a title far too long to be kept inside the handle itself");

    MV_LogBookmark_SetComment(bookmark, "a new comment");
    MV_LogBookmark_GetComment(bookmark, &comment);
    CHECK_STR_EQ(comment, "a new comment");
    MV_LogBookmark_SetComment(bookmark, "");
    MV_LogBookmark_GetComment(bookmark, &comment);
    CHECK_STR_EQ(comment, "");
    MV_LogBookmark_Destroy(bookmark);
}

TEST(bookmark_set_payload_with_null_and_zero_empties_it) {
    static const uint8_t payload[] = {7, 7, 7};
    MV_LogBookmark_p bookmark = MV_LogBookmark_Create(5, "t", "c", payload, sizeof payload);
    MV_LogBookmark_p empty = MV_LogBookmark_Create(6, "t", "c", NULL, 0);
    const uint8_t* bytes = NULL;
    int64_t length = -1;
    int32_t entryId = 0;
    const char* title = NULL;

    /* The historical count rule gives 2 * 0 - 0 = 0 bytes here. */
    MV_LogBookmark_SetPayload(bookmark, NULL, 0);
    MV_LogBookmark_GetPayload(bookmark, &length, &bytes);
    CHECK_INT_EQ(length, 0);
    MV_LogBookmark_GetEntryId(bookmark, &entryId);
    CHECK_INT_EQ(entryId, 5);
    MV_LogBookmark_GetTitle(bookmark, &title);
    CHECK_STR_EQ(title, "t");

    length = -1;
    MV_LogBookmark_SetPayload(empty, NULL, 0);
    MV_LogBookmark_GetPayload(empty, &length, &bytes);
    CHECK_INT_EQ(length, 0);

    MV_LogBookmark_Destroy(empty);
    MV_LogBookmark_Destroy(bookmark);
}

/* ---- data entries ---------------------------------------------------------- */

TEST(data_entry_create_copies_data_and_stamps_the_current_time) {
    uint8_t data[] = {10, 20, 30, 40};
    static const uint8_t original[] = {10, 20, 30, 40};
    int8_t source = 7;
    const int64_t before = now_ms();
    MV_LogDataEntry_p entry = MV_LogDataEntry_Create(&source, -5, data, sizeof data);
    const int64_t after = now_ms() + 1000;
    const uint8_t* bytes = NULL;
    int64_t length = 0;
    int64_t timestamp = 0;
    int32_t type = 0;
    int8_t sourceId = 0;

    source = 8;
    memset(data, 0, sizeof data);
    MV_LogDataEntry_GetDataSourceId(entry, &sourceId);
    CHECK_INT_EQ(sourceId, 7);
    MV_LogDataEntry_GetType(entry, &type);
    CHECK_INT_EQ(type, -5);
    MV_LogDataEntry_GetData(entry, &length, &bytes);
    REQUIRE_INT_EQ(length, sizeof original);
    CHECK_MEM_EQ(bytes, original, sizeof original);
    MV_LogDataEntry_GetTimestamp(entry, &timestamp);
    CHECK(timestamp >= before - 1000);
    CHECK(timestamp <= after);
    MV_LogDataEntry_Destroy(entry);
}

TEST(data_entry_with_length_zero_is_empty) {
    int8_t source = -1;
    const int64_t now = now_ms();
    MV_LogDataEntry_p entry = MV_LogDataEntry_Create(&source, 0, NULL, 0);
    const uint8_t* bytes = NULL;
    int64_t length = 99;
    int64_t timestamp = 0;
    MV_LogDataEntry_GetData(entry, &length, &bytes);
    CHECK_INT_EQ(length, 0);
    MV_LogDataEntry_GetTimestamp(entry, &timestamp);
    CHECK(timestamp >= now - 5000);
    CHECK(timestamp <= now + 5000);
    MV_LogDataEntry_Destroy(entry);
}

TEST(data_entry_set_timestamp_replaces_it) {
    int8_t source = 1;
    MV_LogDataEntry_p entry = MV_LogDataEntry_Create(&source, 1, (const uint8_t*)"a", 1);
    int64_t timestamp = 0;
    MV_LogDataEntry_SetTimestamp(entry, 1234567890123LL);
    MV_LogDataEntry_GetTimestamp(entry, &timestamp);
    CHECK_INT_EQ(timestamp, 1234567890123LL);
    MV_LogDataEntry_SetTimestamp(entry, -1);
    MV_LogDataEntry_GetTimestamp(entry, &timestamp);
    CHECK_INT_EQ(timestamp, -1);
    MV_LogDataEntry_SetTimestamp(entry, INT64_MAX);
    MV_LogDataEntry_GetTimestamp(entry, &timestamp);
    CHECK_INT_EQ(timestamp, INT64_MAX);
    MV_LogDataEntry_Destroy(entry);
}

/* ---- data sources ------------------------------------------------------------ */

TEST(data_source_create_has_id_minus_one_and_copies_the_name) {
    char name[] = "left camera";
    MV_LogDataSource_p source = MV_LogDataSource_Create(MV_LogDataSourceType_Camera, name);
    MV_LogDataSourceType type = MV_LogDataSourceType_Invalid;
    const char* stored = NULL;
    int8_t id = 0;

    name[0] = 'X';
    MV_LogDataSource_GetId(source, &id);
    CHECK_INT_EQ(id, -1);
    CHECK_INT_EQ((uint8_t)id, 0xFF);
    MV_LogDataSource_GetName(source, &stored);
    CHECK_STR_EQ(stored, "left camera");
    MV_LogDataSource_GetType(source, &type);
    CHECK_INT_EQ(type, MV_LogDataSourceType_Camera);
    MV_LogDataSource_Destroy(source);

    source = MV_LogDataSource_Create((MV_LogDataSourceType)-77, "");
    MV_LogDataSource_GetType(source, &type);
    CHECK_INT_EQ(type, -77);
    MV_LogDataSource_GetName(source, &stored);
    CHECK_STR_EQ(stored, "");
    MV_LogDataSource_Destroy(source);
}

TEST(data_source_type_names_are_the_library_table) {
    MV_LogDataSourceType type = MV_LogDataSourceType_Invalid;

    CHECK_STR_EQ(MV_LogDataSourceType_GetName(MV_LogDataSourceType_VehicleBus), "VehicleBus");
    CHECK_STR_EQ(MV_LogDataSourceType_GetName(MV_LogDataSourceType_Invalid), "Invalid");
    CHECK(MV_LogDataSourceType_GetName((MV_LogDataSourceType)42) == NULL);

    CHECK(MV_LogDataSourceType_FromName("lidar", &type));
    CHECK_INT_EQ(type, MV_LogDataSourceType_Lidar);
    CHECK(MV_LogDataSourceType_FromName("-77", &type));
    CHECK_INT_EQ(type, -77);
    type = MV_LogDataSourceType_Text;
    CHECK(!MV_LogDataSourceType_FromName("periscope", &type));
    CHECK(!MV_LogDataSourceType_FromName("", &type));
    CHECK(!MV_LogDataSourceType_FromName(NULL, &type));
    CHECK_INT_EQ(type, MV_LogDataSourceType_Text);
}

/* ---- data-source properties ---------------------------------------------------- */

TEST(property_made_as_int32_is_read_by_no_typed_getter) {
    int8_t source = 3;
    MV_LogDataSourceProperty_p property = MV_LogDataSourceProperty_CreateInt32(&source, "gain", 5);
    int32_t narrow = 77;
    int64_t wide = 77;
    double real = 77.0;
    const char* text = "untouched";
    const char* name = NULL;
    int8_t sourceId = 0;

    CHECK(!MV_LogDataSourceProperty_GetInt32(property, &narrow));
    CHECK_INT_EQ(narrow, 77);
    CHECK(!MV_LogDataSourceProperty_GetInt64(property, &wide));
    CHECK_INT_EQ(wide, 77);
    CHECK(!MV_LogDataSourceProperty_GetDouble(property, &real));
    CHECK(real == 77.0);
    CHECK(!MV_LogDataSourceProperty_GetString(property, &text));
    CHECK_STR_EQ(text, "untouched");
    MV_LogDataSourceProperty_GetDataSourceId(property, &sourceId);
    CHECK_INT_EQ(sourceId, 3);
    MV_LogDataSourceProperty_GetPropertyName(property, &name);
    CHECK_STR_EQ(name, "gain");
    MV_LogDataSourceProperty_Destroy(property);
}

TEST(property_int64_narrows_to_its_low_32_bits) {
    int8_t source = 1;
    MV_LogDataSourceProperty_p property = MV_LogDataSourceProperty_CreateInt64(&source, "big", 5000000000LL);
    int32_t narrow = 0;
    int64_t wide = 0;
    double real = 3.5;
    const char* text = "untouched";

    CHECK(MV_LogDataSourceProperty_GetInt32(property, &narrow));
    CHECK_INT_EQ(narrow, (int32_t)(uint32_t)(5000000000ULL & 0xFFFFFFFFULL));
    CHECK_INT_EQ(narrow, 705032704);
    CHECK(MV_LogDataSourceProperty_GetInt64(property, &wide));
    CHECK_INT_EQ(wide, 5000000000LL);
    CHECK(!MV_LogDataSourceProperty_GetDouble(property, &real));
    CHECK(real == 3.5);
    CHECK(!MV_LogDataSourceProperty_GetString(property, &text));
    CHECK_STR_EQ(text, "untouched");
    MV_LogDataSourceProperty_Destroy(property);

    property = MV_LogDataSourceProperty_CreateInt64(&source, "negative", -2);
    CHECK(MV_LogDataSourceProperty_GetInt32(property, &narrow));
    CHECK_INT_EQ(narrow, -2);
    MV_LogDataSourceProperty_Destroy(property);
}

TEST(property_double_and_string_getters) {
    int8_t source = -4;
    char value[] = "orange";
    MV_LogDataSourceProperty_p real = MV_LogDataSourceProperty_CreateDouble(&source, "ratio", 0.125);
    MV_LogDataSourceProperty_p text = MV_LogDataSourceProperty_CreateString(&source, "colour", value);
    const char* out = "untouched";
    double number = 0.0;
    int64_t wide = 12;
    int32_t narrow = 12;
    int8_t sourceId = 0;

    value[0] = 'X';
    CHECK(MV_LogDataSourceProperty_GetDouble(real, &number));
    CHECK(number == 0.125);
    CHECK(!MV_LogDataSourceProperty_GetString(real, &out));
    CHECK_STR_EQ(out, "untouched");
    CHECK(!MV_LogDataSourceProperty_GetInt32(real, &narrow));
    CHECK_INT_EQ(narrow, 12);
    MV_LogDataSourceProperty_GetDataSourceId(real, &sourceId);
    CHECK_INT_EQ(sourceId, -4);

    CHECK(MV_LogDataSourceProperty_GetString(text, &out));
    CHECK_STR_EQ(out, "orange");
    number = 9.0;
    CHECK(!MV_LogDataSourceProperty_GetDouble(text, &number));
    CHECK(number == 9.0);
    CHECK(!MV_LogDataSourceProperty_GetInt64(text, &wide));
    CHECK_INT_EQ(wide, 12);

    MV_LogDataSourceProperty_Destroy(text);
    MV_LogDataSourceProperty_Destroy(real);
}

/* ---- metadata ------------------------------------------------------------------ */

TEST(metadata_getters_follow_the_property_rules) {
    MV_LogMetadata_p small = MV_LogMetadata_CreateInt32("small", 5);
    MV_LogMetadata_p big = MV_LogMetadata_CreateInt64("big", 5000000000LL);
    MV_LogMetadata_p real = MV_LogMetadata_CreateDouble("real", 2.5);
    MV_LogMetadata_p text = MV_LogMetadata_CreateString("text", "value");
    const char* out = "untouched";
    const char* key = NULL;
    int32_t narrow = 1;
    int64_t wide = 1;
    double number = 1.0;

    CHECK(!MV_LogMetadata_GetInt32(small, &narrow));
    CHECK_INT_EQ(narrow, 1);
    CHECK(!MV_LogMetadata_GetInt64(small, &wide));
    CHECK_INT_EQ(wide, 1);
    MV_LogMetadata_GetKey(small, &key);
    CHECK_STR_EQ(key, "small");

    CHECK(MV_LogMetadata_GetInt32(big, &narrow));
    CHECK_INT_EQ(narrow, (int32_t)705032704);
    CHECK(MV_LogMetadata_GetInt64(big, &wide));
    CHECK_INT_EQ(wide, 5000000000LL);
    CHECK(!MV_LogMetadata_GetDouble(big, &number));
    CHECK(number == 1.0);

    CHECK(MV_LogMetadata_GetDouble(real, &number));
    CHECK(number == 2.5);
    CHECK(!MV_LogMetadata_GetString(real, &out));
    CHECK_STR_EQ(out, "untouched");
    MV_LogMetadata_GetKey(real, &key);
    CHECK_STR_EQ(key, "real");

    CHECK(MV_LogMetadata_GetString(text, &out));
    CHECK_STR_EQ(out, "value");
    CHECK(!MV_LogMetadata_GetInt64(text, &wide));
    MV_LogMetadata_GetKey(text, &key);
    CHECK_STR_EQ(key, "text");

    MV_LogMetadata_Destroy(text);
    MV_LogMetadata_Destroy(real);
    MV_LogMetadata_Destroy(big);
    MV_LogMetadata_Destroy(small);
}

/* ---- resources ------------------------------------------------------------------ */

TEST(resource_create_copies_name_and_data) {
    char name[] = "map tile";
    uint8_t data[300];
    uint8_t original[300];
    MV_LogResource_p resource;
    const uint8_t* bytes = NULL;
    const char* stored = NULL;
    int64_t length = 0;
    size_t index;

    for (index = 0; index < sizeof data; ++index) {
        data[index] = (uint8_t)(index * 7);
    }
    memcpy(original, data, sizeof data);
    resource = MV_LogResource_Create(name, data, sizeof data);
    name[0] = 'X';
    memset(data, 0, sizeof data);

    MV_LogResource_GetName(resource, &stored);
    CHECK_STR_EQ(stored, "map tile");
    MV_LogResource_GetData(resource, &length, &bytes);
    REQUIRE_INT_EQ(length, sizeof original);
    CHECK_MEM_EQ(bytes, original, sizeof original);
    MV_LogResource_Destroy(resource);

    resource = MV_LogResource_Create("nothing", NULL, 0);
    length = 99;
    MV_LogResource_GetData(resource, &length, &bytes);
    CHECK_INT_EQ(length, 0);
    MV_LogResource_Destroy(resource);
}
