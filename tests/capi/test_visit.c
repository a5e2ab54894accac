/* Streaming reads and time queries through the C interface. */
#include "support.h"

#include <logging/MV_Logging.h>

#include <stdint.h>
#include <stdio.h>
#include <string.h>

/* Entries 1..count: camera for odd ids, gnss for even ones, timestamp
 * 5000 + 10 * id, type id % 3, payload "payload-<id>". */
static int8_t camera_id = -1;
static int8_t gnss_id = -1;

static void make_visit_file(const char* path, int count, int8_t level) {
    MV_LogFile_p file = create_log(path, level);
    int8_t camera = add_source(file, MV_LogDataSourceType_Camera, "camera");
    int8_t gnss = add_source(file, MV_LogDataSourceType_Navigation, "gnss");
    camera_id = camera;
    gnss_id = gnss;
    char text[32];
    int i;
    for (i = 1; i <= count; ++i) {
        snprintf(text, sizeof text, "payload-%d", i);
        log_entry(file, i % 2 == 1 ? camera : gnss, i % 3, text, (int64_t)strlen(text), 5000 + 10 * i);
    }
    MV_LogFile_Destroy(file);
}

struct visit_record {
    int count;
    int32_t ids[64];
    int stop_after;
    int payload_mismatches;
    int source_mismatches;
};

static bool record_view(void* userData, const MV_LogEntryView* entry) {
    struct visit_record* record = (struct visit_record*)userData;
    char expected[32];
    snprintf(expected, sizeof expected, "payload-%d", (int)entry->entryId);
    if (entry->size != strlen(expected) || memcmp(entry->data, expected, entry->size) != 0) {
        ++record->payload_mismatches;
    }
    if (entry->timestamp != 5000 + 10 * (int64_t)entry->entryId || entry->type != entry->entryId % 3) {
        ++record->payload_mismatches;
    }
    if (entry->dataSourceId != (entry->entryId % 2 == 1 ? camera_id : gnss_id)) {
        ++record->source_mismatches;
    }
    if (record->count < 64) {
        record->ids[record->count] = entry->entryId;
    }
    ++record->count;
    return record->stop_after == 0 || record->count < record->stop_after;
}

static void visit_levels(int8_t level) {
    const char* path = test_path(level == 0 ? "visit-plain.mvlog" : "visit-compressed.mvlog");
    MV_LogFile_p file = NULL;
    MV_LogError_p error = NULL;
    struct visit_record record;
    make_visit_file(path, 40, level);
    file = MV_LogFile_OpenReadOnly(path, &error);
    CHECK(file != NULL);

    memset(&record, 0, sizeof record);
    CHECK(MV_LogFile_VisitEntries(file, -1, -1, INT64_MIN, INT64_MAX, NULL, record_view, &record, &error));
    CHECK_INT_EQ(record.count, 40);
    CHECK_INT_EQ(record.ids[0], 1);
    CHECK_INT_EQ(record.ids[39], 40);
    CHECK_INT_EQ(record.payload_mismatches, 0);
    CHECK_INT_EQ(record.source_mismatches, 0);

    /* Ids 5..30 and timestamps 5100..5200: ids 10..20. */
    memset(&record, 0, sizeof record);
    CHECK(MV_LogFile_VisitEntries(file, 5, 30, 5100, 5200, NULL, record_view, &record, &error));
    CHECK_INT_EQ(record.count, 11);
    CHECK_INT_EQ(record.ids[0], 10);
    CHECK_INT_EQ(record.ids[10], 20);
    MV_LogFile_Destroy(file);
}

TEST(visit_hands_out_every_entry_in_id_order_at_level_0) {
    visit_levels(0);
}

TEST(visit_hands_out_every_entry_in_id_order_compressed) {
    visit_levels(-1);
}

