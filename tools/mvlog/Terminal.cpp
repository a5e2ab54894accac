#include "Terminal.h"

#include <fmt/format.h>

#include <array>
#include <atomic>
#include <chrono>
#include <utility>

#include <unistd.h>

namespace Mvlog {

namespace {

// Return to column 0 and clear to the end of the line.
constexpr const char* kRedrawLine = "\r\x1b[K";

constexpr auto kSpinnerPeriod = std::chrono::milliseconds(100);

// Set by the signal handler; a lock-free atomic is safe to store from one.
std::atomic<bool> interruptFlag{false};
static_assert(std::atomic<bool>::is_always_lock_free);

extern "C" void requestInterrupt(int) {
    interruptFlag.store(true);
}

}  // namespace

bool isTerminal(std::FILE* stream) {
    return ::isatty(::fileno(stream)) == 1;
}

StatusLine::StatusLine(std::FILE* stream, bool live) : stream_(stream), live_(live) {}

StatusLine::~StatusLine() {
    finish();
}

void StatusLine::update(const std::string& text) {
    if (live_) {
        fmt::print(stream_, "{}{}", kRedrawLine, text);
        pending_ = true;
    } else {
        fmt::print(stream_, "{}\n", text);
    }
    std::fflush(stream_);
}

void StatusLine::finish() {
    if (pending_) {
        fmt::print(stream_, "\n");
        std::fflush(stream_);
        pending_ = false;
    }
}

void StatusLine::erase() {
    if (pending_) {
        fmt::print(stream_, "{}", kRedrawLine);
        std::fflush(stream_);
        pending_ = false;
    }
}

void clearStatusLine(std::FILE* stream) {
    if (isTerminal(stream)) {
        fmt::print(stream, "{}", kRedrawLine);
        std::fflush(stream);
    }
}

ElapsedTimeIndicator::ElapsedTimeIndicator(std::string label) : label_(std::move(label)) {
    if (isTerminal(stderr)) {
        thread_ = std::thread([this] { run(); });
    }
}

ElapsedTimeIndicator::~ElapsedTimeIndicator() {
    if (!thread_.joinable()) {
        return;
    }
    {
        std::lock_guard lock(mutex_);
        done_ = true;
    }
    wake_.notify_one();
    thread_.join();
    fmt::print(stderr, "{}", kRedrawLine);
    std::fflush(stderr);
}

void ElapsedTimeIndicator::run() {
    constexpr std::array<char, 4> kFrames = {'|', '/', '-', '\\'};
    const auto start = std::chrono::steady_clock::now();
    std::unique_lock lock(mutex_);
    for (std::size_t tick = 0; !done_; ++tick) {
        const double elapsed =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        fmt::print(stderr, "{}{} {} {:.1f} s", kRedrawLine, kFrames[tick % kFrames.size()], label_, elapsed);
        std::fflush(stderr);
        wake_.wait_for(lock, kSpinnerPeriod, [this] { return done_; });
    }
}

InterruptGuard::InterruptGuard() {
    interruptFlag.store(false);
    struct sigaction action {};
    action.sa_handler = requestInterrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &previousInterrupt_);
    sigaction(SIGTERM, &action, &previousTerminate_);
}

InterruptGuard::~InterruptGuard() {
    sigaction(SIGINT, &previousInterrupt_, nullptr);
    sigaction(SIGTERM, &previousTerminate_, nullptr);
}

bool interruptRequested() {
    return interruptFlag.load();
}

}  // namespace Mvlog
