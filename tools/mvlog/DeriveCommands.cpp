#include "Arguments.h"
#include "Commands.h"
#include "Derivation.h"
#include "Format.h"
#include "LogFileAccess.h"
#include "Terminal.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <regex>
#include <system_error>
#include <vector>

namespace Mvlog {

using Marivane::Logging::CopyOptions;
using Marivane::Logging::CopyReport;
using Marivane::Logging::LogFileInterface;
using Marivane::Logging::SqliteLogFile;

namespace {

// slice runs as a copy, which takes any bounds; the command promises more:
// both bounds are entries the file's index lists. Checked before the copy
// starts, each refusal names its reason.
void explainRangeRefusal(const LogFileInterface& file, int32_t from, int32_t to) {
    if (to < from) {
        throw ToolError(fmt::format("refused: the range is reversed (--from {} is after --to {})", from, to));
    }
    const int32_t first = file.getFirstEntryId();
    const int32_t last = file.getLastEntryId();
    // One read of the index serves both bounds.
    const std::vector<int32_t> ids = file.getEntryIndex(Marivane::Logging::EntryIndexFilter{});
    for (const int32_t bound : {from, to}) {
        if (!std::binary_search(ids.begin(), ids.end(), bound)) {
            throw ToolError(
                first == -1 ? fmt::format("refused: entry {} does not exist (the file has no entries)", bound)
                            : fmt::format("refused: entry {} does not exist (the file holds ids {} to {})",
                                          bound, first, last));
        }
    }
}

void explainOutputRefusal(const std::string& output) {
    if (output.empty()) {
        return;
    }
    if (somethingExistsAt(output)) {
        throw ToolError(fmt::format("refused: {} already exists (derived files never overwrite)", output));
    }
    const std::filesystem::path parent = std::filesystem::path(output).parent_path();
    if (!parent.empty() && !std::filesystem::is_directory(parent)) {
        throw ToolError(fmt::format("refused: the directory {} does not exist", parent.string()));
    }
}

CopyOptions copyOptions(const LogFileInterface& file, const std::optional<int>& level) {
    CopyOptions options;
    options.applicationName = kToolName;
    options.applicationVersion = kToolVersion;
    options.compressionLevel = static_cast<int8_t>(level ? *level : storedCompressionLevel(file));
    return options;
}

// ---- a derivation that an interruption cleans up after ------------------
//
// The library writes a derived file under a hidden temporary name and removes
// it when the derivation fails, but a signal ends the process before any of
// that runs, leaving a partial file as large as what was written so far.
// The derivation therefore runs in a child process, while this one keeps
// SIGINT, SIGTERM and SIGHUP blocked and waits: on a signal it kills the
// child, removes the child's temporary files (named after its process id)
// once the child can no longer create any, and then ends by the signal as it
// would have.

// The signals an interruption can come by, blocked while they live. A signal
// that is ignored (nohup, a background job) stays ignored.
class BlockedSignals {
public:
    BlockedSignals() {
        ::pthread_sigmask(SIG_BLOCK, nullptr, &previous_);
        sigemptyset(&signals_);
        for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
            // One the caller already blocked stays the caller's, as before.
            struct sigaction current {};
            if (sigismember(&previous_, signal) == 0 && ::sigaction(signal, nullptr, &current) == 0 &&
                ((current.sa_flags & SA_SIGINFO) != 0 || current.sa_handler != SIG_IGN)) {
                sigaddset(&signals_, signal);
            }
        }
        ::pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    }
    ~BlockedSignals() { restore(); }
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;

    // Takes one pending signal, or answers 0 when none is pending.
    int takePending() {
        const struct timespec now {};
        const int signal = ::sigtimedwait(&signals_, nullptr, &now);
        return signal > 0 ? signal : 0;
    }

    void restore() {
        if (!restored_) {
            ::pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
            restored_ = true;
        }
    }

private:
    sigset_t signals_{};
    sigset_t previous_{};
    bool restored_ = false;
};

// The report travels from the child as CBOR after an "R": texts in it are
// bytes, as the library's notes are, whatever their encoding.
std::string encodeReport(const CopyReport& report) {
    const std::vector<uint8_t> bytes = nlohmann::json::to_cbor({{"entries", report.entries},
                                                                {"dataSources", report.dataSources},
                                                                {"bookmarks", report.bookmarks},
                                                                {"resources", report.resources},
                                                                {"stored", report.payloadsCopiedAsStored},
                                                                {"notes", report.notes}});
    return "R" + std::string(bytes.begin(), bytes.end());
}

CopyReport decodeReport(const std::string& text) {
    try {
        const nlohmann::json fields = nlohmann::json::from_cbor(text.begin() + 1, text.end());
        CopyReport report;
        report.entries = fields.at("entries");
        report.dataSources = fields.at("dataSources");
        report.bookmarks = fields.at("bookmarks");
        report.resources = fields.at("resources");
        report.payloadsCopiedAsStored = fields.at("stored");
        report.notes = fields.at("notes").get<std::vector<std::string>>();
        return report;
    } catch (const nlohmann::json::exception&) {
        throw ToolError("the report of the derivation is cut short");
    }
}

void writeAll(int descriptor, const std::string& text) {
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t now = ::write(descriptor, text.data() + written, text.size() - written);
        if (now < 0 && errno == EINTR) {
            continue;
        }
        if (now <= 0) {
            return;
        }
        written += static_cast<std::size_t>(now);
    }
}

