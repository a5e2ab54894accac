/* mkdir, strdup */
#define _POSIX_C_SOURCE 200809L

#include "support.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

static void* checked_malloc(size_t size) {
    void* memory = malloc(size == 0 ? 1 : size);
    if (memory == NULL) {
        fputs("out of memory\n", stdout);
        exit(2);
    }
    return memory;
}

static char* copy_text(const char* text) {
    char* copy;
    if (text == NULL) {
        return NULL;
    }
    copy = checked_malloc(strlen(text) + 1);
    strcpy(copy, text);
    return copy;
}

static unsigned char* copy_bytes(const uint8_t* bytes, int64_t length) {
    unsigned char* copy = checked_malloc((size_t)length);
    if (length > 0) {
        memcpy(copy, bytes, (size_t)length);
    }
    return copy;
}

/* `items` grown by one zeroed element of `size` bytes, after `count`. */
static void* grow(void* items, size_t count, size_t size) {
    unsigned char* grown = realloc(items, (count + 1) * size);
    if (grown == NULL) {
        fputs("out of memory\n", stdout);
        exit(2);
    }
    memset(grown + count * size, 0, size);
    return grown;
}

#define APPEND(list)                                                            \
    ((list)->items = grow((list)->items, (list)->count, sizeof *(list)->items), \
     &(list)->items[(list)->count++])

void check_error(const char* file, int line, MV_LogError_p* error, const char* expected) {
    const char* message = NULL;
    if (*error == NULL) {
        harness_fail(file, line, "expected the error \"%s\", got no error object", expected);
        return;
    }
    MV_LogError_GetErrorMessage(*error, &message);
    if (!harness_str_eq(message, expected)) {
        harness_fail(file, line, "error message \"%s\" != \"%s\"", message ? message : "(null)", expected);
    }
    MV_LogError_Destroy(*error);
    *error = NULL;
}

char* take_error_message(MV_LogError_p* error) {
    const char* message = NULL;
    char* copy;
    if (*error == NULL) {
        return NULL;
    }
    MV_LogError_GetErrorMessage(*error, &message);
    copy = copy_text(message);
    MV_LogError_Destroy(*error);
    *error = NULL;
    return copy;
}

/* ---- files ------------------------------------------------------------ */

void write_file(const char* path, const void* bytes, size_t length) {
    FILE* stream = fopen(path, "wb");
    REQUIRE(stream != NULL);
    if (length > 0) {
        REQUIRE(fwrite(bytes, 1, length, stream) == length);
    }
    REQUIRE(fclose(stream) == 0);
}

bool path_exists(const char* path) {
    struct stat status;
    return lstat(path, &status) == 0;
}

unsigned char* read_file(const char* path, size_t* length) {
    FILE* stream = fopen(path, "rb");
    unsigned char* bytes = NULL;
    size_t size = 0;
    size_t capacity = 0;
    size_t got;
    if (stream == NULL) {
        return NULL;
    }
    do {
        if (size == capacity) {
            unsigned char* grown;
            capacity = capacity == 0 ? 4096 : capacity * 2;
            grown = realloc(bytes, capacity);
            if (grown == NULL) {
                free(bytes);
                fclose(stream);
                return NULL;
            }
            bytes = grown;
        }
        got = fread(bytes + size, 1, capacity - size, stream);
        size += got;
    } while (got > 0);
    fclose(stream);
    *length = size;
    return bytes;
}

void make_directory(const char* path) {
    REQUIRE(mkdir(path, 0700) == 0);
}

/* The library stamps entries from CLOCK_REALTIME. time() reads the coarse
 * clock, which can lag it by a tick across a second boundary, so a bound
 * taken from it could fall just before the library's own stamp. */
int64_t now_ms(void) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

/* ---- log files ---------------------------------------------------------- */

MV_LogConfig_p make_config(int8_t level) {
    MV_LogConfig_p config = MV_LogConfig_Create(TEST_APPLICATION, TEST_VERSION, TEST_TIME_ZONE);
    MV_LogError_p error = NULL;
    REQUIRE(config != NULL);
    REQUIRE(MV_LogConfig_SetCompressionLevel(config, level, &error));
    REQUIRE(error == NULL);
    return config;
}

MV_LogFile_p create_log(const char* path, int8_t level) {
    MV_LogConfig_p config = make_config(level);
    MV_LogError_p error = NULL;
    MV_LogFile_p file = MV_LogFile_Create(path, config, &error);
    MV_LogConfig_Destroy(config);
    if (file == NULL) {
        char* message = take_error_message(&error);
        harness_fail(__FILE__, __LINE__, "cannot create %s: %s", path, message ? message : "(no error)");
        free(message);
        harness_abort_test();
    }
    REQUIRE(error == NULL);
    return file;
}

MV_LogFile_p open_log(const char* path) {
    MV_LogError_p error = NULL;
    MV_LogFile_p file = MV_LogFile_Open(path, &error);
    if (file == NULL) {
        char* message = take_error_message(&error);
        harness_fail(__FILE__, __LINE__, "cannot open %s: %s", path, message ? message : "(no error)");
        free(message);
        harness_abort_test();
    }
    REQUIRE(error == NULL);
    return file;
}

