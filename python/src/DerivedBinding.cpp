#include "Common.h"

#include <logging/Algorithms.h>
#include <logging/Copy.h>
#include <logging/Recover.h>
#include <logging/ThrownFailure.h>

#include <pybind11/stl.h>

#include <memory>
#include <stdexcept>

namespace marivane_python {
namespace {

using Handle = std::shared_ptr<OpenLogFile>;

// The derived file as an open handle: the algorithms answer the interface,
// which for this library is always a SqliteLogFile.
Handle adopt(std::unique_ptr<ml::LogFileInterface> result) {
    if (ml::SqliteLogFile* sqlite = result->sqliteLogFile()) {
        return std::make_shared<OpenLogFile>(std::move(*sqlite));
    }
    std::filesystem::path path = result->getFilePath();
    result.reset();
    return std::make_shared<OpenLogFile>(ml::SqliteLogFile(path));
}

// A Python progress callback called from a copy, merge or salvage: these run
// without the GIL, so the callback takes it, and a Python exception stops the
// work and is raised again once it has unwound.
struct Progress {
    py::object callback;
    std::optional<py::error_already_set> error;
};

ml::CopyOptions makeOptions(int32_t firstId, int32_t lastId, int64_t startMs, int64_t endMs,
                            const std::vector<int32_t>& sources, const std::vector<int32_t>& types,
                            const std::vector<int32_t>& sourceTypes, std::optional<int> level,
                            ml::Durability durability, const std::string& application,
                            const std::string& version, Progress& progress) {
    ml::CopyOptions options;
    options.firstEntryId = firstId;
    options.lastEntryId = lastId;
    options.startTimestamp = startMs;
    options.endTimestamp = endMs;
    options.filter = makeFilter(sources, types, sourceTypes);
    if (level) {
        options.compressionLevel = compressionLevel(*level);
    }
    options.durability = durability;
    options.applicationName = application;
    options.applicationVersion = version;
    if (!progress.callback.is_none()) {
        options.progress = [&progress](uint64_t written, uint64_t total) {
            py::gil_scoped_acquire acquire;
            try {
                progress.callback(written, total);
            } catch (py::error_already_set& error) {
                progress.error = error;
                throw std::runtime_error("stopped by the progress callback");
            }
        };
    }
    return options;
}

// Runs `run` without the GIL. The callback's exception comes back as itself,
// the library's other failures as LogFileError with its message.
template <typename Run>
auto runWithoutGil(Progress& progress, Run&& run) -> decltype(run()) {
    try {
        py::gil_scoped_release release;
        return run();
    } catch (const std::runtime_error& error) {
        if (progress.error) {
            throw *progress.error;
        }
        if (ml::isDatabaseFailure(ml::classifyThrown(error))) {
            // The translator maps the database layer's errors.
            throw;
        }
        raiseError("LogFileError", error.what());
    }
}

ml::RecoverOptions makeRecoverOptions(const std::string& application, const std::string& version,
                                      Progress& progress) {
    ml::RecoverOptions options;
    options.applicationName = application;
    options.applicationVersion = version;
    if (!progress.callback.is_none()) {
        options.progress = [&progress](uint64_t recovered) {
            // Once the callback has raised it is not called again: the
            // salvage is on its way out.
            if (progress.error) {
                throw std::runtime_error("stopped by the progress callback");
            }
            py::gil_scoped_acquire acquire;
            try {
                progress.callback(recovered);
            } catch (py::error_already_set& error) {
                progress.error = error;
                throw std::runtime_error("stopped by the progress callback");
            }
        };
    }
    return options;
}

// The report as keyword arguments of marivane_logging.RecoveryReport.
py::dict reportFields(const ml::RecoveryReport& report) {
    py::list lost;
    for (const ml::EntryIdRange& range : report.lostEntryIds) {
        lost.append(py::make_tuple(range.first, range.last));
    }
    py::list notes;
    for (const std::string& note : report.notes) {
        notes.append(py::str(note));
    }
    py::dict fields;
    fields["entries_recovered"] = report.entriesRecovered;
    fields["entries_lost"] = report.entriesLost;
    fields["lost_entry_ids"] = lost;
    fields["data_sources_recovered"] = report.dataSourcesRecovered;
    fields["data_sources_recreated"] = report.dataSourcesRecreated;
    fields["properties_recovered"] = report.propertiesRecovered;
    fields["properties_lost"] = report.propertiesLost;
    fields["metadata_recovered"] = report.metadataRecovered;
    fields["metadata_lost"] = report.metadataLost;
    fields["resources_recovered"] = report.resourcesRecovered;
    fields["resources_lost"] = report.resourcesLost;
    fields["bookmarks_recovered"] = report.bookmarksRecovered;
    fields["bookmarks_lost"] = report.bookmarksLost;
    fields["pages_scanned"] = report.pagesScanned;
    fields["notes"] = notes;
    fields["entries_lost_is_lower_bound"] = report.entriesLostIsLowerBound;
    return fields;
}

}  // namespace

void bindDerived(py::module_& m) {
    py::class_<ml::CopyReport>(m, "CopyReport", "What copy() or merge() wrote.")
        .def_readonly("entries", &ml::CopyReport::entries)
        .def_readonly("data_sources", &ml::CopyReport::dataSources)
        .def_readonly("bookmarks", &ml::CopyReport::bookmarks)
        .def_readonly("resources", &ml::CopyReport::resources)
        .def_readonly("payloads_copied_as_stored", &ml::CopyReport::payloadsCopiedAsStored,
                      "Payloads copied as stored rather than expanded and compressed again.")
        .def_readonly("notes", &ml::CopyReport::notes, "What was not carried over, one sentence each.")
        .def("__repr__", [](const ml::CopyReport& report) {
            return "CopyReport(entries=" + std::to_string(report.entries) +
                   ", data_sources=" + std::to_string(report.dataSources) +
                   ", bookmarks=" + std::to_string(report.bookmarks) +
                   ", resources=" + std::to_string(report.resources) +
                   ", notes=" + std::to_string(report.notes.size()) + ")";
        });

    m.def(
        "_slice",
        [](const Handle& file, int32_t first, int32_t last, const std::string& output,
           const std::string& application, const std::string& version, int level) -> std::optional<Handle> {
            int8_t checkedLevel = compressionLevel(level);
            std::unique_ptr<ml::LogFileInterface> result;
            {
                py::gil_scoped_release release;
                auto lock = file->lockWithoutGil();
                result = ml::Algorithms::slice(file->file(), first, last, output, application, version,
                                               checkedLevel);
            }
            if (!result) {
                return std::nullopt;
            }
            return adopt(std::move(result));
        },
        py::arg("file"), py::arg("first"), py::arg("last"), py::arg("output"), py::arg("application"),
        py::arg("version"), py::arg("level"));

    m.def(
        "_clone",
        [](const Handle& file, const std::string& output, const std::string& application,
           const std::string& version, int level) -> std::optional<Handle> {
            int8_t checkedLevel = compressionLevel(level);
            std::unique_ptr<ml::LogFileInterface> result;
            {
                py::gil_scoped_release release;
                auto lock = file->lockWithoutGil();
                result = ml::Algorithms::clone(file->file(), output, application, version, checkedLevel);
            }
            if (!result) {
                return std::nullopt;
            }
            return adopt(std::move(result));
        },
        py::arg("file"), py::arg("output"), py::arg("application"), py::arg("version"), py::arg("level"));

    m.def(
        "_copy",
        [](const std::string& source, const std::string& output, int32_t firstId, int32_t lastId,
           int64_t startMs, int64_t endMs, const std::vector<int32_t>& sources,
           const std::vector<int32_t>& types, const std::vector<int32_t>& sourceTypes,
           std::optional<int> level, ml::Durability durability, const std::string& application,
           const std::string& version, py::object progressCallback) {
            Progress progress{std::move(progressCallback), std::nullopt};
            ml::CopyOptions options =
                makeOptions(firstId, lastId, startMs, endMs, sources, types, sourceTypes, level, durability,
                            application, version, progress);
            return runWithoutGil(progress, [&] { return ml::Algorithms::copy(source, output, options); });
        },
        py::arg("source"), py::arg("output"), py::arg("first_id"), py::arg("last_id"), py::arg("start_ms"),
        py::arg("end_ms"), py::arg("sources"), py::arg("types"), py::arg("source_types"),
        py::arg("compression_level"), py::arg("durability"), py::arg("application"), py::arg("version"),
        py::arg("progress"));

    m.def(
        "_merge",
        [](const std::vector<std::string>& inputs, const std::string& output, int32_t firstId, int32_t lastId,
           int64_t startMs, int64_t endMs, const std::vector<int32_t>& sources,
           const std::vector<int32_t>& types, const std::vector<int32_t>& sourceTypes,
           std::optional<int> level, ml::Durability durability, const std::string& application,
           const std::string& version, py::object progressCallback) {
            Progress progress{std::move(progressCallback), std::nullopt};
            ml::CopyOptions options =
                makeOptions(firstId, lastId, startMs, endMs, sources, types, sourceTypes, level, durability,
                            application, version, progress);
            std::vector<std::filesystem::path> paths(inputs.begin(), inputs.end());
            return runWithoutGil(progress, [&] { return ml::Algorithms::merge(paths, output, options); });
        },
        py::arg("inputs"), py::arg("output"), py::arg("first_id"), py::arg("last_id"), py::arg("start_ms"),
        py::arg("end_ms"), py::arg("sources"), py::arg("types"), py::arg("source_types"),
        py::arg("compression_level"), py::arg("durability"), py::arg("application"), py::arg("version"),
        py::arg("progress"));

    m.def(
        "_recover",
        [](const std::string& damaged, const std::string& output, const std::string& application,
           const std::string& version, py::object progressCallback) {
            Progress progress{std::move(progressCallback), std::nullopt};
            ml::RecoverOptions options = makeRecoverOptions(application, version, progress);
            const ml::RecoveryReport report =
                runWithoutGil(progress, [&] { return ml::Algorithms::recover(damaged, output, options); });
            if (progress.error) {
                throw *progress.error;
            }
            return reportFields(report);
        },
        py::arg("damaged"), py::arg("output"), py::arg("application"), py::arg("version"),
        py::arg("progress"));
}

}  // namespace marivane_python
