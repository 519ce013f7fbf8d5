// The output pin by itself: its PID map, what it delivers, its media types, its buffers.
#include <gmock/gmock.h>

#include "platform/media/MediaResult.h"
#include "tests/support/FilterFixture.h"
#include "tests/support/GraphFixture.h"

namespace tessel {
namespace {

using testing::ElementsAre;

constexpr ULONG kPid = 0x111;

// A pin of a filter that does not run.
struct PinOfFilter {
    explicit PinOfFilter(StreamingMode mode = StreamingMode::kRecording) : filter(MakeFilter(mode)) {
        ComPtr<IPin> handle;
        EXPECT_EQ(filter->CreateOutputPin(nullptr, u"pin", handle.Put()), S_OK);
        pin = std::dynamic_pointer_cast<CTsOutputPin>(filter->GetPin(0));
    }
    HRESULT Map(std::vector<ULONG> pids, int content) {
        return pin->MapPID(static_cast<ULONG>(pids.size()), pids.data(), static_cast<MEDIA_SAMPLE_CONTENT>(content));
    }
    // Connects the pin to a sink that takes everything, or only types of this major type and subtype.
    HRESULT Connect(const OutputMediaType& type, const GUID& major = GUID_NULL, const GUID& sub = GUID_NULL) {
        sink = MakeObject<TestSink>(major, sub);
        const AM_MEDIA_TYPE wanted = MakeMediaType(type.majortype, type.subtype);
        return pin->Connect(&sink->In(), &wanted);
    }
    ~PinOfFilter() { pin->DropConnections(); }

