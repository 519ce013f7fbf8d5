// The descriptors that are lists of items, and the items.
//
// An item is a reference-counted object of its own: it outlives its descriptor when a client holds it.
#pragma once

#include <vector>

#include "Classes/MultiPlatform/ByteReader.h"
#include "descriptors/Descriptor.h"
#include "platform/com/ComPtr.h"
#include "services/objects/Collections.h"

namespace tessel {

// An item that is read through parameter ids.
class DescParameter : public CUnknown, public IGetSetCOMParamImpl {
public:
    DECLARE_IUNKNOWN

    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override;

    // Takes the item's bytes from reader; E_FAIL, and all bytes taken, when there are too few.
    virtual HRESULT ParseItem(ByteReader& reader) = 0;

protected:
    explicit DescParameter(const char* name) : CUnknown(name, nullptr) {}
};

// An item with the interface I.
template <class I>
class DescParameterEx : public DescParameter, public I {
public:
    DECLARE_IUNKNOWN

    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override {
        if (out != nullptr && iid == I::kIid)
            return GetInterface<I>(this, out);
        return DescParameter::NonDelegatingQueryInterface(iid, out);
    }

protected:
    explicit DescParameterEx(const char* name) : DescParameter(name) {}
};

class AudioCode final : public DescParameterEx<IDvbDescISO639LanguageItem> {
public:
    AudioCode() : DescParameterEx("AudioCode") {}

    HRESULT ParseItem(ByteReader& reader) override;

    HRESULT GetLanguage(uint32_t* out) override { return WriteIfAsked(out, m_language); }
    HRESULT GetAudioType(uint32_t* out) override { return WriteIfAsked(out, m_audioType); }

private:
    uint32_t m_language = 0;
    uint32_t m_audioType = 0;
};

class TeletextCode final : public DescParameterEx<IDvbDescTeletextItem> {
public:
    TeletextCode() : DescParameterEx("TeletextCode") {}

    HRESULT ParseItem(ByteReader& reader) override;

    HRESULT GetLanguage(uint32_t* out) override { return WriteIfAsked(out, m_language); }
    HRESULT GetTeletextType(uint32_t* out) override { return WriteIfAsked(out, m_teletextType); }
    HRESULT GetMagazineNumber(uint32_t* out) override { return WriteIfAsked(out, m_magazineNumber); }
    HRESULT GetPageNumber(uint32_t* out) override { return WriteIfAsked(out, m_pageNumber); }

private:
    uint32_t m_language = 0;
    uint32_t m_teletextType = 0;
    uint32_t m_magazineNumber = 0;
    uint32_t m_pageNumber = 0;
};

// Parameters: kLanguage, kSubtitlingType, kCompositionPageId, kAncillaryPageId.
class Subtitle final : public DescParameter {
public:
    Subtitle() : DescParameter("Subtitle") {}

    static constexpr size_t kBytes = 8;

    HRESULT ParseItem(ByteReader& reader) override;
    HRESULT GetParam(uint32_t id, uint32_t* out) override;

private:
    uint32_t m_language = 0;
    uint32_t m_subtitlingType = 0x10;
    uint32_t m_compositionPageId = 0;
    uint32_t m_ancillaryPageId = 0;
};

// A descriptor that is Items to its end; an item that is cut off is left out.
template <class I, class Item, class ItemInterface>
class DescItemArray : public Descriptor<I> {
public:
    HRESULT Parse(std::span<const uint8_t> payload) override {
        m_items.clear();
        ByteReader reader(payload);
        while (reader.Remaining() != 0) {
            const auto item = MakeObject<Item>();
            if (!item)
                return E_OUTOFMEMORY;
            if (SUCCEEDED(item->ParseItem(reader)))
                m_items.emplace_back(item.Get());
        }
        return S_OK;
    }

    HRESULT GetCount(uint32_t* out) override { return WriteIfAsked(out, static_cast<uint32_t>(m_items.size())); }

    HRESULT GetItem(uint32_t index, ItemInterface** out) override {
        if (out == nullptr)
            return E_POINTER;
        *out = nullptr;
        if (index >= m_items.size())
            return E_INVALIDARG;
        *out = ComPtr<ItemInterface>(m_items[index]).Detach();
        return S_OK;
    }

protected:
    using Descriptor<I>::Descriptor;

private:
    std::vector<ComPtr<ItemInterface>> m_items;
};

class DescISO639Language final : public DescItemArray<IDvbDescISO639Language, AudioCode, IDvbDescISO639LanguageItem> {
public:
    DescISO639Language() : DescItemArray("DescISO639Language", tag::kISO639Language) {}
};

class DescTeletext final : public DescItemArray<IDvbDescTeletext, TeletextCode, IDvbDescTeletextItem> {
public:
    DescTeletext() : DescItemArray("DescTeletext", tag::kTeletext) {}
};

// EN 300 468 clause 6.2.41. Object parameter: kSubtitles, a collection of Subtitle.
class DescSubtitling final : public Descriptor<IDvbDescriptor> {
public:
    DescSubtitling() : Descriptor("DescSubtitling", tag::kSubtitling), m_subtitles(MakeObject<DvbCollection>()) {}

    HRESULT Parse(std::span<const uint8_t> payload) override;
    HRESULT GetCOMParam(uint32_t id, const IID& iid, void** out) override;

private:
    const ComPtr<DvbCollection> m_subtitles;  // null when out of memory
};

}  // namespace tessel
