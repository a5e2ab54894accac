#include "ProgressBar.h"

#include "Format.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace Mvlog {

namespace {

constexpr auto kLiveRedrawPeriod = std::chrono::milliseconds(100);
constexpr auto kLineRedrawPeriod = std::chrono::seconds(1);
constexpr int kBarWidth = 24;

// 950, 12.3k, 4.56M.
std::string shortCount(double value) {
    if (value < 1000) {
        return fmt::format("{:.0f}", value);
    }
    if (value < 1e6) {
        return fmt::format("{:.1f}k", value / 1e3);
    }
    return fmt::format("{:.2f}M", value / 1e6);
}

std::string timeLeft(double seconds) {
    if (seconds < 60) {
        return fmt::format("{:.0f} s", std::ceil(seconds));
    }
    if (seconds < 3600) {
        return fmt::format("{:.0f} min {:02.0f} s", std::floor(seconds / 60),
                           std::fmod(std::floor(seconds), 60));
    }
    return fmt::format("{:.0f} h {:02.0f} min", std::floor(seconds / 3600),
                       std::fmod(std::floor(seconds / 60), 60));
}

}  // namespace

ProgressBar::ProgressBar(std::string label, std::string unit, ProgressMode mode)
    : label_(std::move(label)),
      unit_(std::move(unit)),
      shown_(mode == ProgressMode::Always || (mode == ProgressMode::Auto && isTerminal(stderr))),
      line_(stderr, isTerminal(stderr)),
      started_(Clock::now()) {}

ProgressBar::~ProgressBar() {
    finish();
}

std::string ProgressBar::text(const std::string& label, const std::string& unit, uint64_t done,
                              std::optional<uint64_t> total, double seconds) {
    const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0.0;
    const std::string rateText = seconds > 0 ? fmt::format(", {}/s", shortCount(rate)) : std::string();
    if (!total || *total == 0) {
        return fmt::format("{}  {} {}{}", label, done, unit, rateText);
    }
    const double fraction = std::min(1.0, static_cast<double>(done) / static_cast<double>(*total));
    const int filled = static_cast<int>(std::floor(fraction * kBarWidth));
    std::string bar = std::string(static_cast<std::size_t>(filled), '#') +
                      std::string(static_cast<std::size_t>(kBarWidth - filled), '.');
    std::string left;
    if (rate > 0 && done < *total) {
        left = fmt::format(", {} left", timeLeft(static_cast<double>(*total - done) / rate));
    }
    return fmt::format("{}  [{}] {:3.0f}%  {} of {} {}{}{}", label, bar, fraction * 100, done, *total, unit,
                       rateText, left);
}

void ProgressBar::update(uint64_t done, std::optional<uint64_t> total) {
    done_ = done;
    if (total) {
        total_ = total;
    }
    if (!shown_ || finished_) {
        return;
    }
    const auto now = Clock::now();
    const auto period =
        line_.isLive() ? Clock::duration(kLiveRedrawPeriod) : Clock::duration(kLineRedrawPeriod);
    if (drawn_ && now - lastDrawn_ < period) {
        return;
    }
    draw(now);
}

void ProgressBar::draw(Clock::time_point now) {
    line_.update(text(label_, unit_, done_, total_, std::chrono::duration<double>(now - started_).count()));
    lastDrawn_ = now;
    drawnDone_ = done_;
    drawnTotal_ = total_;
    drawn_ = true;
}

void ProgressBar::erase() {
    if (shown_ && line_.isLive()) {
        line_.erase();
        drawn_ = false;
    }
}

void ProgressBar::finish() {
    if (!shown_ || finished_) {
        return;
    }
    finished_ = true;
    // The final state, unless the line already shows it.
    if (!drawn_ || drawnDone_ != done_ || drawnTotal_ != total_) {
        draw(Clock::now());
    }
    line_.finish();
}

}  // namespace Mvlog
