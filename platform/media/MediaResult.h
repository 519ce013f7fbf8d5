// Result codes of the media graph.
#pragma once

#include "platform/com/Result.h"

inline constexpr HRESULT VFW_S_NO_MORE_ITEMS = 0x00040103;
inline constexpr HRESULT VFW_S_CANT_CUE = 0x00040268;

inline constexpr HRESULT VFW_E_INVALIDMEDIATYPE = MakeResult(0x80040200);
inline constexpr HRESULT VFW_E_RUNTIME_ERROR = MakeResult(0x8004020B);
inline constexpr HRESULT VFW_E_NOT_COMMITTED = MakeResult(0x80040211);
inline constexpr HRESULT VFW_E_NOT_STOPPED = MakeResult(0x80040224);
inline constexpr HRESULT VFW_E_WRONG_STATE = MakeResult(0x80040227);
inline constexpr HRESULT VFW_E_TYPE_NOT_ACCEPTED = MakeResult(0x8004022A);
inline constexpr HRESULT VFW_E_DUPLICATE_NAME = MakeResult(0x8004022D);
inline constexpr HRESULT VFW_E_INVALID_FILE_FORMAT = MakeResult(0x8004022F);
