#include "Arguments.h"
#include "Commands.h"
#include "Format.h"
#include "LogFileAccess.h"
#include "ProgressBar.h"
#include "Terminal.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <thread>

#include <poll.h>
#include <unistd.h>

namespace Mvlog {

using Marivane::Logging::ByteBuffer;
using Marivane::Logging::DamagedEntry;
using Marivane::Logging::DataSource;
using Marivane::Logging::EntryIndexFilter;
using Marivane::Logging::EntryScan;
using Marivane::Logging::EntrySelection;
using Marivane::Logging::PayloadEncoding;
using Marivane::Logging::ScannedEntry;
using Marivane::Logging::SqliteLogFile;

namespace {

constexpr std::size_t kTextPreviewBytes = 16;
constexpr std::size_t kHexDumpWidth = 16;

// Of each payload, --format auto prints as text at most this many bytes.
constexpr std::size_t kAutoTextBytes = 2000;

// What cat prints about each data source: its name (as stored, and made
// printable once for the lines of text), and the media type its payloads
// declare (none for sources without the property).
struct SourceLabel {
    std::string name;
    std::string printableName;
    std::optional<std::string> encoding;
};
using SourceLabels = std::map<int8_t, SourceLabel>;

SourceLabels sourceLabelsOf(const Marivane::Logging::LogFileInterface& file) {
    SourceLabels labels;
    for (const DataSource& source : file.getDataSources()) {
        labels[source.id] = {source.name, printable(source.name), PayloadEncoding::declared(file, source.id)};
    }
    return labels;
}

// An entry of a data source the file does not have has no label.
const SourceLabel& labelOf(const SourceLabels& labels, int8_t id) {
    static const SourceLabel kNone;
    const auto found = labels.find(id);
    return found == labels.end() ? kNone : found->second;
}

std::string base64(const ByteBuffer& bytes) {
    constexpr const char* kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t available = std::min<std::size_t>(3, bytes.size() - i);
        uint32_t group = 0;
        for (std::size_t k = 0; k < 3; ++k) {
            group = (group << 8) | (k < available ? std::to_integer<uint32_t>(bytes[i + k]) : 0u);
        }
        for (std::size_t k = 0; k < 4; ++k) {
            text += k <= available ? kAlphabet[(group >> (18 - 6 * k)) & 0x3f] : '=';
        }
    }
    return text;
}

// "#7  2024-05-01T12:00:00.250Z  source 1 \"imu\"  type 3  64 B", appended.
std::string& appendHeadline(std::string& line, const ScannedEntry& entry, std::size_t size,
                            const SourceLabels& names) {
    fmt::format_to(std::back_inserter(line), "#{}  ", entry.entryId);
    appendIsoTimestamp(line, entry.timestamp);
    fmt::format_to(std::back_inserter(line), "  source {} \"{}\"  type {}  {} B", entry.dataSourceId,
                   labelOf(names, entry.dataSourceId).printableName, entry.type, size);
    return line;
}

std::string entryHeadline(const ScannedEntry& entry, std::size_t size, const SourceLabels& names) {
    std::string line;
    return appendHeadline(line, entry, size, names);
}

// The size and the first bytes, expanded piece by piece: a line never needs
// more memory than a piece, whatever size the payload has or declares. Cat
// prints millions of these lines: the line and the prefix reuse their
// buffers.
void printText(const ScannedEntry& entry, const SourceLabels& names) {
    // One byte more than shown, so that the preview knows to say "...".
    thread_local ByteBuffer prefix;
    thread_local std::string line;
    const std::size_t size = entry.sizeAndPrefix(kTextPreviewBytes + 1, prefix);
    line.clear();
    appendHeadline(line, entry, size, names);
    line += "  ";
    appendHexPrefix(line, prefix, kTextPreviewBytes);
    line += '\n';
    fmt::print("{}", line);
}

void printJson(const ScannedEntry& entry, const SourceLabels& names) {
    const ByteBuffer data = entry.payload();
    const nlohmann::ordered_json line = {{"entryId", entry.entryId},
                                         {"timestamp", entry.timestamp},
                                         {"time", isoTimestamp(entry.timestamp)},
                                         {"dataSourceId", entry.dataSourceId},
                                         {"dataSourceName", labelOf(names, entry.dataSourceId).name},
                                         {"type", entry.type},
                                         {"size", data.size()},
                                         {"data", base64(data)}};
    fmt::print("{}\n", dumpJson(line));
}

void printHexDump(const ScannedEntry& entry, const SourceLabels& names) {
    const ByteBuffer data = entry.payload();
    fmt::print("{}\n", entryHeadline(entry, data.size(), names));
    for (std::size_t offset = 0; offset < data.size(); offset += kHexDumpWidth) {
        std::string hex;
        std::string characters;
        for (std::size_t i = offset; i < offset + kHexDumpWidth; ++i) {
            if (i < data.size()) {
                hex += fmt::format("{:02x} ", std::to_integer<unsigned>(data[i]));
                const auto character = std::to_integer<unsigned char>(data[i]);
                characters += std::isprint(character) ? static_cast<char>(character) : '.';
            } else {
                hex += "   ";
            }
        }
        fmt::print("  {:08x}  {} |{}|\n", offset, hex, characters);
    }
}

// The longest prefix of `text` of at most `limit` bytes that does not cut a
// UTF-8 sequence.
std::string_view utf8Prefix(std::string_view text, std::size_t limit) {
    if (text.size() <= limit) {
        return text;
    }
    std::size_t end = limit;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) {
        --end;
    }
    return text.substr(0, end);
}

