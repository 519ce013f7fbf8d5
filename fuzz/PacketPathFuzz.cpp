// Raw bytes through the whole packet path: buffer, packet size, sync, tables and outputs.
//
// The input begins with a script of kScriptSize bytes: how the filter is set up, what the outputs want and
// refuse, and steps, which are repeated until the bytes behind the script are used up.
#include <algorithm>
#include <array>
#include <numeric>

#include "Classes/MultiPlatform/ByteReader.h"
#include "fuzz/FuzzFilter.h"
#include "tests/support/StreamBuilder.h"

namespace tessel {
namespace {

constexpr size_t kScriptSize = 16;
constexpr size_t kMaxSinks = 3;
constexpr int kMaxSteps = 1000;
constexpr int kMaxControls = 16;  // they cost more than all else
constexpr int32_t kCapacities[] = {1024, 4096, 16384, 65536};

volatile uint32_t g_read;  // what keeps the reading of delivered bytes

void ReadBytes(std::span<const uint8_t> bytes) {
    g_read = std::accumulate(bytes.begin(), bytes.end(), 0u);
}

class Sink final : public IPacketSink {
public:
    // behaviour: which of the packets it refuses, and whether it asks for sections.
    void SetUp(PacketRouter& router, uint8_t behaviour, uint32_t pid) {
        m_router = &router;
        m_behaviour = behaviour;
        m_pid = pid;
    }

    void Want() {
        m_router->Want(this, m_pid, true);
        m_router->WantAll(this, (m_behaviour & 1) != 0);
        m_router->WantTables(this, (m_behaviour & 2) != 0);
    }

    void AcceptAll() {
        m_behaviour = 0;
        m_router->SetDeliverable(this, true);
    }

    int DeliverPacket(const uint8_t* packet, const TsHeader& header, const AdaptationFieldHeader& adaptation,
                      bool) override {
        Require(packet[0] == kSyncByte && header.SyncByte() == kSyncByte && header.Pid() < kPidCount);
        Require(!header.TransportErrorIndicator() && header.TransportScramblingControl() == 0);
        Require(adaptation.Length() <= kMaxAdaptationFieldLength);
        ReadBytes({packet, kTransportPacketSize});
        ++m_delivered;
        if ((m_behaviour & 4) != 0)
            m_router->Want(this, packet[kTransportPacketSize - 1], m_delivered % 2 != 0);
        // Refuses one of eight packets, of two, or all.
        constexpr uint32_t kRefusals[] = {0, 7, 1, ~0u};
        const uint32_t refusal = kRefusals[m_behaviour >> 3 & 3];
        return refusal == ~0u || (refusal != 0 && m_delivered % (refusal + 1) == 0) ? 1 : 0;
    }

    int DeliverSection(const TsHeader& header, std::span<const uint8_t> section) override {
        Require(header.PayloadUnitStartIndicator() && section.size() >= 3);
        Require(section.size() == 3u + ((section[1] & 0x0Fu) << 8 | section[2]));
        ReadBytes(section);
        return 0;
    }

    std::vector<uint32_t> SectionPids() const override {
        return (m_behaviour & 0x20) != 0 ? std::vector<uint32_t>{m_pid, m_pid + 1, kPidCount} : std::vector<uint32_t>{};
    }

private:
    PacketRouter* m_router = nullptr;
    uint8_t m_behaviour = 0;
    uint32_t m_pid = 0;
    uint32_t m_delivered = 0;
};

// An input on its way into a filter.
class Feed {
public:
    Feed(std::span<const uint8_t> script, std::span<const uint8_t> bytes)
        : m_rest(bytes),
          m_total(bytes.size()),
          m_filter(MakeObject<FuzzFilter>(static_cast<StreamingMode>(script[0] & 3), kCapacities[script[0] >> 2 & 3])),
          m_sinkCount(std::min<size_t>(script[0] >> 5, kMaxSinks)),
          m_steps(script.subspan(4)) {
        for (size_t i = 0; i < m_sinkCount; ++i) {
            m_sinks[i].SetUp(m_filter->Router(), script[1 + i], script[1 + i] * 32u % kPidCount);
            Require(m_filter->Router().Attach(&m_sinks[i]));
            m_sinks[i].Want();
        }
    }

    void Run() {
        for (int step = 0; step < kMaxSteps && !m_rest.empty(); ++step)
            Step(m_steps[static_cast<size_t>(step) % m_steps.size()]);
        CloseWrite();
        m_filter->ParseData();
        m_filter->ReadAll(m_total);
    }

