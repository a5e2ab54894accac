/* Salvage of damaged files through the C interface. */
#include "support.h"

#include <logging/MV_Logging.h>

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define RECOVER_COUNT 2000
/* The first byte of a table b-tree leaf page. */
#define TABLE_LEAF 0x0D

static const uint8_t CALIBRATION[] = {'{', '"', 'k', '"', ':', ' ', '1', '}'};

/* The payload of an entry: 64 to 319 bytes that differ from id to id. */
static size_t payload_of(int32_t id, unsigned char* bytes) {
    const size_t length = 64 + (size_t)(id * 37) % 256;
    size_t k;
    uint32_t state = (uint32_t)id * 2654435761u;
    for (k = 0; k < length; ++k) {
        state = state * 1103515245u + 12345u;
        bytes[k] = (unsigned char)(state >> 16);
    }
    return length;
}

static int32_t type_of(int32_t id) {
    return id % 5;
}

static int64_t timestamp_of(int32_t id) {
    return 1700000000000LL + 10 * (int64_t)id;
}

/* Entries 1..RECOVER_COUNT, camera for ids divisible by 3 and gnss for the
 * others, a resource and a bookmark on entry 2. */
static int8_t camera_id = -1;
static int8_t gnss_id = -1;

static int8_t source_of(int32_t id) {
    return id % 3 == 0 ? camera_id : gnss_id;
}

/* Fills a new file with the entries, resource and bookmark above, and closes it. */
static void fill_recover_input(MV_LogFile_p file) {
    MV_LogError_p error = NULL;
    MV_LogResource_p resource = NULL;
    MV_LogBookmark_p bookmark = NULL;
    unsigned char payload[512];
    int32_t id;
    camera_id = add_source(file, MV_LogDataSourceType_Camera, "camera");
    gnss_id = add_source(file, MV_LogDataSourceType_Navigation, "gnss");
    REQUIRE(MV_LogFile_BeginBatch(file, &error));
    for (id = 1; id <= RECOVER_COUNT; ++id) {
        const size_t length = payload_of(id, payload);
        log_entry(file, source_of(id), type_of(id), payload, (int64_t)length, timestamp_of(id));
    }
    REQUIRE(MV_LogFile_CommitBatch(file, &error));
    resource = MV_LogResource_Create("calibration.json", CALIBRATION, sizeof CALIBRATION);
    CHECK(MV_LogFile_AddResource(file, resource, &error));
    MV_LogResource_Destroy(resource);
    bookmark = MV_LogBookmark_Create(2, "Start", "first fix", NULL, 0);
    CHECK(MV_LogFile_AddBookmark(file, bookmark, &error));
    MV_LogBookmark_Destroy(bookmark);
    CHECK(error == NULL);
    MV_LogFile_Destroy(file);
}

static void make_recover_input(const char* path) {
    fill_recover_input(create_log(path, -1));
}

static void copy_file(const char* from, const char* to) {
    size_t length = 0;
    unsigned char* bytes = read_file(from, &length);
    REQUIRE(bytes != NULL);
    write_file(to, bytes, length);
    free(bytes);
}

/* Writes zeros over the first table leaf page from the middle of the file on;
 * answers its number (1-based). */
static long zero_a_middle_leaf_page(const char* path) {
    size_t length = 0;
    unsigned char* bytes = read_file(path, &length);
    size_t page_size;
    size_t pages;
    size_t page;
    long zeroed = -1;
    REQUIRE(bytes != NULL);
    REQUIRE(length >= 100);
    page_size = ((size_t)bytes[16] << 8) | bytes[17];
    if (page_size == 1) {
        page_size = 65536;
    }
    pages = length / page_size;
    REQUIRE(pages >= 16);
    for (page = pages / 2; page < pages; ++page) {
        if (bytes[(page - 1) * page_size] == TABLE_LEAF) {
            zeroed = (long)page;
            break;
        }
    }
    free(bytes);
    REQUIRE(zeroed > 0);
    {
        FILE* stream = fopen(path, "r+b");
        unsigned char* zeros = calloc(page_size, 1);
        REQUIRE(stream != NULL);
        REQUIRE(zeros != NULL);
        REQUIRE(fseek(stream, (zeroed - 1) * (long)page_size, SEEK_SET) == 0);
        REQUIRE(fwrite(zeros, 1, page_size, stream) == page_size);
        REQUIRE(fclose(stream) == 0);
        free(zeros);
    }
    return zeroed;
}