// A payload as what it is: JSON and text (declared by its source, or sniffed
// when the source declares nothing or octet-stream) as one line of text made
// safe for the terminal (control characters escaped, bytes that are not UTF-8
// as \xNN); anything else as the text format's line with its media type
// before the first bytes.
void printAuto(const ScannedEntry& entry, const SourceLabels& labels) {
    const ByteBuffer data = entry.payload();
    // A source that declares octet-stream says only that its payloads are
    // of no one kind: their bytes tell.
    const std::optional<std::string>& declared = labelOf(labels, entry.dataSourceId).encoding;
    const std::string_view mediaType = declared && *declared != PayloadEncoding::kOctetStream
                                           ? std::string_view(*declared)
                                           : PayloadEncoding::sniff(data.data(), data.size());
    if (PayloadEncoding::isText(mediaType)) {
        const std::string_view text(reinterpret_cast<const char*>(data.data()), data.size());
        const std::string_view shown = utf8Prefix(text, kAutoTextBytes);
        fmt::print("{}  {}{}\n", entryHeadline(entry, data.size(), labels), utf8Escaped(printable(shown)),
                   shown.size() < text.size()
                       ? fmt::format(" ... ({} more bytes)", text.size() - shown.size())
                       : "");
        return;
    }
    std::string line = entryHeadline(entry, data.size(), labels) + "  " + printable(mediaType) + "  ";
    appendHexPrefix(line, data, kTextPreviewBytes);
    fmt::print("{}\n", line);
}

void printEntry(CatFormat format, const ScannedEntry& entry, const SourceLabels& names) {
    switch (format) {
        case CatFormat::Auto:
            printAuto(entry, names);
            break;
        case CatFormat::Text:
            printText(entry, names);
            break;
        case CatFormat::Json:
            printJson(entry, names);
            break;
        case CatFormat::Hex:
            printHexDump(entry, names);
            break;
    }
}

// After what stdout holds so far, so that the name falls between the lines
// it is missing from.
void nameUnprinted(int64_t entryId, const std::string& reason) {
    std::fflush(stdout);
    fmt::print(stderr, "mvlog: entry {}: {}\n", entryId, reason);
}

// An entry whose payload reads hand out other than as logged is named on
// stderr instead of printed: its bytes would look like a payload and be none.
// Returns whether the entry was printed.
bool printOrName(CatFormat format, const ScannedEntry& entry, const SourceLabels& names) {
    if (const std::optional<std::string> problem = storedFormProblem(entry)) {
        nameUnprinted(entry.entryId, *problem);
        return false;
    }
    printEntry(format, entry, names);
    return true;
}

// A reader that went away (the other end of a pipe closed) shows on the
// output before anything is written to it; following ends then.
bool outputClosed() {
    pollfd output{STDOUT_FILENO, 0, 0};
    return ::poll(&output, 1, 0) > 0 && (output.revents & (POLLERR | POLLHUP)) != 0;
}

