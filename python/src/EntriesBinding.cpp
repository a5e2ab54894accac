#include "Common.h"

#include <logging/EntrySummary.h>
#include <logging/EntryView.h>
#include <logging/VisitOptions.h>

#include <pybind11/numpy.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <utility>
#include <vector>

namespace marivane_python {

// One row of an index array; the dtype is built from it.
struct IndexRow {
    int32_t id;
    int8_t source;
    int32_t type;
    int64_t timestamp;
    int64_t size;
};

}  // namespace marivane_python

namespace marivane_python {
namespace {

using Handle = std::shared_ptr<OpenLogFile>;

PyTypeObject* entryType = nullptr;

PyStructSequence_Field entryFields[] = {
    {"id", "The entry's id in its file (the first entry is 1)."},
    {"source", "The id of the data source that produced it."},
    {"type", "The application-defined payload type."},
    {"timestamp", "Milliseconds since the Unix epoch (UTC)."},
    {"payload", "The payload: bytes, or a read-only memoryview or numpy array when asked for."},
    {nullptr, nullptr}};

PyStructSequence_Desc entryDescription = {
    "marivane_logging._core.Entry",
    "One entry of a log file: (id, source, type, timestamp, payload); the timestamp is in milliseconds "
    "since\n"
    "the Unix epoch (UTC). A named tuple: entry.id or id, source, type, timestamp, payload = entry.",
    entryFields, 5};

enum class PayloadAs { Bytes, MemoryView, Numpy };

PayloadAs parsePayloadAs(const std::string& text) {
    if (text == "bytes") {
        return PayloadAs::Bytes;
    }
    if (text == "memoryview") {
        return PayloadAs::MemoryView;
    }
    if (text == "numpy") {
        return PayloadAs::Numpy;
    }
    throw py::value_error("payload_as must be 'bytes', 'memoryview' or 'numpy', not '" + text + "'");
}

// A read-only uint8 array that owns `bytes` (no copy).
py::array arrayOwning(std::vector<std::byte>&& bytes) {
    auto* owned = new std::vector<std::byte>(std::move(bytes));
    py::capsule owner(owned, [](void* pointer) { delete static_cast<std::vector<std::byte>*>(pointer); });
    py::array_t<uint8_t> array(static_cast<py::ssize_t>(owned->size()),
                               reinterpret_cast<const uint8_t*>(owned->data()), owner);
    array.attr("setflags")(py::arg("write") = false);
    return array;
}

ml::EntryOrder parseOrder(const std::string& order) {
    if (order == "id") {
        return ml::EntryOrder::Id;
    }
    if (order == "time") {
        return ml::EntryOrder::Time;
    }
    throw py::value_error("order is 'id' or 'time', not '" + order + "'");
}

// visitEntries with the visitor last, where a long lambda reads best.
// `threads` expand payloads ahead of the visitor (VisitOptions): a visit
// that runs to its end gains from them, a chunk of an iterator would throw
// away what they read ahead.
template <typename Visitor>
bool visitSelection(const ml::SqliteLogFile& file, const Selection& selection, bool verifyChecksums,
                    ml::EntryOrder order, int threads, const Visitor& visitor) {
    // Without a handler for damaged entries the first one (a payload that
    // does not expand, or does not match its checksum) ends the read as
    // failed, which raises.
    ml::VisitOptions options;
    options.verifyChecksums = verifyChecksums;
    options.order = order;
    options.decompressionThreads = threads;
    return file.visitEntries(selection.range, selection.filter, visitor, options);
}

// Streams the selected entries by visiting them a chunk at a time: each
// visit stops after `chunkEntries` entries or `chunkBytes` of payload, and
// the next one starts after the last entry handed out (its id, or in time
// order its timestamp and id), so memory stays bounded whatever the file's
// length.
class EntryIterator {
public:
    EntryIterator(Handle file, Selection selection, PayloadAs payloadAs, std::size_t chunkEntries,
                  std::size_t chunkBytes, bool verifyChecksums, ml::EntryOrder order)
        : file_(std::move(file)),
          selection_(std::move(selection)),
          payloadAs_(payloadAs),
          chunkEntries_(std::max<std::size_t>(chunkEntries, 1)),
          chunkBytes_(std::max<std::size_t>(chunkBytes, 1)),
          verifyChecksums_(verifyChecksums),
          order_(order) {}

