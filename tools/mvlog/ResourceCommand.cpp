#include "Commands.h"
#include "Format.h"
#include "LogFileAccess.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

namespace Mvlog {

using Marivane::Logging::ByteBuffer;
using Marivane::Logging::SqliteLogFile;

namespace {

constexpr const char* kStandardStream = "-";

// A resource is meant to be small (a calibration, a thumbnail): more than
// this is refused rather than held in memory whole.
constexpr std::uintmax_t kLargestResource = 256ull * 1024 * 1024;

ByteBuffer bytesFrom(std::istream& stream, const std::string& source) {
    ByteBuffer bytes;
    char buffer[65536];
    while (stream.read(buffer, sizeof buffer) || stream.gcount() > 0) {
        const auto* first = reinterpret_cast<const std::byte*>(buffer);
        bytes.insert(bytes.end(), first, first + stream.gcount());
        if (bytes.size() > kLargestResource) {
            throw ToolError(fmt::format("refused: {} holds more than {} (resources are held in memory whole)",
                                        source, humanSize(kLargestResource)));
        }
    }
    if (stream.bad()) {
        throw ToolError(fmt::format("cannot read {}", source));
    }
    return bytes;
}

ByteBuffer readSource(const std::string& path) {
    if (path == kStandardStream) {
        return bytesFrom(std::cin, "standard input");
    }
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) {
        throw ToolError(fmt::format("{}: not a regular file to read the resource from", path));
    }
    std::ifstream input(path, std::ios::binary);
    if (!input) {
        throw ToolError(fmt::format("{}: cannot be opened for reading", path));
    }
    return bytesFrom(input, path);
}

int listResources(const SqliteLogFile& file, const ResourceOptions& options) {
    const std::vector<LogResourceEntry> resources = file.getAllResources();
    requireCompleteReads(file);
    if (options.json) {
        nlohmann::ordered_json document;
        document["file"] = options.file;
        document["resources"] = nlohmann::ordered_json::array();
        for (const LogResourceEntry& resource : resources) {
            document["resources"].push_back({{"name", resource.name}, {"bytes", resource.data.size()}});
        }
        fmt::print("{}\n", dumpJson(document, 2));
        return 0;
    }
    if (resources.empty()) {
        fmt::print("No resources.\n");
    }
    for (const LogResourceEntry& resource : resources) {
        fmt::print("{:<28} {}\n", printable(resource.name), humanSize(resource.data.size()));
    }
    return 0;
}

int addResource(SqliteLogFile& file, const ResourceOptions& options) {
    const ByteBuffer bytes = readSource(options.path);
    const std::optional<ByteBuffer> existing = file.getResource(options.name);
    requireCompleteReads(file);
    if (existing && !options.force) {
        throw ToolError(fmt::format("refused: {} already has {} (--force replaces it)", options.file,
                                    resourceLabel(options.name)));
    }
    requireWritten(
        existing ? file.replaceResource(options.name, bytes) : file.addResource(options.name, bytes), file,
        "add the resource");
    const char* action = existing ? "replaced" : "added";
    if (options.json) {
        nlohmann::ordered_json document;
        document["file"] = options.file;
        document["action"] = action;
        document["resource"] = {{"name", options.name}, {"bytes", bytes.size()}};
        fmt::print("{}\n", dumpJson(document, 2));
    } else {
        fmt::print("{} {} ({}) in {}\n", existing ? "Replaced" : "Added", resourceLabel(options.name),
                   humanSize(bytes.size()), options.file);
    }
    return 0;
}

int removeResource(SqliteLogFile& file, const ResourceOptions& options) {
    requireWritten(file.removeResource(options.name), file, "remove the resource");
    if (options.json) {
        nlohmann::ordered_json document;
        document["file"] = options.file;
        document["action"] = "removed";
        document["name"] = options.name;
        fmt::print("{}\n", dumpJson(document, 2));
    } else {
        fmt::print("Removed {} from {}\n", resourceLabel(options.name), options.file);
    }
    return 0;
}

}  // namespace

int runResource(const ResourceOptions& options) {
    if (options.action == EditAction::Get) {
        // Exactly what export writes, with its refusals.
        ExportOptions exported;
        exported.file = options.file;
        exported.resource = options.name;
        exported.output = options.path;
        exported.force = options.force;
        return runExport(exported);
    }
    const bool writes = options.action != EditAction::List;
    const auto file = openExistingLogFile(options.file, writes ? Access::ReadWrite : Access::ReadOnly);
    switch (options.action) {
        case EditAction::List:
            return listResources(*file, options);
        case EditAction::Set:
            return addResource(*file, options);
        case EditAction::Remove:
            return removeResource(*file, options);
        case EditAction::Get:
            break;
    }
    return 1;
}

}  // namespace Mvlog
