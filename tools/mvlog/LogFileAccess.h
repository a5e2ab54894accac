#pragma once

#include <logging/Logging.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

namespace Mvlog {

// A failure the user should read: main prints the message and exits with 1.
class ToolError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A command line that parses but makes no sense: main exits with 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The name and version mvlog writes into the files it derives or records.
inline constexpr const char* kToolName = "mvlog";
inline constexpr const char* kToolVersion = MARIVANE_LOGGING_VERSION;

enum class Access { ReadOnly, ReadWrite };

// Opens a log file that must already exist. The store would quietly create
// an empty log file at a missing path (or inside an empty file), which is
// never what a reading command means, so both are refused here. Commands
// that only look open read-only, so that looking never changes a byte of the
// file. Whatever the library throws becomes a ToolError carrying its message.
std::unique_ptr<Marivane::Logging::SqliteLogFile> openExistingLogFile(const std::filesystem::path& path,
                                                                      Access access = Access::ReadOnly);

// Throws a ToolError when a read of `file` failed for a reason other than
// damage (another process holding a lock past the wait, an I/O error): an
// empty or short answer is then not the truth, and must not be printed as if
// it were. Damage is left to each command, which says what it hides.
void requireCompleteReads(const Marivane::Logging::SqliteLogFile& file);

// Throws ToolError "cannot <what>: <the file's last error>" unless `written`.
void requireWritten(bool written, const Marivane::Logging::LogFileInterface& file, const char* what);

// Throws ToolError unless something readable exists at `path`.
void requireExistingFile(const std::filesystem::path& path);

uint64_t fileSizeOnDisk(const std::filesystem::path& path);

// Does anything at all (even a dangling link) sit at `path`?
bool somethingExistsAt(const std::filesystem::path& path);

// The compression level the file was recorded with (0 when unknown, which is
// how the store treats a file without the key).
int8_t storedCompressionLevel(const Marivane::Logging::LogFileInterface& file);

// "the thumbnail" or "resource \"NAME\"", for messages.
std::string resourceLabel(const std::string& name);

}  // namespace Mvlog
