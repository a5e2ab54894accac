/* Streaming reads in time order through the C interface. */
#include "support.h"

#include <logging/MV_Logging.h>

#include <stdint.h>
#include <stdio.h>
#include <string.h>

/* Programs are compiled against this exact prototype and these values. */
typedef bool (*ordered_visit_function)(MV_LogFile_p, int32_t, int32_t, int64_t, int64_t,
                                       MV_LogEntryIndexFilter_p, MV_LogEntryOrder, MV_LogEntryViewCallback,
                                       void*, MV_LogError_p*);
static const ordered_visit_function exact_prototype = MV_LogFile_VisitEntriesOrdered;

/* Entry i (1-based) of the order files: timestamp order_timestamps[i - 1],
 * camera for odd ids and gnss for even ones, type i % 3, payload "entry-<i>".
 * Equal timestamps, and ids that do not follow time. */
#define ORDER_ENTRIES 12
static const int64_t order_timestamps[ORDER_ENTRIES] = {500, 300, 300, 100, 700, 200,
                                                        300, 900, 100, 600, 400, 800};
/* The same entries by (timestamp, id). */
static const int32_t order_by_time[ORDER_ENTRIES] = {4, 9, 6, 2, 3, 7, 11, 1, 10, 5, 12, 8};

static int8_t order_camera = -1;
static int8_t order_gnss = -1;

static void make_order_file(const char* path, int8_t level, bool with_index) {
    MV_LogFile_p file = create_log(path, level);
    MV_LogError_p error = NULL;
    char text[32];
    int i;
    order_camera = add_source(file, MV_LogDataSourceType_Camera, "camera");
    order_gnss = add_source(file, MV_LogDataSourceType_Navigation, "gnss");
    for (i = 1; i <= ORDER_ENTRIES; ++i) {
        snprintf(text, sizeof text, "entry-%d", i);
        log_entry(file, i % 2 == 1 ? order_camera : order_gnss, i % 3, text, (int64_t)strlen(text),
                  order_timestamps[i - 1]);
    }
    if (with_index) {
        CHECK(MV_LogFile_CreateTimeIndex(file, &error));
    }
    MV_LogFile_Destroy(file);
}

struct order_record {
    int count;
    int32_t ids[ORDER_ENTRIES + 1];
    int mismatches;
    int stop_after;
};

static bool record_ordered(void* userData, const MV_LogEntryView* entry) {
    struct order_record* record = (struct order_record*)userData;
    char expected[32];
    snprintf(expected, sizeof expected, "entry-%d", (int)entry->entryId);
    if (entry->entryId < 1 || entry->entryId > ORDER_ENTRIES || entry->size != strlen(expected) ||
        memcmp(entry->data, expected, entry->size) != 0 ||
        entry->timestamp != order_timestamps[entry->entryId - 1] || entry->type != entry->entryId % 3 ||
        entry->dataSourceId != (entry->entryId % 2 == 1 ? order_camera : order_gnss)) {
        ++record->mismatches;
    }
    if (record->count <= ORDER_ENTRIES) {
        record->ids[record->count] = entry->entryId;
    }
    ++record->count;
    return record->stop_after == 0 || record->count < record->stop_after;
}

static void check_ids(const struct order_record* record, const int32_t* expected, int count) {
    int i;
    CHECK_INT_EQ(record->count, count);
    CHECK_INT_EQ(record->mismatches, 0);
    for (i = 0; i < count && i < record->count; ++i) {
        CHECK_INT_EQ(record->ids[i], expected[i]);
    }
}

