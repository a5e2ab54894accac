#include "LogFileAccess.h"

#include <fmt/format.h>

#include <algorithm>
#include <system_error>

namespace Mvlog {

using Marivane::Logging::LogFileInterface;
using Marivane::Logging::SqliteLogFile;

void requireExistingFile(const std::filesystem::path& path) {
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(path, error);
    if (status.type() == std::filesystem::file_type::not_found) {
        throw ToolError(fmt::format("{}: no such file", path.string()));
    }
    if (error) {
        throw ToolError(fmt::format("{}: {}", path.string(), error.message()));
    }
    if (status.type() == std::filesystem::file_type::directory) {
        throw ToolError(fmt::format("{}: is a directory, not a log file", path.string()));
    }
}

std::unique_ptr<SqliteLogFile> openExistingLogFile(const std::filesystem::path& path, Access access) {
    requireExistingFile(path);
    if (std::filesystem::is_regular_file(path) && fileSizeOnDisk(path) == 0) {
        throw ToolError(fmt::format("{}: the file is empty (0 bytes), not a log file", path.string()));
    }
    try {
        if (access == Access::ReadOnly) {
            return std::make_unique<SqliteLogFile>(SqliteLogFile::openReadOnly(path));
        }
        return std::make_unique<SqliteLogFile>(path);
    } catch (const std::exception& error) {
        throw ToolError(fmt::format("cannot open {}: {}", path.string(), error.what()));
    }
}

void requireCompleteReads(const SqliteLogFile& file) {
    if (file.getFailureCount() != 0 && file.getLastFailureKind() != Marivane::Logging::FailureKind::Damaged) {
        throw ToolError(file.getLastFailure());
    }
}

uint64_t fileSizeOnDisk(const std::filesystem::path& path) {
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(path, error);
    return error ? 0 : static_cast<uint64_t>(size);
}

bool somethingExistsAt(const std::filesystem::path& path) {
    std::error_code error;
    return std::filesystem::symlink_status(path, error).type() != std::filesystem::file_type::not_found;
}

int8_t storedCompressionLevel(const LogFileInterface& file) {
    const int64_t level = Marivane::Logging::integerMetadata(file, "compressionLevel").value_or(0);
    return static_cast<int8_t>(std::clamp<int64_t>(level, Marivane::Logging::kMinCompressionLevel,
                                                   Marivane::Logging::kMaxCompressionLevel));
}

std::string resourceLabel(const std::string& name) {
    return name == "thumbnail" ? std::string("the thumbnail") : fmt::format("resource \"{}\"", name);
}

void requireWritten(bool written, const Marivane::Logging::LogFileInterface& file, const char* what) {
    if (!written) {
        throw ToolError(fmt::format("cannot {}: {}", what, file.getLastError()));
    }
}

}  // namespace Mvlog
