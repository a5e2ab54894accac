/* The C interface header, alone, as C99. */
#include <logging/MV_Logging.h>

/* Uses a few declarations so that a broken typedef or prototype is noticed
 * even by a lenient compiler. */
int capi_header_check_c(void);
int capi_header_check_c(void) {
    MV_LogDataSourceCallback callback = 0;
    MV_LogDataSourceType type = MV_LogDataSourceType_Generic;
    MV_LogFile_p (*open)(const char*, MV_LogError_p*) = MV_LogFile_Open;
    return (callback == 0) + (int)type + (open != 0);
}
