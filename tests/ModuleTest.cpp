// The module through its entry points, as an application loads it.
#include <dlfcn.h>
#include <gmock/gmock.h>

#include <cstdlib>
#include <fstream>
#include <thread>

#include "core/PropertyPages.h"
#include "core/TsFilterBase.h"
#include "filters/module/ClassTable.h"
#include "filters/module/Module.h"
#include "platform/com/ClassRegistry.h"
#include "platform/com/ComPtr.h"
#include "platform/com/GuidText.h"
#include "platform/com/TaskMemory.h"
#include "platform/media/GraphInterfaces.h"
#include "platform/media/MediaType.h"
#include "platform/media/SourceInterfaces.h"
#include "platform/ui/PropertyPage.h"
#include "tests/support/GraphFixture.h"
#include "tests/support/Movie.h"
#include "tests/support/RegistryFolder.h"

namespace tessel {
namespace {

constexpr CLSID kSplitter = MakeGuid("{05A20097-501E-4CE4-965A-C1F2F1BEEC42}");

// The filters, by their names; splitters have pins.
struct Filter {
    const char* name;
    CLSID id;
    bool hasPins;
};
constexpr Filter kFilters[] = {
    {"Corvane MPEG TS Splitter", kSplitter, true},
    {"Corvane MPEG TS Splitter (Async)", MakeGuid("{EF437ED2-736C-4777-ACE1-1D18C7887970}"), true},
    {"Corvane MPEG TS Splitter (Rec)", MakeGuid("{0A354CEF-937C-4748-AF03-70100D2F5B55}"), true},
    {"Corvane MPEG TS FileSource", MakeGuid("{B79FBC21-A510-49EA-84BE-1DB7A26A7281}"), false},
};

// Loaded once; registers in a folder of the test's own.
class Module : public testing::Test {
protected:
    static void SetUpTestSuite() {
        void* library = dlopen(TESSEL_MODULE, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(library, nullptr) << dlerror();
        const auto find = [library](auto& entry, const char* name) {
            entry = reinterpret_cast<std::remove_reference_t<decltype(entry)>>(dlsym(library, name));
            ASSERT_NE(entry, nullptr) << name;
        };
        find(s_getClassObject, "DllGetClassObject");
        find(s_canUnloadNow, "DllCanUnloadNow");
        find(s_register, "DllRegisterServer");
        find(s_unregister, "DllUnregisterServer");
    }

    void SetUp() override { setenv("TESSEL_REGISTRY", folder.path.c_str(), 1); }
    void TearDown() override {
        unsetenv("TESSEL_REGISTRY");
        EXPECT_EQ(s_canUnloadNow(), S_OK);
    }

    static ComPtr<IClassFactory> Factory(const CLSID& id) {
        ComPtr<IClassFactory> factory;
        EXPECT_EQ(s_getClassObject(id, IClassFactory::kIid, reinterpret_cast<void**>(factory.Put())), S_OK);
        return factory;
    }

    RegistryFolder folder;
    static inline decltype(&DllGetClassObject) s_getClassObject;
    static inline decltype(&DllCanUnloadNow) s_canUnloadNow;
    static inline decltype(&DllRegisterServer) s_register;
    static inline decltype(&DllUnregisterServer) s_unregister;
};

TEST_F(Module, GivesFactoriesOfItsClassesAlone) {
    const struct {
        CLSID id;
        IID iid;
        HRESULT result;
    } cases[] = {
        {kSplitter, IUnknown::kIid, S_OK},
        {kSplitter, IClassFactory::kIid, S_OK},
        {kSplitter, IBaseFilter::kIid, E_NOINTERFACE},
        {GUID_NULL, IClassFactory::kIid, CLASS_E_CLASSNOTAVAILABLE},
        {GUID_NULL, IBaseFilter::kIid, E_NOINTERFACE},
    };
    for (const auto& row : cases) {
        ComPtr<IUnknown> out;
        EXPECT_EQ(s_getClassObject(row.id, row.iid, reinterpret_cast<void**>(out.Put())), row.result);
        EXPECT_EQ(static_cast<bool>(out), row.result == S_OK);
    }
    EXPECT_EQ(s_getClassObject(kSplitter, IClassFactory::kIid, nullptr), E_POINTER);
}

TEST_F(Module, StaysWhileAnObjectOrALockLives) {
    EXPECT_EQ(s_canUnloadNow(), S_OK);
    ComPtr<IClassFactory> factory = Factory(kSplitter);
    EXPECT_EQ(s_canUnloadNow(), S_FALSE);
    ComPtr<IBaseFilter> filter;
    EXPECT_EQ(factory->CreateInstance(nullptr, IBaseFilter::kIid, reinterpret_cast<void**>(filter.Put())), S_OK);
    ComPtr<IUnknown> other;
    EXPECT_EQ(factory->CreateInstance(nullptr, IClassFactory::kIid, reinterpret_cast<void**>(other.Put())),
              E_NOINTERFACE);
    EXPECT_EQ(factory->LockServer(1), S_OK);
    EXPECT_EQ(factory->LockServer(1), S_OK);
    filter.Reset();
    EXPECT_EQ(factory->LockServer(0), S_OK);
    factory.Reset();
    EXPECT_EQ(s_canUnloadNow(), S_FALSE) << "a lock is left";
    EXPECT_EQ(Factory(kSplitter)->LockServer(0), S_OK);
    EXPECT_EQ(Factory(kSplitter)->LockServer(0), E_UNEXPECTED) << "there was none";
    EXPECT_EQ(s_canUnloadNow(), S_OK);
}

// An object that a filter is part of.
class Outer final : public CUnknown, public IPersist {
public:
    Outer() : CUnknown("Outer", nullptr) {}
    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override {
        if (out != nullptr && iid == IPersist::kIid)
            return GetInterface<IPersist>(this, out);
        if (inner && iid != IUnknown::kIid)
            return inner->QueryInterface(iid, out);
        return CUnknown::NonDelegatingQueryInterface(iid, out);
    }
    HRESULT GetClassID(CLSID*) override { return E_NOTIMPL; }

