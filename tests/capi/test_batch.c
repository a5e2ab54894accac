/* Write batches through the C interface. */
#include "support.h"

#include <logging/MV_Logging.h>

static int32_t count_entries(const char* path) {
    MV_LogError_p error = NULL;
    MV_LogFile_p file = MV_LogFile_Open(path, &error);
    int32_t count = -1;
    if (file == NULL) {
        MV_LogError_Destroy(error);
        return -1;
    }
    MV_LogFile_GetEntryCount(file, &count, NULL);
    MV_LogFile_Destroy(file);
    return count;
}

TEST(batch_groups_writes_and_commit_keeps_them) {
    const char* path = test_path("batch.mvlog");
    MV_LogFile_p file = create_log(path, -1);
    MV_LogError_p error = NULL;
    int8_t source = add_source(file, MV_LogDataSourceType_Camera, "camera");
    int32_t count = 0;
    int i;
    CHECK(MV_LogFile_BeginBatch(file, &error));
    for (i = 0; i < 20; ++i) {
        log_entry(file, source, i, "payload", 7, i);
    }
    CHECK(MV_LogFile_GetEntryCount(file, &count, &error));
    CHECK_INT_EQ(count, 20);
    CHECK_INT_EQ(count_entries(path), 0);
    CHECK(MV_LogFile_CommitBatch(file, &error));
    CHECK_INT_EQ(count_entries(path), 20);
    MV_LogFile_Destroy(file);
}

TEST(batch_refuses_a_second_begin_and_a_commit_without_begin) {
    const char* path = test_path("refusals.mvlog");
    MV_LogFile_p file = create_log(path, 0);
    MV_LogError_p error = NULL;
    CHECK(!MV_LogFile_CommitBatch(file, &error));
    CHECK_ERROR(error, "No write batch is open on this log file.");
    CHECK(MV_LogFile_BeginBatch(file, &error));
    CHECK(!MV_LogFile_BeginBatch(file, &error));
    CHECK_ERROR(error, "A write batch is already open on this log file.");
    CHECK(!MV_LogFile_BeginBatch(file, NULL));
    CHECK(MV_LogFile_CommitBatch(file, NULL));
    CHECK(!MV_LogFile_CommitBatch(file, NULL));
    MV_LogFile_Destroy(file);
}

TEST(batch_left_open_is_committed_by_destroy) {
    const char* path = test_path("destroy.mvlog");
    MV_LogFile_p file = create_log(path, 0);
    MV_LogError_p error = NULL;
    int8_t source = add_source(file, MV_LogDataSourceType_Generic, "source");
    CHECK(MV_LogFile_BeginBatch(file, &error));
    log_entry(file, source, 1, "abc", 3, 1);
    log_entry(file, source, 1, "def", 3, 2);
    MV_LogFile_Destroy(file);
    CHECK_INT_EQ(count_entries(path), 2);
}

TEST(batch_on_an_opened_file_carries_bookmarks_and_refusals_stay) {
    const char* path = test_path("opened.mvlog");
    MV_LogFile_p file = create_log(path, 0);
    MV_LogError_p error = NULL;
    MV_LogBookmark_p bookmark;
    int8_t source = add_source(file, MV_LogDataSourceType_Generic, "source");
    MV_LogDataEntry_p entry;
    log_entry(file, source, 1, "abc", 3, 1);
    MV_LogFile_Destroy(file);

    file = open_log(path);
    CHECK(MV_LogFile_BeginBatch(file, &error));
    bookmark = MV_LogBookmark_Create(1, "title", "comments", NULL, 0);
    CHECK(MV_LogFile_AddBookmark(file, bookmark, &error));
    MV_LogBookmark_Destroy(bookmark);
    entry = MV_LogDataEntry_Create(&source, 1, (const uint8_t*)"x", 1);
    CHECK(!MV_LogFile_LogData(file, entry, &error));
    CHECK_ERROR(error, "Data cannot be logged into pre-existing log files.");
    MV_LogDataEntry_Destroy(entry);
    CHECK(MV_LogFile_CommitBatch(file, &error));
    MV_LogFile_Destroy(file);
}
