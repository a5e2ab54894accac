#ifndef MARIVANE_MV_LOG_DATA_SOURCE_TYPE_H
#define MARIVANE_MV_LOG_DATA_SOURCE_TYPE_H

/* Classifies a data source. The library stores, compares and filters the value
 * and never interprets it, so applications may use any 32-bit value; the
 * enumerators below are only a common vocabulary. The lowest and highest
 * enumerators give the type the full signed 32-bit range in C and C++, so every
 * int32_t value cast to it comes back unchanged. */
typedef enum MV_LogDataSourceType {
    MV_LogDataSourceType_Invalid = -1,
    MV_LogDataSourceType_Generic = 0,
    MV_LogDataSourceType_Camera = 1,
    MV_LogDataSourceType_Lidar = 2,
    MV_LogDataSourceType_Radar = 3,
    MV_LogDataSourceType_Navigation = 4,
    MV_LogDataSourceType_Inertial = 5,
    MV_LogDataSourceType_VehicleBus = 6,
    MV_LogDataSourceType_Environment = 7,
    MV_LogDataSourceType_Text = 8,
    MV_LogDataSourceType_RangeMin = (-2147483647 - 1),
    MV_LogDataSourceType_RangeMax = 2147483647
} MV_LogDataSourceType;

#ifdef __cplusplus
static_assert(sizeof(MV_LogDataSourceType) == 4, "MV_LogDataSourceType must be 32 bits wide");
#else
typedef char MV_LogDataSourceType_must_be_32_bits[(sizeof(MV_LogDataSourceType) == 4) ? 1 : -1];
#endif

#endif
