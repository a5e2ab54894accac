#include "CommandLine.h"

#include "Arguments.h"
#include "Commands.h"
#include "Format.h"
#include "LogFileAccess.h"
#include "Terminal.h"

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>
#include <filesystem>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace {

using namespace Mvlog;
using Marivane::Logging::Playback::FrameOrder;
using Marivane::Logging::Playback::Pacing;

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

// A whole number in [minimum, maximum], with a message that says so in a few
// words: CLI's own range check spells out the limits of a double. The
// description is what the help shows in place of the type.
CLI::Validator wholeNumberIn(int64_t minimum, int64_t maximum, const std::string& description) {
    return CLI::Validator(
        [minimum, maximum](std::string& text) -> std::string {
            const std::optional<int64_t> value = wholeNumber(text);
            if (value && *value >= minimum && *value <= maximum) {
                return {};
            }
            if (maximum == std::numeric_limits<int64_t>::max()) {
                return fmt::format("must be a whole number of {} or more, got {}", minimum, text);
            }
            return fmt::format("must be a whole number from {} to {}, got {}", minimum, maximum, text);
        },
        description);
}

// A finite number, above 0 or at least 0: nan and the infinities are refused
// too, which a floating-point option would otherwise take for numbers.
CLI::Validator finiteNumberFrom(bool zeroAllowed, const std::string& description) {
    return CLI::Validator(
        [zeroAllowed](std::string& text) -> std::string {
            const std::optional<double> value = finiteNumber(text);
            if (value && (zeroAllowed ? *value >= 0 : *value > 0)) {
                return {};
            }
            if (zeroAllowed) {
                return fmt::format("must be a number of 0 or more, got {}", text);
            }
            return fmt::format("must be a number above 0, got {}", text);
        },
        description);
}

// The descriptions are those the help showed before the messages were made
// short, so that the help reads as it did.
// An id in range, or a name (resolved against the file once it is open).
const CLI::Validator kDataSourceIdOrName(
    [](std::string& text) -> std::string {
        static const CLI::Validator kId = wholeNumberIn(-128, 127, "");
        return isDataSourceIdText(text) ? kId(text) : std::string();
    },
    "ID or NAME");
const CLI::Validator kCompressionLevel = wholeNumberIn(
    Marivane::Logging::kMinCompressionLevel, Marivane::Logging::kMaxCompressionLevel, "INT in [-1 - 9]");
const CLI::Validator kCount = wholeNumberIn(0, std::numeric_limits<int64_t>::max(), "NONNEGATIVE");
const CLI::Validator kMaxDelay = wholeNumberIn(1, 3'600'000, "INT in [1 - 3600000]");
const CLI::Validator kSpeed = finiteNumberFrom(false, "(NUMBER) AND (POSITIVE)");
const CLI::Validator kSeconds = finiteNumberFrom(true, "(NUMBER) AND (NONNEGATIVE)");

// Accepts the data-source type names mvlog prints, or any 32-bit number.
const CLI::Validator kDataSourceTypeValidator(
    [](std::string& text) -> std::string {
        return Marivane::Logging::dataSourceTypeFromName(text)
                   ? std::string()
                   : "not a data-source type name (Camera, Navigation, ...) or a number";
    },
    "TYPE");

std::vector<MV_LogDataSourceType> dataSourceTypes(const std::vector<std::string>& names) {
    std::vector<MV_LogDataSourceType> types;
    for (const std::string& name : names) {
        types.push_back(*Marivane::Logging::dataSourceTypeFromName(name));
    }
    return types;
}

// Repeatable, one value per occurrence: `--type 1 --type 2`, so that a
// positional argument after the option is never swallowed.
template <typename T>
CLI::Option* addRepeatable(CLI::App& command, const std::string& name, std::vector<T>& values,
                           const std::string& description) {
    return command.add_option(name, values, description)->allow_extra_args(false);
}

