#pragma once

#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

namespace Mvlog {

bool isTerminal(std::FILE* stream);

// One line of status text. On a terminal it is redrawn in place; elsewhere
// every update is a line of its own, so logs and pipes keep the history.
class StatusLine {
public:
    StatusLine(std::FILE* stream, bool live);
    ~StatusLine();
    StatusLine(const StatusLine&) = delete;
    StatusLine& operator=(const StatusLine&) = delete;

    bool isLive() const { return live_; }
    void update(const std::string& text);
    // Ends an in-place line so that what follows starts on a fresh one.
    void finish();
    // Removes an in-place line, so that other output can take its place; the
    // next update draws it again.
    void erase();

private:
    std::FILE* stream_;
    bool live_;
    bool pending_ = false;
};

// On a terminal, erases the line the cursor is on, such as a status line that
// another process left unfinished; elsewhere does nothing.
void clearStatusLine(std::FILE* stream);

// While it lives, and only when stderr is a terminal, shows a spinner with the
// elapsed time for an operation that reports no progress of its own.
class ElapsedTimeIndicator {
public:
    explicit ElapsedTimeIndicator(std::string label);
    ~ElapsedTimeIndicator();
    ElapsedTimeIndicator(const ElapsedTimeIndicator&) = delete;
    ElapsedTimeIndicator& operator=(const ElapsedTimeIndicator&) = delete;

private:
    void run();

    std::string label_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool done_ = false;
    std::thread thread_;
};

// While it lives, SIGINT and SIGTERM only set a flag (interruptRequested)
// that long-running commands poll, so that they stop cleanly (a replay joins
// its player, a followed cat ends) instead of dying mid-write.
class InterruptGuard {
public:
    InterruptGuard();
    ~InterruptGuard();
    InterruptGuard(const InterruptGuard&) = delete;
    InterruptGuard& operator=(const InterruptGuard&) = delete;

private:
    struct sigaction previousInterrupt_ {};
    struct sigaction previousTerminate_ {};
};

bool interruptRequested();

}  // namespace Mvlog
