// The pages over the output pins: what is mapped on them, and what comes in.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/ui/BasePropertyPage.h"
#include "proppages/PageFilter.h"

namespace tessel {

// Maps PIDs on output pins and takes them off, at once.
class CPropPagePIDmapping final : public CBasePropertyPage {
public:
    explicit CPropPagePIDmapping(IUnknown* outer);

private:
    HRESULT OnConnect(IUnknown* object) override { return m_filter.Connect(object); }
    HRESULT OnDisconnect() override;
    intptr_t OnReceiveMessage(uint32_t message, uintptr_t wParam, intptr_t lParam) override;

    void Init();
    void OnCommand(uint32_t id, uint32_t what);
    void OnNotify(uint32_t id, uint32_t what);

    // The list of pins, and then the PIDs.
    void Refill();
    void ChoosePin(const std::u16string& name);
    void FillPids();
    void FillFreePids(MEDIA_SAMPLE_CONTENT content, const std::map<ULONG, std::u16string>& texts);
    void ShowContent();
    // None after the user was told why.
    std::optional<std::vector<ULONG>> PidsToMap();
    std::optional<page::OutputPin> PinToMapOn(bool* created);
    // The one that was typed, else the chosen one.
    std::u16string PinNameToMapOn();
    std::optional<page::OutputPin> FindPin(const std::u16string& name);
    MEDIA_SAMPLE_CONTENT Content();
    void Map();
    void Unmap();
    void UpdateButtons();

    page::Filter m_filter;
    std::u16string m_pin;       // the chosen one
    std::set<uint32_t> m_pids;  // mapped on it
    // A PID was typed after the last row was selected, so it is the one to map.
    bool m_pidTyped = false;
};

// The PIDs that packets came of, and those mapped on one of the first four output pins. Kept up to date.
class CPropPageTSPin final : public CBasePropertyPage {
public:
    explicit CPropPageTSPin(IUnknown* outer);

private:
    HRESULT OnConnect(IUnknown* object) override { return m_filter.Connect(object); }
    HRESULT OnDisconnect() override;
    HRESULT OnActivate() override;
    intptr_t OnReceiveMessage(uint32_t message, uintptr_t wParam, intptr_t lParam) override;

    struct PidRow {
        ULONG pid;
        bool found;
        bool scrambled;
        bool mapped;

        friend bool operator==(const PidRow&, const PidRow&) = default;
    };
    void Refresh();

    page::Filter m_filter;
    size_t m_pin = 0;
    std::vector<PidRow> m_rows;  // as shown
};

}  // namespace tessel