/* Reads every id of the original range from `path`: each entry present must
 * match its original exactly. Counts what is there and what is not. */
static void check_recovered_entries(const char* path, int32_t* present, int32_t* missing) {
    MV_LogError_p error = NULL;
    MV_LogFile_p file = MV_LogFile_OpenReadOnly(path, &error);
    unsigned char expected[512];
    int32_t id;
    int32_t count = -1;
    int mismatches = 0;
    *present = 0;
    *missing = 0;
    REQUIRE(file != NULL);
    for (id = 1; id <= RECOVER_COUNT; ++id) {
        MV_LogDataEntry_p entry = NULL;
        int8_t source = 0;
        int32_t type = 0;
        int64_t timestamp = 0;
        int64_t length = 0;
        const uint8_t* data = NULL;
        size_t expected_length;
        if (!MV_LogFile_ReadEntry(file, id, &entry, &error)) {
            CHECK_ERROR(error, "The requested data entry does not exist.");
            ++*missing;
            continue;
        }
        ++*present;
        expected_length = payload_of(id, expected);
        MV_LogDataEntry_GetDataSourceId(entry, &source);
        MV_LogDataEntry_GetType(entry, &type);
        MV_LogDataEntry_GetTimestamp(entry, &timestamp);
        MV_LogDataEntry_GetData(entry, &length, &data);
        if (source != source_of(id) || type != type_of(id) || timestamp != timestamp_of(id) ||
            length != (int64_t)expected_length || memcmp(data, expected, expected_length) != 0) {
            ++mismatches;
        }
        MV_LogDataEntry_Destroy(entry);
    }
    CHECK_INT_EQ(mismatches, 0);
    CHECK(MV_LogFile_GetEntryCount(file, &count, &error));
    CHECK_INT_EQ(count, *present);
    MV_LogFile_Destroy(file);
}

TEST(recover_keeps_everything_of_an_intact_file) {
    const char* source = test_path("intact.mvlog");
    const char* output = test_path("saved.mvlog");
    MV_LogError_p error = NULL;
    MV_LogRecoveryReport report;
    int32_t present = 0;
    int32_t missing = 0;
    make_recover_input(source);
    memset(&report, 0xff, sizeof report);
    REQUIRE(MV_LogAlgorithms_RecoverWithReport(source, output, &report, &error));
    CHECK(error == NULL);
    CHECK_INT_EQ(report.entriesRecovered, RECOVER_COUNT);
    CHECK_INT_EQ(report.entriesLost, 0);
    CHECK_INT_EQ(report.dataSourcesRecovered, 2);
    CHECK_INT_EQ(report.resourcesRecovered, 1);
    CHECK_INT_EQ(report.resourcesLost, 0);
    CHECK_INT_EQ(report.bookmarksRecovered, 1);
    CHECK_INT_EQ(report.bookmarksLost, 0);
    CHECK(report.metadataRecovered > 0);
    check_recovered_entries(output, &present, &missing);
    CHECK_INT_EQ(present, RECOVER_COUNT);
    CHECK_INT_EQ(missing, 0);
}

