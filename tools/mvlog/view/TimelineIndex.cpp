#include "TimelineIndex.h"

#include "LogFileAccess.h"

#include <fmt/format.h>

#include <algorithm>

namespace Mvlog {

using Marivane::Logging::EntryIndexFilter;
using Marivane::Logging::EntryRange;
using Marivane::Logging::EntrySummary;

namespace {

bool earlier(const TimelinePoint& a, const TimelinePoint& b) {
    return a.timestamp != b.timestamp ? a.timestamp < b.timestamp : a.entryId < b.entryId;
}

bool beforeTime(const TimelinePoint& point, int64_t timestamp) {
    return point.timestamp < timestamp;
}

bool timeBefore(int64_t timestamp, const TimelinePoint& point) {
    return timestamp < point.timestamp;
}

using Points = std::vector<TimelinePoint>;

// The points of `points` with timestamps in [from, to].
std::pair<Points::const_iterator, Points::const_iterator> window(const Points& points, int64_t from,
                                                                 int64_t to) {
    const auto first = std::lower_bound(points.begin(), points.end(), from, beforeTime);
    const auto last = std::upper_bound(first, points.end(), to, timeBefore);
    return {first, last};
}

}  // namespace

TimelineIndex::TimelineIndex(const Marivane::Logging::SqliteLogFile& file) {
    read(file, 0);
}

bool TimelineIndex::extend(const Marivane::Logging::SqliteLogFile& file) {
    const int32_t last = file.getLastEntryId();
    if (last <= lastId_) {
        return false;
    }
    const std::size_t before = entries_;
    read(file, lastId_);
    return entries_ != before;
}

// Reads in id order, the table's own order, so that no time index and no
// sorter is needed; ids mostly follow time, so a source's points are
// usually sorted already and otherwise sorted here, once.
void TimelineIndex::read(const Marivane::Logging::SqliteLogFile& file, int32_t afterId) {
    std::map<int8_t, std::size_t> oldSizes;
    for (const auto& [source, points] : points_) {
        oldSizes[source] = points.size();
    }
    EntryRange range = EntryRange::all();
    if (afterId > 0) {
        range.minimumEntryId = afterId + 1;
    }
    const bool read =
        file.visitEntrySummaries(range, EntryIndexFilter(), [this](const EntrySummary& summary) {
            points_[summary.dataSourceId].push_back(TimelinePoint{summary.timestamp, summary.entryId});
            lastId_ = std::max(lastId_, summary.entryId);
            ++entries_;
            return true;
        });
    if (!read) {
        throw ToolError(fmt::format("{}: cannot read the entries' times: {}", file.getFilePath().string(),
                                    file.getLastFailure()));
    }
    for (auto& [source, points] : points_) {
        const auto old = oldSizes.find(source);
        const auto added =
            points.begin() + static_cast<std::ptrdiff_t>(old == oldSizes.end() ? 0 : old->second);
        if (added == points.end()) {
            continue;
        }
        if (!std::is_sorted(added, points.end(), earlier)) {
            std::sort(added, points.end(), earlier);
        }
        std::inplace_merge(points.begin(), added, points.end(), earlier);
        silences_.erase(source);
    }
}

std::map<int8_t, std::vector<uint32_t>> TimelineIndex::counts(int64_t from, int64_t to, uint32_t bins) const {
    std::map<int8_t, std::vector<uint32_t>> result;
    if (bins == 0 || to < from) {
        return result;
    }
    // Bin i covers the times t with from + i * span / bins <= t < from +
    // (i + 1) * span / bins: for whole milliseconds the edge is that
    // quotient rounded up, worked out exactly in 128 bits.
    __extension__ using Wide = __int128;
    const Wide span = static_cast<Wide>(to) - from + 1;
    const auto edge = [&](uint32_t k) {
        const Wide scaled = span * k;
        return static_cast<int64_t>(from + (scaled + bins - 1) / bins);
    };
    for (const auto& [source, points] : points_) {
        std::vector<uint32_t> counted(bins, 0);
        auto [previous, end] = window(points, from, to);
        for (uint32_t i = 0; i < bins && previous != end; ++i) {
            const auto next = i + 1 == bins ? end : std::lower_bound(previous, end, edge(i + 1), beforeTime);
            counted[i] = static_cast<uint32_t>(next - previous);
            previous = next;
        }
        result.emplace(source, std::move(counted));
    }
    return result;
}

const TimelineIndex::Silences& TimelineIndex::silences(int8_t source, double factor) const {
    Silences& found = silences_[source];
    if (found.factor == factor) {
        return found;
    }
    found = Silences{};
    found.factor = factor;
    const auto points = points_.find(source);
    if (points == points_.end() || points->second.size() < 2) {
        return found;
    }
    const Points& sorted = points->second;
    std::vector<int64_t> intervals;
    intervals.reserve(sorted.size() - 1);
    for (std::size_t i = 1; i < sorted.size(); ++i) {
        intervals.push_back(sorted[i].timestamp - sorted[i - 1].timestamp);
    }
    const auto middle = intervals.begin() + static_cast<std::ptrdiff_t>(intervals.size() / 2);
    std::nth_element(intervals.begin(), middle, intervals.end());
    found.medianInterval = *middle;
    // A source that logs in bursts at one time has a median of 0: any
    // silence of a millisecond would be a gap, so none is marked.
    if (found.medianInterval <= 0) {
        return found;
    }
    const long double threshold = factor * static_cast<long double>(found.medianInterval);
    for (std::size_t i = 1; i < sorted.size(); ++i) {
        if (static_cast<long double>(sorted[i].timestamp - sorted[i - 1].timestamp) > threshold) {
            found.gaps.push_back(TimelineGap{sorted[i - 1].timestamp, sorted[i].timestamp});
        }
    }
    return found;
}

std::vector<TimelineGap> TimelineIndex::gaps(int8_t source, int64_t from, int64_t to, std::size_t limit,
                                             double factor) const {
    const std::vector<TimelineGap>& all = silences(source, factor).gaps;
    // Gaps do not overlap and are sorted by start, hence by end too.
    auto first = std::lower_bound(all.begin(), all.end(), from,
                                  [](const TimelineGap& gap, int64_t time) { return gap.to < time; });
    std::vector<TimelineGap> result;
    for (; first != all.end() && first->from <= to && result.size() < limit; ++first) {
        result.push_back(*first);
    }
    return result;
}

int64_t TimelineIndex::medianInterval(int8_t source) const {
    return silences(source, 5.0).medianInterval;
}

std::optional<TimelinePoint> TimelineIndex::atOrBefore(int8_t source, int64_t at) const {
    const auto points = points_.find(source);
    if (points == points_.end()) {
        return std::nullopt;
    }
    const auto after = std::upper_bound(points->second.begin(), points->second.end(), at, timeBefore);
    if (after == points->second.begin()) {
        return std::nullopt;
    }
    return *std::prev(after);
}

std::optional<TimelinePoint> TimelineIndex::next(int64_t at, std::optional<int8_t> source) const {
    std::optional<TimelinePoint> best;
    for (const auto& [id, points] : points_) {
        if (source && id != *source) {
            continue;
        }
        const auto after = std::upper_bound(points.begin(), points.end(), at, timeBefore);
        if (after != points.end() && (!best || earlier(*after, *best))) {
            best = *after;
        }
    }
    return best;
}

std::optional<TimelinePoint> TimelineIndex::previous(int64_t at, std::optional<int8_t> source) const {
    std::optional<TimelinePoint> best;
    for (const auto& [id, points] : points_) {
        if (source && id != *source) {
            continue;
        }
        const auto before = std::lower_bound(points.begin(), points.end(), at, beforeTime);
        if (before != points.begin() && (!best || earlier(*best, *std::prev(before)))) {
            best = *std::prev(before);
        }
    }
    return best;
}

std::vector<TimelinePoint> TimelineIndex::sample(int8_t source, int64_t from, int64_t to, std::size_t limit,
                                                 std::size_t& total) const {
    total = 0;
    std::vector<TimelinePoint> result;
    const auto points = points_.find(source);
    if (points == points_.end() || to < from || limit == 0) {
        return result;
    }
    const auto [first, last] = window(points->second, from, to);
    total = static_cast<std::size_t>(last - first);
    if (total <= limit) {
        result.assign(first, last);
        return result;
    }
    result.reserve(limit);
    for (std::size_t i = 0; i < limit; ++i) {
        // Spread from the first (i = 0) to the last (i = limit - 1).
        const std::size_t at = limit == 1 ? 0 : i * (total - 1) / (limit - 1);
        result.push_back(*(first + static_cast<std::ptrdiff_t>(at)));
    }
    return result;
}

std::optional<TimelinePoint> TimelineIndex::firstOf(int8_t source) const {
    const auto points = points_.find(source);
    if (points == points_.end() || points->second.empty()) {
        return std::nullopt;
    }
    return points->second.front();
}

std::optional<TimelinePoint> TimelineIndex::lastOf(int8_t source) const {
    const auto points = points_.find(source);
    if (points == points_.end() || points->second.empty()) {
        return std::nullopt;
    }
    return points->second.back();
}

std::size_t TimelineIndex::countOf(int8_t source) const {
    const auto points = points_.find(source);
    return points == points_.end() ? 0 : points->second.size();
}

std::optional<int64_t> TimelineIndex::firstTimestamp() const {
    std::optional<int64_t> first;
    for (const auto& [source, points] : points_) {
        if (!points.empty() && (!first || points.front().timestamp < *first)) {
            first = points.front().timestamp;
        }
    }
    return first;
}

std::optional<int64_t> TimelineIndex::lastTimestamp() const {
    std::optional<int64_t> last;
    for (const auto& [source, points] : points_) {
        if (!points.empty() && (!last || points.back().timestamp > *last)) {
            last = points.back().timestamp;
        }
    }
    return last;
}

}  // namespace Mvlog
