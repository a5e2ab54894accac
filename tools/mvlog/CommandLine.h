#pragma once

namespace Mvlog {

// Runs one mvlog command line (argv[0] is the program, argv[1] the command)
// and returns its exit code: 0 done, 1 failed, 2 a usage error. Results go to
// stdout, messages to stderr, exactly as the mvlog program prints them; the
// Python package's `python3 -m marivane_logging` runs its tool commands
// through here, so both print the same. Signal dispositions are the caller's.
// Not reentrant: one command line at a time per process.
int runCommandLine(int argc, const char* const* argv);

}  // namespace Mvlog
