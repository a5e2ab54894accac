#include <logging/EntryScan.h>
#include <logging/SqliteLogFile.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <string>
#include <utility>

namespace Marivane::Logging {

namespace {

bool hasTimeBounds(const EntrySelection& selection) {
    return selection.startTimestamp != std::numeric_limits<int64_t>::min() ||
           selection.endTimestamp != std::numeric_limits<int64_t>::max();
}

// The ids of a time window come from the library's payload-free read, which
// uses the time index when the file has one.
std::vector<int32_t> idsInTimeWindow(const SqliteLogFile& file, const EntrySelection& selection) {
    std::vector<int32_t> ids;
    const EntryRange range{selection.from, selection.to, selection.startTimestamp, selection.endTimestamp};
    file.visitEntrySummaries(range, selection.filter, [&](const EntrySummary& entry) {
        ids.push_back(entry.entryId);
        return selection.limit < 0 || ids.size() < static_cast<std::size_t>(selection.limit);
    });
    return ids;
}

// The ids of a selection in time order when its entries are stored in time
// order already (timestamps never decrease with the ids), which one
// payload-free read in id order tells: the ids it lists are then the time
// order. Nothing when the read meets an entry it cannot list (whose place in
// time only SQLite's sort knows), a timestamp smaller than the one before, or
// a failure. Saves the time-ordered read its pass over the timestamps.
std::optional<std::vector<int32_t>> idsAlreadyInTimeOrder(const SqliteLogFile& file,
                                                          const EntrySelection& selection) {
    std::vector<int32_t> ids;
    const EntryRange range{selection.from, selection.to, selection.startTimestamp, selection.endTimestamp};
    const uint64_t failuresBefore = file.getFailureCount();
    bool inOrder = true;
    int64_t previous = std::numeric_limits<int64_t>::min();
    VisitOptions options;
    options.onDamagedEntry = [&](int64_t, const std::string&) {
        inOrder = false;
        return false;
    };
    const bool finished = file.visitEntrySummaries(
        range, selection.filter,
        [&](const EntrySummary& entry) {
            if (entry.timestamp < previous) {
                inOrder = false;
                return false;
            }
            previous = entry.timestamp;
            // Past the limit the timestamps are still read: a later entry
            // may come earlier in time.
            if (selection.limit < 0 || ids.size() < static_cast<std::size_t>(selection.limit)) {
                ids.push_back(entry.entryId);
            }
            return true;
        },
        options);
    if (!finished || !inOrder || file.getFailureCount() != failuresBefore) {
        return std::nullopt;
    }
    return ids;
}

// In time order the ids come from the same payload-free read, sorted by it.
std::vector<int32_t> idsInTimeOrder(const SqliteLogFile& file, const EntrySelection& selection) {
    std::vector<int32_t> ids;
    if (selection.limit == 0) {
        return ids;
    }
    const EntryRange range{selection.from, selection.to, selection.startTimestamp, selection.endTimestamp};
    VisitOptions options;
    options.order = EntryOrder::Time;
    // Entries whose stored values cannot be handed out are the scan's to
    // report; here they are only not listed.
    options.onDamagedEntry = [](int64_t, const std::string&) { return true; };
    file.visitEntrySummaries(
        range, selection.filter,
        [&](const EntrySummary& entry) {
            ids.push_back(entry.entryId);
            return selection.limit < 0 || ids.size() < static_cast<std::size_t>(selection.limit);
        },
        options);
    return ids;
}

// `storedInTimeOrder` tells whether a selection in time order found its
// entries stored in time order already (and read them by id).
std::vector<int32_t> selectIds(const SqliteLogFile& file, const EntrySelection& selection,
                               bool& storedInTimeOrder) {
    storedInTimeOrder = false;
    if (selection.order == EntryOrder::Time) {
        if (selection.limit != 0) {
            if (std::optional<std::vector<int32_t>> ids = idsAlreadyInTimeOrder(file, selection)) {
                storedInTimeOrder = true;
                return std::move(*ids);
            }
        }
        return idsInTimeOrder(file, selection);
    }
    if (hasTimeBounds(selection)) {
        return idsInTimeWindow(file, selection);
    }
    std::vector<int32_t> ids = file.getEntryIndex(selection.filter);
    // A crafted file can list an id twice (ids beyond 32 bits narrowed onto
    // small ones); each entry is visited once.
    std::sort(ids.begin(), ids.end());
    ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
    // Narrowed in place: a file of millions of entries lists megabytes of ids.
    if (selection.to != -1) {
        ids.erase(std::upper_bound(ids.begin(), ids.end(), selection.to), ids.end());
    }
    if (selection.from != -1) {
        ids.erase(ids.begin(), std::lower_bound(ids.begin(), ids.end(), selection.from));
    }
    if (selection.limit >= 0 && ids.size() > static_cast<std::size_t>(selection.limit)) {
        ids.resize(static_cast<std::size_t>(selection.limit));
    }
    ids.shrink_to_fit();
    return ids;
}

// The listed ids of a read in time order (distinct: each row is listed once,
// and an id beyond 32 bits not at all), each taken once, when the read meets
// it. The read meets them in the listed order unless a writer changed the
// file in between, so the next listed id is tried first; any other is looked
// up in the ids sorted, built on the first such miss. Two million ids take a
// bit each beside the list, where a hash set of them took a hundred
// megabytes.
class ListedIds {
public:
    explicit ListedIds(const std::vector<int32_t>& ids) : ids_(ids), taken_(ids.size(), false) {}

