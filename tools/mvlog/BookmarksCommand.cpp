#include "Commands.h"
#include "Format.h"
#include "LogFileAccess.h"
#include "SummaryReport.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <string>

namespace Mvlog {

using Marivane::Logging::Bookmark;
using Marivane::Logging::LogFileInterface;
using Marivane::Logging::SqliteLogFile;

namespace {

nlohmann::ordered_json bookmarkFields(const Bookmark& bookmark) {
    return {{"entryId", bookmark.entryId},
            {"title", bookmark.title},
            {"comments", bookmark.comments},
            {"payloadBytes", bookmark.payload.size()}};
}

// What a change did: a sentence, or one JSON document.
void printChange(const BookmarksOptions& options, const char* action, const Bookmark& bookmark) {
    if (!options.json) {
        fmt::print("{} {}\n", action, bookmarkText(bookmark));
        return;
    }
    nlohmann::ordered_json document;
    document["file"] = options.file;
    document["action"] = action == std::string("Added") ? "added" : "updated";
    document["bookmark"] = bookmarkFields(bookmark);
    fmt::print("{}\n", dumpJson(document, 2));
}

// The bookmarks of the entry that update and remove address; there must be
// one at least.
std::vector<Bookmark> bookmarksOn(const LogFileInterface& file, const BookmarksOptions& options) {
    std::vector<Bookmark> found;
    for (Bookmark& bookmark : file.getBookmarks()) {
        if (bookmark.entryId == options.entryId) {
            found.push_back(std::move(bookmark));
        }
    }
    if (found.empty()) {
        throw ToolError(fmt::format("{}: no bookmark on entry {}", options.file, options.entryId));
    }
    return found;
}

int listBookmarks(const SqliteLogFile& file, const BookmarksOptions& options) {
    const std::vector<Bookmark> bookmarks = file.getBookmarks();
    requireCompleteReads(file);
    if (options.json) {
        nlohmann::ordered_json document;
        document["file"] = options.file;
        document["bookmarks"] = jsonArray(bookmarks, bookmarkFields);
        fmt::print("{}\n", dumpJson(document, 2));
        return 0;
    }
    if (bookmarks.empty()) {
        fmt::print("No bookmarks.\n");
    }
    for (const Bookmark& bookmark : bookmarks) {
        fmt::print("{}\n", bookmarkText(bookmark));
    }
    return 0;
}

// The store checks the entry through a foreign key but then reports only an
// unspecific error; checking first gives a message that says what is wrong.
int addBookmark(LogFileInterface& file, const BookmarksOptions& options) {
    // From the index, so that a damaged payload does not matter.
    const std::vector<int32_t> ids = file.getEntryIndex(Marivane::Logging::EntryIndexFilter{});
    if (!std::binary_search(ids.begin(), ids.end(), options.entryId)) {
        throw ToolError(fmt::format("{}: no entry with id {}", options.file, options.entryId));
    }
    Bookmark bookmark;
    bookmark.entryId = options.entryId;
    bookmark.title = options.title;
    bookmark.comments = options.comments.value_or(std::string());
    requireWritten(file.addBookmark(bookmark), file, "add the bookmark");
    printChange(options, "Added", bookmark);
    return 0;
}

// Updating addresses every bookmark of the entry and rewrites the payload
// too, so the existing payload and (unless given) comments are carried over.
int updateBookmark(LogFileInterface& file, const BookmarksOptions& options) {
    const std::vector<Bookmark> existing = bookmarksOn(file, options);
    Bookmark bookmark = existing.front();
    bookmark.title = options.title;
    if (options.comments) {
        bookmark.comments = *options.comments;
    }
    requireWritten(file.updateBookmark(bookmark), file, "update the bookmark");
    printChange(options, "Updated", bookmark);
    return 0;
}

int removeBookmark(LogFileInterface& file, const BookmarksOptions& options) {
    const std::vector<Bookmark> existing = bookmarksOn(file, options);
    requireWritten(file.removeBookmark(existing.front()), file, "remove the bookmark");
    if (options.json) {
        nlohmann::ordered_json document;
        document["file"] = options.file;
        document["action"] = "removed";
        document["entryId"] = options.entryId;
        document["count"] = existing.size();
        fmt::print("{}\n", dumpJson(document, 2));
        return 0;
    }
    fmt::print("Removed {} bookmark{} on entry {}\n", existing.size(), existing.size() == 1 ? "" : "s",
               options.entryId);
    return 0;
}

}  // namespace

int runBookmarks(const BookmarksOptions& options) {
    const auto file = openExistingLogFile(
        options.file, options.action == BookmarkAction::List ? Access::ReadOnly : Access::ReadWrite);
    switch (options.action) {
        case BookmarkAction::List:
            return listBookmarks(*file, options);
        case BookmarkAction::Add:
            return addBookmark(*file, options);
        case BookmarkAction::Update:
            return updateBookmark(*file, options);
        case BookmarkAction::Remove:
            return removeBookmark(*file, options);
    }
    return 1;
}

}  // namespace Mvlog
