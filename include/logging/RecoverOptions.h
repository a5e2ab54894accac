#pragma once

#include <logging/Version.h>

#include <cstdint>
#include <functional>
#include <string>

namespace Marivane::Logging {

// How Algorithms::recover writes the new file. A plain value: copy it freely.
struct RecoverOptions {
    // The program that makes the new file, recorded in its metadata; the
    // damaged file's producer goes into "oldApplicationName" and
    // "oldApplicationVersion" as a copy records it.
    std::string applicationName = "libmarivane-logging";
    std::string applicationVersion = MARIVANE_LOGGING_VERSION;
    // Called now and then on the calling thread with the number of entries
    // salvaged so far; a salvage reads the file more than once, so there is
    // no reliable total to compare it with.
    std::function<void(uint64_t entriesRecovered)> progress;
};

}  // namespace Marivane::Logging
