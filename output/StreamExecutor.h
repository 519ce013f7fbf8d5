// The content of an output pin: between the parsing thread, which adds data and notices, and the pin's
// delivery thread, which takes samples out.
//
// Every byte has a position: bytesIn when it was added. Commands, time stamps and clock changes are queued
// with the position at which they came, and take effect when the output, bytesOut, has reached it.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <list>
#include <span>

#include "Classes/MultiPlatform/ByteBuffer.h"
#include "core/stream/PacketSink.h"
#include "core/stream/PcrClocks.h"
#include "core/stream/TsHeader.h"
#include "output/OutputHost.h"
#include "output/SampleClock.h"
#include "platform/media/Allocator.h"
#include "platform/media/Mpeg2Demultiplexer.h"

namespace tessel {

// GetPcrPid of a content that is not bound to a program.
inline constexpr int32_t kProgramUnknown = -1;
inline constexpr int32_t kNoStream = -2;

// Operations are called on any thread. The getters take no lock.
class CStreamExecutor {
public:
    enum class State : int32_t {
        kStreaming = 0,
        kWaitingForProgram = 1,  // with a PCR update of the filter open
        kWaitingForStart = 2,    // of all contents on the PCR PID
    };
    enum Command : int32_t {
        kDiscontinuity = 0,
        kClockDiscontinuity = 1,
        kMappingChanged = 2,
    };

    virtual ~CStreamExecutor() = default;

    CStreamExecutor(const CStreamExecutor&) = delete;
    CStreamExecutor& operator=(const CStreamExecutor&) = delete;

    virtual LONG GetBufferCount() const { return 1; }
    virtual LONG GetBufferSize() const;

    HRESULT Active();
    // The pin deactivates a content before it lets go of it.
    void Inactive();
    // Forgets all data, and asks the map anew for what the pin wants.
    void ResetStreamStatus();
    bool IsActive() const { return m_active.load(std::memory_order_relaxed); }
    // Waiting for a program map table before anything goes out.
    bool IsWaitingForProgram() const { return m_state.load() == State::kWaitingForProgram; }
    // Whether any program map table ends that wait. Such a content binds to nothing, so SetProgram calls nobody.
    virtual bool TakesAnyProgram() const { return true; }
    // Gives it the current program map tables.
    void OfferPrograms();
    // Moves with every activation, deactivation and reset.
    uint32_t Epoch() const { return m_epoch.load(); }

    // What could be sent now; 0 when it is better to wait for more.
    int32_t GetPendingBytes(bool startPending, bool eosPending);
    // Tries the common start when that is what it waits for.
    bool IsReadyToSend() { return TryToStart(false) == S_OK; }
    // S_OK: it is ready to send. Once the input has ended, S_FALSE means not yet, and a failure never.
    HRESULT TryToStart(bool inputEnded);
    // Lets the commands that the output has reached take effect and lowers *budget to the next one's position.
    // True when the next sample is discontinuous.
    bool ProcessCommands(int32_t* budget);
    // Sends one sample of at most budget bytes; *sent: what left the buffer. S_FALSE: the receiver wants no more.
    virtual HRESULT SendData(int32_t budget, int32_t* sent, bool startPending);

    // Adds as many as it takes, *taken, and returns the result of the first that it does not take: E_UNEXPECTED while
    // inactive, E_OUTOFMEMORY when the buffer is full.
    HRESULT AddPackets(std::span<const OfferedPacket> packets, size_t* taken);
    virtual HRESULT TakeSection(const TsHeader& header, std::span<const uint8_t> section);
    // Makes room. E_FAIL where that is not done.
    HRESULT DropData(int32_t bytes);
    // So many bytes found no room, and are lost.
    void CountLost(int32_t bytes) { m_lostBytes.fetch_add(bytes, std::memory_order_relaxed); }
    // Since it was activated.
    int64_t LostBytes() const { return m_lostBytes.load(std::memory_order_relaxed); }

    // A program map table has become current. A failure means that the pin cannot deliver its stream. Calls
    // downstream. Nothing happens when the content has been reset since epoch.
    virtual HRESULT SetProgram(uint32_t programNumber, IDvbProgramMapTable* table, uint32_t epoch);

    int32_t GetPcrPid() const { return m_pcrPid.load(); }
    REFERENCE_TIME GetLatestTime() const { return m_latestTime.load(); }
    // Of the first PES packet queued, in 90 kHz; kUnknown without.
    int64_t GetFirstTimestamp() const { return m_firstTimestamp.load(); }
    // Jumps of the clock that the output has yet to reach.
    int32_t QueuedJumps() const { return m_queuedJumps.load(); }
    int64_t QueuedBytes() const { return m_bytesIn.load() - m_bytesOut.load(); }

    // Notices take a leaf lock only.
    void NotifyDiscontinuity(int32_t code, IEnumPIDMap* mapping);
    void NotifyClockChange(const PcrClock& clock);

protected:
    struct TimestampMark {
        int64_t position;  // of the first byte of the PES payload
        int64_t timestamp;
        int32_t errorCount;  // continuity errors inside the PES
    };

    CStreamExecutor(CTsOutputPin& pin, IOutputHost& host);

