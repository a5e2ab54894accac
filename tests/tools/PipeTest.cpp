// A closed pipe ends every command, quietly and at once, even when the caller
// ignores SIGPIPE (a looping replay used to run forever then).
#include "ToolTestSupport.h"

#include <TempDir.h>

#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

namespace MvlogTest {
namespace {

using Marivane::Testing::TempDir;

// Runs `mvlog ARGUMENTS | head -1` under sh, SIGPIPE ignored or not; the
// shell's own timeout ends a command that would hang.
RunResult runIntoClosedPipe(const std::vector<std::string>& arguments, bool ignorePipeSignal) {
    std::string command = ignorePipeSignal ? "trap '' PIPE; " : "";
    command += "timeout 20 \"$0\"";
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        command += " \"$" + std::to_string(i + 1) + "\"";
    }
    command += " | head -1 > /dev/null; echo \"${PIPESTATUS:-done}\"";
    std::vector<std::string> shellArguments = {"-c", command, MVLOG_BINARY};
    shellArguments.insert(shellArguments.end(), arguments.begin(), arguments.end());
    return runProgram("/bin/bash", shellArguments);
}

TEST(ClosedPipe, EndsEveryCommandQuickly) {
    TempDir directory;
    const std::string path = directory.file("known.mvlog");
    writeKnownFile(path);
    const std::vector<std::vector<std::string>> commands = {{"play", path, "--loop", "--speed", "1000"},
                                                            {"cat", path, "--follow"},
                                                            {"cat", path, "--format", "hex"},
                                                            {"info", path}};
    for (const bool ignore : {false, true}) {
        for (const std::vector<std::string>& command : commands) {
            const RunResult result = runIntoClosedPipe(command, ignore);
            EXPECT_EQ(result.exitCode, 0) << command.front();
            EXPECT_LT(result.seconds, 10.0) << command.front() << (ignore ? " with SIGPIPE ignored" : "");
            EXPECT_EQ(result.err, "") << command.front();
        }
    }
}

}  // namespace
}  // namespace MvlogTest