int8_t add_source(MV_LogFile_p file, MV_LogDataSourceType type, const char* name) {
    MV_LogDataSource_p source = MV_LogDataSource_Create(type, name);
    MV_LogError_p error = NULL;
    int8_t id = 0;
    REQUIRE(source != NULL);
    REQUIRE(MV_LogFile_AddDataSource(file, source, &error));
    REQUIRE(error == NULL);
    MV_LogDataSource_GetId(source, &id);
    MV_LogDataSource_Destroy(source);
    return id;
}

void log_entry(MV_LogFile_p file, int8_t source, int32_t type, const void* data, int64_t length,
               int64_t timestamp) {
    MV_LogDataEntry_p entry = MV_LogDataEntry_Create(&source, type, data, length);
    MV_LogError_p error = NULL;
    REQUIRE(entry != NULL);
    MV_LogDataEntry_SetTimestamp(entry, timestamp);
    if (!MV_LogFile_LogData(file, entry, &error)) {
        char* message = take_error_message(&error);
        MV_LogDataEntry_Destroy(entry);
        harness_fail(__FILE__, __LINE__, "cannot log an entry: %s", message ? message : "(no error)");
        free(message);
        harness_abort_test();
    }
    REQUIRE(error == NULL);
    MV_LogDataEntry_Destroy(entry);
}

/* ---- copies ------------------------------------------------------------- */

struct value_copy copy_property_value(MV_LogDataSourceProperty_p property) {
    struct value_copy value;
    const char* text = NULL;
    memset(&value, 0, sizeof value);
    if (MV_LogDataSourceProperty_GetInt64(property, &value.integer)) {
        value.kind = VALUE_INT;
    } else if (MV_LogDataSourceProperty_GetDouble(property, &value.real)) {
        value.kind = VALUE_DOUBLE;
    } else if (MV_LogDataSourceProperty_GetString(property, &text)) {
        value.kind = VALUE_STRING;
        value.text = copy_text(text);
    } else {
        value.kind = VALUE_NONE;
    }
    return value;
}

struct value_copy copy_metadata_value(MV_LogMetadata_p metadata) {
    struct value_copy value;
    const char* text = NULL;
    memset(&value, 0, sizeof value);
    if (MV_LogMetadata_GetInt64(metadata, &value.integer)) {
        value.kind = VALUE_INT;
    } else if (MV_LogMetadata_GetDouble(metadata, &value.real)) {
        value.kind = VALUE_DOUBLE;
    } else if (MV_LogMetadata_GetString(metadata, &text)) {
        value.kind = VALUE_STRING;
        value.text = copy_text(text);
    } else {
        value.kind = VALUE_NONE;
    }
    return value;
}

void collect_entry(void* user, MV_LogDataEntry_p entry) {
    struct entry_list* list = user;
    struct entry_copy* copy = APPEND(list);
    const uint8_t* data = NULL;
    MV_LogDataEntry_GetDataSourceId(entry, &copy->source);
    MV_LogDataEntry_GetType(entry, &copy->type);
    MV_LogDataEntry_GetTimestamp(entry, &copy->timestamp);
    MV_LogDataEntry_GetData(entry, &copy->length, &data);
    copy->data = copy_bytes(data, copy->length);
    MV_LogDataEntry_Destroy(entry);
}

void collect_source(void* user, MV_LogDataSource_p source) {
    struct source_list* list = user;
    struct source_copy* copy = APPEND(list);
    const char* name = NULL;
    MV_LogDataSource_GetId(source, &copy->id);
    MV_LogDataSource_GetType(source, &copy->type);
    MV_LogDataSource_GetName(source, &name);
    copy->name = copy_text(name);
    MV_LogDataSource_Destroy(source);
}

void collect_property(void* user, MV_LogDataSourceProperty_p property) {
    struct property_list* list = user;
    struct property_copy* copy = APPEND(list);
    const char* name = NULL;
    MV_LogDataSourceProperty_GetDataSourceId(property, &copy->source);
    MV_LogDataSourceProperty_GetPropertyName(property, &name);
    copy->name = copy_text(name);
    copy->value = copy_property_value(property);
    MV_LogDataSourceProperty_Destroy(property);
}

void collect_metadata(void* user, MV_LogMetadata_p metadata) {
    struct metadata_list* list = user;
    struct metadata_copy* copy = APPEND(list);
    const char* key = NULL;
    MV_LogMetadata_GetKey(metadata, &key);
    copy->key = copy_text(key);
    copy->value = copy_metadata_value(metadata);
    MV_LogMetadata_Destroy(metadata);
}

void collect_resource(void* user, MV_LogResource_p resource) {
    struct resource_list* list = user;
    struct resource_copy* copy = APPEND(list);
    const char* name = NULL;
    const uint8_t* data = NULL;
    MV_LogResource_GetName(resource, &name);
    copy->name = copy_text(name);
    MV_LogResource_GetData(resource, &copy->length, &data);
    copy->data = copy_bytes(data, copy->length);
    MV_LogResource_Destroy(resource);
}