    // Whatever came before, the table of a sound stream is found, once the outputs take packets.
    void RequireGoodPat() {
        for (size_t i = 0; i < m_sinkCount; ++i)
            m_sinks[i].AcceptAll();
        m_filter->ParseData();
        const auto transportStreamId = static_cast<uint16_t>(m_filter->CurrentTransportStreamId() + 1);
        build::Bytes packets = GoodPackets(transportStreamId);
        if (m_filter->Parser().PacketSize() == kTimestampedPacketSize)
            packets = build::Units192(packets);
        Require(m_filter->Push(packets));
        ComPtr<IDvbTable> pat;
        Require(m_filter->CurrentTransportStreamId() == transportStreamId);
        Require(m_filter->GetTable(kProgramAssociationTable, transportStreamId, pat.Put()) == S_OK);
        Require(m_filter->PidStatus().IsPresent(0));
        m_filter->ReadAll(m_total + packets.size());
        FinishServices(*m_filter->Services());
    }

private:
    void Step(uint8_t step) {
        // All but a restart may happen while a write is open.
        if ((step & 7) != 7 || step >> 3 == 2)
            CloseWrite();
        const auto wanted = static_cast<int32_t>(1 + (step >> 3) * 37);
        const auto length = std::min(wanted, static_cast<int32_t>(m_rest.size()));
        switch (step & 7) {
        case 2:
            ParseInPlace(length);
            break;
        case 3:
            OpenWrite(length);
            CloseWrite();
            break;
        case 4:
            OpenWrite(length);
            Require(m_filter->DetectPacketSize() == E_ABORT || m_write.empty());
            break;
        case 5:
            m_filter->DetectPacketSize();
            break;
        case 6:
            m_filter->NoteArrival();
            Add(length);
            return;
        case 7:
            if (m_controlsLeft-- > 0)
                Control(step >> 3);
            break;
        default:
            Add(length);
            break;
        }
        const HRESULT parsed = m_filter->ParseData();
        Require(parsed == S_OK || (parsed == S_FALSE && m_filter->Mode() == StreamingMode::kFile));
    }

    void Add(int32_t length) {
        const uint8_t* data = m_rest.data();
        const int32_t before = length;
        const HRESULT result = m_filter->AddData(&data, &length);
        Require(length >= 0 && data == m_rest.data() + (before - length));
        Require(result == S_OK || (length == before && result == E_OUTOFMEMORY));
        m_rest = m_rest.subspan(static_cast<size_t>(before - length));
    }

    void ParseInPlace(int32_t length) {
        const uint8_t* data = m_rest.data();
        const int32_t before = length;
        m_filter->ParseInPlace(&data, &length);
        Require(length >= 0 && data == m_rest.data() + (before - length));
        m_rest = m_rest.subspan(static_cast<size_t>(before - length));
        Add(length);
    }

    void OpenWrite(int32_t length) {
        m_write = m_filter->ReserveData(length);
        Require(m_write.size() <= static_cast<size_t>(length));
    }

    // The bytes are written as late as can be: nothing may have moved.
    void CloseWrite() {
        if (m_write.empty())
            return;
        const size_t kept = m_write.size() - m_write.size() / 4;
        std::copy_n(m_rest.begin(), kept, m_write.begin());
        m_rest = m_rest.subspan(kept);
        m_filter->CommitData(static_cast<int32_t>(kept));
        m_write = {};
    }

    void Control(int what) {
        Sink& sink = m_sinks[0];
        PacketRouter& router = m_filter->Router();
        switch (what) {
        case 0:
            m_filter->InternalReset();
            Require(m_filter->TableVersions().empty() && m_filter->CurrentTransportStreamId() == 0);
            break;
        case 1:
            m_filter->FlushBuffer();
            break;
        case 2:
            Require(m_filter->StopStreaming() == S_OK && m_filter->ParseData() == E_UNEXPECTED);
            Require(m_filter->ReserveData(1).empty() && m_filter->StartStreaming() == S_OK);
            break;
        case 3:
            m_filter->ReadAll(m_total);
            break;
        case 4:
            if (m_sinkCount > 0) {
                router.Detach(&sink);
                Require(router.Sinks().size() == m_sinkCount - 1 && router.Attach(&sink));
                sink.Want();
            }
            break;
        case 5:
        case 6:
            router.SetDeliverable(&sink, what == 5);
            break;
        case 7:
            FinishServices(*m_filter->Services());
            break;
        default:
            m_filter->AddTablePid(kProgramMapTable, 0, static_cast<uint32_t>(what) * 512);
            break;
        }
    }

    // No byte of the null packets between looks like a sync byte, so that a false sync does not last.
    static build::Bytes GoodPackets(uint16_t transportStreamId) {
        static const build::Bytes nulls = build::StreamBuilder().Null().Null().Null().bytes();
        build::StreamBuilder pat;
        pat.Section(0, build::Pat(transportStreamId, {{1, 0x0100}}));
        build::Bytes packets;
        for (uint8_t counter = 0; counter < 8; ++counter) {
            pat.bytes()[3] = static_cast<uint8_t>((pat.bytes()[3] & 0xF0) | counter);
            packets.insert(packets.end(), pat.bytes().begin(), pat.bytes().end());
            packets.insert(packets.end(), nulls.begin(), nulls.end());
        }
        return packets;
    }

    std::span<const uint8_t> m_rest;
    const size_t m_total;
    const ComPtr<FuzzFilter> m_filter;
    const size_t m_sinkCount;
    const std::span<const uint8_t> m_steps;
    std::array<Sink, kMaxSinks> m_sinks;
    std::span<uint8_t> m_write;
    int m_controlsLeft = kMaxControls;
};

// Puts the bytes that are sync bytes in a whole stream, so that mutations reach what lies behind the sync.
void Frame(std::span<uint8_t> bytes) {
    for (size_t at = 0; at < bytes.size(); at += kTransportPacketSize)
        bytes[at] = kSyncByte;
}

}  // namespace
}  // namespace tessel

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace tessel;
    if (size < kScriptSize)
        return 0;
    const NoObjectsLeft check;
    const std::span<const uint8_t> script(data, kScriptSize);
    std::vector<uint8_t> bytes(data + kScriptSize, data + size);
    if ((script[0] & 0x10) != 0)
        Frame(bytes);
    Feed feed(script, bytes);
    feed.Run();
    feed.RequireGoodPat();
    return 0;
}