// Removes what a derivation in process `pid` left beside `output`: the
// temporary file and its journals, all named ".<name>.partial-<pid>-...".
void removePartialFiles(const std::filesystem::path& output, pid_t pid) {
    const std::string prefix = "." + output.filename().string() + ".partial-" + std::to_string(pid) + "-";
    const std::filesystem::path directory = output.has_parent_path() ? output.parent_path() : ".";
    std::error_code error;
    std::vector<std::filesystem::path> partials;
    for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        if (entry->path().filename().string().rfind(prefix, 0) == 0) {
            partials.push_back(entry->path());
        }
    }
    for (const std::filesystem::path& partial : partials) {
        std::filesystem::remove(partial, error);
    }
}

// Runs `derive` in a child process and answers its report; throws what the
// derivation threw as a ToolError (its message). Ends this process by the
// signal when one interrupts it, after the cleanup described above.
CopyReport deriveInChild(const char* what, const std::filesystem::path& output,
                         const std::function<CopyReport()>& derive) {
    BlockedSignals blocked;
    int channel[2] = {-1, -1};
    std::fflush(stdout);
    std::fflush(stderr);
    const pid_t child = ::pipe2(channel, O_CLOEXEC) == 0 ? ::fork() : -1;
    if (child < 0) {
        // Without a child the derivation still runs; only the cleanup after a
        // signal is lost.
        for (const int descriptor : channel) {
            if (descriptor >= 0) {
                ::close(descriptor);
            }
        }
        blocked.restore();
        return derive();
    }
    if (child == 0) {
        ::close(channel[0]);
        blocked.restore();
        std::string message;
        try {
            message = encodeReport(derive());
        } catch (const std::exception& error) {
            message = std::string("E") + error.what();
        } catch (...) {
            message = "Ean unexpected failure";
        }
        std::fflush(stdout);
        std::fflush(stderr);
        writeAll(channel[1], message);
        // Nothing of this process's state may be torn down twice: the parent
        // owns it.
        ::_exit(0);
    }
    ::close(channel[1]);
    std::string received;
    int signal = 0;
    for (;;) {
        struct pollfd ready {
            channel[0], POLLIN, 0
        };
        if (::poll(&ready, 1, 50) > 0) {
            char buffer[16384];
            const ssize_t count = ::read(channel[0], buffer, sizeof buffer);
            if (count > 0) {
                received.append(buffer, static_cast<std::size_t>(count));
            } else if (count == 0 || errno != EINTR) {
                break;
            }
        }
        if ((signal = blocked.takePending()) != 0) {
            ::kill(child, SIGKILL);
            break;
        }
    }
    ::close(channel[0]);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!received.empty() && received[0] == 'R') {
        return decodeReport(received);
    }
    if (signal == 0) {
        // The child may have died of the same signal, sent to the whole group.
        signal = blocked.takePending();
    }
    removePartialFiles(output, child);
    if (signal != 0) {
        clearStatusLine(stderr);
        fmt::print(stderr, "mvlog: {} interrupted; nothing was written to {}\n", what, output.string());
        std::fflush(stderr);
        std::signal(signal, SIG_DFL);
        blocked.restore();
        ::raise(signal);
        std::_Exit(128 + signal);
    }
    if (!received.empty()) {
        throw ToolError(received.substr(1));
    }
    throw ToolError(WIFSIGNALED(status)
                        ? fmt::format("the process writing it ended by signal {}", WTERMSIG(status))
                        : fmt::format("the process writing it ended with status {}", WEXITSTATUS(status)));
}

// ---- slice: a selection that matches nothing ----------------------------

// The selection as the command line gave it, for messages.
std::string selectionText(const SliceOptions& options) {
    std::vector<std::string> parts;
    if (options.from) {
        parts.push_back(fmt::format("--from {} --to {}", *options.from, *options.to));
    }
    if (options.start) {
        parts.push_back("--start " + *options.start);
    }
    if (options.end) {
        parts.push_back("--end " + *options.end);
    }
    for (const int32_t type : options.types) {
        parts.push_back(fmt::format("--type {}", type));
    }
    for (const std::string& source : options.sources) {
        parts.push_back("--source " + printable(source));
    }
    for (const MV_LogDataSourceType type : options.sourceTypes) {
        parts.push_back("--source-type " + dataSourceTypeName(type));
    }
    return fmt::format("{}", fmt::join(parts, " "));
}

