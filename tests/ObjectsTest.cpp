// Lists, services and the objects under them.
#include <gtest/gtest.h>

#include "services/objects/Collections.h"
#include "services/objects/DvbService.h"

namespace tessel {
namespace {

class Component final : public CIfc<IDvbComponentEx> {
public:
    Component(uint32_t streamType, bool scrambled)
        : CIfc("Component", nullptr), m_streamType(streamType), m_scrambled(scrambled) {}
    HRESULT GetPid(uint32_t*) override { return E_NOTIMPL; }
    HRESULT GetStreamType(uint32_t* out) override {
        *out = m_streamType;
        return S_OK;
    }
    HRESULT GetDescriptors(IDvbMapping**) override { return E_NOTIMPL; }
    HRESULT GetMediaType(AM_MEDIA_TYPE*) override { return E_NOTIMPL; }
    HRESULT GetLanguage(uint32_t*) override { return E_NOTIMPL; }
    HRESULT IsScrambled() override { return m_scrambled ? S_OK : S_FALSE; }

private:
    uint32_t m_streamType;
    bool m_scrambled;
};

// Something to put into lists.
ComPtr<IDvbService> MakeItem() {
    return ComPtr<IDvbService>(MakeObject<DvbService>(1).Get());
}

uint32_t Count(IDvbCollection* list) {
    uint32_t count = 99;
    EXPECT_EQ(list->GetCount(&count), S_OK);
    return count;
}

TEST(Collections, RefuseIndexesOutsideAndHandOutReferences) {
    const auto list = MakeObject<DvbCollection>();
    auto item = MakeItem();
    IUnknown* identity = nullptr;
    ASSERT_EQ(item->QueryInterface(IUnknown::kIid, reinterpret_cast<void**>(&identity)), S_OK);
    identity->Release();
    ASSERT_EQ(list->Add(item.Get()), S_OK);

    IUnknown* out = identity;
    EXPECT_EQ(list->GetItem(-1, &out), E_FAIL);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(list->GetItem(1, &out), E_FAIL);
    EXPECT_EQ(list->GetItem(0, nullptr), E_POINTER);
    ASSERT_EQ(list->GetItem(0, &out), S_OK);
    EXPECT_EQ(out, identity) << "a list gives out the item's own IUnknown";
    item.Reset();
    EXPECT_EQ(out->Release(), 1u) << "the list holds the other reference";
    EXPECT_EQ(list->Clear(), S_OK);
    EXPECT_EQ(Count(list.Get()), 0u);
}

TEST(Collections, AMappingKeepsTheFirstOfAKeyAndAMultiMappingFindsIt) {
    const auto mapping = MakeObject<DvbMapping>();
    const auto multi = MakeObject<DvbMultiMapping>();
    const ComPtr<IUnknown> items[] = {MakeItem().As<IUnknown>(), MakeItem().As<IUnknown>(), MakeItem().As<IUnknown>()};
    EXPECT_EQ(mapping->AddKeyed(-5, items[0].Get()), S_OK);
    EXPECT_EQ(mapping->AddKeyed(-5, items[1].Get()), E_FAIL);
    EXPECT_EQ(mapping->AddKeyed(7, items[2].Get()), S_OK);
    EXPECT_EQ(Count(mapping.Get()), 2u);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(multi->AddKeyed(i == 2 ? 3 : 4, items[i].Get()), S_OK);

    ComPtr<IUnknown> found;
    EXPECT_EQ(mapping->Lookup(-5, found.Put()), S_OK);
    EXPECT_EQ(found.Get(), items[0].Get());
    EXPECT_EQ(mapping->Lookup(0, found.Put()), E_FAIL);
    EXPECT_EQ(multi->Lookup(4, found.Put()), S_OK);
    EXPECT_EQ(found.Get(), items[0].Get());
    EXPECT_EQ(multi->Lookup(5, found.Put()), E_FAIL);

    EXPECT_FALSE(mapping.As<IDvbCollection>()) << "a mapping answers as a mapping only";
    mapping->Clear();
    EXPECT_EQ(mapping->Lookup(7, found.Put()), E_FAIL);
    EXPECT_EQ(mapping->AddKeyed(7, items[1].Get()), S_OK);
    EXPECT_EQ(mapping->Lookup(7, found.Put()), S_OK);
    EXPECT_EQ(found.Get(), items[1].Get());
}

TEST(Service, ParametersReadBackAndTheKeyIsFixed) {
    const auto service = MakeObject<DvbService>(0x1234);
    const auto params = ComPtr<IDvbService>(service.Get()).As<IGetSetParam>();
    ASSERT_TRUE(params);
    uint32_t value = 7;
    EXPECT_EQ(params->GetParam(param::kScrambled, &value), S_OK);
    EXPECT_EQ(value, 0u);
    EXPECT_EQ(params->SetParam(param::kScrambled, 1), S_OK);
    EXPECT_EQ(params->GetParam(param::kScrambled, &value), S_OK);
    EXPECT_EQ(value, 1u);
    EXPECT_EQ(params->SetParam(param::kServiceId, 5), S_FALSE);
    EXPECT_EQ(params->GetParam(param::kServiceId, &value), S_OK);
    EXPECT_EQ(value, 0x1234u);
    EXPECT_EQ(params->GetParam(param::kServiceType, nullptr), E_POINTER);
    EXPECT_EQ(params->GetParam(0x999, &value), S_FALSE);
    EXPECT_EQ(service->IsScrambled(), S_OK);
    void* out = service.Get();
    EXPECT_EQ(params->Reserved4(0, 0, &out), E_INVALIDARG);
    EXPECT_EQ(out, nullptr);
}

TEST(Service, NamesAreCopiedAndMayBeAbsentOrEmpty) {
    const auto service = MakeObject<DvbService>(1);
    CBstr name;
    EXPECT_EQ(service->GetName(name.Put()), S_OK);
    EXPECT_FALSE(name);
    EXPECT_EQ(service->SetStringParam(param::kServiceName, u""), S_OK);
    EXPECT_EQ(service->GetName(name.Put()), S_OK);
    ASSERT_TRUE(name);
    EXPECT_EQ(SysStringLen(name.Get()), 0u);

    std::u16string text = u"Zw\u00F6lf";
    EXPECT_EQ(service->SetStringParam(param::kProviderName, text.c_str()), S_OK);
    text.assign(4, u'x');
    EXPECT_EQ(service->GetProviderName(name.Put()), S_OK);
    EXPECT_EQ(name.View(), u"Zw\u00F6lf");
    EXPECT_EQ(service->GetStringParam(param::kProviderName, name.Put()), S_FALSE);
    EXPECT_EQ(service->SetStringParam(param::kProviderName, nullptr), S_OK);
    EXPECT_EQ(service->GetProviderName(name.Put()), S_OK);
    EXPECT_FALSE(name);
    EXPECT_EQ(service->SetStringParam(0x30012, u"x"), S_FALSE);
}

TEST(Service, OnlyScrambledProgrammeStreamsScrambleIt) {
    struct Case {
        uint32_t streamType;
        bool marks;
    };
    // A radio has nothing but audio.
    for (const Case c : {Case{0x06, false},
                         {0x02, true},
                         {0x03, true},
                         {0x04, true},
                         {0x0F, true},
                         {0x11, true},
                         {0x81, false},
                         {0x1B, true}}) {
        const auto service = MakeObject<DvbService>(1);
        service->AddComponent(MakeObject<Component>(c.streamType, false).Get());
        EXPECT_EQ(service->IsScrambled(), S_FALSE);
        service->AddComponent(MakeObject<Component>(c.streamType, true).Get());
        EXPECT_EQ(service->IsScrambled(), c.marks ? S_OK : S_FALSE) << c.streamType;
        ComPtr<IDvbCollection> components;
        ASSERT_EQ(service->GetComponents(components.Put()), S_OK);
        EXPECT_EQ(Count(components.Get()), 2u);
    }
}

TEST(Service, ComponentsStopAtTheNumberOfPids) {
    const auto service = MakeObject<DvbService>(1);
    const auto component = MakeObject<Component>(0x02, false);
    for (uint32_t i = 0; i < DvbService::kMaxComponents; ++i)
        ASSERT_EQ(service->AddComponent(component.Get()), S_OK);
    EXPECT_EQ(service->AddComponent(component.Get()), E_FAIL);
}

}  // namespace
}  // namespace tessel
