#include "Commands.h"
#include "Format.h"
#include "LogFileAccess.h"
#include "Replay.h"
#include "SummaryReport.h"
#include "Terminal.h"

#include <logging/Logging.h>

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <numbers>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace Mvlog {

using Marivane::Logging::Bookmark;
using Marivane::Logging::ByteBuffer;
using Marivane::Logging::DataEntry;
using Marivane::Logging::DataSource;
using Marivane::Logging::DataSourceProperty;
using Marivane::Logging::PayloadEncoding;
using Marivane::Logging::PropertyValue;
using Marivane::Logging::SqliteLogFile;

namespace {

// What recording the synthetic survey produced.
struct SurveyRecording {
    int64_t entries = 0;
    uint64_t payloadBytes = 0;
    double wallSeconds = 0.0;
    int64_t startTimestamp = 0;
    // The first and last timestamp of a middle stretch (seconds 6 to 12), for
    // the demo's slice.
    int64_t middleStartTimestamp = 0;
    int64_t middleEndTimestamp = 0;
    // What the recorder did.
    Marivane::Logging::RecorderStats recorder;
};

constexpr int kImageSide = 256;  // 256 x 256 greyscale = 64 KiB per frame
constexpr int kThumbnailSide = 64;
constexpr int64_t kTickMs = 20;  // the navigation period; the other rates divide into it
constexpr int64_t kCameraPeriodMs = 100;
constexpr int64_t kEnvironmentPeriodMs = 1000;
constexpr int64_t kMiddleStartMs = 6000;
constexpr int64_t kMiddleEndMs = 12000;
constexpr int64_t kTurnAtMs = 8000;

// Entry types of the survey.
constexpr int32_t kImageFrame = 1;
constexpr int32_t kNavigationFix = 2;
constexpr int32_t kNavigationStatus = 3;
constexpr int32_t kEnvironmentReading = 4;

// Deterministic noise, so that two demo runs write the same payloads.
class NoiseSource {
public:
    explicit NoiseSource(uint64_t seed) : state_(seed) {}
    uint64_t next() {
        state_ ^= state_ >> 12;
        state_ ^= state_ << 25;
        state_ ^= state_ >> 27;
        return state_ * 0x2545F4914F6CDD1DULL;
    }
    // Uniform in [-amplitude, amplitude].
    int symmetric(int amplitude) {
        return static_cast<int>(next() % static_cast<uint64_t>(2 * amplitude + 1)) - amplitude;
    }

private:
    uint64_t state_;
};

ByteBuffer bytesOf(const std::string& text) {
    ByteBuffer bytes(text.size());
    std::memcpy(bytes.data(), text.data(), text.size());
    return bytes;
}

template <typename T>
void appendRaw(ByteBuffer& bytes, T value) {
    const std::size_t offset = bytes.size();
    bytes.resize(offset + sizeof value);
    std::memcpy(bytes.data() + offset, &value, sizeof value);
}

// A banded gradient (sky over sea, as a cheap sensor quantises it) with a
// bright target circling through it and sparse sensor noise: compressible
// like a real image, but never twice the same.
ByteBuffer cameraFrame(int64_t timeMs, NoiseSource& noise) {
    const double phase = static_cast<double>(timeMs) / 1000.0 * 0.6;
    const double targetX = kImageSide / 2.0 + 80.0 * std::cos(phase);
    const double targetY = kImageSide / 2.0 + 60.0 * std::sin(phase);
    ByteBuffer frame(static_cast<std::size_t>(kImageSide * kImageSide));
    for (int y = 0; y < kImageSide; ++y) {
        for (int x = 0; x < kImageSide; ++x) {
            int value = (40 + x * 120 / (kImageSide - 1) + y * 60 / (kImageSide - 1)) & ~7;
            const double dx = x - targetX;
            const double dy = y - targetY;
            if (dx * dx + dy * dy < 24.0 * 24.0) {
                value = 245;
            }
            if (noise.next() % 8 == 0) {
                value = std::clamp(value + noise.symmetric(3), 0, 255);
            }
            frame[static_cast<std::size_t>(y * kImageSide + x)] = static_cast<std::byte>(value);
        }
    }
    return frame;
}

// The frame as the camera logs it: a binary PGM (a 15-byte header before the
// pixels), so that readers can draw it from its bytes alone.
ByteBuffer graymapOf(const ByteBuffer& frame) {
    ByteBuffer image = bytesOf(fmt::format("P5\n{} {}\n255\n", kImageSide, kImageSide));
    image.insert(image.end(), frame.begin(), frame.end());
    return image;
}

// A binary PGM of the frame scaled down by averaging blocks.
ByteBuffer thumbnailOf(const ByteBuffer& frame) {
    constexpr int kBlock = kImageSide / kThumbnailSide;
    ByteBuffer image = bytesOf(fmt::format("P5\n{} {}\n255\n", kThumbnailSide, kThumbnailSide));
    for (int y = 0; y < kThumbnailSide; ++y) {
        for (int x = 0; x < kThumbnailSide; ++x) {
            int sum = 0;
            for (int by = 0; by < kBlock; ++by) {
                for (int bx = 0; bx < kBlock; ++bx) {
                    sum += std::to_integer<int>(
                        frame[static_cast<std::size_t>((y * kBlock + by) * kImageSide + x * kBlock + bx)]);
                }
            }
            image.push_back(static_cast<std::byte>(sum / (kBlock * kBlock)));
        }
    }
    return image;
}

// Position, height, heading, speed, satellites and flags: 48 bytes, host
// byte order, as a receiver driver would hand them over.
ByteBuffer navigationFix(int64_t timeMs, NoiseSource& noise) {
    const double seconds = static_cast<double>(timeMs) / 1000.0;
    const double heading = timeMs < kTurnAtMs ? 45.0 : 315.0;
    const double speed = 4.2 + noise.symmetric(100) / 1000.0;
    const double radians = heading * std::numbers::pi / 180.0;
    ByteBuffer fix;
    appendRaw(fix, 59.9 + seconds * speed * std::cos(radians) / 111'000.0);
    appendRaw(fix, 10.7 + seconds * speed * std::sin(radians) / 55'000.0);
    appendRaw(fix, 12.0 + noise.symmetric(50) / 100.0);
    appendRaw(fix, heading + noise.symmetric(20) / 10.0);
    appendRaw(fix, speed);
    appendRaw(fix, uint32_t{14});
    appendRaw(fix, uint32_t{0x3});
    return fix;
}

ByteBuffer navigationStatus(int64_t timeMs, NoiseSource& noise) {
    return bytesOf(fmt::format("$STATUS,t={},fix=RTK,sats={},hdop={:.1f}", timeMs, 12 + noise.symmetric(2),
                               0.8 + noise.symmetric(3) / 10.0));
}

ByteBuffer environmentReading(int64_t timeMs, NoiseSource& noise) {
    return bytesOf(fmt::format(
        R"({{"t":{},"temperature_c":{:.2f},"humidity_pct":{:.1f},"pressure_hpa":{:.1f},"wind_mps":{:.1f}}})",
        timeMs, 11.5 + noise.symmetric(30) / 100.0, 78.0 + noise.symmetric(20) / 10.0,
        1013.2 + noise.symmetric(5) / 10.0, 6.0 + noise.symmetric(15) / 10.0));
}

// The zone the recording machine runs in, as text: TZ if set, else the
// system's configured name, else UTC.
std::string localTimeZoneName() {
    if (const char* zone = std::getenv("TZ"); zone != nullptr && *zone != '\0') {
        return zone;
    }
    std::ifstream configured("/etc/timezone");
    std::string name;
    if (std::getline(configured, name) && !name.empty()) {
        return name;
    }
    return "UTC";
}

// Records through the library's recorder: each sensor has a capture thread of
// its own, as on a real vessel, and none of them waits for compression or the
// disk.
class SurveyWriter {
public:
    SurveyWriter(const std::filesystem::path& path, int64_t startTimestamp)
        : recorder_(path, recorderOptions()), start_(startTimestamp) {}

    Marivane::Logging::Recorder& recorder() { return recorder_; }

    int8_t addSource(MV_LogDataSourceType type, const std::string& name,
                     const std::vector<std::pair<std::string, PropertyValue>>& properties) {
        DataSource source{-1, type, name};
        require(recorder_.addDataSource(source), "add a data source");
        for (const auto& [key, value] : properties) {
            require(recorder_.addDataSourceProperty({source.id, key, value}), "add a data-source property");
        }
        return source.id;
    }

    // Called from the capture threads at once.
    void log(int8_t source, int32_t type, int64_t timeMs, ByteBuffer payload) {
        const std::size_t size = payload.size();
        if (!recorder_.record(source, type, start_ + timeMs, std::move(payload))) {
            throw ToolError(
                fmt::format("demo: the recorder refused an entry: {}", recorder_.stats().lastError));
        }
        entries_.fetch_add(1, std::memory_order_relaxed);
        payloadBytes_.fetch_add(size, std::memory_order_relaxed);
    }

    void require(bool succeeded, const char* what) {
        if (!succeeded) {
            throw ToolError(fmt::format("demo: cannot {}: {}", what, recorder_.stats().lastError));
        }
    }

    int64_t entries() const { return entries_.load(); }
    uint64_t payloadBytes() const { return payloadBytes_.load(); }

private:
    static Marivane::Logging::RecorderOptions recorderOptions() {
        Marivane::Logging::RecorderOptions options;
        options.timeZone = localTimeZoneName();
        options.applicationName = "mvlog-demo";
        options.applicationVersion = kToolVersion;
        options.compressionLevel = -1;
        return options;
    }

    Marivane::Logging::Recorder recorder_;
    int64_t start_;
    std::atomic<int64_t> entries_{0};
    std::atomic<uint64_t> payloadBytes_{0};
};

struct SurveySources {
    int8_t camera;
    int8_t navigation;
    int8_t environment;
};

SurveySources addSurveySources(SurveyWriter& writer) {
    SurveySources sources{};
    sources.camera = writer.addSource(MV_LogDataSourceType_Camera, "camera-front",
                                      {{"width", int32_t{kImageSide}},
                                       {"height", int32_t{kImageSide}},
                                       {"pixelFormat", std::string("GRAY8")},
                                       {"encoding", std::string(PayloadEncoding::kGraymap)},
                                       {"frameRateHz", 10.0},
                                       {"exposureUs", int64_t{2500}}});
    sources.navigation = writer.addSource(MV_LogDataSourceType_Navigation, "gnss",
                                          {{"receiver", std::string("synthetic dual-antenna")},
                                           {"datum", std::string("WGS84")},
                                           {"rateHz", 50.0},
                                           // Binary fixes and text status lines: no one media type.
                                           {"encoding", std::string(PayloadEncoding::kOctetStream)}});
    sources.environment = writer.addSource(MV_LogDataSourceType_Environment, "weather-mast",
                                           {{"sensor", std::string("synthetic BME")},
                                            {"heightM", 12.5},
                                            {"rateHz", 1.0},
                                            {"encoding", std::string(PayloadEncoding::kJson)}});
    return sources;
}

void addSurveyMetadata(SurveyWriter& writer, int64_t durationMs) {
    Marivane::Logging::Recorder& recorder = writer.recorder();
    recorder.addMetadata("vessel", std::string("RV Demo"));
    recorder.addMetadata("survey", std::string("Synthetic harbour survey"));
    recorder.addMetadata("operator", std::string("mvlog demo"));
    recorder.addMetadata("syntheticDurationMs", durationMs);
    writer.require(
        recorder.addResource("calibration.json",
                             bytesOf(R"({"camera-front":{"fx":412.5,"fy":412.5,"cx":128,"cy":128}})")),
        "add a resource");
}

// The three capture loops. Each sensor keeps its own noise, so that its
// payloads are the same in every run whatever the threads' interleaving.
void captureCamera(SurveyWriter& writer, int8_t source, int64_t durationMs, ByteBuffer& firstFrame) {
    NoiseSource noise(0x9E3779B97F4A7C15ULL);
    int64_t frameNumber = 0;
    for (int64_t t = 0; t < durationMs; t += kCameraPeriodMs) {
        ByteBuffer frame = cameraFrame(t, noise);
        if (firstFrame.empty()) {
            firstFrame = frame;
        }
        // Exposure ends a few milliseconds after the trigger, never twice the
        // same, as with real cameras.
        writer.log(source, kImageFrame, t + 2 + (frameNumber++ * 7) % 5, graymapOf(frame));
    }
}

void captureNavigation(SurveyWriter& writer, int8_t source, int64_t durationMs) {
    NoiseSource noise(0xD1B54A32D192ED03ULL);
    for (int64_t t = 0; t < durationMs; t += kTickMs) {
        writer.log(source, kNavigationFix, t, navigationFix(t, noise));
        if (t % kEnvironmentPeriodMs == 0) {
            writer.log(source, kNavigationStatus, t, navigationStatus(t, noise));
        }
    }
}

void captureEnvironment(SurveyWriter& writer, int8_t source, int64_t durationMs) {
    NoiseSource noise(0x8CB92BA72F3D8DD7ULL);
    for (int64_t t = 0; t < durationMs; t += kEnvironmentPeriodMs) {
        writer.log(source, kEnvironmentReading, t + 9, environmentReading(t, noise));
    }
}

// Runs the three capture loops on threads of their own; the first failure of
// any of them is thrown here once all have ended.
void captureAll(SurveyWriter& writer, const SurveySources& sources, int64_t durationMs,
                ByteBuffer& firstFrame) {
    std::mutex failureMutex;
    std::exception_ptr failure;
    const auto guarded = [&](auto&& loop) {
        return std::thread([&, loop] {
            try {
                loop();
            } catch (...) {
                std::lock_guard lock(failureMutex);
                failure = failure ? failure : std::current_exception();
            }
        });
    };
    std::vector<std::thread> threads;
    threads.push_back(guarded([&] { captureCamera(writer, sources.camera, durationMs, firstFrame); }));
    threads.push_back(guarded([&] { captureNavigation(writer, sources.navigation, durationMs); }));
    threads.push_back(guarded([&] { captureEnvironment(writer, sources.environment, durationMs); }));
    for (std::thread& thread : threads) {
        thread.join();
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
}

// Thumbnail and bookmarks once the entries are in: the bookmarks name entries
// by id, which the recorder assigns in acceptance order.
void finishSurvey(const std::filesystem::path& path, int64_t startTimestamp, const ByteBuffer& firstFrame) {
    SqliteLogFile file{path};
    const auto require = [&file](bool succeeded, const char* what) {
        if (!succeeded) {
            throw ToolError(fmt::format("demo: cannot {}: {}", what, file.getLastError()));
        }
    };
    require(file.setThumbnail(thumbnailOf(firstFrame)), "set the thumbnail");
    require(file.addBookmark({file.getFirstEntryId(), "Start of survey", "All sensors running", {}}),
            "add a bookmark");
    if (const std::optional<int32_t> turn = file.findEntryAtOrAfter(startTimestamp + kTurnAtMs)) {
        require(file.addBookmark({*turn, "Turn to port", "Heading 045 to 315",
                                  bytesOf(R"({"headingFrom":45,"headingTo":315})")}),
                "add a bookmark");
    }
    require(file.addBookmark({file.getLastEntryId(), "End of survey", "", {}}), "add a bookmark");
}

// Records a synthetic survey into a new file at `path` (which must not exist):
// a camera (64 KiB greyscale frames at 10 Hz), a satellite navigation receiver
// (48-byte fixes at 50 Hz plus a status line each second) and a weather mast
// (a JSON reading at 1 Hz) over `durationMs` of synthetic time starting at
// `startTimestamp`, written as fast as possible through the recorder from one
// capture thread per sensor; with properties, metadata, a PGM thumbnail, a
// calibration resource and bookmarks.
SurveyRecording recordSyntheticSurvey(const std::filesystem::path& path, int64_t startTimestamp,
                                      int64_t durationMs) {
    if (somethingExistsAt(path)) {
        throw ToolError(fmt::format("demo: {} already exists", path.string()));
    }
    SurveyRecording recording;
    recording.startTimestamp = startTimestamp;
    recording.middleStartTimestamp = startTimestamp + kMiddleStartMs;
    recording.middleEndTimestamp = startTimestamp + kMiddleEndMs - 1;
    ByteBuffer firstFrame;
    {
        SurveyWriter writer(path, startTimestamp);
        const SurveySources sources = addSurveySources(writer);
        addSurveyMetadata(writer, durationMs);
        const auto wallStart = std::chrono::steady_clock::now();
        captureAll(writer, sources, durationMs, firstFrame);
        writer.require(writer.recorder().close(), "close the recorder");
        recording.wallSeconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();
        recording.entries = writer.entries();
        recording.payloadBytes = writer.payloadBytes();
        recording.recorder = writer.recorder().stats();
    }
    finishSurvey(path, startTimestamp, firstFrame);
    return recording;
}

constexpr int64_t kSurveyDurationMs = 20'000;
constexpr double kReplaySpeed = 4.0;
constexpr int32_t kReplayMaxDelayMs = 1000;

std::filesystem::path prepareDirectory(const DemoOptions& options) {
    if (!options.directory) {
        std::string pattern = (std::filesystem::temp_directory_path() / "mvlog-demo-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) {
            throw ToolError(fmt::format("demo: cannot create a temporary directory: {}",
                                        std::error_code(errno, std::generic_category()).message()));
        }
        return pattern;
    }
    std::error_code error;
    std::filesystem::create_directories(*options.directory, error);
    if (error || !std::filesystem::is_directory(*options.directory)) {
        throw ToolError(fmt::format("demo: cannot use {} as a directory", *options.directory));
    }
    return *options.directory;
}

void printHeading(const std::string& text) {
    fmt::print("\n== {}\n", text);
    std::fflush(stdout);
}

// Whole seconds, so that the synthetic times read easily.
int64_t syntheticStart() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::seconds>(now).count() * 1000;
}

// By time: the recorder numbers entries in the order the capture threads
// handed them over, so ids say little about when. The one-input merge keeps
// the stretch in timestamp order, which is how the replay should see it.
std::filesystem::path sliceMiddle(const SurveyRecording& recording, const std::filesystem::path& survey,
                                  const std::filesystem::path& output) {
    Marivane::Logging::CopyOptions options;
    options.startTimestamp = recording.middleStartTimestamp;
    options.endTimestamp = recording.middleEndTimestamp;
    options.applicationName = kToolName;
    options.applicationVersion = kToolVersion;
    ElapsedTimeIndicator indicator("slicing");
    try {
        Marivane::Logging::Algorithms::merge({survey}, output, options);
    } catch (const std::exception& error) {
        throw ToolError(fmt::format("demo: the slice into {} failed: {}", output.string(), error.what()));
    }
    return output;
}

}  // namespace

int runDemo(const DemoOptions& options) {
    const std::filesystem::path directory = prepareDirectory(options);
    const std::filesystem::path survey = directory / "demo.mvlog";
    const std::filesystem::path slicePath = directory / "demo-slice.mvlog";
    fmt::print("Demo directory: {}\n", directory.string());

    printHeading(fmt::format("Recording {} of a synthetic survey into {}", humanDuration(kSurveyDurationMs),
                             survey.string()));
    const SurveyRecording recording = recordSyntheticSurvey(survey, syntheticStart(), kSurveyDurationMs);
    const uint64_t surveySize = fileSizeOnDisk(survey);
    fmt::print("{} entries, {} of payload, {} on disk\n", recording.entries,
               humanSize(recording.payloadBytes), humanSize(surveySize));
    fmt::print(
        "Recorder: {} accepted, {} written, {} dropped, {} failed; queue high water {}, longest wait "
        "for a commit {:.1f} ms\n",
        recording.recorder.accepted, recording.recorder.written,
        recording.recorder.dropped + recording.recorder.refused, recording.recorder.failed,
        humanSize(recording.recorder.queueHighWaterBytes),
        static_cast<double>(recording.recorder.maxLatencyMicroseconds) / 1000.0);

    printHeading("mvlog info " + survey.string());
    const auto file = openExistingLogFile(survey);
    fmt::print("{}", summaryText(summarizeLogFile(*file)));

    printHeading(fmt::format("Slicing seconds 6 to 12 into {}", slicePath.string()));
    const std::filesystem::path slice = sliceMiddle(recording, survey, slicePath);
    const auto sliceFile = openExistingLogFile(slice);
    const int32_t sliceEntries = sliceFile->getEntryCount();
    fmt::print("{}: {} entries, {} on disk\n", slice.string(), sliceEntries,
               humanSize(fileSizeOnDisk(slice)));

    printHeading(fmt::format("Replaying the slice at {}x", kReplaySpeed));
    ReplaySettings settings;
    settings.speed = kReplaySpeed;
    settings.maxDelayMs = kReplayMaxDelayMs;
    settings.style = isTerminal(stdout) ? StatusStyle::Live : StatusStyle::Periodic;
    const ReplayReport replay = replayLogFile(openExistingLogFile(slice), settings, stdout);

    printHeading("Summary");
    fmt::print(
        "Recorded {} entries ({}) in {}: {:.0f} entries/s, {:.1f} MiB/s of payload\n", recording.entries,
        humanSize(recording.payloadBytes), humanDuration(std::llround(recording.wallSeconds * 1000.0)),
        recording.wallSeconds > 0.0 ? static_cast<double>(recording.entries) / recording.wallSeconds : 0.0,
        recording.wallSeconds > 0.0
            ? static_cast<double>(recording.payloadBytes) / (1024.0 * 1024.0) / recording.wallSeconds
            : 0.0);
    fmt::print(
        "Compression ratio {:.2f}:1 ({} of payload in {} on disk, level -1)\n",
        surveySize > 0 ? static_cast<double>(recording.payloadBytes) / static_cast<double>(surveySize) : 0.0,
        humanSize(recording.payloadBytes), humanSize(surveySize));
    fmt::print("Slice: {} entries in {}\n", sliceEntries, slice.string());
    fmt::print("{}\n", replayReportText(replay, kReplaySpeed));
    fmt::print("Files are in {}\n", directory.string());
    return 0;
}

}  // namespace Mvlog