TEST(recover_salvages_around_a_zeroed_page) {
    const char* source = test_path("source.mvlog");
    const char* damaged = test_path("damaged.mvlog");
    const char* output = test_path("saved.mvlog");
    const char* plain = test_path("plain.mvlog");
    MV_LogError_p error = NULL;
    MV_LogRecoveryReport report;
    unsigned char* before = NULL;
    unsigned char* after = NULL;
    size_t before_length = 0;
    size_t after_length = 0;
    int32_t present = 0;
    int32_t missing = 0;
    make_recover_input(source);
    copy_file(source, damaged);
    CHECK(zero_a_middle_leaf_page(damaged) > 1);
    before = read_file(damaged, &before_length);
    REQUIRE(before != NULL);

    memset(&report, 0, sizeof report);
    REQUIRE(MV_LogAlgorithms_RecoverWithReport(damaged, output, &report, &error));
    CHECK(error == NULL);
    /* The page held entries; only the middle was damaged, so the last id is
     * still known and every id is either recovered or lost. */
    CHECK(report.entriesLost > 0);
    CHECK(report.entriesRecovered > RECOVER_COUNT / 2);
    CHECK_INT_EQ(report.entriesRecovered + report.entriesLost, RECOVER_COUNT);
    CHECK_INT_EQ(report.dataSourcesRecovered, 2);
    CHECK_INT_EQ(report.resourcesRecovered, 1);
    CHECK_INT_EQ(report.resourcesLost, 0);
    CHECK_INT_EQ(report.bookmarksRecovered + report.bookmarksLost, 1);
    CHECK(report.metadataRecovered > 0);
    check_recovered_entries(output, &present, &missing);
    CHECK_INT_EQ(present, report.entriesRecovered);
    CHECK_INT_EQ(missing, report.entriesLost);

    /* Without a report: the same entries. */
    CHECK(MV_LogAlgorithms_Recover(damaged, plain, &error));
    CHECK(error == NULL);
    check_recovered_entries(plain, &present, &missing);
    CHECK_INT_EQ(present, report.entriesRecovered);

    /* The damaged file was only read. */
    after = read_file(damaged, &after_length);
    REQUIRE(after != NULL);
    REQUIRE_INT_EQ(after_length, before_length);
    CHECK_MEM_EQ(after, before, before_length);
    free(before);
    free(after);
}

TEST(recover_refuses_an_existing_output_and_reports_errors) {
    const char* source = test_path("source.mvlog");
    const char* existing = test_path("existing.mvlog");
    const char* missing = test_path("missing.mvlog");
    const char* output = test_path("out.mvlog");
    const unsigned char keep[] = {'k', 'e', 'e', 'p'};
    MV_LogError_p error = NULL;
    MV_LogRecoveryReport report;
    MV_LogRecoveryReport untouched;
    unsigned char* bytes = NULL;
    size_t length = 0;
    char expected[4096];
    make_recover_input(source);
    write_file(existing, keep, sizeof keep);

    memset(&report, 0x5a, sizeof report);
    memcpy(&untouched, &report, sizeof report);
    CHECK(!MV_LogAlgorithms_RecoverWithReport(source, existing, &report, &error));
    snprintf(expected, sizeof expected,
             "Cannot write '%s': a file already exists there and is never overwritten.", existing);
    CHECK_ERROR(error, expected);
    CHECK(memcmp(&report, &untouched, sizeof report) == 0);
    CHECK(!MV_LogAlgorithms_Recover(source, existing, &error));
    CHECK_ERROR(error, expected);
    /* A NULL error argument is allowed. */
    CHECK(!MV_LogAlgorithms_Recover(source, existing, NULL));
    bytes = read_file(existing, &length);
    REQUIRE(bytes != NULL);
    CHECK_INT_EQ(length, sizeof keep);
    CHECK_MEM_EQ(bytes, keep, sizeof keep);
    free(bytes);

    snprintf(expected, sizeof expected, "Cannot read '%s': it is missing or not a regular file.", missing);
    CHECK(!MV_LogAlgorithms_Recover(missing, output, &error));
    CHECK_ERROR(error, expected);
    CHECK(!MV_LogAlgorithms_RecoverWithReport(missing, output, &report, &error));
    CHECK_ERROR(error, expected);
    CHECK(memcmp(&report, &untouched, sizeof report) == 0);
    CHECK(!path_exists(output));
    /* A directory is not a file to salvage either. */
    snprintf(expected, sizeof expected, "Cannot read '%s': it is missing or not a regular file.", test_dir());
    CHECK(!MV_LogAlgorithms_Recover(test_dir(), output, &error));
    CHECK_ERROR(error, expected);
    CHECK(!path_exists(output));
}

/* Keeps the first `pages` whole pages of the file at `path`. */
static void cut_to_pages(const char* path, size_t pages) {
    size_t length = 0;
    unsigned char* bytes = read_file(path, &length);
    size_t page_size;
    REQUIRE(bytes != NULL);
    REQUIRE(length >= 100);
    page_size = ((size_t)bytes[16] << 8) | bytes[17];
    if (page_size == 1) {
        page_size = 65536;
    }
    REQUIRE(pages * page_size < length);
    write_file(path, bytes, pages * page_size);
    free(bytes);
}

