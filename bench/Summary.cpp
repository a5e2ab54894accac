#include "Summary.h"

#include "BenchSupport.h"
#include "Benchmarks.h"
#include "RawLogFile.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iterator>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace Marivane::Bench {

namespace {

using Figures = std::map<std::string, std::vector<Figure>>;

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2.0;
}

// The rounds of a benchmark, when every one of them ran without error.
const std::vector<Figure>* rounds(const Figures& figures, const std::string& name) {
    const auto it = figures.find(name);
    if (it == figures.end() || it->second.empty()) {
        return nullptr;
    }
    for (const Figure& figure : it->second) {
        if (!figure.error.empty()) {
            return nullptr;
        }
    }
    return &it->second;
}

// The median of every quantity over the rounds.
std::optional<Figure> find(const Figures& figures, const std::string& name) {
    const std::vector<Figure>* runs = rounds(figures, name);
    if (!runs) {
        return std::nullopt;
    }
    auto medianOf = [runs](auto field) {
        std::vector<double> values;
        for (const Figure& figure : *runs) {
            values.push_back(field(figure));
        }
        return median(values);
    };
    Figure result;
    result.itemsPerSecond = medianOf([](const Figure& figure) { return figure.itemsPerSecond; });
    result.bytesPerSecond = medianOf([](const Figure& figure) { return figure.bytesPerSecond; });
    for (const auto& [key, value] : runs->front().counters) {
        result.counters[key] = medianOf([&key](const Figure& figure) {
            const auto it = figure.counters.find(key);
            return it == figure.counters.end() ? 0.0 : it->second;
        });
    }
    return result;
}

struct Ratio {
    double median = 0;
    double lowest = 0;
    double highest = 0;
};

// The median of the ratios of runs made in the same round: each ratio pairs
// two runs a few seconds apart, so a slow stretch of the machine cancels out.
// The lowest and highest show how far the rounds disagreed.
std::optional<Ratio> pairedRatio(const Figures& figures, const std::string& library,
                                 const std::string& baseline) {
    const std::vector<Figure>* lib = rounds(figures, library);
    const std::vector<Figure>* base = rounds(figures, baseline);
    if (!lib || !base) {
        return std::nullopt;
    }
    std::vector<double> ratios;
    for (std::size_t round = 0; round < std::min(lib->size(), base->size()); ++round) {
        if ((*base)[round].itemsPerSecond > 0) {
            ratios.push_back((*lib)[round].itemsPerSecond / (*base)[round].itemsPerSecond);
        }
    }
    if (ratios.empty()) {
        return std::nullopt;
    }
    const auto [lowest, highest] = std::minmax_element(ratios.begin(), ratios.end());
    return Ratio{median(ratios), *lowest, *highest};
}

std::string format(const char* pattern, double value) {
    char text[64];
    std::snprintf(text, sizeof text, pattern, value);
    return text;
}

std::string rate(double perSecond) {
    if (perSecond >= 1e6) {
        return format("%.2fM/s", perSecond / 1e6);
    }
    if (perSecond >= 1e3) {
        return format("%.1fk/s", perSecond / 1e3);
    }
    return format("%.1f/s", perSecond);
}

std::string mebibytes(double bytesPerSecond) {
    return format("%.1f MiB/s", bytesPerSecond / (1024.0 * 1024.0));
}

class Table {
public:
    explicit Table(std::ostream& out) : out_(out) {}

    void section(const std::string& title) {
        out_ << "\n" << title << "\n";
        line("figure", "library", "baseline", "lib MiB/s", "ratio", "rounds", "target", "status");
    }

