// How far a command has come: one line on a terminal, nothing in a pipe.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace tessel::tool {

class Progress {
public:
    // total: bytes to come, where that is known. Shown only where standard error is a terminal.
    explicit Progress(std::optional<int64_t> total);
    // Takes the line away.
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Draws a few times a second, however often it is called.
    void Show(int64_t bytes);

private:
    using Clock = std::chrono::steady_clock;

    const std::optional<int64_t> m_total;
    const bool m_terminal;
    const Clock::time_point m_start = Clock::now();
    Clock::time_point m_next;
    bool m_shown = false;
};

}  // namespace tessel::tool
