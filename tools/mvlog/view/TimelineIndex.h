#pragma once

#include <logging/SqliteLogFile.h>

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

namespace Mvlog {

// One entry as the timeline knows it.
struct TimelinePoint {
    int64_t timestamp = 0;
    int32_t entryId = 0;
};

// A silence of one data source: no entry strictly between `from` and `to`.
struct TimelineGap {
    int64_t from = 0;
    int64_t to = 0;
};

// The times and ids of every entry of one file, per data source, sorted by
// time (then id): read once without payloads, then any window's entry counts
// in any number of bins, the entry at or before a time, the next and
// previous entry and evenly spread samples come from binary searches, so
// that a file of millions of entries answers at any zoom in the time of a
// small one.
//
// A file that grows (a recording in safe mode read while it is written) is
// followed by extend(), which reads only the entries after the last one seen.
//
// Memory: 16 bytes an entry (80 MB for 5M entries). Not thread-safe: the
// owner serialises its use.
class TimelineIndex {
public:
    // Reads the summaries of `file`; throws ToolError (naming the file) when
    // the read fails.
    explicit TimelineIndex(const Marivane::Logging::SqliteLogFile& file);

    // Reads the entries logged since the last read; true when there were any.
    // Throws ToolError when the read fails.
    bool extend(const Marivane::Logging::SqliteLogFile& file);

    // For each data source with entries, the number of its entries in each
    // of `bins` equal parts of [from, to] (to included); empty for a reversed
    // window or no bins.
    std::map<int8_t, std::vector<uint32_t>> counts(int64_t from, int64_t to, uint32_t bins) const;

    // The gaps of `source` that overlap [from, to], at most `limit` of them:
    // silences longer than `factor` times the source's median interval.
    std::vector<TimelineGap> gaps(int8_t source, int64_t from, int64_t to, std::size_t limit,
                                  double factor = 5.0) const;

    // The latest entry of `source` at or before `at`.
    std::optional<TimelinePoint> atOrBefore(int8_t source, int64_t at) const;
    // The first entry after `at` (strictly later), of `source` or, for
    // nullopt, of any source; and the last one strictly before `at`.
    std::optional<TimelinePoint> next(int64_t at, std::optional<int8_t> source) const;
    std::optional<TimelinePoint> previous(int64_t at, std::optional<int8_t> source) const;

    // The entries of `source` in [from, to]: all of them when there are at
    // most `limit`, otherwise `limit` spread evenly over them (first and last
    // included). `total` receives the number in the window.
    std::vector<TimelinePoint> sample(int8_t source, int64_t from, int64_t to, std::size_t limit,
                                      std::size_t& total) const;

    // The first and the last entry of `source` in time; absent without any.
    std::optional<TimelinePoint> firstOf(int8_t source) const;
    std::optional<TimelinePoint> lastOf(int8_t source) const;
    // The number of entries of `source` (0 for a source without entries).
    std::size_t countOf(int8_t source) const;
    std::size_t entryCount() const { return entries_; }
    std::optional<int64_t> firstTimestamp() const;
    std::optional<int64_t> lastTimestamp() const;
    // The median interval between entries of `source`, in milliseconds (0
    // with fewer than two entries).
    int64_t medianInterval(int8_t source) const;

private:
    // A source's median interval and its gaps (longer than the factor times
    // that), worked out on first use after the entries changed.
    struct Silences {
        int64_t medianInterval = 0;
        double factor = 0;
        std::vector<TimelineGap> gaps;
    };

    void read(const Marivane::Logging::SqliteLogFile& file, int32_t afterId);
    const Silences& silences(int8_t source, double factor) const;

    std::map<int8_t, std::vector<TimelinePoint>> points_;
    mutable std::map<int8_t, Silences> silences_;
    std::size_t entries_ = 0;
    int32_t lastId_ = 0;
};

}  // namespace Mvlog
