#include "ViewedFile.h"

#include "Format.h"
#include "LogFileAccess.h"

#include <logging/PayloadEncoding.h>

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <functional>

namespace Mvlog {

using Json = nlohmann::ordered_json;
using Marivane::Logging::EntryIndexFilter;
using Marivane::Logging::EntryRange;
using Marivane::Logging::EntrySummary;
using Marivane::Logging::PayloadEncoding;
using Marivane::Logging::PropertyValue;

namespace {

// The most numeric fields one source lists, and the payloads looked at to
// find them.
constexpr std::size_t kMaxFields = 200;
constexpr int kFieldSamples = 8;
// The most gaps one lane sends for one window.
constexpr std::size_t kMaxGapsPerLane = 1000;

Json propertyJson(const PropertyValue& value) {
    return std::visit([](const auto& held) { return Json(held); }, value);
}

std::string durabilityName(Marivane::Logging::Durability durability) {
    return durability == Marivane::Logging::Durability::Safe ? "safe" : "fast";
}

Json pointJson(const std::optional<TimelinePoint>& point) {
    if (!point) {
        return Json{{"found", false}};
    }
    return Json{{"found", true}, {"entryId", point->entryId}, {"timestamp", point->timestamp}};
}

// Adds the dotted paths of the numbers in `value` to `paths`, in document
// order, at most kMaxFields.
void collectNumericPaths(const Json& value, const std::string& prefix, std::vector<std::string>& paths) {
    if (paths.size() >= kMaxFields) {
        return;
    }
    if (value.is_number() && !prefix.empty()) {
        if (std::find(paths.begin(), paths.end(), prefix) == paths.end()) {
            paths.push_back(prefix);
        }
    } else if (value.is_object()) {
        for (const auto& [key, element] : value.items()) {
            collectNumericPaths(element, prefix.empty() ? key : prefix + "." + key, paths);
        }
    } else if (value.is_array()) {
        for (std::size_t i = 0; i < value.size(); ++i) {
            collectNumericPaths(value[i],
                                prefix.empty() ? std::to_string(i) : fmt::format("{}.{}", prefix, i), paths);
        }
    }
}

// The number at a dotted path of `value` (object keys and array places).
std::optional<double> numberAt(const Json& value, const std::string& path) {
    const Json* at = &value;
    std::size_t start = 0;
    while (start <= path.size()) {
        const std::size_t dot = std::min(path.find('.', start), path.size());
        const std::string part = path.substr(start, dot - start);
        if (at->is_object()) {
            const auto found = at->find(part);
            if (found == at->end()) {
                return std::nullopt;
            }
            at = &*found;
        } else if (at->is_array()) {
            std::size_t place = 0;
            const auto [end, error] = std::from_chars(part.data(), part.data() + part.size(), place);
            if (error != std::errc() || end != part.data() + part.size() || place >= at->size()) {
                return std::nullopt;
            }
            at = &(*at)[place];
        } else {
            return std::nullopt;
        }
        start = dot + 1;
    }
    if (!at->is_number()) {
        return std::nullopt;
    }
    return at->get<double>();
}

std::optional<Json> parsedJson(const Marivane::Logging::ByteBuffer& data) {
    const auto* text = reinterpret_cast<const char*>(data.data());
    Json parsed = Json::parse(text, text + data.size(), nullptr, false);
    if (parsed.is_discarded()) {
        return std::nullopt;
    }
    return parsed;
}

}  // namespace

ViewAnswer ViewAnswer::refused(int status, std::string reason) {
    ViewAnswer answer;
    answer.status = status;
    answer.document = Json{{"error", std::move(reason)}};
    return answer;
}

ViewedFile::ViewedFile(std::filesystem::path path) : path_(std::move(path)) {
    try {
        file_ = openExistingLogFile(path_, Access::ReadOnly);
    } catch (const std::exception& error) {
        problem_ = error.what();
    }
}

ViewedFile::~ViewedFile() = default;

std::string ViewedFile::name() const {
    return path_.filename().string();
}

std::string ViewedFile::problem() const {
    const std::lock_guard lock(lock_);
    return problem_;
}

std::size_t ViewedFile::entryCount() const {
    const std::lock_guard lock(lock_);
    if (timeline_) {
        return timeline_->entryCount();
    }
    const int32_t count = file_ && problem_.empty() ? file_->getEntryCount() : 0;
    return count > 0 ? static_cast<std::size_t>(count) : 0;
}

bool ViewedFile::ready() {
    if (!problem_.empty() || !file_) {
        return false;
    }
    try {
        if (!timeline_) {
            timeline_ = std::make_unique<TimelineIndex>(*file_);
        } else {
            timeline_->extend(*file_);
        }
    } catch (const std::exception& error) {
        problem_ = error.what();
        timeline_.reset();
        return false;
    }
    return true;
}

// As `mvlog cat` and the Python package read payloads: the declared type,
// unless a source declares none or only "bytes of no known kind"
// (application/octet-stream, as a source of mixed payloads does); then the
// payload's first bytes say.
std::string ViewedFile::mediaTypeOf(int8_t source, const std::byte* data, std::size_t size) {
    if (auto declared = PayloadEncoding::declared(*file_, source);
        declared && *declared != PayloadEncoding::kOctetStream) {
        return *declared;
    }
    return std::string(PayloadEncoding::sniff(data, size));
}

ViewAnswer ViewedFile::summary() {
    const std::lock_guard lock(lock_);
    if (!ready()) {
        return ViewAnswer::refused(422, problem_);
    }
    const auto& file = *file_;
    std::map<int32_t, Json> propertiesBySource;
    for (const auto& property : file.getAllDataSourceProperties()) {
        propertiesBySource[property.dataSourceId].push_back(Json{{"key", property.propertyName},
                                                                 {"type", propertyTypeName(property.value)},
                                                                 {"value", propertyJson(property.value)}});
    }
    Json sources = Json::array();
    for (const auto& source : file.getDataSources()) {
        const std::size_t count = timeline_->countOf(source.id);
        const int64_t median = timeline_->medianInterval(source.id);
        const auto firstEntry = timeline_->firstOf(source.id);
        const auto lastEntry = timeline_->lastOf(source.id);
        const auto properties = propertiesBySource.find(source.id);
        sources.push_back(Json{
            {"id", source.id},
            {"name", source.name},
            {"type", dataSourceTypeName(source.type)},
            {"encoding", PayloadEncoding::declared(file, source.id).value_or("")},
            {"entries", count},
            {"firstTimestamp", firstEntry ? Json(firstEntry->timestamp) : Json()},
            {"lastTimestamp", lastEntry ? Json(lastEntry->timestamp) : Json()},
            {"rate", median > 0 ? 1000.0 / static_cast<double>(median) : 0.0},
            {"medianIntervalMs", median},
            {"properties", properties == propertiesBySource.end() ? Json::array() : properties->second}});
    }
    Json metadata = Json::array();
    for (const auto& entry : file.getAllMetadata()) {
        metadata.push_back(Json{{"key", entry.key},
                                {"type", propertyTypeName(entry.value)},
                                {"value", propertyJson(entry.value)}});
    }
    Json resources = Json::array();
    std::optional<std::size_t> thumbnail;
    const auto allResources = file.getAllResources();
    for (std::size_t i = 0; i < allResources.size(); ++i) {
        resources.push_back(
            Json{{"index", i}, {"name", allResources[i].name}, {"size", allResources[i].data.size()}});
        if (!thumbnail && allResources[i].name == "thumbnail") {
            thumbnail = i;
        }
    }
    Json bookmarks = Json::array();
    for (const auto& bookmark : file.getBookmarks()) {
        const auto timestamp = file.getEntryTimestamp(bookmark.entryId);
        bookmarks.push_back(Json{{"entryId", bookmark.entryId},
                                 {"title", bookmark.title},
                                 {"comments", bookmark.comments},
                                 {"timestamp", timestamp ? Json(*timestamp) : Json()}});
    }
    const auto first = timeline_->firstTimestamp();
    const auto last = timeline_->lastTimestamp();
    return ViewAnswer{200,
                      Json{{"name", name()},
                           {"entries", timeline_->entryCount()},
                           {"firstTimestamp", first ? Json(*first) : Json()},
                           {"lastTimestamp", last ? Json(*last) : Json()},
                           {"firstEntryId", file.getFirstEntryId()},
                           {"lastEntryId", file.getLastEntryId()},
                           {"durability", durabilityName(file.getDurability())},
                           {"hasTimeIndex", file.hasTimeIndex()},
                           {"hasEntryChecksums", file.hasEntryChecksums()},
                           {"dataSources", sources},
                           {"metadata", metadata},
                           {"resources", resources},
                           {"thumbnail", thumbnail ? Json(*thumbnail) : Json()},
                           {"bookmarks", bookmarks}},
                      std::nullopt,
                      {}};
}

ViewAnswer ViewedFile::bins(int64_t from, int64_t to, uint32_t bins) {
    const std::lock_guard lock(lock_);
    if (!ready()) {
        return ViewAnswer::refused(422, problem_);
    }
    Json lanes = Json::object();
    for (const auto& [source, counts] : timeline_->counts(from, to, bins)) {
        Json gaps = Json::array();
        for (const TimelineGap& gap : timeline_->gaps(source, from, to, kMaxGapsPerLane)) {
            gaps.push_back(Json::array({gap.from, gap.to}));
        }
        lanes[std::to_string(source)] = Json{{"counts", counts}, {"gaps", gaps}};
    }
    return ViewAnswer{
        200,
        Json{{"from", from},
             {"to", to},
             {"bins", bins},
             {"entries", timeline_->entryCount()},
             {"lastTimestamp", timeline_->lastTimestamp() ? Json(*timeline_->lastTimestamp()) : Json()},
             {"lanes", lanes}},
        std::nullopt,
        {}};
}

ViewAnswer ViewedFile::cursor(int64_t at) {
    const std::lock_guard lock(lock_);
    if (!ready()) {
        return ViewAnswer::refused(422, problem_);
    }
    Json sources = Json::object();
    for (const auto& source : file_->getDataSources()) {
        sources[std::to_string(source.id)] = pointJson(timeline_->atOrBefore(source.id, at));
    }
    return ViewAnswer{200, Json{{"at", at}, {"sources", sources}}, std::nullopt, {}};
}

ViewAnswer ViewedFile::step(int64_t at, bool forward, std::optional<int8_t> source) {
    const std::lock_guard lock(lock_);
    if (!ready()) {
        return ViewAnswer::refused(422, problem_);
    }
    return ViewAnswer{200,
                      pointJson(forward ? timeline_->next(at, source) : timeline_->previous(at, source)),
                      std::nullopt,
                      {}};
}

// The record's fields travel as headers, so that one request per entry
// brings everything a panel shows.
ViewAnswer ViewedFile::payload(int32_t entryId, std::size_t limit) {
    const std::lock_guard lock(lock_);
    if (!ready()) {
        return ViewAnswer::refused(422, problem_);
    }
    std::optional<EntrySummary> found;
    const bool read = file_->visitEntrySummaries(EntryRange{entryId, entryId}, EntryIndexFilter(),
                                                 [&found](const EntrySummary& summary) {
                                                     found = summary;
                                                     return false;
                                                 });
    if (!read) {
        return ViewAnswer::refused(500, file_->getLastFailure());
    }
    if (!found) {
        return ViewAnswer::refused(404, fmt::format("no entry {}", entryId));
    }
    const auto data = file_->readEntry(entryId);
    if (!data) {
        return ViewAnswer::refused(500, file_->getLastFailure());
    }
    ViewAnswer answer;
    const std::size_t size = data->data.size();
    const std::size_t sent = limit == 0 ? size : std::min(size, limit);
    answer.bytes = std::string(reinterpret_cast<const char*>(data->data.data()), sent);
    answer.headers = {{"X-Mvlog-Entry-Id", std::to_string(found->entryId)},
                      {"X-Mvlog-Data-Source", std::to_string(found->dataSourceId)},
                      {"X-Mvlog-Type", std::to_string(found->type)},
                      {"X-Mvlog-Timestamp", std::to_string(found->timestamp)},
                      {"X-Mvlog-Size", std::to_string(size)},
                      {"X-Mvlog-Stored-Size", std::to_string(found->storedSize)},
                      {"X-Mvlog-Media-Type", mediaTypeOf(found->dataSourceId, data->data.data(), size)}};
    return answer;
}

ViewAnswer ViewedFile::fields(int8_t source) {
    const std::lock_guard lock(lock_);
    if (!ready()) {
        return ViewAnswer::refused(422, problem_);
    }
    std::vector<std::string> paths;
    std::size_t total = 0;
    const auto first = timeline_->firstTimestamp().value_or(0);
    const auto last = timeline_->lastTimestamp().value_or(0);
    for (const TimelinePoint& point : timeline_->sample(source, first, last, kFieldSamples, total)) {
        const auto data = file_->readEntry(point.entryId);
        if (!data) {
            continue;
        }
        if (const auto parsed = parsedJson(data->data)) {
            collectNumericPaths(*parsed, "", paths);
        }
    }
    return ViewAnswer{200, Json{{"dataSourceId", source}, {"fields", paths}}, std::nullopt, {}};
}

ViewAnswer ViewedFile::series(int8_t source, const std::string& field, int64_t from, int64_t to,
                              std::size_t limit) {
    const std::lock_guard lock(lock_);
    if (!ready()) {
        return ViewAnswer::refused(422, problem_);
    }
    std::size_t total = 0;
    Json points = Json::array();
    std::size_t unreadable = 0;
    for (const TimelinePoint& point : timeline_->sample(source, from, to, limit, total)) {
        const auto data = file_->readEntry(point.entryId);
        const auto parsed = data ? parsedJson(data->data) : std::nullopt;
        const auto value = parsed ? numberAt(*parsed, field) : std::nullopt;
        if (!value) {
            ++unreadable;
            continue;
        }
        points.push_back(Json::array({point.timestamp, *value, point.entryId}));
    }
    return ViewAnswer{200,
                      Json{{"dataSourceId", source},
                           {"field", field},
                           {"from", from},
                           {"to", to},
                           {"entries", total},
                           {"sampled", total > limit},
                           {"withoutValue", unreadable},
                           {"points", points}},
                      std::nullopt,
                      {}};
}

ViewAnswer ViewedFile::resource(std::size_t index) {
    const std::lock_guard lock(lock_);
    if (!problem_.empty() || !file_) {
        return ViewAnswer::refused(422, problem_);
    }
    auto resources = file_->getAllResources();
    if (index >= resources.size()) {
        return ViewAnswer::refused(404, "no such resource");
    }
    const auto& found = resources[index];
    // A name from the file becomes a download name of safe characters only.
    std::string download;
    for (const char character : found.name) {
        const bool safe = std::isalnum(static_cast<unsigned char>(character)) != 0 || character == '.' ||
                          character == '-' || character == '_';
        download += safe ? character : '_';
    }
    if (download.empty() || download.front() == '.') {
        download.insert(0, "resource");
    }
    ViewAnswer answer;
    answer.bytes = std::string(reinterpret_cast<const char*>(found.data.data()), found.data.size());
    answer.headers = {
        {"Content-Disposition", fmt::format("attachment; filename=\"{}\"", download)},
        {"X-Mvlog-Media-Type", std::string(PayloadEncoding::sniff(found.data.data(), found.data.size()))}};
    return answer;
}

}  // namespace Mvlog
