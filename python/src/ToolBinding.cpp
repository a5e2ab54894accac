#include "Common.h"

#include <CommandLine.h>

#include <pybind11/stl.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace marivane_python {

namespace {

// The commands that run inside the interpreter: they only read and print.
// The others fork, replace signal handlers for the whole process or end it on
// a signal, which is a program's business, not a library call's.
constexpr std::array<const char*, 3> kToolCommands = {"info", "cat", "check"};

// One command line at a time per process: the tool's terminal and interrupt
// state is process-wide.
std::mutex toolMutex;

}  // namespace

// `python3 -m marivane_logging info|cat|check ...` runs mvlog's own command
// line, so that both print the same bytes and take the same options.
void bindTool(py::module_& module) {
    module.def(
        "_run_tool",
        [](const std::vector<std::string>& arguments) {
            if (arguments.empty() ||
                std::none_of(kToolCommands.begin(), kToolCommands.end(),
                             [&](const char* command) { return arguments.front() == command; })) {
                throw std::invalid_argument("the tool commands that run in Python are info, cat and check");
            }
            std::vector<const char*> argv;
            argv.reserve(arguments.size() + 1);
            argv.push_back("mvlog");
            for (const std::string& argument : arguments) {
                argv.push_back(argument.c_str());
            }
            int code = 0;
            {
                py::gil_scoped_release release;
                const std::lock_guard lock(toolMutex);
                code = Mvlog::runCommandLine(static_cast<int>(argv.size()), argv.data());
                std::fflush(stdout);
                std::fflush(stderr);
            }
            return code;
        },
        py::arg("arguments"),
        "Runs one mvlog info, cat or check command line (without the program name) in this process and "
        "returns its exit code; output goes to the process's stdout and stderr.");
}

}  // namespace marivane_python
