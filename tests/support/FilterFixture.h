// A filter of nothing but the common base, and a sink that writes down what it is offered.
#pragma once

#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "core/TsFilterBase.h"
#include "tests/support/StreamBuilder.h"

namespace tessel {

class BareFilter final : public CTsFilterBase {
public:
    explicit BareFilter(int32_t capacity = PacketParser::kDefaultCapacity) : CTsFilterBase("BareFilter", capacity) {}

    // Adds all bytes, parsing whenever the buffer is full and at the end; the last result of ParseData.
    HRESULT Feed(std::span<const uint8_t> bytes) {
        const uint8_t* data = bytes.data();
        HRESULT result = S_OK;
        for (auto length = static_cast<int32_t>(bytes.size()); length > 0;) {
            const HRESULT added = AddData(&data, &length);
            EXPECT_EQ(added, S_OK);
            if (added != S_OK)
                return added;
            result = ParseData();
        }
        return result;
    }

    using CTsFilterBase::CurrentProgramMapTables;

    REFERENCE_TIME m_time = 0;

private:
    REFERENCE_TIME CurrentStreamTime() override { return m_time; }
};

inline ComPtr<BareFilter> MakeFilter(StreamingMode mode = StreamingMode::kStream,
                                     int32_t capacity = PacketParser::kDefaultCapacity) {
    auto filter = MakeObject<BareFilter>(capacity);
    EXPECT_EQ(filter->SetMode(mode, 1), S_OK);
    EXPECT_EQ(filter->StartStreaming(), S_OK);
    return filter;
}

// A stream whose sections complete at once.
class TableStream : public build::StreamBuilder {
public:
    // The section, and the unit start that completes it: a short section that no table takes.
    TableStream& Table(uint16_t pid, const build::Bytes& section, const build::SectionOptions& options = {}) {
        Section(pid, section, options);
        Section(pid, build::ShortSection(0xFE, {}));
        return *this;
    }
    // What was added since the last call. A last packet is only parsed when more follows it, so a null packet does.
    build::Bytes Take() { return std::exchange(Null().bytes(), {}); }
};

class RecordingSink final : public IPacketSink {
public:
    int DeliverPacket(const uint8_t*, const TsHeader& header, const AdaptationFieldHeader&, bool hasFilter) override {
        packets.emplace_back(header.Pid(), hasFilter);
        return refuse || packets.size() % (refusals + 1) != 0 ? 1 : 0;
    }
    int DeliverSection(const TsHeader& header, std::span<const uint8_t> section) override {
        if (section[0] != 0xFE)
            sections.emplace_back(header.Pid(), build::Bytes(section.begin(), section.end()));
        return 0;
    }
    std::vector<uint32_t> SectionPids() const override { return sectionPids; }

    std::vector<uint32_t> Pids() const {
        std::vector<uint32_t> pids;
        for (const auto& packet : packets)
            pids.push_back(packet.first);
        return pids;
    }

    std::vector<std::pair<uint32_t, bool>> packets;  // PID, whether it has a section filter
    std::vector<std::pair<uint32_t, build::Bytes>> sections;
    std::vector<uint32_t> sectionPids;
    bool refuse = false;  // every packet
    size_t refusals = 0;  // how often it refuses a packet before it takes it
};

}  // namespace tessel
