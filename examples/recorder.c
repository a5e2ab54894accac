/* recorder: records a small log file through the C interface.
 *
 *   recorder OUTPUT.mvlog
 *
 * Two data sources (a thermometer at 2 Hz and a satellite receiver at 5 Hz)
 * with properties, ten seconds of entries with synthetic timestamps, file
 * metadata and a bookmark. Every handle made here is destroyed here. */

#include <logging/MV_Logging.h>

#include <stdio.h>
#include <string.h>

/* A fixed start keeps the output identical from run to run. */
#define START_TIMESTAMP_MS 1700000000000LL
#define DURATION_MS 10000
#define THERMOMETER_PERIOD_MS 500
#define RECEIVER_PERIOD_MS 200

#define TYPE_TEMPERATURE 1
#define TYPE_POSITION 2

/* Prints the library's message for a failed call and frees the error. */
static int report_failure(const char* what, MV_LogError_p error) {
    const char* message = "unknown error";
    if (error != NULL) {
        MV_LogError_GetErrorMessage(error, &message);
    }
    fprintf(stderr, "recorder: %s: %s\n", what, message);
    MV_LogError_Destroy(error);
    return 0;
}

/* Adds a data source and returns the id the file gave it (-1 on failure). */
static int8_t add_source(MV_LogFile_p file, MV_LogDataSourceType type, const char* name) {
    MV_LogError_p error = NULL;
    int8_t id = -1;
    MV_LogDataSource_p source = MV_LogDataSource_Create(type, name);
    if (MV_LogFile_AddDataSource(file, source, &error)) {
        MV_LogDataSource_GetId(source, &id);
    } else {
        report_failure("cannot add a data source", error);
    }
    MV_LogDataSource_Destroy(source);
    return id;
}

/* Property handles are copied into the file; ours are destroyed at once. */
static int add_property(MV_LogFile_p file, MV_LogDataSourceProperty_p property) {
    MV_LogError_p error = NULL;
    int added = MV_LogFile_AddDataSourceProperty(file, property, &error);
    MV_LogDataSourceProperty_Destroy(property);
    return added ? 1 : report_failure("cannot add a property", error);
}

static int add_metadata(MV_LogFile_p file, MV_LogMetadata_p metadata) {
    MV_LogError_p error = NULL;
    int added = MV_LogFile_AddMetadata(file, metadata, &error);
    MV_LogMetadata_Destroy(metadata);
    return added ? 1 : report_failure("cannot add metadata", error);
}

/* Entries are stamped with the current time when made; a recorder replaying
 * sensor time sets the timestamp it got from the sensor instead. */
static int log_text(MV_LogFile_p file, int8_t source, int32_t type, long long timestamp, const char* text) {
    MV_LogError_p error = NULL;
    MV_LogDataEntry_p entry =
        MV_LogDataEntry_Create(&source, type, (const uint8_t*)text, (int64_t)strlen(text));
    int logged;
    MV_LogDataEntry_SetTimestamp(entry, timestamp);
    logged = MV_LogFile_LogData(file, entry, &error);
    MV_LogDataEntry_Destroy(entry);
    return logged ? 1 : report_failure("cannot log an entry", error);
}

static int add_properties(MV_LogFile_p file, int8_t thermometer, int8_t receiver) {
    return add_property(file, MV_LogDataSourceProperty_CreateString(&thermometer, "unit", "celsius")) &&
           add_property(file, MV_LogDataSourceProperty_CreateDouble(&thermometer, "rateHz", 2.0)) &&
           add_property(file, MV_LogDataSourceProperty_CreateString(&receiver, "datum", "WGS84")) &&
           add_property(file, MV_LogDataSourceProperty_CreateInt32(&receiver, "rateHz", 5));
}

/* Ten seconds of readings, written in timestamp order. */
static int log_entries(MV_LogFile_p file, int8_t thermometer, int8_t receiver) {
    char text[96];
    int t;
    for (t = 0; t < DURATION_MS; t += 100) {
        if (t % RECEIVER_PERIOD_MS == 0) {
            snprintf(text, sizeof text, "$POS,%d,59.%06d,10.%06d", t, 900000 + t / 10, 700000 + t / 20);
            if (!log_text(file, receiver, TYPE_POSITION, START_TIMESTAMP_MS + t, text)) {
                return 0;
            }
        }
        if (t % THERMOMETER_PERIOD_MS == 0) {
            snprintf(text, sizeof text, "%.1f", 21.0 + (t / THERMOMETER_PERIOD_MS) % 5 * 0.1);
            if (!log_text(file, thermometer, TYPE_TEMPERATURE, START_TIMESTAMP_MS + t, text)) {
                return 0;
            }
        }
    }
    return 1;
}

static int add_bookmark(MV_LogFile_p file) {
    MV_LogError_p error = NULL;
    MV_LogBookmark_p bookmark =
        MV_LogBookmark_Create(1, "First reading", "recorded by the C example", NULL, 0);
    int added = MV_LogFile_AddBookmark(file, bookmark, &error);
    MV_LogBookmark_Destroy(bookmark);
    return added ? 1 : report_failure("cannot add a bookmark", error);
}

static int record(MV_LogFile_p file) {
    int8_t thermometer = add_source(file, MV_LogDataSourceType_Environment, "thermometer");
    int8_t receiver = add_source(file, MV_LogDataSourceType_Navigation, "receiver");
    return thermometer != -1 && receiver != -1 && add_properties(file, thermometer, receiver) &&
           log_entries(file, thermometer, receiver) &&
           add_metadata(file, MV_LogMetadata_CreateString("site", "Example harbour")) &&
           add_metadata(file, MV_LogMetadata_CreateInt64("recordingIndex", 7)) && add_bookmark(file);
}

int main(int argc, char** argv) {
    MV_LogError_p error = NULL;
    MV_LogConfig_p config;
    MV_LogFile_p file;
    int recorded;

    if (argc != 2) {
        fprintf(stderr, "usage: recorder OUTPUT.mvlog\n");
        return 2;
    }

    /* The configuration is copied by MV_LogFile_Create and can go at once. */
    config = MV_LogConfig_Create("recorder-example", "1.0", "UTC");
    if (!MV_LogConfig_SetCompressionLevel(config, 3, &error)) {
        MV_LogConfig_Destroy(config);
        report_failure("cannot set the compression level", error);
        return 1;
    }
    /* Create refuses a path where anything exists and always reports why, so
     * it always gets an error argument. */
    file = MV_LogFile_Create(argv[1], config, &error);
    MV_LogConfig_Destroy(config);
    if (file == NULL) {
        report_failure("cannot create the log file", error);
        return 1;
    }

    recorded = record(file);
    MV_LogFile_Destroy(file); /* closes the file */
    if (!recorded) {
        return 1;
    }
    printf("Recorded %d entries into %s\n",
           DURATION_MS / RECEIVER_PERIOD_MS + DURATION_MS / THERMOMETER_PERIOD_MS, argv[1]);
    return 0;
}
