/* The recorder through the C interface: three capture threads, options,
 * statistics, refusals. */
#include "support.h"

#include <logging/MV_Logging.h>

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#define RECORDS_PER_THREAD 400

struct capture {
    MV_LogRecorder_p recorder;
    int8_t source;
    int32_t type;
    int accepted;
};

static void* capture_loop(void* argument) {
    struct capture* capture = (struct capture*)argument;
    char payload[64];
    int i;
    for (i = 0; i < RECORDS_PER_THREAD; ++i) {
        int length = snprintf(payload, sizeof payload, "%d:%d", (int)capture->type, i);
        if (MV_LogRecorder_Record(capture->recorder, capture->source, capture->type, 1000 + i,
                                  (const uint8_t*)payload, (size_t)length)) {
            ++capture->accepted;
        }
    }
    return NULL;
}

static int8_t add_recorder_source(MV_LogRecorder_p recorder, MV_LogDataSourceType type, const char* name) {
    MV_LogDataSource_p source = MV_LogDataSource_Create(type, name);
    MV_LogError_p error = NULL;
    int8_t id = -1;
    CHECK(MV_LogRecorder_AddDataSource(recorder, source, &error));
    MV_LogDataSource_GetId(source, &id);
    MV_LogDataSource_Destroy(source);
    return id;
}

TEST(recorder_records_three_threads_and_keeps_each_threads_order) {
    const char* path = test_path("recorded.mvlog");
    MV_LogConfig_p config = make_config(-1);
    MV_LogRecorderOptions_p options = MV_LogRecorderOptions_Create();
    MV_LogError_p error = NULL;
    MV_LogRecorder_p recorder = NULL;
    MV_LogRecorderStats stats;
    struct capture captures[3];
    pthread_t threads[3];
    MV_LogFile_p file = NULL;
    MV_LogDataEntry_p entry = NULL;
    int32_t count = 0;
    int i;
    CHECK(MV_LogRecorderOptions_SetCompressionThreads(options, 2, &error));
    CHECK(MV_LogRecorderOptions_SetMaxCommitDelay(options, 10, &error));
    recorder = MV_LogRecorder_Create(path, config, options, &error);
    CHECK(recorder != NULL);
    for (i = 0; i < 3; ++i) {
        captures[i].recorder = recorder;
        captures[i].source = add_recorder_source(recorder, MV_LogDataSourceType_Camera, "sensor");
        captures[i].type = i;
        captures[i].accepted = 0;
    }
    for (i = 0; i < 3; ++i) {
        CHECK(pthread_create(&threads[i], NULL, capture_loop, &captures[i]) == 0);
    }
    for (i = 0; i < 3; ++i) {
        pthread_join(threads[i], NULL);
        CHECK_INT_EQ(captures[i].accepted, RECORDS_PER_THREAD);
    }
    CHECK(MV_LogRecorder_Flush(recorder, &error));
    MV_LogRecorder_GetStats(recorder, &stats);
    CHECK_INT_EQ(stats.accepted, 3 * RECORDS_PER_THREAD);
    CHECK_INT_EQ(stats.written, 3 * RECORDS_PER_THREAD);
    CHECK_INT_EQ(stats.dropped, 0);
    CHECK_INT_EQ(stats.failed, 0);
    CHECK(stats.bytesStored > 0);
    CHECK(MV_LogRecorder_Close(recorder, &error));
    CHECK(!MV_LogRecorder_Record(recorder, captures[0].source, 0, 0, (const uint8_t*)"x", 1));
    MV_LogRecorder_GetStats(recorder, &stats);
    CHECK_INT_EQ(stats.dropped, 1);
    MV_LogRecorder_Destroy(recorder);

    file = MV_LogFile_OpenReadOnly(path, &error);
    CHECK(file != NULL);
    CHECK(MV_LogFile_GetEntryCount(file, &count, &error));
    CHECK_INT_EQ(count, 3 * RECORDS_PER_THREAD);
    /* The first entry of thread 0 precedes its last. */
    {
        int32_t ids[3] = {0, 0, 0};
        int32_t id;
        for (id = 1; id <= count; ++id) {
            int32_t type = -1;
            int64_t length = 0;
            const uint8_t* data = NULL;
            char expected[64];
            CHECK(MV_LogFile_ReadEntry(file, id, &entry, &error));
            MV_LogDataEntry_GetType(entry, &type);
            MV_LogDataEntry_GetData(entry, &length, &data);
            snprintf(expected, sizeof expected, "%d:%d", (int)type, (int)ids[type]);
            CHECK_INT_EQ(length, (int64_t)strlen(expected));
            CHECK(memcmp(data, expected, (size_t)length) == 0);
            ++ids[type];
            MV_LogDataEntry_Destroy(entry);
        }
    }
    MV_LogFile_Destroy(file);
    MV_LogRecorderOptions_Destroy(options);
    MV_LogConfig_Destroy(config);
}

