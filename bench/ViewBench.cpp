// mvlog view's server on a file of five million entries: how long it takes
// to start, to answer a timeline at every zoom and to hand out the camera
// frame at a cursor, through HTTP as the page asks, without and with the
// file's time index. Beside each, the raw SQLite/zstd baseline of the same
// question: counting the window's entries per bin with one query, and one
// frame read by id and expanded.

#include "BenchSupport.h"
#include "RawLogFile.h"
#include "view/ViewServer.h"

#include <logging/Logging.h>
#include <logging/PayloadEncoding.h>

#include <httplib.h>
#include <sqlite3.h>
#include <zstd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace Marivane;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kEntries = 5'000'000;
// An IMU at 1 kHz and a camera at 1 Hz (a 256x256 graymap, 64 KiB).
constexpr int64_t kStart = 1'700'000'000'000;
constexpr int kFrameSide = 256;
constexpr int kBins = 2000;
constexpr int kRepeats = 20;

double millisecondsSince(Clock::time_point started) {
    return std::chrono::duration<double, std::milli>(Clock::now() - started).count();
}

Logging::ByteBuffer cameraFrame(int64_t second) {
    const std::string header = "P5\n256 256\n255\n";
    Logging::ByteBuffer frame(header.size() + kFrameSide * kFrameSide);
    std::transform(header.begin(), header.end(), frame.begin(), [](char c) { return std::byte(c); });
    std::mt19937 noise(static_cast<unsigned>(second));
    for (int y = 0; y < kFrameSide; ++y) {
        for (int x = 0; x < kFrameSide; ++x) {
            const int value = (x + y + static_cast<int>(second)) % 256 + static_cast<int>(noise() % 8);
            frame[header.size() + static_cast<std::size_t>(y * kFrameSide + x)] = std::byte(value % 256);
        }
    }
    return frame;
}

// The recording: entries in time order, the camera's frame at each whole
// second; returns the span in milliseconds.
int64_t record(const std::string& path) {
    Logging::SqliteLogFile file(path, "Etc/UTC", "view-bench", "1.0", -1, kStart);
    Logging::DataSource imu{1, MV_LogDataSourceType_Navigation, "imu"};
    Logging::DataSource camera{2, MV_LogDataSourceType_Camera, "camera"};
    if (!file.addDataSource(imu) || !file.addDataSource(camera) ||
        !file.addDataSourceProperty(Logging::PayloadEncoding::property(2, "image/x-portable-graymap"))) {
        throw std::runtime_error(file.getLastError());
    }
    const Logging::ByteBuffer& reading = Bench::payload(64);
    std::size_t written = 0;
    int64_t at = 0;
    auto batch = file.beginBatch();
    for (; written < kEntries; ++at) {
        if (at % 1000 == 0) {
            file.logData(Logging::DataEntry{0, 2, 1, cameraFrame(at / 1000), kStart + at});
            ++written;
        }
        file.logData(Logging::DataEntry{0, 1, 2, reading, kStart + at});
        ++written;
        if (written % 200'000 < 2) {
            if (!batch.commit()) {
                throw std::runtime_error(file.getLastError());
            }
            batch = file.beginBatch();
        }
    }
    if (!batch.commit()) {
        throw std::runtime_error(file.getLastError());
    }
    return at;
}

class Client {
public:
    Client(const Mvlog::ViewServer& server)
        : client_("127.0.0.1", server.port()),
          headers_{{"X-Mvlog-Token", server.token()},
                   {"Host", "127.0.0.1:" + std::to_string(server.port())}} {
        client_.set_tcp_nodelay(true);
        client_.set_read_timeout(60, 0);
    }
    std::string get(const std::string& target) {
        const auto result = client_.Get(target.c_str(), headers_);
        if (!result || result->status != 200) {
            throw std::runtime_error("GET " + target + " failed" + (result ? ": " + result->body : ""));
        }
        return result->body;
    }

private:
    httplib::Client client_;
    httplib::Headers headers_;
};

struct Figures {
    double startMs = 0;
    double worstTimelineMs = 0;
    double meanTimelineMs = 0;
    double worstFrameMs = 0;
    double meanFrameMs = 0;
};

// The windows of the timeline: the whole file, then ten times narrower each
// step down to one second, each at several places.
std::vector<std::pair<int64_t, int64_t>> windows(int64_t span) {
    std::vector<std::pair<int64_t, int64_t>> result;
    for (int64_t width = span; width >= 1000; width /= 10) {
        for (int place = 0; place < 4; ++place) {
            const int64_t from = kStart + (span - width) * place / 4;
            result.emplace_back(from, from + width - 1);
        }
    }
    return result;
}

