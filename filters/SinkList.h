// Clients' sinks by cookie.
#pragma once

#include <cstdint>
#include <map>
#include <new>
#include <utility>
#include <vector>

#include "Classes/MultiPlatform/GenUtilMP.h"
#include "Classes/MultiPlatform/LockRanks.h"
#include "platform/com/ComPtr.h"

namespace tessel {

// Sinks are called from a copy and without a lock, so that a sink may call back, and unadvise. After Unadvise has
// returned, no new call to its sink begins.
class CSinkList {
public:
    // Cookies count up from 0. E_POINTER for a null sink, E_FAIL when the cookies have run out.
    HRESULT Advise(IUnknown* sink, uint32_t* cookie) {
        if (sink == nullptr || cookie == nullptr)
            return E_POINTER;
        CScopedLock lock(&m_lock);
        if (m_next == kNoCookie)
            return E_FAIL;
        try {
            m_sinks.emplace(m_next, sink);
        } catch (const std::bad_alloc&) {
            return E_OUTOFMEMORY;
        }
        *cookie = m_next++;
        return S_OK;
    }

    // E_INVALIDARG for an unknown cookie.
    HRESULT Unadvise(uint32_t cookie) {
        ComPtr<IUnknown> last;  // goes after the lock
        CScopedLock lock(&m_lock);
        const auto found = m_sinks.find(cookie);
        if (found == m_sinks.end())
            return E_INVALIDARG;
        last = std::move(found->second);
        m_sinks.erase(found);
        return S_OK;
    }

    template <class Call>
    void ForEach(Call call) {
        for (const auto& [cookie, sink] : Copy())
            if (Contains(cookie))
                call(*sink.Get());
    }

    void Clear() {
        Sinks last;  // go after the lock
        CScopedLock lock(&m_lock);
        std::swap(last, m_sinks);
    }

private:
    using Sinks = std::map<uint32_t, ComPtr<IUnknown>>;

    static constexpr uint32_t kNoCookie = 0xFFFFFFFF;

    Sinks Copy() {
        CScopedLock lock(&m_lock);
        return m_sinks;
    }
    bool Contains(uint32_t cookie) {
        CScopedLock lock(&m_lock);
        return m_sinks.contains(cookie);
    }

    CCritSec m_lock{"sinks", kRankLeaf};
    Sinks m_sinks OS_GUARDED_BY(m_lock);
    uint32_t m_next OS_GUARDED_BY(m_lock) = 0;
};

}  // namespace tessel
