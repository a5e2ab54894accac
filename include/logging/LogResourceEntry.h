#pragma once

#include <logging/ByteBuffer.h>

#include <string>

// A named attachment of raw bytes kept in a log file ("thumbnail" is the file's
// thumbnail).
struct LogResourceEntry {
    std::string name;
    Marivane::Logging::ByteBuffer data;
};
