// What the fuzz targets share.
#pragma once

#include <cstdlib>

#include "platform/com/Unknown.h"

namespace tessel {

// A broken promise is a finding like a crash.
inline void Require(bool kept) {
    if (!kept)
        std::abort();
}

// Stands before everything else that a target makes: all of it is gone again at the end.
class NoObjectsLeft {
public:
    NoObjectsLeft() = default;
    NoObjectsLeft(const NoObjectsLeft&) = delete;
    NoObjectsLeft& operator=(const NoObjectsLeft&) = delete;
    ~NoObjectsLeft() { Require(CUnknown::ObjectsActive() == m_before); }

private:
    const int32_t m_before = CUnknown::ObjectsActive();
};

}  // namespace tessel
