/* symlink */
#define _POSIX_C_SOURCE 200809L

/* Errors, creation settings, and creating, opening and destroying files. */

#include "harness.h"
#include "support.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static const char* const INVALID_LEVEL = "Invalid compression level, value must be in the range [0,9].";
static const char* const ALREADY_EXISTS = "Cannot create file as file already exists.";
static const char* const DOES_NOT_EXIST = "Log file does not exist.";
static const char* const LEGACY = "Tried to open a legacy log file.";
static const char* const FOREIGN = "This file is not in a supported log file format.";

/* ---- configuration ---------------------------------------------------- */

TEST(config_starts_at_default_level_with_its_time_zone) {
    MV_LogConfig_p config = MV_LogConfig_Create("Recorder", "2.0", "UTC");
    int8_t level = 42;
    const char* zone = NULL;
    REQUIRE(config != NULL);
    MV_LogConfig_GetCompressionLevel(config, &level);
    CHECK_INT_EQ(level, -1);
    MV_LogConfig_GetTimeZone(config, &zone);
    CHECK_STR_EQ(zone, "UTC");
    MV_LogConfig_Destroy(config);
}

TEST(config_copies_its_texts) {
    char name[] = "Recorder";
    char version[] = "2.0";
    char zone[] = "Europe/Paris";
    MV_LogConfig_p config = MV_LogConfig_Create(name, version, zone);
    const char* stored = NULL;
    struct metadata_list metadata = {0, NULL};
    MV_LogError_p error = NULL;
    MV_LogFile_p file;
    const struct metadata_copy* found;

    /* Overwrite the caller's buffers: the config must not notice. */
    memset(name, 'x', sizeof name - 1);
    memset(version, 'y', sizeof version - 1);
    memset(zone, 'z', sizeof zone - 1);
    MV_LogConfig_GetTimeZone(config, &stored);
    CHECK_STR_EQ(stored, "Europe/Paris");

    file = MV_LogFile_Create(test_path("copies.mvlog"), config, &error);
    MV_LogConfig_Destroy(config);
    REQUIRE(file != NULL);
    CHECK(MV_LogFile_GetAllMetadata(file, collect_metadata, &metadata));
    found = find_metadata(&metadata, "applicationName");
    REQUIRE(found != NULL);
    CHECK_STR_EQ(found->value.text, "Recorder");
    found = find_metadata(&metadata, "applicationVersion");
    REQUIRE(found != NULL);
    CHECK_STR_EQ(found->value.text, "2.0");
    found = find_metadata(&metadata, "currentTimeZone");
    REQUIRE(found != NULL);
    CHECK_STR_EQ(found->value.text, "Europe/Paris");
    metadata_list_free(&metadata);
    MV_LogFile_Destroy(file);
}

TEST(config_set_time_zone_replaces_it_and_is_always_true) {
    MV_LogConfig_p config = MV_LogConfig_Create("Recorder", "2.0", "UTC");
    char zone[] = "America/Sao_Paulo";
    const char* stored = NULL;
    CHECK(MV_LogConfig_SetTimeZone(config, zone));
    zone[0] = 'X';
    MV_LogConfig_GetTimeZone(config, &stored);
    CHECK_STR_EQ(stored, "America/Sao_Paulo");
    CHECK(MV_LogConfig_SetTimeZone(config, ""));
    MV_LogConfig_GetTimeZone(config, &stored);
    CHECK_STR_EQ(stored, "");
    MV_LogConfig_Destroy(config);
}

TEST(config_accepts_levels_minus_one_to_nine) {
    MV_LogConfig_p config = MV_LogConfig_Create("Recorder", "2.0", "UTC");
    int level;
    for (level = 9; level >= -1; --level) {
        MV_LogError_p error = NULL;
        int8_t stored = 42;
        CHECK(MV_LogConfig_SetCompressionLevel(config, (int8_t)level, &error));
        CHECK(error == NULL);
        MV_LogConfig_GetCompressionLevel(config, &stored);
        CHECK_INT_EQ(stored, level);
    }
    MV_LogConfig_Destroy(config);
}

