// The pages over tables: services, PAT, SDT, VCT, and the four tables that the filters do not decode.
#pragma once

#include "proppages/TablePage.h"

namespace tessel {

// One service: its clock and its components. "Map" has the filter choose it.
class CPropPageServices final : public CTablePage, public IDvbTableEvents {
public:
    explicit CPropPageServices(IUnknown* outer);

    DECLARE_IUNKNOWN

    HRESULT OnServicesReady() override { return PostRefresh(), S_OK; }
    HRESULT OnReset() override { return PostRefresh(), S_OK; }

private:
    HRESULT OnActivate() override { return AdviseEvents(static_cast<IDvbTableEvents*>(this)); }
    void InitTable() override;
    std::vector<Choice> Choices() override;
    void FillRows(intptr_t key) override;
    void OnRowsSelected() override;
    void OnMap() override;
    // The number by which the filter chooses the service; none for one without packets.
    std::optional<uint32_t> SelectionIndex(uint32_t serviceId);
};

// All programs or one, with their clocks and components. "Map" has a free pin deliver the component.
class CPropPageProgramAssociationTable final : public CTablePage {
public:
    explicit CPropPageProgramAssociationTable(IUnknown* outer);

private:
    void InitTable() override;
    std::vector<Choice> Choices() override;
    void FillRows(intptr_t key) override;
    void OnRowsSelected() override;
    void OnMap() override;

    std::vector<ComPtr<IDvbProgramAssociation>> Associations();
    void AddProgram(IDvbProgramAssociation& association);
    struct Mappable {
        ULONG pid;
        MEDIA_SAMPLE_CONTENT content;
    };
    std::optional<Mappable> SelectedComponent();
    std::optional<page::OutputPin> FreePin(const Mappable& component, HRESULT* result);

    // By row; none for rows that are no component.
    std::vector<std::optional<Mappable>> m_rows;
};

class CPropPageServiceDescriptionTable final : public CTablePage, public IDvbTableEvents2 {
public:
    explicit CPropPageServiceDescriptionTable(IUnknown* outer);

    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override;

    HRESULT OnServicesReady() override { return S_OK; }
    HRESULT OnReset() override { return PostRefresh(), S_OK; }
    HRESULT OnTableReady(uint32_t tableId, uint32_t key) override;
    HRESULT OnTableStale(uint32_t, uint32_t) override { return S_OK; }

private:
    HRESULT OnActivate() override { return AdviseEvents(static_cast<IDvbTableEvents*>(this)); }
    void InitTable() override;
    std::vector<Choice> Choices() override;
    void FillRows(intptr_t key) override;
};

class CPropPageVirtualChannelTable final : public CTablePage {
public:
    explicit CPropPageVirtualChannelTable(IUnknown* outer);

private:
    void InitTable() override;
    std::vector<Choice> Choices() override;
    void FillRows(intptr_t key) override;
};

// A table that the filters do not decode: the page says so.
class CPropPageNotDecoded : public CTablePage {
protected:
    using CTablePage::CTablePage;

private:
    void InitTable() override;
    std::vector<Choice> Choices() override { return {}; }
    void FillRows(intptr_t) override {}
};

class CPropPageNetworkInformationTable final : public CPropPageNotDecoded {
public:
    explicit CPropPageNetworkInformationTable(IUnknown* outer);
};

class CPropPageServiceGuideTable final : public CPropPageNotDecoded {
public:
    explicit CPropPageServiceGuideTable(IUnknown* outer);
};

class CPropPageGenreLookupTable final : public CPropPageNotDecoded {
public:
    explicit CPropPageGenreLookupTable(IUnknown* outer);
};

class CPropPageConditionalAccessTable final : public CPropPageNotDecoded {
public:
    explicit CPropPageConditionalAccessTable(IUnknown* outer);
};

}  // namespace tessel
