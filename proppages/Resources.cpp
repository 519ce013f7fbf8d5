#include "proppages/Resources.h"

namespace tessel::page {

namespace {

constexpr RECT At(LONG left, LONG top, LONG width, LONG height) {
    return {left, top, left + width, top + height};
}

// The rectangles of drop-down lists are those of the list when it is open.
constexpr ControlTemplate kTableControls[] = {
    {kTableChoice, ControlKind::kDropDownList, At(0, 0, 282, 171)},
    {kTableList, ControlKind::kListView, At(0, 12, 285, 162)},
    {kTableInfo, ControlKind::kStatic, At(0, 174, 285, 18)},
    {kOtherStreams, ControlKind::kCheckBox, At(2, 195, 94, 14), u"Other TransportStreams"},
    {kTableMap, ControlKind::kPushButton, At(126, 195, 50, 14), u"Map", false},
    {kUpdate, ControlKind::kPushButton, At(180, 195, 50, 14), u"Update"},
    {kReset, ControlKind::kPushButton, At(234, 195, 50, 14), u"Reset"},
};

constexpr ControlTemplate kPidMapControls[] = {
    {kPinChoice, ControlKind::kDropDownList, At(0, 0, 141, 171)},
    {kContent, ControlKind::kDropDownList, At(143, 0, 140, 183)},
    {kFreePids, ControlKind::kListView, At(0, 12, 285, 96)},
    {kPidLabel, ControlKind::kStatic, At(2, 113, 18, 8), u"PID:"},
    {kPid, ControlKind::kEdit, At(21, 111, 40, 12)},
    {kPinNameLabel, ControlKind::kStatic, At(64, 113, 31, 8), u"PinName:"},
    {kPinName, ControlKind::kEdit, At(96, 111, 60, 12)},
    {kMap, ControlKind::kPushButton, At(159, 110, 41, 14), u"Map", false},
    {kUnmap, ControlKind::kPushButton, At(203, 110, 41, 14), u"Unmap", false},
    {kUpdate, ControlKind::kPushButton, At(248, 110, 37, 14), u"Update"},
    {kMappedPids, ControlKind::kListView, At(0, 126, 285, 90)},
};

constexpr ControlTemplate kOutputPinsControls[] = {
    {kPinPids, ControlKind::kListView, At(0, 0, 285, 144)},
    {kFirstPin, ControlKind::kRadioButton, At(2, 153, 60, 14), u"Pin1"},
    {kFirstPin + 1, ControlKind::kRadioButton, At(72, 153, 60, 14), u"Pin2"},
    {kFirstPin + 2, ControlKind::kRadioButton, At(142, 153, 60, 14), u"Pin3"},
    {kFirstPin + 3, ControlKind::kRadioButton, At(212, 153, 60, 14), u"Pin4"},
};

struct StringRow {
    int32_t id;
    const OLECHAR* text;
};
constexpr StringRow kStrings[] = {
    {kStringSplitter, u"Transport Stream Splitter"},
    {kStringOutPins, u"OutPins"},
    {kStringServices, u"Services"},
    {kStringSdt, u"SDT"},
    {kStringPat, u"PAT"},
    {kStringCat, u"CAT"},
    {kStringPidMap, u"PID Map"},
    {kStringNit, u"NIT"},
    {kStringGlt, u"GLT"},
    {kStringSgt, u"SGT"},
    {kStringVct, u"VCT"},
};

}  // namespace

constinit const DialogTemplate kTableDialog{100, {286, 212}, kTableControls};
constinit const DialogTemplate kPidMapDialog{110, {286, 218}, kPidMapControls};
constinit const DialogTemplate kOutputPinsDialog{111, {286, 176}, kOutputPinsControls};

const OLECHAR* StringResource(int32_t id) {
    for (const StringRow& row : kStrings)
        if (row.id == id)
            return row.text;
    return u"";
}

}  // namespace tessel::page
