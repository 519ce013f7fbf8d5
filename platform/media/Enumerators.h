// The enumerators of the media graph.
#pragma once

#include <algorithm>
#include <functional>
#include <new>
#include <utility>
#include <vector>

#include "platform/com/ComPtr.h"
#include "platform/media/GraphInterfaces.h"
#include "platform/media/MediaResult.h"

// Walks a list of objects as it stood at the last Reset. Enum: the enumerator's interface; Item: that
// of what it gives out. One thread at a time.
template <class Enum, class Item>
class CEnumObjects final : public CUnknown, public Enum {
public:
    // What is walked. It holds its owner alive.
    struct Source {
        std::function<LONG()> version;
        std::function<std::vector<ComPtr<Item>>()> list;  // may throw std::bad_alloc
    };

    // A new enumerator with one reference.
    static HRESULT Create(Source source, Enum** out) {
        *out = nullptr;
        try {
            ComPtr<CEnumObjects> object(new CEnumObjects(std::move(source)));
            *out = object.Detach();
        } catch (const std::bad_alloc&) {
            return E_OUTOFMEMORY;
        }
        return S_OK;
    }

    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override {
        if (out != nullptr && iid == Enum::kIid)
            return GetInterface<Enum>(this, out);
        return CUnknown::NonDelegatingQueryInterface(iid, out);
    }

    HRESULT Next(ULONG count, Item** out, ULONG* fetched) override {
        if (fetched != nullptr)
            *fetched = 0;
        if (out == nullptr)
            return E_POINTER;
        if (fetched == nullptr && count != 1)
            return E_INVALIDARG;
        if (m_source.version() != m_version)
            return VFW_E_ENUM_OUT_OF_SYNC;
        ULONG done = 0;
        for (; done < count && m_position < m_items.size(); ++done) {
            ComPtr<Item> item = m_items[m_position++];
            out[done] = item.Detach();
        }
        if (fetched != nullptr)
            *fetched = done;
        return done == count ? S_OK : S_FALSE;
    }
    HRESULT Skip(ULONG count) override {
        const size_t left = m_items.size() - m_position;
        m_position += std::min<size_t>(count, left);
        return count <= left ? S_OK : S_FALSE;
    }
    HRESULT Reset() override {
        try {
            Fill();
        } catch (const std::bad_alloc&) {
            return E_OUTOFMEMORY;
        }
        return S_OK;
    }
    HRESULT Clone(Enum** out) override {
        if (out == nullptr)
            return E_POINTER;
        *out = nullptr;
        try {
            ComPtr<CEnumObjects> object(new CEnumObjects(*this));
            *out = object.Detach();
        } catch (const std::bad_alloc&) {
            return E_OUTOFMEMORY;
        }
        return S_OK;
    }

private:
    explicit CEnumObjects(Source source) : CUnknown("CEnumObjects", nullptr), m_source(std::move(source)) { Fill(); }
    CEnumObjects(const CEnumObjects& other)
        : CUnknown("CEnumObjects", nullptr),
          m_source(other.m_source),
          m_version(other.m_version),
          m_items(other.m_items),
          m_position(other.m_position) {}

    void Fill() {
        // The version first: a change in between is then noticed, not missed.
        const LONG version = m_source.version();
        m_items = m_source.list();
        m_version = version;
        m_position = 0;
    }

    const Source m_source;
    LONG m_version = 0;
    std::vector<ComPtr<Item>> m_items;
    size_t m_position = 0;
};

using CEnumPins = CEnumObjects<IEnumPins, IPin>;
using CEnumFilters = CEnumObjects<IEnumFilters, IBaseFilter>;

class CBasePin;

// Asks a pin for its media types one by one. One thread at a time.
class CEnumMediaTypes final : public CUnknown, public IEnumMediaTypes {
public:
    explicit CEnumMediaTypes(CBasePin& pin);

    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override;

    HRESULT Next(ULONG count, AM_MEDIA_TYPE** out, ULONG* fetched) override;
    HRESULT Skip(ULONG count) override;
    HRESULT Reset() override;
    HRESULT Clone(IEnumMediaTypes** out) override;

private:
    CBasePin& m_pin;
    const ComPtr<IPin> m_reference;
    LONG m_version;
    LONG m_position = 0;
};
