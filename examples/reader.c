/* reader: prints everything a log file holds, through the C interface.
 *
 *   reader FILE.mvlog
 *
 * Lists arrive through callbacks, one new handle per element; the callback
 * owns that handle and destroys it when done with it. */

#include <logging/MV_Logging.h>

#include <inttypes.h>
#include <stdio.h>

/* Values read back from a file are 64-bit integers, doubles or texts. */
static void print_metadata(void* userData, MV_LogMetadata_p metadata) {
    const char* key = NULL;
    const char* text = NULL;
    int64_t integer = 0;
    double real = 0.0;
    (void)userData;
    MV_LogMetadata_GetKey(metadata, &key);
    if (MV_LogMetadata_GetString(metadata, &text)) {
        printf("  %s = \"%s\"\n", key, text);
    } else if (MV_LogMetadata_GetInt64(metadata, &integer)) {
        printf("  %s = %" PRId64 "\n", key, integer);
    } else if (MV_LogMetadata_GetDouble(metadata, &real)) {
        printf("  %s = %g\n", key, real);
    }
    MV_LogMetadata_Destroy(metadata);
}

static void print_data_source(void* userData, MV_LogDataSource_p source) {
    int8_t id = -1;
    MV_LogDataSourceType type = MV_LogDataSourceType_Invalid;
    const char* name = NULL;
    (void)userData;
    MV_LogDataSource_GetId(source, &id);
    MV_LogDataSource_GetType(source, &type);
    MV_LogDataSource_GetName(source, &name);
    printf("  [%d] type %d \"%s\"\n", id, (int)type, name);
    MV_LogDataSource_Destroy(source);
}

static void print_property(void* userData, MV_LogDataSourceProperty_p property) {
    int8_t source = -1;
    const char* name = NULL;
    const char* text = NULL;
    int64_t integer = 0;
    double real = 0.0;
    (void)userData;
    MV_LogDataSourceProperty_GetDataSourceId(property, &source);
    MV_LogDataSourceProperty_GetPropertyName(property, &name);
    if (MV_LogDataSourceProperty_GetString(property, &text)) {
        printf("  source %d: %s = \"%s\"\n", source, name, text);
    } else if (MV_LogDataSourceProperty_GetInt64(property, &integer)) {
        printf("  source %d: %s = %" PRId64 "\n", source, name, integer);
    } else if (MV_LogDataSourceProperty_GetDouble(property, &real)) {
        printf("  source %d: %s = %g\n", source, name, real);
    }
    MV_LogDataSourceProperty_Destroy(property);
}

/* The payload pointer belongs to the handle: print it before destroying. */
static void print_entry(void* userData, MV_LogDataEntry_p entry) {
    int8_t source = -1;
    int32_t type = 0;
    int64_t timestamp = 0;
    int64_t length = 0;
    const uint8_t* data = NULL;
    int* count = (int*)userData;
    MV_LogDataEntry_GetDataSourceId(entry, &source);
    MV_LogDataEntry_GetType(entry, &type);
    MV_LogDataEntry_GetTimestamp(entry, &timestamp);
    MV_LogDataEntry_GetData(entry, &length, &data);
    printf("  t=%" PRId64 " source %d type %d: %.*s\n", timestamp, source, type, (int)length,
           (const char*)data);
    ++*count;
    MV_LogDataEntry_Destroy(entry);
}

static void print_bookmark(void* userData, MV_LogBookmark_p bookmark) {
    int32_t entryId = 0;
    const char* title = NULL;
    const char* comments = NULL;
    (void)userData;
    MV_LogBookmark_GetEntryId(bookmark, &entryId);
    MV_LogBookmark_GetTitle(bookmark, &title);
    MV_LogBookmark_GetComment(bookmark, &comments);
    printf("  entry %d: \"%s\" (%s)\n", entryId, title, comments);
    MV_LogBookmark_Destroy(bookmark);
}

static void print_resource(void* userData, MV_LogResource_p resource) {
    const char* name = NULL;
    const uint8_t* data = NULL;
    int64_t length = 0;
    (void)userData;
    MV_LogResource_GetName(resource, &name);
    MV_LogResource_GetData(resource, &length, &data);
    printf("  %s: %" PRId64 " bytes\n", name, length);
    MV_LogResource_Destroy(resource);
}

static void print_entries(MV_LogFile_p file) {
    int32_t count = 0;
    int32_t first = -1;
    int32_t last = -1;
    int printed = 0;
    /* An empty filter admits every entry; -1 bounds mean first and last. */
    MV_LogEntryIndexFilter_p everything = MV_LogEntryIndexFilter_Create();
    MV_LogFile_GetEntryCount(file, &count, NULL);
    MV_LogFile_GetFirstEntryId(file, &first, NULL);
    MV_LogFile_GetLastEntryId(file, &last, NULL);
    printf("entries: %d (ids %d to %d)\n", count, first, last);
    MV_LogFile_ReadEntries(file, -1, -1, everything, -1, print_entry, &printed);
    MV_LogEntryIndexFilter_Destroy(everything);
    printf("printed %d entries\n", printed);
}

int main(int argc, char** argv) {
    MV_LogError_p error = NULL;
    MV_LogFile_p file;
    const char* message = NULL;

    if (argc != 2) {
        fprintf(stderr, "usage: reader FILE.mvlog\n");
        return 2;
    }
    file = MV_LogFile_Open(argv[1], &error);
    if (file == NULL) {
        MV_LogError_GetErrorMessage(error, &message);
        fprintf(stderr, "reader: cannot open %s: %s\n", argv[1], message);
        MV_LogError_Destroy(error);
        return 1;
    }

    printf("metadata:\n");
    MV_LogFile_GetAllMetadata(file, print_metadata, NULL);
    /* These list calls answer false, without calling back, for empty lists. */
    printf("data sources:\n");
    if (!MV_LogFile_GetDataSources(file, print_data_source, NULL, NULL)) {
        printf("  none\n");
    }
    printf("properties:\n");
    if (!MV_LogFile_GetAllDataSourceProperties(file, print_property, NULL, NULL)) {
        printf("  none\n");
    }
    print_entries(file);
    printf("bookmarks:\n");
    MV_LogFile_GetBookmarks(file, print_bookmark, NULL);
    printf("resources:\n");
    MV_LogFile_GetAllResources(file, print_resource, NULL);

    MV_LogFile_Destroy(file);
    return 0;
}
