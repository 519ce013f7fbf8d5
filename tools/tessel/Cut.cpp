#include "tools/tessel/Cut.h"

#include <algorithm>
#include <array>
#include <cerrno>

#include "core/stream/PesHeader.h"
#include "source/PacketReader.h"
#include "tables/Crc32.h"
#include "tools/tessel/Demux.h"
#include "tools/tessel/Failure.h"
#include "tools/tessel/FilePlayer.h"
#include "tools/tessel/Interrupt.h"
#include "tools/tessel/OutputFile.h"
#include "tools/tessel/ProgramMapLog.h"
#include "tools/tessel/Progress.h"
#include "tools/tessel/StreamReader.h"

namespace tessel::tool {

namespace {

// How far back a program map is looked for at first, and how far PES packets reach that have begun before the end.
constexpr int64_t kLookBack = 4 << 20;
constexpr int64_t kTail = 8 << 20;
constexpr int64_t kShownEvery = 256 * 1024;

class FilePackets {
public:
    FilePackets(InputFile& input, int32_t packetSize)
        : m_file(OpenInputStream(input.Name())), m_input(input), m_packetSize(packetSize) {
        m_reader.emplace(*m_file.Get(), packetSize);
    }

    // Calls visit(view, position) for the clear packets that begin in this part, until it returns false.
    template <class Visit>
    void ForEach(int64_t begin, int64_t end, Visit visit) {
        if (!m_reader->MoveTo(begin))
            throw Failure(m_input.Name() + ": cannot be sought in");
        while (const uint8_t* const packet = m_reader->ReadPacket()) {
            if (m_reader->Position() >= end)
                return;
            const PacketView view(packet);
            if (view.IsClear() && !visit(view, m_reader->Position()))
                return;
        }
        if (const auto position = m_reader->Unreadable())
            m_input.NoteUnreadable(*position, EIO);
        VisitLast(end, visit);
    }

private:
    // The reader holds the last packet of a file back, for no other says that it is one. Behind so many it is.
    template <class Visit>
    void VisitLast(int64_t end, Visit visit) {
        const int64_t position = m_reader->Position() + m_packetSize;
        std::array<uint8_t, kTransportPacketSize> packet;
        ULONG read = 0;
        if (position < end && SUCCEEDED(m_file->Seek(position, STREAM_SEEK_SET, nullptr)) &&
            SUCCEEDED(m_file->Read(packet.data(), kTransportPacketSize, &read)) && read == packet.size() &&
            packet[0] == kSyncByte)
            if (const PacketView view(packet.data()); view.IsClear())
                visit(view, position);
    }

    ComPtr<IStream> m_file;
    InputFile& m_input;
    const int32_t m_packetSize;
    std::optional<CPacketReader> m_reader;
};

// A PAT that names one program; ISO/IEC 13818-1 clause 2.4.4.3.
class PatWriter {
public:
    PatWriter(uint32_t transportStreamId, uint32_t programNumber, uint32_t pmtPid) {
        m_packet.fill(0xFF);
        const std::array<uint8_t, 17> head = {kSyncByte,
                                              0x40,
                                              0,
                                              0x10,
                                              0,
                                              0x00,
                                              0xB0,
                                              13,
                                              static_cast<uint8_t>(transportStreamId >> 8),
                                              static_cast<uint8_t>(transportStreamId),
                                              0xC1,
                                              0,
                                              0,
                                              static_cast<uint8_t>(programNumber >> 8),
                                              static_cast<uint8_t>(programNumber),
                                              static_cast<uint8_t>(0xE0 | pmtPid >> 8),
                                              static_cast<uint8_t>(pmtPid)};
        std::copy(head.begin(), head.end(), m_packet.begin());
        constexpr size_t kSection = 5;
        const uint32_t crc = Mpeg2Crc32(std::span(m_packet).subspan(kSection, head.size() - kSection));
        for (size_t i = 0; i < 4; ++i)
            m_packet[head.size() + i] = static_cast<uint8_t>(crc >> (24 - 8 * i));
    }

    std::span<const uint8_t> Next() {
        m_packet[3] = static_cast<uint8_t>(0x10 | m_counter);
        m_counter = (m_counter + 1) & 0x0F;
        return m_packet;
    }

private:
    std::array<uint8_t, kTransportPacketSize> m_packet;
    uint8_t m_counter = 0;
};

// Which PES packets have begun, so that each stream begins and ends with a whole one.
class PesLedger {
public:
    // end: a stream ends in front of the first PES packet that is decoded then or later; kNoTimestamp for none.
    explicit PesLedger(int64_t end) : m_end(end) {}

