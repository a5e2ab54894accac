/* Three sensors on three capture threads, one file: the recorder.
 *
 *   threaded_recorder OUTPUT.mvlog
 *
 * A camera (16 KiB frames at 30 Hz), a lidar (4 KiB sweeps at 10 Hz) and a
 * satellite receiver (fixes at 20 Hz) each run a loop of their own and hand
 * every reading to MV_LogRecorder_Record, which returns at once: compression
 * and the disk never stall a capture loop. The recorder stores the readings
 * in the order it accepted them and reports what it did at the end. */
#include <logging/MV_Logging.h>

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#define SECONDS 5
#define START_MS 1700000000000LL

struct sensor {
    MV_LogRecorder_p recorder;
    int8_t source;
    int32_t type;
    int rateHz;
    size_t size;
    int recorded;
};

static void* capture(void* argument) {
    struct sensor* sensor = (struct sensor*)argument;
    static const char pattern[] = "0123456789abcdef";
    uint8_t reading[16384];
    int i;
    for (i = 0; i < SECONDS * sensor->rateHz; ++i) {
        size_t k;
        for (k = 0; k < sensor->size; ++k) {
            reading[k] = (uint8_t)pattern[(k + (size_t)i) % 16];
        }
        /* Synthetic time: a real loop would take the sensor's own clock. */
        if (MV_LogRecorder_Record(sensor->recorder, sensor->source, sensor->type,
                                  START_MS + (int64_t)i * 1000 / sensor->rateHz, reading, sensor->size)) {
            ++sensor->recorded;
        }
    }
    return NULL;
}

static int8_t add_source(MV_LogRecorder_p recorder, MV_LogDataSourceType type, const char* name) {
    MV_LogDataSource_p source = MV_LogDataSource_Create(type, name);
    MV_LogError_p error = NULL;
    int8_t id = -1;
    if (!MV_LogRecorder_AddDataSource(recorder, source, &error)) {
        const char* message = NULL;
        MV_LogError_GetErrorMessage(error, &message);
        fprintf(stderr, "cannot add %s: %s\n", name, message);
        MV_LogError_Destroy(error);
    }
    MV_LogDataSource_GetId(source, &id);
    MV_LogDataSource_Destroy(source);
    return id;
}

int main(int argc, char** argv) {
    MV_LogConfig_p config = NULL;
    MV_LogRecorder_p recorder = NULL;
    MV_LogError_p error = NULL;
    MV_LogRecorderStats stats;
    struct sensor sensors[3];
    pthread_t threads[3];
    int i;
    int status = 0;
    if (argc != 2) {
        fprintf(stderr, "usage: %s OUTPUT.mvlog\n", argv[0]);
        return 2;
    }
    /* The codec's default level; MV_LogConfig_SetDurability would choose safe
     * mode, which keeps every commit through a crash of the process. */
    config = MV_LogConfig_Create("threaded-recorder-example", "1.0", "Etc/UTC");
    /* Options may be NULL: a 256 MiB queue that blocks when full, the cores
     * minus one compressing, commits at least every 100 ms. */
    recorder = MV_LogRecorder_Create(argv[1], config, NULL, &error);
    MV_LogConfig_Destroy(config);
    if (recorder == NULL) {
        const char* message = NULL;
        MV_LogError_GetErrorMessage(error, &message);
        fprintf(stderr, "cannot record into %s: %s\n", argv[1], message);
        MV_LogError_Destroy(error);
        return 1;
    }
    sensors[0] = (struct sensor){
        recorder, add_source(recorder, MV_LogDataSourceType_Camera, "camera"), 1, 30, 16384, 0};
    sensors[1] =
        (struct sensor){recorder, add_source(recorder, MV_LogDataSourceType_Lidar, "lidar"), 2, 10, 4096, 0};
    sensors[2] = (struct sensor){
        recorder, add_source(recorder, MV_LogDataSourceType_Navigation, "gnss"), 3, 20, 48, 0};
    for (i = 0; i < 3; ++i) {
        pthread_create(&threads[i], NULL, capture, &sensors[i]);
    }
    for (i = 0; i < 3; ++i) {
        pthread_join(threads[i], NULL);
    }
    /* Close flushes and joins the recorder's threads; the stats stay readable. */
    if (!MV_LogRecorder_Close(recorder, &error)) {
        const char* message = NULL;
        MV_LogError_GetErrorMessage(error, &message);
        fprintf(stderr, "recording failed: %s\n", message);
        MV_LogError_Destroy(error);
        status = 1;
    }
    MV_LogRecorder_GetStats(recorder, &stats);
    printf("camera %d, lidar %d, gnss %d readings\n", sensors[0].recorded, sensors[1].recorded,
           sensors[2].recorded);
    printf("accepted %llu, written %llu, dropped %llu, failed %llu\n", (unsigned long long)stats.accepted,
           (unsigned long long)stats.written, (unsigned long long)stats.dropped,
           (unsigned long long)stats.failed);
    MV_LogRecorder_Destroy(recorder);
    return status;
}
