/* Entry checksums through the C interface: chosen in the configuration,
 * reported by the file, verified by streaming reads when asked. */
#include "support.h"

#include <logging/MV_Logging.h>

#include <stdio.h>
#include <string.h>

static bool count_checked_entry(void* userData, const MV_LogEntryView* entry) {
    (void)entry;
    ++*(int*)userData;
    return true;
}

static void make_checked_file(const char* path, bool checksums) {
    MV_LogConfig_p config = make_config(0);
    MV_LogError_p error = NULL;
    bool enabled = !checksums;
    CHECK(MV_LogConfig_SetChecksums(config, checksums, &error));
    MV_LogConfig_GetChecksums(config, &enabled);
    CHECK(enabled == checksums);
    MV_LogFile_p file = MV_LogFile_Create(path, config, &error);
    CHECK(file != NULL);
    int8_t source = add_source(file, MV_LogDataSourceType_Camera, "camera");
    char text[64];
    int i;
    for (i = 1; i <= 4; ++i) {
        snprintf(text, sizeof text, "an uncompressed payload, number %d", i);
        log_entry(file, source, 1, text, (int64_t)strlen(text), 1000 + i);
    }
    MV_LogFile_Destroy(file);
    MV_LogConfig_Destroy(config);
}

TEST(checksums_are_off_by_default_and_chosen_in_the_configuration) {
    MV_LogConfig_p config = make_config(0);
    bool enabled = true;
    MV_LogConfig_GetChecksums(config, &enabled);
    CHECK(!enabled);
    MV_LogConfig_Destroy(config);

    const char* plain = test_path("plain.mvlog");
    const char* checked = test_path("checked.mvlog");
    make_checked_file(plain, false);
    make_checked_file(checked, true);
    MV_LogError_p error = NULL;
    bool present = true;
    MV_LogFile_p file = MV_LogFile_Open(plain, &error);
    CHECK(MV_LogFile_HasChecksums(file, &present, &error));
    CHECK(!present);
    MV_LogFile_Destroy(file);
    file = MV_LogFile_Open(checked, &error);
    CHECK(MV_LogFile_HasChecksums(file, &present, &error));
    CHECK(present);
    MV_LogFile_Destroy(file);
}

TEST(a_verifying_visit_names_a_payload_that_no_longer_matches) {
    const char* path = test_path("damaged.mvlog");
    make_checked_file(path, true);
    /* Level 0 stores the payload's bytes as they are: change one in place,
     * which keeps every page's structure intact. */
    FILE* stream = fopen(path, "r+b");
    CHECK(stream != NULL);
    static char contents[1 << 20];
    const size_t size = fread(contents, 1, sizeof contents, stream);
    const char* needle = "payload, number 3";
    size_t at = 0;
    while (at + strlen(needle) <= size && memcmp(contents + at, needle, strlen(needle)) != 0) {
        ++at;
    }
    CHECK(at + strlen(needle) <= size);
    CHECK(fseek(stream, (long)at, SEEK_SET) == 0);
    CHECK(fputc('P', stream) == 'P');
    fclose(stream);

    MV_LogError_p error = NULL;
    MV_LogFile_p file = MV_LogFile_Open(path, &error);
    int visited = 0;
    CHECK(MV_LogFile_VisitEntries(file, -1, -1, INT64_MIN, INT64_MAX, NULL, count_checked_entry, &visited,
                                  &error));
    CHECK_INT_EQ(visited, 4);
    CHECK(MV_LogFile_SetChecksumVerification(file, true, &error));
    visited = 0;
    CHECK(!MV_LogFile_VisitEntries(file, -1, -1, INT64_MIN, INT64_MAX, NULL, count_checked_entry, &visited,
                                   &error));
    CHECK_INT_EQ(visited, 2);
    {
        char expected[512];
        snprintf(expected, sizeof expected,
                 "Entry 3 of '%s' cannot be read: its payload does not match its checksum", path);
        CHECK_ERROR(error, expected);
    }
    MV_LogFile_Destroy(file);
}
