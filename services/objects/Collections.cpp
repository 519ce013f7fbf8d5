#include "services/objects/Collections.h"

namespace tessel {

HRESULT DvbCollectionBase::Add(IUnknown* item) {
    ComPtr<IUnknown> identity;
    const HRESULT result = item->QueryInterface(IUnknown::kIid, reinterpret_cast<void**>(identity.Put()));
    if (FAILED(result))
        return result;
    CScopedLock lock(&m_lock);
    try {
        m_items.push_back(std::move(identity));
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    return S_OK;
}

HRESULT DvbCollectionBase::Clear() {
    Detach();
    return S_OK;
}

std::vector<ComPtr<IUnknown>> DvbCollectionBase::Detach() {
    CScopedLock lock(&m_lock);
    return std::exchange(m_items, {});
}

HRESULT DvbCollectionBase::GetCount(uint32_t* out) {
    if (out == nullptr)
        return E_POINTER;
    CScopedLock lock(&m_lock);
    *out = static_cast<uint32_t>(m_items.size());
    return S_OK;
}

HRESULT DvbCollectionBase::GetItem(int32_t index, IUnknown** out) {
    if (out == nullptr)
        return E_POINTER;
    *out = nullptr;
    CScopedLock lock(&m_lock);
    if (index < 0 || static_cast<size_t>(index) >= m_items.size())
        return E_FAIL;
    *out = ComPtr<IUnknown>(m_items[static_cast<size_t>(index)]).Detach();
    return S_OK;
}

template <class Index>
HRESULT DvbKeyedCollection<Index>::AddAndIndex(int32_t key, IUnknown* item) {
    try {
        const auto entry = m_index.insert({key, static_cast<int32_t>(m_items.size())});
        const HRESULT result = Add(item);
        if (FAILED(result)) {
            if constexpr (requires { entry.first; })
                m_index.erase(entry.first);
            else
                m_index.erase(entry);
        }
        return result;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
}

template <class Index>
std::vector<ComPtr<IUnknown>> DvbKeyedCollection<Index>::Detach() {
    CScopedLock lock(&m_lock);
    m_index.clear();
    return std::exchange(m_items, {});
}

template <class Index>
HRESULT DvbKeyedCollection<Index>::Lookup(int32_t key, IUnknown** out) {
    if (out == nullptr)
        return E_POINTER;
    *out = nullptr;
    CScopedLock lock(&m_lock);
    const auto found = m_index.lower_bound(key);  // of equal keys the first added
    if (found == m_index.end() || found->first != key)
        return E_FAIL;
    return GetItem(found->second, out);
}

template class DvbKeyedCollection<std::map<int32_t, int32_t>>;
template class DvbKeyedCollection<std::multimap<int32_t, int32_t>>;

HRESULT DvbMapping::AddKeyed(int32_t key, IUnknown* item) {
    CScopedLock lock(&m_lock);
    return m_index.contains(key) ? E_FAIL : AddAndIndex(key, item);
}

bool DvbMapping::Contains(int32_t key) {
    CScopedLock lock(&m_lock);
    return m_index.contains(key);
}

HRESULT DvbMultiMapping::AddKeyed(int32_t key, IUnknown* item) {
    CScopedLock lock(&m_lock);
    return AddAndIndex(key, item);
}

}  // namespace tessel
