// The class registry: its text, its file, and processes that write it at the same time.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "platform/com/ClassRegistry.h"
#include "platform/com/ComPtr.h"
#include "platform/com/GuidText.h"
#include "tests/support/RegistryFolder.h"

namespace tessel {
namespace {

constexpr CLSID kId = MakeGuid("{01234567-89AB-CDEF-0123-456789ABCDEF}");

TEST(RegistryText, KeepsAnyTextThatItIsGiven) {
    const std::string texts[] = {"plain",  " edges ",          "two\nlines\r", "[key]",   "a = b",
                                 "# none", "back\\slash\\x41", "\x7F\t\x1B",   "Мозаика", "]"};
    RegistryKeys keys;
    for (const std::string& text : texts)
        keys[text] = {{text, text}, {"empty", ""}, {text, "again"}};
    RegistryKeys read;
    EXPECT_EQ(ParseRegistry(FormatRegistry(keys), &read), 0u);
    EXPECT_EQ(read, keys);
}

TEST(RegistryText, SaysWhichLineIsNone) {
    const struct {
        std::string text;
        size_t line;
    } cases[] = {
        {"", 0},
        {"# only this", 0},
        {"\r\n  [key]\r\n\tname=value  \r\n", 0},
        {"name = value\n", 1},
        {"[key]\nname\n", 2},
        {"[key]\n= value\n", 2},
        {"[key]\n\n[open\n", 3},
        {"[]\n", 1},
        {"[key]\na = \\\n", 2},
        {"[key]\na = \\xZZ\n", 2},
        {std::string("[key]\na = \0\n", 12), 2},
    };
    for (const auto& row : cases) {
        RegistryKeys keys;
        EXPECT_EQ(ParseRegistry(row.text, &keys), row.line) << row.text;
    }
}

TEST(RegistryText, ReadsIdentifiersOfOneFormAlone) {
    EXPECT_EQ(GuidFromText(GuidToText(kId)), kId);
    EXPECT_EQ(GuidFromText("{01234567-89ab-cdef-0123-456789abcdef}"), kId);
    for (const char* text :
         {"", "{}", "{01234567-89AB-CDEF-0123-456789ABCDE }", "{01234567-89AB-CDEF-0123-456789ABCDEF",
          "{01234567-89AB-CDEF-01234-56789ABCDEF}", "{+1234567-89AB-CDEF-0123-456789ABCDEF}"})
        EXPECT_FALSE(GuidFromText(text)) << text;
}

TEST(FilterMapper, WritesFiltersThatAreReadAsTheyWere) {
    const RegistryFolder folder;
    const REGPINTYPES type = {&kId, &GUID_NULL};
    const REGFILTERPINS pins[] = {{u"In: put ", 1, 0, 1, 1, nullptr, nullptr, 1, &type},
                                  {u"", 0, 1, 0, 0, nullptr, nullptr, 0, nullptr}};
    REGFILTER2 data = {1, 0x80000001, 2, pins};
    {
        const auto registry = std::make_shared<CClassRegistry>(folder.path);
        ASSERT_EQ(registry->Begin(), S_OK);
        ComPtr<IFilterMapper2> mapper;
        ASSERT_EQ(CreateFilterMapper(registry, mapper.Put()), S_OK);
        EXPECT_EQ(mapper->RegisterFilter(kId, u"Näme", nullptr, nullptr, u"one\ntwo", &data), S_OK);
        data.dwVersion = 2;
        EXPECT_EQ(mapper->RegisterFilter(kId, u"", nullptr, nullptr, nullptr, &data), E_INVALIDARG);
        EXPECT_EQ(mapper->UnregisterFilter(nullptr, u"none", kId), S_FALSE);
        ASSERT_EQ(registry->Commit(), S_OK);
    }
    CClassRegistry registry(folder.path);
    ASSERT_EQ(registry.Read(), S_OK);
    registry.Keys()[FilterKey(CLSID_LegacyAmFilterCategory, "spoilt")] = {{"class", "{}"}, {"merit", "0x1"}};
    const auto filters = registry.Filters(CLSID_LegacyAmFilterCategory);
    ASSERT_EQ(filters.size(), 1u);
    EXPECT_EQ(filters[0].instance, "one\ntwo");
    EXPECT_EQ(filters[0].name, "Näme");
    EXPECT_EQ(filters[0].merit, 0x80000001u);
    ASSERT_EQ(filters[0].pins.size(), 2u);
    const RegisteredPin& in = filters[0].pins[0];
    EXPECT_TRUE(in.name == "In: put " && !in.output && in.rendered && in.zero && in.many);
    EXPECT_TRUE(in.types.size() == 1 && in.types[0].major == kId && in.types[0].minor == GUID_NULL);
    EXPECT_TRUE(filters[0].pins[1].name.empty() && filters[0].pins[1].output && !filters[0].pins[1].many);
}

HRESULT RegisterOne(const std::string& path, uint32_t number) {
    CClassRegistry registry(path);
    const HRESULT result = registry.Begin();
    if (FAILED(result))
        return result;
    registry.RegisterClass(GUID{.Data1 = number}, u"class", "/server.ax");
    return registry.Commit();
}

TEST(ClassRegistry, ProcessesThatRegisterAtOnceLoseNothing) {
    constexpr uint32_t kProcesses = 6;
    constexpr uint32_t kEach = 15;
    const RegistryFolder folder;
    std::vector<pid_t> children;
    for (uint32_t process = 0; process < kProcesses; ++process) {
        const pid_t child = fork();
        if (child == 0) {
            alarm(60);  // nobody is waited for longer
            bool good = true;
            for (uint32_t i = 0; i < kEach; ++i)
                good = good && RegisterOne(folder.path, process * kEach + i) == S_OK;
            _exit(good ? 0 : 1);
        }
        children.push_back(child);
    }
    for (const pid_t child : children) {
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    CClassRegistry registry(folder.path);
    ASSERT_EQ(registry.Read(), S_OK);
    EXPECT_EQ(registry.Classes().size(), kProcesses * kEach);
}

TEST(ClassRegistry, WhatIsNotCommittedIsNotDone) {
    const RegistryFolder folder;
    ASSERT_EQ(RegisterOne(folder.path, 1), S_OK);
    const std::string before = folder.Text();
    {
        CClassRegistry registry(folder.path);
        ASSERT_EQ(registry.Begin(), S_OK);
        registry.UnregisterClass(GUID{.Data1 = 1});
    }
    EXPECT_EQ(folder.Text(), before);
    EXPECT_EQ(RegisterOne(folder.path, 2), S_OK) << "the lock is free again";
}

TEST(ClassRegistry, KeepsLinksAndPermissions) {
    const RegistryFolder folder;
    folder.Write("");
    ASSERT_EQ(chmod(folder.path.c_str(), 0600), 0);
    const std::string link = folder.folder / "link";
    std::filesystem::create_symlink(folder.path, link);
    ASSERT_EQ(RegisterOne(link, 1), S_OK);
    EXPECT_TRUE(std::filesystem::is_symlink(link));
    EXPECT_NE(folder.Text(), "");
    EXPECT_EQ(std::filesystem::status(folder.path).permissions(), std::filesystem::perms(0600));
    // What a killed process has left does not stand in the way.
    std::ofstream(folder.path + ".new") << "half a fi";
    EXPECT_EQ(RegisterOne(folder.path, 2), S_OK);
    EXPECT_FALSE(std::filesystem::exists(folder.path + ".new"));
}

TEST(ClassRegistry, RefusesWhatIsNoFile) {
    const RegistryFolder folder;
    const std::string pipe = folder.folder / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    std::ofstream(folder.folder / "long").close();
    std::filesystem::resize_file(folder.folder / "long", CRegistryFile::kMaxSize + 1);
    const struct {
        std::string name;
        int error;
    } cases[] = {{"", EISDIR}, {"pipe", EINVAL}, {"missing/registry", ENOENT}, {"long", EFBIG}};
    for (const auto& row : cases)
        EXPECT_EQ(ErrorOfResult(RegisterOne(folder.folder / row.name, 1)), row.error) << row.name;
}

}  // namespace
}  // namespace tessel
