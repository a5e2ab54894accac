#include "Common.h"

#include <logging/Bookmark.h>
#include <logging/DataSource.h>
#include <logging/DataSourceProperty.h>
#include <logging/Recorder.h>

#include <pybind11/stl.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <typeinfo>

namespace marivane_python {

namespace {

// Payloads at least this large are copied without the GIL: below it the
// release costs more than the copy.
constexpr std::size_t kCopyWithoutGil = 64 * 1024;

int64_t nowMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

int8_t sourceId(int32_t source) {
    if (source < -128 || source > 127) {
        throw py::value_error("data source ids are 8-bit: " + std::to_string(source) + " is out of range");
    }
    return static_cast<int8_t>(source);
}

// A recorder as Python holds it. The library's recorder serves every thread
// at once; the binding adds only the "closed" state that Python's closed-object
// errors need, and a destructor that waits for the threads without the GIL.
class OpenRecorder {
public:
    OpenRecorder(const std::filesystem::path& path, const ml::RecorderOptions& options)
        : recorder_(std::make_unique<ml::Recorder>(path, options)),
          policy_(options.overflowPolicy),
          durability_(options.durability),
          reorderWindowMs_(options.reorderWindow.count()),
          buildsTimeIndex_(options.buildTimeIndexOnClose) {}

    ~OpenRecorder() {
        // Closing joins the threads and commits what is queued: let the other
        // Python threads run meanwhile. The writer never needs the GIL.
        if (Py_IsInitialized() && PyGILState_Check()) {
            py::gil_scoped_release release;
            recorder_.reset();
        } else {
            recorder_.reset();
        }
    }
    OpenRecorder(const OpenRecorder&) = delete;
    OpenRecorder& operator=(const OpenRecorder&) = delete;

    ml::Recorder& recorder() { return *recorder_; }
    const ml::Recorder& recorder() const { return *recorder_; }
    ml::OverflowPolicy policy() const { return policy_; }
    ml::Durability durability() const { return durability_; }
    int64_t reorderWindowMs() const { return reorderWindowMs_; }
    bool buildsTimeIndex() const { return buildsTimeIndex_; }

    bool isClosed() const { return closed_.load(); }
    // True for the one call that closes.
    bool markClosed() { return !closed_.exchange(true); }

    void checkOpen() const {
        if (isClosed()) {
            throw py::value_error("I/O operation on a closed recorder");
        }
    }

    // Raises for an operation the recorder answered false: ValueError once
    // closed, LogFileError when the writer has failed (nothing more is
    // written), RefusedError when the file refused this one operation.
    [[noreturn]] void raiseRefusal(const std::string& fallback) {
        checkOpen();
        bool running = false;
        {
            py::gil_scoped_release release;
            running = recorder_->flush();
        }
        checkOpen();
        const std::string lastError = recorder_->stats().lastError;
        if (!running) {
            raiseStopped(lastError);
        }
        raiseError("RefusedError", fallback.empty() ? lastError : fallback);
    }

    [[noreturn]] void raiseStopped(const std::string& lastError) const {
        raiseError("LogFileError", lastError.empty() ? "The recorder of '" + recorder_->path().string() +
                                                           "' has stopped: nothing more is written."
                                                     : lastError);
    }

