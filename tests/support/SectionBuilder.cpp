#include "tests/support/SectionBuilder.h"

#include <stdexcept>

namespace tessel::build {

namespace {

Bytes Code(std::string_view language) {
    if (language.size() != 3)
        throw std::invalid_argument("a language code has three characters");
    return Text(language);
}

// reserved, a 12-bit or 10-bit length, the loop.
void PutLoop(BitWriter& out, const Descriptors& descriptors, std::optional<uint16_t> length, unsigned lengthBits = 12) {
    const Bytes loop = Join(descriptors);
    const size_t value = length.value_or(loop.size());
    if (value >> lengthBits)
        throw std::length_error("descriptor loop");
    out.Put(~0ull, 16 - lengthBits).Put(value, lengthBits).Put(loop);
}

// The first three bytes. The second bit is private_indicator, which the tables of ISO/IEC 13818-1 leave clear.
void PutSectionStart(BitWriter& out, uint8_t tableId, bool syntax, size_t length) {
    if (length > 0xFFF)
        throw std::length_error("section_length");
    out.Put(tableId, 8).Put(syntax, 1).Put(tableId >= 0x40, 1).Put(3, 2).Put(length, 12);
}

}  // namespace

Bytes Join(const std::vector<Bytes>& parts) {
    Bytes all;
    for (const Bytes& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

Bytes Text(std::string_view characters) {
    return {characters.begin(), characters.end()};
}

BitWriter& BitWriter::Put(uint64_t value, unsigned bits) {
    while (bits-- > 0) {
        if (m_free == 0) {
            m_bytes.push_back(0);
            m_free = 8;
        }
        m_bytes.back() |= static_cast<uint8_t>((value >> bits & 1) << --m_free);
    }
    return *this;
}

BitWriter& BitWriter::Put(std::span<const uint8_t> bytes) {
    if (m_free != 0)
        throw std::invalid_argument("bytes within a byte");
    m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
    return *this;
}

uint32_t Crc32(std::span<const uint8_t> bytes) {
    uint32_t crc = 0xFFFFFFFF;
    for (const uint8_t byte : bytes) {
        for (int bit = 7; bit >= 0; --bit) {
            const uint32_t feedback = (crc >> 31) ^ (byte >> bit & 1);
            crc = crc << 1 ^ (feedback != 0 ? 0x04C11DB7 : 0);
        }
    }
    return crc;
}

Bytes LongSection(uint8_t tableId, uint16_t extension, const Bytes& payload, const SectionHeader& header) {
    BitWriter out;
    PutSectionStart(out, tableId, true, header.sectionLength.value_or(5 + payload.size() + 4));
    out.Put(extension, 16).Put(3, 2).Put(header.version, 5).Put(header.currentNext, 1);
    out.Put(header.sectionNumber, 8).Put(header.lastSectionNumber, 8).Put(payload);
    out.Put(Crc32(out.bytes()), 32);
    return out.bytes();
}

Bytes ShortSection(uint8_t tableId, const Bytes& payload, std::optional<uint16_t> sectionLength) {
    BitWriter out;
    PutSectionStart(out, tableId, false, sectionLength.value_or(payload.size()));
    return out.Put(payload).bytes();
}

Bytes Pat(uint16_t transportStreamId, const std::vector<PatProgram>& programs, const SectionHeader& header) {
    BitWriter out;
    for (const PatProgram& program : programs)
        out.Put(program.program, 16).Put(7, 3).Put(program.pid, 13);
    return LongSection(0x00, transportStreamId, out.bytes(), header);
}

Bytes Pmt(const PmtFields& fields, const SectionHeader& header) {
    BitWriter out;
    out.Put(7, 3).Put(fields.pcrPid, 13);
    PutLoop(out, fields.descriptors, fields.infoLength);
    for (const PmtStream& stream : fields.streams) {
        out.Put(stream.streamType, 8).Put(7, 3).Put(stream.pid, 13);
        PutLoop(out, stream.descriptors, stream.infoLength);
    }
    return LongSection(0x02, fields.program, out.bytes(), header);
}

Bytes Sdt(const SdtFields& fields, const SectionHeader& header) {
    BitWriter out;
    out.Put(fields.originalNetworkId, 16).Put(0xFF, 8);
    for (const SdtService& service : fields.services) {
        const Bytes loop = Join(service.descriptors);
        out.Put(service.serviceId, 16).Put(0xFC, 8);
        out.Put(service.runningStatus, 3).Put(service.freeCaMode, 1);
        out.Put(service.loopLength.value_or(loop.size()), 12).Put(loop);
    }
    return LongSection(fields.tableId, fields.transportStreamId, out.bytes(), header);
}

Bytes Mgt(const std::vector<MgtTable>& tables, const SectionHeader& header, std::optional<uint16_t> tablesDefined) {
    BitWriter out;
    out.Put(0, 8).Put(tablesDefined.value_or(tables.size()), 16);
    for (const MgtTable& table : tables) {
        out.Put(table.tableType, 16).Put(7, 3).Put(table.pid, 13).Put(7, 3).Put(table.version, 5);
        out.Put(table.numberBytes, 32);
        PutLoop(out, table.descriptors, table.loopLength);
    }
    PutLoop(out, {}, {});
    return LongSection(0xC7, 0, out.bytes(), header);
}

Bytes Vct(uint16_t transportStreamId, const std::vector<VctChannel>& channels, const SectionHeader& header,
          std::optional<uint8_t> channelCount) {
    BitWriter out;
    out.Put(0, 8).Put(channelCount.value_or(channels.size()), 8);
    for (const VctChannel& channel : channels) {
        if (channel.shortName.size() > 7)
            throw std::length_error("short_name");
        for (size_t i = 0; i < 7; ++i)
            out.Put(i < channel.shortName.size() ? channel.shortName[i] : 0, 16);
        out.Put(15, 4).Put(channel.major, 10).Put(channel.minor, 10).Put(channel.modulationMode, 8);
        out.Put(channel.carrierFrequency, 32).Put(channel.channelTsid, 16).Put(channel.program, 16);
        out.Put(channel.etmLocation, 2).Put(channel.accessControlled, 1).Put(channel.hidden, 1).Put(3, 2);
        out.Put(channel.hideGuide, 1).Put(7, 3).Put(channel.serviceType, 6).Put(channel.sourceId, 16);
        PutLoop(out, channel.descriptors, channel.loopLength, 10);
    }
    PutLoop(out, {}, {}, 10);
    return LongSection(0xC8, transportStreamId, out.bytes(), header);
}

Bytes Descriptor(uint8_t tag, const Bytes& data) {
    if (data.size() > 0xFF)
        throw std::length_error("descriptor_length");
    return Join({{tag, static_cast<uint8_t>(data.size())}, data});
}

Bytes Language(std::string_view code, uint8_t audioType) {
    return Languages({{code, audioType}});
}

Bytes Languages(const std::vector<LanguageEntry>& entries) {
    BitWriter out;
    for (const LanguageEntry& entry : entries)
        out.Put(Code(entry.code)).Put(entry.audioType, 8);
    return Descriptor(0x0A, out.bytes());
}

Bytes ServiceDescriptor(uint8_t serviceType, const Bytes& provider, const Bytes& name) {
    BitWriter out;
    out.Put(serviceType, 8).Put(provider.size(), 8).Put(provider).Put(name.size(), 8).Put(name);
    return Descriptor(0x48, out.bytes());
}

Bytes Teletext(const std::vector<TeletextPage>& pages) {
    BitWriter out;
    for (const TeletextPage& page : pages)
        out.Put(Code(page.language)).Put(page.type, 5).Put(page.magazine, 3).Put(page.page, 8);
    return Descriptor(0x56, out.bytes());
}

Bytes Subtitling(const std::vector<SubtitlingEntry>& entries) {
    BitWriter out;
    for (const SubtitlingEntry& entry : entries)
        out.Put(Code(entry.language)).Put(entry.type, 8).Put(entry.compositionPage, 16).Put(entry.ancillaryPage, 16);
    return Descriptor(0x59, out.bytes());
}

Bytes Ac3(const Ac3Fields& fields) {
    BitWriter out;
    const auto optional = {fields.componentType, fields.bsid};
    for (const auto& field : optional)
        out.Put(field.has_value(), 1);
    out.Put(0, 6);
    for (const auto& field : optional) {
        if (field)
            out.Put(*field, 8);
    }
    return Descriptor(0x6A, out.bytes());
}

Bytes StreamIdentifier(uint8_t componentTag) {
    return Descriptor(0x52, {componentTag});
}

Bytes Registration(std::string_view formatIdentifier, const Bytes& additional) {
    return Descriptor(0x05, Join({Text(formatIdentifier), additional}));
}

Bytes ConditionalAccess(uint16_t systemId, uint16_t pid, const Bytes& privateData) {
    BitWriter out;
    out.Put(systemId, 16).Put(7, 3).Put(pid, 13).Put(privateData);
    return Descriptor(0x09, out.bytes());
}

Bytes VideoStream() {
    return Descriptor(0x02, {0x18, 0x48, 0x5F});
}

Bytes AvcVideo(uint8_t profile, uint8_t level) {
    return Descriptor(0x28, {profile, 0, level, 0x3F});
}

Bytes DataBroadcast(const DataBroadcastFields& fields) {
    BitWriter out;
    out.Put(fields.id, 16).Put(fields.componentTag, 8).Put(fields.selector.size(), 8).Put(fields.selector);
    out.Put(Code(fields.language)).Put(fields.text.size(), 8).Put(fields.text);
    return Descriptor(0x64, out.bytes());
}

Bytes DataBroadcastId(uint16_t id, const Bytes& selector) {
    BitWriter out;
    out.Put(id, 16).Put(selector);
    return Descriptor(0x66, out.bytes());
}

}  // namespace tessel::build