    virtual HRESULT OnActive() OS_REQUIRES(m_lock) { return S_OK; }
    virtual void OnInactive() OS_REQUIRES(m_lock) {}
    virtual void OnReset() OS_REQUIRES(m_lock) {}
    virtual int32_t PendingBytes(bool startPending, bool eosPending) OS_REQUIRES(m_lock) = 0;
    // Adds until one is refused; *taken counts up.
    virtual HRESULT AddAll(std::span<const OfferedPacket> packets, size_t* taken) OS_REQUIRES(m_lock) = 0;
    virtual HRESULT Drop(int32_t) OS_REQUIRES(m_lock) { return E_FAIL; }
    // True when the mapping has changed. The base asks for the program anew.
    virtual bool UpdateMapping(IEnumPIDMap* mapping) OS_REQUIRES(m_lock);
    // Into sample, or away when that is null; how many bytes went into it. May let go of the lock and take it
    // again.
    virtual int32_t TakeDataFromCache(IMediaSample* sample, int32_t bytes, bool startPending) OS_REQUIRES(m_lock);

    // The lock makes this thread the only one that writes, so no atomic addition is needed.
    void SetBytesIn(int64_t bytes) OS_REQUIRES(m_lock) { m_bytesIn.store(bytes, std::memory_order_release); }
    void CloseUpdate() OS_REQUIRES(m_lock);
    void AddMark(int64_t timestamp) OS_REQUIRES(m_lock);
    REFERENCE_TIME ToSampleTime(int64_t timestamp, bool startPending) OS_REQUIRES(m_lock);
    void Consumed(int32_t bytes) OS_REQUIRES(m_lock);

    CTsOutputPin& m_pin;
    IOutputHost& m_host;
    CCritSec m_lock;
    // One binding to a program at a time; it calls downstream.
    CCritSec m_bindLock;

    // Written under the lock. Atomics, because the filter and the other contents read them without.
    std::atomic<int64_t> m_bytesIn{0};
    std::atomic<int64_t> m_bytesOut{0};
    std::atomic<int32_t> m_pcrPid{kProgramUnknown};
    std::atomic<State> m_state{State::kStreaming};
    std::deque<TimestampMark> m_marks OS_GUARDED_BY(m_lock);
    CSampleClock m_sampleClock OS_GUARDED_BY(m_lock);
    // Data was refused, so all that is there goes out, whatever it would be better to wait for.
    bool m_full OS_GUARDED_BY(m_lock) = false;

private:
    struct StreamCommand {
        int64_t position;
        int32_t code;
        ComPtr<IEnumPIDMap> mapping;
    };
    struct ClockChange {
        int64_t position;
        PcrClock clock;
    };
    // What the marks say about the sample that begins at the output position.
    struct Timing {
        REFERENCE_TIME time = kUnknown;
        int64_t timestamp = kUnknown;
        int32_t errorCount = 0;
        bool marked = false;
    };

    void Reset(IEnumPIDMap* mapping) OS_REQUIRES(m_lock);
    // What comes next continues a PES packet whose beginning has been sent.
    bool IsInsidePes() const OS_REQUIRES(m_lock) {
        return m_state == State::kStreaming && (m_marks.empty() || m_marks.front().position > m_bytesOut);
    }
    bool TakeCommand(StreamCommand* out, int32_t* budget) OS_REQUIRES(m_lock);
    bool Execute(const StreamCommand& command) OS_REQUIRES(m_lock);
    void FollowClock() OS_REQUIRES(m_lock);
    // from: the time before it.
    bool IsPlausible(REFERENCE_TIME time, REFERENCE_TIME from) const OS_REQUIRES(m_lock);
    void TakeMark(Timing& timing, bool startPending) OS_REQUIRES(m_lock);
    Timing TakeMarks(int32_t size, bool startPending) OS_REQUIRES(m_lock);
    int32_t UpToNextMark(int32_t size) const OS_REQUIRES(m_lock);
    int32_t DropDamaged(const Timing& timing, int32_t size) OS_REQUIRES(m_lock);
    void Describe(IMediaSample& sample, REFERENCE_TIME time) OS_REQUIRES(m_lock);
    void NoteFirstMark() OS_REQUIRES(m_lock);

    std::atomic<bool> m_active{false};
    std::atomic<uint32_t> m_epoch{0};
    std::atomic<REFERENCE_TIME> m_latestTime{0};
    std::atomic<int64_t> m_firstTimestamp{kUnknown};
    std::atomic<int64_t> m_lostBytes{0};  // for whoever asks; nothing else goes by it
    // Of the last time stamp since the start, believed or not.
    REFERENCE_TIME m_previousTime OS_GUARDED_BY(m_lock) = kUnknown;
    bool m_prerollPending OS_GUARDED_BY(m_lock) = false;
    // The rest of a damaged PES goes the same way as its beginning.
    bool m_droppingPes OS_GUARDED_BY(m_lock) = false;

    CCritSec m_noticeLock;
    std::list<StreamCommand> m_commands OS_GUARDED_BY(m_noticeLock);
    std::atomic<int32_t> m_queuedJumps{0};  // kClockDiscontinuity among the commands
    std::deque<ClockChange> m_clockChanges OS_GUARDED_BY(m_noticeLock);
};

}  // namespace tessel