// Each subcommand registers its options and returns what runs it once parsing
// succeeded, and which of its arguments name log files to read.
using Runner = std::function<int()>;
using InputFiles = std::function<std::vector<std::string>()>;

struct Subcommand {
    Runner runner;
    InputFiles inputs;
};

struct Subcommands {
    std::map<CLI::App*, Subcommand> commands;

    void add(CLI::App* command, InputFiles inputs, Runner runner) {
        commands.emplace(command, Subcommand{std::move(runner), std::move(inputs)});
    }
    void add(CLI::App* command, Runner runner) { add(command, InputFiles(), std::move(runner)); }
    // A command that reads the one log file `file`, which the runner's
    // options own (and so keep alive).
    void add(CLI::App* command, const std::string& file, Runner runner) {
        add(
            command, [&file] { return std::vector{file}; }, std::move(runner));
    }
};

// Opening a named pipe blocks until a writer comes, in SQLite as in any plain
// read, and no device or socket is a log file: such paths are refused before
// anything opens them. A missing path and a directory are left to the
// commands, which name them in their own words.
void requireRegularFiles(const std::vector<std::string>& paths) {
    for (const std::string& path : paths) {
        std::error_code error;
        const std::filesystem::file_type type = std::filesystem::status(path, error).type();
        if (error) {
            continue;
        }
        using Type = std::filesystem::file_type;
        const char* kind = type == Type::fifo        ? "a named pipe"
                           : type == Type::socket    ? "a socket"
                           : type == Type::block     ? "a block device"
                           : type == Type::character ? "a character device"
                           : type == Type::unknown   ? "of an unknown kind"
                                                     : nullptr;
        if (kind != nullptr) {
            throw ToolError(fmt::format("'{}' is not a regular file (it is {})", path, kind));
        }
    }
}

// A command that reads one log file, named by its first argument.
CLI::App* addFileCommand(CLI::App& app, const std::string& name, const std::string& description,
                         std::string& file) {
    CLI::App* command = app.add_subcommand(name, description);
    command->add_option("FILE", file, "Log file")->required();
    return command;
}

// cat's and slice's filter; the type names become types when the command runs.
void addFilterOptions(CLI::App& command, EntryChoice& choice, std::vector<std::string>& sourceTypeNames) {
    addRepeatable(command, "--type", choice.types, "Only entries of this entry type (repeatable)");
    addRepeatable(command, "--source", choice.sources,
                  "Only entries of this data source, by id or name (repeatable)")
        ->check(kDataSourceIdOrName);
    addRepeatable(command, "--source-type", sourceTypeNames,
                  "Only entries of data sources of this type (repeatable)")
        ->check(kDataSourceTypeValidator);
}

// slice and clone: where the copy goes and how it is compressed, and what
// --json prints.
void addCopyOutputOptions(CLI::App& command, DerivedFile& derived) {
    command.add_option("-o,--output", derived.output,
                       "Output file (must not exist; default: <name>_exported<ext> beside the source)");
    command.add_option("--level", derived.level, "Compression level -1..9 (default: the source's)")
        ->check(kCompressionLevel);
}
constexpr const char* kCopyReportJson =
    "Print one JSON document (output, input, entries, dataSources, resources, bookmarks, "
    "payloadsCopiedAsStored, notes) instead of the output's path";

// Long commands show a progress bar on a terminal; this asks for it in pipes too.
void addProgressFlag(CLI::App& command, bool& progress) {
    command.add_flag("--progress", progress,
                     "Show the progress bar on stderr even when it is not a terminal (one line a second)");
}

void addInfo(CLI::App& app, Subcommands& subcommands) {
    auto options = std::make_shared<InfoOptions>();
    CLI::App* info = addFileCommand(
        app, "info", "Describe a log file: metadata, data sources, counts, resources", options->file);
    info->add_flag("--json", options->json, "Print one JSON document instead of text");
    subcommands.add(info, options->file, [options] { return runInfo(*options); });
}