TEST(recorder_refuses_an_existing_path_and_bad_options) {
    const char* path = test_path("existing.mvlog");
    MV_LogConfig_p config = make_config(0);
    MV_LogRecorderOptions_p options = MV_LogRecorderOptions_Create();
    MV_LogError_p error = NULL;
    write_file(path, "x", 1);
    CHECK(MV_LogRecorder_Create(path, config, NULL, &error) == NULL);
    {
        char expected[512];
        snprintf(expected, sizeof expected, "Cannot record into '%s': the file already exists.", path);
        CHECK_ERROR(error, expected);
    }
    CHECK(!MV_LogRecorderOptions_SetQueueBytes(options, 0, &error));
    CHECK_ERROR(error, "Invalid queue size, value must be at least 1 byte.");
    CHECK(!MV_LogRecorderOptions_SetCompressionThreads(options, -1, &error));
    CHECK_ERROR(error, "Invalid number of compression threads, value must be in the range [0,256].");
    CHECK(!MV_LogRecorderOptions_SetMaxCommitDelay(options, 0, &error));
    CHECK_ERROR(error, "Invalid commit delay, value must be at least 1 ms.");
    CHECK(!MV_LogRecorderOptions_SetOverflowPolicy(options, (MV_LogOverflowPolicy)7, &error));
    CHECK_ERROR(
        error,
        "Invalid overflow policy, value must be MV_LOG_OVERFLOW_BLOCK, MV_LOG_OVERFLOW_DROP_NEWEST or "
        "MV_LOG_OVERFLOW_REFUSE.");
    CHECK(MV_LogRecorderOptions_SetOverflowPolicy(options, MV_LOG_OVERFLOW_DROP_NEWEST, &error));
    CHECK(MV_LogRecorderOptions_SetQueueBytes(options, 1024, &error));
    MV_LogRecorderOptions_Destroy(options);
    MV_LogRecorder_Destroy(NULL);
    MV_LogConfig_Destroy(config);
}

TEST(recorder_operations_keep_their_place_and_report_refusals) {
    const char* path = test_path("operations.mvlog");
    MV_LogConfig_p config = make_config(0);
    MV_LogError_p error = NULL;
    MV_LogRecorder_p recorder = MV_LogRecorder_Create(path, config, NULL, &error);
    MV_LogMetadata_p metadata = MV_LogMetadata_CreateString("site", "harbour");
    MV_LogBookmark_p bookmark = MV_LogBookmark_Create(1, "first", "", NULL, 0);
    MV_LogFile_p file = NULL;
    int32_t count = 0;
    int8_t source;
    CHECK(recorder != NULL);
    source = add_recorder_source(recorder, MV_LogDataSourceType_Navigation, "gnss");
    CHECK(MV_LogRecorder_Record(recorder, source, 1, 10, (const uint8_t*)"fix", 3));
    CHECK(MV_LogRecorder_AddMetadata(recorder, metadata, &error));
    CHECK(!MV_LogRecorder_AddMetadata(recorder, metadata, &error));
    CHECK(error != NULL);
    MV_LogError_Destroy(error);
    error = NULL;
    CHECK(MV_LogRecorder_AddBookmark(recorder, bookmark, &error));
    /* Destroy closes. */
    MV_LogRecorder_Destroy(recorder);
    file = MV_LogFile_OpenReadOnly(path, &error);
    CHECK(file != NULL);
    CHECK(MV_LogFile_GetEntryCount(file, &count, &error));
    CHECK_INT_EQ(count, 1);
    MV_LogFile_Destroy(file);
    MV_LogMetadata_Destroy(metadata);
    MV_LogBookmark_Destroy(bookmark);
    MV_LogConfig_Destroy(config);
}

