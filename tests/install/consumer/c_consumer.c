/* Creates a log file through the installed C interface and reads it back. */
#include <logging/MV_Logging.h>

#include <stdio.h>
#include <string.h>

static int fail(const char* what, MV_LogError_p error) {
    const char* message = "";
    if (error) {
        MV_LogError_GetErrorMessage(error, &message);
    }
    fprintf(stderr, "%s failed: %s\n", what, message);
    MV_LogError_Destroy(error);
    return 1;
}

int main(int argc, char** argv) {
    MV_LogError_p error = NULL;
    MV_LogConfig_p config;
    MV_LogFile_p file;
    MV_LogDataSource_p source;
    MV_LogDataEntry_p entry;
    MV_LogDataEntry_p read = NULL;
    const uint8_t payload[] = {1, 2, 3, 4};
    const uint8_t* data = NULL;
    int64_t length = 0;
    int8_t sourceId = -1;
    int32_t count = 0;

    if (argc != 2) {
        return 2;
    }
    config = MV_LogConfig_Create("consumer", "1.0", "UTC");
    file = MV_LogFile_Create(argv[1], config, &error);
    MV_LogConfig_Destroy(config);
    if (!file) {
        return fail("create", error);
    }
    source = MV_LogDataSource_Create(MV_LogDataSourceType_Generic, "source");
    if (!MV_LogFile_AddDataSource(file, source, &error)) {
        return fail("add data source", error);
    }
    MV_LogDataSource_GetId(source, &sourceId);
    MV_LogDataSource_Destroy(source);
    entry = MV_LogDataEntry_Create(&sourceId, 7, payload, sizeof payload);
    if (!MV_LogFile_LogData(file, entry, &error)) {
        return fail("log data", error);
    }
    MV_LogDataEntry_Destroy(entry);
    MV_LogFile_Destroy(file);

    file = MV_LogFile_Open(argv[1], &error);
    if (!file) {
        return fail("open", error);
    }
    if (!MV_LogFile_GetEntryCount(file, &count, &error) || count != 1) {
        return fail("count", error);
    }
    if (!MV_LogFile_ReadEntry(file, 1, &read, &error)) {
        return fail("read", error);
    }
    MV_LogDataEntry_GetData(read, &length, &data);
    if (length != (int64_t)sizeof payload || memcmp(data, payload, sizeof payload) != 0) {
        return fail("payload comparison", NULL);
    }
    MV_LogDataEntry_Destroy(read);
    MV_LogFile_Destroy(file);
    return 0;
}
