// The property pages on a splitter: what they show, what their buttons do to it.
#include <gmock/gmock.h>

#include <algorithm>

#include "tests/support/PageFixture.h"

namespace tessel {
namespace {

using build::Bytes;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

TEST_F(Pages, ShowTheTables) {
    const std::string one = "0001 (DigitalTelevision, 'Prov', 'One', Free)";
    const std::string two = "0002 (DigitalTelevision, '<NoProvider>', 'Two', Scrambled)";
    const std::vector<std::string> pmtOne = {"0100", "PMT of Service(id=0001, DigitalTelevision, 'Prov', 'One')"};
    const std::vector<std::string> pmtTwo = {"0200",
                                             "PMT of Service(id=0002, DigitalTelevision, '<NoProvider>', 'Two', CA!)"};
    const std::vector<std::string> streamsOne[] = {
        {"0101", "# Program Clock Reference"},
        {"0111", "# ISO13818-2 Video"},
        {"0112", "# ISO11172 Audio, ger, ISO639Language(ger, Undefined)"},
    };
    const struct {
        Creator create;
        std::vector<std::string> choices;
        size_t choose;  // one of them
        Rows rows;
        std::string info;
    } kCases[] = {
        {CreatePropPageServices, {"[7.001] 0003 (DigitalTelevision, '<NoProvider>', 'CH1', Free)"}, 0, {}, ""},
        {CreatePropPageServices,
         {one},
         0,
         {{"0101, Program Clock Reference"},
          {"0111, ISO13818-2 Video"},
          {"0112, ISO11172 Audio, ger, ISO639Language(ger, Undefined)"}},
         ""},
        {CreatePropPageProgramAssociationTable,
         {"All programs", one, two},
         0,
         {pmtOne,
          streamsOne[0],
          streamsOne[1],
          streamsOne[2],
          pmtTwo,
          {"0201", "# Program Clock Reference"},
          {"0211", "# ISO13818-2 Video, ConditionalAccess, CA!"}},
         ""},
        {CreatePropPageServiceDescriptionTable,
         {"TSID=0102/ONID=0020"},
         0,
         {{"0001", "Free", "Service(DigitalTelevision, 'Prov', 'One')"},
          {"0002", "Free", "Service(DigitalTelevision, '<NoProvider>', 'Two')"}},
         "TransportStreamId: 0102\nOriginalNetworkId: 0020"},
        {CreatePropPageVirtualChannelTable,
         {"TSID=0102"},
         0,
         {{"7.1", "TSID=0102/SID=0003, 'CH1'", "Scrambled", ""}},
         ""},
    };
    for (const auto& at : kCases) {
        SCOPED_TRACE(at.choices[at.choose]);
        Frame frame(at.create, Filter());
        const auto choices = frame.Column(kTableChoice);
        for (const std::string& choice : at.choices)
            EXPECT_THAT(choices, Contains(choice));
        ASSERT_EQ(frame.Select(kTableChoice, at.choices[at.choose]), S_OK);
        EXPECT_EQ(frame.RowsOf(kTableList), at.rows);
        EXPECT_EQ(frame.TextOf(kTableInfo), at.info);
    }
}

TEST_F(Pages, OtherTransportStreamsComeWhenAskedFor) {
    Frame frame(CreatePropPageServiceDescriptionTable, Filter());
    EXPECT_THAT(frame.Column(kTableChoice), ElementsAre("TSID=0102/ONID=0020"));
    ASSERT_EQ(frame.dialog->Click(kOtherStreams), S_OK);
    ASSERT_EQ(frame.Select(kTableChoice, "TSID=0999/ONID=0020"), S_OK);
    EXPECT_THAT(frame.Column(kTableList), ElementsAre("0009"));
    // What is gone is chosen no more.
    ASSERT_EQ(frame.dialog->Click(kOtherStreams), S_OK);
    EXPECT_THAT(frame.Column(kTableList), ElementsAre("0001", "0002"));
}

TEST_F(Pages, ANewTableShowsWhenItsRefreshIsPumped) {
    Frame frame(CreatePropPageServiceDescriptionTable, Filter());
    while (frame.dialog->ProcessMessages(0) == S_OK) {
    }
    frame.changed.clear();
    Section(0x11, build::Sdt({kStreamId, kNetworkId, {Named(1, "Prov", "New")}}, {.version = 1}));
    Push();
    const auto isNew = [this] {
        const auto tables = graph.splitter->TableVersions();
        return std::any_of(tables.begin(), tables.end(), [](const TableStore::Version& table) {
            return table.tableId == kServiceDescriptionTable && table.version == 1;
        });
    };
    ASSERT_TRUE(Eventually(isNew)) << "the new version never became current";
    EXPECT_EQ(frame.Column(kTableList).size(), 2u);
    EXPECT_THAT(frame.changed, IsEmpty());
    ASSERT_EQ(frame.dialog->ProcessMessages(kTestWait), S_OK) << "no refresh was posted";
    EXPECT_THAT(frame.Column(kTableList, 2), ElementsAre("Service(DigitalTelevision, 'Prov', 'New')"));
    EXPECT_THAT(frame.changed, Contains(kTableList).Times(1));
}

TEST_F(Pages, ResetEmptiesEveryPageThatListens) {
    Frame services(CreatePropPageServices, Filter());
    Frame descriptions(CreatePropPageServiceDescriptionTable, Filter());
    EXPECT_THAT(services.RowsOf(kTableChoice), Not(IsEmpty()));
    ASSERT_EQ(descriptions.dialog->Click(kReset), S_OK);
    EXPECT_THAT(descriptions.RowsOf(kTableChoice), IsEmpty());
    EXPECT_THAT(descriptions.RowsOf(kTableList), IsEmpty());
    EXPECT_EQ(descriptions.TextOf(kTableInfo), "");
    ASSERT_EQ(services.dialog->ProcessMessages(kTestWait), S_OK);
    EXPECT_THAT(services.RowsOf(kTableChoice), IsEmpty());
    EXPECT_FALSE(services.Enabled(kTableMap));
}

TEST_F(Pages, PatMapTakesAFreePinOrMakesOne) {
    Frame frame(CreatePropPageProgramAssociationTable, Filter());
    ASSERT_EQ(frame.Select(kTableList, "0100"), S_OK);
    EXPECT_FALSE(frame.Enabled(kTableMap)) << "a table is no component";
    ASSERT_EQ(frame.Select(kTableList, "0111"), S_OK);
    ASSERT_EQ(frame.dialog->Click(kTableMap), S_OK);
    EXPECT_THAT(Mapped(u"Output1"), ElementsAre(0x111));
    EXPECT_EQ(Kind(u"Output1"), ContentKind::kElementaryStream);
    EXPECT_EQ(frame.TextOf(kTableInfo), "0111 is on pin 'Output1'");
    ASSERT_EQ(frame.Select(kTableList, "0112"), S_OK);
    ASSERT_EQ(frame.dialog->Click(kTableMap), S_OK);
    EXPECT_THAT(Mapped(u"PID 0112"), ElementsAre(0x112));
    EXPECT_EQ(frame.site->dirty, 2);
    EXPECT_EQ(frame.page->IsPageDirty(), S_OK);
    EXPECT_EQ(frame.page->Apply(), S_OK);
    EXPECT_EQ(frame.page->IsPageDirty(), S_FALSE);
    ASSERT_EQ(frame.dialog->Click(kTableMap), S_OK);
    EXPECT_THAT(frame.messages, ElementsAre(HasSubstr("no free pin"))) << "its name is given";
}

TEST_F(Pages, PidMapMapsAndUnmapsAtOnce) {
    Frame frame(CreatePropPagePIDmapping, Filter());
    EXPECT_THAT(frame.Column(kPinChoice), ElementsAre("PSIOut", "Output1"));
    EXPECT_EQ(frame.RowsOf(kMappedPids), (Rows{{"All Tables", ""}}));
    EXPECT_FALSE(frame.Enabled(kContent)) << "the pin delivers sections";
    EXPECT_EQ(frame.State(kContent).selected, 2);
    ASSERT_EQ(frame.dialog->TypeText(kPinName, u"another"), S_OK);
    EXPECT_TRUE(frame.Enabled(kContent));
    ASSERT_EQ(frame.dialog->TypeText(kPinName, u""), S_OK);
    EXPECT_FALSE(frame.Enabled(kContent));

    ASSERT_EQ(frame.Select(kPinChoice, "Output1"), S_OK);
    ASSERT_EQ(frame.Select(kContent, "Transport packets"), S_OK);
    EXPECT_THAT(frame.RowsOf(kFreePids),
                AllOf(Contains(ElementsAre("All PIDs", "")), Contains(ElementsAre("0111", "ISO13818-2 Video")),
                      Contains(ElementsAre("0011", ""))));
    EXPECT_FALSE(frame.Enabled(kMap));
    const int32_t both[] = {frame.Row(kFreePids, "0111"), frame.Row(kFreePids, "0112")};
    ASSERT_EQ(frame.dialog->SelectRows(kFreePids, both, 2), S_OK);
    ASSERT_EQ(frame.dialog->Click(kMap), S_OK);
    EXPECT_THAT(Mapped(u"Output1"), ElementsAre(0x111, 0x112));
    EXPECT_EQ(Kind(u"Output1"), ContentKind::kTransportPackets);
    EXPECT_THAT(frame.Column(kMappedPids), ElementsAre("0111", "0112"));
    EXPECT_THAT(frame.Column(kFreePids), Not(Contains("0111")));
    EXPECT_FALSE(frame.Enabled(kMap));
    EXPECT_EQ(frame.site->dirty, 1);

    ASSERT_EQ(frame.dialog->ActivateRow(kFreePids, frame.Row(kFreePids, "All PIDs")), S_OK);
    EXPECT_THAT(Mapped(u"Output1"), ElementsAre(ALL_PIDS, 0x111, 0x112));
    EXPECT_FALSE(frame.Enabled(kUnmap));
    const int32_t two[] = {frame.Row(kMappedPids, "0111"), frame.Row(kMappedPids, "All PIDs")};
    ASSERT_EQ(frame.dialog->SelectRows(kMappedPids, two, 2), S_OK);
    ASSERT_EQ(frame.dialog->Click(kUnmap), S_OK);
    EXPECT_THAT(Mapped(u"Output1"), ElementsAre(0x112));
    EXPECT_FALSE(frame.Enabled(kUnmap));
    ASSERT_EQ(frame.dialog->ActivateRow(kMappedPids, 0), S_OK);
    EXPECT_THAT(Mapped(u"Output1"), IsEmpty());
    EXPECT_EQ(Kind(u"Output1"), ContentKind::kNone);
    EXPECT_EQ(frame.site->dirty, 4);
    EXPECT_THAT(frame.messages, IsEmpty());

    ASSERT_EQ(frame.Select(kFreePids, "0111"), S_OK);
    EXPECT_TRUE(frame.Enabled(kMap));
    ASSERT_EQ(frame.dialog->LeaveControl(kFreePids), S_OK);
    EXPECT_TRUE(frame.Enabled(kMap));
    ASSERT_EQ(frame.dialog->SelectRows(kFreePids, nullptr, 0), S_OK);
    ASSERT_EQ(frame.dialog->LeaveControl(kFreePids), S_OK);
    EXPECT_FALSE(frame.Enabled(kMap));
}

TEST_F(Pages, PidMapReadsWhatIsTyped) {
    const struct {
        const OLECHAR* typed;
        std::optional<ULONG> pid;
    } kCases[] = {
        {u"0111", 0x111},
        {u" 1fFF ", 0x1FFF},
        {u"0x10", 0x10},
        {u"All PIDs", ALL_PIDS},
        {u"All Tables", ALL_TABLES},
        {u"2000", {}},
        {u"xyz", {}},
        {u"-1", {}},
        {u"0x", {}},
        {u"100000111", {}},
    };
    for (const auto& at : kCases) {
        SCOPED_TRACE(Narrow(at.typed));
        Frame frame(CreatePropPagePIDmapping, Filter());
        ASSERT_EQ(frame.Select(kPinChoice, "Output1"), S_OK);
        ASSERT_EQ(frame.dialog->TypeText(kPid, at.typed), S_OK);
        ASSERT_EQ(frame.dialog->Click(kMap), S_OK);
        EXPECT_EQ(frame.site->dirty, at.pid ? 1 : 0);
        if (at.pid) {
            EXPECT_THAT(Mapped(u"Output1"), ElementsAre(*at.pid));
            EXPECT_EQ(frame.TextOf(kPid), "");
            EXPECT_EQ(frame.dialog->ActivateRow(kMappedPids, 0), S_OK);
        } else {
            EXPECT_THAT(frame.messages, ElementsAre(HasSubstr("is not a PID")));
            EXPECT_EQ(frame.TextOf(kPid), Narrow(at.typed));
        }
        EXPECT_THAT(Mapped(u"Output1"), IsEmpty());
    }
}

TEST_F(Pages, PidMapMakesThePinThatIsNamed) {
    Frame frame(CreatePropPagePIDmapping, Filter());
    ASSERT_EQ(frame.Select(kPinChoice, "Output1"), S_OK);
    ASSERT_EQ(frame.Select(kContent, "Elementary stream"), S_OK);
    EXPECT_THAT(frame.Column(kFreePids), AllOf(Not(Contains("All PIDs")), Not(Contains("0000"))));
    const auto map = [&](const OLECHAR* pid, const OLECHAR* pin) {
        EXPECT_EQ(frame.dialog->TypeText(kPid, pid), S_OK);
        EXPECT_EQ(frame.dialog->TypeText(kPinName, pin), S_OK);
        EXPECT_EQ(frame.dialog->Click(kMap), S_OK);
    };
    map(u"111", u"mine");
    EXPECT_THAT(Mapped(u"mine"), ElementsAre(0x111));
    EXPECT_EQ(Kind(u"mine"), ContentKind::kElementaryStream);
    EXPECT_EQ(frame.State(kPinChoice).selected, frame.Row(kPinChoice, "mine"));
    EXPECT_THAT(frame.messages, IsEmpty());
    // One stream a pin; and what was made for nothing goes again.
    map(u"112", u"mine");
    EXPECT_THAT(Mapped(u"mine"), ElementsAre(0x111));
    map(u"5", u"other");
    EXPECT_EQ(graph.Pin(u"other"), nullptr);
    map(u"112", u"a name that is longer than what a pin may be called by");
    const auto oneAlone = AllOf(HasSubstr("does not take"), HasSubstr("stream of one PID"));
    EXPECT_THAT(frame.messages, ElementsAre(oneAlone, oneAlone, HasSubstr("could not be made: a name has 1 to 49")));
    EXPECT_EQ(frame.site->dirty, 1);
}

TEST_F(Pages, APageMayGoWhileItTellsSomething) {
    for (const OLECHAR* name : {u"", u"another"}) {  // nothing to map; a pin made for nothing
        Frame frame(CreatePropPagePIDmapping, Filter());
        frame.leaveWhenTold = true;
        ASSERT_EQ(frame.Select(kPinChoice, "Output1"), S_OK);
        ASSERT_EQ(frame.Select(kContent, "Elementary stream"), S_OK);
        ASSERT_EQ(frame.dialog->TypeText(kPinName, name), S_OK);
        ASSERT_EQ(frame.dialog->TypeText(kPid, *name == 0 ? u"?" : u"5"), S_OK);
        EXPECT_EQ(frame.dialog->Click(kMap), S_OK);
        EXPECT_EQ(frame.messages.size(), 1u);
        EXPECT_TRUE(frame.destroyed);
        EXPECT_EQ(frame.dialog->Click(kMap), E_UNEXPECTED);
        EXPECT_EQ(graph.Pin(u"another"), nullptr);
    }
}

TEST_F(Pages, OutputPinsShowWhatIsFoundAndMapped) {
    Frame frame(CreatePropPageTSPin, Filter());
    EXPECT_FALSE(frame.Enabled(kFirstPin + 2));
    EXPECT_THAT(frame.RowsOf(kPinPids),
                AllOf(Contains(ElementsAre("0111", "", "")), Contains(ElementsAre("", "", "All Tables"))));
    const ULONG pids[] = {0x111, 0x500};
    ASSERT_EQ(graph.Pin(u"Output1")->MapPID(2, pids, MEDIA_TRANSPORT_PACKET), S_OK);
    ASSERT_EQ(frame.dialog->Click(kFirstPin + 1), S_OK);
    EXPECT_EQ(frame.State(kFirstPin).checked, 0);
    EXPECT_THAT(frame.RowsOf(kPinPids),
                AllOf(Contains(ElementsAre("0111", "", "0111")), Contains(ElementsAre("", "", "0500")),
                      Not(Contains(ElementsAre("", "", "All Tables")))));
    // Nothing changes until packets of another PID come; the page looks on its own.
    frame.changed.clear();
    ASSERT_EQ(frame.dialog->ProcessMessages(kTestWait), S_OK);
    EXPECT_THAT(frame.changed, IsEmpty());
    builder.stream().Packet(0x444, Bytes(184), {.scrambling = 2});
    Push();
    ASSERT_TRUE(Eventually([this] { return graph.splitter->PidStatus().IsPresent(0x444); }));
    ASSERT_EQ(frame.dialog->ProcessMessages(kTestWait), S_OK);
    EXPECT_THAT(frame.RowsOf(kPinPids), Contains(ElementsAre("0444", "Scrambled", "")));
}

TEST_F(Pages, LiveFromActivationToDeactivation) {
    Frame frame(CreatePropPageServiceDescriptionTable, nullptr);
    const RECT rect;
    EXPECT_EQ(frame.page->Activate(&frame, &rect, 0), E_UNEXPECTED);
    const auto foreign = MakeObject<Site>();
    IUnknown* object = foreign.Get();
    EXPECT_EQ(frame.page->SetObjects(1, &object), E_NOINTERFACE);
    EXPECT_EQ(frame.page->Activate(&frame, &rect, 0), E_UNEXPECTED);
    object = Filter();
    ASSERT_EQ(frame.page->SetObjects(1, &object), S_OK);
    EXPECT_EQ(frame.page->Activate(nullptr, &rect, 0), E_POINTER);
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(frame.page->Activate(&frame, &rect, 0), S_OK);
        EXPECT_EQ(frame.page->Activate(&frame, &rect, 0), E_UNEXPECTED);
        EXPECT_EQ(frame.dialog->Click(kTableList), E_INVALIDARG);
        EXPECT_EQ(frame.dialog->Click(4711), E_INVALIDARG);
        EXPECT_EQ(frame.Select(kTableList, 99), E_INVALIDARG);
        EXPECT_EQ(frame.Select(kTableChoice, -1), E_INVALIDARG);
        EXPECT_EQ(frame.dialog->SelectRows(kTableChoice, nullptr, 1), E_POINTER);
        EXPECT_EQ(frame.Column(kTableList).size(), 2u);
        ASSERT_EQ(frame.page->Deactivate(), S_OK);
        EXPECT_TRUE(std::exchange(frame.destroyed, false));
        // Events go nowhere now, and so does the dialog that its owner still has.
        EXPECT_EQ(graph.splitter->Reset(), S_OK);
        EXPECT_EQ(frame.dialog->ProcessMessages(0), E_UNEXPECTED);
        EXPECT_EQ(frame.dialog->Click(kUpdate), E_UNEXPECTED);
        builder.Tables();
        Section(0x11, build::Sdt({kStreamId, kNetworkId, {Named(1, "Prov", "One"), Named(2, "", "Two")}}));
        Push();
        ASSERT_TRUE(Eventually([this] { return graph.splitter->IsServiceInformationComplete() == S_OK; }));
    }
}

}  // namespace
}  // namespace tessel
