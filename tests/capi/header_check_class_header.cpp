// The class interface's umbrella header, alone, as C++17.
#include <logging/Logging.h>

int capi_header_check_class();
int capi_header_check_class() {
    Marivane::Logging::EntryIndexFilter filter;
    filter.dataTypes.push_back(1);
    return static_cast<int>(filter.dataTypes.size());
}