TEST(config_refuses_levels_outside_the_range_and_keeps_the_old_one) {
    static const int8_t refused[] = {10, -2, 127, -128};
    MV_LogConfig_p config = MV_LogConfig_Create("Recorder", "2.0", "UTC");
    size_t index;
    REQUIRE(MV_LogConfig_SetCompressionLevel(config, 5, NULL));
    for (index = 0; index < sizeof refused; ++index) {
        MV_LogError_p error = NULL;
        int8_t stored = 42;
        CHECK(!MV_LogConfig_SetCompressionLevel(config, refused[index], &error));
        CHECK_ERROR(error, INVALID_LEVEL);
        MV_LogConfig_GetCompressionLevel(config, &stored);
        CHECK_INT_EQ(stored, 5);

        /* Without an error argument only the result tells. */
        CHECK(!MV_LogConfig_SetCompressionLevel(config, refused[index], NULL));
        MV_LogConfig_GetCompressionLevel(config, &stored);
        CHECK_INT_EQ(stored, 5);
    }
    MV_LogConfig_Destroy(config);
}

/* ---- creating ----------------------------------------------------------- */

TEST(create_writes_a_new_database_file) {
    static const unsigned char sqliteMagic[16] = "SQLite format 3";
    const char* path = test_path("new.mvlog");
    MV_LogFile_p file;
    unsigned char* bytes;
    size_t length = 0;

    CHECK(!path_exists(path));
    file = create_log(path, -1);
    CHECK(path_exists(path));
    MV_LogFile_Destroy(file);

    bytes = read_file(path, &length);
    REQUIRE(bytes != NULL);
    REQUIRE(length >= sizeof sqliteMagic);
    CHECK_MEM_EQ(bytes, sqliteMagic, sizeof sqliteMagic);
    free(bytes);

    file = open_log(path);
    MV_LogFile_Destroy(file);
}

TEST(create_refuses_an_existing_file_and_leaves_it_alone) {
    static const char content[] = "not to be touched";
    const char* path = test_path("taken.mvlog");
    MV_LogConfig_p config = make_config(-1);
    MV_LogError_p error = NULL;
    unsigned char* bytes;
    size_t length = 0;

    write_file(path, content, sizeof content);
    CHECK(MV_LogFile_Create(path, config, &error) == NULL);
    CHECK_ERROR(error, ALREADY_EXISTS);
    MV_LogConfig_Destroy(config);

    bytes = read_file(path, &length);
    REQUIRE(bytes != NULL);
    CHECK_INT_EQ(length, sizeof content);
    CHECK_MEM_EQ(bytes, content, sizeof content);
    free(bytes);
}

TEST(create_refuses_an_existing_directory) {
    const char* path = test_path("directory.mvlog");
    MV_LogConfig_p config = make_config(-1);
    MV_LogError_p error = NULL;
    make_directory(path);
    CHECK(MV_LogFile_Create(path, config, &error) == NULL);
    CHECK_ERROR(error, ALREADY_EXISTS);
    MV_LogConfig_Destroy(config);
}

TEST(create_refuses_a_dangling_symbolic_link) {
    const char* path = test_path("link.mvlog");
    const char* target = test_path("missing-target.mvlog");
    MV_LogConfig_p config = make_config(-1);
    MV_LogError_p error = NULL;
    REQUIRE(symlink(target, path) == 0);
    CHECK(MV_LogFile_Create(path, config, &error) == NULL);
    CHECK_ERROR(error, ALREADY_EXISTS);
    CHECK(!path_exists(target));
    MV_LogConfig_Destroy(config);
}

TEST(create_in_a_missing_directory_reports_the_database_error) {
    const char* path = test_path("no/such/directory/file.mvlog");
    MV_LogConfig_p config = make_config(-1);
    MV_LogError_p error = NULL;
    char* message;

    CHECK(MV_LogFile_Create(path, config, &error) == NULL);
    REQUIRE(error != NULL);
    message = take_error_message(&error);
    REQUIRE(message != NULL);
    CHECK(strlen(message) > 0);
    CHECK(strcmp(message, ALREADY_EXISTS) != 0);
    CHECK(strcmp(message, "Unknown internal error") != 0);
    free(message);

    /* The same failure without an error argument: only the result. */
    CHECK(MV_LogFile_Create(path, config, NULL) == NULL);
    CHECK(!path_exists(path));
    MV_LogConfig_Destroy(config);
}