Figures measureServer(const std::string& path, int64_t span) {
    Figures figures;
    auto started = Clock::now();
    Mvlog::ViewOptions options;
    options.files = {path};
    Mvlog::ViewServer server(options);
    server.start();
    Client client(server);
    client.get("/api/files/0/summary");
    figures.startMs = millisecondsSince(started);

    const auto timeline = windows(span);
    double total = 0;
    for (const auto& [from, to] : timeline) {
        started = Clock::now();
        client.get("/api/files/0/bins?from=" + std::to_string(from) + "&to=" + std::to_string(to) +
                   "&bins=" + std::to_string(kBins));
        const double ms = millisecondsSince(started);
        figures.worstTimelineMs = std::max(figures.worstTimelineMs, ms);
        total += ms;
    }
    figures.meanTimelineMs = total / static_cast<double>(timeline.size());

    // The page's work for a cursor: where each source's entry is, then the
    // camera's payload.
    total = 0;
    for (int i = 0; i < kRepeats; ++i) {
        const int64_t at = kStart + span * (2 * i + 1) / (2 * kRepeats);
        started = Clock::now();
        const std::string cursor = client.get("/api/files/0/cursor?at=" + std::to_string(at));
        const std::string camera = "\"2\":{\"found\":true,\"entryId\":";
        const auto found = cursor.find(camera);
        if (found == std::string::npos) {
            throw std::runtime_error("no camera entry at " + std::to_string(at));
        }
        const int entryId = std::stoi(cursor.substr(found + camera.size()));
        const std::string frame = client.get("/api/files/0/entries/" + std::to_string(entryId) + "/payload");
        const double ms = millisecondsSince(started);
        if (frame.size() != 15 + kFrameSide * kFrameSide) {
            throw std::runtime_error("a frame came short");
        }
        figures.worstFrameMs = std::max(figures.worstFrameMs, ms);
        total += ms;
    }
    figures.meanFrameMs = total / kRepeats;
    server.stop();
    return figures;
}

// Baseline: one query counts the whole file's entries per bin and source.
double rawTimelineMs(const std::string& path, int64_t span) {
    Bench::Raw::Connection connection(path);
    Bench::Raw::Statement count(
        connection,
        "SELECT dataSourceId, (timestamp - :from) * :bins / :span, COUNT(*) FROM data "
        "WHERE timestamp BETWEEN :from AND :to GROUP BY 1, 2;");
    const auto started = Clock::now();
    sqlite3_stmt* statement = count.get();
    sqlite3_bind_int64(statement, 1, kStart);
    sqlite3_bind_int64(statement, 2, kBins);
    sqlite3_bind_int64(statement, 3, span);
    sqlite3_bind_int64(statement, 4, kStart + span - 1);
    std::size_t rows = 0;
    while (sqlite3_step(statement) == SQLITE_ROW) {
        ++rows;
    }
    if (rows == 0) {
        throw std::runtime_error("the raw count found nothing");
    }
    return millisecondsSince(started);
}

// Baseline: the camera frame at each cursor, read by id and expanded.
double rawFrameMs(const std::string& path, int64_t span) {
    Bench::Raw::Connection connection(path);
    Bench::Raw::Statement find(connection,
                               "SELECT payload FROM data WHERE dataSourceId = 2 AND timestamp <= :at "
                               "ORDER BY timestamp DESC LIMIT 1;");
    std::vector<char> expanded(1 << 20);
    const auto started = Clock::now();
    for (int i = 0; i < kRepeats; ++i) {
        sqlite3_stmt* statement = find.get();
        sqlite3_reset(statement);
        sqlite3_bind_int64(statement, 1, kStart + span * (2 * i + 1) / (2 * kRepeats));
        if (sqlite3_step(statement) != SQLITE_ROW) {
            throw std::runtime_error("the raw frame read found nothing");
        }
        const std::size_t size =
            ZSTD_decompress(expanded.data(), expanded.size(), sqlite3_column_blob(statement, 0),
                            static_cast<std::size_t>(sqlite3_column_bytes(statement, 0)));
        if (ZSTD_isError(size)) {
            throw std::runtime_error("the raw frame did not expand");
        }
    }
    return millisecondsSince(started) / kRepeats;
}

void row(const char* label, double value, const char* unit, double limit) {
    const char* status = limit <= 0 ? "" : value <= limit ? "MET" : "NOT MET";
    char target[32] = "-";
    if (limit > 0) {
        std::snprintf(target, sizeof target, "<=%g %s", limit, unit);
    }
    std::printf("%-58s %12.2f %-3s %12s %8s\n", label, value, unit, target, status);
}

}  // namespace

int main() {
    try {
        const std::string path = Bench::freshPath("view-5M");
        std::printf(
            "mvlog view's server on %zu entries (1 kHz IMU, 1 Hz camera of 64 KiB graymaps, level -1)\n",
            kEntries);
        std::fflush(stdout);
        const auto started = Clock::now();
        const int64_t span = record(path);
        std::printf("recorded in %.1f s\n\n", millisecondsSince(started) / 1000);
        std::printf("%-58s %16s %12s %8s\n", "figure", "value", "target", "status");
        for (const bool indexed : {false, true}) {
            if (indexed) {
                Logging::SqliteLogFile file{std::filesystem::path(path)};
                if (!file.createTimeIndex()) {
                    throw std::runtime_error(file.getLastError());
                }
            }
            const Figures figures = measureServer(path, span);
            const std::string suffix = indexed ? " (time index)" : " (no time index)";
            row(("start: open, read every entry's time" + suffix).c_str(), figures.startMs, "ms", 0);
            row(("timeline, worst of every zoom, 2000 bins" + suffix).c_str(), figures.worstTimelineMs, "ms",
                100);
            row(("timeline, mean" + suffix).c_str(), figures.meanTimelineMs, "ms", 0);
            row(("camera frame at a cursor, worst of 20" + suffix).c_str(), figures.worstFrameMs, "ms", 30);
            row(("camera frame at a cursor, mean" + suffix).c_str(), figures.meanFrameMs, "ms", 0);
            if (indexed) {
                row("baseline: raw SQLite count per bin, whole file (time index)", rawTimelineMs(path, span),
                    "ms", 0);
                row("baseline: raw SQLite + zstd frame at a cursor (time index)", rawFrameMs(path, span),
                    "ms", 0);
            }
        }
        Bench::removeLogFile(path);
        Bench::removeWorkDir();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "marivane_view_bench: %s\n", error.what());
        Bench::removeWorkDir();
        return 1;
    }
    return 0;
}