// Whether the copy would take at least one entry. A read that fails is left
// to the copy, which reports it.
bool selectsAnEntry(const SqliteLogFile& file, const CopyOptions& copy) {
    bool found = false;
    const Marivane::Logging::EntryRange range{copy.firstEntryId, copy.lastEntryId, copy.startTimestamp,
                                              copy.endTimestamp};
    const bool read =
        file.visitEntrySummaries(range, copy.filter, [&](const Marivane::Logging::EntrySummary&) {
            found = true;
            return false;
        });
    return found || !read;
}

std::string emptySelectionMessage(const SqliteLogFile& file, const SliceOptions& options) {
    const std::optional<Marivane::Logging::TimeRange> span = file.getTimeRange();
    const std::string extent =
        span ? fmt::format("its entries span {} to {}", isoTimestamp(span->first), isoTimestamp(span->last))
             : std::string("the file has no entries");
    return fmt::format(
        "refused: no entry of {} matches {} ({}); nothing was written (--allow-empty writes a file without "
        "entries)",
        options.file, selectionText(options), extent);
}

// ---- merge: the report -----------------------------------------------------

// Inputs named twice, also through another spelling or a link: their entries
// go into the output twice, which is allowed but rarely meant.
std::vector<std::string> repeatedInputWarnings(const std::vector<std::string>& files) {
    std::vector<std::string> warnings;
    for (std::size_t later = 1; later < files.size(); ++later) {
        for (std::size_t earlier = 0; earlier < later; ++earlier) {
            std::error_code error;
            if (std::filesystem::equivalent(files[earlier], files[later], error) && !error) {
                warnings.push_back(
                    files[earlier] == files[later]
                        ? fmt::format("{} is given twice: its entries are in the output twice", files[later])
                        : fmt::format("{} and {} are the same file: its entries are in the output twice",
                                      files[earlier], files[later]));
                break;
            }
        }
    }
    return warnings;
}

// The library's notes, one sentence each, as fields of the document: the
// sentences are the library's own, so a test pins them.
void addNoteFields(nlohmann::ordered_json& document, const std::vector<std::string>& notes) {
    static const std::regex renumbered(
        R"re(Data source (-?\d+) \("(.*)"\) of '(.*)' became data source (-?\d+): its id was taken by an earlier input\.)re");
    static const std::regex resource(
        R"re(Resource "(.*)" of '(.*)' has the name of an earlier input's resource and was not copied\.)re");
    static const std::regex metadata(
        R"re(Metadata "(.*)" of '(.*)' differs from an earlier input's and was not copied\.)re");
    document["renumberedSources"] = nlohmann::ordered_json::array();
    document["skippedResources"] = nlohmann::ordered_json::array();
    document["skippedMetadata"] = nlohmann::ordered_json::array();
    for (const std::string& note : notes) {
        std::smatch match;
        if (std::regex_match(note, match, renumbered)) {
            document["renumberedSources"].push_back({{"input", match[3].str()},
                                                     {"name", match[2].str()},
                                                     {"from", std::stoi(match[1].str())},
                                                     {"to", std::stoi(match[4].str())}});
        } else if (std::regex_match(note, match, resource)) {
            document["skippedResources"].push_back({{"input", match[2].str()}, {"name", match[1].str()}});
        } else if (std::regex_match(note, match, metadata)) {
            document["skippedMetadata"].push_back({{"input", match[2].str()}, {"key", match[1].str()}});
        }
    }
}

std::string countOf(uint64_t count, const char* one, const char* many) {
    return fmt::format("{} {}", count, count == 1 ? one : many);
}

// What every derived file's report says, in the fields merge --json has
// always printed.
void addCopyCounts(nlohmann::ordered_json& document, const CopyReport& report) {
    document["entries"] = report.entries;
    document["dataSources"] = report.dataSources;
    document["resources"] = report.resources;
    document["bookmarks"] = report.bookmarks;
    document["payloadsCopiedAsStored"] = report.payloadsCopiedAsStored;
}