void addCat(CLI::App& app, Subcommands& subcommands) {
    auto options = std::make_shared<CatOptions>();
    auto sourceTypeNames = std::make_shared<std::vector<std::string>>();
    auto format = std::make_shared<std::string>();
    CLI::App* cat = addFileCommand(app, "cat", "Print entries in time order", options->file);
    addProgressFlag(*cat, options->progress);
    cat->add_option("--from", options->from, "First entry id (default: the file's first)");
    cat->add_option("--to", options->to, "Last entry id (default: the file's last)");
    cat->add_option("--start", options->start,
                    "First time, inclusive: ISO 8601 (2026-11-21T11:58:05.5Z; UTC without a zone) or seconds "
                    "after the first entry (+12.5)");
    cat->add_option("--end", options->end, "Last time, inclusive, written like --start");
    addFilterOptions(*cat, *options, *sourceTypeNames);
    cat->add_option("--limit", options->limit, "At most this many entries")->check(kCount);
    auto order = std::make_shared<std::string>("time");
    cat->add_option("--order", *order,
                    "time: by timestamp, ties by entry id (default); id: by entry id, as written")
        ->check(CLI::IsMember({"id", "time"}));
    cat->add_option(
           "--format", *format,
           "auto (the default on a terminal: JSON and text payloads as text, by the source's encoding "
           "property or the payload's first bytes), text (the default elsewhere: size and first bytes), "
           "json (one object per line) or hex (full dump)")
        ->check(CLI::IsMember({"auto", "text", "json", "hex"}));
    CLI::Option* follow = cat->add_flag(
        "-f,--follow", options->follow,
        "Then print new entries as they are committed, like tail -f (a file recorded in safe mode can be "
        "read while it is written); Ctrl-C ends");
    cat->add_option("--idle", options->idleSeconds,
                    "With --follow: end after this many seconds without a new entry (default: never)")
        ->check(kSeconds)
        ->needs(follow);
    cat->footer(
        "An entry that cannot be read as it was logged (a payload that does not expand, a compressed frame "
        "in a file whose compression level is 0, a data source the file does not have, an id beyond 32 "
        "bits) is not printed: it is named on stderr, and cat exits with 1. --from after --to, or --start "
        "after --end, is refused.");
    subcommands.add(cat, options->file, [options, sourceTypeNames, format, order] {
        options->sourceTypes = dataSourceTypes(*sourceTypeNames);
        options->idOrder = *order == "id";
        const std::string chosen = !format->empty()     ? *format
                                   : isTerminal(stdout) ? std::string("auto")
                                                        : std::string("text");
        options->format = chosen == "json"   ? CatFormat::Json
                          : chosen == "hex"  ? CatFormat::Hex
                          : chosen == "auto" ? CatFormat::Auto
                                             : CatFormat::Text;
        return runCat(*options);
    });
}

void addExport(CLI::App& app, Subcommands& subcommands) {
    auto options = std::make_shared<ExportOptions>();
    CLI::App* exporter = addFileCommand(
        app, "export", "Write the raw bytes of an entry, resource or thumbnail", options->file);
    CLI::Option_group* what = exporter->add_option_group("what", "Exactly one of these");
    what->add_option("--entry", options->entry, "Payload of the entry with this id");
    what->add_option("--resource", options->resource, "Resource with this name");
    what->add_flag("--thumbnail", options->thumbnail, "The file's thumbnail");
    what->require_option(1);
    exporter
        ->add_option("-o,--output", options->output, "Output file ('-' for standard output; must not exist)")
        ->required();
    exporter->add_flag("--force", options->force,
                       "Replace an existing output file (never the log file itself)");
    subcommands.add(exporter, options->file, [options] { return runExport(*options); });
}

