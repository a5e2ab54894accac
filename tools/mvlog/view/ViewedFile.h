#pragma once

#include "TimelineIndex.h"

#include <logging/SqliteLogFile.h>

#include <nlohmann/json.hpp>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace Mvlog {

// A request's answer about one file: a JSON document or bytes, or a
// refusal with an HTTP status and a reason.
struct ViewAnswer {
    int status = 200;
    nlohmann::ordered_json document;
    // When set, the answer is these bytes instead of the document.
    std::optional<std::string> bytes;
    // Headers to send with it (name, value).
    std::vector<std::pair<std::string, std::string>> headers;

    static ViewAnswer refused(int status, std::string reason);
};

// One file that `mvlog view` shows, opened read-only, with the index of its
// entries' times. A file that cannot be opened or read is kept with the
// reason, so that the page can say it; a file that grows is followed (every
// request first reads the entries logged since the last one).
//
// Every public member locks the file: requests of several threads take
// turns on one file, and different files answer in parallel.
class ViewedFile {
public:
    explicit ViewedFile(std::filesystem::path path);
    ~ViewedFile();
    ViewedFile(const ViewedFile&) = delete;
    ViewedFile& operator=(const ViewedFile&) = delete;

    // The name shown for it: its file name.
    std::string name() const;
    // Why the file cannot be shown; empty when it can.
    std::string problem() const;
    std::size_t entryCount() const;

    // Everything but the entries: data sources (with properties, counts and
    // rates), metadata, resources, bookmarks, time range, durability and
    // the time index's state.
    ViewAnswer summary();
    // Entry counts per source in `bins` parts of [from, to], with the
    // sources' gaps in that window.
    ViewAnswer bins(int64_t from, int64_t to, uint32_t bins);
    // For each data source, the entry at or before `at`.
    ViewAnswer cursor(int64_t at);
    // The time of the next (forward) or previous entry, of one source or of
    // any; `found` false at either end.
    ViewAnswer step(int64_t at, bool forward, std::optional<int8_t> source);
    // One entry's payload, at most `limit` bytes of it (all for 0), with its
    // record (id, source, type, timestamp, sizes, media type) in headers.
    // The media type is the source's declared one, or the payload's sniffed
    // one when the source declares none or application/octet-stream.
    ViewAnswer payload(int32_t entryId, std::size_t limit);
    // The numeric fields of a source's JSON payloads, as dotted paths.
    ViewAnswer fields(int8_t source);
    // A numeric field of a source's JSON payloads over [from, to]: every
    // entry when there are at most `limit`, otherwise `limit` spread evenly
    // ("withoutValue" counts the entries read that lack the field).
    ViewAnswer series(int8_t source, const std::string& field, int64_t from, int64_t to, std::size_t limit);
    // A resource's bytes by its place in the list of resources, with its
    // media type as its first bytes say (header X-Mvlog-Media-Type).
    ViewAnswer resource(std::size_t index);

private:
    // Opens the file and reads its times on first use; reads what was
    // logged since otherwise. False (with problem_ set) when it cannot.
    bool ready();
    std::string mediaTypeOf(int8_t source, const std::byte* data, std::size_t size);

    std::filesystem::path path_;
    mutable std::mutex lock_;
    std::unique_ptr<Marivane::Logging::SqliteLogFile> file_;
    std::unique_ptr<TimelineIndex> timeline_;
    std::string problem_;
};

}  // namespace Mvlog