    // A throughput pair: entries per second of both, their ratio, and the
    // verdict when there is a target.
    void pair(const Figures& figures, const std::string& label, const std::string& library,
              const std::string& baseline, std::optional<double> target) {
        const std::optional<Figure> lib = find(figures, library);
        const std::optional<Figure> base = find(figures, baseline);
        const std::optional<Ratio> ratio = pairedRatio(figures, library, baseline);
        const std::string targetText = target ? format(">=%.2fx", *target) : "-";
        if (!lib || !base || !ratio) {
            line(label, lib ? rate(lib->itemsPerSecond) : "n/a", base ? rate(base->itemsPerSecond) : "n/a",
                 "", "n/a", "", targetText, target ? verdict(std::nullopt) : "");
            return;
        }
        line(label, rate(lib->itemsPerSecond), rate(base->itemsPerSecond),
             lib->bytesPerSecond > 0 ? mebibytes(lib->bytesPerSecond) : "-", format("%.2fx", ratio->median),
             format("%.2f", ratio->lowest) + "-" + format("%.2f", ratio->highest), targetText,
             target ? verdict(ratio->median >= *target) : "");
    }

    // A measured value against an upper bound.
    void bound(const std::string& label, std::optional<double> value, const std::string& unit,
               std::optional<double> limit) {
        const std::string valueText = value ? format("%.3f", *value) + " " + unit : "n/a";
        const std::string limitText = limit ? format("<%g", *limit) + " " + unit : "-";
        std::optional<bool> met;
        if (value && limit) {
            met = *value < *limit;
        }
        line(label, valueText, "", "", "", "", limitText, limit ? verdict(met) : "");
    }

    // A measured value against an inclusive upper bound.
    void atMost(const std::string& label, std::optional<double> value, const std::string& unit,
                double limit) {
        const std::string valueText = value ? format("%.3f", *value) + " " + unit : "n/a";
        std::optional<bool> met;
        if (value) {
            met = *value <= limit;
        }
        line(label, valueText, "", "", "", "", format("<=%g", limit) + " " + unit, verdict(met));
    }

    void totals() {
        out_ << "\nTargets: " << met_ << " MET, " << notMet_ << " NOT MET";
        if (unknown_ > 0) {
            out_ << ", " << unknown_ << " not measured";
        }
        out_ << "\n";
    }

private:
    std::string verdict(std::optional<bool> met) {
        if (!met) {
            ++unknown_;
            return "n/a";
        }
        ++(*met ? met_ : notMet_);
        return *met ? "MET" : "NOT MET";
    }

    void line(const std::string& label, const std::string& library, const std::string& baseline,
              const std::string& libraryBytes, const std::string& ratio, const std::string& spread,
              const std::string& target, const std::string& status) {
        char text[256];
        std::snprintf(text, sizeof text, "  %-40s %13s %13s %15s %7s %10s %8s  %s", label.c_str(),
                      library.c_str(), baseline.c_str(), libraryBytes.c_str(), ratio.c_str(), spread.c_str(),
                      target.c_str(), status.c_str());
        out_ << text << "\n";
    }

    std::ostream& out_;
    int met_ = 0;
    int notMet_ = 0;
    int unknown_ = 0;
};

// Built by appending: GCC 12 warns falsely (restrict) on a literal prefixed to
// a temporary string in these loops.
std::string label(const std::string& what, int level, std::size_t size) {
    std::string text = what;
    text += ' ';
    text += levelLabel(level);
    text += ' ';
    text += sizeLabel(size);
    return text;
}

std::optional<double> counter(const Figures& figures, const std::string& name, const std::string& key) {
    const std::optional<Figure> figure = find(figures, name);
    if (!figure) {
        return std::nullopt;
    }
    const auto it = figure->counters.find(key);
    return it == figure->counters.end() ? std::nullopt : std::optional<double>(it->second);
}

// Whole tasks per second on both sides, so that the ratio is the full
// decode's time over the selective read's: how many times sooner the
// answer is there.
void printSelectiveReads(const Figures& figures, Table& table) {
    table.section(
        "Selective reads of ten interleaved 100 Hz sources, level -1, tasks per second (baseline: the raw "
        "view scan decoding all ten)");
    for (std::size_t size : {std::size_t{1024}, std::size_t{16 * 1024}}) {
        table.pair(figures, label("one source of ten", -1, size),
                   selectiveName("oneSource", "library", -1, size),
                   selectiveName("fullDecode", "raw", -1, size), 2.0);
        table.pair(figures, label("one-second window, no index", -1, size),
                   selectiveName("window", "library", -1, size), selectiveName("fullDecode", "raw", -1, size),
                   std::nullopt);
        table.pair(figures, label("one-second window, time index", -1, size),
                   selectiveName("windowIndexed", "library", -1, size),
                   selectiveName("fullDecodeIndexed", "raw", -1, size), std::nullopt);
    }
}

