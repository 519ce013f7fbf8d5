// What a splitter tells its clients, kept until the page's own thread takes it.
#pragma once

#include <deque>
#include <mutex>
#include <vector>

#include "platform/com/ComPtr.h"
#include "services/objects/ServiceInterfaces.h"

namespace tessel::tool {

enum class StreamEventKind { kServicesReady, kReset, kTableReady, kTableStale, kPidUsed, kPidsReset };

struct StreamEvent {
    StreamEventKind kind;
    uint32_t tableId = 0;
    uint32_t value = 0;  // key of a table, or a PID
};

// Called on the threads that parse and tell: it writes a line down, and no more.
class EventLog final : public CUnknown, public IDvbTableEvents2, public IDvbPidMapperEvents {
public:
    EventLog() : CUnknown("EventLog", nullptr) {}

    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override;

    HRESULT OnServicesReady() override { return Note({StreamEventKind::kServicesReady}); }
    HRESULT OnReset() override { return Note({StreamEventKind::kReset}); }
    HRESULT OnTableReady(uint32_t tableId, uint32_t key) override {
        return Note({StreamEventKind::kTableReady, tableId, key});
    }
    HRESULT OnTableStale(uint32_t tableId, uint32_t key) override {
        return Note({StreamEventKind::kTableStale, tableId, key});
    }
    HRESULT OnPidUsed(uint32_t tableId, uint32_t pid) override {
        return Note({StreamEventKind::kPidUsed, tableId, pid});
    }
    HRESULT OnPidsReset() override { return Note({StreamEventKind::kPidsReset}); }

    // What came since the last call. The oldest are lost where nobody called for long.
    std::deque<StreamEvent> Take();

private:
    HRESULT Note(const StreamEvent& event);

    std::mutex m_mutex;
    std::deque<StreamEvent> m_events;

    static constexpr size_t kMost = 1000;
};

}  // namespace tessel::tool