// Polls for entries committed after `lastSeen`, a bounded number at a time,
// until interrupted, idle for the options' limit, or the output is closed.
void followNewEntries(const SqliteLogFile& file, const CatOptions& options, const EntrySelection& selection,
                      int32_t lastSeen, const SourceLabels& names) {
    constexpr auto kPollPeriod = std::chrono::milliseconds(100);
    constexpr int32_t kEntriesPerRead = 1000;
    InterruptGuard interrupts;
    auto lastArrival = std::chrono::steady_clock::now();
    Marivane::Logging::VisitOptions visitOptions;
    visitOptions.payloadForm = Marivane::Logging::PayloadForm::Stored;
    visitOptions.onDamagedEntry = [](int64_t entryId, const std::string& reason) {
        nameUnprinted(entryId, reason);
        return true;
    };
    while (!interruptRequested() && !outputClosed()) {
        int32_t printed = 0;
        bool pastEnd = false;
        file.visitEntries(
            Marivane::Logging::EntryRange{lastSeen + 1, -1, selection.startTimestamp, selection.endTimestamp},
            selection.filter,
            [&](const Marivane::Logging::EntryView& view) {
                if (options.to != -1 && view.entryId > options.to) {
                    pastEnd = true;
                    return false;
                }
                printOrName(options.format, ScannedEntry(view), names);
                lastSeen = view.entryId;
                return ++printed < kEntriesPerRead;
            },
            visitOptions);
        requireCompleteReads(file);
        std::fflush(stdout);
        if (pastEnd) {
            return;
        }
        const auto now = std::chrono::steady_clock::now();
        if (printed > 0) {
            lastArrival = now;
            continue;
        }
        if (options.idleSeconds > 0 &&
            now - lastArrival >= std::chrono::duration<double>(options.idleSeconds)) {
            return;
        }
        std::this_thread::sleep_for(kPollPeriod);
    }
}

}  // namespace

int runCat(const CatOptions& options) {
    const auto file = openExistingLogFile(options.file);
    const SourceLabels names = sourceLabelsOf(*file);
    EntrySelection selection;
    selection.from = options.from;
    selection.to = options.to;
    selection.limit = options.limit;
    selection.order =
        options.idOrder ? Marivane::Logging::EntryOrder::Id : Marivane::Logging::EntryOrder::Time;
    selection.filter.dataTypes = options.types;
    selection.filter.dataSources = resolveDataSources("--source", options.sources, file->getDataSources());
    selection.filter.dataSourceTypes = options.sourceTypes;
    const TimeWindow window = parseTimeWindow(options.start, options.end, *file);
    selection.startTimestamp = window.start;
    selection.endTimestamp = window.end;
    if (options.from != -1 && options.to != -1 && options.to < options.from) {
        throw ToolError("refused: the id range is reversed (--from is after --to)");
    }
    EntryScan scanner(*file, selection);
    std::size_t damaged = 0;
    // Progress only when the entries go elsewhere than the terminal (a file,
    // a pipe), unless asked for.
    ProgressBar bar("cat", "entries",
                    options.progress     ? ProgressMode::Always
                    : isTerminal(stdout) ? ProgressMode::Never
                                         : ProgressMode::Auto);
    uint64_t total = scanner.selectedCount();
    if (options.limit >= 0) {
        total = std::min<uint64_t>(total, static_cast<uint64_t>(options.limit));
    }
    uint64_t met = 0;
    scanner.run(
        [&](const ScannedEntry& entry) {
            if (!printOrName(options.format, entry, names)) {
                ++damaged;
            }
            bar.update(++met, total);
        },
        [&](const DamagedEntry& entry) {
            ++damaged;
            bar.erase();
            std::fflush(stdout);
            fmt::print(stderr, "mvlog: {}\n", describe(entry));
            bar.update(++met, total);
        });
    bar.finish();
    requireCompleteReads(*file);
    if (damaged != 0) {
        throw ToolError(fmt::format("{} of {} entries could not be read", damaged, scanner.metCount()));
    }
    // A scan of the whole file met every entry it could reach; a narrower one
    // compares the file's count with its index, whose reading ends silently
    // at a damaged page. None is missing when the count itself fails.
    const int32_t counted = file->getEntryCount();
    const auto reached = static_cast<int64_t>(counted < 0 || scanner.coversWholeFile()
                                                  ? scanner.metCount()
                                                  : file->getEntryIndex(EntryIndexFilter{}).size());
    const int64_t missing = std::max<int64_t>(0, counted - reached);
    if (missing != 0) {
        throw ToolError(fmt::format(
            "{} entries of the file are missing from its index (behind a damaged page) and were not printed",
            missing));
    }
    if (options.follow) {
        // New entries follow the highest id printed, whatever the order.
        const std::vector<int32_t>& seen = scanner.selectedIds();
        followNewEntries(
            *file, options, selection,
            seen.empty() ? std::max(0, options.from - 1) : *std::max_element(seen.begin(), seen.end()),
            names);
    }
    return 0;
}

}  // namespace Mvlog
