// What the fuzz targets share.
#pragma once

#include <cstdlib>

namespace tessel {

// A broken promise is a finding like a crash.
inline void Require(bool kept) {
    if (!kept)
        std::abort();
}

}  // namespace tessel
