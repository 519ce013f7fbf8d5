// Result codes of the media graph, and the events that it raises.
#pragma once

#include "platform/com/Result.h"

inline constexpr HRESULT VFW_S_NO_MORE_ITEMS = 0x00040103;
inline constexpr HRESULT VFW_S_CANT_CUE = 0x00040268;
inline constexpr HRESULT VFW_S_NO_STOP_TIME = 0x00040270;

inline constexpr HRESULT VFW_E_INVALIDMEDIATYPE = MakeResult(0x80040200);
inline constexpr HRESULT VFW_E_ENUM_OUT_OF_SYNC = MakeResult(0x80040203);
inline constexpr HRESULT VFW_E_ALREADY_CONNECTED = MakeResult(0x80040204);
inline constexpr HRESULT VFW_E_NO_ACCEPTABLE_TYPES = MakeResult(0x80040207);
inline constexpr HRESULT VFW_E_INVALID_DIRECTION = MakeResult(0x80040208);
inline constexpr HRESULT VFW_E_NOT_CONNECTED = MakeResult(0x80040209);
inline constexpr HRESULT VFW_E_NO_ALLOCATOR = MakeResult(0x8004020A);
inline constexpr HRESULT VFW_E_RUNTIME_ERROR = MakeResult(0x8004020B);
inline constexpr HRESULT VFW_E_BUFFER_OVERFLOW = MakeResult(0x8004020D);
inline constexpr HRESULT VFW_E_BADALIGN = MakeResult(0x8004020E);
inline constexpr HRESULT VFW_E_ALREADY_COMMITTED = MakeResult(0x8004020F);
inline constexpr HRESULT VFW_E_BUFFERS_OUTSTANDING = MakeResult(0x80040210);
inline constexpr HRESULT VFW_E_NOT_COMMITTED = MakeResult(0x80040211);
inline constexpr HRESULT VFW_E_SIZENOTSET = MakeResult(0x80040212);
inline constexpr HRESULT VFW_E_NO_CLOCK = MakeResult(0x80040213);
inline constexpr HRESULT VFW_E_NOT_FOUND = MakeResult(0x80040216);
inline constexpr HRESULT VFW_E_NOT_STOPPED = MakeResult(0x80040224);
inline constexpr HRESULT VFW_E_WRONG_STATE = MakeResult(0x80040227);
inline constexpr HRESULT VFW_E_TYPE_NOT_ACCEPTED = MakeResult(0x8004022A);
inline constexpr HRESULT VFW_E_DUPLICATE_NAME = MakeResult(0x8004022D);
inline constexpr HRESULT VFW_E_TIMEOUT = MakeResult(0x8004022E);
inline constexpr HRESULT VFW_E_INVALID_FILE_FORMAT = MakeResult(0x8004022F);
inline constexpr HRESULT VFW_E_SAMPLE_TIME_NOT_SET = MakeResult(0x80040249);
inline constexpr HRESULT VFW_E_MEDIA_TIME_NOT_SET = MakeResult(0x80040251);
inline constexpr HRESULT VFW_E_NOT_IN_GRAPH = MakeResult(0x8004025F);

// A stream is at its end: a result, and the filter that says so.
inline constexpr LONG EC_COMPLETE = 0x01;
// A filter cannot go on: the result that says why.
inline constexpr LONG EC_ERRORABORT = 0x03;