    // True when the packet belongs to a PES packet that has begun. more: a new one may begin.
    bool Take(const PacketView& view, bool more) {
        Stream& stream = m_streams[view.header.Pid()];
        const auto length = static_cast<int64_t>(view.payload.size());
        if (length == 0)
            return more && stream.begun;
        if (view.header.PayloadUnitStartIndicator()) {
            SetOpen(stream, false);
            stream.ended |= IsPastEnd(view.payload);
            if (!more || stream.ended)
                return false;
            stream.begun = true;
            // PES_packet_length counts what follows it; 0 of video: up to the next.
            const int64_t rest = length >= 6 ? view.payload[4] << 8 | view.payload[5] : 0;
            stream.left = rest != 0 ? rest + 6 - length : INT64_MAX;
            SetOpen(stream, stream.left > 0);
            return true;
        }
        if ((!more || stream.ended) && !stream.open)
            return false;
        if (stream.left != INT64_MAX) {
            stream.left -= length;
            SetOpen(stream, stream.open && stream.left > 0);
        }
        return stream.begun;
    }
    bool AnyOpen() const { return m_open != 0; }
    bool AnyBegun() const {
        return std::any_of(m_streams.begin(), m_streams.end(), [](const Stream& stream) { return stream.begun; });
    }

private:
    struct Stream {
        bool begun = false;
        bool open = false;
        bool ended = false;
        int64_t left = 0;
    };

    bool IsPastEnd(std::span<const uint8_t> payload) const {
        if (m_end == kNoTimestamp || payload.size() < kLeastPesHeader || !IsPesStart(payload))
            return false;
        const int64_t timestamp = ParsePesHeader(payload).timestamp;
        return timestamp != kNoTimestamp && (timestamp - m_end + kTimestampWrap) % kTimestampWrap < kTimestampWrap / 2;
    }
    void SetOpen(Stream& stream, bool open) {
        m_open += static_cast<int>(open) - static_cast<int>(stream.open);
        stream.open = open;
    }

    const int64_t m_end;
    std::vector<Stream> m_streams = std::vector<Stream>(kPidCount);
    int m_open = 0;
};

// The program map that holds at the beginning of the part.
struct Head {
    std::vector<uint8_t> packets;
    ProgramMapLog::Pids streams;
    size_t taken = 0;  // so many of its PID in the part belong to it, or come before it
};

Head FindHead(FilePackets& packets, uint32_t pmtPid, uint32_t program, ByteRange range) {
    Head head;
    const auto look = [&](int64_t from, int64_t to, bool onlyFirst) {
        ProgramMapLog log(pmtPid, program);
        std::vector<uint8_t> before;
        size_t count = 0;
        bool found = false;
        packets.ForEach(from, to, [&](const PacketView& view, int64_t) {
            if (Interrupted())
                return false;
            if (view.header.Pid() != pmtPid)
                return true;
            found |= log.Take(view);
            if (found && onlyFirst)
                return false;
            ++count;
            return true;
        });
        if (!found)
            return false;
        head.packets = log.Packets();
        head.streams = log.Streams();
        if (onlyFirst) {
            head.packets.resize(head.packets.size() - kTransportPacketSize);  // what completed it
            head.taken = count;
        }
        return true;
    };
    for (int64_t back = kLookBack; range.begin > 0; back *= 4) {
        const int64_t from = std::max<int64_t>(range.begin - back, 0);
        if (look(from, range.begin, false))
            return head;
        if (from == 0 || Interrupted())
            break;
    }
    if (!look(range.begin, range.end, true))
        throw Failure("the service has no program map in that part");
    return head;
}

const ServiceInfo& ChooseService(const std::vector<ServiceInfo>& services, const std::optional<std::string>& wanted) {
    DemuxRequest request;
    request.service = wanted;
    for (const ServiceInfo& service : services)
        if (request.Wants(service) && service.hasProgramMap && service.pmtPid)
            return service;
    if (!wanted)
        throw Failure("no service has a usable program map; `tessel extract` takes PIDs that no service names");
    throw Failure("there is no service \"" + *wanted +
                  "\" with a usable program map; `tessel info` lists those that there are");
}

class Cutter {
public:
    Cutter(FilePackets& packets, const ServiceInfo& service, const Head& head, uint32_t transportStreamId,
           ByteRange range, OutputFile& output)
        : m_packets(packets),
          m_pmtPid(*service.pmtPid),
          m_pat(transportStreamId, service.id, m_pmtPid),
          m_map(m_pmtPid, service.id),
          m_head(head),
          m_streams(head.streams),
          m_range(range),
          m_pes(range.endTimestamp),
          m_output(output) {}

