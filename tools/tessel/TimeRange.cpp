#include "tools/tessel/TimeRange.h"

#include <cstdio>

#include "platform/media/Mpeg2Demultiplexer.h"
#include "source/PacketReader.h"
#include "tools/tessel/FilePlayer.h"
#include "tools/tessel/Files.h"
#include "tools/tessel/Interrupt.h"
#include "tools/tessel/PacketMeter.h"

namespace tessel::tool {

namespace {

constexpr int64_t kSecond = 10'000'000;
constexpr int64_t kMostHours = 100'000;
constexpr OLECHAR kTimingPin[] = u"Timing";
constexpr DWORD kToKeyFrame = AM_SEEKING_AbsolutePositioning | AM_SEEKING_SeekToKeyFrame;
constexpr int64_t kPcrWrap = kTimestampWrap * 300;

class TimeReader {
public:
    explicit TimeReader(const std::string& text) : m_text(text) {}

    std::optional<int64_t> Read() {
        // Seconds, minutes and seconds, or hours, minutes and seconds; the first of them may be any number.
        int64_t seconds = 0;
        for (int part = 0; part < 3; ++part) {
            const auto number = Number();
            if (!number || (part > 0 && *number >= 60) || *number > kMostHours * 3600)
                return std::nullopt;
            seconds = seconds * 60 + *number;
            if (m_at == m_text.size() || m_text[m_at] == '.')
                break;
            if (m_text[m_at++] != ':')
                return std::nullopt;
        }
        if (seconds > kMostHours * 3600)
            return std::nullopt;
        const int64_t time = seconds * kSecond + Fraction();
        return m_at == m_text.size() ? std::optional(time) : std::nullopt;
    }

private:
    bool HasDigit() const { return m_at < m_text.size() && m_text[m_at] >= '0' && m_text[m_at] <= '9'; }
    std::optional<int64_t> Number() {
        int64_t number = 0;
        const size_t begin = m_at;
        for (; HasDigit() && m_at - begin < 12; ++m_at)
            number = number * 10 + (m_text[m_at] - '0');
        return m_at != begin ? std::optional(number) : std::nullopt;
    }
    // Digits beyond the seventh are read over.
    int64_t Fraction() {
        if (m_at == m_text.size() || m_text[m_at] != '.' || m_at + 1 == m_text.size())
            return 0;
        int64_t fraction = 0;
        ++m_at;
        for (int64_t unit = kSecond / 10; HasDigit(); ++m_at, unit /= 10)
            fraction += unit * (m_text[m_at] - '0');
        return fraction;
    }