    py::object next() {
        // Filling may let other Python code run on this iterator: the garbage
        // collector on this thread, or another thread while this one waits
        // for the file. Neither may take from, or refill, the chunk being
        // filled.
        if (filling_) {
            raiseRuntimeError("This entry iterator is already reading its next entries.");
        }
        if (position_ == chunk_.size()) {
            if (finished_) {
                throw py::stop_iteration();
            }
            filling_ = true;
            if (order_ == ml::EntryOrder::Time && !orderChecked_) {
                orderChecked_ = true;
                try {
                    resumeByIdIfIdsFollowTime();
                } catch (...) {
                    filling_ = false;
                    throw;
                }
            }
            try {
                fill();
            } catch (...) {
                filling_ = false;
                throw;
            }
            filling_ = false;
            if (chunk_.empty()) {
                throw py::stop_iteration();
            }
        }
        py::object entry = std::move(chunk_[position_]);
        ++position_;
        return entry;
    }

private:
    // A time-ordered chunk resumes at the last timestamp handed out, which a
    // file without the time index can only find by walking from its first
    // entry again: every chunk would cost a walk of the whole selection.
    // Where the selected ids already follow time (as a recording's usually
    // do), the order by time is the order by id, and chunks resume by id.
    // One pass over the stored timestamps, no payloads, decides.
    void resumeByIdIfIdsFollowTime() {
        auto lock = file_->lockHoldingGil();
        const ml::SqliteLogFile& file = file_->file();
        OpenLogFile::Visit visit(*file_);
        bool ascending = true;
        int64_t previous = std::numeric_limits<int64_t>::min();
        const uint64_t before = file.getFailureCount();
        const bool ok = file.visitEntrySummaries(selection_.range, selection_.filter,
                                                 [&](const ml::EntrySummary& summary) {
                                                     ascending = summary.timestamp >= previous;
                                                     previous = summary.timestamp;
                                                     return ascending;
                                                 });
        if (!ok) {
            file_->raiseFailure(before);
        }
        if (ascending) {
            order_ = ml::EntryOrder::Id;
        }
    }

    // An entry whose payload is still a span of the chunk's arena.
    struct Pending {
        int32_t id;
        int8_t source;
        int32_t type;
        int64_t timestamp;
        std::size_t start;
        std::size_t size;
    };