TEST(created_file_records_the_configured_compression_level) {
    const char* path = test_path("level.mvlog");
    MV_LogFile_p file = create_log(path, 6);
    MV_LogMetadata_p level = NULL;
    MV_LogError_p error = NULL;
    int64_t value = 0;
    REQUIRE(MV_LogFile_GetMetadata(file, "compressionLevel", &level, &error));
    CHECK(MV_LogMetadata_GetInt64(level, &value));
    CHECK_INT_EQ(value, 6);
    MV_LogMetadata_Destroy(level);
    MV_LogFile_Destroy(file);
}

/* ---- opening ------------------------------------------------------------ */

TEST(open_missing_path_fails_and_creates_nothing) {
    const char* path = test_path("missing.mvlog");
    MV_LogError_p error = NULL;
    CHECK(MV_LogFile_Open(path, &error) == NULL);
    CHECK_ERROR(error, DOES_NOT_EXIST);
    CHECK(MV_LogFile_Open(path, NULL) == NULL);
    CHECK(!path_exists(path));
}

TEST(open_legacy_file_is_refused) {
    unsigned char bytes[2048];
    const char* path = test_path("legacy.log");
    MV_LogError_p error = NULL;
    size_t index;
    bytes[0] = 0x44;
    bytes[1] = 0x33;
    bytes[2] = 0x22;
    bytes[3] = 0x11;
    for (index = 4; index < sizeof bytes; ++index) {
        bytes[index] = (unsigned char)(index * 31 + 7);
    }
    write_file(path, bytes, sizeof bytes);
    CHECK(MV_LogFile_Open(path, &error) == NULL);
    CHECK_ERROR(error, LEGACY);
    CHECK(MV_LogFile_Open(path, NULL) == NULL);
}

TEST(open_foreign_file_is_refused) {
    char text[2048];
    const char* path = test_path("notes.txt");
    MV_LogError_p error = NULL;
    size_t index;
    for (index = 0; index < sizeof text; ++index) {
        text[index] = "This is a plain text file, not a log.\n"[index % 38];
    }
    write_file(path, text, sizeof text);
    CHECK(MV_LogFile_Open(path, &error) == NULL);
    CHECK_ERROR(error, FOREIGN);
    CHECK(MV_LogFile_Open(path, NULL) == NULL);
}

TEST(open_file_shorter_than_the_legacy_magic_is_foreign) {
    static const unsigned char bytes[3] = {0x44, 0x33, 0x22};
    const char* path = test_path("short.log");
    MV_LogError_p error = NULL;
    write_file(path, bytes, sizeof bytes);
    CHECK(MV_LogFile_Open(path, &error) == NULL);
    CHECK_ERROR(error, FOREIGN);
}

TEST(open_directory_fails_with_the_open_error) {
    const char* path = test_path("folder");
    MV_LogError_p error = NULL;
    char* message;
    make_directory(path);
    CHECK(MV_LogFile_Open(path, &error) == NULL);
    REQUIRE(error != NULL);
    message = take_error_message(&error);
    REQUIRE(message != NULL);
    CHECK(strlen(message) > 0);
    CHECK(strcmp(message, DOES_NOT_EXIST) != 0);
    free(message);
    CHECK(MV_LogFile_Open(path, NULL) == NULL);
}

TEST(open_zero_length_file_gives_an_empty_log_without_metadata) {
    const char* path = test_path("empty.mvlog");
    MV_LogFile_p file;
    int calls = 0;
    int32_t count = 42;
    MV_LogError_p error = NULL;

    write_file(path, "", 0);
    file = open_log(path);
    CHECK(MV_LogFile_GetAllMetadata(file, count_metadata, &calls));
    CHECK_INT_EQ(calls, 0);
    CHECK(MV_LogFile_GetEntryCount(file, &count, &error));
    CHECK_INT_EQ(count, 0);
    CHECK(error == NULL);
    MV_LogFile_Destroy(file);
}

