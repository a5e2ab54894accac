#ifndef MARIVANE_CAPI_TEST_SUPPORT_H
#define MARIVANE_CAPI_TEST_SUPPORT_H

/*
 * Helpers shared by the C interface tests: files on disk, log files made
 * through the C interface, and list callbacks that copy what they are given
 * into plain C records and destroy the handle at once (a callback owns every
 * handle it receives).
 */

#include "harness.h"

#include <logging/MV_Logging.h>

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

/* Checks that `error` holds exactly `expected`, then destroys it and clears
 * the variable. */
#define CHECK_ERROR(error, expected) check_error(__FILE__, __LINE__, &(error), (expected))
void check_error(const char* file, int line, MV_LogError_p* error, const char* expected);
/* The message of an error, copied (caller frees); the error is destroyed. */
char* take_error_message(MV_LogError_p* error);

/* ---- files ------------------------------------------------------------ */

void write_file(const char* path, const void* bytes, size_t length);
bool path_exists(const char* path);
/* The whole file, or NULL when it cannot be read; *length receives its size. */
unsigned char* read_file(const char* path, size_t* length);
void make_directory(const char* path);
int64_t now_ms(void);

/* ---- log files ---------------------------------------------------------- */

#define TEST_APPLICATION "capi-tests"
#define TEST_VERSION "1.2.3"
#define TEST_TIME_ZONE "Europe/Berlin"

MV_LogConfig_p make_config(int8_t level);
/* A new log file at `path` made with make_config(level); the test stops when
 * that fails. */
MV_LogFile_p create_log(const char* path, int8_t level);
MV_LogFile_p open_log(const char* path);
/* Adds a data source and returns the id the file assigned. */
int8_t add_source(MV_LogFile_p file, MV_LogDataSourceType type, const char* name);
void log_entry(MV_LogFile_p file, int8_t source, int32_t type, const void* data, int64_t length,
               int64_t timestamp);

/* ---- copies of list elements -------------------------------------------- */

typedef enum value_kind { VALUE_NONE, VALUE_INT, VALUE_DOUBLE, VALUE_STRING } value_kind;

struct value_copy {
    value_kind kind;
    int64_t integer;
    double real;
    char* text;
};

struct entry_copy {
    int8_t source;
    int32_t type;
    int64_t timestamp;
    int64_t length;
    unsigned char* data;
};

struct source_copy {
    int8_t id;
    MV_LogDataSourceType type;
    char* name;
};

struct property_copy {
    int8_t source;
    char* name;
    struct value_copy value;
};

struct metadata_copy {
    char* key;
    struct value_copy value;
};

struct resource_copy {
    char* name;
    int64_t length;
    unsigned char* data;
};

struct bookmark_copy {
    int32_t entry_id;
    char* title;
    char* comment;
    int64_t length;
    unsigned char* payload;
};

#define DECLARE_LIST(kind, element) \
    struct kind##_list {            \
        size_t count;               \
        struct element* items;      \
    };                              \
    void kind##_list_free(struct kind##_list* list)

DECLARE_LIST(entry, entry_copy);
DECLARE_LIST(source, source_copy);
DECLARE_LIST(property, property_copy);
DECLARE_LIST(metadata, metadata_copy);
DECLARE_LIST(resource, resource_copy);
DECLARE_LIST(bookmark, bookmark_copy);

struct id_list {
    size_t count;
    int32_t* items;
};
void id_list_free(struct id_list* list);

/* Callbacks; the user data is the matching list, initialised to {0, NULL}. */
void collect_entry(void* list, MV_LogDataEntry_p entry);
void collect_source(void* list, MV_LogDataSource_p source);
void collect_property(void* list, MV_LogDataSourceProperty_p property);
void collect_metadata(void* list, MV_LogMetadata_p metadata);
void collect_resource(void* list, MV_LogResource_p resource);
void collect_bookmark(void* list, MV_LogBookmark_p bookmark);
void collect_id(void* list, int32_t entryId);

/* Callbacks that only count their calls; the user data is an int. */
void count_entry(void* counter, MV_LogDataEntry_p entry);
void count_source(void* counter, MV_LogDataSource_p source);
void count_property(void* counter, MV_LogDataSourceProperty_p property);
void count_metadata(void* counter, MV_LogMetadata_p metadata);
void count_resource(void* counter, MV_LogResource_p resource);
void count_bookmark(void* counter, MV_LogBookmark_p bookmark);
void count_id(void* counter, int32_t entryId);

/* Reads a value through the typed getters, widest first. */
struct value_copy copy_property_value(MV_LogDataSourceProperty_p property);
struct value_copy copy_metadata_value(MV_LogMetadata_p metadata);

const struct metadata_copy* find_metadata(const struct metadata_list* list, const char* key);

/* The ids of a filtered entry-index read, checked against `expected`. */
#define CHECK_ENTRY_INDEX(file, filter, ...)                                   \
    do {                                                                       \
        const int32_t expected_ids_[] = {__VA_ARGS__};                         \
        check_entry_index(__FILE__, __LINE__, (file), (filter), expected_ids_, \
                          sizeof expected_ids_ / sizeof expected_ids_[0]);     \
    } while (0)
void check_entry_index(const char* file, int line, MV_LogFile_p log, MV_LogEntryIndexFilter_p filter,
                       const int32_t* expected, size_t count);

#endif
