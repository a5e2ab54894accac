#include "Common.h"

#include <logging/Version.h>

// The native half of marivane_logging: thin bindings over the class
// interface. Everything a user calls is in the package's Python modules, which
// convert times, selections and records; this module stays close to the
// library so that both halves can be read side by side with its headers.
PYBIND11_MODULE(_core, module) {
    module.doc() = "Native bindings of libmarivane-logging (use the marivane_logging package).";
    marivane_python::registerExceptionTranslator();
    marivane_python::bindLogFile(module);
    marivane_python::bindEntries(module);
    marivane_python::bindDerived(module);
    marivane_python::bindCheck(module);
    marivane_python::bindPlayer(module);
    marivane_python::bindRecorder(module);
#ifdef MARIVANE_PYTHON_WITH_TOOL
    marivane_python::bindTool(module);
#endif
    module.attr("LIBRARY_VERSION") = MARIVANE_LOGGING_VERSION;
}
