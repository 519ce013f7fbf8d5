// Sections and descriptors as bytes, for the stream builder and for tests that need no packets.
//
// Tables follow ISO/IEC 13818-1 (2.4.4), EN 300 468 (5.2, 6.2) and A/65 (6.2, 6.3). Optional lengths are
// sent in place of the true ones, so that a table can lie about its loops.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tessel::build {

using Bytes = std::vector<uint8_t>;
// One element a descriptor; an element may as well be any broken bytes.
using Descriptors = std::vector<Bytes>;

Bytes Join(const std::vector<Bytes>& parts);
// The characters as bytes, zeros included: Text("\x05Stra\xDFe").
Bytes Text(std::string_view characters);

// Collects fields, most significant bit first.
class BitWriter {
public:
    BitWriter& Put(uint64_t value, unsigned bits);
    BitWriter& Put(std::span<const uint8_t> bytes);  // at a byte border only
    // Leaves the rest of the last byte zero.
    BitWriter& Align() {
        m_free = 0;
        return *this;
    }
    const Bytes& bytes() const { return m_bytes; }

private:
    Bytes m_bytes;
    unsigned m_free = 0;  // unused bits of the last byte
};

// ISO/IEC 13818-1, Annex A, one bit at a time.
uint32_t Crc32(std::span<const uint8_t> bytes);

struct SectionHeader {
    uint8_t version = 0;
    bool currentNext = true;
    uint8_t sectionNumber = 0;
    uint8_t lastSectionNumber = 0;
    std::optional<uint16_t> sectionLength = {};  // in place of the true one; the CRC covers what is there
};

Bytes LongSection(uint8_t tableId, uint16_t extension, const Bytes& payload, const SectionHeader& header = {});
// section_syntax_indicator 0: no extension, no version, no CRC.
Bytes ShortSection(uint8_t tableId, const Bytes& payload, std::optional<uint16_t> sectionLength = {});

struct PatProgram {
    uint16_t program = 0;
    uint16_t pid = 0;
};
Bytes Pat(uint16_t transportStreamId, const std::vector<PatProgram>& programs, const SectionHeader& header = {});

struct PmtStream {
    uint8_t streamType = 0;
    uint16_t pid = 0;
    Descriptors descriptors = {};
    std::optional<uint16_t> infoLength = {};  // ES_info_length
};
struct PmtFields {
    uint16_t program = 0;
    uint16_t pcrPid = 0x1FFF;
    Descriptors descriptors = {};
    std::vector<PmtStream> streams = {};
    std::optional<uint16_t> infoLength = {};  // program_info_length
};
Bytes Pmt(const PmtFields& fields, const SectionHeader& header = {});

struct SdtService {
    uint16_t serviceId = 0;
    Descriptors descriptors = {};
    uint8_t runningStatus = 4;
    bool freeCaMode = false;
    std::optional<uint16_t> loopLength = {};  // descriptors_loop_length
};
struct SdtFields {
    uint16_t transportStreamId = 0;
    uint16_t originalNetworkId = 0;
    std::vector<SdtService> services = {};
    uint8_t tableId = 0x42;
};
Bytes Sdt(const SdtFields& fields, const SectionHeader& header = {});

struct MgtTable {
    uint16_t tableType = 0;
    uint16_t pid = 0;
    uint8_t version = 0;
    uint32_t numberBytes = 0;
    Descriptors descriptors = {};
    std::optional<uint16_t> loopLength = {};
};
// tablesDefined is sent in place of the true count.
Bytes Mgt(const std::vector<MgtTable>& tables, const SectionHeader& header = {},
          std::optional<uint16_t> tablesDefined = {});

struct VctChannel {
    std::u16string shortName = {};  // at most seven units
    uint16_t major = 0;
    uint16_t minor = 0;
    uint16_t program = 0;
    uint16_t sourceId = 0;
    uint8_t serviceType = 2;  // digital television
    uint8_t modulationMode = 4;
    uint32_t carrierFrequency = 0;
    uint16_t channelTsid = 0;
    uint8_t etmLocation = 0;
    bool accessControlled = false;
    bool hidden = false;
    bool hideGuide = false;
    Descriptors descriptors = {};
    std::optional<uint16_t> loopLength = {};
};
// The terrestrial table, 0xC8. channelCount is sent in place of the true count.
Bytes Vct(uint16_t transportStreamId, const std::vector<VctChannel>& channels, const SectionHeader& header = {},
          std::optional<uint8_t> channelCount = {});

// Descriptors. Language codes are three characters as transmitted.
Bytes Descriptor(uint8_t tag, const Bytes& data);

struct LanguageEntry {
    std::string_view code = {};
    uint8_t audioType = 0;
};
Bytes Language(std::string_view code, uint8_t audioType = 0);
Bytes Languages(const std::vector<LanguageEntry>& entries);

Bytes ServiceDescriptor(uint8_t serviceType, const Bytes& provider, const Bytes& name);

struct TeletextPage {
    std::string_view language = {};
    uint8_t type = 0;      // 1 initial page, 2 subtitle page, ...
    uint8_t magazine = 0;  // 8 is sent as 0
    uint8_t page = 0;      // two decimal digits as hexadecimal ones
};
Bytes Teletext(const std::vector<TeletextPage>& pages);

struct SubtitlingEntry {
    std::string_view language = {};
    uint8_t type = 0;
    uint16_t compositionPage = 0;
    uint16_t ancillaryPage = 0;
};
Bytes Subtitling(const std::vector<SubtitlingEntry>& entries);

struct Ac3Fields {
    std::optional<uint8_t> componentType = {};
    std::optional<uint8_t> bsid = {};
};
Bytes Ac3(const Ac3Fields& fields = {});

Bytes StreamIdentifier(uint8_t componentTag);
Bytes Registration(std::string_view formatIdentifier, const Bytes& additional = {});
Bytes ConditionalAccess(uint16_t systemId, uint16_t pid, const Bytes& privateData = {});

// MPEG-2 video of main profile at main level, 25 Hz.
Bytes VideoStream();
Bytes AvcVideo(uint8_t profile = 77, uint8_t level = 30);

struct DataBroadcastFields {
    uint16_t id = 0;
    uint8_t componentTag = 0;
    Bytes selector = {};
    std::string_view language = "eng";
    Bytes text = {};
};
Bytes DataBroadcast(const DataBroadcastFields& fields);
Bytes DataBroadcastId(uint16_t id, const Bytes& selector = {});

}  // namespace tessel::build
