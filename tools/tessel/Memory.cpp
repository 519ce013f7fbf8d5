#include "tools/tessel/Memory.h"

#include <atomic>
#include <cstddef>
#include <new>

namespace tessel::tool {

namespace {

constexpr size_t kSpareBytes = 256 * 1024;

std::atomic<bool> g_ranOut{false};
std::atomic<std::byte*> g_spare{nullptr};
thread_local int t_users = 0;

// Returning from it makes operator new try again.
void OnNoMemory() {
    g_ranOut = true;
    std::byte* const spare = t_users > 0 ? g_spare.exchange(nullptr) : nullptr;
    if (spare == nullptr)
        throw std::bad_alloc();
    delete[] spare;
}

}  // namespace

void WatchMemory() {
    g_spare = new std::byte[kSpareBytes];
    std::set_new_handler(&OnNoMemory);
}

bool RanOutOfMemory() {
    return g_ranOut;
}

SpareMemory::SpareMemory() {
    ++t_users;
}

SpareMemory::~SpareMemory() {
    --t_users;
}

}  // namespace tessel::tool
