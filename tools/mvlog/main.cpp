// mvlog: inspect, extract, derive, check and replay log files from the
// command line, through the library's public class interface.

#include "CommandLine.h"

#include <csignal>

int main(int argc, char** argv) {
    // A closed pipe ends the command at once and quietly, as it does for
    // cat or head, also when the caller (a script, another program) ignored
    // SIGPIPE: otherwise a looping replay into a closed pipe would never stop.
    std::signal(SIGPIPE, SIG_DFL);
    return Mvlog::runCommandLine(argc, argv);
}