    // Runs one of the recorder's waiting operations without the GIL.
    template <typename Operation>
    void run(Operation&& operation, const std::string& fallback = {}) {
        checkOpen();
        bool ok = false;
        {
            py::gil_scoped_release release;
            ok = operation(*recorder_);
        }
        if (!ok) {
            raiseRefusal(fallback);
        }
    }

private:
    std::unique_ptr<ml::Recorder> recorder_;
    const ml::OverflowPolicy policy_;
    const ml::Durability durability_;
    const int64_t reorderWindowMs_;
    const bool buildsTimeIndex_;
    std::atomic<bool> closed_{false};
};

std::unique_ptr<OpenRecorder> createRecorder(const std::string& path, const ml::RecorderOptions& options) {
    std::unique_ptr<OpenRecorder> result;
    try {
        // Creating the file may wait for locks and writes to the disk.
        py::gil_scoped_release release;
        result = std::make_unique<OpenRecorder>(std::filesystem::path(path), options);
    } catch (const std::runtime_error& error) {
        // The recorder's own refusals are plain runtime_errors: of an
        // existing path, and of a file it could not create, in which case it
        // may carry the file's error in its message rather than its class.
        // The file's errors proper are the library's own classes and go to
        // the translator.
        if (typeid(error) == typeid(std::runtime_error)) {
            std::error_code ignored;
            if (std::filesystem::symlink_status(path, ignored).type() !=
                std::filesystem::file_type::not_found) {
                PyErr_SetString(PyExc_FileExistsError, error.what());
                throw py::error_already_set();
            }
            raiseError("DatabaseError", error.what());
        }
        throw;
    }
    return result;
}

}  // namespace

void bindRecorder(py::module_& m) {
    py::enum_<ml::OverflowPolicy>(m, "OverflowPolicy", "What Recorder.record does when its queue is full.")
        .value("BLOCK", ml::OverflowPolicy::Block, "Wait until the writer has made room (the default).")
        .value("DROP_NEWEST", ml::OverflowPolicy::DropNewest,
               "Drop the entry being recorded (record answers False) and count it as dropped.")
        .value("REFUSE", ml::OverflowPolicy::Refuse,
               "Refuse the entry being recorded (record answers False) and count it as refused.");

    py::class_<OpenRecorder>(m, "_Recorder", "The native recorder; use marivane_logging.Recorder instead.")
        .def(py::init([](const std::string& path, const std::string& application, const std::string& version,
                         const std::string& timeZone, int level, ml::Durability durability,
                         std::size_t queueBytes, int32_t compressionThreads, int64_t maxCommitDelayMs,
                         std::size_t maxTransactionEntries, ml::OverflowPolicy overflow,
                         int64_t reorderWindowMs, bool buildTimeIndex, bool checksums) {
                 const int8_t checkedLevel = compressionLevel(level);
                 if (compressionThreads < 0) {
                     throw py::value_error("compression_threads must be 0 (automatic) or more");
                 }
                 if (maxCommitDelayMs < 0) {
                     throw py::value_error("max_commit_delay must not be negative");
                 }
                 if (maxTransactionEntries < 1) {
                     throw py::value_error("max_transaction_entries must be 1 or more");
                 }
                 if (reorderWindowMs < 0) {
                     throw py::value_error("reorder_window must not be negative");
                 }
                 ml::RecorderOptions options;
                 options.applicationName = application;
                 options.applicationVersion = version;
                 options.timeZone = timeZone;
                 options.compressionLevel = checkedLevel;
                 options.durability = durability;
                 options.queueBytes = queueBytes;
                 options.compressionThreads = compressionThreads;
                 options.maxCommitDelay = std::chrono::milliseconds(maxCommitDelayMs);
                 options.maxTransactionEntries = maxTransactionEntries;
                 options.overflowPolicy = overflow;
                 options.reorderWindow = std::chrono::milliseconds(reorderWindowMs);
                 options.buildTimeIndexOnClose = buildTimeIndex;
                 options.entryChecksums = checksums;
                 return createRecorder(path, options);
             }),
             py::arg("path"), py::arg("application"), py::arg("version"), py::arg("time_zone"),
             py::arg("level"), py::arg("durability"), py::arg("queue_bytes"), py::arg("compression_threads"),
             py::arg("max_commit_delay_ms"), py::arg("max_transaction_entries"), py::arg("overflow"),
             py::arg("reorder_window_ms") = 0, py::arg("build_time_index") = true,
             py::arg("checksums") = false)
        .def_property_readonly("path",
                               [](const OpenRecorder& self) { return self.recorder().path().string(); })
        .def_property_readonly("is_open", [](const OpenRecorder& self) { return !self.isClosed(); })
        .def_property_readonly("overflow", &OpenRecorder::policy)
        .def_property_readonly("durability", &OpenRecorder::durability)
        .def_property_readonly("reorder_window_ms", &OpenRecorder::reorderWindowMs)
        .def_property_readonly("build_time_index", &OpenRecorder::buildsTimeIndex)
        .def(
            "record",
            [](OpenRecorder& self, int32_t source, int32_t type, const py::buffer& payload,
               std::optional<int64_t> timestamp) {
                const int8_t id = sourceId(source);
                const int64_t when = timestamp.value_or(nowMs());
                // The view keeps the object's memory in place until it is
                // released, with the GIL, at the end of this call.
                py::buffer_info info = payload.request();
                if (!PyBuffer_IsContiguous(info.view(), 'C')) {
                    throw py::value_error("payloads must be contiguous buffers");
                }
                const auto size = static_cast<std::size_t>(info.size * info.itemsize);
                const auto* data = static_cast<const std::byte*>(info.ptr);
                if (self.policy() == ml::OverflowPolicy::Block || size >= kCopyWithoutGil) {
                    // Blocking waits for the writer, which may take long.
                    py::gil_scoped_release release;
                    return self.recorder().record(id, type, when, ml::ByteBuffer(data, data + size));
                }
                return self.recorder().record(id, type, when, ml::ByteBuffer(data, data + size));
            },
            py::arg("source"), py::arg("type"), py::arg("payload"), py::arg("timestamp") = py::none())
        .def(
            "add_data_source",
            [](OpenRecorder& self, int32_t type, const std::string& name) {
                ml::DataSource source;
                source.type = static_cast<MV_LogDataSourceType>(type);
                source.name = name;
                self.run([&](ml::Recorder& recorder) { return recorder.addDataSource(source); });
                return static_cast<int>(source.id);
            },
            py::arg("type"), py::arg("name"))
        .def(
            "add_property",
            [](OpenRecorder& self, int32_t source, const std::string& key, const ml::PropertyValue& value) {
                ml::DataSourceProperty property{sourceId(source), key, value};
                self.run([&](ml::Recorder& recorder) { return recorder.addDataSourceProperty(property); });
            },
            py::arg("source"), py::arg("key"), py::arg("value"))
        .def(
            "add_metadata",
            [](OpenRecorder& self, const std::string& key, const ml::PropertyValue& value) {
                self.run([&](ml::Recorder& recorder) { return recorder.addMetadata(key, value); },
                         "The log file already has a metadata key '" + key + "'.");
            },
            py::arg("key"), py::arg("value"))
        .def(
            "add_resource",
            [](OpenRecorder& self, const std::string& name, const py::buffer& data) {
                auto bytes = toByteBuffer(data);
                self.run([&](ml::Recorder& recorder) { return recorder.addResource(name, bytes); },
                         "The log file already has a resource named '" + name + "'.");
            },
            py::arg("name"), py::arg("data"))
        .def(
            "add_bookmark",
            [](OpenRecorder& self, int32_t entryId, std::string title, std::string comments,
               std::optional<py::buffer> payload) {
                ml::Bookmark bookmark;
                bookmark.entryId = entryId;
                bookmark.title = std::move(title);
                bookmark.comments = std::move(comments);
                if (payload) {
                    bookmark.payload = toByteBuffer(*payload);
                }
                self.run([&](ml::Recorder& recorder) { return recorder.addBookmark(bookmark); });
            },
            py::arg("entry_id"), py::arg("title"), py::arg("comments"), py::arg("payload") = py::none())
        .def("flush",
             [](OpenRecorder& self) {
                 self.checkOpen();
                 bool ok = false;
                 {
                     py::gil_scoped_release release;
                     ok = self.recorder().flush();
                 }
                 if (!ok) {
                     self.checkOpen();
                     self.raiseStopped(self.recorder().stats().lastError);
                 }
             })
        .def("close",
             [](OpenRecorder& self) {
                 if (!self.markClosed()) {
                     return true;
                 }
                 bool flushed = false;
                 bool clean = false;
                 {
                     py::gil_scoped_release release;
                     flushed = self.recorder().flush();
                     clean = self.recorder().close();
                 }
                 if (!flushed) {
                     self.raiseStopped(self.recorder().stats().lastError);
                 }
                 return clean;
             })
        .def("stats", [](const OpenRecorder& self) {
            const ml::RecorderStats stats = self.recorder().stats();
            return py::make_tuple(stats.accepted, stats.written, stats.dropped, stats.refused, stats.failed,
                                  stats.bytesIn, stats.bytesStored, stats.queueHighWaterBytes,
                                  stats.maxLatencyMicroseconds, stats.lastError, stats.late);
        });
}

}  // namespace marivane_python