TEST(visit_applies_the_filter_and_stops_when_asked) {
    const char* path = test_path("visit-filter.mvlog");
    MV_LogFile_p file = NULL;
    MV_LogError_p error = NULL;
    MV_LogEntryIndexFilter_p filter = MV_LogEntryIndexFilter_Create();
    struct visit_record record;
    make_visit_file(path, 30, -1);
    file = MV_LogFile_OpenReadOnly(path, &error);
    CHECK(file != NULL);

    MV_LogEntryIndexFilter_AddDataSourceType(filter, MV_LogDataSourceType_Navigation);
    MV_LogEntryIndexFilter_AddDataType(filter, 0);
    memset(&record, 0, sizeof record);
    CHECK(MV_LogFile_VisitEntries(file, -1, -1, INT64_MIN, INT64_MAX, filter, record_view, &record, &error));
    /* Even ids divisible by 3. */
    CHECK_INT_EQ(record.count, 5);
    CHECK_INT_EQ(record.ids[0], 6);
    CHECK_INT_EQ(record.ids[4], 30);

    memset(&record, 0, sizeof record);
    record.stop_after = 3;
    CHECK(MV_LogFile_VisitEntries(file, -1, -1, INT64_MIN, INT64_MAX, NULL, record_view, &record, &error));
    CHECK_INT_EQ(record.count, 3);
    CHECK_INT_EQ(record.ids[2], 3);

    /* A range without entries visits nothing and succeeds. */
    memset(&record, 0, sizeof record);
    CHECK(MV_LogFile_VisitEntries(file, 100, 200, INT64_MIN, INT64_MAX, NULL, record_view, &record, &error));
    CHECK_INT_EQ(record.count, 0);
    CHECK(error == NULL);
    MV_LogEntryIndexFilter_Destroy(filter);
    MV_LogFile_Destroy(file);
}

TEST(time_range_and_first_entry_at_or_after_a_time) {
    const char* path = test_path("visit-time.mvlog");
    MV_LogFile_p file = NULL;
    MV_LogError_p error = NULL;
    MV_LogEntryIndexFilter_p filter = MV_LogEntryIndexFilter_Create();
    int64_t first = 0;
    int64_t last = 0;
    int32_t entryId = 0;
    bool found = false;
    make_visit_file(path, 25, -1);
    file = MV_LogFile_OpenReadOnly(path, &error);
    CHECK(file != NULL);

    CHECK(MV_LogFile_GetTimeRange(file, NULL, &first, &last, &found, &error));
    CHECK(found);
    CHECK_INT_EQ(first, 5010);
    CHECK_INT_EQ(last, 5250);
    MV_LogEntryIndexFilter_AddDataSourceType(filter, MV_LogDataSourceType_Navigation);
    CHECK(MV_LogFile_GetTimeRange(file, filter, &first, &last, &found, &error));
    CHECK_INT_EQ(first, 5020);
    CHECK_INT_EQ(last, 5240);

    CHECK(MV_LogFile_FindEntryAtOrAfter(file, 5101, NULL, &entryId, &found, &error));
    CHECK(found);
    CHECK_INT_EQ(entryId, 11);
    CHECK(MV_LogFile_FindEntryAtOrAfter(file, 5101, filter, &entryId, &found, &error));
    CHECK_INT_EQ(entryId, 12);
    CHECK(MV_LogFile_FindEntryAtOrAfter(file, 9999, NULL, &entryId, &found, &error));
    CHECK(!found);
    MV_LogEntryIndexFilter_Destroy(filter);
    MV_LogFile_Destroy(file);
}

TEST(time_range_of_a_file_without_entries_is_not_found) {
    const char* path = test_path("visit-empty.mvlog");
    MV_LogFile_p file = create_log(path, -1);
    MV_LogError_p error = NULL;
    int64_t first = 1;
    int64_t last = 1;
    bool found = true;
    CHECK(MV_LogFile_GetTimeRange(file, NULL, &first, &last, &found, &error));
    CHECK(!found);
    CHECK_INT_EQ(first, 1);
    MV_LogFile_Destroy(file);
}

