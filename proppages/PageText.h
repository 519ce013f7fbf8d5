// What the pages say of PIDs, components and services.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "platform/com/Bstr.h"
#include "platform/media/Mpeg2Demultiplexer.h"
#include "services/objects/ServiceInterfaces.h"
#include "services/objects/TableInterfaces.h"

namespace tessel::page {

struct Filter;

// Four hexadecimal digits, or more where the value has more.
std::u16string Hex4(uint32_t value);
std::u16string Decimal(uint32_t value, size_t leastDigits = 1);
// Why a pin could not be made, or does not take PIDs as content: the end of a sentence, with its full stop.
std::u16string WhyNoPin(HRESULT result);
std::u16string WhyNotTaken(HRESULT result, MEDIA_SAMPLE_CONTENT content);

// Four hexadecimal digits; the special values by their names.
std::u16string PidText(ULONG pid);
// The PID that a person typed; none for what is neither a special value nor up to 1fff.
std::optional<ULONG> ReadPid(std::u16string_view text);
std::u16string_view Trimmed(std::u16string_view text);

// The descriptors of list in order, with commas.
std::u16string DescriptorTexts(IDvbMapping* list);
// "STREAM TYPE, LANGUAGE, DESCRIPTORS, CA!", without what there is not.
std::u16string ComponentText(IDvbComponentEx& component);
// "TYPE, 'PROVIDER', 'NAME'". Null: as a service of which nothing is known.
std::u16string ServiceText(IDvbService* service);
// What a drop-down list shows: "[7.001] 0001 (TYPE, 'PROVIDER', 'NAME', Free)", the channel number only if there
// is one.
std::u16string ServiceTitle(IDvbService& service);
// "PMT of Service(id=0001, TYPE, 'PROVIDER', 'NAME')"
std::u16string ProgramMapText(uint32_t serviceId, IDvbService* service);

// What the tables say of PIDs: tables, clocks and components of the services.
std::map<ULONG, std::u16string> PidTexts(const Filter& filter);

inline constexpr std::u16string_view kPcrText = u"Program Clock Reference";

}  // namespace tessel::page