    ComPtr<BareFilter> filter;
    std::shared_ptr<CTsOutputPin> pin;
    ComPtr<TestSink> sink;
};

std::vector<ULONG> EntriesOf(CTsOutputPin& pin) {
    ComPtr<IEnumPIDMap> entries;
    EXPECT_EQ(pin.EnumPIDMap(entries.Put()), S_OK);
    std::vector<ULONG> pids;
    PID_MAP entry{};
    while (entries->Next(1, &entry, nullptr) == S_OK) {
        EXPECT_EQ(entry.MediaSampleContent, 0);
        pids.push_back(entry.ulPID);
    }
    return pids;
}

TEST(OutputPin, MapsAndUnmaps) {
    enum { kPackets = 0, kStream = 1, kPsi = 2, kPayload = 3, kUnmap = 99 };
    struct Step {
        int content;
        std::vector<ULONG> pids;
        HRESULT result;
        int kind;
        std::vector<ULONG> entries;
    };
    const std::vector<std::vector<Step>> cases = {
        {{kPackets, {0x20, 0x10, 0x20}, S_OK, 1, {0x10, 0x20}},
         {kStream, {0x30}, E_INVALIDARG, 1, {0x10, 0x20}},
         {kPsi, {0x30}, E_INVALIDARG, 1, {0x10, 0x20}},
         {kPackets, {ALL_TABLES}, S_OK, 1, {ALL_TABLES, 0x10, 0x20}},
         {kPackets, {ALL_PIDS, ALL_TABLES}, S_OK, 1, {ALL_PIDS, 0x10, 0x20}},
         {kUnmap, {ALL_PIDS, 0x999}, S_OK, 1, {0x10, 0x20}},
         {kUnmap, {0x10}, S_OK, 1, {0x20}},
         {kUnmap, {0x20}, S_OK, 0, {}},
         {kStream, {0x10}, S_OK, 2, {0x10}}},
        {{kStream, {0x0F}, E_INVALIDARG, 0, {}},
         {kStream, {0x10, 0x11}, E_INVALIDARG, 0, {}},
         {kStream, {0x10}, S_OK, 2, {0x10}},
         {kStream, {0x11}, E_INVALIDARG, 2, {0x10}},
         {kStream, {0x10}, E_INVALIDARG, 2, {0x10}},
         {kUnmap, {0x11}, S_OK, 2, {0x10}}},
        {{kStream, {ALL_TABLES}, E_INVALIDARG, 2, {}}, {kStream, {ALL_PIDS}, E_INVALIDARG, 2, {}}},
        {{kPsi, {0x12, ALL_PIDS, 0x13}, E_INVALIDARG, 3, {0x12}},
         {kPsi, {ALL_TABLES}, S_OK, 3, {ALL_TABLES, 0x12}},
         {kPsi, {0x123456}, S_OK, 3, {ALL_TABLES, 0x12, 0x123456}}},
        {{kPayload, {0x20}, E_INVALIDARG, 0, {}}, {7, {0x20}, E_INVALIDARG, 0, {}}},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        PinOfFilter at;
        for (size_t k = 0; k < cases[i].size(); ++k) {
            SCOPED_TRACE(testing::Message() << "case " << i << ", step " << k);
            const Step& step = cases[i][k];
            const HRESULT result = step.content == kUnmap
                                       ? at.pin->UnmapPID(static_cast<ULONG>(step.pids.size()), step.pids.data())
                                       : at.Map(step.pids, step.content);
            EXPECT_EQ(result, step.result);
            EXPECT_EQ(static_cast<int>(at.pin->Kind()), step.kind);
            EXPECT_EQ(at.pin->Content() == nullptr, step.kind == 0);
            EXPECT_EQ(EntriesOf(*at.pin), step.entries);
        }
    }
    PinOfFilter at;
    EXPECT_EQ(at.pin->MapPID(0, nullptr, static_cast<MEDIA_SAMPLE_CONTENT>(7)), S_OK);
}

TEST(OutputPin, SectionsOfMappedPidsAreAssembled) {
    PinOfFilter at;
    EXPECT_EQ(at.Map({0x12, 0x2000, 0x13}, MEDIA_MPEG2_PSI), S_OK);
    // What came before a value that it does not take stays mapped, so it is assembled too.
    EXPECT_EQ(at.Map({0x14, ALL_PIDS, 0x15}, MEDIA_MPEG2_PSI), E_INVALIDARG);
    const std::vector<std::pair<uint32_t, HRESULT>> expected = {
        {0x12, E_ACCESSDENIED}, {0x13, E_ACCESSDENIED}, {0x14, E_ACCESSDENIED}, {0x15, S_OK}};
    for (const auto& [pid, result] : expected)
        EXPECT_EQ(at.filter->AddTablePid(0x42, 0, pid), result) << pid;
    at.filter->InternalReset();
    EXPECT_EQ(at.filter->AddTablePid(0x42, 0, 0x12), E_ACCESSDENIED);
}

TEST(OutputPin, EnumeratorWalksTheMapAsItWas) {
    PinOfFilter at;
    ASSERT_EQ(at.Map({3, 1, 2}, MEDIA_TRANSPORT_PACKET), S_OK);
    ComPtr<IEnumPIDMap> entries;
    ASSERT_EQ(at.pin->EnumPIDMap(entries.Put()), S_OK);
    ASSERT_EQ(at.Map({4}, MEDIA_TRANSPORT_PACKET), S_OK);
    PID_MAP out[4] = {};
    ULONG received = 7;
    EXPECT_EQ(entries->Next(2, out, &received), S_OK);
    EXPECT_EQ(received, 2u);
    EXPECT_EQ(out[1].ulPID, 2u);
    ComPtr<IEnumPIDMap> clone;
    ASSERT_EQ(entries->Clone(clone.Put()), S_OK);
    EXPECT_EQ(entries->Next(4, out, &received), S_FALSE);
    EXPECT_EQ(received, 1u);
    EXPECT_EQ(out[0].ulPID, 3u);
    EXPECT_EQ(clone->Next(4, out, &received), S_FALSE);
    EXPECT_EQ(received, 3u);
    EXPECT_EQ(entries->Reset(), S_OK);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(entries->Skip(0xFFFFFFFF), S_OK);
    EXPECT_EQ(entries->Next(1, out, &received), S_FALSE);
    EXPECT_EQ(received, 0u);
}

TEST(OutputPin, ParameterChoosesTheContent) {
    struct {
        uint32_t value;
        HRESULT result;
        uint32_t kind;
    } const cases[] = {{1, S_OK, 1},         {2, S_OK, 2}, {3, S_OK, 3},
                       {0, E_INVALIDARG, 0}, {3, S_OK, 3}, {4, E_INVALIDARG, 0}};
    PinOfFilter at;
    uint32_t kind = 7;
    for (const auto& [value, result, expected] : cases) {
        EXPECT_EQ(at.pin->SetParam(kParamContentKind, value), result);
        EXPECT_EQ(at.pin->GetParam(kParamContentKind, &kind), S_OK);
        EXPECT_EQ(kind, expected);
    }
    EXPECT_EQ(at.pin->GetParam(kParamContentKind, nullptr), E_POINTER);
    ASSERT_EQ(at.Map({ALL_PIDS}, MEDIA_TRANSPORT_PACKET), S_OK);
    EXPECT_EQ(at.pin->SetParam(kParamContentKind, 2), E_UNEXPECTED);
    PinOfFilter connected;
    ASSERT_EQ(connected.Connect(kOutputMediaTypes[0]), S_OK);
    EXPECT_EQ(connected.pin->SetParam(kParamContentKind, 2), E_UNEXPECTED);
    // Everything else is the filter's.
    EXPECT_EQ(at.pin->SetParam(kParamWorkerPriority, 2), S_OK);
    EXPECT_EQ(at.filter->GetParam(kParamWorkerPriority, &kind), S_OK);
    EXPECT_EQ(kind, 2u);
}

// The rows of the table that the pin accepts, and those that it offers.
std::vector<size_t> Accepted(CTsOutputPin& pin) {
    std::vector<size_t> rows;
    for (size_t row = 0; row < kOutputMediaTypeCount; ++row) {
        const AM_MEDIA_TYPE type = MakeMediaType(kOutputMediaTypes[row].majortype, kOutputMediaTypes[row].subtype);
        if (pin.CheckMediaType(&type) == S_OK)
            rows.push_back(row);
    }
    return rows;
}

size_t Offered(CTsOutputPin& pin) {
    CMediaType type;
    int count = 0;
    for (; pin.GetMediaType(count, &type) == S_OK; ++count) {
        EXPECT_EQ(type.bTemporalCompression != 0, type.majortype == MEDIATYPE_Video);
        EXPECT_TRUE(type.bFixedSizeSamples != 0 && type.lSampleSize == 1 && type.formattype == FORMAT_None);
    }
    EXPECT_EQ(pin.GetMediaType(count, &type), VFW_S_NO_MORE_ITEMS);
    EXPECT_EQ(pin.GetMediaType(-1, &type), E_INVALIDARG);
    return static_cast<size_t>(count);
}

TEST(OutputPin, MediaTypesFollowTheContent) {
    struct {
        MEDIA_SAMPLE_CONTENT content;
        size_t first;
        size_t count;
    } const cases[] = {{MEDIA_TRANSPORT_PACKET, 0, 2}, {MEDIA_ELEMENTARY_STREAM, 2, 10}, {MEDIA_MPEG2_PSI, 12, 2}};
    for (const auto& [content, first, count] : cases) {
        PinOfFilter at;
        EXPECT_EQ(Accepted(*at.pin).size(), 14u);
        EXPECT_EQ(Offered(*at.pin), 14u);
        // A content alone decides what is offered, and not what is accepted.
        ASSERT_EQ(at.pin->SetParam(kParamContentKind, static_cast<uint32_t>(content) + 1), S_OK);
        EXPECT_EQ(Accepted(*at.pin).size(), 14u);
        EXPECT_EQ(Offered(*at.pin), count);
        ASSERT_EQ(at.Map({kPid}, content), S_OK);
        const auto accepted = Accepted(*at.pin);
        ASSERT_EQ(accepted.size(), count);
        EXPECT_EQ(accepted[0], first);
    }
}

TEST(OutputPin, SetOutputTypeAsksTheReceiver) {
    const auto type = [](size_t row) {
        return MakeMediaType(kOutputMediaTypes[row].majortype, kOutputMediaTypes[row].subtype);
    };
    const AM_MEDIA_TYPE mpeg2 = type(2);
    const AM_MEDIA_TYPE mpeg1 = type(3);
    const AM_MEDIA_TYPE audio = type(6);
    AM_MEDIA_TYPE blank = mpeg2;
    blank.formattype = GUID_NULL;
    PinOfFilter free;
    EXPECT_EQ(free.pin->SetOutputType(&mpeg2), S_OK);
    EXPECT_EQ(free.pin->SetOutputType(&mpeg2), S_FALSE);
    EXPECT_EQ(free.pin->SetOutputType(&blank), S_OK);  // another format: the whole type counts
    EXPECT_EQ(free.pin->SetOutputType(&audio), S_OK);
    EXPECT_EQ(free.pin->SetOutputType(nullptr), E_POINTER);

    PinOfFilter open;
    ASSERT_EQ(open.Connect(kOutputMediaTypes[2]), S_OK);
    EXPECT_EQ(open.pin->SetOutputType(&mpeg2), S_FALSE);
    EXPECT_EQ(open.pin->SetOutputType(&audio), VFW_E_TYPE_NOT_ACCEPTED);
    EXPECT_EQ(open.pin->SetOutputType(&mpeg1), S_OK);
    CMediaType current;
    EXPECT_EQ(open.pin->CurrentMediaType(current), S_OK);
    EXPECT_EQ(current.subtype, MEDIASUBTYPE_MPEG1Payload);

    PinOfFilter strict;
    ASSERT_EQ(strict.Connect(kOutputMediaTypes[2], MEDIATYPE_Video, MEDIASUBTYPE_MPEG2_VIDEO), S_OK);
    EXPECT_EQ(strict.pin->SetOutputType(&mpeg1), VFW_E_TYPE_NOT_ACCEPTED);
    EXPECT_EQ(strict.pin->CurrentMediaType(current), S_OK);
    EXPECT_EQ(current.subtype, MEDIASUBTYPE_MPEG2_VIDEO);
}

TEST(OutputPin, IsAPushSourceInLiveModeOnly) {
    PinOfFilter recording;
    ComPtr<IAMPushSource> none;
    EXPECT_EQ(recording.pin->QueryInterface(IAMPushSource::kIid, reinterpret_cast<void**>(none.Put())), E_NOINTERFACE);
    PinOfFilter live(StreamingMode::kLive);
    const auto push = ComPtr<IPin>(live.pin.get()).As<IAMPushSource>();
    ASSERT_TRUE(push);
    REFERENCE_TIME offset = 0;
    EXPECT_EQ(push->GetStreamOffset(&offset), S_OK);
    EXPECT_EQ(offset, 2'000'000);
    EXPECT_EQ(push->SetStreamOffset(3'999'999), S_FALSE);
    EXPECT_EQ(push->SetStreamOffset(4'000'000), S_OK);
    EXPECT_EQ(push->GetMaxStreamOffset(&offset), S_OK);
    EXPECT_EQ(offset, 4'000'000);
    EXPECT_EQ(push->GetStreamOffset(nullptr), E_POINTER);
    EXPECT_EQ(push->SetPushSourceFlags(0), E_NOTIMPL);
}

}  // namespace
}  // namespace tessel
