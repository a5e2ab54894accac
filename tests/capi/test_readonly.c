/* Opening read-only through the C interface: reads work, writes are refused
 * with a message naming the file, and the file keeps every byte. */
#include "support.h"

#include <logging/MV_Logging.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const char* make_sample(const char* name) {
    const char* path = test_path(name);
    MV_LogFile_p file = create_log(path, -1);
    MV_LogError_p error = NULL;
    int8_t source = add_source(file, MV_LogDataSourceType_Camera, "camera");
    MV_LogBookmark_p bookmark = MV_LogBookmark_Create(1, "start", "first", NULL, 0);
    log_entry(file, source, 3, "first payload", 13, 100);
    log_entry(file, source, 3, "second payload", 14, 200);
    CHECK(MV_LogFile_AddBookmark(file, bookmark, &error));
    MV_LogBookmark_Destroy(bookmark);
    MV_LogFile_Destroy(file);
    return path;
}

TEST(readonly_open_reads_and_changes_no_byte) {
    const char* path = make_sample("readonly.mvlog");
    size_t before_length = 0;
    size_t after_length = 0;
    unsigned char* before = read_file(path, &before_length);
    unsigned char* after = NULL;
    MV_LogError_p error = NULL;
    MV_LogFile_p file = MV_LogFile_OpenReadOnly(path, &error);
    int32_t count = 0;
    size_t bookmarks = 0;
    CHECK(file != NULL);
    CHECK(MV_LogFile_GetEntryCount(file, &count, &error));
    CHECK_INT_EQ(count, 2);
    CHECK(MV_LogFile_GetBookmarks(file, count_bookmark, &bookmarks));
    CHECK_INT_EQ((int)bookmarks, 1);
    MV_LogFile_Destroy(file);
    after = read_file(path, &after_length);
    CHECK(before != NULL && after != NULL);
    CHECK_INT_EQ((int)before_length, (int)after_length);
    CHECK(memcmp(before, after, before_length) == 0);
    free(before);
    free(after);
}

TEST(readonly_open_refuses_writes_with_a_clear_message) {
    const char* path = make_sample("refusals.mvlog");
    char expected[4096];
    MV_LogError_p error = NULL;
    MV_LogFile_p file = MV_LogFile_OpenReadOnly(path, &error);
    MV_LogBookmark_p bookmark = MV_LogBookmark_Create(2, "second", "", NULL, 0);
    MV_LogDataSource_p source = MV_LogDataSource_Create(MV_LogDataSourceType_Lidar, "lidar");
    size_t bookmarks = 0;
    CHECK(file != NULL);
    snprintf(expected, sizeof expected, "The log file '%s' was opened read-only: it cannot be changed.",
             path);
    CHECK(!MV_LogFile_AddBookmark(file, bookmark, &error));
    CHECK_ERROR(error, expected);
    CHECK(!MV_LogFile_RemoveBookmark(file, bookmark, &error));
    CHECK_ERROR(error, expected);
    CHECK(!MV_LogFile_BeginBatch(file, &error));
    CHECK_ERROR(error, expected);
    /* Data sources are refused as on every opened file. */
    CHECK(!MV_LogFile_AddDataSource(file, source, &error));
    CHECK(error != NULL);
    MV_LogError_Destroy(error);
    CHECK(MV_LogFile_GetBookmarks(file, count_bookmark, &bookmarks));
    CHECK_INT_EQ((int)bookmarks, 1);
    MV_LogDataSource_Destroy(source);
    MV_LogBookmark_Destroy(bookmark);
    MV_LogFile_Destroy(file);
}

TEST(readonly_open_of_a_missing_path_creates_nothing) {
    const char* path = test_path("missing.mvlog");
    MV_LogError_p error = NULL;
    CHECK(MV_LogFile_OpenReadOnly(path, &error) == NULL);
    CHECK_ERROR(error, "Log file does not exist.");
    CHECK(!path_exists(path));
}

TEST(readonly_open_refuses_a_file_that_is_not_a_log) {
    const char* path = test_path("text.mvlog");
    MV_LogError_p error = NULL;
    write_file(path, "not a database at all, just some text", 37);
    CHECK(MV_LogFile_OpenReadOnly(path, &error) == NULL);
    CHECK_ERROR(error, "This file is not in a supported log file format.");
}

TEST(durability_defaults_to_fast_and_refuses_unknown_modes) {
    MV_LogConfig_p config = MV_LogConfig_Create("app", "1.0", "Etc/UTC");
    MV_LogDurability durability = MV_LOG_DURABILITY_SAFE;
    MV_LogError_p error = NULL;
    MV_LogConfig_GetDurability(config, &durability);
    CHECK_INT_EQ((int)durability, (int)MV_LOG_DURABILITY_FAST);
    CHECK(MV_LogConfig_SetDurability(config, MV_LOG_DURABILITY_SAFE, &error));
    MV_LogConfig_GetDurability(config, &durability);
    CHECK_INT_EQ((int)durability, (int)MV_LOG_DURABILITY_SAFE);
    CHECK(!MV_LogConfig_SetDurability(config, (MV_LogDurability)7, &error));
    CHECK_ERROR(error,
                "Invalid durability, value must be MV_LOG_DURABILITY_FAST, MV_LOG_DURABILITY_SAFE or "
                "MV_LOG_DURABILITY_BALANCED.");
    MV_LogConfig_GetDurability(config, &durability);
    CHECK_INT_EQ((int)durability, (int)MV_LOG_DURABILITY_SAFE);
    MV_LogConfig_Destroy(config);
}

/* Bytes 18 and 19 of the database header: 2 for a write-ahead log, 1 for a
 * rollback journal. */
static int header_format(const char* path) {
    size_t length = 0;
    unsigned char* bytes = read_file(path, &length);
    int format = bytes != NULL && length > 19 ? bytes[18] : -1;
    free(bytes);
    return format;
}

TEST(durability_safe_creates_a_write_ahead_log_file_that_reads_back) {
    const char* safe_path = test_path("safe.mvlog");
    const char* fast_path = test_path("fast.mvlog");
    MV_LogConfig_p config = MV_LogConfig_Create("app", "1.0", "Etc/UTC");
    MV_LogError_p error = NULL;
    MV_LogFile_p file = NULL;
    int32_t count = 0;
    int8_t source = 0;
    char side_file[4096];
    CHECK(MV_LogConfig_SetDurability(config, MV_LOG_DURABILITY_SAFE, &error));
    file = MV_LogFile_Create(safe_path, config, &error);
    CHECK(file != NULL);
    source = add_source(file, MV_LogDataSourceType_Navigation, "gnss");
    log_entry(file, source, 1, "fix", 3, 10);
    MV_LogFile_Destroy(file);
    MV_LogConfig_Destroy(config);
    CHECK_INT_EQ(header_format(safe_path), 2);
    snprintf(side_file, sizeof side_file, "%s-wal", safe_path);
    CHECK(!path_exists(side_file));

    file = MV_LogFile_OpenReadOnly(safe_path, &error);
    CHECK(file != NULL);
    CHECK(MV_LogFile_GetEntryCount(file, &count, &error));
    CHECK_INT_EQ(count, 1);
    MV_LogFile_Destroy(file);

    MV_LogFile_Destroy(create_log(fast_path, 0));
    CHECK_INT_EQ(header_format(fast_path), 1);
}
