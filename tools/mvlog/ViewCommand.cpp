#include "Commands.h"
#include "LogFileAccess.h"
#include "Terminal.h"
#include "view/ViewServer.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>

extern char** environ;

namespace Mvlog {

namespace {

// The files to serve: each named file, and the log files (*.mvlog) of each
// named directory, in name order: a fleet is a directory of recordings.
std::vector<std::filesystem::path> servedFiles(const std::vector<std::string>& named) {
    std::vector<std::filesystem::path> files;
    for (const std::string& name : named) {
        const std::filesystem::path path(name);
        std::error_code error;
        if (std::filesystem::is_directory(path, error)) {
            std::vector<std::filesystem::path> found;
            for (const auto& entry : std::filesystem::directory_iterator(path, error)) {
                if (entry.is_regular_file(error) && entry.path().extension() == ".mvlog") {
                    found.push_back(entry.path());
                }
            }
            if (error) {
                throw ToolError(fmt::format("{}: cannot list the directory: {}", name, error.message()));
            }
            if (found.empty()) {
                throw ToolError(fmt::format("{}: no log files (*.mvlog) in this directory", name));
            }
            std::sort(found.begin(), found.end());
            files.insert(files.end(), found.begin(), found.end());
        } else if (!std::filesystem::exists(path, error)) {
            throw ToolError(fmt::format("{}: no such file", name));
        } else {
            files.push_back(path);
        }
    }
    return files;
}

// Asks the desktop to open `url`; quietly does nothing where there is no
// desktop (the address is printed anyway). Returns the helper's process id
// (0 when it did not start), for the caller to reap.
pid_t openBrowser(const std::string& url) {
    const char* arguments[] = {"xdg-open", url.c_str(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t child = 0;
    if (posix_spawnp(&child, "xdg-open", &actions, nullptr, const_cast<char* const*>(arguments), environ) !=
        0) {
        child = 0;
    }
    posix_spawn_file_actions_destroy(&actions);
    return child;
}

}  // namespace

// Serves the page until Ctrl-C (or SIGTERM); the files are only read.
int runView(const ViewCommandOptions& options) {
    ViewOptions view;
    view.files = servedFiles(options.files);
    view.bindAddress = options.bindAddress;
    view.port = options.port;
    // Loopback addresses (IPv4 and IPv6) stay on this machine.
    if (view.bindAddress != "127.0.0.1" && view.bindAddress != "::1") {
        fmt::print(stderr,
                   "mvlog view: warning: listening on {}: whoever reaches this address and has the address "
                   "with its token can read the files\n",
                   view.bindAddress);
    }
    const std::size_t count = view.files.size();
    ViewServer server(std::move(view));
    InterruptGuard interrupts;
    server.start();
    fmt::print("Serving {} {}: open {}\nCtrl-C stops.\n", count, count == 1 ? "file" : "files", server.url());
    std::fflush(stdout);
    pid_t opener = options.openBrowser ? openBrowser(server.url()) : 0;
    while (!interruptRequested()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (opener != 0 && waitpid(opener, nullptr, WNOHANG) != 0) {
            opener = 0;
        }
    }
    server.stop();
    return 0;
}

}  // namespace Mvlog
