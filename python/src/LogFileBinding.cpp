#include "Common.h"

#include <logging/Bookmark.h>
#include <logging/DataSource.h>
#include <logging/DataSourceProperty.h>
#include <logging/DataSourceTypeName.h>
#include <logging/PayloadEncoding.h>

#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include <chrono>
#include <memory>

namespace marivane_python {

namespace {

using Handle = std::shared_ptr<OpenLogFile>;

int64_t nowMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

py::tuple bookmarkTuple(const ml::Bookmark& bookmark) {
    return py::make_tuple(bookmark.entryId, bookmark.title, bookmark.comments,
                          toBytes(bookmark.payload.data(), bookmark.payload.size()));
}

ml::Bookmark makeBookmark(int32_t entryId, std::string title, std::string comments,
                          const std::optional<py::buffer>& payload) {
    ml::Bookmark bookmark;
    bookmark.entryId = entryId;
    bookmark.title = std::move(title);
    bookmark.comments = std::move(comments);
    if (payload) {
        bookmark.payload = toByteBuffer(*payload);
    }
    return bookmark;
}

int8_t sourceId(int32_t source) {
    if (source < -128 || source > 127) {
        throw py::value_error("data source ids are 8-bit: " + std::to_string(source) + " is out of range");
    }
    return static_cast<int8_t>(source);
}

}  // namespace

void bindLogFile(py::module_& m) {
    m.def(
        "_sniff_encoding",
        [](const py::bytes& payload) {
            const std::string_view bytes(payload);
            return std::string(
                ml::PayloadEncoding::sniff(reinterpret_cast<const std::byte*>(bytes.data()), bytes.size()));
        },
        py::arg("payload"), "The media type of a payload from its first bytes (the library's test).");
    m.def(
        "_common_data_source_types",
        [] {
            std::vector<std::pair<int32_t, std::string>> types;
            for (auto& [type, name] : ml::commonDataSourceTypes()) {
                types.emplace_back(static_cast<int32_t>(type), std::move(name));
            }
            return types;
        },
        "The common data-source types as (value, short name) in ascending value: the library's table.");
    py::enum_<ml::Durability>(m, "Durability", "How a log file trades speed for safety (kept by the file).")
        .value("FAST", ml::Durability::Fast,
               "No flushes, journal in memory: fastest, a crash may lose writes.")
        .value("SAFE", ml::Durability::Safe, "Write-ahead log with flushes: commits survive a crash.")
        .value("BALANCED", ml::Durability::Balanced,
               "Journal on disk without flushes: commits survive a kill of the process (the recorder's "
               "default; not kept by the file).");

    py::enum_<ml::FailureKind>(m, "FailureKind", "What kind of failure a log file's most recent failure was.")
        .value("NONE", ml::FailureKind::None)
        .value("BUSY", ml::FailureKind::Busy)
        .value("DAMAGED", ml::FailureKind::Damaged)
        .value("IO_ERROR", ml::FailureKind::IoError)
        .value("FULL", ml::FailureKind::Full)
        .value("READ_ONLY", ml::FailureKind::ReadOnly)
        .value("REFUSED", ml::FailureKind::Refused)
        .value("OTHER", ml::FailureKind::Other);

    py::class_<OpenLogFile, Handle> cls(m, "_LogFile",
                                        "The native log file; use marivane_logging.LogFile instead.");
    cls.def_static(
           "open",
           [](const std::string& path, bool readOnly) {
               std::optional<ml::SqliteLogFile> file;
               {
                   // Opening may wait for another connection's lock.
                   py::gil_scoped_release release;
                   if (readOnly) {
                       file.emplace(ml::SqliteLogFile::openReadOnly(path));
                   } else {
                       file.emplace(std::filesystem::path(path));
                   }
               }
               return std::make_shared<OpenLogFile>(std::move(*file));
           },
           py::arg("path"), py::arg("read_only"))
        .def_static(
            "create",
            [](const std::string& path, const std::string& application, const std::string& version,
               const std::string& timeZone, int level, ml::Durability durability,
               std::optional<int64_t> created, bool checksums) {
                const int8_t checkedLevel = compressionLevel(level);
                std::optional<ml::SqliteLogFile> file;
                {
                    py::gil_scoped_release release;
                    file.emplace(path, timeZone, application, version, checkedLevel,
                                 created.value_or(nowMs()), durability, checksums);
                }
                return std::make_shared<OpenLogFile>(std::move(*file));
            },
            py::arg("path"), py::arg("application"), py::arg("version"), py::arg("time_zone"),
            py::arg("level"), py::arg("durability"), py::arg("created") = py::none(),
            py::arg("checksums") = false)
        .def("close",
             [](OpenLogFile& self) {
                 auto lock = self.lockHoldingGil();
                 self.close();
             })
        .def_property_readonly("is_open", &OpenLogFile::isOpen)
        .def_property_readonly("path",
                               [](const OpenLogFile& self) { return self.file().getFilePath().string(); })
        .def_property_readonly("read_only", [](const OpenLogFile& self) { return self.file().isReadOnly(); })
        .def_property_readonly("durability",
                               [](const OpenLogFile& self) { return self.file().getDurability(); })
        .def_property_readonly("has_checksums",
                               [](const OpenLogFile& self) { return self.file().hasEntryChecksums(); })
        .def_property_readonly("failure_count",
                               [](const OpenLogFile& self) { return self.file().getFailureCount(); })
        .def_property_readonly("last_failure",
                               [](const OpenLogFile& self) { return self.file().getLastFailure(); })
        .def_property_readonly("last_failure_kind",
                               [](const OpenLogFile& self) { return self.file().getLastFailureKind(); })
        .def_property_readonly("last_error",
                               [](const OpenLogFile& self) {
                                   // Written by whichever call fails last: read it between calls.
                                   auto lock = self.lockHoldingGil();
                                   return self.file().getLastError();
                               })

        // ---- reads ---------------------------------------------------------
        .def("metadata",
             [](const OpenLogFile& self) {
                 auto lock = self.lockHoldingGil();
                 uint64_t before = self.failures();
                 auto entries = self.file().getAllMetadata();
                 if (self.failures() > before) {
                     self.raiseFailure(before, "");
                 }
                 py::list result;
                 for (const auto& entry : entries) {
                     result.append(py::make_tuple(entry.key, entry.value));
                 }
                 return result;
             })
        .def("metadata_value",
             [](const OpenLogFile& self, const std::string& key) {
                 auto lock = self.lockHoldingGil();
                 return self.file().getMetadataValue(key);
             })
        .def("data_sources",
             [](const OpenLogFile& self) {
                 auto lock = self.lockHoldingGil();
                 uint64_t before = self.failures();
                 auto sources = self.file().getDataSources();
                 auto properties = self.file().getAllDataSourceProperties();
                 if (self.failures() > before) {
                     self.raiseFailure(before, "");
                 }
                 py::list sourceList;
                 for (const auto& source : sources) {
                     sourceList.append(py::make_tuple(static_cast<int>(source.id),
                                                      static_cast<int>(source.type), source.name));
                 }
                 py::list propertyList;
                 for (const auto& property : properties) {
                     propertyList.append(py::make_tuple(static_cast<int>(property.dataSourceId),
                                                        property.propertyName, property.value));
                 }
                 return py::make_tuple(sourceList, propertyList);
             })
        .def("resources",
             [](const OpenLogFile& self) {
                 auto lock = self.lockHoldingGil();
                 uint64_t before = self.failures();
                 auto resources = self.file().getAllResources();
                 if (self.failures() > before) {
                     self.raiseFailure(before, "");
                 }
                 py::list result;
                 for (const auto& resource : resources) {
                     result.append(
                         py::make_tuple(resource.name, toBytes(resource.data.data(), resource.data.size())));
                 }
                 return result;
             })
        .def("resource",
             [](const OpenLogFile& self, const std::string& name) -> py::object {
                 auto lock = self.lockHoldingGil();
                 auto data = self.file().getResource(name);
                 if (!data) {
                     return py::none();
                 }
                 return toBytes(data->data(), data->size());
             })
        .def("thumbnail",
             [](const OpenLogFile& self) -> py::object {
                 auto lock = self.lockHoldingGil();
                 auto data = self.file().getThumbnail();
                 if (!data) {
                     return py::none();
                 }
                 return toBytes(data->data(), data->size());
             })
        .def("bookmarks",
             [](const OpenLogFile& self) {
                 auto lock = self.lockHoldingGil();
                 uint64_t before = self.failures();
                 auto bookmarks = self.file().getBookmarks();
                 if (self.failures() > before) {
                     self.raiseFailure(before, "");
                 }
                 py::list result;
                 for (const auto& bookmark : bookmarks) {
                     result.append(bookmarkTuple(bookmark));
                 }
                 return result;
             })
        .def("entry_count",
             [](const OpenLogFile& self) {
                 auto lock = self.lockHoldingGil();
                 uint64_t before = self.failures();
                 int32_t count = self.file().getEntryCount();
                 self.check(count >= 0, before);
                 return count;
             })
        .def("first_entry_id",
             [](const OpenLogFile& self) {
                 auto lock = self.lockHoldingGil();
                 return self.file().getFirstEntryId();
             })
        .def("last_entry_id",
             [](const OpenLogFile& self) {
                 auto lock = self.lockHoldingGil();
                 return self.file().getLastEntryId();
             })
        .def("has_entry",
             [](const OpenLogFile& self, int32_t id) {
                 auto lock = self.lockHoldingGil();
                 return self.file().hasEntry(id);
             })
        .def(
            "time_range",
            [](const OpenLogFile& self, const std::vector<int32_t>& sources,
               const std::vector<int32_t>& types,
               const std::vector<int32_t>& sourceTypes) -> std::optional<std::pair<int64_t, int64_t>> {
                auto filter = makeFilter(sources, types, sourceTypes);
                uint64_t before = 0;
                std::optional<ml::TimeRange> range;
                {
                    py::gil_scoped_release release;
                    auto lock = self.lockWithoutGil();
                    before = self.file().getFailureCount();
                    range = self.file().getTimeRange(filter);
                }
                if (!range) {
                    if (self.failures() > before) {
                        self.raiseFailure(before, "");
                    }
                    return std::nullopt;
                }
                return std::make_pair(range->first, range->last);
            },
            py::arg("sources"), py::arg("types"), py::arg("source_types"))
        .def(
            "find_entry_at_or_after",
            [](const OpenLogFile& self, int64_t timestamp, const std::vector<int32_t>& sources,
               const std::vector<int32_t>& types, const std::vector<int32_t>& sourceTypes) {
                auto filter = makeFilter(sources, types, sourceTypes);
                uint64_t before = 0;
                std::optional<int32_t> id;
                {
                    py::gil_scoped_release release;
                    auto lock = self.lockWithoutGil();
                    before = self.file().getFailureCount();
                    id = self.file().findEntryAtOrAfter(timestamp, filter);
                }
                if (!id && self.failures() > before) {
                    self.raiseFailure(before, "");
                }
                return id;
            },
            py::arg("timestamp"), py::arg("sources"), py::arg("types"), py::arg("source_types"))
        .def("entry_timestamp",
             [](const OpenLogFile& self, int32_t id) {
                 auto lock = self.lockHoldingGil();
                 return self.file().getEntryTimestamp(id);
             })
        .def("create_time_index",
             [](OpenLogFile& self) {
                 bool ok = false;
                 uint64_t before = 0;
                 bool visited = false;
                 {
                     py::gil_scoped_release release;
                     auto lock = self.lockWithoutGil();
                     visited = self.isOpen() && self.isBeingVisited();
                     if (!visited) {
                         before = self.file().getFailureCount();
                         ok = self.file().createTimeIndex();
                     }
                 }
                 if (visited) {
                     self.raiseVisited("write to", "write after visit() returns");
                 }
                 if (!ok) {
                     const auto& f = self.file();
                     if (f.getFailureCount() > before) {
                         self.raiseFailure(before, "");
                     }
                     raiseError(f.isReadOnly() ? "ReadOnlyError" : "LogFileError", f.getLastError());
                 }
             })
        .def_property_readonly("has_time_index",
                               [](const OpenLogFile& self) {
                                   auto lock = self.lockHoldingGil();
                                   return self.file().hasTimeIndex();
                               })

        // ---- writes --------------------------------------------------------
        .def(
            "add_data_source",
            [](OpenLogFile& self, int32_t type, const std::string& name) {
                auto lock = self.lockHoldingGil();
                ml::DataSource source;
                source.type = static_cast<MV_LogDataSourceType>(type);
                source.name = name;
                uint64_t before = self.failures();
                bool ok = self.fileForWriting().addDataSource(source);
                self.check(ok, before);
                return static_cast<int>(source.id);
            },
            py::arg("type"), py::arg("name"))
        .def(
            "add_property",
            [](OpenLogFile& self, int32_t source, const std::string& key, const ml::PropertyValue& value) {
                auto lock = self.lockHoldingGil();
                ml::DataSourceProperty property{sourceId(source), key, value};
                uint64_t before = self.failures();
                bool ok = self.fileForWriting().addDataSourceProperty(property);
                self.check(ok, before);
            },
            py::arg("source"), py::arg("key"), py::arg("value"))
        .def(
            "log",
            [](OpenLogFile& self, int32_t source, int32_t type, const py::buffer& payload,
               std::optional<int64_t> timestamp) {
                ml::DataEntry entry;
                entry.dataSourceId = sourceId(source);
                entry.type = type;
                entry.data = toByteBuffer(payload);
                entry.timestamp = timestamp.value_or(nowMs());
                auto lock = self.lockHoldingGil();
                uint64_t before = self.failures();
                bool ok = self.fileForWriting().logData(entry);
                self.check(ok, before);
            },
            py::arg("source"), py::arg("type"), py::arg("payload"), py::arg("timestamp") = py::none())
        .def("begin_batch",
             [](OpenLogFile& self) {
                 auto lock = self.lockHoldingGil();
                 ml::SqliteLogFile& f = self.fileForWriting();
                 if (self.batch) {
                     throw py::value_error("A write batch is already open on this log file.");
                 }
                 if (f.isReadOnly()) {
                     raiseError("ReadOnlyError", "The log file '" + f.getFilePath().string() +
                                                     "' was opened read-only: it cannot be changed.");
                 }
                 self.batch.emplace(f.beginBatch());
             })
        .def("commit_batch",
             [](OpenLogFile& self) {
                 auto lock = self.lockHoldingGil();
                 if (!self.batch) {
                     return;
                 }
                 self.fileForWriting();
                 uint64_t before = self.failures();
                 bool ok = self.batch->commit();
                 self.batch.reset();
                 self.check(ok, before);
             })
        .def_property_readonly("batch_open", [](const OpenLogFile& self) { return self.batch.has_value(); })
        .def(
            "add_metadata",
            [](OpenLogFile& self, const std::string& key, const ml::PropertyValue& value) {
                auto lock = self.lockHoldingGil();
                uint64_t before = self.failures();
                if (!self.fileForWriting().addMetadata(key, value)) {
                    self.raiseFailure(before, "The log file already has a metadata key '" + key + "'.");
                }
            },
            py::arg("key"), py::arg("value"))
        .def(
            "add_resource",
            [](OpenLogFile& self, const std::string& name, const py::buffer& data) {
                auto bytes = toByteBuffer(data);
                auto lock = self.lockHoldingGil();
                uint64_t before = self.failures();
                if (!self.fileForWriting().addResource(name, bytes)) {
                    self.raiseFailure(before, "The log file already has a resource named '" + name + "'.");
                }
            },
            py::arg("name"), py::arg("data"))
        .def(
            "set_metadata",
            [](OpenLogFile& self, const std::string& key, const ml::PropertyValue& value) {
                auto lock = self.lockHoldingGil();
                uint64_t before = self.failures();
                bool ok = self.fileForWriting().setMetadata(key, value);
                self.check(ok, before);
            },
            py::arg("key"), py::arg("value"))
        .def(
            "remove_metadata",
            [](OpenLogFile& self, const std::string& key) {
                auto lock = self.lockHoldingGil();
                uint64_t before = self.failures();
                bool ok = self.fileForWriting().removeMetadata(key);
                self.check(ok, before);
            },
            py::arg("key"))
        .def(
            "replace_resource",
            [](OpenLogFile& self, const std::string& name, const py::buffer& data) {
                auto bytes = toByteBuffer(data);
                auto lock = self.lockHoldingGil();
                uint64_t before = self.failures();
                bool ok = self.fileForWriting().replaceResource(name, bytes);
                self.check(ok, before);
            },
            py::arg("name"), py::arg("data"))
        .def(
            "remove_resource",
            [](OpenLogFile& self, const std::string& name) {
                auto lock = self.lockHoldingGil();
                uint64_t before = self.failures();
                bool ok = self.fileForWriting().removeResource(name);
                self.check(ok, before);
            },
            py::arg("name"))
        .def(
            "set_thumbnail",
            [](OpenLogFile& self, const py::buffer& data) {
                auto bytes = toByteBuffer(data);
                auto lock = self.lockHoldingGil();
                uint64_t before = self.failures();
                bool ok = self.fileForWriting().setThumbnail(bytes);
                self.check(ok, before);
            },
            py::arg("data"))
        .def(
            "add_bookmark",
            [](OpenLogFile& self, int32_t entryId, std::string title, std::string comments,
               std::optional<py::buffer> payload) {
                auto bookmark = makeBookmark(entryId, std::move(title), std::move(comments), payload);
                auto lock = self.lockHoldingGil();
                uint64_t before = self.failures();
                bool ok = self.fileForWriting().addBookmark(bookmark);
                self.check(ok, before);
            },
            py::arg("entry_id"), py::arg("title"), py::arg("comments"), py::arg("payload") = py::none())
        .def(
            "update_bookmark",
            [](OpenLogFile& self, int32_t entryId, std::string title, std::string comments,
               std::optional<py::buffer> payload) {
                auto bookmark = makeBookmark(entryId, std::move(title), std::move(comments), payload);
                auto lock = self.lockHoldingGil();
                uint64_t before = self.failures();
                bool ok = self.fileForWriting().updateBookmark(bookmark);
                self.check(ok, before);
            },
            py::arg("entry_id"), py::arg("title"), py::arg("comments"), py::arg("payload") = py::none())
        .def(
            "remove_bookmark",
            [](OpenLogFile& self, int32_t entryId) {
                ml::Bookmark bookmark;
                bookmark.entryId = entryId;
                auto lock = self.lockHoldingGil();
                uint64_t before = self.failures();
                bool ok = self.fileForWriting().removeBookmark(bookmark);
                self.check(ok, before);
            },
            py::arg("entry_id"));
}

}  // namespace marivane_python
