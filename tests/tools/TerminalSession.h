#pragma once

// mvlog run on a pseudo-terminal, for the tests of what it does when a person
// runs it at a terminal (keys, defaults that differ from a pipe's).

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace MvlogTest {

// mvlog on a pseudo-terminal, as a person at a keyboard runs it.
class TerminalSession {
public:
    explicit TerminalSession(const std::vector<std::string>& arguments) {
        std::vector<char*> argv;
        std::string program = MVLOG_BINARY;
        argv.push_back(program.data());
        std::vector<std::string> copies = arguments;
        for (std::string& argument : copies) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        pid_ = ::forkpty(&terminal_, nullptr, nullptr, nullptr);
        if (pid_ == 0) {
            ::execv(program.c_str(), argv.data());
            ::_exit(127);
        }
    }

    ~TerminalSession() {
        if (pid_ > 0 && !reaped_) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        if (terminal_ >= 0) {
            ::close(terminal_);
        }
    }

    TerminalSession(const TerminalSession&) = delete;
    TerminalSession& operator=(const TerminalSession&) = delete;

    bool started() const { return pid_ > 0; }

    void type(const std::string& keys) const {
        ASSERT_EQ(::write(terminal_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    }

    // Reads what the program draws until `done` holds for it or `timeout`
    // passes; answers whether it held.
    bool readUntil(const std::function<bool(const std::string&)>& done, std::chrono::milliseconds timeout) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (!done(screen)) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) {
                return false;
            }
            struct pollfd ready {
                terminal_, POLLIN, 0
            };
            if (::poll(&ready, 1, static_cast<int>(left.count())) != 1) {
                continue;
            }
            char buffer[4096];
            const ssize_t count = ::read(terminal_, buffer, sizeof buffer);
            if (count <= 0) {
                return done(screen);  // the program ended
            }
            screen.append(buffer, static_cast<std::size_t>(count));
        }
        return true;
    }

    void readFor(std::chrono::milliseconds period) {
        readUntil([](const std::string&) { return false; }, period);
    }

    std::optional<int> exitCode() {
        readUntil([](const std::string&) { return false; }, std::chrono::seconds(20));
        int status = 0;
        if (::waitpid(pid_, &status, 0) != pid_) {
            return std::nullopt;
        }
        reaped_ = true;
        return WIFEXITED(status) ? std::optional<int>(WEXITSTATUS(status)) : std::nullopt;
    }

    std::string screen;

private:
    int terminal_ = -1;
    pid_t pid_ = -1;
    bool reaped_ = false;
};

}  // namespace MvlogTest
