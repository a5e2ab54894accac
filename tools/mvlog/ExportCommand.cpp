#include "Commands.h"
#include "Format.h"
#include "LogFileAccess.h"

#include <fmt/format.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>

#include <unistd.h>
#include <utility>

namespace Mvlog {

using Marivane::Logging::ByteBuffer;
using Marivane::Logging::LogFileInterface;
using Marivane::Logging::SqliteLogFile;

namespace {

// "-" sends the bytes to stdout, for pipes.
constexpr const char* kStandardOutput = "-";

// Hands entry `entryId`'s payload to `write` piece by piece (expanded 128 KiB
// at a time): an export never holds a whole payload. Returns its size.
std::size_t streamEntry(const SqliteLogFile& file, int32_t entryId,
                        const std::function<void(const std::byte*, std::size_t)>& write) {
    bool found = false;
    std::size_t size = 0;
    std::string damage;
    const uint64_t failuresBefore = file.getFailureCount();
    Marivane::Logging::VisitOptions options;
    options.payloadForm = Marivane::Logging::PayloadForm::Stored;
    options.onDamagedEntry = [&](int64_t, const std::string& reason) {
        damage = reason;
        return false;
    };
    file.visitEntries(
        Marivane::Logging::EntryRange{entryId, entryId}, Marivane::Logging::EntryIndexFilter(),
        [&](const Marivane::Logging::EntryView& view) {
            found = true;
            try {
                size = Marivane::Logging::ScannedEntry(view).forEachPiece(
                    [&](const std::byte* piece, std::size_t length) {
                        write(piece, length);
                        return true;
                    });
            } catch (const std::exception& error) {
                if (Marivane::Logging::classifyThrown(error) != Marivane::Logging::ThrownFailure::Damaged) {
                    throw;
                }
                damage = fmt::format("payload cannot be expanded: {}", error.what());
            }
            return false;
        },
        options);
    if (!damage.empty()) {
        throw ToolError(fmt::format("entry {}: {}", entryId, damage));
    }
    requireCompleteReads(file);
    // A row on a damaged page (or past where a cut file ends) is not absent.
    if (!found && file.getFailureCount() != failuresBefore) {
        throw ToolError(fmt::format("entry {}: cannot be read: {}", entryId, file.getLastFailure()));
    }
    if (!found) {
        throw ToolError(fmt::format("{}: no entry with id {}", file.getFilePath().string(), entryId));
    }
    return size;
}

// A resource that reads hand out as a compressed frame is refused: the frame
// is not the bytes that were stored as the resource.
ByteBuffer selectedBytes(const SqliteLogFile& file, const ExportOptions& options) {
    const std::string path = file.getFilePath().string();
    const std::string name = options.resource.value_or("thumbnail");
    std::optional<ByteBuffer> bytes;
    try {
        bytes = options.resource ? file.getResource(name) : file.getThumbnail();
    } catch (const std::exception& error) {
        throw ToolError(fmt::format("{} cannot be expanded: {}",
                                    options.resource ? fmt::format("resource \"{}\"", name) : "the thumbnail",
                                    error.what()));
    }
    if (!bytes) {
        throw ToolError(options.resource ? fmt::format("{}: no resource named \"{}\"", path, name)
                                         : fmt::format("{}: the file has no thumbnail", path));
    }
    if (const std::optional<std::string> problem = Marivane::Logging::resourceFormProblem(file, *bytes)) {
        throw ToolError(fmt::format("{}: {}: {}; nothing written", path, resourceLabel(name), *problem));
    }
    return std::move(*bytes);
}

void requireStandardOutput(bool written) {
    if (!written) {
        throw ToolError("cannot write to standard output");
    }
}

// The bytes go to a temporary name beside the output and take its name only
// when complete: a failure half way leaves no partial file under it.
class PendingExport {
public:
    explicit PendingExport(std::string path)
        : path_(std::move(path)), temporary_(fmt::format("{}.partial-{}", path_, ::getpid())) {
        stream_.open(temporary_, std::ios::binary | std::ios::trunc);
        if (!stream_) {
            throw ToolError(fmt::format("cannot write {}", path_));
        }
    }
    ~PendingExport() {
        if (!committed_) {
            std::error_code ignored;
            std::filesystem::remove(temporary_, ignored);
        }
    }
    PendingExport(const PendingExport&) = delete;
    PendingExport& operator=(const PendingExport&) = delete;

    void write(const std::byte* bytes, std::size_t size) {
        stream_.write(reinterpret_cast<const char*>(bytes), static_cast<std::streamsize>(size));
        if (!stream_) {
            throw ToolError(fmt::format("cannot write {}", path_));
        }
    }
    void commit() {
        stream_.close();
        std::error_code error;
        if (!stream_ || (std::filesystem::rename(temporary_, path_, error), error)) {
            throw ToolError(fmt::format("cannot write {}", path_));
        }
        committed_ = true;
    }

private:
    std::string path_;
    std::string temporary_;
    std::ofstream stream_;
    bool committed_ = false;
};

}  // namespace

int runExport(const ExportOptions& options) {
    const auto file = openExistingLogFile(options.file);
    std::optional<PendingExport> pending;
    if (options.output != kStandardOutput) {
        // Never over the log file being read (whatever name reaches it), and
        // over any other existing file only when asked.
        std::error_code error;
        if (std::filesystem::equivalent(options.output, options.file, error)) {
            throw ToolError(fmt::format("refused: {} is the log file being read", options.output));
        }
        if (!options.force && somethingExistsAt(options.output)) {
            throw ToolError(
                fmt::format("refused: {} already exists (use --force to replace it)", options.output));
        }
        pending.emplace(options.output);
    }
    const auto write = [&](const std::byte* bytes, std::size_t size) {
        if (pending) {
            pending->write(bytes, size);
        } else {
            requireStandardOutput(std::fwrite(bytes, 1, size, stdout) == size);
        }
    };
    std::size_t size = 0;
    if (options.entry) {
        size = streamEntry(*file, *options.entry, write);
    } else {
        const ByteBuffer bytes = selectedBytes(*file, options);
        requireCompleteReads(*file);
        write(bytes.data(), bytes.size());
        size = bytes.size();
    }
    if (!pending) {
        requireStandardOutput(std::fflush(stdout) == 0);
        return 0;
    }
    pending->commit();
    fmt::print("Wrote {} bytes ({}) to {}\n", size, humanSize(size), options.output);
    return 0;
}

}  // namespace Mvlog
