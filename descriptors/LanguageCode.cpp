#include "descriptors/LanguageCode.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace tessel {

namespace {

constexpr uint32_t Pack(uint8_t b0, uint8_t b1, uint8_t b2) {
    return static_cast<uint32_t>(b0 << 16 | b1 << 8 | b2);
}

constexpr uint8_t Lower(uint8_t byte) {
    return byte >= 'A' && byte <= 'Z' ? static_cast<uint8_t>(byte - 'A' + 'a') : byte;
}

// A code of two letters stands behind a zero byte.
consteval uint32_t Code(std::string_view letters) {
    uint32_t code = 0;
    for (const char letter : letters)
        code = code << 8 | static_cast<uint8_t>(letter);
    return code;
}

struct Synonym {
    uint32_t code;
    uint32_t target;

    consteval Synonym(std::string_view from, std::string_view to) : code(Code(from)), target(Code(to)) {}
};

constexpr Synonym kSynonyms[] = {
    {"aa", "aar"},  {"ab", "abk"},  {"af", "afr"},  {"am", "amh"},  {"ar", "ara"},  {"as", "asm"},  {"ay", "aym"},
    {"az", "aze"},  {"ba", "bak"},  {"be", "bel"},  {"bg", "bul"},  {"bh", "bih"},  {"bi", "bis"},  {"bn", "ben"},
    {"bo", "tib"},  {"ca", "cat"},  {"co", "cos"},  {"cs", "cze"},  {"cy", "wel"},  {"da", "dan"},  {"de", "ger"},
    {"dz", "dzo"},  {"el", "gre"},  {"en", "eng"},  {"eo", "epo"},  {"es", "spa"},  {"et", "est"},  {"eu", "baq"},
    {"fa", "per"},  {"fi", "fin"},  {"fj", "fij"},  {"fo", "fao"},  {"fr", "fre"},  {"fy", "fry"},  {"ga", "iri"},
    {"gl", "glg"},  {"gn", "grn"},  {"gu", "guj"},  {"ha", "hau"},  {"he", "heb"},  {"hi", "hin"},  {"hu", "hun"},
    {"hy", "arm"},  {"ia", "ina"},  {"id", "ind"},  {"ik", "ipk"},  {"is", "ice"},  {"it", "ita"},  {"iu", "iku"},
    {"ja", "jpn"},  {"jv", "jav"},  {"jw", "jav"},  {"ka", "geo"},  {"kk", "kaz"},  {"kl", "kal"},  {"km", "khm"},
    {"kn", "kan"},  {"ko", "kor"},  {"ks", "kas"},  {"ku", "kur"},  {"ky", "kir"},  {"la", "lat"},  {"ln", "lin"},
    {"lo", "lao"},  {"lt", "lit"},  {"lv", "lav"},  {"mg", "mlg"},  {"mi", "mao"},  {"mk", "mac"},  {"ml", "mlt"},
    {"mn", "mon"},  {"mo", "mol"},  {"mr", "mar"},  {"ms", "may"},  {"my", "bur"},  {"na", "nau"},  {"ne", "nep"},
    {"nl", "dut"},  {"no", "nor"},  {"oc", "oci"},  {"om", "orm"},  {"or", "ori"},  {"pa", "pan"},  {"pl", "pol"},
    {"ps", "pus"},  {"pt", "por"},  {"qu", "que"},  {"rm", "roh"},  {"rn", "run"},  {"ro", "ron"},  {"ru", "rus"},
    {"rw", "kin"},  {"sa", "san"},  {"sd", "snd"},  {"sg", "sag"},  {"sh", "scr"},  {"si", "sin"},  {"sk", "slo"},
    {"sl", "slv"},  {"sm", "smo"},  {"sn", "sna"},  {"so", "som"},  {"sq", "alb"},  {"ss", "ssw"},  {"st", "sot"},
    {"su", "sun"},  {"sv", "swe"},  {"sw", "swa"},  {"ta", "tam"},  {"te", "tel"},  {"tg", "tgk"},  {"th", "tha"},
    {"ti", "tir"},  {"tk", "tuk"},  {"tl", "tgl"},  {"tn", "tsn"},  {"to", "tog"},  {"tr", "tur"},  {"ts", "tso"},
    {"tt", "tat"},  {"tw", "twi"},  {"ug", "uig"},  {"uk", "ukr"},  {"ur", "urd"},  {"uz", "uzb"},  {"vi", "vie"},
    {"vo", "vol"},  {"wo", "wol"},  {"xh", "xho"},  {"yi", "yid"},  {"yo", "yor"},  {"za", "zha"},  {"zh", "chi"},
    {"zu", "zul"},  {"2ch", "ger"}, {"bod", "tib"}, {"ces", "cze"}, {"cym", "wel"}, {"deu", "ger"}, {"ell", "gre"},
    {"esl", "spa"}, {"eus", "baq"}, {"fas", "per"}, {"fra", "fre"}, {"gai", "iri"}, {"gdh", "gae"}, {"hye", "arm"},
    {"isl", "ice"}, {"jaw", "jav"}, {"kat", "geo"}, {"mak", "mac"}, {"mri", "mao"}, {"msa", "may"}, {"mya", "bur"},
    {"nla", "dut"}, {"rum", "ron"}, {"slk", "slo"}, {"sqi", "alb"}, {"sve", "swe"}, {"zho", "chi"},
};

static_assert(std::ranges::is_sorted(kSynonyms, std::ranges::less_equal{}, &Synonym::code), "searched by halves");

}  // namespace

uint32_t NormaliseLanguage(uint8_t b0, uint8_t b1, uint8_t b2) {
    const uint32_t code = Pack(Lower(b0), Lower(b1), Lower(b2));
    const auto* found = std::ranges::lower_bound(kSynonyms, code, {}, &Synonym::code);
    return found != std::end(kSynonyms) && found->code == code ? found->target : code;
}

uint32_t TakeLanguage(ByteReader& reader) {
    const uint8_t b0 = reader.U8();
    const uint8_t b1 = reader.U8();
    const uint8_t b2 = reader.U8();
    return NormaliseLanguage(b0, b1, b2);
}

std::u16string LanguageName(uint32_t code) {
    if (code == 0)
        return u"Unknown";
    if (code == 0xFFFFFF)
        return u"Invalid";
    std::u16string name;
    for (const int shift : {16, 8, 0}) {
        if (const auto character = static_cast<char16_t>(code >> shift & 0xFF); character != 0)
            name.push_back(character);
    }
    return name;
}

}  // namespace tessel
