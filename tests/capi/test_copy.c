/* Filtered copy and merge through the C interface. */
#include "support.h"

#include <logging/MV_Logging.h>

#include <stdint.h>
#include <stdio.h>
#include <string.h>

/* Entries 1..count, camera for odd ids and gnss for even ones, timestamp
 * base + 10 * id, payload "entry-<id>". */
static void make_input(const char* path, int count, int64_t base) {
    MV_LogFile_p file = create_log(path, -1);
    int8_t camera = add_source(file, MV_LogDataSourceType_Camera, "camera");
    int8_t gnss = add_source(file, MV_LogDataSourceType_Navigation, "gnss");
    MV_LogError_p error = NULL;
    char text[32];
    int i;
    CHECK(MV_LogFile_BeginBatch(file, &error));
    for (i = 1; i <= count; ++i) {
        snprintf(text, sizeof text, "entry-%d", i);
        log_entry(file, i % 2 == 1 ? camera : gnss, 7, text, (int64_t)strlen(text), base + 10 * i);
    }
    CHECK(MV_LogFile_CommitBatch(file, &error));
    MV_LogFile_Destroy(file);
}

static int32_t entry_count(const char* path) {
    MV_LogError_p error = NULL;
    MV_LogFile_p file = MV_LogFile_OpenReadOnly(path, &error);
    int32_t count = -1;
    if (file == NULL) {
        MV_LogError_Destroy(error);
        return -1;
    }
    MV_LogFile_GetEntryCount(file, &count, NULL);
    MV_LogFile_Destroy(file);
    return count;
}

TEST(copy_selects_by_range_time_and_filter) {
    const char* source = test_path("source.mvlog");
    const char* output = test_path("copy.mvlog");
    MV_LogCopyOptions_p options = MV_LogCopyOptions_Create("c-tests", "1.0");
    MV_LogEntryIndexFilter_p filter = MV_LogEntryIndexFilter_Create();
    MV_LogError_p error = NULL;
    MV_LogFile_p copy = NULL;
    MV_LogDataEntry_p entry = NULL;
    int64_t timestamp = 0;
    make_input(source, 20, 1000);
    MV_LogEntryIndexFilter_AddDataSourceType(filter, MV_LogDataSourceType_Navigation);
    CHECK(MV_LogCopyOptions_SetEntryRange(options, 3, -1, &error));
    CHECK(MV_LogCopyOptions_SetTimeRange(options, INT64_MIN, 1150, &error));
    CHECK(MV_LogCopyOptions_SetFilter(options, filter, &error));
    CHECK(MV_LogAlgorithms_Copy(source, output, options, &error));
    /* Even ids 4 to 14. */
    CHECK_INT_EQ(entry_count(output), 6);
    copy = MV_LogFile_OpenReadOnly(output, &error);
    CHECK(copy != NULL);
    CHECK(MV_LogFile_ReadEntry(copy, 1, &entry, &error));
    MV_LogDataEntry_GetTimestamp(entry, &timestamp);
    CHECK(timestamp == 1040);
    MV_LogDataEntry_Destroy(entry);
    MV_LogFile_Destroy(copy);
    MV_LogEntryIndexFilter_Destroy(filter);
    MV_LogCopyOptions_Destroy(options);
}

TEST(copy_refuses_an_existing_output_and_bad_options) {
    const char* source = test_path("source.mvlog");
    MV_LogCopyOptions_p options = MV_LogCopyOptions_Create("c-tests", "1.0");
    MV_LogError_p error = NULL;
    char expected[4096];
    make_input(source, 2, 0);
    CHECK(!MV_LogAlgorithms_Copy(source, source, NULL, &error));
    snprintf(expected, sizeof expected,
             "Cannot write '%s': a file already exists there and is never overwritten.", source);
    CHECK_ERROR(error, expected);
    CHECK(!MV_LogCopyOptions_SetEntryRange(options, 5, 4, &error));
    CHECK_ERROR(error, "Invalid entry range: the last entry id is below the first.");
    CHECK(!MV_LogCopyOptions_SetTimeRange(options, 10, 9, &error));
    CHECK_ERROR(error, "Invalid time range: the end is before the start.");
    CHECK(!MV_LogCopyOptions_SetCompressionLevel(options, 10, &error));
    CHECK_ERROR(error, "Invalid compression level, value must be in the range [-1,9].");
    CHECK(!MV_LogAlgorithms_Copy(test_path("missing.mvlog"), test_path("out.mvlog"), options, &error));
    CHECK(error != NULL);
    MV_LogError_Destroy(error);
    CHECK(!path_exists(test_path("out.mvlog")));
    MV_LogCopyOptions_Destroy(options);
}

TEST(merge_interleaves_inputs_by_timestamp) {
    const char* first = test_path("first.mvlog");
    const char* second = test_path("second.mvlog");
    const char* inputs[2];
    const char* output = test_path("merged.mvlog");
    MV_LogError_p error = NULL;
    MV_LogFile_p merged = NULL;
    MV_LogDataEntry_p entry = NULL;
    int64_t timestamp = 0;
    make_input(first, 3, 1000);
    make_input(second, 3, 1005);
    inputs[0] = first;
    inputs[1] = second;
    CHECK(MV_LogAlgorithms_Merge(inputs, 2, output, NULL, &error));
    CHECK_INT_EQ(entry_count(output), 6);
    merged = MV_LogFile_OpenReadOnly(output, &error);
    CHECK(merged != NULL);
    CHECK(MV_LogFile_ReadEntry(merged, 2, &entry, &error));
    MV_LogDataEntry_GetTimestamp(entry, &timestamp);
    CHECK(timestamp == 1015);
    MV_LogDataEntry_Destroy(entry);
    MV_LogFile_Destroy(merged);
    CHECK(!MV_LogAlgorithms_Merge(inputs, 0, test_path("none.mvlog"), NULL, &error));
    CHECK(error != NULL);
    MV_LogError_Destroy(error);
}
