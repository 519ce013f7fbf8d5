// The list objects that tables, entries, services and descriptor lists are made of.
//
// A list holds one reference to each item's own IUnknown and gives that out. A list may still grow
// while a client reads it; its lock makes each call whole.
#pragma once

#include <map>
#include <new>
#include <utility>
#include <vector>

#include "Classes/MultiPlatform/GenUtilMP.h"
#include "Classes/MultiPlatform/LockRanks.h"
#include "platform/com/ComPtr.h"
#include "platform/com/Unknown.h"

namespace tessel {

class IDvbCollection : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{53BC5C7A-A9EB-446A-8226-A4FF96B80DD8}");

    virtual HRESULT GetCount(uint32_t* out) = 0;
    // A new reference; E_FAIL for an index below 0 or not below the count.
    virtual HRESULT GetItem(int32_t index, IUnknown** out) = 0;
};

class IDvbMapping : public IDvbCollection {
public:
    static constexpr IID kIid = MakeGuid("{A17C5D52-B6C7-44B4-ABB8-1FFF39858989}");

    // A new reference to the (first) item of key; E_FAIL when there is none.
    virtual HRESULT Lookup(int32_t key, IUnknown** out) = 0;
};

// An object of one interface.
template <class I>
class CIfc : public CUnknown, public I {
public:
    CIfc(const char* name, IUnknown* outer) : CUnknown(name, outer) {}

    DECLARE_IUNKNOWN

    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override {
        if (out != nullptr && iid == I::kIid)
            return GetInterface<I>(this, out);
        return CUnknown::NonDelegatingQueryInterface(iid, out);
    }
};

// The ordered array behind every list.
class DvbCollectionBase {
public:
    virtual HRESULT Add(IUnknown* item);
    virtual HRESULT Clear();
    virtual ~DvbCollectionBase() = default;
    virtual HRESULT GetCount(uint32_t* out);
    virtual HRESULT GetItem(int32_t index, IUnknown** out);

    // Empties the list into the result, for a caller that releases the items after its locks.
    virtual std::vector<ComPtr<IUnknown>> Detach();

protected:
    CCritSec m_lock{"list", kRankLeaf};
    std::vector<ComPtr<IUnknown>> m_items OS_GUARDED_BY(m_lock);
};

class DvbCollection final : public CIfc<IDvbCollection>, public DvbCollectionBase {
public:
    DvbCollection() : CIfc("DvbCollection", nullptr) {}

    HRESULT GetCount(uint32_t* out) override { return DvbCollectionBase::GetCount(out); }
    HRESULT GetItem(int32_t index, IUnknown** out) override { return DvbCollectionBase::GetItem(index, out); }
};

// A list whose items are also found by a key. Index maps a key to the item's place in the list.
template <class Index>
class DvbKeyedCollection : public DvbCollectionBase, public CIfc<IDvbMapping> {
public:
    std::vector<ComPtr<IUnknown>> Detach() override;
    HRESULT GetCount(uint32_t* out) override { return DvbCollectionBase::GetCount(out); }
    HRESULT GetItem(int32_t index, IUnknown** out) override { return DvbCollectionBase::GetItem(index, out); }
    HRESULT Lookup(int32_t key, IUnknown** out) override;

protected:
    explicit DvbKeyedCollection(const char* name) : CIfc(name, nullptr) {}

    HRESULT AddAndIndex(int32_t key, IUnknown* item) OS_REQUIRES(m_lock);

    Index m_index OS_GUARDED_BY(m_lock);
};

// One item a key.
class DvbMapping final : public DvbKeyedCollection<std::map<int32_t, int32_t>> {
public:
    DvbMapping() : DvbKeyedCollection("DvbMapping") {}

    // E_FAIL, and nothing changed, when the key is present.
    HRESULT AddKeyed(int32_t key, IUnknown* item);
    bool Contains(int32_t key);
};

// Several items a key; Lookup finds the first added.
class DvbMultiMapping final : public DvbKeyedCollection<std::multimap<int32_t, int32_t>> {
public:
    DvbMultiMapping() : DvbKeyedCollection("DvbMultiMapping") {}

    HRESULT AddKeyed(int32_t key, IUnknown* item);
};

// A new object with the one reference that the returned pointer holds; null when out of memory.
template <class Object, class... Args>
ComPtr<Object> MakeObject(Args&&... args) {
    return ComPtr<Object>(new (std::nothrow) Object(std::forward<Args>(args)...));
}

// Item index of list as interface I; null past the end or when the item has no such interface.
template <class I>
ComPtr<I> ItemAs(IDvbCollection* list, int32_t index) {
    ComPtr<IUnknown> item;
    if (list == nullptr || FAILED(list->GetItem(index, item.Put())))
        return nullptr;
    return item.As<I>();
}

// The item of key as interface I; null when there is none.
template <class I>
ComPtr<I> LookupAs(IDvbMapping* list, int32_t key) {
    ComPtr<IUnknown> item;
    if (list == nullptr || FAILED(list->Lookup(key, item.Put())))
        return nullptr;
    return item.As<I>();
}

}  // namespace tessel