    void fill() {
        chunk_.clear();
        position_ = 0;
        auto lock = file_->lockHoldingGil();
        ml::SqliteLogFile& file = file_->file();
        OpenLogFile::Visit visit(*file_);
        std::size_t bytes = 0;
        std::size_t count = 0;
        int32_t lastId = 0;
        int64_t lastTimestamp = 0;
        bool stopped = false;
        std::vector<std::byte> arena;
        std::vector<Pending> pending;
        const bool copyToArena = payloadAs_ != PayloadAs::Bytes;
        uint64_t before = file.getFailureCount();
        bool ok =
            visitSelection(file, selection_, verifyChecksums_, order_, 1, [&](const ml::EntryView& view) {
                // A time-ordered chunk starts at the previous one's last
                // timestamp: the entries of that timestamp handed out already
                // come first, by id.
                if (resumeAfter_ && view.timestamp == resumeAfter_->first &&
                    view.entryId <= resumeAfter_->second) {
                    return true;
                }
                if (copyToArena) {
                    pending.push_back(Pending{view.entryId, view.dataSourceId, view.type, view.timestamp,
                                              arena.size(), view.size});
                    arena.insert(arena.end(), view.data, view.data + view.size);
                } else {
                    // Copied while the reader's buffer is still in the cache.
                    chunk_.push_back(makeEntry(view.entryId, view.dataSourceId, view.type, view.timestamp,
                                               toBytes(view.data, view.size)));
                }
                ++count;
                lastId = view.entryId;
                lastTimestamp = view.timestamp;
                bytes += view.size;
                if (count >= chunkEntries_ || bytes >= chunkBytes_) {
                    stopped = true;
                    return false;
                }
                return true;
            });
        if (!ok) {
            chunk_.clear();
            finished_ = true;
            file_->raiseFailure(before);
        }
        if (order_ == ml::EntryOrder::Time) {
            if (!stopped) {
                finished_ = true;
            } else {
                selection_.range.startTimestamp = lastTimestamp;
                resumeAfter_ = std::make_pair(lastTimestamp, lastId);
            }
        } else if (!stopped || lastId == std::numeric_limits<int32_t>::max()) {
            finished_ = true;
        } else {
            selection_.range.minimumEntryId = lastId + 1;
        }
        if (copyToArena && !pending.empty()) {
            py::array whole = arrayOwning(std::move(arena));
            py::object base = whole;
            if (payloadAs_ == PayloadAs::MemoryView) {
                base = py::reinterpret_steal<py::object>(PyMemoryView_FromObject(whole.ptr()));
                if (!base) {
                    throw py::error_already_set();
                }
            }
            for (const Pending& entry : pending) {
                py::object payload = base[py::slice(static_cast<py::ssize_t>(entry.start),
                                                    static_cast<py::ssize_t>(entry.start + entry.size), 1)];
                chunk_.push_back(
                    makeEntry(entry.id, entry.source, entry.type, entry.timestamp, std::move(payload)));
            }
        }
    }

    Handle file_;
    Selection selection_;
    PayloadAs payloadAs_;
    std::size_t chunkEntries_;
    std::size_t chunkBytes_;
    bool verifyChecksums_;
    ml::EntryOrder order_;
    bool orderChecked_ = false;
    // In time order: the timestamp and id of the last entry handed out.
    std::optional<std::pair<int64_t, int32_t>> resumeAfter_;
    std::vector<py::object> chunk_;
    std::size_t position_ = 0;
    bool finished_ = false;
    bool filling_ = false;
};

// The payload buffer of a visit that hands out memoryviews. A view of the
// reader's own buffer cannot be revoked: release() leaves its slices, and
// the arrays made from it, pointing at bytes the reader overwrites with the
// next entry and frees at the end. So each payload is copied into a buffer of
// ours, which a view keeps alive, and a buffer is reused for the next entry
// only when nothing but the visit holds it any more. A plain exporter of the
// buffer protocol: pybind11's costs more than the copy for small payloads.
struct PayloadBufferObject {
    PyObject_HEAD char* data;
    Py_ssize_t size;
    Py_ssize_t capacity;
};

PyTypeObject* payloadBufferType = nullptr;

int payloadBufferGet(PyObject* self, Py_buffer* view, int flags) {
    auto* buffer = reinterpret_cast<PayloadBufferObject*>(self);
    return PyBuffer_FillInfo(view, self, buffer->data, buffer->size, /*readonly=*/1, flags);
}

void payloadBufferFree(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    std::free(reinterpret_cast<PayloadBufferObject*>(self)->data);
    type->tp_free(self);
    Py_DECREF(type);
}

PyType_Slot payloadBufferSlots[] = {
    {Py_bf_getbuffer, reinterpret_cast<void*>(&payloadBufferGet)},
    {Py_tp_dealloc, reinterpret_cast<void*>(&payloadBufferFree)},
    {Py_tp_doc, const_cast<char*>("The bytes of one payload handed out by a visit as a memoryview.")},
    {0, nullptr}};

PyType_Spec payloadBufferSpec = {"marivane_logging._core._PayloadBuffer", sizeof(PayloadBufferObject), 0,
                                 Py_TPFLAGS_DEFAULT, payloadBufferSlots};

class PayloadBuffers {
public:
    PayloadBuffers() : releaseName_(py::str("release")) {}

