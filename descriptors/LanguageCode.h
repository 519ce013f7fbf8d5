// ISO 639 language codes: 32-bit values with the first character in bits 23..16, the second in
// bits 15..8 and the third in bits 7..0; 0 where there is none.
#pragma once

#include <cstdint>
#include <string>

#include "Classes/MultiPlatform/ByteReader.h"

namespace tessel {

// The code of three bytes as a stream carries them: in lower case, and the one code of a language
// that is known by several. Two letters after a zero byte are an ISO 639-1 code.
uint32_t NormaliseLanguage(uint8_t b0, uint8_t b1, uint8_t b2);

// The same of the next three bytes of reader.
uint32_t TakeLanguage(ByteReader& reader);

// Its three characters, those of value 0 left out; "Unknown" for 0, "Invalid" for 0xFFFFFF.
std::u16string LanguageName(uint32_t code);

}  // namespace tessel
