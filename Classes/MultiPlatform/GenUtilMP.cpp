#include "Classes/MultiPlatform/GenUtilMP.h"

#include <cstdio>
#include <cstdlib>

namespace tessel {

void GenAssertFailed(const char* text) {
    std::fprintf(stderr, "assertion failed: %s\n", text);
    std::abort();
}

}  // namespace tessel