static size_t pages_of(const char* path) {
    size_t length = 0;
    unsigned char* bytes = read_file(path, &length);
    size_t page_size;
    REQUIRE(bytes != NULL);
    page_size = ((size_t)bytes[16] << 8) | bytes[17];
    free(bytes);
    return length / (page_size == 1 ? 65536 : page_size);
}

TEST(recover_details_of_an_intact_file) {
    const char* source = test_path("intact.mvlog");
    const char* output = test_path("saved.mvlog");
    MV_LogError_p error = NULL;
    MV_LogRecoveryDetails details;
    /* Programs are built against the first report: it never changes. */
    CHECK_INT_EQ(sizeof(MV_LogRecoveryReport), 8 * sizeof(uint64_t));
    make_recover_input(source);
    memset(&details, 0xff, sizeof details);
    details.structSize = sizeof details;
    REQUIRE(MV_LogAlgorithms_RecoverWithDetails(source, output, &details, &error));
    CHECK(error == NULL);
    CHECK_INT_EQ(details.structSize, sizeof details);
    CHECK_INT_EQ(details.report.entriesRecovered, RECOVER_COUNT);
    CHECK_INT_EQ(details.report.entriesLost, 0);
    CHECK(!details.entriesLostIsLowerBound);
    CHECK(!details.pagesScanned);
    CHECK_INT_EQ(details.report.dataSourcesRecovered, 2);
    CHECK_INT_EQ(details.dataSourcesRecreated, 0);
    CHECK_INT_EQ(details.propertiesRecovered, 0);
    CHECK_INT_EQ(details.propertiesLost, 0);
    CHECK_INT_EQ(details.report.resourcesRecovered, 1);
    CHECK_INT_EQ(details.report.bookmarksRecovered, 1);
    CHECK(details.report.metadataRecovered > 0);
    CHECK_INT_EQ(details.metadataLost, 0);
    /* NULL details are allowed. */
    CHECK(MV_LogAlgorithms_RecoverWithDetails(source, test_path("other.mvlog"), NULL, &error));
    CHECK(error == NULL);
}

/* The end of the file is gone, and with it part of the index on the entries:
 * the entries after the highest id the file still shows cannot be counted,
 * and the details say that the count is a lower bound. */
TEST(recover_details_say_when_the_lost_count_is_a_lower_bound) {
    const char* source = test_path("source.mvlog");
    const char* damaged = test_path("damaged.mvlog");
    const char* output = test_path("saved.mvlog");
    const char* plain = test_path("plain.mvlog");
    MV_LogError_p error = NULL;
    MV_LogRecoveryDetails details;
    MV_LogRecoveryReport report;
    int32_t present = 0;
    int32_t missing = 0;
    make_recover_input(source);
    copy_file(source, damaged);
    cut_to_pages(damaged, pages_of(source) / 2);

    memset(&details, 0, sizeof details);
    details.structSize = sizeof details;
    REQUIRE(MV_LogAlgorithms_RecoverWithDetails(damaged, output, &details, &error));
    CHECK(error == NULL);
    CHECK(details.entriesLostIsLowerBound);
    CHECK(details.pagesScanned);
    CHECK(details.report.entriesRecovered > 0);
    CHECK(details.report.entriesLost > 0);
    CHECK(details.report.entriesRecovered + details.report.entriesLost <= RECOVER_COUNT);
    check_recovered_entries(output, &present, &missing);
    CHECK_INT_EQ(present, details.report.entriesRecovered);

    /* The older call reports the same counts. */
    memset(&report, 0, sizeof report);
    REQUIRE(MV_LogAlgorithms_RecoverWithReport(damaged, plain, &report, &error));
    CHECK(memcmp(&report, &details.report, sizeof report) == 0);
}

/* A struct from a newer header is larger: only the fields known here are
 * written. One smaller than the first version is refused before anything is
 * written. */
