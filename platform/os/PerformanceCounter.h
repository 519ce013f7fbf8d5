// The high-resolution performance counter.
#pragma once

#include <cstdint>

// Counts up steadily and is never set. Who needs another flow of time derives from it.
class CPerformanceCounter {
public:
    virtual ~CPerformanceCounter() = default;

    virtual int64_t Count() const;
    // Counts a second: at least 1, and the same for the whole run.
    virtual int64_t Frequency() const;

    static const CPerformanceCounter& System();
};
