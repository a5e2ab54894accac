#include "Common.h"

#include <CommandLine.h>

#include <pybind11/stl.h>

#include <cstdio>
#include <string>
#include <vector>

namespace marivane_python {

// `python3 -m marivane_logging info|cat|check ...` runs mvlog's own command
// line, so that both print the same bytes and take the same options.
void bindTool(py::module_& module) {
    module.def(
        "_run_tool",
        [](const std::vector<std::string>& arguments) {
            std::vector<const char*> argv;
            argv.reserve(arguments.size() + 1);
            argv.push_back("mvlog");
            for (const std::string& argument : arguments) {
                argv.push_back(argument.c_str());
            }
            int code = 0;
            {
                py::gil_scoped_release release;
                code = Mvlog::runCommandLine(static_cast<int>(argv.size()), argv.data());
                std::fflush(stdout);
                std::fflush(stderr);
            }
            return code;
        },
        py::arg("arguments"),
        "Runs one mvlog command line (without the program name) in this process and returns its exit code; "
        "output goes to the process's stdout and stderr.");
}

}  // namespace marivane_python
