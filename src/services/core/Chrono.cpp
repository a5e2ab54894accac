#include <core/Chrono.h>

#include <chrono>

namespace Marivane::Chrono {

int64_t msSinceUnixEpoch() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

}  // namespace Marivane::Chrono
