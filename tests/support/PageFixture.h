// Property pages on a splitter that runs, and the frame that shows one and plays its user.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/media/MediaResult.h"
#include "platform/ui/PropertyPage.h"
#include "proppages/Pages.h"
#include "proppages/Resources.h"
#include "tests/support/GraphFixture.h"
#include "tests/support/ProgramBuilder.h"

namespace tessel {

using namespace page;

using Creator = CUnknown* (*)(IUnknown*, HRESULT*);
using Rows = std::vector<std::vector<std::string>>;

constexpr uint16_t kStreamId = 0x0102;
constexpr uint16_t kOtherStreamId = 0x0999;
constexpr uint16_t kNetworkId = 0x0020;

inline std::string Narrow(std::u16string_view text) {
    return {text.begin(), text.end()};
}

class Site final : public CIfc<IPropertyPageSite> {
public:
    Site() : CIfc("Site", nullptr) {}
    HRESULT OnStatusChange(DWORD flags) override {
        dirty += flags == PROPPAGESTATUS_DIRTY ? 1 : 0;
        return S_OK;
    }
    HRESULT GetLocaleID(uint32_t*) override { return E_NOTIMPL; }
    HRESULT GetPageContainer(IUnknown**) override { return E_NOTIMPL; }
    HRESULT TranslateAccelerator(MSG*) override { return E_NOTIMPL; }

    int dirty = 0;
};

// Shows a page of the filter and plays its user.
class Frame final : public IDialogParent {
public:
    Frame(Creator create, IUnknown* object) : site(MakeObject<Site>()) {
        HRESULT result = E_FAIL;
        CUnknown* made = create(nullptr, &result);
        EXPECT_EQ(result, S_OK);
        ComPtr<IUnknown> unknown;
        made->NonDelegatingQueryInterface(IUnknown::kIid, reinterpret_cast<void**>(unknown.Put()));
        page = unknown.As<IPropertyPage>();
        EXPECT_EQ(page->SetPageSite(site.Get()), S_OK);
        if (object == nullptr)
            return;
        EXPECT_EQ(page->SetObjects(1, &object), S_OK);
        const RECT rect;
        EXPECT_EQ(page->Activate(this, &rect, 0), S_OK);
    }
    ~Frame() {
        page->Deactivate();
        page->SetObjects(0, nullptr);
        page->SetPageSite(nullptr);
    }

    void OnDialogCreated(IDialog* made) override { dialog = ComPtr<IDialog>(made); }
    void OnControlChanged(int32_t id) override { changed.push_back(id); }
    void OnMessageBox(const OLECHAR* text) override {
        messages.push_back(Narrow(text));
        if (leaveWhenTold)
            page->Deactivate();
    }
    void OnDialogDestroyed() override { destroyed = true; }

    ControlState State(int32_t id) const {
        ControlState state;
        EXPECT_EQ(dialog->FindControl(id, &state), S_OK);
        return state;
    }
    std::string TextOf(int32_t id) const { return Narrow(State(id).text); }
    bool Enabled(int32_t id) const { return State(id).enabled != 0; }
    Rows RowsOf(int32_t id) const {
        Rows rows;
        for (int32_t row = 0; row < State(id).rows; ++row) {
            rows.emplace_back();
            const OLECHAR* text = nullptr;
            for (int32_t column = 0; dialog->GetCell(id, row, column, &text) == S_OK; ++column)
                rows.back().push_back(Narrow(text));
        }
        return rows;
    }
    std::vector<std::string> Column(int32_t id, size_t column = 0) const {
        std::vector<std::string> cells;
        for (const auto& row : RowsOf(id))
            cells.push_back(row.at(column));
        return cells;
    }
    // The row whose first cell is text.
    int32_t Row(int32_t id, const std::string& text) const {
        const auto cells = Column(id);
        const auto found = std::find(cells.begin(), cells.end(), text);
        EXPECT_NE(found, cells.end()) << text;
        return static_cast<int32_t>(found - cells.begin());
    }
    HRESULT Select(int32_t id, int32_t row) { return dialog->SelectRows(id, &row, 1); }
    HRESULT Select(int32_t id, const std::string& text) { return Select(id, Row(id, text)); }

    const ComPtr<Site> site;
    ComPtr<IPropertyPage> page;
    ComPtr<IDialog> dialog;
    std::vector<int32_t> changed;
    std::vector<std::string> messages;
    bool destroyed = false;
    bool leaveWhenTold = false;
};

inline build::SdtService Named(uint16_t id, const char* provider, const char* name) {
    return {.serviceId = id, .descriptors = {build::ServiceDescriptor(1, build::Text(provider), build::Text(name))}};
}

// Two programmes with packets and a channel without, in a running splitter.
class Pages : public testing::Test {
protected:
    Pages()
        : builder({{.number = 1,
                    .pmtPid = 0x100,
                    .pcrPid = 0x101,
                    .streams = {build::Video(0x111),
                                {.pid = 0x112,
                                 .streamType = 0x03,
                                 .streamId = 0xC0,
                                 .pesSize = 2'000,
                                 .descriptors = {build::Language("deu")}}}},
                   {.number = 2,
                    .pmtPid = 0x200,
                    .pcrPid = 0x201,
                    .streams = {{.pid = 0x211,
                                 .streamType = 0x02,
                                 .streamId = 0xE0,
                                 .pesSize = 20'000,
                                 .descriptors = {build::ConditionalAccess(0x0B00, 0x300)}}}}},
                  kStreamId) {}

    void SetUp() override {
        ASSERT_EQ(graph.Run(), S_OK);
        builder.Tables();  // first: tables that come before the PAT go with it
        Section(0x11, build::Sdt({kStreamId, kNetworkId, {Named(1, "Prov", "One"), Named(2, "", "Two")}}));
        Section(0x11, build::Sdt({kOtherStreamId, kNetworkId, {Named(9, "Else", "Where")}}));
        Section(0x1FFB, build::Vct(kStreamId, {{.shortName = u"CH1",
                                                .major = 7,
                                                .minor = 1,
                                                .program = 3,
                                                .channelTsid = kStreamId,
                                                .accessControlled = true}}));
        Push();
        ASSERT_TRUE(Eventually([this] { return graph.splitter->PidStatus().IsPresent(build::kNullPid); }));
        ASSERT_TRUE(Eventually([this] { return graph.splitter->IsServiceInformationComplete() == S_OK; }));
    }

    void Section(uint16_t pid, const build::Bytes& section) {
        builder.stream().Section(pid, section).Section(pid, build::ShortSection(0xFE, {}));
    }
    void Push() { ASSERT_EQ(graph.source->Push(builder.Frames(2).Padding().Take()), S_OK); }
    IUnknown* Filter() { return static_cast<IBaseFilter*>(graph.splitter.Get()); }
    std::vector<ULONG> Mapped(const OLECHAR* name) {
        const OutputPinPtr pin = graph.Pin(name);
        return pin ? pin->Map().Entries() : std::vector<ULONG>{0xDEAD};
    }
    ContentKind Kind(const OLECHAR* name) { return graph.Pin(name)->Kind(); }

    build::ProgrammeBuilder builder;
    SplitterGraph graph;
};

}  // namespace tessel