void collect_bookmark(void* user, MV_LogBookmark_p bookmark) {
    struct bookmark_list* list = user;
    struct bookmark_copy* copy = APPEND(list);
    const char* text = NULL;
    const uint8_t* payload = NULL;
    MV_LogBookmark_GetEntryId(bookmark, &copy->entry_id);
    MV_LogBookmark_GetTitle(bookmark, &text);
    copy->title = copy_text(text);
    MV_LogBookmark_GetComment(bookmark, &text);
    copy->comment = copy_text(text);
    MV_LogBookmark_GetPayload(bookmark, &copy->length, &payload);
    copy->payload = copy_bytes(payload, copy->length);
    MV_LogBookmark_Destroy(bookmark);
}

void collect_id(void* user, int32_t entryId) {
    struct id_list* list = user;
    int32_t* copy = APPEND(list);
    *copy = entryId;
}

void count_entry(void* counter, MV_LogDataEntry_p entry) {
    ++*(int*)counter;
    MV_LogDataEntry_Destroy(entry);
}

void count_source(void* counter, MV_LogDataSource_p source) {
    ++*(int*)counter;
    MV_LogDataSource_Destroy(source);
}

void count_property(void* counter, MV_LogDataSourceProperty_p property) {
    ++*(int*)counter;
    MV_LogDataSourceProperty_Destroy(property);
}

void count_metadata(void* counter, MV_LogMetadata_p metadata) {
    ++*(int*)counter;
    MV_LogMetadata_Destroy(metadata);
}

void count_resource(void* counter, MV_LogResource_p resource) {
    ++*(int*)counter;
    MV_LogResource_Destroy(resource);
}

void count_bookmark(void* counter, MV_LogBookmark_p bookmark) {
    ++*(int*)counter;
    MV_LogBookmark_Destroy(bookmark);
}

void count_id(void* counter, int32_t entryId) {
    (void)entryId;
    ++*(int*)counter;
}

void entry_list_free(struct entry_list* list) {
    size_t index;
    for (index = 0; index < list->count; ++index) {
        free(list->items[index].data);
    }
    free(list->items);
    list->items = NULL;
    list->count = 0;
}

void source_list_free(struct source_list* list) {
    size_t index;
    for (index = 0; index < list->count; ++index) {
        free(list->items[index].name);
    }
    free(list->items);
    list->items = NULL;
    list->count = 0;
}

void property_list_free(struct property_list* list) {
    size_t index;
    for (index = 0; index < list->count; ++index) {
        free(list->items[index].name);
        free(list->items[index].value.text);
    }
    free(list->items);
    list->items = NULL;
    list->count = 0;
}

void metadata_list_free(struct metadata_list* list) {
    size_t index;
    for (index = 0; index < list->count; ++index) {
        free(list->items[index].key);
        free(list->items[index].value.text);
    }
    free(list->items);
    list->items = NULL;
    list->count = 0;
}

void resource_list_free(struct resource_list* list) {
    size_t index;
    for (index = 0; index < list->count; ++index) {
        free(list->items[index].name);
        free(list->items[index].data);
    }
    free(list->items);
    list->items = NULL;
    list->count = 0;
}

void bookmark_list_free(struct bookmark_list* list) {
    size_t index;
    for (index = 0; index < list->count; ++index) {
        free(list->items[index].title);
        free(list->items[index].comment);
        free(list->items[index].payload);
    }
    free(list->items);
    list->items = NULL;
    list->count = 0;
}

void id_list_free(struct id_list* list) {
    free(list->items);
    list->items = NULL;
    list->count = 0;
}

const struct metadata_copy* find_metadata(const struct metadata_list* list, const char* key) {
    size_t index;
    for (index = 0; index < list->count; ++index) {
        if (strcmp(list->items[index].key, key) == 0) {
            return &list->items[index];
        }
    }
    return NULL;
}

void check_entry_index(const char* file, int line, MV_LogFile_p log, MV_LogEntryIndexFilter_p filter,
                       const int32_t* expected, size_t count) {
    struct id_list ids = {0, NULL};
    MV_LogError_p error = NULL;
    size_t index;
    const bool result = MV_LogFile_GetEntryIndex(log, filter, collect_id, &ids, &error);
    if (!result) {
        char* message = take_error_message(&error);
        harness_fail(file, line, "MV_LogFile_GetEntryIndex failed: %s", message ? message : "(no error)");
        free(message);
        return;
    }
    if (error != NULL) {
        harness_fail(file, line, "MV_LogFile_GetEntryIndex stored an error on success");
        MV_LogError_Destroy(error);
    }
    if (ids.count != count) {
        harness_fail(file, line, "MV_LogFile_GetEntryIndex gave %lu ids, expected %lu",
                     (unsigned long)ids.count, (unsigned long)count);
    } else {
        for (index = 0; index < count; ++index) {
            if (ids.items[index] != expected[index]) {
                harness_fail(file, line, "id %lu is %ld, expected %ld", (unsigned long)index,
                             (long)ids.items[index], (long)expected[index]);
            }
        }
    }
    id_list_free(&ids);
}