    const std::string& m_text;
    size_t m_at = 0;
};

std::optional<int64_t> ParseTime(const char* option, const std::string& text) {
    if (text.empty())
        return std::nullopt;
    const auto time = TimeReader(text).Read();
    if (!time)
        throw Misuse(std::string(option) + " \"" + text + "\" is no time; write 90, 1:30 or 0:01:30.5");
    return time;
}

const ComponentInfo* FindClear(const ServiceInfo& service, const GUID& majortype) {
    for (const ComponentInfo& component : service.components)
        if (!component.scrambled && component.media != nullptr && component.media->extension != nullptr &&
            component.media->majortype == majortype)
            return &component;
    return nullptr;
}

// The clock reference at media time 0, 27 MHz.
std::optional<int64_t> ClockOrigin(CTsSource& source, uint32_t pcrPid) {
    CScopedLock lock(&source.Clocks().Lock());
    const PcrClock* const clock = source.Clocks().Find(static_cast<int32_t>(pcrPid));
    if (clock == nullptr || clock->pcrOrigin == kUnknown)
        return std::nullopt;
    return clock->pcrOrigin;
}

// Where the first packet with a clock reference at or behind time stands, from begin on; none up to the end.
std::optional<int64_t> FindClockReference(CTsSource& source, const std::string& path, uint32_t pcrPid, int64_t origin,
                                          int64_t begin, REFERENCE_TIME time) {
    const ComPtr<IStream> file = OpenInputStream(path);
    CPacketReader reader(*file.Get(), source.Parser().PacketSize());
    if (!reader.MoveTo(begin))
        return std::nullopt;
    for (const uint8_t* packet; !Interrupted() && (packet = reader.ReadPacket()) != nullptr;) {
        const auto pcr = DecodeTsHeader(packet).Pid() == pcrPid ? PcrOf(packet) : std::nullopt;
        if (pcr && ((*pcr - origin) % kPcrWrap + kPcrWrap) % kPcrWrap / 27 * 10 >= time)
            return reader.Position();
    }
    return std::nullopt;
}

}  // namespace

Failure CannotCut(const std::string& path, const std::string& reason) {
    return Failure(path + ": cannot be cut by time: " + reason);
}

TimeSpan ParseTimeSpan(const std::string& from, const std::string& to) {
    const TimeSpan span = {ParseTime("--from", from), ParseTime("--to", to)};
    if (span.to && *span.to <= span.from.value_or(0))
        throw Misuse("--to is not behind --from, so nothing lies between");
    return span;
}

std::string TimeText(int64_t time) {
    char text[48];
    const long long hundredths = time / (kSecond / 100);
    std::snprintf(text, sizeof(text), "%lld:%02lld:%02lld.%02lld", hundredths / 360'000, hundredths / 6000 % 60,
                  hundredths / 100 % 60, hundredths % 100);
    return text;
}

std::optional<TimingStream> FindTimingStream(const std::vector<ServiceInfo>& services,
                                             std::optional<uint32_t> serviceId) {
    for (const GUID* const majortype : {&MEDIATYPE_Video, &MEDIATYPE_Audio})
        for (const ServiceInfo& service : services)
            if ((!serviceId || service.id == *serviceId) && service.pcrPid != kNullPid)
                if (const ComponentInfo* const component = FindClear(service, *majortype))
                    return TimingStream{component, service.pcrPid.value_or(kNullPid)};
    return std::nullopt;
}

ComPtr<IPin> MapTimingPin(IBaseFilter* source, const ComponentInfo& component) {
    const auto demultiplexer = ComPtr<IBaseFilter>(source).As<IMpeg2Demultiplexer>();
    AM_MEDIA_TYPE type;
    type.majortype = component.media->majortype;
    type.subtype = component.media->subtype;
    ComPtr<IPin> pin;
    if (!demultiplexer || FAILED(demultiplexer->CreateOutputPin(&type, kTimingPin, pin.Put())))
        return nullptr;
    const auto map = pin.As<IMPEG2PIDMap>();
    const ULONG pid = component.pid;
    return map && SUCCEEDED(map->MapPID(1, &pid, MEDIA_ELEMENTARY_STREAM)) ? pin : nullptr;
}

ByteRange SeekToPart(CTsSource& source, const TimingStream& stream, const TimeSpan& span, const std::string& path) {
    if (!MapTimingPin(&source, *stream.component))
        throw CannotCut(path, "there is no room for a pin to time it by");
    // Media time 0 is the first clock reference; the first picture comes later.
    int64_t first = 0;
    int64_t end = 0;
    if (source.SetPositions(&first, kToKeyFrame, nullptr, 0) != S_OK || source.GetDuration(&end) != S_OK)
        throw CannotCut(path, "it has no time stamps at its beginning or its end");
    if (span.from && first + *span.from >= end)
        throw Failure(path + ": --from is behind its end, at " + TimeText(end - first));
    ByteRange range;
    int64_t reached = first;
    const auto seek = [&](int64_t time) {
        reached = first + time;
        if (source.SetPositions(&reached, kToKeyFrame, nullptr, 0) != S_OK)
            throw CannotCut(path, "a time stamp could not be found again");
        return source.StartPosition();
    };
    if (span.to && first + *span.to < end) {
        const auto origin = ClockOrigin(source, stream.pcrPid);
        if (!origin)
            throw CannotCut(path, "its clock is not known");
        const int64_t to = first + *span.to;
        const auto found = FindClockReference(source, path, stream.pcrPid, *origin, seek(*span.to), to);
        range.end = found ? *found + kLookAheadBytes : INT64_MAX;
        range.endTimestamp = (*origin / 300 + to * 9 / 1000) % kTimestampWrap;
    }
    if (span.from) {
        range.begin = seek(*span.from);
        range.beginTime = reached - first;
    } else {
        source.StartAtBeginning();
    }
    if (range.end <= range.begin)
        throw CannotCut(path, "its clock and its time stamps do not fit each other there");
    source.SetEndPosition(range.end);
    source.DeleteOutputPin(kTimingPin);
    return range;
}

ByteRange FindPart(const std::string& path, const std::optional<TimingStream>& stream, const PidSet& latePids,
                   const TimeSpan& span) {
    if (!stream)
        throw CannotCut(path, "no service has clear video or audio to time it by");
    std::string why;
    const auto player = FilePlayer::Open(path, 1, latePids, &why);
    if (!player)
        throw CannotCut(path, why);
    return SeekToPart(player->Source(0), *stream, span, path);
}

}  // namespace tessel::tool
