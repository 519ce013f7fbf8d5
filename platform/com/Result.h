// Result codes and fixed-width names of the platform.
//
// A negative HRESULT is a failure. S_FALSE is a success that says "nothing was done" or "not so".
#pragma once

#include <cstdint>

using HRESULT = int32_t;
using LONG = int32_t;
using BOOL = int32_t;
using DWORD = uint32_t;
using ULONG = uint32_t;
using OLECHAR = char16_t;

inline constexpr HRESULT MakeResult(uint32_t bits) {
    return static_cast<HRESULT>(bits);
}

inline constexpr HRESULT S_OK = 0;
inline constexpr HRESULT S_FALSE = 1;
inline constexpr HRESULT E_NOTIMPL = MakeResult(0x80004001);
inline constexpr HRESULT E_NOINTERFACE = MakeResult(0x80004002);
inline constexpr HRESULT E_POINTER = MakeResult(0x80004003);
inline constexpr HRESULT E_ABORT = MakeResult(0x80004004);
inline constexpr HRESULT E_FAIL = MakeResult(0x80004005);
inline constexpr HRESULT E_UNEXPECTED = MakeResult(0x8000FFFF);
inline constexpr HRESULT E_ACCESSDENIED = MakeResult(0x80070005);
inline constexpr HRESULT E_OUTOFMEMORY = MakeResult(0x8007000E);
inline constexpr HRESULT E_INVALIDARG = MakeResult(0x80070057);

inline constexpr bool SUCCEEDED(HRESULT result) {
    return result >= 0;
}
inline constexpr bool FAILED(HRESULT result) {
    return result < 0;
}
