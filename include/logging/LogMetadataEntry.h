#pragma once

#include <logging/PropertyValue.h>

#include <string>

// A key/value pair describing a whole log file.
struct LogMetadataEntry {
    std::string key;
    Marivane::Logging::PropertyValue value;
};
