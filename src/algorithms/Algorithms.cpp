#include <logging/Algorithms.h>

#include "derive/CopySteps.h"
#include "derive/OutputWriter.h"
#include "store/StoreAccess.h"

#include <logging/SqliteLogFile.h>

#include <core/Chrono.h>
#include <core/Filesystem.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace Marivane::Logging::Algorithms {

namespace {

constexpr const char* kExportedSuffix = "_exported";

// Ids of the source entries that the new file receives, ascending. A view into
// the source's full id list.
using CopiedIds = std::span<const int32_t>;

// Anything at all at the path (a file, a directory, even one whose status
// cannot be read) keeps us from writing there: an existing file is never
// overwritten.
bool somethingExistsAt(const std::string& path) {
    return Filesystem::somethingExistsAt(path, Filesystem::PathLookup::FollowLinks);
}

bool isEntryOf(const LogFileInterface& logFile, int entryId) {
    return logFile.readEntry(entryId).has_value();
}

// Both bounds -1 stand for a source without entries and need no checks; any
// other pair must name two existing entries of a non-empty file.
bool rangeIsAcceptable(const LogFileInterface& logFile, int startEntryId, int endEntryId) {
    if (endEntryId < startEntryId) {
        return false;
    }
    if (startEntryId == -1 && endEntryId == -1) {
        return true;
    }
    return logFile.getEntryCount() != 0 && logFile.getFirstEntryId() <= endEntryId &&
           logFile.getLastEntryId() >= startEntryId && isEntryOf(logFile, startEntryId) &&
           isEntryOf(logFile, endEntryId);
}

std::string derivedOutputPath(const LogFileInterface& logFile) {
    return defaultDerivedFilePath(logFile.getFilePath());
}

// Any failure here (a time zone that is not text, a path that cannot be
// opened as a database) means there is no output to hand back, so it is
// a refusal rather than an error; its reason is worded as copy words it.
std::unique_ptr<SqliteLogFile> createOutputFile(const LogFileInterface& logFile, const std::string& path,
                                                const std::string& applicationName,
                                                const std::string& applicationVersion,
                                                signed char compressionLevel, std::string& refusal) {
    try {
        const std::string timeZone = getMetadataValue<std::string>(logFile, "currentTimeZone", std::string());
        const int64_t now = Chrono::msSinceUnixEpoch();
        return std::make_unique<SqliteLogFile>(path, timeZone, applicationName, applicationVersion,
                                               compressionLevel, now);
    } catch (const std::exception& error) {
        refusal = "Cannot write '" + path + "': " + error.what();
    } catch (...) {
        refusal = "Cannot write '" + path + "': the file could not be created.";
    }
    return nullptr;
}

// The bounds need not be ids themselves here: the range runs from the first
// id not below the start to the last id not above the end.
CopiedIds findEntryRange(const std::vector<int32_t>& allIds, int startEntryId, int endEntryId) {
    const auto first = std::lower_bound(allIds.begin(), allIds.end(), startEntryId);
    const auto pastLast = std::upper_bound(first, allIds.end(), endEntryId);
    return CopiedIds(first, pastLast);
}

// The new file numbers the copied entries 1, 2, ... in range order, so an id
// maps to one more than its position in the range.
int32_t renumberedEntryId(CopiedIds range, int32_t sourceEntryId) {
    const auto position = std::lower_bound(range.begin(), range.end(), sourceEntryId) - range.begin();
    return static_cast<int32_t>(position + 1);
}

// Read after the entries and written in the source's order: a bookmark that
// cannot be read fails the slice with every entry already on disk.
void copyBookmarks(const LogFileInterface& logFile, OutputWriter& writer, CopiedIds range) {
    writer.beginBatch();
    // Without entries there is nothing a bookmark could point at.
    if (!range.empty()) {
        for (Bookmark bookmark : logFile.getBookmarks()) {
            if (bookmark.entryId < range.front() || bookmark.entryId > range.back()) {
                continue;
            }
            bookmark.entryId = renumberedEntryId(range, bookmark.entryId);
            writer.require(writer.file().addBookmark(bookmark), "adding a bookmark");
        }
    }
    writer.commitBatch();
}

// From here on the file exists; failures propagate and leave it on disk for
// the caller to inspect or remove, with every batch committed before them.
void writeSlice(const LogFileInterface& logFile, SqliteLogFile& output, int startEntryId, int endEntryId,
                const std::string& applicationName, const std::string& applicationVersion) {
    OutputWriter writer(output, output.getFilePath(), WriteChecks::EachCommit);
    writeDescription(logFile, writer, applicationName, applicationVersion);
    const std::vector<int32_t> allIds = logFile.getEntryIndex(EntryIndexFilter{});
    const CopiedIds range = findEntryRange(allIds, startEntryId, endEntryId);
    if (!range.empty()) {
        const std::unique_ptr<EntrySource> entries =
            entryRangeOf(logFile, range.front(), range.back(), StoreAccess::of(output).compressionLevel);
        copyEntries(*entries, writer, [](int32_t, int32_t) {});
    }
    copyBookmarks(logFile, writer, range);
}

std::string rangeRefusal(const LogFileInterface& logFile, int startEntryId, int endEntryId) {
    return "Cannot slice '" + logFile.getFilePath().string() + "': entries " + std::to_string(startEntryId) +
           " to " + std::to_string(endEntryId) + " are not a range of its entries.";
}

std::string existingOutputRefusal(const std::string& path) {
    return "Cannot write '" + path + "': a file already exists there and is never overwritten.";
}

// The reason is worded only for a caller that asks: wording it reads the
// source, and a refusal reads nothing it does not need.
template <typename Reason>
std::unique_ptr<LogFileInterface> refused(std::string* whyEmpty, Reason reason) {
    if (whyEmpty != nullptr) {
        *whyEmpty = reason();
    }
    return nullptr;
}

}  // namespace

