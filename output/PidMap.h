// The PID map of an output pin, and its enumerator.
#pragma once

#include <atomic>
#include <optional>
#include <set>
#include <vector>

#include "Classes/MultiPlatform/GenUtilMP.h"
#include "Classes/MultiPlatform/LockRanks.h"
#include "platform/com/ComPtr.h"
#include "platform/media/Mpeg2Demultiplexer.h"
#include "services/objects/PidParameters.h"

namespace tessel {

// PIDs in ascending order, and the two special values beside them. Scrambled packets never come to an
// output, so there is no scrambling state to keep by PID.
class CPidMap {
public:
    void Insert(ULONG pid);
    // False when it was not there.
    bool Erase(ULONG pid);
    void Clear();

    bool AllPids() const { return m_allPids.load(std::memory_order_relaxed); }
    bool AllTables() const { return m_allTables.load(std::memory_order_relaxed); }
    bool Contains(ULONG pid) const;
    size_t Count() const;  // without the special values
    // No PID and no special value.
    bool IsEmpty() const { return !AllPids() && !AllTables() && Count() == 0; }
    std::optional<ULONG> FirstPid() const;
    // The mapped PIDs, without the special values.
    std::vector<ULONG> Pids() const;
    // The special value if there is one (ALL_PIDS before ALL_TABLES), then the PIDs.
    std::vector<ULONG> Entries() const;

private:
    mutable CCritSec m_lock{"PID map", kRankLeaf};
    std::set<ULONG> m_pids OS_GUARDED_BY(m_lock);
    // Written under the lock; whoever reads one needs no more than its value.
    std::atomic<bool> m_allPids{false};
    std::atomic<bool> m_allTables{false};
};

// Lists what the map held when it was made. One thread at a time.
class CEnumPIDMap final : public CUnknown, public IEnumPIDMap {
public:
    explicit CEnumPIDMap(std::vector<ULONG> pids) : CUnknown("EnumPIDMap", nullptr), m_pids(std::move(pids)) {}

    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override;

    // MediaSampleContent is 0 whatever the pin delivers: its parameter 300 tells.
    HRESULT Next(ULONG count, PID_MAP* out, ULONG* received) override;
    // May go past the end.
    HRESULT Skip(ULONG count) override;
    HRESULT Reset() override;
    // The copy starts at the first entry.
    HRESULT Clone(IEnumPIDMap** out) override;

private:
    const std::vector<ULONG> m_pids;
    uint64_t m_position = 0;
};

}  // namespace tessel
