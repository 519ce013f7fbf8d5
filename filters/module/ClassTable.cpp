#include "filters/module/ClassTable.h"

#include <array>

#include "core/PropertyPages.h"
#include "filters/TsSplitter.h"
#include "output/OutputMediaTypes.h"
#include "proppages/Pages.h"
#include "source/TsSource.h"

namespace tessel {

namespace {

constexpr auto kPinTypes = [] {
    std::array<REGPINTYPES, kOutputMediaTypeCount> types{};
    for (size_t i = 0; i < types.size(); ++i)
        types[i] = {&kOutputMediaTypes[i].majortype, &kOutputMediaTypes[i].subtype};
    return types;
}();

// The input takes the first two, transport streams.
constexpr REGFILTERPINS kSplitterPins[] = {
    {u"Input", 0, 0, 0, 0, nullptr, nullptr, 2, kPinTypes.data()},
    {u"Output", 0, 1, 0, 0, nullptr, nullptr, kPinTypes.size(), kPinTypes.data()},
};
constexpr REGFILTER2 kSplitter = {1, kMerit, 2, kSplitterPins};
constexpr REGFILTER2 kSource = {1, kMerit, 0, nullptr};

template <StreamingMode kMode, int32_t kParameter>
constexpr ClassCreator kNewSplitter =
    CreateObject<CTsSplitter, [](CTsSplitter& splitter) { return splitter.Init(kMode, kParameter); }>;

// One line a class; the order is that of registration. kFilter: null for a property page.
constexpr ModuleClass kClasses[] = {
    {u"Corvane MPEG TS Splitter", CLSID_TsSplitter, kNewSplitter<StreamingMode::kLive, 1>, &kSplitter},
    {u"Corvane MPEG TS Splitter (Async)", CLSID_TsSplitterAsync, kNewSplitter<StreamingMode::kStream, 1>, &kSplitter},
    {u"Corvane MPEG TS Splitter (Rec)", CLSID_TsSplitterRec, kNewSplitter<StreamingMode::kRecording, 0>, &kSplitter},
    {u"Corvane MPEG TS FileSource", CLSID_TsSource,
     CreateObject<CTsSource, [](CTsSource& source) { return source.SetMode(StreamingMode::kFile, 0); }>, &kSource},
    {u"PropPageServices", kPageServices, CreatePropPageServices, nullptr},
    {u"PropPageProgramAssociationTable", kPageProgramAssociationTable, CreatePropPageProgramAssociationTable, nullptr},
    {u"PropPageServiceDescriptionTable", kPageServiceDescriptionTable, CreatePropPageServiceDescriptionTable, nullptr},
    {u"PropPageNetworkInformationTable", kPageNetworkInformationTable, CreatePropPageNetworkInformationTable, nullptr},
    {u"PropPageServiceGuideTable", kPageServiceGuideTable, CreatePropPageServiceGuideTable, nullptr},
    {u"PropPageGenreLookupTable", kPageGenreLookupTable, CreatePropPageGenreLookupTable, nullptr},
    {u"PropPageConditionalAccessTable", kPageConditionalAccessTable, CreatePropPageConditionalAccessTable, nullptr},
    {u"PropPageVirtualChannelTable", kPageVirtualChannelTable, CreatePropPageVirtualChannelTable, nullptr},
    {u"PropPagePIDmapping", kPagePidMapping, CreatePropPagePIDmapping, nullptr},
    {u"PropPageTSPin", kPageOutputPins, CreatePropPageTSPin, nullptr},
};

}  // namespace

std::span<const ModuleClass> ModuleClasses() {
    return kClasses;
}

}  // namespace tessel