TEST(time_index_is_opt_in_idempotent_and_used_by_time_reads) {
    const char* path = test_path("visit-index.mvlog");
    MV_LogFile_p file = NULL;
    MV_LogError_p error = NULL;
    struct visit_record record;
    bool present = true;
    make_visit_file(path, 40, -1);
    file = open_log(path);
    CHECK(MV_LogFile_HasTimeIndex(file, &present, &error));
    CHECK(!present);
    CHECK(MV_LogFile_CreateTimeIndex(file, &error));
    CHECK(MV_LogFile_CreateTimeIndex(file, &error));
    CHECK(MV_LogFile_HasTimeIndex(file, &present, &error));
    CHECK(present);
    MV_LogFile_Destroy(file);

    file = MV_LogFile_OpenReadOnly(path, &error);
    CHECK(file != NULL);
    memset(&record, 0, sizeof record);
    CHECK(MV_LogFile_VisitEntries(file, 12, -1, 5100, 5200, NULL, record_view, &record, &error));
    CHECK_INT_EQ(record.count, 9);
    CHECK_INT_EQ(record.ids[0], 12);
    CHECK_INT_EQ(record.ids[8], 20);
    CHECK_INT_EQ(record.payload_mismatches, 0);
    MV_LogFile_Destroy(file);
}

TEST(time_index_is_refused_on_a_read_only_handle) {
    const char* path = test_path("visit-readonly.mvlog");
    MV_LogFile_p file = NULL;
    MV_LogError_p error = NULL;
    char expected[1024];
    make_visit_file(path, 3, -1);
    file = MV_LogFile_OpenReadOnly(path, &error);
    CHECK(file != NULL);
    CHECK(!MV_LogFile_CreateTimeIndex(file, &error));
    snprintf(expected, sizeof expected, "The log file '%s' was opened read-only: it cannot be changed.",
             path);
    CHECK_ERROR(error, expected);
    MV_LogFile_Destroy(file);
}

/* Payloads expanded on other threads reach the callback exactly as on the
 * calling thread: every entry, in order, with its bytes; a callback that
 * stops ends the visit there. */
TEST(read_threads_expand_ahead_and_hand_out_every_entry_in_order) {
    const char* path = test_path("visit-threads.mvlog");
    MV_LogFile_p file = NULL;
    MV_LogError_p error = NULL;
    struct visit_record record;
    int32_t threads[] = {0, 2, 3, 1};
    size_t i;
    make_visit_file(path, 3000, -1);
    file = MV_LogFile_OpenReadOnly(path, &error);
    CHECK(file != NULL);
    for (i = 0; i < sizeof threads / sizeof threads[0]; ++i) {
        CHECK(MV_LogFile_SetReadThreads(file, threads[i], &error));
        memset(&record, 0, sizeof record);
        CHECK(
            MV_LogFile_VisitEntries(file, -1, -1, INT64_MIN, INT64_MAX, NULL, record_view, &record, &error));
        CHECK_INT_EQ(record.count, 3000);
        CHECK_INT_EQ(record.ids[0], 1);
        CHECK_INT_EQ(record.ids[63], 64);
        CHECK_INT_EQ(record.payload_mismatches, 0);
        CHECK_INT_EQ(record.source_mismatches, 0);

        memset(&record, 0, sizeof record);
        record.stop_after = 1000;
        CHECK(MV_LogFile_VisitEntriesOrdered(file, -1, -1, INT64_MIN, INT64_MAX, NULL, MV_LOG_ORDER_TIME,
                                             record_view, &record, &error));
        CHECK_INT_EQ(record.count, 1000);
        CHECK_INT_EQ(record.payload_mismatches, 0);
    }
    CHECK(!MV_LogFile_SetReadThreads(file, -1, &error));
    CHECK_ERROR(error, "MV_LogFile_SetReadThreads: threads is -1; it must be 0 (one per core) or more");
    MV_LogFile_Destroy(file);
}