    // A read-only memoryview of a copy of `size` bytes at `data`.
    py::object view(const std::byte* data, std::size_t size) {
        const auto length = static_cast<Py_ssize_t>(size);
        auto* buffer = reinterpret_cast<PayloadBufferObject*>(current_.ptr());
        if (buffer == nullptr || Py_REFCNT(buffer) > 1 || buffer->capacity < length) {
            current_ = newBuffer(std::max<Py_ssize_t>(length, 1));
            buffer = reinterpret_cast<PayloadBufferObject*>(current_.ptr());
        }
        if (size > 0) {
            std::memcpy(buffer->data, data, size);
        }
        buffer->size = length;
        PyObject* memoryView = PyMemoryView_FromObject(current_.ptr());
        if (memoryView == nullptr) {
            throw py::error_already_set();
        }
        return py::reinterpret_steal<py::object>(memoryView);
    }

    // Releases a view handed out, unless something still uses it (an array
    // made from it): the buffer then stays with that user.
    void release(const py::object& memoryView) const {
        if (!memoryView) {
            return;
        }
        PyObject* released = PyObject_CallMethodNoArgs(memoryView.ptr(), releaseName_.ptr());
        if (released == nullptr) {
            PyErr_Clear();
        }
        Py_XDECREF(released);
    }

private:
    static py::object newBuffer(Py_ssize_t capacity) {
        PayloadBufferObject* buffer = PyObject_New(PayloadBufferObject, payloadBufferType);
        if (buffer == nullptr) {
            throw py::error_already_set();
        }
        buffer->data = static_cast<char*>(std::malloc(static_cast<std::size_t>(capacity)));
        buffer->size = 0;
        buffer->capacity = capacity;
        auto object = py::reinterpret_steal<py::object>(reinterpret_cast<PyObject*>(buffer));
        if (buffer->data == nullptr) {
            buffer->capacity = 0;
            throw std::bad_alloc();
        }
        return object;
    }

