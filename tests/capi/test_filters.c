/* Entry filters with the entry-index and range reads. */

#include "harness.h"
#include "support.h"

#include <stdio.h>

/* Twelve entries over three sources:
 *
 *   entry   1  2  3  4  5  6  7  8  9 10 11 12
 *   source  1  2  3  1  2  3  1  2  3  1  2  3    (camera, lidar, radar)
 *   type   10 10 20 20 10 30 10 20 20 30 10 10
 *
 * Entry i has timestamp 1000 * i and payload "entry <i>". */
static const int32_t TYPES[12] = {10, 10, 20, 20, 10, 30, 10, 20, 20, 30, 10, 10};

static MV_LogFile_p twelve_entries(void) {
    const char* path = test_path("filters.mvlog");
    MV_LogFile_p file = create_log(path, 1);
    int8_t sources[3];
    int index;
    sources[0] = add_source(file, MV_LogDataSourceType_Camera, "camera");
    sources[1] = add_source(file, MV_LogDataSourceType_Lidar, "lidar");
    sources[2] = add_source(file, MV_LogDataSourceType_Radar, "radar");
    for (index = 0; index < 12; ++index) {
        char payload[32];
        const int length = sprintf(payload, "entry %d", index + 1);
        log_entry(file, sources[index % 3], TYPES[index], payload, length, 1000 * (int64_t)(index + 1));
    }
    MV_LogFile_Destroy(file);
    return open_log(path);
}

/* Checks that `list` holds exactly the entries `ids`, in that order, with
 * every field as recorded. */
#define CHECK_ENTRIES(list, ...)                                                            \
    do {                                                                                    \
        const int32_t expected_[] = {__VA_ARGS__};                                          \
        check_entries(__LINE__, (list), expected_, sizeof expected_ / sizeof expected_[0]); \
    } while (0)

static void check_entries(int line, const struct entry_list* list, const int32_t* ids, size_t count) {
    size_t index;
    if (list->count != count) {
        harness_fail(__FILE__, line, "%lu entries read, expected %lu", (unsigned long)list->count,
                     (unsigned long)count);
        return;
    }
    for (index = 0; index < count; ++index) {
        const struct entry_copy* entry = &list->items[index];
        const int32_t id = ids[index];
        char payload[32];
        const int length = sprintf(payload, "entry %d", id);
        if (entry->timestamp != 1000 * (int64_t)id || entry->type != TYPES[id - 1] ||
            entry->source != (id - 1) % 3 + 1 || entry->length != length ||
            !harness_mem_eq(__FILE__, line, "payload", entry->data, payload, (size_t)length)) {
            harness_fail(__FILE__, line, "entry %lu is not entry %d (timestamp %lld, type %d, source %d)",
                         (unsigned long)index, id, (long long)entry->timestamp, entry->type, entry->source);
        }
    }
}

TEST(empty_filter_yields_every_entry_id) {
    MV_LogFile_p file = twelve_entries();
    MV_LogEntryIndexFilter_p filter = MV_LogEntryIndexFilter_Create();
    CHECK_ENTRY_INDEX(file, filter, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12);
    MV_LogEntryIndexFilter_Destroy(filter);
    MV_LogFile_Destroy(file);
}

TEST(filter_by_data_type) {
    MV_LogFile_p file = twelve_entries();
    MV_LogEntryIndexFilter_p filter = MV_LogEntryIndexFilter_Create();
    MV_LogEntryIndexFilter_AddDataType(filter, 20);
    CHECK_ENTRY_INDEX(file, filter, 3, 4, 8, 9);
    MV_LogEntryIndexFilter_AddDataType(filter, 30);
    CHECK_ENTRY_INDEX(file, filter, 3, 4, 6, 8, 9, 10);
    MV_LogEntryIndexFilter_Destroy(filter);
    MV_LogFile_Destroy(file);
}

TEST(filter_by_data_source) {
    MV_LogFile_p file = twelve_entries();
    MV_LogEntryIndexFilter_p filter = MV_LogEntryIndexFilter_Create();
    MV_LogEntryIndexFilter_AddDataSource(filter, 2);
    CHECK_ENTRY_INDEX(file, filter, 2, 5, 8, 11);
    MV_LogEntryIndexFilter_AddDataSource(filter, 3);
    CHECK_ENTRY_INDEX(file, filter, 2, 3, 5, 6, 8, 9, 11, 12);
    MV_LogEntryIndexFilter_Destroy(filter);
    MV_LogFile_Destroy(file);
}

TEST(filter_by_data_source_type) {
    MV_LogFile_p file = twelve_entries();
    MV_LogEntryIndexFilter_p filter = MV_LogEntryIndexFilter_Create();
    MV_LogEntryIndexFilter_AddDataSourceType(filter, MV_LogDataSourceType_Radar);
    CHECK_ENTRY_INDEX(file, filter, 3, 6, 9, 12);
    MV_LogEntryIndexFilter_AddDataSourceType(filter, MV_LogDataSourceType_Camera);
    CHECK_ENTRY_INDEX(file, filter, 1, 3, 4, 6, 7, 9, 10, 12);
    MV_LogEntryIndexFilter_Destroy(filter);
    MV_LogFile_Destroy(file);
}