void addSlice(CLI::App& app, Subcommands& subcommands) {
    auto options = std::make_shared<SliceOptions>();
    auto sourceTypeNames = std::make_shared<std::vector<std::string>>();
    CLI::App* slice = addFileCommand(
        app, "slice",
        "Write the entries of an id range and/or a time range, optionally filtered, with everything "
        "they need to a new file",
        options->file);
    addProgressFlag(*slice, options->progress);
    CLI::Option* from = slice->add_option("--from", options->from, "First entry id (must exist)");
    CLI::Option* to = slice->add_option("--to", options->to, "Last entry id (must exist)");
    from->needs(to);
    to->needs(from);
    slice->add_option(
        "--start", options->start,
        "First time, inclusive: ISO 8601 (2026-11-21T11:58:05.5Z; UTC unless an offset is given) "
        "or seconds after the first entry (+12.5)");
    slice->add_option("--end", options->end, "Last time, inclusive, written like --start");
    addFilterOptions(*slice, *options, *sourceTypeNames);
    addCopyOutputOptions(*slice, *options);
    slice->add_flag("--allow-empty", options->allowEmpty,
                    "Write a file without entries when nothing matches (otherwise refused)");
    slice->add_flag("--json", options->json, kCopyReportJson);
    slice->footer(
        "The new file is written under a temporary name beside the output and renamed when it is complete: "
        "a failure leaves nothing under the output's name, and an interruption (Ctrl-C, SIGTERM) leaves "
        "nothing beside it either. Entries are numbered from 1; bookmarks move with their entries.");
    subcommands.add(slice, options->file, [options, sourceTypeNames] {
        options->sourceTypes = dataSourceTypes(*sourceTypeNames);
        return runSlice(*options);
    });
}

void addMerge(CLI::App& app, Subcommands& subcommands) {
    auto options = std::make_shared<MergeOptions>();
    CLI::App* merge = app.add_subcommand(
        "merge", "Merge several log files into a new one, entries interleaved by timestamp");
    merge->add_option("FILES", options->files, "Log files, in order (ties in time go to the earlier file)")
        ->required()
        ->expected(2, -1);
    addProgressFlag(*merge, options->progress);
    merge->add_option("-o,--output", options->output, "Output file (must not exist)")->required();
    merge->add_option("--level", options->level, "Compression level -1..9 (default: the first file's)")
        ->check(kCompressionLevel);
    merge->add_flag("--json", options->json,
                    "Print one JSON document (the output, the counts and what was renumbered or not copied) "
                    "instead of the output's path");
    merge->footer(
        "Data sources keep their ids unless an earlier file uses the id for another source; they are then "
        "renumbered, with their properties and entries. Written under a temporary name and renamed when "
        "complete.");
    subcommands.add(
        merge, [options] { return options->files; }, [options] { return runMerge(*options); });
}

void addClone(CLI::App& app, Subcommands& subcommands) {
    auto options = std::make_shared<CloneOptions>();
    CLI::App* clone = addFileCommand(
        app, "clone", "Copy a whole log file, optionally at another compression level", options->file);
    addProgressFlag(*clone, options->progress);
    addCopyOutputOptions(*clone, *options);
    clone->add_flag("--json", options->json, kCopyReportJson);
    subcommands.add(clone, options->file, [options] { return runClone(*options); });
}

void addSplit(CLI::App& app, Subcommands& subcommands) {
    auto options = std::make_shared<SplitOptions>();
    CLI::App* split =
        addFileCommand(app, "split", "Cut a log file into numbered complete log files by time, size or count",
                       options->file);
    addProgressFlag(*split, options->progress);
    split->add_option("-o,--output", options->directory, "Directory for the parts (made if missing)")
        ->required();
    split
        ->add_option("--every", options->every,
                     "A duration (500ms, 30s, 5m, 1h), a size of stored bytes (64MiB, 100MB, 512KiB) or a "
                     "number of entries (1000)")
        ->required();
    split->add_flag("--json", options->json, "Print one JSON document with the parts instead of a line each");
    split->footer(
        "The output files are FILE's name with _0001, _0002, ... in time order; each is a complete log file "
        "with the\n"
        "metadata (and the producer history), the data sources and their properties, the resources and the\n"
        "bookmarks on its entries. A duration cuts windows of that length from the first entry's time "
        "(windows\n"
        "without entries make no file); a size or a count closes a part once it holds that much, never "
        "between\n"
        "two entries of the same timestamp. No existing file is ever overwritten.");
    subcommands.add(split, options->file, [options] { return runSplit(*options); });
}

