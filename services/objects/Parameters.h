// Access by numeric id to the fields that have no getter of their own.
//
// Ids: 1 the key of a service; 0x100 to 0x102 table_id, table_id_extension, version of a table;
// 0x10000 an object's descriptor list; 0x10000 | table_id << 8 the entry list of a table;
// 0x20000 | table_id << 8 | n field n of an entry of that table; 0x3xxxx properties of services and
// descriptors.
#pragma once

#include "platform/com/Bstr.h"
#include "platform/com/Unknown.h"

namespace tessel {

namespace param {

inline constexpr uint32_t kServiceId = 1;

inline constexpr uint32_t kTableId = 0x100;
inline constexpr uint32_t kTableIdExtension = 0x101;
inline constexpr uint32_t kVersionNumber = 0x102;

inline constexpr uint32_t kDescriptors = 0x10000;
inline constexpr uint32_t kTableGuides = 0x1C700;
inline constexpr uint32_t kVirtualChannels = 0x1C800;

inline constexpr uint32_t kPmtPid = 0x20000;
inline constexpr uint32_t kPcrPid = 0x20200;
inline constexpr uint32_t kTableType = 0x2C700;
inline constexpr uint32_t kTablePid = 0x2C701;
inline constexpr uint32_t kTableVersion = 0x2C702;
inline constexpr uint32_t kNumberBytes = 0x2C703;
inline constexpr uint32_t kMajorChannel = 0x2C800;
inline constexpr uint32_t kMinorChannel = 0x2C801;
inline constexpr uint32_t kModulationMode = 0x2C802;
inline constexpr uint32_t kCarrierFrequency = 0x2C803;
inline constexpr uint32_t kChannelTsid = 0x2C804;
inline constexpr uint32_t kProgramNumber = 0x2C805;
inline constexpr uint32_t kEtmLocation = 0x2C806;
inline constexpr uint32_t kAccessControlled = 0x2C807;
inline constexpr uint32_t kHidden = 0x2C808;
inline constexpr uint32_t kHideGuide = 0x2C809;
inline constexpr uint32_t kSourceId = 0x2C80B;
inline constexpr uint32_t kShortName = 0x2C810;

inline constexpr uint32_t kServiceType = 0x30000;
inline constexpr uint32_t kServiceName = 0x30011;
inline constexpr uint32_t kProviderName = 0x30013;
inline constexpr uint32_t kScrambled = 0x30020;
inline constexpr uint32_t kLanguage = 0x30030;
inline constexpr uint32_t kSubtitles = 0x30034;
inline constexpr uint32_t kSubtitlingType = 0x30041;
inline constexpr uint32_t kCompositionPageId = 0x30042;
inline constexpr uint32_t kAncillaryPageId = 0x30043;
inline constexpr uint32_t kFormatIdentifier = 0x30050;

}  // namespace param

// Filter parameters: the priority of the working threads while they work, and the choice of a service by its
// number among those that have packets.
inline constexpr uint32_t kParamWorkerPriority = 22;
inline constexpr uint32_t kParamSelectService = 77777;
// Pin parameter: what it delivers. 0 nothing yet, else MEDIA_SAMPLE_CONTENT + 1.
inline constexpr uint32_t kParamContentKind = 300;

// An id that an object does not handle gives S_FALSE and writes nothing; a null out pointer is E_POINTER before that.
class IGetSetParam : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{023C5FE8-3CD8-40F3-BF30-E0AE125B0A68}");

    virtual HRESULT SetParam(uint32_t id, uint32_t value) = 0;
    virtual HRESULT GetParam(uint32_t id, uint32_t* out) = 0;
    // Slots without a meaning: S_FALSE; the fourth clears its out pointer and gives E_INVALIDARG.
    virtual HRESULT Reserved1(uint32_t id, uint32_t first, uint32_t second) = 0;
    virtual HRESULT Reserved2(uint32_t id, uint32_t value) = 0;
    virtual HRESULT Reserved3(uint32_t id, uint32_t value) = 0;
    virtual HRESULT Reserved4(uint32_t id, uint32_t value, void** out) = 0;
};

class IGetSetCOMParam : public IGetSetParam {
public:
    static constexpr IID kIid = MakeGuid("{9A892E78-1541-4102-B611-98D375DE0F2B}");

    virtual HRESULT SetStringParam(uint32_t id, const OLECHAR* text) = 0;
    // A handled id writes a new copy that the caller frees (null where there is no text).
    virtual HRESULT GetStringParam(uint32_t id, BSTR* out) = 0;
    virtual HRESULT Reserved5(uint32_t id, uint32_t value) = 0;  // S_FALSE
    // A handled id asks the object that it selects for iid.
    virtual HRESULT GetCOMParam(uint32_t id, const IID& iid, void** out) = 0;
};

// An object that handles no id; classes override what they answer.
class IGetSetCOMParamImpl : public IGetSetCOMParam {
public:
    HRESULT SetParam(uint32_t, uint32_t) override { return S_FALSE; }
    HRESULT GetParam(uint32_t, uint32_t* out) override { return out != nullptr ? S_FALSE : E_POINTER; }
    HRESULT Reserved1(uint32_t, uint32_t, uint32_t) override { return S_FALSE; }
    HRESULT Reserved2(uint32_t, uint32_t) override { return S_FALSE; }
    HRESULT Reserved3(uint32_t, uint32_t) override { return S_FALSE; }
    HRESULT Reserved4(uint32_t, uint32_t, void** out) override {
        if (out != nullptr)
            *out = nullptr;
        return E_INVALIDARG;
    }
    HRESULT SetStringParam(uint32_t, const OLECHAR*) override { return S_FALSE; }
    HRESULT GetStringParam(uint32_t, BSTR*) override { return S_FALSE; }
    HRESULT Reserved5(uint32_t, uint32_t) override { return S_FALSE; }
    HRESULT GetCOMParam(uint32_t, const IID&, void**) override { return S_FALSE; }

    // Both parameter interfaces are answered with this one pointer.
    static bool IsParameterInterface(const IID& iid) {
        return iid == IGetSetParam::kIid || iid == IGetSetCOMParam::kIid;
    }
};

}  // namespace tessel