TEST(filter_lists_combine_with_and) {
    MV_LogFile_p file = twelve_entries();
    MV_LogEntryIndexFilter_p typeAndSource = MV_LogEntryIndexFilter_Create();
    MV_LogEntryIndexFilter_p typeAndSourceType = MV_LogEntryIndexFilter_Create();
    MV_LogEntryIndexFilter_p all = MV_LogEntryIndexFilter_Create();

    MV_LogEntryIndexFilter_AddDataType(typeAndSource, 10);
    MV_LogEntryIndexFilter_AddDataSource(typeAndSource, 1);
    CHECK_ENTRY_INDEX(file, typeAndSource, 1, 7);

    MV_LogEntryIndexFilter_AddDataType(typeAndSourceType, 10);
    MV_LogEntryIndexFilter_AddDataSourceType(typeAndSourceType, MV_LogDataSourceType_Lidar);
    CHECK_ENTRY_INDEX(file, typeAndSourceType, 2, 5, 11);

    MV_LogEntryIndexFilter_AddDataType(all, 20);
    MV_LogEntryIndexFilter_AddDataType(all, 30);
    MV_LogEntryIndexFilter_AddDataSource(all, 3);
    MV_LogEntryIndexFilter_AddDataSource(all, 1);
    MV_LogEntryIndexFilter_AddDataSourceType(all, MV_LogDataSourceType_Radar);
    CHECK_ENTRY_INDEX(file, all, 3, 6, 9);

    MV_LogEntryIndexFilter_Destroy(all);
    MV_LogEntryIndexFilter_Destroy(typeAndSourceType);
    MV_LogEntryIndexFilter_Destroy(typeAndSource);
    MV_LogFile_Destroy(file);
}

TEST(filter_duplicates_list_each_entry_once) {
    MV_LogFile_p file = twelve_entries();
    MV_LogEntryIndexFilter_p filter = MV_LogEntryIndexFilter_Create();
    MV_LogEntryIndexFilter_AddDataType(filter, 20);
    MV_LogEntryIndexFilter_AddDataType(filter, 20);
    MV_LogEntryIndexFilter_AddDataSource(filter, 2);
    MV_LogEntryIndexFilter_AddDataSource(filter, 2);
    MV_LogEntryIndexFilter_AddDataSourceType(filter, MV_LogDataSourceType_Lidar);
    MV_LogEntryIndexFilter_AddDataSourceType(filter, MV_LogDataSourceType_Lidar);
    CHECK_ENTRY_INDEX(file, filter, 8);
    MV_LogEntryIndexFilter_Destroy(filter);
    MV_LogFile_Destroy(file);
}

TEST(filter_with_more_than_ten_values_of_a_list) {
    MV_LogFile_p file = twelve_entries();
    MV_LogEntryIndexFilter_p filter = MV_LogEntryIndexFilter_Create();
    int8_t id;
    /* Eleven or more parameters of one list: ":source10" and beyond. */
    for (id = -3; id <= 1; ++id) {
        MV_LogEntryIndexFilter_AddDataSource(filter, id);
    }
    for (id = 50; id < 57; ++id) {
        MV_LogEntryIndexFilter_AddDataSource(filter, id);
    }
    MV_LogEntryIndexFilter_AddDataSource(filter, 3);
    CHECK_ENTRY_INDEX(file, filter, 1, 3, 4, 6, 7, 9, 10, 12);
    MV_LogEntryIndexFilter_Destroy(filter);
    MV_LogFile_Destroy(file);
}

TEST(filter_matching_nothing_fails_without_calling_back) {
    MV_LogFile_p file = twelve_entries();
    MV_LogEntryIndexFilter_p byType = MV_LogEntryIndexFilter_Create();
    MV_LogEntryIndexFilter_p bySource = MV_LogEntryIndexFilter_Create();
    MV_LogEntryIndexFilter_p bySourceType = MV_LogEntryIndexFilter_Create();
    MV_LogError_p error = NULL;
    int calls = 0;

    MV_LogEntryIndexFilter_AddDataType(byType, 99);
    MV_LogEntryIndexFilter_AddDataSource(bySource, -3);
    MV_LogEntryIndexFilter_AddDataSourceType(bySourceType, (MV_LogDataSourceType)12345);
    CHECK(!MV_LogFile_GetEntryIndex(file, byType, count_id, &calls, &error));
    CHECK_ERROR(error, "No error");
    CHECK(!MV_LogFile_GetEntryIndex(file, bySource, count_id, &calls, &error));
    CHECK_ERROR(error, "No error");
    CHECK(!MV_LogFile_GetEntryIndex(file, bySourceType, count_id, &calls, NULL));
    CHECK_INT_EQ(calls, 0);

    /* The range read of the same filters succeeds with nothing. */
    CHECK(MV_LogFile_ReadEntries(file, -1, -1, byType, -1, count_entry, &calls));
    CHECK_INT_EQ(calls, 0);

    MV_LogEntryIndexFilter_Destroy(bySourceType);
    MV_LogEntryIndexFilter_Destroy(bySource);
    MV_LogEntryIndexFilter_Destroy(byType);
    MV_LogFile_Destroy(file);
}

