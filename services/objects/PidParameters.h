// What clients and filters say about single PIDs.
#pragma once

#include "platform/com/Unknown.h"

namespace tessel {

// Special values of an output's PID map: every PID, and every PID that sections are assembled from.
inline constexpr ULONG ALL_PIDS = 0x20000;
inline constexpr ULONG ALL_TABLES = 0x10000;

inline constexpr int32_t kPidScrambled = 1;
inline constexpr int32_t kPidPresent = 2;

class IMPEG2PIDParam : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{9A7F1D14-6A96-4513-AAE4-B6A585CAF479}");

    // The slots without a meaning: S_FALSE.
    virtual HRESULT Reserved1(int32_t pid, int32_t parameter, uint32_t value) = 0;
    // kPidScrambled: whether the last packet was; kPidPresent: whether there was one since the last reset. 0 or 1.
    // E_INVALIDARG for a PID outside 0 to 8191; S_FALSE, and no value, for another parameter.
    virtual HRESULT GetPidParam(int32_t pid, int32_t parameter, uint32_t* out) = 0;
    virtual HRESULT Reserved2(int32_t pid, int32_t parameter, uint32_t value) = 0;
    virtual HRESULT Reserved3(int32_t pid, int32_t parameter, uint32_t value) = 0;
    virtual HRESULT Reserved4(int32_t pid, int32_t parameter, uint32_t value) = 0;
    virtual HRESULT Reserved5(int32_t pid, int32_t parameter, uint32_t value) = 0;
};

}  // namespace tessel
