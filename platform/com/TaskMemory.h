// Memory that one side of an interface allocates and the other frees.
#pragma once

#include <cstring>
#include <new>
#include <string_view>

#include "platform/com/Result.h"

// Null when there is none; aligned for any type.
inline void* CoTaskMemAlloc(size_t bytes) {
    return ::operator new(bytes, std::nothrow);
}

inline void CoTaskMemFree(void* memory) {
    ::operator delete(memory);
}

// A terminated copy of text in task memory; null when out of memory.
inline OLECHAR* CopyToTaskMemory(std::u16string_view text) {
    auto* copy = static_cast<OLECHAR*>(CoTaskMemAlloc((text.size() + 1) * sizeof(OLECHAR)));
    if (copy == nullptr)
        return nullptr;
    if (!text.empty())
        std::memcpy(copy, text.data(), text.size() * sizeof(OLECHAR));
    copy[text.size()] = 0;
    return copy;
}