TEST(recover_details_respect_the_struct_size) {
    const char* source = test_path("intact.mvlog");
    const char* output = test_path("saved.mvlog");
    MV_LogError_p error = NULL;
    struct newer_details {
        MV_LogRecoveryDetails known;
        unsigned char later[16];
    } larger;
    MV_LogRecoveryDetails small;
    MV_LogRecoveryDetails untouched;
    char expected[256];
    size_t k;
    make_recover_input(source);
    memset(&larger, 0xab, sizeof larger);
    larger.known.structSize = sizeof larger;
    REQUIRE(MV_LogAlgorithms_RecoverWithDetails(source, output, &larger.known, &error));
    CHECK(error == NULL);
    CHECK_INT_EQ(larger.known.structSize, sizeof larger);
    CHECK_INT_EQ(larger.known.report.entriesRecovered, RECOVER_COUNT);
    CHECK_INT_EQ(larger.known.report.entriesLost, 0);
    CHECK(!larger.known.entriesLostIsLowerBound);
    for (k = 0; k < sizeof larger.later; ++k) {
        CHECK_INT_EQ(larger.later[k], 0xab);
    }

    memset(&small, 0x5a, sizeof small);
    small.structSize = sizeof small - 1;
    memcpy(&untouched, &small, sizeof small);
    CHECK(!MV_LogAlgorithms_RecoverWithDetails(source, test_path("refused.mvlog"), &small, &error));
    snprintf(expected, sizeof expected,
             "MV_LogAlgorithms_RecoverWithDetails: structSize is %u, less than the %u bytes of "
             "MV_LogRecoveryDetails; set it to sizeof(MV_LogRecoveryDetails).",
             (unsigned)(sizeof small - 1), (unsigned)sizeof small);
    CHECK_ERROR(error, expected);
    CHECK(memcmp(&small, &untouched, sizeof small) == 0);
    CHECK(!path_exists(test_path("refused.mvlog")));
}

/* An uncompressed file with entry checksums, one byte of entry 1000's payload
 * changed where the file stores it: every page is still well formed, and only
 * the checksum tells. The entry is lost; the rest come back, with checksums. */
TEST(recover_loses_an_entry_that_fails_its_checksum) {
    const char* damaged = test_path("checked.mvlog");
    const char* output = test_path("saved.mvlog");
    MV_LogConfig_p config = make_config(0);
    MV_LogError_p error = NULL;
    MV_LogFile_p file = NULL;
    MV_LogRecoveryReport report;
    unsigned char payload[512];
    unsigned char* bytes = NULL;
    size_t length = 0;
    size_t payload_length = 0;
    size_t at;
    size_t found = 0;
    size_t places = 0;
    bool checksums = false;
    int32_t present = 0;
    int32_t missing = 0;
    REQUIRE(MV_LogConfig_SetChecksums(config, true, &error));
    file = MV_LogFile_Create(damaged, config, &error);
    MV_LogConfig_Destroy(config);
    REQUIRE(file != NULL);
    fill_recover_input(file);

    payload_length = payload_of(1000, payload);
    bytes = read_file(damaged, &length);
    REQUIRE(bytes != NULL);
    for (at = 0; at + payload_length <= length; ++at) {
        if (memcmp(bytes + at, payload, payload_length) == 0) {
            found = at;
            ++places;
        }
    }
    REQUIRE_INT_EQ(places, 1);
    bytes[found + payload_length / 2] ^= 0x20;
    write_file(damaged, bytes, length);
    free(bytes);

    memset(&report, 0, sizeof report);
    REQUIRE(MV_LogAlgorithms_RecoverWithReport(damaged, output, &report, &error));
    CHECK(error == NULL);
    CHECK_INT_EQ(report.entriesRecovered, RECOVER_COUNT - 1);
    CHECK_INT_EQ(report.entriesLost, 1);
    check_recovered_entries(output, &present, &missing);
    CHECK_INT_EQ(present, RECOVER_COUNT - 1);
    CHECK_INT_EQ(missing, 1);

    file = MV_LogFile_OpenReadOnly(output, &error);
    REQUIRE(file != NULL);
    CHECK(MV_LogFile_HasChecksums(file, &checksums, &error));
    CHECK(checksums);
    MV_LogFile_Destroy(file);
}
