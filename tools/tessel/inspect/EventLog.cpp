#include "tools/tessel/inspect/EventLog.h"

#include <new>
#include <utility>

namespace tessel::tool {

HRESULT EventLog::NonDelegatingQueryInterface(const IID& iid, void** out) {
    if (out != nullptr && iid == IDvbTableEvents2::kIid)
        return GetInterface<IDvbTableEvents2>(this, out);
    if (out != nullptr && iid == IDvbPidMapperEvents::kIid)
        return GetInterface<IDvbPidMapperEvents>(this, out);
    return CUnknown::NonDelegatingQueryInterface(iid, out);
}

HRESULT EventLog::Note(const StreamEvent& event) {
    const std::lock_guard lock(m_mutex);
    try {
        m_events.push_back(event);
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    if (m_events.size() > kMost)
        m_events.pop_front();
    return S_OK;
}

std::deque<StreamEvent> EventLog::Take() {
    const std::lock_guard lock(m_mutex);
    return std::exchange(m_events, {});
}

}  // namespace tessel::tool