void printMergeReport(const MergeOptions& options, const CopyReport& report,
                      const std::vector<std::string>& warnings) {
    if (options.json) {
        nlohmann::ordered_json document;
        document["output"] = options.output;
        document["inputs"] = options.files;
        addCopyCounts(document, report);
        addNoteFields(document, report.notes);
        document["notes"] = report.notes;
        document["warnings"] = warnings;
        fmt::print("{}\n", dumpJson(document, 2));
        return;
    }
    // The path alone on stdout, as scripts read it; the report beside it.
    fmt::print("{}\n", options.output);
    std::fflush(stdout);
    fmt::print(stderr, "merged {} into {}: {}, {}, {}, {}\n", countOf(options.files.size(), "file", "files"),
               options.output, countOf(report.entries, "entry", "entries"),
               countOf(report.dataSources, "data source", "data sources"),
               countOf(report.resources, "resource", "resources"),
               countOf(report.bookmarks, "bookmark", "bookmarks"));
    for (const std::string& note : report.notes) {
        fmt::print(stderr, "note: {}\n", printable(note));
    }
}

// slice and clone: a copy of one file to the derived file's output (without
// -o, "<name>_exported<ext>" beside it, made unique), reported as the
// output's path alone, as scripts read it, or as one JSON document.
int copyReporting(const char* what, const std::string& input, const DerivedFile& derived,
                  const CopyOptions& copy) {
    const std::string written = derived.output.empty()
                                    ? Marivane::Logging::Algorithms::defaultDerivedFilePath(input)
                                    : derived.output;
    const CopyReport report = deriveReporting(
        what, written, copy,
        [&](const CopyOptions& chosen) {
            return Marivane::Logging::Algorithms::copy(input, written, chosen);
        },
        progressMode(derived.progress));
    if (!derived.json) {
        fmt::print("{}\n", written);
        return 0;
    }
    nlohmann::ordered_json document;
    document["output"] = written;
    document["input"] = input;
    addCopyCounts(document, report);
    document["notes"] = report.notes;
    fmt::print("{}\n", dumpJson(document, 2));
    return 0;
}

}  // namespace

CopyReport deriveReporting(const char* what, const std::string& output, CopyOptions options,
                           const std::function<CopyReport(const CopyOptions&)>& derive,
                           ProgressMode progress) {
    try {
        return deriveInChild(what, output, [&] {
            // The total is the inputs' entry count: a filter may take fewer.
            ProgressBar bar(what, "entries", progress);
            if (bar.isShown()) {
                options.progress = [&](uint64_t written, uint64_t total) { bar.update(written, total); };
            }
            CopyReport report = derive(options);
            bar.update(report.entries, report.entries);
            return report;
        });
    } catch (const std::exception& error) {
        throw ToolError(fmt::format("{} failed: {} (nothing was written to {})", what, error.what(), output));
    }
}

int runSlice(const SliceOptions& options) {
    auto file = openExistingLogFile(options.file);
    explainOutputRefusal(options.output);
    if (!options.from && !options.to && !options.start && !options.end) {
        throw UsageError("slice needs --from and --to, or --start and/or --end");
    }
    CopyOptions copy = copyOptions(*file, options.level);
    if (options.from || options.to) {
        explainRangeRefusal(*file, *options.from, *options.to);
        copy.firstEntryId = *options.from;
        copy.lastEntryId = *options.to;
    }
    const TimeWindow window = parseTimeWindow(options.start, options.end, *file);
    copy.startTimestamp = window.start;
    copy.endTimestamp = window.end;
    copy.filter.dataTypes = options.types;
    copy.filter.dataSources = resolveDataSources("--source", options.sources, file->getDataSources());
    copy.filter.dataSourceTypes = options.sourceTypes;
    if (!options.allowEmpty && !selectsAnEntry(*file, copy)) {
        throw ToolError(emptySelectionMessage(*file, options));
    }
    // The derivation runs in another process, which opens its own connection.
    file.reset();
    return copyReporting("slicing", options.file, options, copy);
}

int runClone(const CloneOptions& options) {
    auto file = openExistingLogFile(options.file);
    explainOutputRefusal(options.output);
    const CopyOptions copy = copyOptions(*file, options.level);
    file.reset();
    return copyReporting("cloning", options.file, options, copy);
}

int runMerge(const MergeOptions& options) {
    std::vector<std::filesystem::path> inputs;
    for (const std::string& input : options.files) {
        requireExistingFile(input);
        inputs.emplace_back(input);
    }
    explainOutputRefusal(options.output);
    // The first file is closed again before the derivation opens it.
    const CopyOptions copy = copyOptions(*openExistingLogFile(options.files.front()), options.level);
    const std::vector<std::string> warnings = repeatedInputWarnings(options.files);
    for (const std::string& warning : warnings) {
        fmt::print(stderr, "mvlog: warning: {}\n", warning);
    }
    const CopyReport report = deriveReporting(
        "merging", options.output, copy,
        [&](const CopyOptions& chosen) {
            return Marivane::Logging::Algorithms::merge(inputs, options.output, chosen);
        },
        progressMode(options.progress));
    printMergeReport(options, report, warnings);
    return 0;
}

}  // namespace Mvlog
