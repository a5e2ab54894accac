#pragma once

#include "CHandles.h"

#include <logging/ByteBuffer.h>
#include <logging/Durability.h>

#include <cstdint>
#include <exception>
#include <string>

namespace Marivane::Logging::CApi {

// A copy of a NUL-terminated text. A null pointer throws std::logic_error with
// the same text on every platform.
std::string textFrom(const char* text);

// A copy of `length` bytes; a negative length throws std::length_error, as a
// byte list of that size would.
ByteBuffer bytesFrom(const uint8_t* data, int64_t length);

// Borrowed view of a byte list for a getter.
void exposeBytes(const ByteBuffer& bytes, int64_t* length, const uint8_t** data);

// Stores a new error object holding `message` when `error` is not null.
void storeError(MV_LogError_p* error, std::string message);

// The class interface's durability mode for a validated C value.
inline Durability durabilityFrom(MV_LogDurability durability) {
    switch (durability) {
        case MV_LOG_DURABILITY_SAFE:
            return Durability::Safe;
        case MV_LOG_DURABILITY_BALANCED:
            return Durability::Balanced;
        default:
            return Durability::Fast;
    }
}

inline bool isDurability(MV_LogDurability durability) {
    return durability == MV_LOG_DURABILITY_FAST || durability == MV_LOG_DURABILITY_SAFE ||
           durability == MV_LOG_DURABILITY_BALANCED;
}

inline constexpr const char* kInvalidDurability =
    "Invalid durability, value must be MV_LOG_DURABILITY_FAST, MV_LOG_DURABILITY_SAFE or "
    "MV_LOG_DURABILITY_BALANCED.";

// True when `result` is; otherwise stores the file's last-error text (when
// asked for) and returns false.
bool populateErrorOnFailure(bool result, MV_LogFile_p file, MV_LogError_p* error);

// Runs `makeFile` (which returns a new handle or null); an exception becomes an
// error object holding its what() text, or "Unknown internal error" for one
// that is not a std::exception, and a null result.
template <typename MakeFile>
MV_LogFile_p returnFileOrError(MakeFile makeFile, MV_LogError_p* error) {
    try {
        return makeFile();
    } catch (const std::exception& exception) {
        storeError(error, exception.what());
    } catch (...) {
        storeError(error, "Unknown internal error");
    }
    return nullptr;
}

// Runs `work` (which answers success); an exception becomes an error object
// holding its what() text, or "Unknown internal error", and false. Every C
// call added beside the original family goes through here, so that no
// exception escapes it.
template <typename Work>
bool reportingFailures(MV_LogError_p* error, Work work) {
    try {
        return work();
    } catch (const std::exception& exception) {
        storeError(error, exception.what());
    } catch (...) {
        storeError(error, "Unknown internal error");
    }
    return false;
}

}  // namespace Marivane::Logging::CApi
