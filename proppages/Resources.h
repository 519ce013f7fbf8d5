// The dialogs and texts of the pages. Control ids and texts are what clients know them by.
#pragma once

#include "platform/ui/Dialog.h"

namespace tessel::page {

// The table page.
inline constexpr int32_t kTableList = 102;
inline constexpr int32_t kReset = 103;
inline constexpr int32_t kUpdate = 104;  // also of the PID map page
inline constexpr int32_t kTableInfo = 109;
inline constexpr int32_t kTableMap = 118;
inline constexpr int32_t kTableChoice = 1007;
inline constexpr int32_t kOtherStreams = 1008;
// The PID map page.
inline constexpr int32_t kFreePids = 112;
inline constexpr int32_t kMappedPids = 113;
inline constexpr int32_t kMap = 1004;
inline constexpr int32_t kUnmap = 1005;
inline constexpr int32_t kPinChoice = 1009;
inline constexpr int32_t kPid = 1010;
inline constexpr int32_t kContent = 1012;
inline constexpr int32_t kPinName = 1013;
inline constexpr int32_t kPidLabel = -1;
inline constexpr int32_t kPinNameLabel = -2;
// The output pins page.
inline constexpr int32_t kFirstPin = 1000;  // to 1003
inline constexpr int32_t kPinButtons = 4;
inline constexpr int32_t kPinPids = 1006;

extern const DialogTemplate kTableDialog;
extern const DialogTemplate kPidMapDialog;
extern const DialogTemplate kOutputPinsDialog;

inline constexpr int32_t kStringSplitter = 101;
inline constexpr int32_t kStringOutPins = 102;
inline constexpr int32_t kStringServices = 105;
inline constexpr int32_t kStringSdt = 106;
inline constexpr int32_t kStringPat = 107;
inline constexpr int32_t kStringCat = 108;
inline constexpr int32_t kStringPidMap = 111;
inline constexpr int32_t kStringNit = 114;
inline constexpr int32_t kStringGlt = 115;
inline constexpr int32_t kStringSgt = 116;
inline constexpr int32_t kStringVct = 117;

// Empty for an id without a text.
const OLECHAR* StringResource(int32_t id);

}  // namespace tessel::page
