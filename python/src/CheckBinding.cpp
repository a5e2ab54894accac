#include "Common.h"

#include <logging/FileCheck.h>

#include <pybind11/stl.h>

#include <string>

namespace marivane_python {

namespace {

// The names of marivane_logging.CheckProblemKind's members.
const char* kindName(ml::CheckProblemKind kind) {
    switch (kind) {
        case ml::CheckProblemKind::File:
            return "file";
        case ml::CheckProblemKind::Database:
            return "database";
        case ml::CheckProblemKind::Metadata:
            return "metadata";
        case ml::CheckProblemKind::Entry:
            return "entry";
        case ml::CheckProblemKind::Bookmark:
            return "bookmark";
        case ml::CheckProblemKind::Resource:
            return "resource";
        case ml::CheckProblemKind::Incomplete:
            return "incomplete";
    }
    return "incomplete";
}

// The report as keyword arguments of marivane_logging.CheckReport, its
// problems as those of marivane_logging.CheckProblem.
py::dict reportFields(const ml::CheckReport& report) {
    py::list problems;
    for (const ml::CheckProblem& problem : report.problems) {
        py::dict fields;
        fields["kind"] = kindName(problem.kind);
        fields["entry_id"] =
            problem.entryId ? py::object(py::int_(*problem.entryId)) : py::object(py::none());
        fields["message"] = problem.message;
        fields["damage"] = problem.damage;
        problems.append(std::move(fields));
    }
    py::dict fields;
    fields["problems"] = std::move(problems);
    if (report.checked) {
        py::dict counts;
        counts["entries"] = report.checked->entries;
        counts["data_sources"] = report.checked->dataSources;
        counts["resources"] = report.checked->resources;
        counts["bookmarks"] = report.checked->bookmarks;
        fields["checked"] = std::move(counts);
    } else {
        fields["checked"] = py::none();
    }
    return fields;
}

}  // namespace

void bindCheck(py::module_& module) {
    module.def(
        "_check",
        [](const std::string& path) {
            ml::CheckReport report;
            {
                py::gil_scoped_release release;
                report = ml::checkLogFile(path);
            }
            return reportFields(report);
        },
        py::arg("path"));
}

}  // namespace marivane_python