    ComPtr<IUnknown> inner;
};

TEST_F(Module, AFilterCanBePartOfAnotherObject) {
    const ComPtr<Outer> outer(new Outer);
    const auto factory = Factory(kSplitter);
    IUnknown* const controlling = static_cast<IPersist*>(outer.Get());
    ComPtr<IUnknown> out;
    EXPECT_EQ(factory->CreateInstance(controlling, IBaseFilter::kIid, reinterpret_cast<void**>(out.Put())),
              E_NOINTERFACE);
    ASSERT_EQ(factory->CreateInstance(controlling, IUnknown::kIid, reinterpret_cast<void**>(outer->inner.Put())), S_OK);
    const auto filter = outer->inner.As<IBaseFilter>();
    ASSERT_TRUE(filter);
    EXPECT_EQ(filter.As<IPersist>().Get(), static_cast<IPersist*>(outer.Get()));
    EXPECT_EQ(filter.As<IUnknown>().Get(), ComPtr<IPersist>(outer.Get()).As<IUnknown>().Get());
}

// In two copies of the module, each used by two threads. TESSEL_STRESS_ROUNDS: how many filters in all.
TEST_F(Module, FiltersThatPlayAreLetGoOf) {
    const char* const text = std::getenv("TESSEL_STRESS_ROUNDS");
    const int rounds = text != nullptr ? std::atoi(text) : 100;
    Movie movie;
    const build::Bytes& bytes = movie.Tables(1).Frames(60).stream.bytes();
    const auto path = folder.folder / "movie.ts";
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    const auto other = folder.folder / "copy.ax";
    std::filesystem::copy_file(TESSEL_MODULE, other);
    void* const library = dlopen(other.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    const auto getOther = reinterpret_cast<decltype(s_getClassObject)>(dlsym(library, "DllGetClassObject"));
    const auto canUnloadOther = reinterpret_cast<decltype(s_canUnloadNow)>(dlsym(library, "DllCanUnloadNow"));
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (const auto getClassObject : {s_getClassObject, s_getClassObject, getOther, getOther})
        threads.emplace_back([&, getClassObject] {
            for (int i = 0; i < rounds / 4; ++i) {
                ComPtr<IClassFactory> factory;
                ComPtr<IFileSourceFilter> file;
                getClassObject(kFilters[3].id, IClassFactory::kIid, reinterpret_cast<void**>(factory.Put()));
                factory->CreateInstance(nullptr, IFileSourceFilter::kIid, reinterpret_cast<void**>(file.Put()));
                failures +=
                    FAILED(file->Load(path.u16string().c_str(), nullptr)) || FAILED(file.As<IBaseFilter>()->Pause());
                for (int wait = i % 16 * 200; wait > 0; --wait)
                    failures.load();
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0);
    EXPECT_TRUE(Eventually([&] { return s_canUnloadNow() == S_OK && canUnloadOther() == S_OK; }));
}

TEST_F(Module, RegistersItsFiltersInBothCategories) {
    ASSERT_EQ(s_register(), S_OK);
    CClassRegistry registry(folder.path);
    ASSERT_EQ(registry.Read(), S_OK);
    for (const CLSID& where : {CLSID_LegacyAmFilterCategory, CLSID_AuxiliaryFilters}) {
        const auto filters = registry.Filters(where);
        ASSERT_EQ(filters.size(), std::size(kFilters));
        for (const Filter& expected : kFilters) {
            const std::string instance = where == CLSID_AuxiliaryFilters ? expected.name : GuidToText(expected.id);
            const auto found = std::ranges::find(filters, instance, &RegisteredFilter::instance);
            ASSERT_NE(found, filters.end()) << instance;
            EXPECT_EQ(found->name, expected.name);
            EXPECT_EQ(found->id, expected.id);
            EXPECT_EQ(registry.FindClass(expected.id)->threading, "Both");
            ASSERT_EQ(found->pins.size(), expected.hasPins ? 2u : 0u);
            if (expected.hasPins) {
                EXPECT_TRUE(!found->pins[0].rendered && !found->pins[1].many && !found->pins[1].zero);
                EXPECT_EQ(found->pins[1].types[12].minor, GUID_NULL);
            }
        }
    }
}

TEST_F(Module, TakesOutWhatItRegisteredAndNoMore) {
    const std::string others =
        "[category {5F710207-CF33-40FA-B819-E3AEE47ED0B7} filter Other]\nclass = "
        "{11111111-0000-0000-0000-000000000000}\nname = Other\nmerit = 0x00000001\n"
        "[class {11111111-0000-0000-0000-000000000000}]\nname = Other\nserver = /other.ax\n";
    for (const std::string& before : {std::string(), others}) {
        RegistryKeys expected;
        ASSERT_EQ(ParseRegistry(before, &expected), 0u);
        folder.Write(before);
        ASSERT_EQ(s_register(), S_OK);
        ASSERT_EQ(s_register(), S_OK) << "again";
        ASSERT_EQ(s_unregister(), S_OK);
        CClassRegistry registry(folder.path);
        ASSERT_EQ(registry.Read(), S_OK);
        registry.Keys().erase(CategoryKey(CLSID_AuxiliaryFilters));  // stays while another filter is in it
        EXPECT_EQ(registry.Keys(), expected);
        EXPECT_EQ(s_unregister(), S_OK) << "there is nothing left";
    }
}

TEST_F(Module, AKilledRegistrationLeavesTheOldFileOrTheNew) {
    folder.Write("# old\n[class {11111111-0000-0000-0000-000000000000}]\nserver = /other.ax\n");
    const std::string before = folder.Text();
    ASSERT_EQ(s_register(), S_OK);
    const std::string after = folder.Text();
    size_t olds = 0;
    size_t news = 0;
    const bool traced = KilledAtEverySystemCall([this, &before] { folder.Write(before); }, [] { return s_register(); },
                                                [&](size_t call) {
                                                    const std::string text = folder.Text();
                                                    EXPECT_TRUE(text == before || text == after) << call;
                                                    ++(text == before ? olds : news);
                                                    EXPECT_EQ(s_register(), S_OK) << call;
                                                    EXPECT_EQ(folder.Text(), after) << call;
                                                });
    if (!traced)
        GTEST_SKIP() << "this system does not let a process trace another";
    EXPECT_GT(olds, 10u);
    EXPECT_GT(news, 1u);
}

// In this process, where one can look at what a class is made as.
TEST(ClassTable, MakesEachClassAsItIsNamed) {
    const struct {
        const char16_t* name;
        StreamingMode mode;
        int32_t parameter;
    } filters[] = {{u"Corvane MPEG TS Splitter", StreamingMode::kLive, 1},
                   {u"Corvane MPEG TS Splitter (Async)", StreamingMode::kStream, 1},
                   {u"Corvane MPEG TS Splitter (Rec)", StreamingMode::kRecording, 0},
                   {u"Corvane MPEG TS FileSource", StreamingMode::kFile, 0}};
    const std::pair<CLSID, const char16_t*> pages[] = {
        {kPageServices, u"Services"},           {kPageProgramAssociationTable, u"PAT"},
        {kPageServiceDescriptionTable, u"SDT"}, {kPageNetworkInformationTable, u"NIT"},
        {kPageServiceGuideTable, u"SGT"},       {kPageGenreLookupTable, u"GLT"},
        {kPageConditionalAccessTable, u"CAT"},  {kPageVirtualChannelTable, u"VCT"},
        {kPagePidMapping, u"PID Map"},          {kPageOutputPins, u"OutPins"}};
    ASSERT_EQ(ModuleClasses().size(), std::size(filters) + std::size(pages));
    for (const ModuleClass& made : ModuleClasses()) {
        HRESULT result = E_FAIL;
        ComPtr<IUnknown> object;
        made.create(nullptr, &result)
            ->NonDelegatingQueryInterface(IUnknown::kIid, reinterpret_cast<void**>(object.Put()));
        if (const auto page = object.As<IPropertyPage>()) {
            PROPPAGEINFO info;
            ASSERT_EQ(page->GetPageInfo(&info), S_OK);
            const auto* row = std::ranges::find(pages, made.id, &std::pair<CLSID, const char16_t*>::first);
            ASSERT_NE(row, std::end(pages));
            EXPECT_EQ(std::u16string(info.pszTitle), row->second);
            CoTaskMemFree(info.pszTitle);
            continue;
        }
        const auto filter = object.As<IBaseFilter>();
        ASSERT_TRUE(filter);
        const auto& base = dynamic_cast<CTsFilterBase&>(*filter);
        const auto* row = std::ranges::find_if(
            filters, [&made](const auto& at) { return std::u16string_view(at.name) == made.name; });
        ASSERT_NE(row, std::end(filters));
        EXPECT_EQ(base.Mode(), row->mode);
        EXPECT_EQ(base.ModeParameter(), row->parameter);
    }
}

class Fragile final : public CUnknown {
public:
    explicit Fragile(IUnknown* outer) : CUnknown("Fragile", outer) {}
};

HRESULT CountForAMoment(Fragile& object) {
    object.NonDelegatingAddRef();
    object.NonDelegatingRelease();
    return S_OK;
}

TEST(CreateObject, LeavesNoObjectBehindThatCouldNotBeInitialised) {
    HRESULT result = S_OK;
    const int32_t before = CUnknown::ObjectsActive();
    EXPECT_EQ((CreateObject<Fragile, [](Fragile&) { return E_ABORT; }>(nullptr, &result)), nullptr);
    EXPECT_EQ(result, E_ABORT);
    EXPECT_EQ((CreateObject<Fragile, [](Fragile&) -> HRESULT { throw std::bad_alloc(); }>(nullptr, &result)), nullptr);
    EXPECT_EQ(result, E_OUTOFMEMORY);
    EXPECT_EQ(CUnknown::ObjectsActive(), before);
    CUnknown* const made = CreateObject<Fragile, CountForAMoment>(nullptr, &result);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->NonDelegatingAddRef(), 1u);
    EXPECT_EQ(made->NonDelegatingRelease(), 0u);
    EXPECT_EQ(CUnknown::ObjectsActive(), before);
}

}  // namespace
}  // namespace tessel