std::string defaultDerivedFilePath(const std::filesystem::path& sourcePath) {
    return Filesystem::makeUniqueFilePath(Filesystem::appendTextToFilename(sourcePath, kExportedSuffix))
        .string();
}

std::unique_ptr<LogFileInterface> slice(const LogFileInterface& logFile, int startEntryId, int endEntryId,
                                        std::string outputFilePath, const std::string& applicationName,
                                        const std::string& applicationVersion, signed char compressionLevel,
                                        std::string* whyEmpty) {
    if (somethingExistsAt(outputFilePath)) {
        return refused(whyEmpty, [&] { return existingOutputRefusal(outputFilePath); });
    }
    if (!rangeIsAcceptable(logFile, startEntryId, endEntryId)) {
        return refused(whyEmpty, [&] { return rangeRefusal(logFile, startEntryId, endEntryId); });
    }
    if (outputFilePath.empty()) {
        outputFilePath = derivedOutputPath(logFile);
    }
    std::string refusal;
    std::unique_ptr<SqliteLogFile> output = createOutputFile(logFile, outputFilePath, applicationName,
                                                             applicationVersion, compressionLevel, refusal);
    if (!output) {
        return refused(whyEmpty, [&] { return refusal; });
    }
    writeSlice(logFile, *output, startEntryId, endEntryId, applicationName, applicationVersion);
    return output;
}

std::unique_ptr<LogFileInterface> slice(const LogFileInterface& logFile, int startEntryId, int endEntryId,
                                        std::string outputFilePath, const std::string& applicationName,
                                        const std::string& applicationVersion, signed char compressionLevel) {
    return slice(logFile, startEntryId, endEntryId, std::move(outputFilePath), applicationName,
                 applicationVersion, compressionLevel, nullptr);
}

std::unique_ptr<LogFileInterface> clone(const LogFileInterface& logFile, const std::string& outputFilePath,
                                        const std::string& applicationName,
                                        const std::string& applicationVersion, signed char compressionLevel,
                                        std::string* whyEmpty) {
    return slice(logFile, logFile.getFirstEntryId(), logFile.getLastEntryId(), outputFilePath,
                 applicationName, applicationVersion, compressionLevel, whyEmpty);
}

std::unique_ptr<LogFileInterface> clone(const LogFileInterface& logFile, const std::string& outputFilePath,
                                        const std::string& applicationName,
                                        const std::string& applicationVersion, signed char compressionLevel) {
    return clone(logFile, outputFilePath, applicationName, applicationVersion, compressionLevel, nullptr);
}

}  // namespace Marivane::Logging::Algorithms