void addPlay(CLI::App& app, Subcommands& subcommands) {
    auto options = std::make_shared<PlayOptions>();
    ReplaySettings& replay = options->replay;
    auto sourceTypeNames = std::make_shared<std::vector<std::string>>();
    CLI::App* play = addFileCommand(app, "play", "Replay entries at their recorded pace", options->file);
    play->add_option("--speed", replay.speed, "Speed multiplier (default 1)")->check(kSpeed);
    play->add_flag("--loop", replay.loop, "Start again after the last frame (Ctrl-C stops)");
    addRepeatable(*play, "--source-type", *sourceTypeNames,
                  "Play only data sources of this type (repeatable; default: all)")
        ->check(kDataSourceTypeValidator);
    play->add_option("--max-delay", replay.maxDelayMs,
                     "Longest wait between two frames in ms (default: none in time order, 1000 in id order)")
        ->check(kMaxDelay);
    CLI::Option* from =
        play->add_option("--from", replay.fromFrame, "Frame to start at, counting from 0")->check(kCount);
    play->add_option("--start", options->start,
                     "Start at the first frame at or after this time: ISO 8601 (2026-11-21T11:58:05.5Z) or "
                     "seconds after the first entry (+12.5)")
        ->excludes(from);
    play->add_option("--end", options->end,
                     "Stop after the last frame at or before this time, written like --start")
        ->excludes("--loop");
    auto order = std::make_shared<std::string>("time");
    play->add_option("--order", *order,
                     "time: frames by timestamp, ties by entry id (default); id: by entry id, as written, "
                     "with the 1000 ms default --max-delay")
        ->check(CLI::IsMember({"id", "time"}));
    auto carryPacing = std::make_shared<bool>(false);
    play->add_flag("--carry-pacing", *carryPacing,
                   "Pace like the library's default (whole-millisecond waits, which drift at high rates) "
                   "instead of on an exact timeline");
    play->footer(
        "On a terminal, keys control the replay: space pauses and resumes, the left and right\n"
        "arrow keys pause and step one frame back or forward, q stops (as Ctrl-C does).");
    subcommands.add(play, options->file, [options, sourceTypeNames, order, carryPacing] {
        options->replay.sourceTypes = dataSourceTypes(*sourceTypeNames);
        options->replay.order = *order == "id" ? FrameOrder::Id : FrameOrder::Time;
        options->replay.pacing = *carryPacing ? Pacing::CarryMilliseconds : Pacing::Exact;
        return runPlay(*options);
    });
}

void addBookmarks(CLI::App& app, Subcommands& subcommands) {
    auto options = std::make_shared<BookmarksOptions>();
    CLI::App* bookmarks =
        addFileCommand(app, "bookmarks", "List, add, update or remove bookmarks", options->file);
    bookmarks->require_subcommand(0, 1);

    CLI::App* list = bookmarks->add_subcommand("list", "List the bookmarks (the default)");

    CLI::App* add = bookmarks->add_subcommand("add", "Bookmark an entry");
    add->add_option("ID", options->entryId, "Entry id")->required();
    add->add_option("TITLE", options->title, "Title")->required();
    add->add_option("--comments", options->comments, "Comments");

    CLI::App* update =
        bookmarks->add_subcommand("update", "Change the title (and comments) of an entry's bookmarks");
    update->add_option("ID", options->entryId, "Entry id")->required();
    update->add_option("TITLE", options->title, "New title")->required();
    update->add_option("--comments", options->comments, "New comments (default: keep them)");

    CLI::App* remove = bookmarks->add_subcommand("remove", "Remove the bookmarks of an entry");
    remove->add_option("ID", options->entryId, "Entry id")->required();

    // Before or after the action's word.
    for (CLI::App* command : {bookmarks, list, add, update, remove}) {
        command->add_flag("--json", options->json,
                          "Print one JSON document: the bookmarks, or what was added, updated or removed");
    }

    subcommands.add(bookmarks, options->file, [options, add, update, remove] {
        options->action = add->parsed()      ? BookmarkAction::Add
                          : update->parsed() ? BookmarkAction::Update
                          : remove->parsed() ? BookmarkAction::Remove
                                             : BookmarkAction::List;
        return runBookmarks(*options);
    });
}