TEST(recorder_refuses_an_empty_path_and_leaves_nothing) {
    MV_LogConfig_p config = make_config(0);
    MV_LogError_p error = NULL;
    CHECK(MV_LogRecorder_Create("", config, NULL, &error) == NULL);
    CHECK_ERROR(error, "Cannot record: the file path is empty.");
    MV_LogConfig_Destroy(config);
}

TEST(balanced_durability_is_a_mode_of_its_own) {
    MV_LogConfig_p config = make_config(0);
    MV_LogError_p error = NULL;
    MV_LogDurability durability = MV_LOG_DURABILITY_SAFE;
    MV_LogConfig_GetDurability(config, &durability);
    CHECK_INT_EQ((int)durability, (int)MV_LOG_DURABILITY_FAST);
    CHECK(MV_LogConfig_SetDurability(config, MV_LOG_DURABILITY_BALANCED, &error));
    MV_LogConfig_GetDurability(config, &durability);
    CHECK_INT_EQ((int)durability, (int)MV_LOG_DURABILITY_BALANCED);
    /* A balanced file is an ordinary log file once closed. */
    const char* path = test_path("balanced.mvlog");
    MV_LogFile_p file = MV_LogFile_Create(path, config, &error);
    CHECK(file != NULL);
    MV_LogFile_Destroy(file);
    file = MV_LogFile_Open(path, &error);
    CHECK(file != NULL);
    MV_LogFile_Destroy(file);
    MV_LogConfig_Destroy(config);
}

static void read_timestamps_and_payloads(const char* path, int64_t* timestamps, char* payloads,
                                         int32_t count) {
    MV_LogError_p error = NULL;
    MV_LogFile_p file = MV_LogFile_OpenReadOnly(path, &error);
    int32_t stored = 0;
    int32_t id;
    CHECK(file != NULL);
    CHECK(MV_LogFile_GetEntryCount(file, &stored, &error));
    CHECK_INT_EQ(stored, count);
    for (id = 1; id <= count; ++id) {
        MV_LogDataEntry_p entry = NULL;
        int64_t length = 0;
        const uint8_t* data = NULL;
        CHECK(MV_LogFile_ReadEntry(file, id, &entry, &error));
        MV_LogDataEntry_GetTimestamp(entry, &timestamps[id - 1]);
        MV_LogDataEntry_GetData(entry, &length, &data);
        CHECK_INT_EQ(length, 1);
        payloads[id - 1] = (char)data[0];
        MV_LogDataEntry_Destroy(entry);
    }
    MV_LogFile_Destroy(file);
}

TEST(recorder_reorder_window_writes_time_order_and_counts_late_entries) {
    const char* path = test_path("window.mvlog");
    MV_LogConfig_p config = make_config(-1);
    MV_LogRecorderOptions_p options = MV_LogRecorderOptions_Create();
    MV_LogError_p error = NULL;
    MV_LogRecorder_p recorder = NULL;
    MV_LogRecorderStats stats;
    int64_t timestamps[4];
    char payloads[5] = {0, 0, 0, 0, 0};
    int8_t source;
    /* The statistics programs were compiled against keep their layout. */
    CHECK_INT_EQ((int)sizeof(MV_LogRecorderStats), 8 * 8);
    CHECK(!MV_LogRecorderOptions_SetReorderWindow(options, -1, &error));
    CHECK_ERROR(error, "Invalid reorder window, value must be 0 (off) or more milliseconds.");
    CHECK(MV_LogRecorderOptions_SetReorderWindow(options, 0, &error));
    CHECK(MV_LogRecorderOptions_SetReorderWindow(options, 50, &error));
    recorder = MV_LogRecorder_Create(path, config, options, &error);
    CHECK(recorder != NULL);
    source = add_recorder_source(recorder, MV_LogDataSourceType_Camera, "camera");
    CHECK(MV_LogRecorder_Record(recorder, source, 0, 1000, (const uint8_t*)"a", 1));
    CHECK(MV_LogRecorder_Record(recorder, source, 0, 970, (const uint8_t*)"b", 1));
    CHECK(MV_LogRecorder_Record(recorder, source, 0, 1100, (const uint8_t*)"c", 1));
    CHECK(MV_LogRecorder_Flush(recorder, &error));
    CHECK_INT_EQ(MV_LogRecorder_GetLateCount(recorder), 0);
    /* 1100 is written already: 900 is late, and written anyway. */
    CHECK(MV_LogRecorder_Record(recorder, source, 0, 900, (const uint8_t*)"d", 1));
    CHECK(MV_LogRecorder_Close(recorder, &error));
    CHECK_INT_EQ(MV_LogRecorder_GetLateCount(recorder), 1);
    MV_LogRecorder_GetStats(recorder, &stats);
    CHECK_INT_EQ(stats.accepted, 4);
    CHECK_INT_EQ(stats.written, 4);
    MV_LogRecorder_Destroy(recorder);

    read_timestamps_and_payloads(path, timestamps, payloads, 4);
    CHECK_INT_EQ(timestamps[0], 970);
    CHECK_INT_EQ(timestamps[1], 1000);
    CHECK_INT_EQ(timestamps[2], 1100);
    CHECK_INT_EQ(timestamps[3], 900);
    CHECK(strcmp(payloads, "bacd") == 0);
    MV_LogRecorderOptions_Destroy(options);
    MV_LogConfig_Destroy(config);
}