static void order_follows_time(int8_t level, bool with_index) {
    const char* path = test_path("order.mvlog");
    MV_LogFile_p file = NULL;
    MV_LogError_p error = NULL;
    struct order_record record;
    static const int32_t by_id[ORDER_ENTRIES] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    make_order_file(path, level, with_index);
    file = MV_LogFile_OpenReadOnly(path, &error);
    REQUIRE(file != NULL);

    memset(&record, 0, sizeof record);
    CHECK(exact_prototype(file, -1, -1, INT64_MIN, INT64_MAX, NULL, MV_LOG_ORDER_TIME, record_ordered,
                          &record, &error));
    check_ids(&record, order_by_time, ORDER_ENTRIES);

    memset(&record, 0, sizeof record);
    CHECK(MV_LogFile_VisitEntriesOrdered(file, -1, -1, INT64_MIN, INT64_MAX, NULL, MV_LOG_ORDER_ID,
                                         record_ordered, &record, &error));
    check_ids(&record, by_id, ORDER_ENTRIES);
    CHECK(error == NULL);
    MV_LogFile_Destroy(file);
}

TEST(ordered_visit_values_of_the_order) {
    CHECK_INT_EQ(MV_LOG_ORDER_ID, 0);
    CHECK_INT_EQ(MV_LOG_ORDER_TIME, 1);
    CHECK_INT_EQ(sizeof(MV_LogEntryOrder), sizeof(int));
}

TEST(ordered_visit_follows_time_ties_by_id_without_the_index) {
    order_follows_time(-1, false);
}

TEST(ordered_visit_follows_time_ties_by_id_with_the_index) {
    order_follows_time(-1, true);
}

TEST(ordered_visit_follows_time_at_level_0) {
    order_follows_time(0, false);
}

static void order_with_bounds(bool with_index) {
    const char* path = test_path("order-bounds.mvlog");
    MV_LogFile_p file = NULL;
    MV_LogError_p error = NULL;
    MV_LogEntryIndexFilter_p filter = MV_LogEntryIndexFilter_Create();
    struct order_record record;
    make_order_file(path, -1, with_index);
    file = MV_LogFile_OpenReadOnly(path, &error);
    REQUIRE(file != NULL);

    {
        /* Ids 2..11, timestamps 200..700. */
        static const int32_t expected[] = {6, 2, 3, 7, 11, 10, 5};
        memset(&record, 0, sizeof record);
        CHECK(MV_LogFile_VisitEntriesOrdered(file, 2, 11, 200, 700, NULL, MV_LOG_ORDER_TIME, record_ordered,
                                             &record, &error));
        check_ids(&record, expected, 7);
    }
    {
        /* The same with the cameras only (odd ids). */
        static const int32_t expected[] = {3, 7, 11, 5};
        MV_LogEntryIndexFilter_AddDataSourceType(filter, MV_LogDataSourceType_Camera);
        memset(&record, 0, sizeof record);
        CHECK(MV_LogFile_VisitEntriesOrdered(file, 2, 11, 200, 700, filter, MV_LOG_ORDER_TIME, record_ordered,
                                             &record, &error));
        check_ids(&record, expected, 4);
    }
    {
        /* And of type 1 or 2 among them; then stopped after one. */
        static const int32_t expected[] = {7, 11, 5};
        MV_LogEntryIndexFilter_AddDataType(filter, 1);
        MV_LogEntryIndexFilter_AddDataType(filter, 2);
        memset(&record, 0, sizeof record);
        CHECK(MV_LogFile_VisitEntriesOrdered(file, 2, 11, 200, 700, filter, MV_LOG_ORDER_TIME, record_ordered,
                                             &record, &error));
        check_ids(&record, expected, 3);
        memset(&record, 0, sizeof record);
        record.stop_after = 1;
        CHECK(MV_LogFile_VisitEntriesOrdered(file, 2, 11, 200, 700, filter, MV_LOG_ORDER_TIME, record_ordered,
                                             &record, &error));
        check_ids(&record, expected, 1);
    }
    /* Nothing in range: true, nothing visited. */
    memset(&record, 0, sizeof record);
    CHECK(MV_LogFile_VisitEntriesOrdered(file, -1, -1, 1000, 2000, NULL, MV_LOG_ORDER_TIME, record_ordered,
                                         &record, &error));
    CHECK_INT_EQ(record.count, 0);
    CHECK(error == NULL);
    MV_LogEntryIndexFilter_Destroy(filter);
    MV_LogFile_Destroy(file);
}

