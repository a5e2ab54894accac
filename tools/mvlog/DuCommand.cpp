#include "Commands.h"
#include "Format.h"
#include "LogFileAccess.h"
#include "ProgressBar.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <map>
#include <optional>
#include <string>

namespace Mvlog {

using Marivane::Logging::DamagedEntry;
using Marivane::Logging::DataSource;
using Marivane::Logging::EntryScan;
using Marivane::Logging::EntrySelection;
using Marivane::Logging::ScannedEntry;
using Marivane::Logging::SqliteLogFile;

namespace {

struct Usage {
    uint64_t entries = 0;
    uint64_t loggedBytes = 0;
    uint64_t storedBytes = 0;

    void add(uint64_t logged, uint64_t stored) {
        ++entries;
        loggedBytes += logged;
        storedBytes += stored;
    }
};

// Logged bytes per stored byte; nothing for an empty store.
std::optional<double> ratioOf(const Usage& usage) {
    if (usage.storedBytes == 0) {
        return std::nullopt;
    }
    return static_cast<double>(usage.loggedBytes) / static_cast<double>(usage.storedBytes);
}

struct DiskUsage {
    Usage total;
    std::map<int8_t, Usage> bySource;
    std::map<int32_t, Usage> byType;
    std::vector<DamagedEntry> damaged;
};

DiskUsage measure(const SqliteLogFile& file, ProgressMode progress) {
    DiskUsage usage;
    EntryScan scanner(file, EntrySelection{});
    ProgressBar bar("measuring", "entries", progress);
    const uint64_t total = scanner.selectedCount();
    uint64_t met = 0;
    scanner.run(
        [&](const ScannedEntry& entry) {
            const uint64_t logged = entry.loggedSize();
            usage.total.add(logged, entry.size);
            usage.bySource[entry.dataSourceId].add(logged, entry.size);
            usage.byType[entry.type].add(logged, entry.size);
            bar.update(++met, total);
        },
        [&](const DamagedEntry& damaged) {
            usage.damaged.push_back(damaged);
            bar.update(++met, total);
        });
    bar.finish();
    return usage;
}

std::string ratioText(const Usage& usage) {
    const std::optional<double> ratio = ratioOf(usage);
    return ratio ? fmt::format("{:.2f}x", *ratio) : std::string("-");
}

std::string row(const std::string& label, const Usage& usage) {
    return fmt::format("  {:<34} {:>9} {:>12} {:>12} {:>8}", label, usage.entries,
                       humanSize(usage.loggedBytes), humanSize(usage.storedBytes), ratioText(usage));
}

nlohmann::ordered_json usageJson(const Usage& usage) {
    const std::optional<double> ratio = ratioOf(usage);
    return {{"entries", usage.entries},
            {"loggedBytes", usage.loggedBytes},
            {"storedBytes", usage.storedBytes},
            {"ratio", ratio ? nlohmann::ordered_json(*ratio) : nlohmann::ordered_json(nullptr)}};
}

std::map<int8_t, const DataSource*> sourcesById(const std::vector<DataSource>& sources) {
    std::map<int8_t, const DataSource*> byId;
    for (const DataSource& source : sources) {
        byId[source.id] = &source;
    }
    return byId;
}

void printText(const DuOptions& options, const SqliteLogFile& file, const std::vector<DataSource>& sources,
               const DiskUsage& usage) {
    const uint64_t onDisk = fileSizeOnDisk(options.file);
    fmt::print("{}: {} on disk, compression level {}\n", options.file, humanSize(onDisk),
               storedCompressionLevel(file));
    fmt::print("  {:<34} {:>9} {:>12} {:>12} {:>8}\n", "", "entries", "logged", "stored", "ratio");
    const auto byId = sourcesById(sources);
    fmt::print("By data source\n");
    for (const auto& [id, sourceUsage] : usage.bySource) {
        const auto found = byId.find(id);
        const std::string label = found == byId.end()
                                      ? fmt::format("({}) not in the file", id)
                                      : fmt::format("{} ({}, {})", printable(found->second->name), id,
                                                    dataSourceTypeName(found->second->type));
        fmt::print("{}\n", row(label, sourceUsage));
    }
    fmt::print("By entry type\n");
    for (const auto& [type, typeUsage] : usage.byType) {
        fmt::print("{}\n", row(fmt::format("type {}", type), typeUsage));
    }
    fmt::print("{}\n", row("All entries", usage.total));
    if (onDisk != 0) {
        fmt::print(
            "Payloads are {:.1f} % of the file; the rest is tables, indexes, metadata, resources and free "
            "pages\n",
            100.0 * static_cast<double>(usage.total.storedBytes) / static_cast<double>(onDisk));
    }
}

void printJson(const DuOptions& options, const SqliteLogFile& file, const std::vector<DataSource>& sources,
               const DiskUsage& usage) {
    nlohmann::ordered_json document;
    document["file"] = options.file;
    document["fileBytes"] = fileSizeOnDisk(options.file);
    document["compressionLevel"] = storedCompressionLevel(file);
    const auto byId = sourcesById(sources);
    document["sources"] = nlohmann::ordered_json::array();
    for (const auto& [id, sourceUsage] : usage.bySource) {
        nlohmann::ordered_json source = {{"id", id}};
        const auto found = byId.find(id);
        source["name"] = found == byId.end() ? nlohmann::ordered_json(nullptr)
                                             : nlohmann::ordered_json(found->second->name);
        source.update(usageJson(sourceUsage));
        document["sources"].push_back(source);
    }
    document["types"] = nlohmann::ordered_json::array();
    for (const auto& [type, typeUsage] : usage.byType) {
        nlohmann::ordered_json entry = {{"type", type}};
        entry.update(usageJson(typeUsage));
        document["types"].push_back(entry);
    }
    document["total"] = usageJson(usage.total);
    document["damagedEntries"] = nlohmann::ordered_json::array();
    for (const DamagedEntry& damaged : usage.damaged) {
        document["damagedEntries"].push_back(describe(damaged));
    }
    fmt::print("{}\n", dumpJson(document, 2));
}

}  // namespace

int runDu(const DuOptions& options) {
    const auto file = openExistingLogFile(options.file);
    const std::vector<DataSource> sources = file->getDataSources();
    const DiskUsage usage = measure(*file, progressMode(options.progress));
    requireCompleteReads(*file);
    if (options.json) {
        printJson(options, *file, sources, usage);
    } else {
        printText(options, *file, sources, usage);
    }
    for (const DamagedEntry& damaged : usage.damaged) {
        fmt::print(stderr, "mvlog: {}\n", describe(damaged));
    }
    if (!usage.damaged.empty()) {
        fmt::print(stderr, "mvlog: {} entr{} could not be measured; run `mvlog check` for details\n",
                   usage.damaged.size(), usage.damaged.size() == 1 ? "y" : "ies");
        return 1;
    }
    return 0;
}

}  // namespace Mvlog
