#include "CConversions.h"
#include "CHandles.h"

#include <logging/CompressionLevel.h>
#include <logging/SqliteLogFile.h>

#include <core/Chrono.h>
#include <core/Filesystem.h>

#include <filesystem>
#include <system_error>

using namespace Marivane::Logging;
using Marivane::Logging::CApi::storeError;

namespace {

using Marivane::Filesystem::PathLookup;
using Marivane::Filesystem::somethingExistsAt;

// Creating looks at the path itself, so that even a dangling link counts as
// taken; otherwise the database would create its target behind the caller's
// back. A status that cannot be read lets the database layer say what is
// wrong.
bool pathIsTaken(const char* path) {
    return somethingExistsAt(path, PathLookup::PathItselfIfReadable);
}

// Opening follows links: a link whose target is missing names no log file,
// and opening it must not create the target as a new, empty one.
bool nothingExistsAt(const char* path) {
    return !somethingExistsAt(path, PathLookup::FollowLinks);
}

}  // namespace

void MV_LogError_Destroy(MV_LogError_p error) {
    delete error;
}

void MV_LogError_GetErrorMessage(MV_LogError_p error, const char** message) {
    *message = error->message.c_str();
}

MV_LogConfig_p MV_LogConfig_Create(const char* applicationName, const char* applicationVersion,
                                   const char* timeZone) {
    return new MV_LogConfig{CApi::textFrom(applicationName), CApi::textFrom(applicationVersion),
                            CApi::textFrom(timeZone), -1, MV_LOG_DURABILITY_FAST};
}

void MV_LogConfig_Destroy(MV_LogConfig_p config) {
    delete config;
}

void MV_LogConfig_GetTimeZone(MV_LogConfig_p config, const char** timeZone) {
    *timeZone = config->timeZone.c_str();
}

bool MV_LogConfig_SetTimeZone(MV_LogConfig_p config, const char* timeZone) {
    config->timeZone = CApi::textFrom(timeZone);
    return true;
}

void MV_LogConfig_GetCompressionLevel(MV_LogConfig_p config, int8_t* level) {
    *level = config->compressionLevel;
}

bool MV_LogConfig_SetCompressionLevel(MV_LogConfig_p config, int8_t level, MV_LogError_p* error) {
    if (!isValidCompressionLevel(level)) {
        // The message names 0 to 9 although -1 (the default) is accepted too.
        storeError(error, "Invalid compression level, value must be in the range [0,9].");
        return false;
    }
    config->compressionLevel = level;
    return true;
}

bool MV_LogConfig_SetDurability(MV_LogConfig_p config, MV_LogDurability durability, MV_LogError_p* error) {
    if (!CApi::isDurability(durability)) {
        storeError(error, CApi::kInvalidDurability);
        return false;
    }
    config->durability = durability;
    config->durabilityChosen = true;
    return true;
}

void MV_LogConfig_GetDurability(MV_LogConfig_p config, MV_LogDurability* durability) {
    *durability = config->durability;
}

bool MV_LogConfig_SetChecksums(MV_LogConfig_p config, bool enabled, MV_LogError_p* /*error*/) {
    config->entryChecksums = enabled;
    return true;
}

void MV_LogConfig_GetChecksums(MV_LogConfig_p config, bool* enabled) {
    *enabled = config->entryChecksums;
}

MV_LogFile_p MV_LogFile_Create(const char* path, MV_LogConfig_p config, MV_LogError_p* error) {
    if (pathIsTaken(path)) {
        // Stored without a null test: callers of this function always pass an
        // error argument.
        *error = new MV_LogError{"Cannot create file as file already exists."};
        return nullptr;
    }
    return CApi::returnFileOrError(
        [&] {
            const int64_t now = Marivane::Chrono::msSinceUnixEpoch();
            auto file = std::make_unique<SqliteLogFile>(
                std::string(path), config->timeZone, config->applicationName, config->applicationVersion,
                config->compressionLevel, now, CApi::durabilityFrom(config->durability),
                config->entryChecksums);
            return new MV_LogFile{std::move(file), true};
        },
        error);
}

MV_LogFile_p MV_LogFile_Open(const char* path, MV_LogError_p* error) {
    if (nothingExistsAt(path)) {
        storeError(error, "Log file does not exist.");
        return nullptr;
    }
    return CApi::returnFileOrError(
        [&] {
            auto file = std::make_unique<SqliteLogFile>(std::filesystem::path(path));
            return new MV_LogFile{std::move(file), false};
        },
        error);
}

MV_LogFile_p MV_LogFile_OpenReadOnly(const char* path, MV_LogError_p* error) {
    if (nothingExistsAt(path)) {
        storeError(error, "Log file does not exist.");
        return nullptr;
    }
    return CApi::returnFileOrError(
        [&] {
            auto file =
                std::make_unique<SqliteLogFile>(SqliteLogFile::openReadOnly(std::filesystem::path(path)));
            return new MV_LogFile{std::move(file), false};
        },
        error);
}

void MV_LogFile_Destroy(MV_LogFile_p file) {
    delete file;
}
