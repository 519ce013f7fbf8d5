// The file source's side of seeking: the stream that times the file, positions, and the getters.
#include <algorithm>

#include "platform/media/MediaResult.h"
#include "source/TsSource.h"

namespace tessel {

namespace {

constexpr DWORD kCapabilities = AM_SEEKING_CanSeekAbsolute | AM_SEEKING_CanSeekForwards | AM_SEEKING_CanSeekBackwards |
                                AM_SEEKING_CanGetCurrentPos | AM_SEEKING_CanGetDuration;

REFERENCE_TIME Sum(REFERENCE_TIME a, REFERENCE_TIME b) {
    REFERENCE_TIME sum = 0;
    return !__builtin_add_overflow(a, b, &sum) ? sum : a > 0 ? INT64_MAX : INT64_MIN + 1;
}

}  // namespace

bool CTsSource::IsTimed(CTsOutputPin& pin) {
    return pin.Kind() == ContentKind::kElementaryStream &&
           std::find(m_steadyClocks.begin(), m_steadyClocks.end(), pin.GetPcrPid()) != m_steadyClocks.end();
}

bool CTsSource::FindMaster(Master* out) {
    OutputPinPtr found;
    for (const OutputPinPtr& pin : Pins().All()) {
        if (!IsTimed(*pin))
            continue;
        if (pin->Media() == MediaClass::kVideo) {
            found = pin;
            break;
        }
        if (pin->Media() == MediaClass::kAudio && !found)
            found = pin;
    }
    if (!found)
        return false;
    const std::optional<ULONG> pid = found->Map().FirstPid();
    CMediaType type;
    if (!pid || FAILED(found->CurrentMediaType(type)))
        return false;
    out->pin = found;
    out->pcrPid = found->GetPcrPid();
    out->stream.pid = *pid;
    out->stream.isAudio = found->Media() == MediaClass::kAudio;
    out->stream.subtype = type.subtype;

    CScopedLock lock(&Clocks().Lock());
    const PcrClock* const clock = Clocks().Find(out->pcrPid);
    if (clock == nullptr || clock->pcrOrigin == kUnknown || clock->timeOrigin == kUnknown)
        return false;
    out->stream.pcrOrigin = clock->pcrOrigin;
    out->stream.timeOrigin = clock->timeOrigin;
    return true;
}

bool CTsSource::InitSeek() {
    // Asked without the streaming lock, which the worker holds for as long as a receiver keeps it waiting. A start
    // takes the seek lock, so what does not stream now will not begin to.
    if (IsStreaming())
        return m_seekReady;
    CScopedLock lock(&StreamingLock());
    Master master;
    const bool found = m_stream && FindMaster(&master);
    if (found && master == m_master)
        return m_seekReady;
    m_seekReady = false;
    m_index.reset();
    m_master = found ? master : Master{};
    {
        CScopedLock masterLock(&m_masterLock);
        m_masterPin = m_master.pin;
    }
    if (found) {
        try {
            m_index.emplace(*m_stream.Get(), Parser().PacketSize(), m_dataStart, master.stream);
            m_seekReady = m_index->Build();
        } catch (const std::bad_alloc&) {
            m_master = {};  // it is tried again
        }
    }
    NotePoints();
    return m_seekReady;
}

void CTsSource::NotePoints() {
    const bool ready = m_seekReady && m_index;
    m_duration = ready ? m_index->Last().endTime : 0;
    m_currentTime = ready ? m_index->Current().time : kUnknown;
    m_currentEnd = ready ? m_index->Current().endTime : kUnknown;
}

bool CTsSource::IsSeekable() {
    // While it streams nothing changes; and the worker must not wait for a seek, which waits for the worker.
    if (IsStreaming() || IsOnWorker())
        return m_seekReady;
    CScopedLock lock(&m_seekLock);
    return InitSeek();
}

HRESULT CTsSource::SeekTo(REFERENCE_TIME requested, bool toKeyFrame, REFERENCE_TIME* reached) {
    CScopedLock lock(&StreamingLock());
    if (!m_stream)
        return E_POINTER;
    // What was mapped while it streamed counts from here on.
    if (!InitSeek())
        return E_FAIL;
    *reached = requested;
    try {
        HRESULT result = m_index->MoveTo(reached);
        if (SUCCEEDED(result) && toKeyFrame) {
            *reached = m_index->Current().time;
            result = m_index->MoveTo(reached);
        }
        if (FAILED(result))
            return result;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    const SeekPoint& point = m_index->Current();
    m_start = {point.filePos, requested, *reached, point.frameDuration};
    NotePoints();
    return S_OK;
}

HRESULT CTsSource::SetPositions(int64_t* current, DWORD currentFlags, int64_t*, DWORD) {
    if (current == nullptr)
        return E_POINTER;
    const DWORD positioning = currentFlags & AM_SEEKING_PositioningBitsMask;
    if (positioning == AM_SEEKING_PositioningBitsMask)
        return E_INVALIDARG;
    if (positioning == AM_SEEKING_NoPositioning)
        return S_OK;
    CScopedLock state(&StateLock());
    if (State() == State_Running)
        return E_UNEXPECTED;
    CScopedLock seeking(&m_seekLock);
    if (!InitSeek())
        return S_FALSE;
    const bool toKeyFrame = (currentFlags & AM_SEEKING_SeekToKeyFrame) != 0;
    const REFERENCE_TIME position = CurrentPosition();
    const REFERENCE_TIME requested = positioning == AM_SEEKING_RelativePositioning ? Sum(position, *current) : *current;
    // At the end there is nothing to go on with.
    if (requested == position && !m_endOfStream && (!toKeyFrame || requested == m_currentTime))
        return S_OK;

    const bool streams = State() == State_Paused;
    const COutputPins pins = Pins().All();
    if (streams) {
        for (const OutputPinPtr& pin : pins)
            pin->DeliverBeginFlush();
        StopStreaming();
    }
    REFERENCE_TIME reached = requested;
    const HRESULT result = SeekTo(requested, toKeyFrame, &reached);
    // Before it plays on, for it may be at its end at once.
    if (SUCCEEDED(result)) {
        m_endOfStream = false;
        m_position = requested;
    }
    ApplyOffsets();
    if (streams) {
        for (const OutputPinPtr& pin : pins)
            pin->DeliverEndFlush();
        const HRESULT started = StartStreaming();
        if (FAILED(started) && SUCCEEDED(result))
            return started;
    }
    if (SUCCEEDED(result) && toKeyFrame)
        *current = reached;
    return result;
}

void CTsSource::NoteMasterTime() {
    OutputPinPtr pin;
    {
        CScopedLock lock(&m_masterLock);
        pin = m_masterPin.lock();
    }
    if (const auto content = pin ? pin->Content() : nullptr)
        m_position = content->GetLatestTime() - pin->StreamOffset();
}

REFERENCE_TIME CTsSource::CurrentPosition() {
    if (m_endOfStream && !m_aborted)
        NoteMasterTime();
    return m_position;
}

HRESULT CTsSource::GetCurrentPosition(int64_t* out) {
    if (out == nullptr)
        return E_POINTER;
    *out = IsSeekable() ? CurrentPosition() : 0;
    return S_OK;
}

HRESULT CTsSource::GetPositions(int64_t* current, int64_t* stop) {
    const HRESULT result = GetCurrentPosition(current);
    return FAILED(result) ? result : GetStopPosition(stop);
}

HRESULT CTsSource::GetDuration(int64_t* out) {
    if (out == nullptr)
        return E_POINTER;
    *out = IsSeekable() ? m_duration.load() : 0;
    return S_OK;
}

HRESULT CTsSource::GetAvailable(int64_t* earliest, int64_t* latest) {
    if (earliest == nullptr || latest == nullptr)
        return E_POINTER;
    const bool seekable = IsSeekable();
    *earliest = seekable ? m_currentTime.load() : 0;
    *latest = seekable ? m_currentEnd.load() : 0;
    return S_OK;
}

HRESULT CTsSource::GetCapabilities(DWORD* out) {
    if (out == nullptr)
        return E_POINTER;
    *out = IsSeekable() ? kCapabilities : 0;
    return S_OK;
}

HRESULT CTsSource::CheckCapabilities(DWORD* inOut) {
    if (inOut == nullptr)
        return E_POINTER;
    DWORD capabilities = 0;
    GetCapabilities(&capabilities);
    const DWORD asked = *inOut;
    *inOut &= capabilities;
    return *inOut == asked ? S_OK : *inOut == 0 ? E_FAIL : S_FALSE;
}

HRESULT CTsSource::IsFormatSupported(const GUID* format) {
    if (format == nullptr)
        return E_POINTER;
    return *format == TIME_FORMAT_MEDIA_TIME ? S_OK : S_FALSE;
}

HRESULT CTsSource::QueryPreferredFormat(GUID* out) {
    if (out == nullptr)
        return E_POINTER;
    *out = TIME_FORMAT_MEDIA_TIME;
    return S_OK;
}

HRESULT CTsSource::SetTimeFormat(const GUID* format) {
    const HRESULT result = IsFormatSupported(format);
    return result == S_FALSE ? E_INVALIDARG : result;
}

HRESULT CTsSource::GetRate(double* out) {
    if (out == nullptr)
        return E_POINTER;
    *out = 1.0;
    return S_OK;
}

}  // namespace tessel