void addMetadata(CLI::App& app, Subcommands& subcommands) {
    auto options = std::make_shared<MetadataOptions>();
    auto type = std::make_shared<std::string>("text");
    CLI::App* metadata =
        addFileCommand(app, "metadata", "List, get, set or remove metadata keys", options->file);
    metadata->require_subcommand(0, 1);
    CLI::App* list = metadata->add_subcommand("list", "List every key with its value and type (the default)");
    CLI::App* get = metadata->add_subcommand("get", "Print one key's value (text without quotes)");
    get->add_option("KEY", options->key, "Key")->required();
    CLI::App* set = metadata->add_subcommand("set", "Give a key a value, replacing the one it has");
    set->add_option("KEY", options->key, "Key")->required();
    set->add_option("VALUE", options->value, "Value")->required();
    set->add_option("--type", *type, "int32, int64, double or text (default)")
        ->check(CLI::IsMember({"int32", "int64", "double", "text"}));
    CLI::App* remove = metadata->add_subcommand("remove", "Remove a key and its value");
    remove->add_option("KEY", options->key, "Key")->required();
    for (CLI::App* command : {metadata, list, get, set, remove}) {
        command->add_flag("--json", options->json, "Print one JSON document instead of text");
    }
    metadata->footer(
        "The keys every log file is created with (createdDateTime, applicationName, applicationVersion,\n"
        "currentTimeZone, logVersion, compressionLevel) are refused for set and remove: readers rely on "
        "them.");
    subcommands.add(metadata, options->file, [options, type, get, set, remove] {
        options->action = get->parsed()      ? EditAction::Get
                          : set->parsed()    ? EditAction::Set
                          : remove->parsed() ? EditAction::Remove
                                             : EditAction::List;
        options->type = *type == "int32"    ? MetadataType::Int32
                        : *type == "int64"  ? MetadataType::Int64
                        : *type == "double" ? MetadataType::Double
                                            : MetadataType::Text;
        return runMetadata(*options);
    });
}

void addResource(CLI::App& app, Subcommands& subcommands) {
    auto options = std::make_shared<ResourceOptions>();
    CLI::App* resource =
        addFileCommand(app, "resource", "List, get, add or remove resources (the thumbnail is \"thumbnail\")",
                       options->file);
    resource->require_subcommand(0, 1);
    CLI::App* list = resource->add_subcommand("list", "List every resource with its size (the default)");
    CLI::App* get = resource->add_subcommand("get", "Write a resource's bytes to a file, as export does");
    get->add_option("NAME", options->name, "Resource name")->required();
    get->add_option("-o,--output", options->path, "Output file ('-' for standard output; must not exist)")
        ->required();
    get->add_flag("--force", options->force, "Replace an existing output file (never the log file itself)");
    CLI::App* add = resource->add_subcommand("add", "Store a file's bytes as a resource");
    add->add_option("NAME", options->name, "Resource name")->required();
    add->add_option("FROM", options->path, "File to read ('-' for standard input)")->required();
    add->add_flag("--force", options->force, "Replace a resource of that name");
    CLI::App* remove = resource->add_subcommand("remove", "Remove a resource");
    remove->add_option("NAME", options->name, "Resource name")->required();
    for (CLI::App* command : {resource, list, add, remove}) {
        command->add_flag("--json", options->json, "Print one JSON document instead of text");
    }
    subcommands.add(resource, options->file, [options, get, add, remove] {
        options->action = get->parsed()      ? EditAction::Get
                          : add->parsed()    ? EditAction::Set
                          : remove->parsed() ? EditAction::Remove
                                             : EditAction::List;
        return runResource(*options);
    });
}

