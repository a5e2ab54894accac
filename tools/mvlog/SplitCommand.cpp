#include "Commands.h"
#include "Derivation.h"
#include "Format.h"
#include "LogFileAccess.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cctype>
#include <cmath>
#include <filesystem>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace Mvlog {

using Marivane::Logging::CopyOptions;
using Marivane::Logging::CopyReport;
using Marivane::Logging::EntrySummary;
using Marivane::Logging::SqliteLogFile;

namespace {

enum class SplitUnit { Duration, Bytes, Entries };

struct SplitEvery {
    SplitUnit unit = SplitUnit::Entries;
    // Milliseconds, stored bytes or entries.
    uint64_t amount = 0;
};

// One part: every entry whose timestamp lies in [start, end].
struct Part {
    int64_t start = 0;
    int64_t end = 0;
    uint64_t entries = 0;
};

struct UnitFactor {
    const char* suffix;
    SplitUnit unit;
    double factor;
};

// Longest suffixes first, so that "ms" is not read as "s" after "m".
constexpr UnitFactor kUnits[] = {
    {"KiB", SplitUnit::Bytes, 1024.0},
    {"MiB", SplitUnit::Bytes, 1024.0 * 1024},
    {"GiB", SplitUnit::Bytes, 1024.0 * 1024 * 1024},
    {"min", SplitUnit::Duration, 60'000.0},
    {"ms", SplitUnit::Duration, 1.0},
    {"KB", SplitUnit::Bytes, 1e3},
    {"MB", SplitUnit::Bytes, 1e6},
    {"GB", SplitUnit::Bytes, 1e9},
    {"s", SplitUnit::Duration, 1000.0},
    {"m", SplitUnit::Duration, 60'000.0},
    {"h", SplitUnit::Duration, 3'600'000.0},
    {"B", SplitUnit::Bytes, 1.0},
};

bool endsWith(const std::string& text, const std::string& suffix) {
    return text.size() > suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

SplitEvery parseEvery(const std::string& text) {
    SplitEvery every;
    std::string number = text;
    double factor = 1.0;
    for (const UnitFactor& unit : kUnits) {
        if (endsWith(text, unit.suffix)) {
            number = text.substr(0, text.size() - std::string(unit.suffix).size());
            every.unit = unit.unit;
            factor = unit.factor;
            break;
        }
    }
    std::size_t used = 0;
    double value = std::nan("");
    try {
        value = std::stod(number, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    const bool wholeCount = every.unit != SplitUnit::Entries || value == std::floor(value);
    if (number.empty() || !std::isdigit(static_cast<unsigned char>(number.front())) ||
        used != number.size() || !std::isfinite(value) || value <= 0 || !wholeCount ||
        value * factor >= 9e18 || value * factor < 1) {
        throw UsageError(fmt::format(
            "--every {}: give a duration (500ms, 30s, 5m, 1h), a size of stored bytes (64MiB, 100MB, "
            "512KiB) or a number of entries (1000)",
            printable(text)));
    }
    every.amount = static_cast<uint64_t>(std::llround(value * factor));
    return every;
}

// The parts, in time order, from the entries' summaries (no payload is read).
// Entries of one timestamp always go into the same part, so that parts are
// disjoint time windows; a part may hold more than asked for that reason.
std::vector<Part> partsOf(const SqliteLogFile& file, const SplitEvery& every) {
    std::vector<Part> parts;
    uint64_t filled = 0;
    std::optional<int64_t> origin;
    Marivane::Logging::VisitOptions options;
    options.order = Marivane::Logging::EntryOrder::Time;
    const bool read = file.visitEntrySummaries(
        Marivane::Logging::EntryRange::all(), Marivane::Logging::EntryIndexFilter(),
        [&](const EntrySummary& entry) {
            origin = origin.value_or(entry.timestamp);
            if (every.unit == SplitUnit::Duration) {
                // Windows of the given length from the first entry's time;
                // windows without entries make no part.
                const uint64_t window = spanMilliseconds(*origin, entry.timestamp) / every.amount;
                const auto windowStart =
                    static_cast<int64_t>(static_cast<uint64_t>(*origin) + window * every.amount);
                if (parts.empty() || parts.back().start != windowStart) {
                    parts.push_back({windowStart, entry.timestamp, 0});
                }
            } else if (parts.empty() || (filled >= every.amount && entry.timestamp != parts.back().end)) {
                parts.push_back({entry.timestamp, entry.timestamp, 0});
                filled = 0;
            }
            Part& part = parts.back();
            part.end = entry.timestamp;
            ++part.entries;
            filled += every.unit == SplitUnit::Bytes ? static_cast<uint64_t>(entry.storedSize) : 1;
            return true;
        },
        options);
    if (!read) {
        throw ToolError(fmt::format("{}: cannot read the entries to split: {}", file.getFilePath().string(),
                                    file.getLastFailure()));
    }
    return parts;
}

std::vector<std::string> partPaths(const SplitOptions& options, std::size_t count) {
    const std::filesystem::path input(options.file);
    const std::string stem = input.stem().string();
    const std::string extension = input.has_extension() ? input.extension().string() : ".mvlog";
    const std::size_t digits = std::max<std::size_t>(4, std::to_string(count).size());
    std::vector<std::string> paths;
    for (std::size_t i = 1; i <= count; ++i) {
        paths.push_back((std::filesystem::path(options.directory) /
                         fmt::format("{}_{:0{}}{}", stem, i, digits, extension))
                            .string());
    }
    return paths;
}

void prepareDirectory(const SplitOptions& options, const std::vector<std::string>& paths) {
    std::error_code error;
    if (!std::filesystem::exists(options.directory, error)) {
        if (!std::filesystem::create_directories(options.directory, error)) {
            throw ToolError(
                fmt::format("cannot make the directory {}: {}", options.directory, error.message()));
        }
    } else if (!std::filesystem::is_directory(options.directory, error)) {
        throw ToolError(fmt::format("refused: {} is not a directory", options.directory));
    }
    for (const std::string& path : paths) {
        if (somethingExistsAt(path)) {
            throw ToolError(fmt::format(
                "refused: {} already exists (split never overwrites); nothing was written", path));
        }
    }
}

}  // namespace

int runSplit(const SplitOptions& options) {
    const SplitEvery every = parseEvery(options.every);
    auto file = openExistingLogFile(options.file);
    const std::vector<Part> parts = partsOf(*file, every);
    if (parts.empty()) {
        throw ToolError(
            fmt::format("refused: {} has no entries to split; nothing was written", options.file));
    }
    const std::vector<std::string> paths = partPaths(options, parts.size());
    prepareDirectory(options, paths);
    CopyOptions copy;
    copy.applicationName = kToolName;
    copy.applicationVersion = kToolVersion;
    copy.compressionLevel = storedCompressionLevel(*file);
    // Each part is copied by its own process, which opens its own connection.
    file.reset();

    nlohmann::ordered_json written = nlohmann::ordered_json::array();
    for (std::size_t i = 0; i < parts.size(); ++i) {
        copy.startTimestamp = parts[i].start;
        copy.endTimestamp = parts[i].end;
        const std::string what = fmt::format("splitting, part {} of {}", i + 1, parts.size());
        const CopyReport report = deriveReporting(
            what.c_str(), paths[i], copy,
            [&](const CopyOptions& chosen) {
                return Marivane::Logging::Algorithms::copy(options.file, paths[i], chosen);
            },
            progressMode(options.progress));
        if (options.json) {
            written.push_back({{"output", paths[i]},
                               {"entries", report.entries},
                               {"start", isoTimestamp(parts[i].start)},
                               {"end", isoTimestamp(parts[i].end)},
                               {"bookmarks", report.bookmarks},
                               {"resources", report.resources}});
        } else {
            fmt::print("{}: {} entries, {} to {}\n", paths[i], report.entries, isoTimestamp(parts[i].start),
                       isoTimestamp(parts[i].end));
            std::fflush(stdout);
        }
    }
    if (options.json) {
        nlohmann::ordered_json document;
        document["input"] = options.file;
        document["directory"] = options.directory;
        document["parts"] = written;
        fmt::print("{}\n", dumpJson(document, 2));
    }
    return 0;
}

}  // namespace Mvlog
