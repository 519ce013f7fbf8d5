#include "tools/tessel/Progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

namespace tessel::tool {

namespace {

constexpr std::chrono::milliseconds kInterval{200};
constexpr int kBarWidth = 30;
constexpr double kMega = 1e6;

std::string AsTime(double seconds) {
    const auto whole = static_cast<int64_t>(std::clamp(seconds, 0.0, 359'999.0));
    char text[32];
    std::snprintf(text, sizeof(text), "%lld:%02lld:%02lld", static_cast<long long>(whole / 3600),
                  static_cast<long long>(whole / 60 % 60), static_cast<long long>(whole % 60));
    return text;
}

}  // namespace

// The first line comes after an interval: what is done by then needs none.
Progress::Progress(std::optional<int64_t> total)
    : m_total(total), m_terminal(isatty(STDERR_FILENO) != 0), m_next(m_start + kInterval) {}

Progress::~Progress() {
    if (m_shown)
        std::fputs("\r\x1b[K", stderr);
}

void Progress::Show(int64_t bytes) {
    if (!m_terminal)
        return;
    const auto now = Clock::now();
    if (now < m_next)
        return;
    m_next = now + kInterval;
    m_shown = true;
    const double seconds = std::chrono::duration<double>(now - m_start).count();
    const double rate = static_cast<double>(bytes) / std::max(seconds, 1e-3);
    char text[128];
    if (m_total && *m_total > 0) {
        const double part = std::min(static_cast<double>(bytes) / static_cast<double>(*m_total), 1.0);
        const std::string bar(static_cast<size_t>(part * kBarWidth), '#');
        const double left = static_cast<double>(*m_total - bytes) / std::max(rate, 1.0);
        std::snprintf(text, sizeof(text), "\r[%-*s] %3.0f %%  %.1f MB/s  %s left\x1b[K", kBarWidth, bar.c_str(),
                      part * 100, rate / kMega, AsTime(left).c_str());
    } else {
        std::snprintf(text, sizeof(text), "\r%.1f MB  %.1f MB/s  %s\x1b[K", static_cast<double>(bytes) / kMega,
                      rate / kMega, AsTime(seconds).c_str());
    }
    std::fputs(text, stderr);
}

}  // namespace tessel::tool