    py::object current_;
    py::str releaseName_;
};

Selection selectionFrom(int32_t firstId, int32_t lastId, int64_t startMs, int64_t endMs,
                        const std::vector<int32_t>& sources, const std::vector<int32_t>& types,
                        const std::vector<int32_t>& sourceTypes) {
    return makeSelection(firstId, lastId, startMs, endMs, sources, types, sourceTypes);
}

}  // namespace

void createEntryType(py::module_& module) {
    entryType = PyStructSequence_NewType(&entryDescription);
    if (entryType == nullptr) {
        throw py::error_already_set();
    }
    // The module keeps the type alive for as long as entries can be made.
    module.attr("Entry") = py::reinterpret_borrow<py::object>(reinterpret_cast<PyObject*>(entryType));
}

py::object makeEntry(int32_t id, int8_t source, int32_t type, int64_t timestamp, py::object payload) {
    PyObject* entry = PyStructSequence_New(entryType);
    if (entry == nullptr) {
        throw py::error_already_set();
    }
    PyStructSequence_SetItem(entry, 0, PyLong_FromLong(id));
    PyStructSequence_SetItem(entry, 1, PyLong_FromLong(source));
    PyStructSequence_SetItem(entry, 2, PyLong_FromLong(type));
    PyStructSequence_SetItem(entry, 3, PyLong_FromLongLong(timestamp));
    PyStructSequence_SetItem(entry, 4, payload.release().ptr());
    return py::reinterpret_steal<py::object>(entry);
}

namespace {

#define MV_SELECTION_ARGS                                                                                \
    py::arg("first_id"), py::arg("last_id"), py::arg("start_ms"), py::arg("end_ms"), py::arg("sources"), \
        py::arg("types"), py::arg("source_types")

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

void bindEntries(py::module_& m) {
    PYBIND11_NUMPY_DTYPE(IndexRow, id, source, type, timestamp, size);

    createEntryType(m);

    payloadBufferType = reinterpret_cast<PyTypeObject*>(PyType_FromSpec(&payloadBufferSpec));
    if (payloadBufferType == nullptr) {
        throw py::error_already_set();
    }
    // The module keeps the type alive for as long as visits can run.
    m.attr("_PayloadBuffer") =
        py::reinterpret_borrow<py::object>(reinterpret_cast<PyObject*>(payloadBufferType));

    py::class_<EntryIterator>(m, "EntryIterator", "Streams the selected entries of a log file, in id order.")
        .def("__iter__", [](py::object self) { return self; })
        .def("__next__", &EntryIterator::next);

    m.def(
        "_entries",
        [](const Handle& file, int32_t firstId, int32_t lastId, int64_t startMs, int64_t endMs,
           const std::vector<int32_t>& sources, const std::vector<int32_t>& types,
           const std::vector<int32_t>& sourceTypes, const std::string& payloadAs, std::size_t chunkEntries,
           std::size_t chunkBytes, bool verifyChecksums, const std::string& order) {
            const ml::EntryOrder entryOrder = parseOrder(order);
            file->file();  // a closed file fails here, not at the first next()
            return EntryIterator(
                file, selectionFrom(firstId, lastId, startMs, endMs, sources, types, sourceTypes),
                parsePayloadAs(payloadAs), chunkEntries, chunkBytes, verifyChecksums, entryOrder);
        },
        py::arg("file"), MV_SELECTION_ARGS, py::arg("payload_as"), py::arg("chunk_entries"),
        py::arg("chunk_bytes"), py::arg("verify_checksums") = false, py::arg("order") = "id");

    m.def(
        "_visit",
        [](const Handle& file, const py::function& callback, int32_t firstId, int32_t lastId, int64_t startMs,
           int64_t endMs, const std::vector<int32_t>& sources, const std::vector<int32_t>& types,
           const std::vector<int32_t>& sourceTypes, const std::string& payloadAs, bool verifyChecksums,
           const std::string& order) {
            const ml::EntryOrder entryOrder = parseOrder(order);
            PayloadAs as = parsePayloadAs(payloadAs);
            if (as == PayloadAs::Numpy) {
                throw py::value_error("visit hands out payload_as='bytes' or 'memoryview'");
            }
            Selection selection = selectionFrom(firstId, lastId, startMs, endMs, sources, types, sourceTypes);
            auto lock = file->lockHoldingGil();
            ml::SqliteLogFile& f = file->file();
            OpenLogFile::Visit visit(*file);
            uint64_t before = f.getFailureCount();
            int64_t visited = 0;
            PayloadBuffers buffers;
            bool ok =
                visitSelection(f, selection, verifyChecksums, entryOrder, 0, [&](const ml::EntryView& view) {
                    py::object payloadView;
                    py::object payload;
                    if (as == PayloadAs::Bytes) {
                        payload = toBytes(view.data, view.size);
                    } else {
                        payloadView = buffers.view(view.data, view.size);
                        payload = payloadView;
                    }
                    py::object entry = makeEntry(view.entryId, view.dataSourceId, view.type, view.timestamp,
                                                 std::move(payload));
                    ++visited;
                    py::object answer;
                    try {
                        answer = callback(std::move(entry));
                    } catch (...) {
                        // The traceback may hold the entry.
                        buffers.release(payloadView);
                        throw;
                    }
                    // Valid during the call only, as documented.
                    buffers.release(payloadView);
                    return answer.is_none() || answer.cast<bool>();
                });
            if (!ok) {
                file->raiseFailure(before);
            }
            return visited;
        },
        py::arg("file"), py::arg("callback"), MV_SELECTION_ARGS, py::arg("payload_as"),
        py::arg("verify_checksums") = false, py::arg("order") = "id");

    m.def(
        "_read_entry",
        [](const Handle& file, int32_t id) -> py::object {
            auto lock = file->lockHoldingGil();
            ml::SqliteLogFile& f = file->file();
            uint64_t before = f.getFailureCount();
            auto entry = f.readEntry(id);
            if (!entry) {
                if (f.getFailureCount() > before) {
                    file->raiseFailure(before);
                }
                return py::none();
            }
            return makeEntry(entry->entryId, entry->dataSourceId, entry->type, entry->timestamp,
                             toBytes(entry->data.data(), entry->data.size()));
        },
        py::arg("file"), py::arg("id"));

    m.def(
        "_index",
        [](const Handle& file, int32_t firstId, int32_t lastId, int64_t startMs, int64_t endMs,
           const std::vector<int32_t>& sources, const std::vector<int32_t>& types,
           const std::vector<int32_t>& sourceTypes, const std::string& order) {
            Selection selection = selectionFrom(firstId, lastId, startMs, endMs, sources, types, sourceTypes);
            ml::VisitOptions options;
            options.order = parseOrder(order);
            auto rows = std::make_unique<std::vector<IndexRow>>();
            bool ok = false;
            uint64_t before = 0;
            {
                py::gil_scoped_release release;
                auto lock = file->lockWithoutGil();
                ml::SqliteLogFile& f = file->file();
                before = f.getFailureCount();
                const auto addRow = [&](const ml::EntrySummary& s) {
                    rows->push_back(IndexRow{s.entryId, s.dataSourceId, s.type, s.timestamp, s.storedSize});
                    return true;
                };
                ok = options.order == ml::EntryOrder::Id
                         ? f.visitEntrySummaries(selection.range, selection.filter, addRow)
                         : f.visitEntrySummaries(selection.range, selection.filter, addRow, options);
            }
            if (!ok) {
                file->raiseFailure(before);
            }
            rows->shrink_to_fit();
            auto* owned = rows.release();
            py::capsule owner(owned,
                              [](void* pointer) { delete static_cast<std::vector<IndexRow>*>(pointer); });
            return py::array_t<IndexRow>(static_cast<py::ssize_t>(owned->size()), owned->data(), owner);
        },
        py::arg("file"), MV_SELECTION_ARGS, py::arg("order") = "id");

    // For the benchmark only: the same reads in C++ alone, timed there.
    m.def(
        "_bench_visit",
        [](const Handle& file, bool summariesOnly) {
            uint64_t count = 0;
            uint64_t bytes = 0;
            uint64_t checksum = 0;
            double seconds = 0;
            bool ok = false;
            {
                py::gil_scoped_release release;
                auto lock = file->lockWithoutGil();
                ml::SqliteLogFile& f = file->file();
                auto start = std::chrono::steady_clock::now();
                if (summariesOnly) {
                    std::vector<IndexRow> rows;
                    ok = f.visitEntrySummaries(ml::EntryRange::all(), {}, [&](const ml::EntrySummary& s) {
                        rows.push_back(
                            IndexRow{s.entryId, s.dataSourceId, s.type, s.timestamp, s.storedSize});
                        return true;
                    });
                    count = rows.size();
                } else {
                    ok = f.visitEntries(ml::EntryRange::all(), {}, [&](const ml::EntryView& view) {
                        ++count;
                        bytes += view.size;
                        if (view.size > 0) {
                            checksum += static_cast<uint8_t>(view.data[view.size - 1]);
                        }
                        return true;
                    });
                }
                seconds = secondsSince(start);
            }
            if (!ok) {
                file->raiseFailure(0);
            }
            return py::make_tuple(count, bytes, seconds, checksum);
        },
        py::arg("file"), py::arg("summaries_only"));
}

}  // namespace marivane_python