void addDu(CLI::App& app, Subcommands& subcommands) {
    auto options = std::make_shared<DuOptions>();
    CLI::App* du = addFileCommand(
        app, "du", "Logged and stored bytes per data source and per entry type, with the compression ratio",
        options->file);
    addProgressFlag(*du, options->progress);
    du->add_flag("--json", options->json, "Print one JSON document instead of a table");
    du->footer(
        "Logged bytes are the payloads as they were recorded; stored bytes as the file keeps them "
        "(compressed\n"
        "where the file compresses). Compressed sizes are read from the frames' headers: nothing is "
        "expanded.");
    subcommands.add(du, options->file, [options] { return runDu(*options); });
}

void addCheck(CLI::App& app, Subcommands& subcommands) {
    auto options = std::make_shared<CheckOptions>();
    CLI::App* check = addFileCommand(
        app, "check", "Verify the database, every payload, resource and bookmark", options->file);
    addProgressFlag(*check, options->progress);
    check->add_flag("--json", options->json,
                    "Print one JSON document at the end (file, ok, damaged, problems, checked counts, hint) "
                    "instead of lines");
    subcommands.add(check, options->file, [options] { return runCheck(*options); });
}

void addRecover(CLI::App& app, Subcommands& subcommands) {
    auto options = std::make_shared<RecoverOptions>();
    CLI::App* recover = app.add_subcommand(
        "recover",
        "Salvage a damaged log file into a new one: every entry whose stored bytes are intact keeps its id, "
        "with the readable data sources, properties, metadata, resources and bookmarks; prints what came "
        "back and the ids that did not. DAMAGED (and its journal) is only read. Exit 0 when something was "
        "recovered, 1 otherwise");
    recover->add_option("DAMAGED", options->file, "Damaged log file (never changed)")->required();
    addProgressFlag(*recover, options->progress);
    recover->add_option("-o,--output", options->output, "New log file (must not exist)")->required();
    recover->add_flag("--json", options->json, "Print the report as one JSON document");
    subcommands.add(recover, options->file, [options] { return runRecover(*options); });
}

void addIndex(CLI::App& app, Subcommands& subcommands) {
    auto options = std::make_shared<IndexOptions>();
    CLI::App* index = app.add_subcommand(
        "index",
        "Build the time index in FILE, so that reads by time (cat/slice --start/--end, play --start) find "
        "their window without scanning; files get it only when asked");
    index->add_option("FILE", options->file, "Log file (changed in place)")->required();
    index->add_flag("--json", options->json,
                    "Print one JSON document (file, built, hasTimeIndex, entries, seconds)");
    addProgressFlag(*index, options->progress);
    subcommands.add(index, options->file, [options] { return runIndex(*options); });
}

void addView(CLI::App& app, Subcommands& subcommands) {
    auto options = std::make_shared<ViewCommandOptions>();
    CLI::App* view = app.add_subcommand(
        "view",
        "Look at log files in a web browser: a lane per data source over time, bookmarks, the entry at a "
        "time "
        "cursor decoded (images, JSON, text), plots of JSON fields, metadata and resources");
    view->footer(
        "The page is served on 127.0.0.1 to this machine only, at an address with a random token; the files "
        "are only read, and a file still being recorded (safe mode) shows its new entries.\n"
        "Examples:\n  mvlog view drive.mvlog\n  mvlog view recordings/          (every *.mvlog in it)\n"
        "  mvlog view --no-browser --port 8080 drive.mvlog");
    view->add_option("FILE", options->files, "Log files, or directories of them (*.mvlog); only read")
        ->required();
    view->add_option("--port", options->port, "Port to listen on (default: any free one)")
        ->check(CLI::Range(0, 65535));
    view->add_option(
        "--bind", options->bindAddress,
        "Address to listen on (default 127.0.0.1; another one lets other machines reach the page)");
    view->add_flag("!--no-browser", options->openBrowser, "Only print the address; do not open a browser");
    subcommands.add(
        view, [options] { return options->files; }, [options] { return runView(*options); });
}

