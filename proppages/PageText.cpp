#include "proppages/PageText.h"

#include <algorithm>
#include <cstdio>

#include "core/stream/TsHeader.h"
#include "descriptors/DescriptorText.h"
#include "descriptors/LanguageCode.h"
#include "descriptors/NameTable.h"
#include "proppages/PageFilter.h"

namespace tessel::page {

namespace {

constexpr std::u16string_view kAllPidsText = u"All PIDs";
constexpr std::u16string_view kAllTablesText = u"All Tables";

std::u16string Formatted(const char* format, uint32_t value) {
    char text[24];
    const int length = std::snprintf(text, sizeof(text), format, value);
    return {text, text + length};
}

std::u16string Quoted(IDvbService* service, HRESULT (IDvbService::*getter)(BSTR*), std::u16string_view otherwise) {
    CBstr text;
    if (service != nullptr)
        (service->*getter)(text.Put());
    return u"'" + std::u16string(text.View().empty() ? otherwise : text.View()) + u"'";
}

int DigitOf(char16_t c) {
    if (c >= u'0' && c <= u'9')
        return c - u'0';
    if (c >= u'a' && c <= u'f')
        return c - u'a' + 10;
    if (c >= u'A' && c <= u'F')
        return c - u'A' + 10;
    return -1;
}

}  // namespace

std::u16string Hex4(uint32_t value) {
    return Formatted("%04x", value);
}

std::u16string Decimal(uint32_t value, size_t leastDigits) {
    std::u16string text = Formatted("%u", value);
    return text.size() < leastDigits ? std::u16string(leastDigits - text.size(), u'0') + text : text;
}

std::u16string WhyNoPin(HRESULT result) {
    switch (result) {
    case E_OUTOFMEMORY:
        return u"there is no memory for it.";
    case E_INVALIDARG:
        return u"a name has 1 to 49 characters.";
    default:
        return u"there are as many pins as there can be.";
    }
}

std::u16string WhyNotTaken(HRESULT result, MEDIA_SAMPLE_CONTENT content) {
    if (result == E_OUTOFMEMORY)
        return u"there is no memory for it.";
    if (content == MEDIA_ELEMENTARY_STREAM)
        return u"a pin delivers the elementary stream of one PID, and of none below 0010, where tables are.";
    return u"it delivers something else.";
}

std::u16string PidText(ULONG pid) {
    if (pid == ALL_PIDS)
        return std::u16string(kAllPidsText);
    if (pid == ALL_TABLES)
        return std::u16string(kAllTablesText);
    return Hex4(pid);
}

std::u16string_view Trimmed(std::u16string_view text) {
    const size_t first = text.find_first_not_of(u" \t");
    if (first == std::u16string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(u" \t") - first + 1);
}

std::optional<ULONG> ReadPid(std::u16string_view typed) {
    std::u16string_view text = Trimmed(typed);
    // First, since "A" is a digit.
    if (text == kAllPidsText)
        return ALL_PIDS;
    if (text == kAllTablesText)
        return ALL_TABLES;
    if (text.starts_with(u"0x") || text.starts_with(u"0X"))
        text.remove_prefix(2);
    if (text.empty())
        return std::nullopt;
    ULONG pid = 0;
    for (const char16_t c : text) {
        const int digit = DigitOf(c);
        pid = pid << 4 | static_cast<ULONG>(digit);
        if (digit < 0 || pid >= kPidCount)
            return std::nullopt;
    }
    return pid;
}

std::u16string DescriptorTexts(IDvbMapping* list) {
    std::u16string texts;
    for (const auto& descriptor : ItemsOf<IDvbDescriptor>(list)) {
        OLECHAR text[kDescriptorTextUnits];
        RenderDescriptor(text, descriptor.Get());
        texts += (texts.empty() ? u"" : u", ") + std::u16string(text);
    }
    return texts;
}

std::u16string ComponentText(IDvbComponentEx& component) {
    std::u16string text = StreamTypeNames().GetName(ValueOf<IDvbComponent>(component, &IDvbComponent::GetStreamType));
    if (const uint32_t language = ValueOf(component, &IDvbComponentEx::GetLanguage); language != 0)
        text += u", " + LanguageName(language);
    ComPtr<IDvbMapping> descriptors;
    component.GetDescriptors(descriptors.Put());
    if (const std::u16string texts = DescriptorTexts(descriptors.Get()); !texts.empty())
        text += u", " + texts;
    if (component.IsScrambled() == S_OK)
        text += u", CA!";
    return text;
}

std::u16string ServiceText(IDvbService* service) {
    const uint32_t type = service != nullptr ? ValueOf(*service, &IDvbService::GetServiceType) : 0;
    return ServiceTypeNames().GetName(type) + u", " + Quoted(service, &IDvbService::GetProviderName, u"<NoProvider>") +
           u", " + Quoted(service, &IDvbService::GetName, u"<NoName>");
}

std::u16string ServiceTitle(IDvbService& service) {
    const uint32_t major = ParamOf(&service, param::kMajorChannel);
    const uint32_t minor = ParamOf(&service, param::kMinorChannel);
    std::u16string title;
    if (major != 0 || minor != 0)
        title = u"[" + Decimal(major) + u"." + Decimal(minor, 3) + u"] ";
    return title + Hex4(ValueOf(service, &IDvbService::GetServiceId)) + u" (" + ServiceText(&service) +
           (service.IsScrambled() == S_OK ? u", Scrambled)" : u", Free)");
}

std::u16string ProgramMapText(uint32_t serviceId, IDvbService* service) {
    const bool scrambled = service != nullptr && service->IsScrambled() == S_OK;
    return u"PMT of Service(id=" + Hex4(serviceId) + u", " + ServiceText(service) + (scrambled ? u", CA!)" : u")");
}

std::map<ULONG, std::u16string> PidTexts(const Filter& filter) {
    std::map<ULONG, std::u16string> texts;
    for (const auto& service : filter.Services()) {
        const uint32_t id = ValueOf(*service, &IDvbService::GetServiceId);
        if (const uint32_t pid = ParamOf(service.Get(), param::kPmtPid); pid != 0)
            texts.try_emplace(pid, ProgramMapText(id, service.Get()));
        const auto table = filter.ProgramMap(id);
        if (!table)
            continue;
        ComPtr<IDvbCollection> components;
        table->GetComponents(components.Put());
        for (const auto& component : ItemsOf<IDvbComponentEx>(components.Get()))
            texts.try_emplace(ValueOf<IDvbComponent>(*component, &IDvbComponent::GetPid), ComponentText(*component));
        if (const uint32_t pid = ValueOf(*table, &IDvbProgramMapTable::GetPcrPid); pid != kNullPid)
            texts.try_emplace(pid, kPcrText);
    }
    return texts;
}

}  // namespace tessel::page