TEST(recorder_without_a_window_keeps_the_order_of_recording_and_counts_late_entries) {
    const char* path = test_path("nowindow.mvlog");
    MV_LogConfig_p config = make_config(0);
    MV_LogError_p error = NULL;
    MV_LogRecorder_p recorder = MV_LogRecorder_Create(path, config, NULL, &error);
    int64_t timestamps[3];
    char payloads[4] = {0, 0, 0, 0};
    int8_t source;
    CHECK(recorder != NULL);
    source = add_recorder_source(recorder, MV_LogDataSourceType_Camera, "camera");
    CHECK(MV_LogRecorder_Record(recorder, source, 0, 1000, (const uint8_t*)"a", 1));
    CHECK(MV_LogRecorder_Record(recorder, source, 0, 970, (const uint8_t*)"b", 1));
    CHECK(MV_LogRecorder_Record(recorder, source, 0, 1100, (const uint8_t*)"c", 1));
    CHECK(MV_LogRecorder_Close(recorder, &error));
    CHECK_INT_EQ(MV_LogRecorder_GetLateCount(recorder), 1);
    MV_LogRecorder_Destroy(recorder);
    read_timestamps_and_payloads(path, timestamps, payloads, 3);
    CHECK(strcmp(payloads, "abc") == 0);
    MV_LogConfig_Destroy(config);
}

static bool recorded_file_has_time_index(const char* path, MV_LogRecorderOptions_p options) {
    MV_LogConfig_p config = make_config(0);
    MV_LogError_p error = NULL;
    MV_LogRecorder_p recorder = MV_LogRecorder_Create(path, config, options, &error);
    MV_LogFile_p file = NULL;
    bool present = false;
    int8_t source;
    CHECK(recorder != NULL);
    source = add_recorder_source(recorder, MV_LogDataSourceType_Generic, "generic");
    CHECK(MV_LogRecorder_Record(recorder, source, 0, 5, (const uint8_t*)"x", 1));
    CHECK(MV_LogRecorder_Close(recorder, &error));
    MV_LogRecorder_Destroy(recorder);
    file = MV_LogFile_OpenReadOnly(path, &error);
    CHECK(file != NULL);
    CHECK(MV_LogFile_HasTimeIndex(file, &present, &error));
    MV_LogFile_Destroy(file);
    MV_LogConfig_Destroy(config);
    return present;
}

TEST(recorder_builds_the_time_index_on_close_unless_told_not_to) {
    MV_LogRecorderOptions_p options = MV_LogRecorderOptions_Create();
    CHECK(recorded_file_has_time_index(test_path("default.mvlog"), NULL));
    CHECK(recorded_file_has_time_index(test_path("options.mvlog"), options));
    MV_LogRecorderOptions_SetBuildTimeIndexOnClose(options, false);
    CHECK(!recorded_file_has_time_index(test_path("without.mvlog"), options));
    MV_LogRecorderOptions_SetBuildTimeIndexOnClose(options, true);
    CHECK(recorded_file_has_time_index(test_path("with.mvlog"), options));
    MV_LogRecorderOptions_Destroy(options);
}