    // Whether `entryId` is listed and was not taken yet; takes it.
    bool take(int32_t entryId) {
        if (next_ < ids_.size() && ids_[next_] == entryId) {
            return takeAt(next_);
        }
        if (sorted_.empty() && !ids_.empty()) {
            sorted_.reserve(ids_.size());
            for (std::size_t position = 0; position < ids_.size(); ++position) {
                sorted_.emplace_back(ids_[position], position);
            }
            std::sort(sorted_.begin(), sorted_.end());
        }
        const auto found =
            std::lower_bound(sorted_.begin(), sorted_.end(), std::pair<int32_t, std::size_t>(entryId, 0));
        return found != sorted_.end() && found->first == entryId && takeAt(found->second);
    }
    bool taken(std::size_t position) const { return taken_[position]; }
    bool allTaken() const { return takenCount_ == ids_.size(); }

private:
    bool takeAt(std::size_t position) {
        if (taken_[position]) {
            return false;
        }
        taken_[position] = true;
        ++takenCount_;
        while (next_ < ids_.size() && taken_[next_]) {
            ++next_;
        }
        return true;
    }

    const std::vector<int32_t>& ids_;
    std::vector<bool> taken_;
    std::vector<std::pair<int32_t, std::size_t>> sorted_;
    std::size_t next_ = 0;
    std::size_t takenCount_ = 0;
};

}  // namespace

EntryScan::EntryScan(const SqliteLogFile& file, EntrySelection selection)
    : file_(file), selection_(std::move(selection)), ids_(selectIds(file, selection_, storedInTimeOrder_)) {
    for (const DataSource& source : file_.getDataSources()) {
        sources_.insert(source.id);
    }
}

bool EntryScan::coversWholeFile() const {
    const EntryIndexFilter& filter = selection_.filter;
    return selection_.from == -1 && selection_.to == -1 && !hasTimeBounds(selection_) &&
           selection_.limit < 0 && filter.dataTypes.empty() && filter.dataSources.empty() &&
           filter.dataSourceTypes.empty();
}

void EntryScan::run(const EntryHandler& onEntry, const DamageHandler& onDamaged) {
    if (selection_.order == EntryOrder::Time) {
        runInTimeOrder(onEntry, onDamaged);
        return;
    }
    met_ = 0;
    const bool limited = selection_.limit >= 0;
    if (limited && ids_.empty()) {
        return;
    }
    // Without a limit the read runs over the whole selection, so that rows the
    // index cannot list (ids beyond 32 bits, entries of a data source the file
    // does not have) are still reported.
    const EntryRange range{selection_.from, limited ? ids_.back() : selection_.to, selection_.startTimestamp,
                           selection_.endTimestamp};
    std::size_t next = 0;
    // Listed ids the read went past are read one by one after it: by then it
    // is known which of them are only the narrowed form of an id beyond 32
    // bits (the row is reported under its real id).
    std::vector<int32_t> passedOver;
    std::set<int32_t> narrowedForms;
    // Whether the read's entry is the next listed one (which it then takes).
    const auto takeListed = [&](int64_t entryId) {
        while (next < ids_.size() && ids_[next] < entryId) {
            passedOver.push_back(ids_[next++]);
        }
        if (next < ids_.size() && ids_[next] == entryId) {
            ++next;
            return true;
        }
        return false;
    };
    VisitOptions options = optionsReportingTo(onDamaged);
    options.onDamagedEntry = [&](int64_t entryId, const std::string& reason) {
        if (entryId < std::numeric_limits<int32_t>::min() || entryId > std::numeric_limits<int32_t>::max()) {
            // The index keeps the low 32 bits, as SQLite's 32-bit read does.
            narrowedForms.insert(static_cast<int32_t>(static_cast<uint32_t>(entryId)));
        } else {
            takeListed(entryId);
        }
        report(onDamaged, {entryId, reason});
        return true;
    };
    file_.visitEntries(
        range, selection_.filter,
        [&](const EntryView& view) {
            // Other unlisted entries: a writer added them since.
            if (takeListed(view.entryId) || !fileHasSource(view.dataSourceId)) {
                deliver(view, onEntry, onDamaged);
            }
            return !limited || next < ids_.size();
        },
        options);
    // What the read went past, then, after a failure inside the database,
    // what it did not reach (all of it above what it went past).
    passedOver.insert(passedOver.end(), ids_.begin() + static_cast<std::ptrdiff_t>(next), ids_.end());
    for (const int32_t entryId : passedOver) {
        readSingle(entryId, narrowedForms.count(entryId) != 0, onEntry, onDamaged);
    }
}

// As run in id order, except that the read's ids do not ascend: a listed id
// is taken when the read meets it, and whatever is left when the read ends
// (passed over, or beyond a failure inside the database) is read one by one,
// in time order.
void EntryScan::runInTimeOrder(const EntryHandler& onEntry, const DamageHandler& onDamaged) {
    met_ = 0;
    const bool limited = selection_.limit >= 0;
    if (limited && ids_.empty()) {
        return;
    }
    ListedIds pending(ids_);
    std::set<int32_t> narrowedForms;
    const auto takeListed = [&](int64_t entryId) {
        return entryId >= std::numeric_limits<int32_t>::min() &&
               entryId <= std::numeric_limits<int32_t>::max() && pending.take(static_cast<int32_t>(entryId));
    };
    VisitOptions options = optionsReportingTo(onDamaged);
    // Entries stored in time order are read by id: the same entries in the
    // same order, without the time-ordered read's pass over the timestamps.
    options.order = storedInTimeOrder_ ? EntryOrder::Id : EntryOrder::Time;
    options.onDamagedEntry = [&](int64_t entryId, const std::string& reason) {
        if (entryId < std::numeric_limits<int32_t>::min() || entryId > std::numeric_limits<int32_t>::max()) {
            narrowedForms.insert(static_cast<int32_t>(static_cast<uint32_t>(entryId)));
        } else {
            takeListed(entryId);
        }
        report(onDamaged, {entryId, reason});
        return true;
    };
    const EntryRange range{selection_.from, selection_.to, selection_.startTimestamp,
                           selection_.endTimestamp};
    file_.visitEntries(
        range, selection_.filter,
        [&](const EntryView& view) {
            if (takeListed(view.entryId) || !fileHasSource(view.dataSourceId)) {
                deliver(view, onEntry, onDamaged);
            }
            return !limited || !pending.allTaken();
        },
        options);
    for (std::size_t position = 0; position < ids_.size(); ++position) {
        if (!pending.taken(position)) {
            const int32_t entryId = ids_[position];
            readSingle(entryId, narrowedForms.count(entryId) != 0, onEntry, onDamaged);
        }
    }
}

bool EntryScan::runWholeFileUnlisted(const SqliteLogFile& file, int64_t countedEntries,
                                     const EntryHandler& onEntry, const DamageHandler& onDamaged,
                                     bool verifyChecksums, const std::function<bool()>& stillWanted) {
    std::set<int8_t> sources;
    for (const DataSource& source : file.getDataSources()) {
        sources.insert(source.id);
    }
    const uint64_t failuresBefore = file.getFailureCount();
    bool inOrder = true;
    int64_t read = 0;
    VisitOptions options;
    options.payloadForm = PayloadForm::Stored;
    options.verifyChecksums = verifyChecksums;
    options.onDamagedEntry = [&](int64_t, const std::string&) {
        inOrder = false;
        return false;
    };
    const bool finished = file.visitEntries(
        EntryRange::all(), EntryIndexFilter(),
        [&](const EntryView& view) {
            // More entries than counted: a writer added them since, which
            // the listed scan leaves out.
            if (sources.count(view.dataSourceId) == 0 || ++read > countedEntries) {
                inOrder = false;
                return false;
            }
            try {
                onEntry(ScannedEntry(view));
            } catch (const Compression::CompressionError& error) {
                onDamaged({view.entryId, std::string("payload cannot be expanded: ") + error.what()});
            }
            if (stillWanted && !stillWanted()) {
                inOrder = false;
                return false;
            }
            return true;
        },
        options);
    return finished && inOrder && read == countedEntries && file.getFailureCount() == failuresBefore;
}

void EntryScan::report(const DamageHandler& onDamaged, const DamagedEntry& entry) {
    ++met_;
    onDamaged(entry);
}

bool EntryScan::fileHasSource(int8_t dataSourceId) {
    if (sources_.count(dataSourceId) != 0) {
        return true;
    }
    // A writer may have added the source since the scan began.
    for (const DataSource& source : file_.getDataSources()) {
        sources_.insert(source.id);
    }
    return sources_.count(dataSourceId) != 0;
}

VisitOptions EntryScan::optionsReportingTo(const DamageHandler& onDamaged) {
    VisitOptions options;
    options.payloadForm = PayloadForm::Stored;
    options.verifyChecksums = verifyChecksums_;
    options.onDamagedEntry = [this, &onDamaged](int64_t entryId, const std::string& reason) {
        report(onDamaged, {entryId, reason});
        return true;
    };
    return options;
}

void EntryScan::deliver(const EntryView& view, const EntryHandler& onEntry, const DamageHandler& onDamaged) {
    // The index leaves such an entry out, but a read by id or by time finds it.
    if (!fileHasSource(view.dataSourceId)) {
        report(onDamaged, {view.entryId,
                           "refers to data source " + std::to_string(view.dataSourceId) +
                               ", which the file does not have",
                           true});
        return;
    }
    try {
        ++met_;
        onEntry(ScannedEntry(view));
    } catch (const Compression::CompressionError& error) {
        // Counted once, above.
        onDamaged({view.entryId, std::string("payload cannot be expanded: ") + error.what()});
    }
}

void EntryScan::readSingle(int32_t entryId, bool mayBeNarrowed, const EntryHandler& onEntry,
                           const DamageHandler& onDamaged) {
    bool found = false;
    VisitOptions options = optionsReportingTo(onDamaged);
    options.onDamagedEntry = [&](int64_t damagedId, const std::string& reason) {
        found = true;
        report(onDamaged, {damagedId, reason});
        return true;
    };
    file_.visitEntries(
        EntryRange{entryId, entryId}, EntryIndexFilter(),
        [&](const EntryView& view) {
            found = true;
            deliver(view, onEntry, onDamaged);
            return false;
        },
        options);
    if (!found && !mayBeNarrowed) {
        // An id from the index that yields no row sits on a page that cannot
        // be read (or had its stored values reported above).
        report(onDamaged, {entryId, "listed in the index but its row cannot be read"});
    }
}

}  // namespace Marivane::Logging
