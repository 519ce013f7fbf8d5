// The common base of every table object: which sections of a version have come, and the version itself
// (ISO/IEC 13818-1 clause 2.4.4.11, EN 300 468 clause 5.1.1).
//
// A table object collects the sections of one version. Once complete it never changes: a new version is
// a new object, so clients read it without a lock.
#pragma once

#include <bitset>
#include <cstdint>
#include <span>

#include "platform/com/Unknown.h"
#include "services/objects/Parameters.h"
#include "services/objects/TableInterfaces.h"

namespace tessel {

// What the table store uses of a table object. Sections begin at table_id and end with CRC_32.
class IDvbTableEx : public IUnknown {
public:
    static constexpr HRESULT kComplete = 0;
    static constexpr HRESULT kIncomplete = 1;

    // kComplete, kIncomplete, or a failure: the section was refused and counts as not received.
    virtual HRESULT AddSection(const uint8_t* section, int32_t length) = 0;
    // 1 when the section does not start a new version, 0 when it does.
    virtual int32_t IsSameVersion(const uint8_t* section, int32_t length) = 0;
    virtual uint8_t GetVersion() = 0;
};

class DvbTable : public IGetSetCOMParamImpl, public IDvbTableEx {
public:
    HRESULT AddSection(const uint8_t* section, int32_t length) override;
    int32_t IsSameVersion(const uint8_t* section, int32_t length) override;
    uint8_t GetVersion() override { return m_version; }

    // Ids: kTableId, kTableIdExtension, kVersionNumber.
    HRESULT GetParam(uint32_t id, uint32_t* out) override;

protected:
    explicit DvbTable(uint32_t tableId) : m_tableId(tableId) {}
    ~DvbTable() = default;

    // Decodes the payload between section header and CRC (short form: the whole section).
    virtual HRESULT ParseSection(uint32_t tableId, uint32_t tableIdExtension, std::span<const uint8_t> payload) = 0;
    // Back to the state of a new object; classes also empty their lists.
    virtual void ResetTable();

    uint16_t TableIdExtension() const { return m_tableIdExtension; }
    bool Complete() const { return m_complete; }
    uint8_t LastSectionNumber() const { return m_lastSectionNumber; }
    bool Received(uint8_t sectionNumber) const { return m_received[sectionNumber]; }

private:
    bool AllReceived() const;

    const uint32_t m_tableId;
    std::bitset<256> m_received;
    uint8_t m_lastSectionNumber = 0xFF;
    uint16_t m_tableIdExtension = 0xFFFF;
    uint8_t m_version = 0xFF;
    bool m_complete = false;
};

// Adds the client interface I, which is IDvbTable or derives from it.
template <class I>
class DvbTableImpl : public DvbTable, public I {
public:
    HRESULT Reserved1() override { return E_FAIL; }
    HRESULT IsComplete() override { return Complete() ? S_OK : S_FALSE; }
    HRESULT Reserved2(uint32_t, uint32_t) override { return E_FAIL; }
    HRESULT Reserved3(uint32_t) override { return E_FAIL; }
    HRESULT GetLastSectionNumber(uint32_t* out) override {
        if (out == nullptr)
            return E_POINTER;
        *out = LastSectionNumber();
        return S_OK;
    }
    HRESULT IsSectionPresent(int32_t sectionNumber) override {
        if (sectionNumber < 0 || sectionNumber > 255)
            return E_INVALIDARG;
        return Received(static_cast<uint8_t>(sectionNumber)) ? S_OK : S_FALSE;
    }

    using DvbTable::Reserved1;
    using DvbTable::Reserved2;
    using DvbTable::Reserved3;

protected:
    using DvbTable::DvbTable;
};

// Makes an object of it: answers I, IDvbTable and the parameter interfaces.
template <class I>
class DvbTableObject : public CUnknown, public DvbTableImpl<I> {
public:
    DECLARE_IUNKNOWN

    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override {
        if (out != nullptr) {
            if (iid == I::kIid || iid == IDvbTable::kIid)
                return GetInterface<I>(this, out);
            if (IGetSetCOMParamImpl::IsParameterInterface(iid))
                return GetInterface<IGetSetCOMParam>(this, out);
        }
        return CUnknown::NonDelegatingQueryInterface(iid, out);
    }

protected:
    DvbTableObject(const char* name, uint32_t tableId) : CUnknown(name, nullptr), DvbTableImpl<I>(tableId) {}
};

// An entry without an interface of its own: its fields are read by parameter id.
class ParameterObject : public CUnknown, public IGetSetCOMParamImpl {
public:
    explicit ParameterObject(const char* name) : CUnknown(name, nullptr) {}

    DECLARE_IUNKNOWN

    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override {
        if (out != nullptr && IsParameterInterface(iid))
            return GetInterface<IGetSetCOMParam>(this, out);
        return CUnknown::NonDelegatingQueryInterface(iid, out);
    }
};

// What list getters do: a new reference to list.
template <class List, class I>
HRESULT HandOutList(const ComPtr<List>& list, I** out) {
    *out = ComPtr<I>(list.Get()).Detach();
    return *out != nullptr ? S_OK : E_OUTOFMEMORY;
}

template <class T>
HRESULT HandOutValue(T value, uint32_t* out) {
    *out = value;
    return S_OK;
}

}  // namespace tessel
