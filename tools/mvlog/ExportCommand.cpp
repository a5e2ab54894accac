#include "Commands.h"
#include "Format.h"
#include "LogFileAccess.h"

#include <fmt/format.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <utility>

namespace Mvlog {

using Marivane::Logging::ByteBuffer;
using Marivane::Logging::DataEntry;
using Marivane::Logging::LogFileInterface;

namespace {

// "-" sends the bytes to stdout, for pipes.
constexpr const char* kStandardOutput = "-";

ByteBuffer readEntryBytes(const LogFileInterface& file, int32_t entryId) {
    std::optional<DataEntry> entry;
    try {
        entry = file.readEntry(entryId);
    } catch (const std::exception& error) {
        throw ToolError(fmt::format("entry {}: payload cannot be expanded: {}", entryId, error.what()));
    }
    if (!entry) {
        throw ToolError(fmt::format("{}: no entry with id {}", file.getFilePath().string(), entryId));
    }
    return std::move(entry->data);
}

ByteBuffer readResourceBytes(const LogFileInterface& file, const std::string& name) {
    std::optional<ByteBuffer> data;
    try {
        data = file.getResource(name);
    } catch (const std::exception& error) {
        throw ToolError(fmt::format("resource \"{}\" cannot be expanded: {}", name, error.what()));
    }
    if (!data) {
        throw ToolError(fmt::format("{}: no resource named \"{}\"", file.getFilePath().string(), name));
    }
    return std::move(*data);
}

ByteBuffer readThumbnailBytes(const LogFileInterface& file) {
    std::optional<ByteBuffer> data;
    try {
        data = file.getThumbnail();
    } catch (const std::exception& error) {
        throw ToolError(fmt::format("the thumbnail cannot be expanded: {}", error.what()));
    }
    if (!data) {
        throw ToolError(fmt::format("{}: the file has no thumbnail", file.getFilePath().string()));
    }
    return std::move(*data);
}

ByteBuffer selectedBytes(const LogFileInterface& file, const ExportOptions& options) {
    if (options.entry) {
        return readEntryBytes(file, *options.entry);
    }
    if (options.resource) {
        return readResourceBytes(file, *options.resource);
    }
    return readThumbnailBytes(file);
}

void writeToStandardOutput(const ByteBuffer& bytes) {
    if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size() || std::fflush(stdout) != 0) {
        throw ToolError("cannot write to standard output");
    }
}

// Never over the log file being read (whatever name reaches it), and over
// any other existing file only when asked.
void refuseUnsafeOutput(const ExportOptions& options) {
    std::error_code error;
    if (std::filesystem::equivalent(options.output, options.file, error)) {
        throw ToolError(fmt::format("refused: {} is the log file being read", options.output));
    }
    if (!options.force && somethingExistsAt(options.output)) {
        throw ToolError(
            fmt::format("refused: {} already exists (use --force to replace it)", options.output));
    }
}

void writeToFile(const std::string& path, const ByteBuffer& bytes) {
    std::ofstream stream(path, std::ios::binary | std::ios::trunc);
    stream.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    stream.close();
    if (!stream) {
        throw ToolError(fmt::format("cannot write {}", path));
    }
}

}  // namespace

int runExport(const ExportOptions& options) {
    const auto file = openExistingLogFile(options.file);
    if (options.output != kStandardOutput) {
        refuseUnsafeOutput(options);
    }
    const ByteBuffer bytes = selectedBytes(*file, options);
    requireCompleteReads(*file);
    if (options.output == kStandardOutput) {
        writeToStandardOutput(bytes);
        return 0;
    }
    writeToFile(options.output, bytes);
    fmt::print("Wrote {} bytes ({}) to {}\n", bytes.size(), humanSize(bytes.size()), options.output);
    return 0;
}

}  // namespace Mvlog