    void Do(Progress& progress) {
        m_output.Write(m_pat.Next());
        m_output.Write(m_head.packets);
        int64_t last = m_range.end == INT64_MAX ? INT64_MAX : m_range.end - kLookAheadBytes;
        m_packets.ForEach(m_range.begin, INT64_MAX, [&](const PacketView& view, int64_t position) {
            if (Interrupted())
                last = std::min(last, position);
            const bool more = position < last;
            if (!more && (!m_pes.AnyOpen() || position - last > kTail))
                return false;
            if (position >= m_nextShown) {
                progress.Show(position - m_range.begin);
                m_nextShown = position + kShownEvery;
            }
            Take(view, more);
            return true;
        });
        if (!m_pes.AnyBegun())
            throw Failure("nothing of the service is in that part, or all of it is scrambled");
        m_output.Close();
    }

private:
    void Take(const PacketView& view, bool more) {
        const uint32_t pid = view.header.Pid();
        if (pid == 0) {
            if (more && view.header.PayloadUnitStartIndicator())
                m_output.Write(m_pat.Next());
        } else if (pid == m_pmtPid) {
            if (m_map.Take(view))
                m_streams |= m_map.Streams();
            if (more && m_mapPackets++ >= m_head.taken)
                Write(view);
        } else if (m_streams.test(pid) && m_pes.Take(view, more)) {
            Write(view);
            m_output.Keep();
        } else if (m_streams.test(pid) && more && IsClockAlone(view)) {
            Write(view);
        }
    }
    static bool IsClockAlone(const PacketView& view) { return view.payload.empty() && view.adaptation.PcrFlag(); }
    void Write(const PacketView& view) { m_output.Write({view.packet, kTransportPacketSize}); }

    FilePackets& m_packets;
    const uint32_t m_pmtPid;
    PatWriter m_pat;
    ProgramMapLog m_map;
    const Head& m_head;
    ProgramMapLog::Pids m_streams;
    size_t m_mapPackets = 0;
    const ByteRange m_range;
    int64_t m_nextShown = 0;
    PesLedger m_pes;
    OutputFile& m_output;
};

}  // namespace

int64_t Cut(InputFile& input, const std::optional<std::string>& service, const TimeSpan& span,
            const std::string& output) {
    OutputFile file(output, input);
    Feed feed(input);
    PacketMeter meter;
    const FoundServices found = FindServices(feed, meter, [](const ServiceInfo&) { return true; });
    if (!meter.FoundPackets())
        throw Failure(NoStreamText(input));
    const ServiceInfo& chosen = ChooseService(found.services, service);
    std::string why;
    const auto player = FilePlayer::Open(input.Name(), 1, found.latePids, &why);
    if (!player)
        throw CannotCut(input.Name(), why);
    CTsSource& source = player->Source(0);
    ByteRange range;
    if (!span.IsWhole()) {
        const auto stream = FindTimingStream(found.services, chosen.id);
        if (!stream)
            throw CannotCut(input.Name(), "the service has no clear video or audio to time it by");
        range = SeekToPart(source, *stream, span, input.Name());
    }
    uint32_t transportStreamId = 0;
    source.GetTransportStreamId(&transportStreamId);
    feed.Restart();  // what may be wrong with the file's beginning is none of this part
    FilePackets packets(input, source.Parser().PacketSize());
    const Head head = FindHead(packets, *chosen.pmtPid, chosen.id, range);
    const int64_t end = std::min(range.end, input.Size().value_or(INT64_MAX));
    Progress progress(end != INT64_MAX ? std::optional(end - range.begin) : std::nullopt);
    Cutter(packets, chosen, head, transportStreamId, range, file).Do(progress);
    return range.beginTime;
}

}  // namespace tessel::tool
