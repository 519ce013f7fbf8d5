#include "output/PidMap.h"

#include <algorithm>
#include <exception>
#include <new>

#include "services/objects/Collections.h"

namespace tessel {

void CPidMap::Insert(ULONG pid) {
    CScopedLock lock(&m_lock);
    if (pid == ALL_PIDS) {
        m_allPids = true;
        m_allTables = false;
    } else if (pid == ALL_TABLES) {
        m_allTables = !m_allPids;
    } else {
        m_pids.insert(pid);
    }
}

bool CPidMap::Erase(ULONG pid) {
    CScopedLock lock(&m_lock);
    if (pid == ALL_PIDS)
        return m_allPids.exchange(false);
    if (pid == ALL_TABLES)
        return m_allTables.exchange(false);
    return m_pids.erase(pid) != 0;
}

void CPidMap::Clear() {
    CScopedLock lock(&m_lock);
    m_allPids = false;
    m_allTables = false;
    m_pids.clear();
}

bool CPidMap::Contains(ULONG pid) const {
    CScopedLock lock(&m_lock);
    return m_pids.contains(pid);
}

size_t CPidMap::Count() const {
    CScopedLock lock(&m_lock);
    return m_pids.size();
}

std::optional<ULONG> CPidMap::FirstPid() const {
    CScopedLock lock(&m_lock);
    return m_pids.empty() ? std::nullopt : std::optional(*m_pids.begin());
}

std::vector<ULONG> CPidMap::Pids() const {
    CScopedLock lock(&m_lock);
    return {m_pids.begin(), m_pids.end()};
}

std::vector<ULONG> CPidMap::Entries() const {
    CScopedLock lock(&m_lock);
    std::vector<ULONG> entries;
    if (AllPids())
        entries.push_back(ALL_PIDS);
    else if (AllTables())
        entries.push_back(ALL_TABLES);
    entries.insert(entries.end(), m_pids.begin(), m_pids.end());
    return entries;
}

HRESULT CEnumPIDMap::NonDelegatingQueryInterface(const IID& iid, void** out) {
    if (out != nullptr && iid == IEnumPIDMap::kIid)
        return GetInterface<IEnumPIDMap>(this, out);
    return CUnknown::NonDelegatingQueryInterface(iid, out);
}

HRESULT CEnumPIDMap::Next(ULONG count, PID_MAP* out, ULONG* received) {
    if (out == nullptr || (received == nullptr && count != 1))
        return E_INVALIDARG;
    const uint64_t left = m_position < m_pids.size() ? m_pids.size() - m_position : 0;
    const auto copied = static_cast<ULONG>(std::min<uint64_t>(count, left));
    for (ULONG i = 0; i < copied; ++i)
        out[i] = {m_pids[m_position + i], MEDIA_TRANSPORT_PACKET};
    m_position += copied;
    if (received != nullptr)
        *received = copied;
    return copied == count ? S_OK : S_FALSE;
}

HRESULT CEnumPIDMap::Skip(ULONG count) {
    m_position += count;
    return S_OK;
}

HRESULT CEnumPIDMap::Reset() {
    m_position = 0;
    return S_OK;
}

HRESULT CEnumPIDMap::Clone(IEnumPIDMap** out) {
    if (out == nullptr)
        return E_POINTER;
    *out = nullptr;
    try {
        *out = MakeObject<CEnumPIDMap>(m_pids).Detach();
    } catch (const std::bad_alloc&) {
    }
    return *out != nullptr ? S_OK : E_OUTOFMEMORY;
}

}  // namespace tessel