void printPageSizeTable(const Figures& figures, std::ostream& out) {
    out << "\nPage-size sweep (raw baseline, level 0, entries/s; * marks the best of a row)\n";
    char text[256];
    std::snprintf(text, sizeof text, "  %-24s", "mode / payload");
    out << text;
    for (int pageSize : kPageSizes) {
        std::snprintf(text, sizeof text, " %12s", sizeLabel(static_cast<std::size_t>(pageSize)).c_str());
        out << text;
    }
    out << "\n";

    // Each page size's throughput relative to the best of its row, combined
    // over the rows by geometric mean: every row weighs the same, whatever its
    // absolute speed.
    std::map<int, double> logRelativeSum;
    int rows = 0;
    for (const char* mode : {"transaction", "autocommit"}) {
        for (std::size_t size : kPayloadSizes) {
            std::map<int, double> row;
            double best = 0;
            for (int pageSize : kPageSizes) {
                if (const std::optional<Figure> figure = find(figures, pageSizeName(mode, pageSize, size))) {
                    row[pageSize] = figure->itemsPerSecond;
                    best = std::max(best, figure->itemsPerSecond);
                }
            }
            std::snprintf(text, sizeof text, "  %-24s",
                          (std::string(mode) + " / " + sizeLabel(size)).c_str());
            out << text;
            for (int pageSize : kPageSizes) {
                const auto it = row.find(pageSize);
                const std::string cell =
                    it == row.end() ? "n/a" : rate(it->second) + (it->second == best ? "*" : " ");
                std::snprintf(text, sizeof text, " %12s", cell.c_str());
                out << text;
            }
            out << "\n";
            if (row.size() == std::size(kPageSizes) && best > 0) {
                ++rows;
                for (const auto& [pageSize, value] : row) {
                    logRelativeSum[pageSize] += std::log(value / best);
                }
            }
        }
    }
    if (rows == 0) {
        out << "  (not measured)\n";
        return;
    }
    std::snprintf(text, sizeof text, "  %-24s", "relative (geo. mean)");
    out << text;
    int bestPageSize = 0;
    double bestScore = 0;
    for (int pageSize : kPageSizes) {
        const double score = std::exp(logRelativeSum[pageSize] / rows);
        if (score > bestScore) {
            bestScore = score;
            bestPageSize = pageSize;
        }
        std::snprintf(text, sizeof text, " %12s", format("%.3f", score).c_str());
        out << text;
    }
    out << "\n  Best overall: " << sizeLabel(static_cast<std::size_t>(bestPageSize)) << " pages ("
        << format("%.1f%%", 100.0 * bestScore) << " of the best per row, on geometric mean over " << rows
        << " rows)\n";
}

// Peak memory on the large files, and how long each command took (no target).
void printLargeFileMemory(const Figures& figures, Table& table, std::ostream& out) {
    out << "\nPeak resident memory on large files, each a process of its own; mvlog once each, its peak from "
           "wait4\n(5 GiB file: 20,480 entries of 256 KiB at level 0, built once per run in "
        << format("%.1f", counter(figures, largeFileName("build"), "build_s").value_or(0))
        << " s; 1 GiB file: that of the derived files)\n";
    table.bound("visitEntries over the whole file (5 GiB)",
                counter(figures, largeFileName("stream"), "peak_rss_mib"), "MiB", 16.0);
    const std::vector<std::pair<const char*, const char*>> commands = {
        {"cat", "mvlog cat > file (5 GiB)"}, {"info", "mvlog info (5 GiB)"},
        {"check", "mvlog check (5 GiB)"},    {"slice", "mvlog slice, middle half (1 GiB)"},
        {"clone", "mvlog clone (1 GiB)"},    {"merge", "mvlog merge, two halves (1 GiB)"}};
    for (const auto& [command, what] : commands) {
        const std::string name = largeToolName(command);
        table.bound(std::string(what) + ", peak", counter(figures, name, "peak_rss_mib"), "MiB", 32.0);
        table.bound(std::string(what) + ", wall", counter(figures, name, "wall_s"), "s", std::nullopt);
    }
}

}  // namespace

