#include <logging/FileCheck.h>

#include "check/DatabaseIntegrity.h"
#include "check/EntryCheck.h"
#include "check/Findings.h"

#include <logging/Bookmark.h>
#include <logging/CompressionLevel.h>
#include <logging/EntryIndexFilter.h>
#include <logging/FailureKind.h>
#include <logging/LogResourceEntry.h>
#include <logging/MetadataValue.h>
#include <logging/PropertyValue.h>
#include <logging/SqliteLogFile.h>

#include <core/Compression.h>

#include <algorithm>
#include <array>
#include <exception>
#include <memory>
#include <system_error>
#include <variant>
#include <vector>

namespace Marivane::Logging {

namespace {

using Check::Findings;

enum class ExpectedType { Integer, Text };

struct FixedKey {
    const char* key;
    ExpectedType type;
};

constexpr std::array<FixedKey, 6> kFixedKeys = {{{"createdDateTime", ExpectedType::Integer},
                                                 {"applicationName", ExpectedType::Text},
                                                 {"applicationVersion", ExpectedType::Text},
                                                 {"currentTimeZone", ExpectedType::Text},
                                                 {"logVersion", ExpectedType::Integer},
                                                 {"compressionLevel", ExpectedType::Integer}}};

bool hasType(const PropertyValue& value, ExpectedType type) {
    if (type == ExpectedType::Text) {
        return std::holds_alternative<std::string>(value);
    }
    return std::holds_alternative<int64_t>(value) || std::holds_alternative<int32_t>(value);
}

void checkMetadata(const LogFileInterface& file, Findings& findings) {
    for (const FixedKey& fixed : kFixedKeys) {
        const std::optional<PropertyValue> value = file.getMetadataValue(fixed.key);
        if (!value) {
            findings.add(CheckProblemKind::Metadata,
                         std::string("metadata key \"") + fixed.key + "\" is missing");
        } else if (!hasType(*value, fixed.type)) {
            findings.add(CheckProblemKind::Metadata,
                         std::string("metadata key \"") + fixed.key + "\" should hold " +
                             (fixed.type == ExpectedType::Text ? "text" : "an integer"));
        }
    }
    if (const auto level = integerMetadata(file, "compressionLevel");
        level && !isValidCompressionLevel(*level)) {
        findings.add(CheckProblemKind::Metadata,
                     "compression level " + std::to_string(*level) + " is outside -1 to 9");
    }
    // 2 and 3 are the earlier versions the library still reads: without
    // compressed resources, and without bookmark payloads.
    if (const auto version = integerMetadata(file, "logVersion"); version && (*version < 2 || *version > 4)) {
        findings.add(CheckProblemKind::Metadata,
                     "format version " + std::to_string(*version) + " is not one this library knows");
    }
}

std::size_t checkBookmarks(const SqliteLogFile& file, Findings& findings) {
    try {
        const std::vector<Bookmark> bookmarks = file.getBookmarks();
        if (bookmarks.empty()) {
            return 0;  // nothing to look up in an index of millions of ids
        }
        const std::vector<int32_t> ids = file.getEntryIndex(EntryIndexFilter{});
        for (const Bookmark& bookmark : bookmarks) {
            // A row the (possibly cut) index does not list still counts as
            // stored, even with a damaged payload.
            if (!std::binary_search(ids.begin(), ids.end(), bookmark.entryId) &&
                !file.hasEntry(bookmark.entryId)) {
                findings.add(CheckProblemKind::Bookmark,
                             "bookmark \"" + bookmark.title + "\" points at entry " +
                                 std::to_string(bookmark.entryId) + ", which does not exist",
                             false, bookmark.entryId);
            }
        }
        return bookmarks.size();
    } catch (const std::exception& error) {
        findings.add(CheckProblemKind::Bookmark, std::string("bookmarks cannot be read: ") + error.what());
        return 0;
    }
}

std::string resourceLabel(const std::string& name) {
    return name == "thumbnail" ? std::string("the thumbnail") : "resource \"" + name + "\"";
}

std::size_t checkResources(const SqliteLogFile& file, Findings& findings) {
    std::size_t count = 0;
    try {
        const std::vector<LogResourceEntry> resources = file.getAllResources();
        count = resources.size();
        for (const LogResourceEntry& resource : resources) {
            if (const std::optional<std::string> problem = resourceFormProblem(file, resource.data)) {
                findings.add(CheckProblemKind::Resource, resourceLabel(resource.name) + ": " + *problem);
            }
        }
    } catch (const std::exception& error) {
        findings.add(CheckProblemKind::Resource, std::string("resources cannot be read: ") + error.what());
    }
    try {
        file.getThumbnail();
    } catch (const std::exception& error) {
        findings.add(CheckProblemKind::Resource,
                     std::string("the thumbnail cannot be read: ") + error.what());
    }
    return count;
}

// Read-only: a check never repairs or otherwise changes what it looks at. A
// file that cannot be opened because it is damaged was named as damaged by
// SQLite's own checks before.
std::unique_ptr<SqliteLogFile> openForCheck(const std::filesystem::path& path, Findings& findings) {
    try {
        return std::make_unique<SqliteLogFile>(SqliteLogFile::openReadOnly(path.string()));
    } catch (const std::exception& error) {
        findings.add(CheckProblemKind::File, std::string("cannot open as a log file: ") + error.what());
        return nullptr;
    }
}

void checkContents(const SqliteLogFile& file, Findings& findings) {
    try {
        checkMetadata(file, findings);
        CheckReport::Counts counts;
        counts.entries = Check::checkEntries(file, findings);
        counts.bookmarks = checkBookmarks(file, findings);
        counts.resources = checkResources(file, findings);
        counts.dataSources = file.getDataSources().size();
        findings.counted(counts);
        // Damage has its own findings above; any other failed read (a lock
        // held past the wait, an I/O error) leaves the check incomplete.
        if (file.getFailureCount() != 0 && file.getLastFailureKind() != FailureKind::Damaged) {
            findings.add(CheckProblemKind::Incomplete,
                         "reads failed, so the check is incomplete: " + file.getLastFailure());
        }
    } catch (const std::exception& error) {
        findings.add(CheckProblemKind::Incomplete, std::string("the check could not go on: ") + error.what());
    }
}

}  // namespace

CheckReport checkLogFile(const std::filesystem::path& path, const CheckOptions& options) {
    Findings findings(options);
    std::error_code error;
    if (!std::filesystem::exists(std::filesystem::symlink_status(path, error))) {
        findings.add(CheckProblemKind::File, "there is no file at " + path.string());
        return findings.take();
    }
    // Whatever has no size to tell (a device, a pipe) holds no log file either.
    const std::uintmax_t size = std::filesystem::file_size(path, error);
    if (error || size == 0) {
        findings.add(CheckProblemKind::File, "the file is empty (0 bytes)");
        return findings.take();
    }
    Check::checkDatabase(path, findings);
    if (const std::unique_ptr<SqliteLogFile> file = openForCheck(path, findings)) {
        checkContents(*file, findings);
    }
    return findings.take();
}

std::optional<std::string> resourceFormProblem(const SqliteLogFile& file, const ByteBuffer& bytes) {
    if (!Compression::startsWithFrame(bytes.data(), bytes.size())) {
        return std::nullopt;
    }
    std::string because;
    if (!file.isResourceCompressionSupported()) {
        const std::optional<int64_t> version = integerMetadata(file, "logVersion");
        because = version ? "the file's format version is " + std::to_string(*version)
                          : std::string("the file has no format version");
    } else if (std::clamp<int64_t>(integerMetadata(file, "compressionLevel").value_or(0),
                                   kMinCompressionLevel, kMaxCompressionLevel) == kUncompressedLevel) {
        because = "the file's compression level is 0";
    } else {
        return std::nullopt;
    }
    return "it is a compressed frame but " + because +
           " (resources stored uncompressed): readers hand it out compressed";
}

}  // namespace Marivane::Logging
