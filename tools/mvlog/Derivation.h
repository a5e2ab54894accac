#pragma once

#include "ProgressBar.h"

#include <logging/Logging.h>

#include <functional>
#include <string>

namespace Mvlog {

// Runs a derivation (a copy, a merge) with a progress bar (on a terminal, or
// always when asked), in a child process that a SIGINT, SIGTERM or SIGHUP
// ends together with its partial file. The library writes under a temporary name and renames only a
// complete file, so a failure leaves nothing under `output`; an interruption
// neither. Throws ToolError naming `what` and the reason.
Marivane::Logging::CopyReport deriveReporting(
    const char* what, const std::string& output, Marivane::Logging::CopyOptions options,
    const std::function<Marivane::Logging::CopyReport(const Marivane::Logging::CopyOptions&)>& derive,
    ProgressMode progress = ProgressMode::Auto);

}  // namespace Mvlog
