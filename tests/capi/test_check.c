/* The check of a file through the C interface. */
#include "support.h"

#include <logging/MV_Logging.h>

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* Level 0 with checksums: four entries whose payloads are stored as logged. */
static void make_file(const char* path) {
    MV_LogError_p error = NULL;
    MV_LogConfig_p config = make_config(0);
    CHECK(MV_LogConfig_SetChecksums(config, true, &error));
    MV_LogFile_p file = MV_LogFile_Create(path, config, &error);
    REQUIRE(file != NULL);
    int8_t source = add_source(file, MV_LogDataSourceType_Camera, "camera");
    char text[64];
    int i;
    for (i = 1; i <= 4; ++i) {
        snprintf(text, sizeof text, "a checked payload, number %d", i);
        log_entry(file, source, 1, text, (int64_t)strlen(text), 1000 + i);
    }
    MV_LogFile_Destroy(file);
    MV_LogConfig_Destroy(config);
}

TEST(check_of_a_sound_file_is_clean_and_counts_what_it_read) {
    const char* path = test_path("sound.mvlog");
    make_file(path);
    MV_LogError_p error = NULL;
    MV_LogCheckReport_p report = MV_LogAlgorithms_Check(path, &error);
    REQUIRE(report != NULL);
    CHECK(error == NULL);
    CHECK(MV_LogCheckReport_IsClean(report));
    CHECK(!MV_LogCheckReport_FoundDamage(report));
    CHECK_INT_EQ(MV_LogCheckReport_GetProblemCount(report), 0);
    uint64_t entries = 0, sources = 0, resources = 9, bookmarks = 9;
    CHECK(MV_LogCheckReport_GetCheckedCounts(report, &entries, &sources, &resources, &bookmarks));
    CHECK_INT_EQ(entries, 4);
    CHECK_INT_EQ(sources, 1);
    CHECK_INT_EQ(resources, 0);
    CHECK_INT_EQ(bookmarks, 0);
    CHECK(!MV_LogCheckReport_GetProblem(report, 0, NULL, NULL, NULL, &error));
    CHECK_ERROR(error, "MV_LogCheckReport_GetProblem: problem 0 of a report of 0");
    MV_LogCheckReport_Destroy(report);
    MV_LogCheckReport_Destroy(NULL);
}

TEST(check_names_a_payload_that_no_longer_matches_its_checksum) {
    const char* path = test_path("changed.mvlog");
    make_file(path);
    size_t size = 0;
    unsigned char* contents = read_file(path, &size);
    REQUIRE(contents != NULL);
    const char* needle = "payload, number 3";
    size_t at = 0;
    while (at + strlen(needle) <= size && memcmp(contents + at, needle, strlen(needle)) != 0) {
        ++at;
    }
    REQUIRE(at + strlen(needle) <= size);
    contents[at] = 'P';
    write_file(path, contents, size);
    free(contents);

    MV_LogError_p error = NULL;
    MV_LogCheckReport_p report = MV_LogAlgorithms_Check(path, &error);
    REQUIRE(report != NULL);
    CHECK(!MV_LogCheckReport_IsClean(report));
    CHECK(MV_LogCheckReport_FoundDamage(report));
    REQUIRE(MV_LogCheckReport_GetProblemCount(report) == 1);
    MV_LogCheckProblemKind kind = MV_LOG_CHECK_FILE;
    int64_t entryId = 0;
    const char* message = NULL;
    CHECK(MV_LogCheckReport_GetProblem(report, 0, &kind, &entryId, &message, &error));
    CHECK(kind == MV_LOG_CHECK_ENTRY);
    CHECK_INT_EQ(entryId, 3);
    CHECK_STR_EQ(message, "entry 3: its payload does not match its checksum");
    MV_LogCheckReport_Destroy(report);
}

TEST(check_of_an_empty_file_reports_it_without_counts) {
    const char* path = test_path("empty.mvlog");
    write_file(path, "", 0);
    MV_LogError_p error = NULL;
    MV_LogCheckReport_p report = MV_LogAlgorithms_Check(path, &error);
    REQUIRE(report != NULL);
    MV_LogCheckProblemKind kind = MV_LOG_CHECK_ENTRY;
    int64_t entryId = 0;
    const char* message = NULL;
    REQUIRE(MV_LogCheckReport_GetProblemCount(report) == 1);
    CHECK(MV_LogCheckReport_GetProblem(report, 0, &kind, &entryId, &message, &error));
    CHECK(kind == MV_LOG_CHECK_FILE);
    CHECK_INT_EQ(entryId, -1);
    CHECK_STR_EQ(message, "the file is empty (0 bytes)");
    uint64_t entries = 7;
    CHECK(!MV_LogCheckReport_GetCheckedCounts(report, &entries, NULL, NULL, NULL));
    CHECK_INT_EQ(entries, 7);
    MV_LogCheckReport_Destroy(report);
}