TEST(ordered_visit_applies_id_and_time_bounds_and_the_filter_without_the_index) {
    order_with_bounds(false);
}

TEST(ordered_visit_applies_id_and_time_bounds_and_the_filter_with_the_index) {
    order_with_bounds(true);
}

TEST(ordered_visit_refuses_an_unknown_order) {
    const char* path = test_path("order-unknown.mvlog");
    MV_LogFile_p file = NULL;
    MV_LogError_p error = NULL;
    struct order_record record;
    make_order_file(path, 0, false);
    file = open_log(path);
    memset(&record, 0, sizeof record);
    CHECK(!MV_LogFile_VisitEntriesOrdered(file, -1, -1, INT64_MIN, INT64_MAX, NULL, (MV_LogEntryOrder)7,
                                          record_ordered, &record, &error));
    CHECK_INT_EQ(record.count, 0);
    CHECK_ERROR(error, "Unknown entry order 7.");
    /* A null error pointer is allowed. */
    CHECK(!MV_LogFile_VisitEntriesOrdered(file, -1, -1, INT64_MIN, INT64_MAX, NULL, (MV_LogEntryOrder)-1,
                                          record_ordered, &record, NULL));
    MV_LogFile_Destroy(file);
}

static bool count_visited(void* userData, const MV_LogEntryView* entry) {
    (void)entry;
    ++*(int*)userData;
    return true;
}

TEST(ordered_visit_names_a_damaged_entry_met_in_time_order) {
    const char* path = test_path("order-damaged.mvlog");
    MV_LogConfig_p config = make_config(0);
    MV_LogError_p error = NULL;
    MV_LogFile_p file = NULL;
    char text[64];
    int i;
    CHECK(MV_LogConfig_SetChecksums(config, true, &error));
    file = MV_LogFile_Create(path, config, &error);
    REQUIRE(file != NULL);
    {
        const int8_t source = add_source(file, MV_LogDataSourceType_Camera, "camera");
        /* Timestamps fall as ids rise: time order is 4, 3, 2, 1. */
        for (i = 1; i <= 4; ++i) {
            snprintf(text, sizeof text, "an uncompressed payload, number %d", i);
            log_entry(file, source, 1, text, (int64_t)strlen(text), 2000 - i);
        }
    }
    MV_LogFile_Destroy(file);
    MV_LogConfig_Destroy(config);
    {
        /* Level 0 keeps the bytes as they are: change one in place. */
        FILE* stream = fopen(path, "r+b");
        static char contents[1 << 20];
        const char* needle = "payload, number 3";
        size_t size = 0;
        size_t at = 0;
        REQUIRE(stream != NULL);
        size = fread(contents, 1, sizeof contents, stream);
        while (at + strlen(needle) <= size && memcmp(contents + at, needle, strlen(needle)) != 0) {
            ++at;
        }
        CHECK(at + strlen(needle) <= size);
        CHECK(fseek(stream, (long)at, SEEK_SET) == 0);
        CHECK(fputc('P', stream) == 'P');
        fclose(stream);
    }

    file = MV_LogFile_Open(path, &error);
    REQUIRE(file != NULL);
    CHECK(MV_LogFile_SetChecksumVerification(file, true, &error));
    {
        int visited = 0;
        char expected[512];
        CHECK(!MV_LogFile_VisitEntriesOrdered(file, -1, -1, INT64_MIN, INT64_MAX, NULL, MV_LOG_ORDER_TIME,
                                              count_visited, &visited, &error));
        CHECK_INT_EQ(visited, 1);
        snprintf(expected, sizeof expected,
                 "Entry 3 of '%s' cannot be read: its payload does not match its checksum", path);
        CHECK_ERROR(error, expected);
    }
    MV_LogFile_Destroy(file);
}
