#pragma once

#include "Replay.h"

#include <logging/Logging.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// One function per subcommand. Each returns the process exit code and reports
// failures by throwing ToolError (exit 1) or UsageError (exit 2); main turns
// both into a message on stderr. In every command's options, `progress`
// (--progress) shows the progress bar on stderr even when it is not a
// terminal.
namespace Mvlog {

// info, du, check and index: one file, looked at (or indexed in place) and
// reported on, in one JSON document with --json (info has no --progress).
// split and recover add where their output goes.
struct FileReportOptions {
    std::string file;
    bool json = false;
    bool progress = false;
};
using InfoOptions = FileReportOptions;
using DuOptions = FileReportOptions;
using CheckOptions = FileReportOptions;
using IndexOptions = FileReportOptions;
int runInfo(const InfoOptions& options);
int runDu(const DuOptions& options);
int runCheck(const CheckOptions& options);
int runIndex(const IndexOptions& options);

// Auto: JSON and text payloads as text, the rest as Text does, by the media
// type a source declares or its payloads' first bytes.
enum class CatFormat { Text, Json, Hex, Auto };

// The entries cat prints and slice copies: those of a time window that pass
// a filter.
struct EntryChoice {
    // Times: ISO 8601 ("2026-11-21T11:58:05.5Z", UTC unless an offset is
    // given) or seconds from the first entry ("+12.5").
    std::optional<std::string> start;
    std::optional<std::string> end;
    std::vector<int32_t> types;
    // Data-source ids or names, as given.
    std::vector<std::string> sources;
    std::vector<MV_LogDataSourceType> sourceTypes;
};

struct CatOptions : EntryChoice {
    std::string file;
    int32_t from = -1;
    int32_t to = -1;
    int64_t limit = -1;
    CatFormat format = CatFormat::Text;
    // After the selection, keep printing entries as they are committed
    // (another process recording a safe file), until Ctrl-C, or until no
    // entry came for idleSeconds (0: no such limit).
    bool follow = false;
    double idleSeconds = 0;
    // Entries by id (as written) instead of by timestamp.
    bool idOrder = false;
    bool progress = false;
};
int runCat(const CatOptions& options);

struct ExportOptions {
    std::string file;
    std::optional<int32_t> entry;
    std::optional<std::string> resource;
    bool thumbnail = false;
    std::string output;
    // Replace an existing output file (never the log file itself).
    bool force = false;
};
int runExport(const ExportOptions& options);

// What slice, clone and merge write: the new file (slice and clone: empty
// for the default name), its compression level (unset: the (first) input's)
// and, with json, one JSON document with the report instead of the output's
// path.
struct DerivedFile {
    std::string output;
    std::optional<int> level;
    bool json = false;
    bool progress = false;
};

struct SliceOptions : EntryChoice, DerivedFile {
    std::string file;
    std::optional<int32_t> from;
    std::optional<int32_t> to;
    // Write a file without entries when nothing matches, instead of refusing.
    bool allowEmpty = false;
};
int runSlice(const SliceOptions& options);

struct CloneOptions : DerivedFile {
    std::string file;
};
int runClone(const CloneOptions& options);

struct MergeOptions : DerivedFile {
    std::vector<std::string> files;
};
int runMerge(const MergeOptions& options);

struct PlayOptions {
    std::string file;
    // All but the times, which need the file, and how the terminal takes part.
    ReplaySettings replay;
    // A time (see slice's --start) instead of a frame to start at.
    std::optional<std::string> start;
    // The last time to play, written like start.
    std::optional<std::string> end;
};
int runPlay(const PlayOptions& options);

enum class BookmarkAction { List, Add, Update, Remove };

struct BookmarksOptions {
    std::string file;
    BookmarkAction action = BookmarkAction::List;
    int32_t entryId = 0;
    std::string title;
    std::optional<std::string> comments;
    // One JSON document: the list, or what was added, updated or removed.
    bool json = false;
};
int runBookmarks(const BookmarksOptions& options);

enum class EditAction { List, Get, Set, Remove };

enum class MetadataType { Int32, Int64, Double, Text };

struct MetadataOptions {
    std::string file;
    EditAction action = EditAction::List;
    std::string key;
    std::string value;
    MetadataType type = MetadataType::Text;
    // One JSON document: the list, the value, or what was set or removed.
    bool json = false;
};
int runMetadata(const MetadataOptions& options);

// Set is "add" for resources: the bytes come from a file.
struct ResourceOptions {
    std::string file;
    EditAction action = EditAction::List;
    std::string name;
    // get: where the bytes go ('-' for standard output); add: where they
    // come from ('-' for standard input).
    std::string path;
    // get: replace an existing output file; add: replace an existing resource.
    bool force = false;
    bool json = false;
};
int runResource(const ResourceOptions& options);

struct SplitOptions : FileReportOptions {
    std::string directory;
    // A duration (30s), a size of stored bytes (64MiB) or a number of entries.
    std::string every;
};
int runSplit(const SplitOptions& options);

struct RecoverOptions : FileReportOptions {
    std::string output;
};
int runRecover(const RecoverOptions& options);

struct ViewCommandOptions {
    std::vector<std::string> files;
    std::string bindAddress = "127.0.0.1";
    int port = 0;
    bool openBrowser = true;
};
int runView(const ViewCommandOptions& options);

struct DemoOptions {
    std::optional<std::string> directory;
};
int runDemo(const DemoOptions& options);

}  // namespace Mvlog