void CollectingReporter::ReportRuns(const std::vector<Run>& runs) {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
        if (run.run_type != Run::RT_Iteration) {
            continue;
        }
        Figure figure;
        if (run.error_occurred) {
            figure.error = run.error_message.empty() ? "error" : run.error_message;
        }
        for (const auto& [key, value] : run.counters) {
            figure.counters[key] = value.value;
        }
        figure.itemsPerSecond = figure.counters["items_per_second"];
        figure.bytesPerSecond = figure.counters["bytes_per_second"];
        figures_[withoutRound(run.run_name.function_name)].push_back(std::move(figure));
    }
}

void printSummary(const Figures& figures, std::ostream& out) {
    out << "\n==== Summary: library against the raw SQLite/zstd baseline, same run ====\n"
        << "Entries per second of the benchmark thread's CPU time, median over the rounds (" << kRounds
        << " for most figures).\n"
        << "ratio: median over the rounds of library / baseline measured in the same round; rounds: the "
           "lowest\n"
        << "and highest of those per-round ratios. Baseline files use the library's page size ("
        << sizeLabel(static_cast<std::size_t>(Raw::libraryPageSize())) << ").\n";
    Table table(out);

    table.section("Writes, one entry per call (baseline: reused statement, autocommit)");
    for (int level : kCompressionLevels) {
        for (std::size_t size : kPayloadSizes) {
            const std::string baseline = writeName("autocommit", "raw", level, size);
            table.pair(figures, label("logData", level, size),
                       writeName("autocommit", "logData", level, size), baseline, level == 0 ? 0.95 : 0.9);
            table.pair(figures, label("MV_LogFile_LogData", level, size),
                       writeName("autocommit", "capi", level, size), baseline, std::nullopt);
        }
    }

    table.section("Writes in one transaction (baseline: reused statement, one transaction)");
    for (int level : kCompressionLevels) {
        for (std::size_t size : kPayloadSizes) {
            table.pair(figures, label("logData in a batch", level, size),
                       writeName("transaction", "batch", level, size),
                       writeName("transaction", "raw", level, size),
                       level == 0 ? std::optional<double>(0.9) : std::nullopt);
        }
    }

    table.section(
        "Write batches against the naive loop (baseline: one prepared INSERT, one row per step, one "
        "transaction)");
    table.pair(figures, label("logData in a batch", 0, 64), writeName("transaction", "batch", 0, 64),
               writeName("transaction", "raw", 0, 64), 1.3);
    table.pair(figures, label("logData in a batch", 0, 1024), writeName("transaction", "batch", 0, 1024),
               writeName("transaction", "raw", 0, 1024), 1.1);
    table.atMost("process CPU per entry in a batch L0 64B",
                 counter(figures, writeName("transaction", "batch", 0, 64), "cpu_us_per_entry"), "us", 0.6);
    // SQLite's own floor for these rows: the raw loop with 64 rows per INSERT.
    table.pair(figures, label("batch / raw 64-row inserts", 0, 64), writeName("transaction", "batch", 0, 64),
               writeName("transaction", "rawManyRows", 0, 64), std::nullopt);
    table.pair(figures, label("batch / raw 64-row inserts", 0, 1024),
               writeName("transaction", "batch", 0, 1024), writeName("transaction", "rawManyRows", 0, 1024),
               std::nullopt);
    table.bound("process CPU per entry, raw 64-row inserts L0 64B",
                counter(figures, writeName("transaction", "rawManyRows", 0, 64), "cpu_us_per_entry"), "us",
                std::nullopt);

    table.section("Reads (baseline: reused statement; level -1 includes decompression)");
    for (int level : kCompressionLevels) {
        for (std::size_t size : kPayloadSizes) {
            table.pair(figures, label("readEntry", level, size), readName("byId", "library", level, size),
                       readName("byId", "raw", level, size), 0.9);
        }
    }
    for (int level : kCompressionLevels) {
        for (std::size_t size : kPayloadSizes) {
            table.pair(figures, label("readEntries (whole file)", level, size),
                       readName("scan", "library", level, size), readName("scan", "raw", level, size), 0.9);
        }
    }

    table.section("Streaming reads, whole file (baseline: one statement handing out views, reused buffer)");
    for (int level : kCompressionLevels) {
        for (std::size_t size : kPayloadSizes) {
            table.pair(figures, label("visitEntries", level, size),
                       readName("stream", "library", level, size), readName("stream", "raw", level, size),
                       0.95);
        }
    }
    table.atMost("visitEntries L0 64B, process CPU per row",
                 counter(figures, readName("stream", "library", 0, 64), "cpu_us_per_row"), "us", 0.12);
    table.section(
        "Reads without payloads, whole file (baseline: one statement of entryId, timestamp, type, "
        "dataSourceId, length)");
    table.pair(figures, label("visitEntrySummaries", 0, 64), readName("summaries", "library", 0, 64),
               readName("summaries", "raw", 0, 64), 1.0);
    table.section(
        "Expanding on every core (library: visitEntries with decompressionThreads 0; baseline column: the "
        "same "
        "read expanding on its own thread)");
    for (std::size_t size : kPayloadSizes) {
        table.pair(figures, label("visitEntries on every core", -1, size),
                   readName("stream", "threads", -1, size), readName("stream", "library", -1, size),
                   size >= 16 * 1024 ? 1.6 : 1.0);
    }
    table.section("Streaming against readEntries (library: visitEntries; baseline column: readEntries)");
    for (int level : kCompressionLevels) {
        for (std::size_t size : kPayloadSizes) {
            table.pair(figures, label("gain of visitEntries", level, size),
                       readName("stream", "library", level, size), readName("scan", "library", level, size),
                       std::nullopt);
        }
    }

    table.section("Entry index of a 1M-entry file (ids per second)");
    table.pair(figures, "getEntryIndex", indexName("library"), indexName("raw"), std::nullopt);

    table.section("Derived files from a 1 GiB file (baseline: raw copy in one transaction)");
    table.pair(figures, "Algorithms::clone (1 GiB)", deriveName("clone", "library"),
               deriveName("clone", "raw"), std::nullopt);
    table.pair(figures, "Algorithms::slice (middle 512 MiB)", deriveName("slice", "library"),
               deriveName("slice", "raw"), std::nullopt);
    table.pair(figures, "Algorithms::copy, filtered (1 GiB)", deriveName("copy", "library"),
               deriveName("clone", "raw"), 0.9);

    out << "\nPeak resident memory, each in a process of its own (1 GiB file of 256 KiB entries)\n";
    table.bound("visitEntries over the whole file", counter(figures, memoryName("stream"), "peak_rss_mib"),
                "MiB", 64.0);
    table.bound("Algorithms::copy, filtered", counter(figures, memoryName("copy"), "peak_rss_mib"), "MiB",
                64.0);
    table.bound("Algorithms::merge of two 512 MiB files", counter(figures, mergeName(), "peak_rss_mib"),
                "MiB", std::nullopt);
    table.bound("Algorithms::merge, entries per second", counter(figures, mergeName(), "items_per_second"),
                "/s", std::nullopt);

    out << "\nOne-second windows (100 entries) in a file of 5M entries of 64 B, mean of 20\n";
    table.bound("with the time index", counter(figures, windowName(), "indexed_window_ms"), "ms", 2.0);
    table.bound("without it (a scan)", counter(figures, windowName(), "scan_window_ms"), "ms", std::nullopt);
    table.bound("building the time index", counter(figures, windowName(), "index_build_s"), "s",
                std::nullopt);

    table.section("Recorder, open to close, wall time (baseline: logData in write batches)");
    for (int level : {-1, 1}) {
        for (std::size_t size : {std::size_t{16 * 1024}, std::size_t{256 * 1024}}) {
            table.pair(figures, label("Recorder", level, size), recorderName("recorder", level, size),
                       recorderName("batch", level, size), 1.7);
        }
    }
    for (std::size_t size : {std::size_t{64}, std::size_t{1024}}) {
        table.pair(figures, label("Recorder", 0, size), recorderName("recorder", 0, size),
                   recorderName("batch", 0, size), 0.9);
        table.pair(figures, label("Recorder vs logData, no batch", 0, size),
                   recorderName("recorder", 0, size), recorderName("autocommit", 0, size), 10.0);
    }
    table.section(
        "Recorder against a write batch, this round's targets (one compressor per core; at 16 and 256 KiB "
        "the recorder also builds the time index on close)");
    for (int level : {-1, 1}) {
        for (std::size_t size : {std::size_t{16 * 1024}, std::size_t{256 * 1024}}) {
            table.pair(figures, label("Recorder", level, size), recorderName("recorder", level, size),
                       recorderName("batch", level, size), 1.6);
        }
    }
    // The batch builds no time index; the recorder does on close unless told
    // not to. The target compares the same work: the file the batch writes.
    for (std::size_t size : {std::size_t{64}, std::size_t{1024}}) {
        table.pair(figures, label("Recorder, no time index", 0, size),
                   recorderName("recorderNoIndex", 0, size), recorderName("batch", 0, size), 0.95);
        table.pair(figures, label("Recorder, with time index", 0, size), recorderName("recorder", 0, size),
                   recorderName("batch", 0, size), std::nullopt);
    }
    table.section("Safe against fast durability, wall time (library: safe; baseline column: fast)");
    for (std::size_t size : kPayloadSizes) {
        table.pair(figures, label("logData, no batch", -1, size),
                   writeName("durability", "logDataSafe", -1, size),
                   writeName("durability", "logDataFast", -1, size), std::nullopt);
        table.pair(figures, label("logData in a batch", -1, size),
                   writeName("durability", "batchSafe", -1, size),
                   writeName("durability", "batchFast", -1, size), std::nullopt);
    }
    for (int level : {-1, 1}) {
        for (std::size_t size : {std::size_t{16 * 1024}, std::size_t{256 * 1024}}) {
            table.pair(figures, label("Recorder", level, size), recorderName("recorderSafe", level, size),
                       recorderName("recorder", level, size), 0.8);
        }
    }

    table.section(
        "Entry checksums: write batches with checksums against without (library: with; baseline column: "
        "without)");
    for (int level : {0, -1}) {
        for (std::size_t size : {std::size_t{1024}, std::size_t{16 * 1024}, std::size_t{256 * 1024}}) {
            table.pair(figures, label("logData in a batch", level, size),
                       writeName("checksums", "batchChecked", level, size),
                       writeName("checksums", "batch", level, size), 0.95);
        }
    }

    table.section(
        "The recorder's default (balanced: survives a kill) against fast, wall time (library: balanced; "
        "baseline column: fast)");
    for (std::size_t size : {std::size_t{1024}, std::size_t{64 * 1024}}) {
        table.pair(figures, label("Recorder", 0, size), recorderName("recorderBalanced", 0, size),
                   recorderName("recorderFast", 0, size), 0.85);
    }
    for (int level : {-1, 1}) {
        for (std::size_t size : {std::size_t{16 * 1024}, std::size_t{256 * 1024}}) {
            table.pair(figures, label("Recorder", level, size), recorderName("recorderBalanced", level, size),
                       recorderName("recorder", level, size), 0.85);
        }
    }

    out << "\nrecord() on the capture thread (level -1, writer busy)\n";
    for (std::size_t size : {std::size_t{64}, std::size_t{16 * 1024}}) {
        const std::string name = recorderLatencyName(size);
        table.bound("median " + sizeLabel(size), counter(figures, name, "median_us"), "us", std::nullopt);
        table.bound("p99 " + sizeLabel(size), counter(figures, name, "p99_us"), "us", 20.0);
        table.bound("max " + sizeLabel(size), counter(figures, name, "max_us"), "us", std::nullopt);
    }
    out << "\nOverload: 40000 calls of 16 KiB at level -1 into a 1 MiB queue, drop-newest\n";
    table.bound("p99 of record()", counter(figures, recorderOverloadName(), "p99_us"), "us", 20.0);
    table.bound("max of record()", counter(figures, recorderOverloadName(), "max_us"), "us", std::nullopt);
    table.bound("accepted", counter(figures, recorderOverloadName(), "accepted"), "", std::nullopt);
    table.bound("dropped", counter(figures, recorderOverloadName(), "dropped"), "", std::nullopt);
    const std::optional<double> accounted = counter(figures, recorderOverloadName(), "accounted");
    const std::optional<double> matches = counter(figures, recorderOverloadName(), "file_matches");
    // 1 when true: "below 0.5" would read as false, so the bound is on 1 - x.
    table.bound("accepted + dropped != calls (0 = exact)",
                accounted ? std::optional<double>(1.0 - *accounted) : std::nullopt, "", 0.5);
    table.bound("file differs from what was accepted (0 = same)",
                matches ? std::optional<double>(1.0 - *matches) : std::nullopt, "", 0.5);
    out << "\nLive reading: a safe-mode recording (commits every 10 ms) read by a second connection polling "
           "every 1 ms\n";
    table.bound("median lag from record() to the reader", counter(figures, liveLagName(), "median_lag_ms"),
                "ms", std::nullopt);
    table.bound("p99 lag", counter(figures, liveLagName(), "p99_lag_ms"), "ms", std::nullopt);
    table.bound("entries seen (of 1000)", counter(figures, liveLagName(), "seen"), "", std::nullopt);
    out << "\nRecorder peak memory (16 KiB at level -1, 20000 entries, queue budget "
        << (kRecorderMemoryBudget >> 20) << " MiB)\n";
    table.bound("peak resident memory", counter(figures, memoryName("recorder"), "peak_rss_mib"), "MiB",
                std::nullopt);

    for (const auto& [pacing, title] : {std::pair{"exact", "exact pacing (Pacing::Exact)"},
                                        std::pair{"pacing", "default pacing (whole milliseconds carried)"}}) {
        const bool exact = std::string(pacing) == "exact";
        const std::string name = playerName(pacing);
        out << "\nPlayer at 100 Hz (maxFrameDelay 1000 ms), " << title << "\n";
        table.bound("median pacing error", counter(figures, name, "median_error_ms"), "ms",
                    exact ? std::optional<double>(1.0) : std::nullopt);
        table.bound("p99 pacing error", counter(figures, name, "p99_error_ms"), "ms",
                    exact ? std::optional<double>(5.0) : std::nullopt);
        table.bound("max pacing error", counter(figures, name, "max_error_ms"), "ms", std::nullopt);
        table.bound("signed error of the last frame (drift)", counter(figures, name, "drift_ms"), "ms",
                    std::nullopt);
        table.bound("process CPU per second of playback", counter(figures, name, "cpu_ms_per_s"), "ms",
                    std::nullopt);
    }

    table.section(
        "Time order in the recorder, open to close, wall time, three sources lagging by up to 40 ms "
        "(library: 100 ms reorder window; baseline: none)");
    for (const auto& [level, size] : {std::pair{0, std::size_t{64}}, std::pair{0, std::size_t{1024}},
                                      std::pair{-1, std::size_t{16 * 1024}}}) {
        table.pair(figures, label("Recorder", level, size), recorderName("window100", level, size),
                   recorderName("noWindow", level, size), std::nullopt);
    }
    table.section(
        "The recorder's close with the time index (the default) against without, open to close, wall time "
        "(library: with; baseline: without)");
    for (const auto& [level, size] : {std::pair{0, std::size_t{64}}, std::pair{0, std::size_t{1024}},
                                      std::pair{-1, std::size_t{16 * 1024}}}) {
        table.pair(figures, label("Recorder", level, size), recorderName("closeIndexed", level, size),
                   recorderName("closePlain", level, size), std::nullopt);
    }
    out << "\nThe recorder's close() after a flush, median (with the time index / without)\n";
    for (const auto& [level, size] : {std::pair{0, std::size_t{64}}, std::pair{0, std::size_t{1024}},
                                      std::pair{-1, std::size_t{16 * 1024}}}) {
        table.bound("with the index " + levelLabel(level) + " " + sizeLabel(size),
                    counter(figures, recorderName("closeIndexed", level, size), "close_ms"), "ms",
                    std::nullopt);
        table.bound("without " + levelLabel(level) + " " + sizeLabel(size),
                    counter(figures, recorderName("closePlain", level, size), "close_ms"), "ms",
                    std::nullopt);
    }
    table.bound("late entries with the window (64 B)",
                counter(figures, recorderName("window100", 0, 64), "late"), "", std::nullopt);
    table.bound("late entries without (64 B)", counter(figures, recorderName("noWindow", 0, 64), "late"), "",
                std::nullopt);

    table.section(
        "Streaming reads in time order, whole file (library: time order; "
        "baseline column: id order of the same file)");
    const std::vector<std::tuple<const char*, const char*, std::optional<double>>> orderRows = {
        {"orderedIndexed", "ids follow time, time index", 0.9},
        {"ordered", "ids follow time, no index", 0.8},
        {"shuffled", "shuffled, no index", std::nullopt},
        {"shuffledIndexed", "shuffled, time index", std::nullopt},
    };
    for (const auto& [file, what, target] : orderRows) {
        for (int level : kCompressionLevels) {
            for (std::size_t size : kPayloadSizes) {
                table.pair(figures, label(what, level, size), readName(file, "byTime", level, size),
                           readName(file, "byId", level, size), target);
            }
        }
    }
    out << "\nOne-second windows through the time index (100 entries of 5M), mean of 20\n";
    table.bound("in id order", counter(figures, windowName(), "indexed_window_ms"), "ms", 0.5);
    table.bound("in time order", counter(figures, windowName(), "indexed_time_window_ms"), "ms", 0.5);

    const std::vector<std::pair<const char*, double>> toolTargets = {
        {"info", 1.0}, {"check", 3.0}, {"cat", 3.0}};
    const std::vector<std::pair<const char*, const char*>> toolFiles = {
        {"noise", "payloads of noise, stored as they are"},
        {"walk", "pieces of a random walk, some entropy-coded"}};
    for (const auto& [payloads, description] : toolFiles) {
        out << "\nmvlog on 2,000,000 entries of 64 B at level -1, " << description
            << "; each command a process of its own\n"
               "(times: median of 3 runs; peak resident memory: the highest of them, from wait4)\n";
        for (const auto& [command, seconds] : toolTargets) {
            const std::string name = toolName(command, payloads);
            const std::string what =
                std::string("mvlog ") + command + (std::string(command) == "cat" ? " > file" : "");
            table.atMost(what + ", wall time", counter(figures, name, "wall_s"), "s", seconds);
            table.bound(what + ", CPU time", counter(figures, name, "cpu_s"), "s", std::nullopt);
            table.bound(what + ", peak memory", counter(figures, name, "peak_rss_mib"), "MiB", 32.0);
        }
    }
    printLargeFileMemory(figures, table, out);
    printSelectiveReads(figures, table);

    table.totals();
    for (const auto& [name, runs] : figures) {
        for (const Figure& figure : runs) {
            if (!figure.error.empty()) {
                out << "  failed: " << name << ": " << figure.error << "\n";
            }
        }
    }
    printPageSizeTable(figures, out);
}

}  // namespace Marivane::Bench
