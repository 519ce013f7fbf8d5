#include "output/ElementaryStream.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "Classes/MultiPlatform/GenUtilMP.h"
#include "output/TsOutputPin.h"
#include "services/objects/Parameters.h"

namespace tessel {

namespace {

constexpr int32_t kFirstCapacity = 0x30000;
// Beyond the first, while streaming, the parser waits; up to the second, before the start, data piles up;
// then a quarter of it, the oldest, goes.
constexpr int32_t kStreamingCapacity = 0x300000;
constexpr int32_t kWaitingCapacity = 0x900000;
constexpr int32_t kQuarter = 2'359'296;

// How often, at most, a full buffer makes the parser wait for the start before data goes.
constexpr int32_t kMostRefusals = 10;

constexpr int32_t kShortAudio = 300;
constexpr int64_t kPictureOverdue = 15'000;  // 90 kHz: a sixth of a second

// 100 ns.
constexpr REFERENCE_TIME kTooEarly = 200'000;
constexpr REFERENCE_TIME kWakeBefore = 150'000;
constexpr REFERENCE_TIME kTooLate = 100'000;

constexpr int32_t kVersionUnknown = -1;

int32_t VersionOf(IDvbProgramMapTable* table) {
    uint32_t version = 0;
    const auto parameters = ComPtr<IDvbProgramMapTable>(table).As<IGetSetCOMParam>();
    if (!parameters || parameters->GetParam(param::kVersionNumber, &version) != S_OK)
        return kVersionUnknown;
    return static_cast<int32_t>(version);
}

}  // namespace

HRESULT CElementaryStream::OnActive() {
    m_capacity = kFirstCapacity;
    try {
        m_cache = std::make_unique<CPayloadCache>();
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    return S_OK;
}

void CElementaryStream::OnReset() {
    if (m_cache)
        m_cache->Clear();
    m_lastContinuityCounter = -1;
    m_headerLeft = 0;
    m_programNumber = 0;
    m_streamPid = kNoPid;
    m_patience = kMostRefusals;
}

int32_t CElementaryStream::PendingBytes(bool startPending, bool eosPending) {
    const int32_t buffered = m_cache ? m_cache->Available() : 0;
    if (startPending || eosPending || m_full)
        return buffered;
    switch (m_pin.Media()) {
    case MediaClass::kVideo: {
        if (m_marks.size() != 1)
            return m_marks.empty() ? 0 : buffered;
        // One picture goes out when the next has begun, or is overdue.
        const int64_t last = m_sampleClock.LastRawTimestamp();
        return m_marks.front().timestamp >= last + kPictureOverdue ? buffered : 0;
    }
    case MediaClass::kAudio:
        return buffered < kShortAudio ? 0 : buffered;
    default:
        return buffered;
    }
}

bool CElementaryStream::UpdateMapping(IEnumPIDMap* mapping) {
    mapping->Reset();
    PID_MAP entry{kNoPid, MEDIA_ELEMENTARY_STREAM};
    const bool mapped = mapping->Next(1, &entry, nullptr) == S_OK;
    if (mapped && entry.ulPID == m_streamPid)
        return false;
    m_streamPid = mapped ? entry.ulPID : kNoPid;
    m_programNumber = 0;
    return CStreamExecutor::UpdateMapping(mapping);
}

bool CElementaryStream::WantsProgram(uint32_t programNumber, int32_t version) {
    if (m_programNumber == 0)
        return true;
    if (m_programNumber != programNumber || version == kVersionUnknown)
        return false;
    const bool changed = version != m_pmtVersion;
    m_pmtVersion = version;
    return changed || m_pcrPid == kProgramUnknown;
}

CElementaryStream::Binding CElementaryStream::FindStream(IDvbProgramMapTable& table, uint32_t pid) {
    Binding binding;
    ComPtr<IDvbCollection> components;
    if (FAILED(table.GetComponents(components.Put())))
        return binding;
    for (int32_t i = 0; const auto component = ItemAs<IDvbComponentEx>(components.Get(), i); ++i) {
        uint32_t componentPid = kNoPid;
        component->GetPid(&componentPid);
        if (componentPid != pid)
            continue;
        binding.result = S_OK;
        binding.hasType = SUCCEEDED(component->GetMediaType(&binding.type));
        table.GetPcrPid(&binding.pcrPid);
        break;
    }
    return binding;
}

HRESULT CElementaryStream::SetProgram(uint32_t programNumber, IDvbProgramMapTable* table, uint32_t epoch) {
    CScopedLock bind(&m_bindLock);
    const int32_t version = VersionOf(table);
    uint32_t pid = kNoPid;
    {
        CScopedLock lock(&m_lock);
        if (epoch != Epoch())
            return S_OK;
        if (m_streamPid == kNoPid || m_pin.IsEosDelivered()) {
            m_pcrPid = kNoStream;
            CloseUpdate();
            m_state = State::kStreaming;
            return S_OK;
        }
        if (!WantsProgram(programNumber, version))
            return S_OK;
        pid = m_streamPid;
    }
    // Without the lock: the pin asks the receiver.
    Binding binding = FindStream(*table, pid);
    if (binding.result == S_FALSE)
        return S_OK;
    if (version == kVersionUnknown)
        return E_FAIL;
    if (binding.hasType)
        binding.result = m_pin.SetOutputType(&binding.type);

    CScopedLock lock(&m_lock);
    if (epoch != Epoch() || pid != m_streamPid)
        return S_OK;
    m_programNumber = programNumber;
    m_pmtVersion = version;
    return binding.hasType ? Bind(binding) : S_OK;
}

HRESULT CElementaryStream::Bind(const Binding& binding) {
    if (FAILED(binding.result)) {
        FlushCache();
        return E_FAIL;
    }
    const auto pcrPid = static_cast<int32_t>(binding.pcrPid);
    const bool waits = m_state == State::kWaitingForProgram;  // with an update open
    // A new version that leaves the clock alone leaves the stream alone.
    const bool starts = waits || pcrPid != m_pcrPid;
    if (starts && !waits)
        m_host.BeginPcrUpdate();
    m_pcrPid = pcrPid;
    if (binding.pcrPid == kNullPid) {
        if (starts && !waits)
            m_host.EndPcrUpdate();
        FlushCache();
        return E_FAIL;
    }
    if (!starts)
        return S_OK;
    m_host.EndPcrUpdate();
    if (m_pin.IsConnected()) {
        m_state = State::kWaitingForStart;
        m_pin.SetStartPending();
    } else {
        m_state = State::kStreaming;
    }
    return S_OK;
}

void CElementaryStream::FlushCache() {
    if (m_cache)
        m_cache->Clear();
    m_bytesOut = m_bytesIn.load();
    m_full = false;
    m_pin.OnRoomMade();
}

HRESULT CElementaryStream::Drop(int32_t bytes) {
    const int32_t buffered = m_cache ? m_cache->Available() : 0;
    const int32_t dropped = bytes > buffered ? buffered : std::max(bytes, buffered / 5);
    CountLost(dropped);
    Discard(dropped);
    return S_OK;
}

void CElementaryStream::Discard(int32_t bytes) {
    if (bytes <= 0)
        return;
    m_cache->Skip(bytes);
    Consumed(bytes);
}

HRESULT CElementaryStream::MakeRoom(int32_t bytes) {
    while (m_cache->Available() + bytes > m_capacity) {
        if (m_state == State::kStreaming && m_capacity >= kStreamingCapacity)
            return E_OUTOFMEMORY;
        if (m_capacity < kWaitingCapacity) {
            m_capacity += m_capacity / 2;
            continue;
        }
        // A file is read faster than a delivery thread may be woken, and its start waits for nothing else.
        if (m_pin.Mode() == StreamingMode::kFile && m_state == State::kWaitingForStart && m_patience-- > 0)
            return E_OUTOFMEMORY;
        m_patience = 0;
        Drop(kQuarter);
    }
    while (!m_cache->Reserve(bytes)) {
        if (m_cache->Available() == 0)
            return E_OUTOFMEMORY;
        Drop(m_capacity / 16);
    }
    return S_OK;
}

void CElementaryStream::OnContinuityError() {
    if (m_pin.Media() == MediaClass::kSubtitle)
        NotifyDiscontinuity(kDiscontinuity, nullptr);
    else if (m_pin.Mode() != StreamingMode::kFile && !m_marks.empty())
        ++m_marks.back().errorCount;
    m_lastContinuityCounter = -1;
    m_headerLeft = 0;
}

inline bool CElementaryStream::CheckContinuity(const OfferedPacket& packet) {
    if (packet.adaptation.DiscontinuityIndicator() && static_cast<int32_t>(packet.header.Pid()) != m_pcrPid)
        m_lastContinuityCounter = -1;
    const int32_t counter = packet.header.ContinuityCounter();
    if (m_lastContinuityCounter != -1) {
        if (counter == m_lastContinuityCounter)
            return false;  // the packet is sent twice
        if (counter != ((m_lastContinuityCounter + 1) & 0x0F))
            OnContinuityError();
    }
    m_lastContinuityCounter = counter;
    return true;
}

HRESULT CElementaryStream::AddAll(std::span<const OfferedPacket> packets, size_t* taken) {
    for (;;) {
        *taken += AddWholePayloads(packets.subspan(*taken));
        if (*taken == packets.size())
            return S_OK;
        const HRESULT result = Add(packets[*taken]);
        if (FAILED(result))
            return result;
        ++*taken;
    }
}

// Nine packets in ten: 184 bytes that follow what came before. What changes is kept out of memory that another thread,
// in wait for the lock, may look at.
inline size_t CElementaryStream::AddWholePayloads(std::span<const OfferedPacket> packets) {
    constexpr uint32_t kCounter = 0x0F;
    constexpr uint32_t kFlags = 0x400030;  // payload_unit_start_indicator, adaptation_field_control
    constexpr uint32_t kPayloadOnly = 0x10;
    constexpr int32_t kPayload = kTransportPacketSize - 4;
    if (m_lastContinuityCounter == -1 || m_headerLeft > 0)
        return 0;
    auto counter = static_cast<uint32_t>(m_lastContinuityCounter);
    uint8_t* to = m_cache->WritePointer();
    size_t count = 0;
    const int32_t room = std::min(m_cache->Room(), m_capacity - m_cache->Available());
    for (const auto most = std::min(packets.size(), static_cast<size_t>(room / kPayload)); count < most;) {
        const OfferedPacket& packet = packets[count];
        const uint32_t next = (counter + 1) & kCounter;
        if ((packet.header.word & (kFlags | kCounter)) != (kPayloadOnly | next))
            break;
        std::memcpy(to, packet.bytes + 4, kPayload);
        to += kPayload;
        counter = next;
        ++count;
    }
    const auto length = static_cast<int32_t>(count) * kPayload;
    m_cache->NoteWritten(length);
    m_lastContinuityCounter = static_cast<int32_t>(counter);
    SetBytesIn(m_bytesIn.load(std::memory_order_relaxed) + length);
    return count;
}

inline HRESULT CElementaryStream::Add(const OfferedPacket& packet) {
    const int32_t offset = PayloadOffset(packet.header, packet.adaptation);
    int32_t length = kTransportPacketSize - offset;
    if (!packet.header.HasPayload() || length < 1)
        return S_OK;
    if (length > m_capacity - m_cache->Available() || !m_cache->Reserve(length)) {
        const HRESULT result = MakeRoom(length);
        if (FAILED(result))
            return result;
    }
    if (!CheckContinuity(packet))
        return S_OK;
    const uint8_t* payload = packet.bytes + offset;
    if (packet.header.PayloadUnitStartIndicator()) {
        m_headerLeft = 0;
        if (length >= kLeastPesHeader) {
            const std::span start(payload, static_cast<size_t>(length));
            if (!IsPesStart(start)) {
                OnContinuityError();
                return S_OK;
            }
            const PesHeader header = ParsePesHeader(start);
            if (header.timestamp != kNoTimestamp) {
                AddMark(header.timestamp);
                m_cache->BeginUnit();
            }
            if (!m_pin.KeepsPesHeaders())
                m_headerLeft = header.size;
        }
    }
    if (m_headerLeft > 0) {
        const int32_t skipped = std::min(m_headerLeft, length);
        payload += skipped;
        length -= skipped;
        m_headerLeft -= skipped;
    }
    if (length > 0)
        m_cache->Append(payload, length);
    SetBytesIn(m_bytesIn.load(std::memory_order_relaxed) + length);
    return S_OK;
}

// A live audio stream begins when its first sample is due. False when the bytes, all of them, have become
// worthless meanwhile.
bool CElementaryStream::AlignToClock(IMediaSample& sample, REFERENCE_TIME start, int32_t* bytes) {
    const REFERENCE_TIME now = m_host.CurrentStreamTime();
    if (now + kTooEarly < start) {
        m_pin.SetFlushOnStart();
        const uint32_t epoch = Epoch();
        const auto milliseconds = static_cast<uint32_t>(std::min<int64_t>((start - now) / 10'000, INT32_MAX));
        m_lock.Unlock();
        if (m_pin.MayWait())
            m_host.WaitForStreamTime(start - kWakeBefore, m_pin.InterruptEvent(), milliseconds);
        m_lock.Lock();
        *bytes = std::min(*bytes, m_cache ? m_cache->Available() : 0);
        return epoch == Epoch() && IsActive() && *bytes > 0;
    }
    if (now <= start + kTooLate)
        return true;
    m_pin.SetFlushOnStart();
    if (m_marks.empty())
        return true;
    const TimestampMark next = m_marks.front();
    const REFERENCE_TIME nextTime = ToSampleTime(next.timestamp, true);
    int64_t late = *bytes;
    if (nextTime >= now && nextTime > start) {
        __extension__ using Wide = __int128;
        late = static_cast<int64_t>(static_cast<Wide>(now - start) * (next.position - m_bytesOut) / (nextTime - start));
    }
    if (nextTime < now || late > *bytes) {
        Discard(*bytes);
        return false;
    }
    Discard(static_cast<int32_t>(late));
    *bytes -= static_cast<int32_t>(late);
    REFERENCE_TIME begin = now;
    sample.SetTime(&begin, nullptr);
    return *bytes > 0;
}

int32_t CElementaryStream::TakeDataFromCache(IMediaSample* sample, int32_t bytes, bool startPending) {
    if (!m_cache)
        return 0;
    bytes = std::min(bytes, m_cache->Available());
    if (sample == nullptr) {
        Discard(bytes);
        return bytes;
    }
    if (startPending) {
        REFERENCE_TIME start = 0;
        REFERENCE_TIME end = 0;
        if (FAILED(sample->GetTime(&start, &end))) {
            Discard(bytes);  // what comes before the first time stamp
            return 0;
        }
        if (m_pin.Mode() != StreamingMode::kFile && m_pin.Media() == MediaClass::kAudio && m_pin.HasLiveClock() &&
            m_host.IsHostRunning() && m_host.HasClock() && !AlignToClock(*sample, start, &bytes))
            return 0;
    }
    uint8_t* target = nullptr;
    if (FAILED(sample->GetPointer(&target)) || target == nullptr)
        return 0;
    if (m_cache->LendTo(*sample, bytes)) {
        Consumed(bytes);
        return bytes;
    }
    m_cache->CopyTo(target, bytes);
    Discard(bytes);
    return bytes;
}

}  // namespace tessel