TEST(opened_file_keeps_what_was_recorded) {
    static const unsigned char payload[] = {1, 2, 3, 4, 5};
    const char* path = test_path("reopen.mvlog");
    MV_LogFile_p file = create_log(path, 4);
    int8_t source = add_source(file, MV_LogDataSourceType_Camera, "camera");
    MV_LogDataEntry_p entry = NULL;
    MV_LogError_p error = NULL;
    const uint8_t* data = NULL;
    int64_t length = 0;
    int32_t count = 0;

    log_entry(file, source, 3, payload, sizeof payload, 1234);
    MV_LogFile_Destroy(file);

    file = open_log(path);
    CHECK(MV_LogFile_GetEntryCount(file, &count, &error));
    CHECK_INT_EQ(count, 1);
    REQUIRE(MV_LogFile_ReadEntry(file, 1, &entry, &error));
    MV_LogDataEntry_GetData(entry, &length, &data);
    REQUIRE_INT_EQ(length, sizeof payload);
    CHECK_MEM_EQ(data, payload, sizeof payload);
    MV_LogDataEntry_Destroy(entry);
    MV_LogFile_Destroy(file);
}

/* ---- errors and destruction -------------------------------------------- */

TEST(error_outlives_the_file_that_produced_it) {
    const char* path = test_path("outlive.mvlog");
    MV_LogFile_p file = create_log(path, -1);
    MV_LogDataEntry_p entry = NULL;
    MV_LogError_p error = NULL;
    const char* first = NULL;
    const char* second = NULL;

    CHECK(!MV_LogFile_ReadEntry(file, 7, &entry, &error));
    MV_LogFile_Destroy(file);
    REQUIRE(error != NULL);
    MV_LogError_GetErrorMessage(error, &first);
    MV_LogError_GetErrorMessage(error, &second);
    CHECK(first == second);
    CHECK_ERROR(error, "The requested data entry does not exist.");
}

TEST(destroy_accepts_null_for_every_handle_type) {
    MV_LogConfig_p config;
    int8_t level = 0;
    MV_LogError_Destroy(NULL);
    MV_LogConfig_Destroy(NULL);
    MV_LogFile_Destroy(NULL);
    MV_LogBookmark_Destroy(NULL);
    MV_LogDataEntry_Destroy(NULL);
    MV_LogDataSource_Destroy(NULL);
    MV_LogDataSourceProperty_Destroy(NULL);
    MV_LogMetadata_Destroy(NULL);
    MV_LogResource_Destroy(NULL);
    MV_LogEntryIndexFilter_Destroy(NULL);
    /* Still alive and the library still works. */
    config = MV_LogConfig_Create("a", "b", "c");
    MV_LogConfig_GetCompressionLevel(config, &level);
    CHECK_INT_EQ(level, -1);
    MV_LogConfig_Destroy(config);
}

TEST(open_dangling_symbolic_link_does_not_create_its_target) {
    const char* path = test_path("link.mvlog");
    const char* target = test_path("missing-target.mvlog");
    MV_LogError_p error = NULL;
    MV_LogFile_p file;
    REQUIRE(symlink(target, path) == 0);
    file = MV_LogFile_Open(path, &error);
    CHECK(file == NULL);
    CHECK_ERROR(error, DOES_NOT_EXIST);
    CHECK(!path_exists(target));
    MV_LogFile_Destroy(file);
}

TEST(open_follows_a_symbolic_link_to_a_log_file) {
    const char* target = test_path("real.mvlog");
    const char* path = test_path("alias.mvlog");
    MV_LogFile_p file = create_log(target, -1);
    int32_t count = -1;
    add_source(file, MV_LogDataSourceType_Generic, "source");
    MV_LogFile_Destroy(file);
    REQUIRE(symlink(target, path) == 0);
    file = open_log(path);
    CHECK(MV_LogFile_GetEntryCount(file, &count, NULL));
    CHECK_INT_EQ(count, 0);
    MV_LogFile_Destroy(file);
}
