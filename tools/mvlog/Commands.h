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

struct InfoOptions {
    std::string file;
    bool json = false;
};
int runInfo(const InfoOptions& options);

// Auto: JSON and text payloads as text, the rest as Text does, by the media
// type a source declares or its payloads' first bytes.
enum class CatFormat { Text, Json, Hex, Auto };

struct CatOptions {
    std::string file;
    int32_t from = -1;
    int32_t to = -1;
    // Times as slice takes them: ISO 8601 or seconds from the first entry.
    std::optional<std::string> start;
    std::optional<std::string> end;
    std::vector<int32_t> types;
    // Data-source ids or names, as given.
    std::vector<std::string> sources;
    std::vector<MV_LogDataSourceType> sourceTypes;
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

struct SliceOptions {
    std::string file;
    std::optional<int32_t> from;
    std::optional<int32_t> to;
    // Times: ISO 8601 ("2026-11-21T11:58:05.5Z", UTC unless an offset is
    // given) or seconds from the first entry ("+12.5").
    std::optional<std::string> start;
    std::optional<std::string> end;
    std::vector<int32_t> types;
    // Data-source ids or names, as given.
    std::vector<std::string> sources;
    std::vector<MV_LogDataSourceType> sourceTypes;
    std::string output;
    std::optional<int> level;
    // Write a file without entries when nothing matches, instead of refusing.
    bool allowEmpty = false;
    // One JSON document with the copy's report instead of the output's path.
    bool json = false;
    bool progress = false;
};
int runSlice(const SliceOptions& options);

struct CloneOptions {
    std::string file;
    std::string output;
    std::optional<int> level;
    // One JSON document with the copy's report instead of the output's path.
    bool json = false;
    bool progress = false;
};
int runClone(const CloneOptions& options);

struct MergeOptions {
    std::vector<std::string> files;
    std::string output;
    std::optional<int> level;
    // One JSON document on stdout instead of the path and the report.
    bool json = false;
    bool progress = false;
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

struct SplitOptions {
    std::string file;
    std::string directory;
    // A duration (30s), a size of stored bytes (64MiB) or a number of entries.
    std::string every;
    bool json = false;
    bool progress = false;
};
int runSplit(const SplitOptions& options);

// du, check and index: one file, looked at (or indexed in place) and
// reported on, in one JSON document with --json.
struct FileReportOptions {
    std::string file;
    bool json = false;
    bool progress = false;
};
using DuOptions = FileReportOptions;
using CheckOptions = FileReportOptions;
using IndexOptions = FileReportOptions;
int runDu(const DuOptions& options);
int runCheck(const CheckOptions& options);
int runIndex(const IndexOptions& options);

struct RecoverOptions {
    std::string file;
    std::string output;
    // The report as one JSON document instead of lines.
    bool json = false;
    bool progress = false;
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