void addDemo(CLI::App& app, Subcommands& subcommands) {
    auto options = std::make_shared<DemoOptions>();
    CLI::App* demo = app.add_subcommand("demo", "Record a synthetic survey, describe, slice and replay it");
    demo->add_option("DIR", options->directory, "Directory for the files (default: a new temporary one)");
    subcommands.add(demo, [options] { return runDemo(*options); });
}

// The first word of the command line when it names no command: mvlog has no
// option before the command that takes a value, so that word is the command.
std::optional<std::string> unknownCommand(const CLI::App& app, int argc, const char* const* argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word.empty() || word[0] != '-') {
            for (const CLI::App* command : app.get_subcommands({})) {
                if (command->check_name(word)) {
                    return std::nullopt;
                }
            }
            return word;
        }
    }
    return std::nullopt;
}

// "info, cat, ... and demo", in the order of the help.
std::string commandNames(const CLI::App& app) {
    const std::vector<const CLI::App*> commands = app.get_subcommands({});
    std::string names;
    for (std::size_t i = 0; i < commands.size(); ++i) {
        names += i == 0 ? "" : i + 1 == commands.size() ? " and " : ", ";
        names += commands[i]->get_name();
    }
    return names;
}

int runParsed(const Subcommands& subcommands) {
    for (const auto& [command, subcommand] : subcommands.commands) {
        if (command->parsed()) {
            if (subcommand.inputs) {
                requireRegularFiles(subcommand.inputs());
            }
            return subcommand.runner();
        }
    }
    return kExitUsage;
}

}  // namespace

namespace Mvlog {

int runCommandLine(int argc, const char* const* argv) {
    CLI::App app("Inspect, extract, derive, check and replay marivane log files", "mvlog");
    app.set_version_flag("--version",
                         fmt::format("mvlog {} (libmarivane-logging {})", kToolVersion, kToolVersion));
    app.require_subcommand(1);
    Subcommands subcommands;
    addInfo(app, subcommands);
    addCat(app, subcommands);
    addExport(app, subcommands);
    addSlice(app, subcommands);
    addClone(app, subcommands);
    addMerge(app, subcommands);
    addSplit(app, subcommands);
    addPlay(app, subcommands);
    addBookmarks(app, subcommands);
    addMetadata(app, subcommands);
    addResource(app, subcommands);
    addDu(app, subcommands);
    addCheck(app, subcommands);
    addRecover(app, subcommands);
    addIndex(app, subcommands);
    addView(app, subcommands);
    addDemo(app, subcommands);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // Help and version are "errors" with exit code 0; everything else is
        // a usage error.
        if (error.get_exit_code() != 0) {
            if (const std::optional<std::string> unknown = unknownCommand(app, argc, argv)) {
                fmt::print(stderr, "mvlog: '{}' is not a command; the commands are {}\n{}", *unknown,
                           commandNames(app), "Run with --help for more information.\n");
                return kExitUsage;
            }
        }
        const int code = app.exit(error);
        return code == 0 ? 0 : kExitUsage;
    }

    try {
        return runParsed(subcommands);
    } catch (const UsageError& error) {
        std::fflush(stdout);
        fmt::print(stderr, "mvlog: {}\n", error.what());
        return kExitUsage;
    } catch (const std::exception& error) {
        std::fflush(stdout);
        fmt::print(stderr, "mvlog: {}\n", error.what());
        return kExitFailure;
    }
}

}  // namespace Mvlog
