#pragma once

// Shared by the binding's translation units: the owner of an open file, the
// error mapping and the conversions between the library's values and Python's.

#include <logging/EntryIndexFilter.h>
#include <logging/EntryRange.h>
#include <logging/FailureKind.h>
#include <logging/SqliteLogFile.h>
#include <logging/ThrownFailure.h>

#include <pybind11/pybind11.h>

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace marivane_python {

namespace py = pybind11;
namespace ml = Marivane::Logging;

// Raises the exception class `className` of marivane_logging._errors with
// `message`.
[[noreturn]] void raiseError(const char* className, const std::string& message);
// The exception class for a failure kind.
const char* errorClassFor(ml::FailureKind kind);
const char* errorClassFor(ml::ThrownFailure failure);
// Raises Python's RuntimeError with `message`.
[[noreturn]] void raiseRuntimeError(const std::string& message);

// Translates the library's exceptions into the package's exception classes.
void registerExceptionTranslator();

// An open log file as Python holds it. SqliteLogFile serves one thread at a
// time, while long reads here run without the GIL: every call takes the lock,
// which is recursive so that a visitor's Python code may read the same file.
class OpenLogFile {
public:
    explicit OpenLogFile(ml::SqliteLogFile file) : file_(std::move(file)) {}

    // The lock for a call that keeps the GIL. Waiting for it without the GIL
    // keeps a thread that holds it and wants the GIL back from deadlocking.
    std::unique_lock<std::recursive_mutex> lockHoldingGil() const {
        std::unique_lock<std::recursive_mutex> lock(mutex_, std::try_to_lock);
        if (!lock.owns_lock()) {
            py::gil_scoped_release release;
            lock.lock();
        }
        return lock;
    }
    // For calls that run without the GIL: take it after releasing the GIL.
    std::unique_lock<std::recursive_mutex> lockWithoutGil() const {
        return std::unique_lock<std::recursive_mutex>(mutex_);
    }

    // The file; ValueError once closed.
    ml::SqliteLogFile& file();
    const ml::SqliteLogFile& file() const;
    // The file for a write, with the lock held: ValueError once closed,
    // RuntimeError inside a visit of this file.
    ml::SqliteLogFile& fileForWriting();
    bool isOpen() const { return file_.has_value(); }
    // With the lock held: commits an open batch and closes the file;
    // RuntimeError inside a visit of this file.
    void close();

    // Marks a visit of the file for its duration, with the lock held. A visit
    // runs Python code (its callback, or whatever the allocation of an entry
    // lets the garbage collector run) while the library's reader is on the
    // stack; the lock is recursive, so that code may call back into this
    // file: reads are fine, but closing the file or writing to it would free
    // or move what the reader is walking.
    class Visit {
    public:
        explicit Visit(OpenLogFile& file) : file_(file) { ++file_.visits_; }
        ~Visit() { --file_.visits_; }
        Visit(const Visit&) = delete;
        Visit& operator=(const Visit&) = delete;

    private:
        OpenLogFile& file_;
    };
    // True, with the lock held, only on the thread that is visiting.
    bool isBeingVisited() const { return visits_ > 0; }
    // RuntimeError "Cannot <operation> '<path>' while it is being visited; ..."
    [[noreturn]] void raiseVisited(const std::string& operation, const std::string& advice) const;

    // A failed write or read: the exception class follows the kind of the
    // failure counted since `failuresBefore`, the message is the file's text
    // (`fallback`, or the last error, for a refusal the file does not count).
    [[noreturn]] void raiseFailure(uint64_t failuresBefore, const std::string& fallback = {}) const;
    // Raises unless `ok`.
    void check(bool ok, uint64_t failuresBefore) const {
        if (!ok) {
            raiseFailure(failuresBefore);
        }
    }
    uint64_t failures() const { return file().getFailureCount(); }

    std::optional<ml::SqliteLogFile::WriteBatch> batch;

private:
    std::optional<ml::SqliteLogFile> file_;
    mutable std::recursive_mutex mutex_;
    // Guarded by mutex_.
    int visits_ = 0;
};

// An entry as Python sees it: a named tuple (id, source, type, timestamp,
// payload), where the payload is bytes, a memoryview or an array. A struct
// sequence rather than a bound class: streaming reads make millions of them,
// and a tuple costs a fraction of a class instance.
void createEntryType(py::module_& module);
py::object makeEntry(int32_t id, int8_t source, int32_t type, int64_t timestamp, py::object payload);

// The selection arguments shared by the reads.
struct Selection {
    ml::EntryRange range;
    ml::EntryIndexFilter filter;
};
Selection makeSelection(int32_t firstId, int32_t lastId, int64_t startMs, int64_t endMs,
                        const std::vector<int32_t>& sources, const std::vector<int32_t>& types,
                        const std::vector<int32_t>& sourceTypes);
ml::EntryIndexFilter makeFilter(const std::vector<int32_t>& sources, const std::vector<int32_t>& types,
                                const std::vector<int32_t>& sourceTypes);

// A level as a file keeps it (8 bits); ValueError for a wider one. Which
// levels a file accepts is the library's to say, not the binding's.
int8_t compressionLevel(int level);

py::bytes toBytes(const std::byte* data, std::size_t size);
ml::ByteBuffer toByteBuffer(const py::buffer& buffer);

void bindLogFile(py::module_& module);
void bindEntries(py::module_& module);
void bindDerived(py::module_& module);
void bindCheck(py::module_& module);
void bindPlayer(py::module_& module);
void bindRecorder(py::module_& module);
void bindTool(py::module_& module);

}  // namespace marivane_python
