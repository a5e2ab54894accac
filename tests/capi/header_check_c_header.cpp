// The C interface header, alone, as C++17.
#include <logging/MV_Logging.h>

int capi_header_check_cxx();
int capi_header_check_cxx() {
    MV_LogDataSourceCallback callback = nullptr;
    MV_LogDataSourceType type = MV_LogDataSourceType_Generic;
    MV_LogFile_p (*open)(const char*, MV_LogError_p*) = MV_LogFile_Open;
    return (callback == nullptr) + static_cast<int>(type) + (open != nullptr);
}
