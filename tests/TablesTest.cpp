// The five tables: what they read from their sections, and what they refuse.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "descriptors/DescriptorInterfaces.h"
#include "tables/AtscTable.h"
#include "tables/TableFactory.h"
#include "tests/support/SectionBuilder.h"

namespace tessel {
namespace {

using build::Bytes;
using build::LongSection;
using build::ShortSection;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr HRESULT kComplete = IDvbTableEx::kComplete;
constexpr HRESULT kIncomplete = IDvbTableEx::kIncomplete;

template <class Factory>
ComPtr<IDvbTableEx> Make(uint32_t tableId = kServiceDescriptionTable) {
    ComPtr<IDvbTableEx> table;
    EXPECT_EQ(Factory().CreateTable(tableId, 0, table.Put()), S_OK);
    return table;
}

HRESULT Add(const ComPtr<IDvbTableEx>& table, const Bytes& section) {
    return table->AddSection(section.data(), static_cast<int32_t>(section.size()));
}

int32_t SameVersion(const ComPtr<IDvbTableEx>& table, const Bytes& section) {
    return table->IsSameVersion(section.data(), static_cast<int32_t>(section.size()));
}

ComPtr<IDvbProgramMapTable> ParsedPmt(const build::PmtFields& fields) {
    const auto table = Make<ProgramMapTableFactory>();
    EXPECT_EQ(Add(table, build::Pmt(fields)), kComplete);
    return table.As<IDvbProgramMapTable>();
}

uint32_t Count(IDvbCollection* list) {
    uint32_t count = 0;
    EXPECT_EQ(list->GetCount(&count), S_OK);
    return count;
}

template <class I>
uint32_t Param(const ComPtr<I>& object, uint32_t id) {
    uint32_t value = 0xDEAD;
    EXPECT_EQ(object->GetParam(id, &value), S_OK) << std::hex << id;
    return value;
}

// The tags of a descriptor list, in order.
std::vector<uint32_t> Tags(IDvbMapping* list) {
    std::vector<uint32_t> tags;
    for (int32_t i = 0; const auto descriptor = ItemAs<IDvbDescriptor>(list, i); ++i)
        descriptor->GetTag(&tags.emplace_back());
    return tags;
}

// program_number and PID of a PAT's associations, in order.
std::vector<std::pair<uint32_t, uint32_t>> Programs(const ComPtr<IDvbTableEx>& table) {
    ComPtr<IDvbMapping> list;
    table.As<IDvbProgramAssociationTable>()->GetAssociations(list.Put());
    std::vector<std::pair<uint32_t, uint32_t>> programs;
    for (int32_t i = 0; const auto association = ItemAs<IDvbProgramAssociation>(list.Get(), i); ++i) {
        auto& [program, pid] = programs.emplace_back();
        association->GetProgramNumber(&program);
        association->GetPid(&pid);
    }
    return programs;
}

ComPtr<IDvbComponentEx> Component(IDvbProgramMapTable* pmt, int32_t index) {
    ComPtr<IDvbCollection> components;
    pmt->GetComponents(components.Put());
    return ItemAs<IDvbComponentEx>(components.Get(), index);
}

ComPtr<IDvbCollection> Entries(const ComPtr<IDvbTableEx>& table, uint32_t id) {
    ComPtr<IDvbCollection> entries;
    table.As<IGetSetCOMParam>()->GetCOMParam(id, IDvbCollection::kIid, reinterpret_cast<void**>(entries.Put()));
    return entries;
}

TEST(DvbTable, CollectsTheSectionsOfAVersionInAnyOrder) {
    const auto pat = Make<ProgramAssociationTableFactory>();
    const auto client = pat.As<IDvbTable>();
    EXPECT_EQ(client->IsComplete(), S_FALSE);
    const auto part = [](uint16_t program, uint8_t number) {
        return build::Pat(9, {{program, 0x100}}, {.version = 3, .sectionNumber = number, .lastSectionNumber = 2});
    };
    EXPECT_EQ(Add(pat, part(1, 0)), kIncomplete);
    EXPECT_EQ(Add(pat, part(3, 2)), kIncomplete);
    EXPECT_EQ(Add(pat, part(3, 2)), kIncomplete) << "again";
    EXPECT_EQ(Add(pat, build::Pat(9, {{7, 7}}, {.currentNext = false, .sectionNumber = 1})), kIncomplete);
    EXPECT_EQ(client->IsSectionPresent(1), S_FALSE);
    EXPECT_EQ(Add(pat, part(2, 1)), kComplete);
    EXPECT_EQ(Add(pat, part(2, 1)), kComplete);
    EXPECT_THAT(Programs(pat), ElementsAre(std::pair(1, 0x100), std::pair(3, 0x100), std::pair(2, 0x100)));

    uint32_t last = 0;
    EXPECT_EQ(client->IsComplete(), S_OK);
    EXPECT_EQ(client->GetLastSectionNumber(&last), S_OK);
    EXPECT_EQ(last, 2u);
    const auto params = pat.As<IGetSetCOMParam>();
    EXPECT_EQ(params.Get(), pat.As<IGetSetParam>().Get());
    EXPECT_EQ(Param(params, param::kTableId), 0u);
    EXPECT_EQ(Param(params, param::kTableIdExtension), 9u);
    EXPECT_EQ(Param(params, param::kVersionNumber), 3u);
}

TEST(DvbTable, ANewVersionOrExtensionStartsOver) {
    const build::SectionHeader firstOfTwo = {.version = 1, .lastSectionNumber = 1};
    const build::SectionHeader secondOfTwo = {.version = 1, .sectionNumber = 1, .lastSectionNumber = 1};
    const struct {
        const char* name;
        Bytes section;
        int32_t same;  // asked of the half collected table
        std::vector<std::pair<uint32_t, uint32_t>> programs;
    } cases[] = {
        {"same", build::Pat(9, {{2, 2}}, secondOfTwo), 1, {{1, 1}, {2, 2}}},
        {"version", build::Pat(9, {{2, 2}}, {.version = 2}), 0, {{2, 2}}},
        {"extension", build::Pat(8, {{2, 2}}, {.version = 1}), 0, {{2, 2}}},
        {"next version", build::Pat(9, {{2, 2}}, {.version = 2, .currentNext = false}), 1, {{1, 1}}},
        {"another table", LongSection(1, 9, {}, {.version = 2}), 1, {{1, 1}}},
        {"too short", {0, 0xB0, 4, 0, 9, 0xC5, 0}, 1, {{1, 1}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto pat = Make<ProgramAssociationTableFactory>();
        EXPECT_EQ(Add(pat, build::Pat(9, {{1, 1}}, firstOfTwo)), kIncomplete);
        EXPECT_EQ(SameVersion(pat, c.section), c.same);
        Add(pat, c.section);
        EXPECT_EQ(Programs(pat), c.programs);
    }
    // An extension of 0xFFFF is no empty table's: the version is stored with it.
    const auto pat = Make<ProgramAssociationTableFactory>();
    EXPECT_EQ(Add(pat, build::Pat(0xFFFF, {{1, 1}}, {.version = 5})), kComplete);
    EXPECT_EQ(pat->GetVersion(), 5);
    EXPECT_EQ(SameVersion(pat, build::Pat(0xFFFF, {}, {.version = 5})), 1);
}

TEST(DvbTable, AShortSectionIsAlwaysNewAndComplete) {
    const auto sdt = Make<ServiceDescriptionTableFactory>();
    const Bytes section = ShortSection(0x42, {0, 1, 0xFD, 0x80, 0});
    EXPECT_EQ(Add(sdt, section), kComplete);
    EXPECT_EQ(SameVersion(sdt, section), 0);
}

// What each table makes of a payload; -1 where its section is refused, else the entries it then has.
TEST(Tables, TakeWholePayloadsAndRefuseBrokenOnes) {
    constexpr int kRefused = -1;
    const auto pat = [](Bytes payload) { return LongSection(0x00, 1, payload); };
    const auto pmt = [](Bytes payload) { return LongSection(0x02, 1, payload); };
    const auto sdt = [](Bytes payload) { return LongSection(0x42, 1, payload); };
    const Bytes guide = {0, 0, 0xE1, 0, 0xE0, 0, 0, 0, 9, 0xF0, 0};
    Bytes channel(32);
    const auto atsc = [](uint8_t id, std::vector<Bytes> parts) { return LongSection(id, 1, build::Join(parts)); };
    const struct {
        const char* name;
        Bytes section;
        int entries;
    } cases[] = {
        {"an empty PAT", pat({}), 0},
        {"a PAT without room for a CRC", {0x00, 0xB0, 5, 0, 1, 0xC1, 0, 0}, 0},
        {"trailing bytes of a PAT", pat({0, 1, 0xE1, 0, 0, 2}), 2},
        {"a program twice", build::Pat(1, {{1, 1}, {2, 2}, {1, 3}}), kRefused},
        {"an empty PMT", pmt({}), kRefused},
        {"a PMT of three bytes", pmt({0xE1, 0, 0xF0}), kRefused},
        {"a PMT without components", pmt({0xE1, 0, 0xF0, 0}), 0},
        {"a component", pmt({0xE1, 0, 0xF0, 0, 2, 0xE1, 0, 0xF0, 0}), 1},
        {"a component and four bytes", pmt({0xE1, 0, 0xF0, 0, 2, 0xE1, 0, 0xF0, 0, 3, 0xE1, 1, 0xF0}), kRefused},
        {"a component loop that runs past", pmt({0xE1, 0, 0xF0, 0, 2, 0xE1, 0, 0xF0, 9, 9, 0}), 1},
        {"a program_info that runs past", pmt({0xE1, 0, 0xFF, 0xFF, 5, 0}), 0},
        {"an empty SDT", sdt({}), kRefused},
        {"an SDT without services", sdt({0, 1, 0xFF}), 0},
        {"a service and four bytes", sdt({0, 1, 0xFF, 0, 1, 0xFC, 0x80, 0, 0, 2, 0xFC, 0x80}), kRefused},
        {"a service loop that runs past", sdt({0, 1, 0xFF, 0, 1, 0xFC, 0x80, 3, 9, 0}), kRefused},
        {"an empty MGT", atsc(0xC7, {}), kRefused},
        {"an MGT of no tables", atsc(0xC7, {{0, 0, 0}}), 0},
        {"an MGT of two tables", atsc(0xC7, {{0, 0, 2}, guide, guide, {0xF0, 0}}), 2},
        {"an entry with nothing behind", atsc(0xC7, {{0, 0, 2}, guide, guide}), kRefused},
        {"fewer tables than defined", atsc(0xC7, {{0, 0xFF, 0xFF}, guide, {0xF0, 0}}), kRefused},
        {"a VCT of two bytes", atsc(0xC8, {{0, 0}}), kRefused},
        {"a VCT of no channels", atsc(0xC8, {{0, 0, 0}}), 0},
        {"a channel", atsc(0xC8, {{0, 1}, channel}), 1},
        {"fewer channels than counted", atsc(0xC8, {{0, 255}, channel, Bytes(31)}), kRefused},
        {"a channel's descriptors run past", build::Vct(1, {{.loopLength = 3}}), kRefused},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const uint8_t id = c.section[0];
        const auto table = id == 0x00   ? Make<ProgramAssociationTableFactory>()
                           : id == 0x02 ? Make<ProgramMapTableFactory>()
                           : id == 0x42 ? Make<ServiceDescriptionTableFactory>()
                           : id == 0xC7 ? Make<MasterGuideTableFactory>()
                                        : Make<VirtualChannelTableFactory>();
        ASSERT_EQ(Add(table, c.section), c.entries == kRefused ? E_FAIL : kComplete);
        EXPECT_EQ(table.As<IDvbTable>()->IsSectionPresent(0), c.entries == kRefused ? S_FALSE : S_OK);
        if (c.entries == kRefused)
            continue;
        ComPtr<IDvbMapping> keyed;
        ComPtr<IDvbCollection> list;
        if (id == 0x00)
            table.As<IDvbProgramAssociationTable>()->GetAssociations(keyed.Put());
        else if (id == 0x02)
            table.As<IDvbProgramMapTable>()->GetComponents(list.Put());
        else if (id == 0x42)
            table.As<IDvbServiceDescriptionTable>()->GetServiceDescriptions(keyed.Put());
        else
            list = Entries(table, 0x10000u | uint32_t{id} << 8);
        EXPECT_EQ(Count(keyed ? keyed.Get() : list.Get()), static_cast<uint32_t>(c.entries));
    }
}

TEST(ProgramMapTable, ReadsProgramAndComponents) {
    const auto pmt = ParsedPmt(
        {.program = 7,
         .pcrPid = 0x101,
         .descriptors = {build::Registration("ABCD"), build::Language("eng"), build::Registration("EFGH")},
         .streams = {{0x1B, 0x101, {build::AvcVideo(), {0x09, 1, 0}}},
                     {0x03, 0x102, {build::Language("swe"), build::StreamIdentifier(1), build::Language("fra")}},
                     {0x06, 0x103, {build::Language("eng"), {0x80, 200, 1}}, 500}}});
    uint32_t value = 0;
    pmt->GetProgramNumber(&value);
    EXPECT_EQ(value, 7u);
    pmt->GetPcrPid(&value);
    EXPECT_EQ(value, 0x101u);
    ComPtr<IDvbMapping> descriptors;
    pmt->GetDescriptors(descriptors.Put());
    EXPECT_THAT(Tags(descriptors.Get()), ElementsAre(5, 10));

    const auto video = Component(pmt.Get(), 0);
    video->GetPid(&value);
    EXPECT_EQ(value, 0x101u);
    video->GetStreamType(&value);
    EXPECT_EQ(value, 0x1Bu);
    EXPECT_EQ(video->IsScrambled(), S_OK) << "the broken CA descriptor counts";
    video->GetDescriptors(descriptors.Put());
    EXPECT_THAT(Tags(descriptors.Get()), ElementsAre(0x28));
    EXPECT_EQ(video->GetLanguage(&value), S_OK);
    EXPECT_EQ(value, 0u);

    const auto audio = Component(pmt.Get(), 1);
    EXPECT_EQ(audio->IsScrambled(), S_FALSE);
    EXPECT_EQ(audio->GetLanguage(&value), S_OK);
    EXPECT_EQ(value, 0x737765u);  // "swe"
    audio->GetDescriptors(descriptors.Put());
    EXPECT_THAT(Tags(descriptors.Get()), ElementsAre(0x0A, 0x52));
    Component(pmt.Get(), 2)->GetDescriptors(descriptors.Put());
    EXPECT_THAT(Tags(descriptors.Get()), ElementsAre(0x0A)) << "what runs past ends its loop";
    EXPECT_FALSE(Component(pmt.Get(), 3));
}

TEST(ProgramMapTable, ABrokenSectionLeavesNothing) {
    const auto pmt = Make<ProgramMapTableFactory>();
    const Bytes broken = LongSection(2, 1, {0xE1, 0, 0xF0, 2, 5, 0, 2, 0xE1, 0, 0xF0, 0, 3});
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(Add(pmt, broken), E_FAIL);
    ComPtr<IDvbMapping> descriptors;
    const auto client = pmt.As<IDvbProgramMapTable>();
    client->GetDescriptors(descriptors.Put());
    EXPECT_THAT(Tags(descriptors.Get()), IsEmpty());
    EXPECT_FALSE(Component(client.Get(), 0));
    EXPECT_EQ(Add(pmt, build::Pmt({.program = 1, .streams = {{2, 0x100}}})), kComplete);
    EXPECT_TRUE(Component(client.Get(), 0));
}

// Of a private stream the descriptors say what it is, and one of them comes first.
TEST(Component, TheStreamTypeAndItsDescriptorsGiveTheMediaType) {
    const Bytes ac3 = build::Ac3();
    const Bytes teletext = build::Teletext({{"eng", 2, 8, 0x88}});
    const Bytes subtitling = build::Subtitling({{"eng", 0x10, 1, 1}});
    const struct {
        uint8_t streamType;
        build::Descriptors descriptors;
        const GUID* subtype;
    } cases[] = {{0x02, {ac3}, &MEDIASUBTYPE_MPEG2_VIDEO},
                 {0x06, {subtitling, teletext, ac3}, &MEDIASUBTYPE_DOLBY_AC3},
                 {0x06, {subtitling, teletext}, &KSDATAFORMAT_SUBTYPE_TELETEXT},
                 {0x06, {build::StreamIdentifier(1)}, nullptr},
                 {0x05, {ac3}, nullptr}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << int{c.streamType} << " " << c.descriptors.size());
        const auto pmt = ParsedPmt({.program = 1, .streams = {{c.streamType, 0x100, c.descriptors}}});
        AM_MEDIA_TYPE type{};
        EXPECT_EQ(Component(pmt.Get(), 0)->GetMediaType(&type), c.subtype == nullptr ? E_NOTIMPL : S_OK);
        EXPECT_EQ(type.subtype, c.subtype == nullptr ? GUID_NULL : *c.subtype);
    }
}

TEST(ServiceDescriptionTable, ReadsTheServicesOfItsSections) {
    const auto sdt = Make<ServiceDescriptionTableFactory>();
    const Bytes name = build::ServiceDescriptor(1, {}, {});
    EXPECT_EQ(
        Add(sdt, build::Sdt({.transportStreamId = 0x11,
                             .originalNetworkId = 0x22,
                             .services = {{5, {name}, 4, true}, {1, {build::ServiceDescriptor(2, {}, {}), name}}}},
                            {.lastSectionNumber = 1})),
        kIncomplete);
    EXPECT_EQ(Add(sdt, build::Sdt({.transportStreamId = 0x11,
                                   .originalNetworkId = 0x22,
                                   .services = {{9}, {5, {build::Registration("ABCD")}}}},
                                  {.sectionNumber = 1, .lastSectionNumber = 1})),
              kComplete);
    const auto client = sdt.As<IDvbServiceDescriptionTable>();
    ComPtr<IDvbMapping> services;
    ComPtr<IDvbMapping> descriptors;
    client->GetServiceDescriptions(services.Put());
    std::vector<uint32_t> ids;
    for (int32_t i = 0; const auto service = ItemAs<IDvbServiceDescription>(services.Get(), i); ++i)
        service->GetServiceId(&ids.emplace_back());
    EXPECT_THAT(ids, ElementsAre(5, 1, 9));
    LookupAs<IDvbServiceDescription>(services.Get(), 5)->GetDescriptors(descriptors.Put());
    EXPECT_THAT(Tags(descriptors.Get()), ElementsAre(0x48)) << "the first entry of a service_id wins";
    EXPECT_EQ(Param(LookupAs<IGetSetParam>(services.Get(), 5), param::kScrambled), 1u);
    EXPECT_EQ(Param(LookupAs<IGetSetParam>(services.Get(), 1), param::kScrambled), 0u);
    LookupAs<IDvbServiceDescription>(services.Get(), 1)->GetDescriptors(descriptors.Put());
    uint32_t value = 0;
    LookupAs<IDvbDescService>(descriptors.Get(), tag::kService)->GetServiceType(&value);
    EXPECT_EQ(value, 2u) << "the first descriptor of a tag wins";

    const auto params = sdt.As<IGetSetCOMParam>();
    EXPECT_EQ(Param(params, param::kTableIdExtension), 0x220011u);
    EXPECT_EQ(params->GetParam(param::kTableId, &value), S_FALSE);
    client->GetServiceMultiMap(services.Put());
    EXPECT_EQ(Count(services.Get()), 0u);
}

TEST(AtscTables, ReadTheirEntries) {
    const auto mgt = Make<MasterGuideTableFactory>();
    ASSERT_EQ(
        Add(mgt, build::Mgt({{0x0000, 0x1FFB, 3, 100}, {0x0100, 0x1D00, 31, 0x12345678, {{0x80, 0}, {0x80, 0}}}})),
        kComplete);
    const auto guide = ItemAs<IGetSetCOMParam>(Entries(mgt, param::kTableGuides).Get(), 1);
    EXPECT_EQ(Param(guide, param::kTableType), 0x0100u);
    EXPECT_EQ(Param(guide, param::kTablePid), 0x1D00u);
    EXPECT_EQ(Param(guide, param::kTableVersion), 31u);
    EXPECT_EQ(Param(guide, param::kNumberBytes), 0x12345678u);
    ComPtr<IDvbMapping> list;
    EXPECT_EQ(guide->GetCOMParam(param::kDescriptors, IDvbMapping::kIid, reinterpret_cast<void**>(list.Put())), S_OK);
    EXPECT_THAT(Tags(list.Get()), ElementsAre(0x80));
    mgt.As<IGetSetCOMParam>()->GetCOMParam(param::kDescriptors, IDvbMapping::kIid,
                                           reinterpret_cast<void**>(list.Put()));
    EXPECT_EQ(Count(list.Get()), 0u);
    EXPECT_FALSE(Entries(mgt, param::kVirtualChannels)) << "an id of another table";

    const auto vct = Make<VirtualChannelTableFactory>();
    ASSERT_EQ(Add(vct, build::Vct(1, {{.shortName = u"CH1"},
                                      {.shortName = u"SEVENCH",
                                       .major = 1023,
                                       .minor = 514,
                                       .program = 0xABCD,
                                       .sourceId = 0x1357,
                                       .serviceType = 0x3F,
                                       .modulationMode = 5,
                                       .carrierFrequency = 0x89ABCDEF,
                                       .channelTsid = 0x2468,
                                       .etmLocation = 2,
                                       .accessControlled = true,
                                       .hideGuide = true}})),
              kComplete);
    const auto channels = Entries(vct, param::kVirtualChannels);
    const auto channel = ItemAs<IGetSetCOMParam>(channels.Get(), 1);
    const std::pair<uint32_t, uint32_t> fields[] = {
        {param::kMajorChannel, 1023},  {param::kMinorChannel, 514},
        {param::kModulationMode, 5},   {param::kCarrierFrequency, 0x89ABCDEF},
        {param::kChannelTsid, 0x2468}, {param::kProgramNumber, 0xABCD},
        {param::kEtmLocation, 2},      {param::kAccessControlled, 1},
        {param::kHidden, 0},           {param::kHideGuide, 1},
        {param::kServiceType, 0x3F},   {param::kSourceId, 0x1357},
    };
    for (const auto& [id, value] : fields)
        EXPECT_EQ(Param(channel, id), value) << std::hex << id;
    CBstr name;
    EXPECT_EQ(channel->GetStringParam(param::kShortName, name.Put()), S_OK);
    EXPECT_TRUE(name.View() == u"SEVENCH");
    ItemAs<IGetSetCOMParam>(channels.Get(), 0)->GetStringParam(param::kShortName, name.Put());
    EXPECT_TRUE(name.View() == u"CH1") << "the name ends at the first zero";

    EXPECT_EQ(Add(vct, LongSection(0xC9, 1, {0, 0, 0}, {.version = 1})), E_FAIL) << "a cable table";
    EXPECT_EQ(Count(channels.Get()), 2u);
}

// A section that fails at its last entry leaves those before it, and comes again and again.
TEST(AtscTables, StopGrowingAtTheirLimit) {
    const struct {
        ComPtr<IDvbTableEx> table;
        Bytes section;
        uint32_t entriesId;
    } cases[] = {
        {Make<MasterGuideTableFactory>(), build::Mgt(std::vector<build::MgtTable>(90), {}, uint16_t{91}),
         param::kTableGuides},
        {Make<VirtualChannelTableFactory>(), build::Vct(1, std::vector<build::VctChannel>(30), {}, uint8_t{31}),
         param::kVirtualChannels},
    };
    for (const auto& c : cases) {
        const auto entries = Entries(c.table, c.entriesId);
        for (uint32_t rounds = 0; rounds < AtscTable::kMaxEntries / 30 + 2; ++rounds)
            ASSERT_EQ(Add(c.table, c.section), E_FAIL);
        EXPECT_EQ(Count(entries.Get()), AtscTable::kMaxEntries);
        Add(c.table, LongSection(c.section[0], 1, {0, 0, 0}, {.version = 9}));
        EXPECT_EQ(Count(entries.Get()), 0u) << "a new version starts over";
    }
}

}  // namespace
}  // namespace tessel
