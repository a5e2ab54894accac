#pragma once

#include "Terminal.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

namespace Mvlog {

// When progress is shown: on a terminal by default, into a pipe or a log only
// when asked (--progress), or not at all.
enum class ProgressMode { Auto, Always, Never };

// Auto, unless --progress asked for the bar everywhere.
inline ProgressMode progressMode(bool asked) {
    return asked ? ProgressMode::Always : ProgressMode::Auto;
}

// Progress of one long operation on stderr: "slicing  [######......] 45%
// 4,500 of 10,000 entries, 12.3k/s, 1 s left". On a terminal the line is
// redrawn in place at most ten times a second; elsewhere (when asked) a line
// is printed at most once a second. Without a total it shows the count and
// the rate. Used from one thread.
class ProgressBar {
public:
    ProgressBar(std::string label, std::string unit, ProgressMode mode);
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    bool isShown() const { return shown_; }
    // `total` may be absent, or change as the operation learns more.
    void update(uint64_t done, std::optional<uint64_t> total = std::nullopt);
    // Draws the final state and ends the line.
    void finish();
    // Takes the line off the terminal before other output is printed there;
    // the next update draws it again.
    void erase();

    // The line for a state, without any terminal control characters.
    static std::string text(const std::string& label, const std::string& unit, uint64_t done,
                            std::optional<uint64_t> total, double seconds);

private:
    using Clock = std::chrono::steady_clock;

    void draw(Clock::time_point now);

    std::string label_;
    std::string unit_;
    bool shown_;
    StatusLine line_;
    Clock::time_point started_;
    Clock::time_point lastDrawn_;
    uint64_t done_ = 0;
    std::optional<uint64_t> total_;
    uint64_t drawnDone_ = 0;
    std::optional<uint64_t> drawnTotal_;
    bool drawn_ = false;
    bool finished_ = false;
};

}  // namespace Mvlog