TEST(read_entries_within_inclusive_bounds) {
    MV_LogFile_p file = twelve_entries();
    MV_LogEntryIndexFilter_p filter = MV_LogEntryIndexFilter_Create();
    struct entry_list list = {0, NULL};

    CHECK(MV_LogFile_ReadEntries(file, 3, 7, filter, -1, collect_entry, &list));
    CHECK_ENTRIES(&list, 3, 4, 5, 6, 7);
    entry_list_free(&list);

    CHECK(MV_LogFile_ReadEntries(file, 12, 12, filter, -1, collect_entry, &list));
    CHECK_ENTRIES(&list, 12);
    entry_list_free(&list);

    /* Bounds beyond the file clip to what exists. */
    CHECK(MV_LogFile_ReadEntries(file, -50, 2, filter, -1, collect_entry, &list));
    CHECK_ENTRIES(&list, 1, 2);
    entry_list_free(&list);

    /* A reversed range reads nothing, successfully. */
    CHECK(MV_LogFile_ReadEntries(file, 8, 3, filter, -1, collect_entry, &list));
    CHECK_INT_EQ(list.count, 0);
    entry_list_free(&list);

    MV_LogEntryIndexFilter_Destroy(filter);
    MV_LogFile_Destroy(file);
}

TEST(read_entries_minus_one_bounds_stand_for_first_and_last) {
    MV_LogFile_p file = twelve_entries();
    MV_LogEntryIndexFilter_p filter = MV_LogEntryIndexFilter_Create();
    struct entry_list list = {0, NULL};

    CHECK(MV_LogFile_ReadEntries(file, -1, 4, filter, -1, collect_entry, &list));
    CHECK_ENTRIES(&list, 1, 2, 3, 4);
    entry_list_free(&list);

    CHECK(MV_LogFile_ReadEntries(file, 9, -1, filter, -1, collect_entry, &list));
    CHECK_ENTRIES(&list, 9, 10, 11, 12);
    entry_list_free(&list);

    CHECK(MV_LogFile_ReadEntries(file, -1, -1, filter, -1, collect_entry, &list));
    CHECK_ENTRIES(&list, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12);
    entry_list_free(&list);

    MV_LogEntryIndexFilter_Destroy(filter);
    MV_LogFile_Destroy(file);
}

TEST(read_entries_limit_keeps_the_lowest_ids) {
    MV_LogFile_p file = twelve_entries();
    MV_LogEntryIndexFilter_p filter = MV_LogEntryIndexFilter_Create();
    struct entry_list list = {0, NULL};

    CHECK(MV_LogFile_ReadEntries(file, 1, 12, filter, 5, collect_entry, &list));
    CHECK_ENTRIES(&list, 1, 2, 3, 4, 5);
    entry_list_free(&list);

    CHECK(MV_LogFile_ReadEntries(file, 1, 12, filter, 0, collect_entry, &list));
    CHECK_INT_EQ(list.count, 0);
    entry_list_free(&list);

    CHECK(MV_LogFile_ReadEntries(file, 10, -1, filter, 100, collect_entry, &list));
    CHECK_ENTRIES(&list, 10, 11, 12);
    entry_list_free(&list);

    MV_LogEntryIndexFilter_Destroy(filter);
    MV_LogFile_Destroy(file);
}

TEST(read_entries_with_a_filter) {
    MV_LogFile_p file = twelve_entries();
    MV_LogEntryIndexFilter_p byType = MV_LogEntryIndexFilter_Create();
    MV_LogEntryIndexFilter_p bySource = MV_LogEntryIndexFilter_Create();
    struct entry_list list = {0, NULL};

    MV_LogEntryIndexFilter_AddDataType(byType, 20);
    CHECK(MV_LogFile_ReadEntries(file, 4, 9, byType, -1, collect_entry, &list));
    CHECK_ENTRIES(&list, 4, 8, 9);
    entry_list_free(&list);

    MV_LogEntryIndexFilter_AddDataType(byType, 10);
    CHECK(MV_LogFile_ReadEntries(file, -1, -1, byType, 3, collect_entry, &list));
    CHECK_ENTRIES(&list, 1, 2, 3);
    entry_list_free(&list);

    MV_LogEntryIndexFilter_AddDataSourceType(bySource, MV_LogDataSourceType_Lidar);
    CHECK(MV_LogFile_ReadEntries(file, 3, -1, bySource, 2, collect_entry, &list));
    CHECK_ENTRIES(&list, 5, 8);
    entry_list_free(&list);

    MV_LogEntryIndexFilter_Destroy(bySource);
    MV_LogEntryIndexFilter_Destroy(byType);
    MV_LogFile_Destroy(file);
}
