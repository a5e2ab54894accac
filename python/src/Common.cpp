#include "Common.h"

#include <logging/ThrownFailure.h>

#include <cstring>
#include <stdexcept>

namespace marivane_python {

void raiseError(const char* className, const std::string& message) {
    py::object cls = py::module_::import("marivane_logging._errors").attr(className);
    PyErr_SetString(cls.ptr(), message.c_str());
    throw py::error_already_set();
}

void raiseRuntimeError(const std::string& message) {
    PyErr_SetString(PyExc_RuntimeError, message.c_str());
    throw py::error_already_set();
}

const char* errorClassFor(ml::FailureKind kind) {
    switch (kind) {
        case ml::FailureKind::Busy:
            return "BusyError";
        case ml::FailureKind::Damaged:
            return "DamagedError";
        case ml::FailureKind::IoError:
            return "DiskError";
        case ml::FailureKind::Full:
            return "DiskFullError";
        case ml::FailureKind::ReadOnly:
            return "ReadOnlyError";
        case ml::FailureKind::Refused:
            return "RefusedError";
        case ml::FailureKind::None:
        case ml::FailureKind::Other:
            break;
    }
    return "LogFileError";
}

// nullptr for exceptions that pybind11 translates itself.
const char* errorClassFor(ml::ThrownFailure failure) {
    switch (failure) {
        case ml::ThrownFailure::Busy:
            return "BusyError";
        case ml::ThrownFailure::NotADatabase:
        case ml::ThrownFailure::NotALogFile:
            return "NotALogFileError";
        case ml::ThrownFailure::LegacyLogFile:
            return "LegacyLogFileError";
        case ml::ThrownFailure::Damaged:
            return "DamagedError";
        case ml::ThrownFailure::Database:
            return "DatabaseError";
        case ml::ThrownFailure::Foreign:
            break;
    }
    return nullptr;
}

void registerExceptionTranslator() {
    // One translator, so that the most derived class is caught first.
    py::register_exception_translator([](std::exception_ptr pointer) {
        if (!pointer) {
            return;
        }
        auto set = [](const char* className, const char* message) {
            py::object cls = py::module_::import("marivane_logging._errors").attr(className);
            PyErr_SetString(cls.ptr(), message);
        };
        try {
            std::rethrow_exception(pointer);
        } catch (const std::exception& error) {
            const char* className = errorClassFor(ml::classifyThrown(error));
            if (className == nullptr) {
                throw;
            }
            set(className, error.what());
        }
        // Anything else falls through to pybind11's own translation.
    });
}

ml::SqliteLogFile& OpenLogFile::file() {
    if (!file_) {
        throw py::value_error("I/O operation on a closed log file");
    }
    return *file_;
}

const ml::SqliteLogFile& OpenLogFile::file() const {
    if (!file_) {
        throw py::value_error("I/O operation on a closed log file");
    }
    return *file_;
}

ml::SqliteLogFile& OpenLogFile::fileForWriting() {
    ml::SqliteLogFile& f = file();
    if (isBeingVisited()) {
        raiseVisited("write to", "write after visit() returns");
    }
    return f;
}

void OpenLogFile::raiseVisited(const std::string& operation, const std::string& advice) const {
    raiseRuntimeError("Cannot " + operation + " '" + file().getFilePath().string() +
                      "' while it is being visited; " + advice + ".");
}

void OpenLogFile::close() {
    if (file_ && isBeingVisited()) {
        raiseVisited("close", "return False from the callback to stop, and close after visit() returns");
    }
    if (batch) {
        batch->commit();
        batch.reset();
    }
    file_.reset();
}

void OpenLogFile::raiseFailure(uint64_t failuresBefore, const std::string& fallback) const {
    const ml::SqliteLogFile& f = file();
    if (f.getFailureCount() > failuresBefore) {
        // The last error is the text the failing call itself wrote; the
        // failure text is the fallback for the reads that only count.
        const bool textWritten = f.getLastErrorKind() != ml::FailureKind::None;
        raiseError(errorClassFor(f.getLastFailureKind()),
                   textWritten ? f.getLastError() : f.getLastFailure());
    }
    // Refusals that the file does not count (a duplicate metadata key, for
    // example) leave the last error untouched: the caller's text explains.
    raiseError(f.isReadOnly() ? "ReadOnlyError" : "RefusedError",
               fallback.empty() ? f.getLastError() : fallback);
}

ml::EntryIndexFilter makeFilter(const std::vector<int32_t>& sources, const std::vector<int32_t>& types,
                                const std::vector<int32_t>& sourceTypes) {
    ml::EntryIndexFilter filter;
    for (int32_t source : sources) {
        if (source < -128 || source > 127) {
            throw py::value_error("data source ids are 8-bit: " + std::to_string(source) +
                                  " is out of range");
        }
        filter.dataSources.push_back(static_cast<int8_t>(source));
    }
    filter.dataTypes = types;
    for (int32_t type : sourceTypes) {
        filter.dataSourceTypes.push_back(static_cast<MV_LogDataSourceType>(type));
    }
    return filter;
}

Selection makeSelection(int32_t firstId, int32_t lastId, int64_t startMs, int64_t endMs,
                        const std::vector<int32_t>& sources, const std::vector<int32_t>& types,
                        const std::vector<int32_t>& sourceTypes) {
    Selection selection;
    selection.range.minimumEntryId = firstId;
    selection.range.maximumEntryId = lastId;
    selection.range.startTimestamp = startMs;
    selection.range.endTimestamp = endMs;
    selection.filter = makeFilter(sources, types, sourceTypes);
    return selection;
}

int8_t compressionLevel(int level) {
    if (level < -128 || level > 127) {
        throw py::value_error("compression level out of range: " + std::to_string(level));
    }
    return static_cast<int8_t>(level);
}

py::bytes toBytes(const std::byte* data, std::size_t size) {
    return py::bytes(reinterpret_cast<const char*>(data), size);
}

ml::ByteBuffer toByteBuffer(const py::buffer& buffer) {
    py::buffer_info info = buffer.request();
    if (!PyBuffer_IsContiguous(info.view(), 'C')) {
        throw py::value_error("payloads must be contiguous buffers");
    }
    const auto size = static_cast<std::size_t>(info.size * info.itemsize);
    ml::ByteBuffer result(size);
    if (size > 0) {
        std::memcpy(result.data(), info.ptr, size);
    }
    return result;
}

}  // namespace marivane_python
