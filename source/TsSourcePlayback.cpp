// The file source's worker, and what starts and ends it.
#include <algorithm>
#include <array>
#include <bit>
#include <new>

#include "platform/media/MediaResult.h"
#include "source/StreamFile.h"
#include "source/TsSource.h"

namespace tessel {

namespace {

// Milliseconds after which the worker looks again.
constexpr uint32_t kRetryWait = 10;
// Milliseconds that a stop waits for the worker.
constexpr uint32_t kTaskWait = 100;

// Pieces of a size are read when so many times their bytes have been.
constexpr uint64_t kPiecesRead = 32;

}  // namespace

HRESULT CTsSource::Pause() {
    CScopedLock lock(&StateLock());
    // What seeking needs to know is found out before the file is the worker's.
    if (IsStopped())
        IsSeekable();
    const HRESULT result = CTsFilterBase::Pause();
    m_hurry->Set();
    return result;
}

HRESULT CTsSource::Stop() {
    const HRESULT result = CTsFilterBase::Stop();
    // So that the filter is its clients' alone again. A task that waits for a receiver is left to it.
    m_worker.WaitForTask(kTaskWait);
    return result;
}

HRESULT CTsSource::StartStreaming() {
    {
        CScopedLock seeking(&m_seekLock);
        CScopedLock lock(&StreamingLock());
        if (!m_stream)
            return E_UNEXPECTED;
        const HRESULT result = CreateInput();
        if (FAILED(result))
            return result;
        InternalReset();
        Clocks().ForEach([](PcrClock& clock) { clock.lastPcr = kUnknown; });
        SetInputPosition(m_start.filePos);
        if (FAILED(m_stream->Seek(m_start.filePos, STREAM_SEEK_SET, nullptr)))
            return E_FAIL;
        m_readPosition = m_start.filePos;
        m_readResult = S_OK;
        m_position = m_start.time;
        m_endOfStream = m_aborted = false;
        ++m_inputEpoch;
        ApplyOffsets();
        TakeInput();
    }
    RunDeferred();
    const HRESULT result = m_worker.Start(WorkerPriority(), Hold());
    m_workEvent->Set();
    return result;
}

HRESULT CTsSource::StopStreaming() {
    m_worker.Pause();
    m_hurry->Set();
    // A task that is under way comes to its end, unless the filter stops: then it may be waiting for a receiver that
    // waits for this thread. It finds the epoch moved on.
    const CHeldTurn turn = TakeParseTurn();
    CScopedLock lock(&StreamingLock());
    ++m_inputEpoch;
    return CTsFilterBase::StopStreaming();
}

// Video begins a picture later, so that the picture that is due is still to come.
void CTsSource::ApplyOffsets() {
    Start start;
    {
        CScopedLock lock(&StreamingLock());
        start = m_start;
    }
    for (const OutputPinPtr& pin : Pins().All())
        pin->SetStreamOffset(pin->Media() == MediaClass::kVideo ? start.frameDuration - start.origin : -start.origin);
}

int64_t CTsSource::StartPosition() {
    CScopedLock lock(&StreamingLock());
    return m_start.filePos;
}

void CTsSource::StartAtBeginning() {
    CScopedLock state(&StateLock());
    if (!IsStopped())
        return;
    {
        CScopedLock lock(&StreamingLock());
        m_start = {};
        m_start.filePos = m_dataStart;
    }
    m_position = 0;
    m_endOfStream = m_aborted = false;
    ApplyOffsets();
}

HRESULT CTsSource::OnThreadStart() {
    m_workerId = std::this_thread::get_id();
    return S_OK;
}

CTsSource::Input CTsSource::ReadInput() {
    int32_t wanted = CPacketReader::kReadSize;
    if (!IsScanning()) {
        const int64_t left = m_endPosition - m_readPosition;
        if (left <= 0)
            return Input::kEnd;
        // Up to the end of a block of the file, so that the next ones can be read whole.
        const auto share = std::bit_floor(static_cast<uint64_t>(m_readPosition - m_start.filePos) / kPiecesRead);
        const int64_t piece = std::clamp<int64_t>(static_cast<int64_t>(share), CStreamFile::kBlockSize, kLargestPiece);
        wanted = static_cast<int32_t>(std::min(piece - m_readPosition % piece, left));
    }
    const std::span<uint8_t> reserved = ReserveData(wanted);
    if (reserved.empty())
        return Input::kFull;
    int32_t read = 0;
    m_readResult = ReadFile(*m_stream.Get(), reserved, &read);
    CommitData(read);
    m_readPosition += read;
    return read > 0 ? Input::kRead : Input::kEnd;
}

uint32_t CTsSource::DoOneThreadTask() {
    bool goesOn = true;
    // Whoever ends the input waits for the turn, so it is held for the whole task.
    CHeldTurn turn = TakeParseTurn();
    if (turn) {
        const uint32_t epoch = m_inputEpoch;
        try {
            goesOn = ReadAndParse();
        } catch (const std::bad_alloc&) {
            EndPlayback(epoch, E_OUTOFMEMORY);
        }
        turn.Release();
    } else {
        goesOn = false;
    }
    if (!goesOn)
        m_hurry->Wait(kRetryWait);
    m_workEvent->Set();
    return INFINITE;
}

bool CTsSource::ReadAndParse() {
    Input input = Input::kNone;
    uint32_t epoch = 0;
    {
        CScopedLock lock(&StreamingLock());
        epoch = m_inputEpoch;
        // Until all outputs are active, none gets data.
        if (IsStreaming() && IsActive())
            input = ReadInput();
    }
    if (input == Input::kNone)
        return false;
    if (input == Input::kEnd) {
        EndPlayback(epoch, m_readResult);
        return true;
    }
    const HRESULT result = ParseData();
    if (SUCCEEDED(result) && m_discontinuity)
        AbortPlayback(epoch);
    else if (FAILED(result))
        EndInput(epoch);
    return input != Input::kFull || result == S_OK;
}

// The epoch that begins with the end; none when the input has been ended, or begun anew, since epoch.
std::optional<uint32_t> CTsSource::EndInput(uint32_t epoch) {
    CScopedLock lock(&StreamingLock());
    if (epoch != m_inputEpoch)
        return std::nullopt;
    NoteMasterTime();
    CTsFilterBase::StopStreaming();
    m_endOfStream = true;
    m_worker.Pause();
    return ++m_inputEpoch;
}

void CTsSource::EndOutputs(uint32_t epoch) {
    // Another start may come at any time: it has activities of its own, which this end is not for.
    const COutputPins pins = Pins().All();
    std::array<uint32_t, COutputPins::kMost> activities{};
    {
        CScopedLock lock(&StreamingLock());
        if (epoch != m_inputEpoch)
            return;
        std::transform(pins.begin(), pins.end(), activities.begin(), [](const auto& pin) { return pin->Activity(); });
    }
    for (size_t i = 0; i < pins.size(); ++i)
        pins.data()[i]->EndActivity(activities[i]);
}

void CTsSource::EndPlayback(uint32_t epoch, HRESULT why) {
    const std::optional<uint32_t> ended = EndInput(epoch);
    if (!ended)
        return;
    EndOutputs(*ended);
    if (FAILED(why))
        NotifyEvent(EC_ERRORABORT, why, 0);
}

void CTsSource::AbortPlayback(uint32_t epoch) {
    if (epoch != m_inputEpoch)
        return;
    const COutputPins pins = Pins().All();
    for (const OutputPinPtr& pin : pins)
        pin->DeliverBeginFlush();
    m_aborted = true;
    const std::optional<uint32_t> ended = EndInput(epoch);
    for (const OutputPinPtr& pin : pins)
        pin->DeliverEndFlush();
    if (!ended)
        return;
    EndOutputs(*ended);
    NotifyEvent(EC_ERRORABORT, VFW_E_INVALID_FILE_FORMAT, 0);
}

}  // namespace tessel
