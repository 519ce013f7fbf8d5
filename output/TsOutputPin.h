// The demultiplexer's output pin: chooses by its PID map what its content gets, and delivers the content's
// samples from a thread of its own.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "core/stream/PacketSink.h"
#include "core/stream/StreamingMode.h"
#include "filters/threads/RALExecutorThread.h"
#include "output/OutputHost.h"
#include "output/OutputMediaTypes.h"
#include "output/PidMap.h"
#include "output/StreamExecutor.h"
#include "output/UBasePin.h"
#include "platform/media/BaseOutputPin.h"
#include "platform/media/SourceInterfaces.h"
#include "services/objects/Parameters.h"
#include "services/objects/PidParameters.h"

namespace tessel {

enum class MediaClass { kOther, kVideo, kAudio, kSubtitle };

// Three kinds of threads come here: the parsing thread offers packets and sections, the pin's delivery thread
// runs DoOneThreadTask, the control threads do the rest. Flags are atomics, since all of them look at them;
// what must not be taken twice is taken with an exchange.
//
// Activation, deactivation, both flush calls and a restart begin a new epoch. What a delivery task writes at its
// end counts only in the epoch that it began in, so a delivery that comes back late changes nothing.
class CTsOutputPin final : public CUBasePin<CBaseOutputPin>,
                           public IRALThreadExecutor,
                           public IAMPushSource,
                           public IMPEG2PIDMap,
                           public IGetSetParam,
                           public IMPEG2PIDParam,
                           public IPacketSink {
public:
    // filter and host are one object, which outlives the pin's deliveries. liveClock: times are checked against the
    // filter's stream time.
    CTsOutputPin(CBaseFilter* filter, IOutputHost& host, const OLECHAR* name, StreamingMode mode, bool liveClock);
    ~CTsOutputPin() override;

    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override;

    // The list's own hold on the pin, for the delivery thread. Once, after it was made.
    void SetSelf(const std::shared_ptr<CTsOutputPin>& self) { m_self = self; }

    // IMPEG2PIDMap
    HRESULT MapPID(ULONG count, const ULONG* pids, MEDIA_SAMPLE_CONTENT content) override;
    HRESULT UnmapPID(ULONG count, const ULONG* pids) override;
    HRESULT EnumPIDMap(IEnumPIDMap** out) override;
    // While the filter is stopped: looks for the mapped stream among the current tables, and keeps what it finds.
    void BindWhileStopped();
    // Every mapped PID and special value goes, the content too.
    void ResetMapping();

    // IGetSetParam: kParamContentKind; the rest is the filter's.
    HRESULT SetParam(uint32_t id, uint32_t value) override;
    HRESULT GetParam(uint32_t id, uint32_t* out) override;
    HRESULT Reserved1(uint32_t id, uint32_t first, uint32_t second) override;
    HRESULT Reserved2(uint32_t id, uint32_t value) override;
    HRESULT Reserved3(uint32_t id, uint32_t value) override;
    HRESULT Reserved4(uint32_t id, uint32_t value, void** out) override;

    // IMPEG2PIDParam: the filter's.
    HRESULT Reserved1(int32_t pid, int32_t parameter, uint32_t value) override;
    HRESULT GetPidParam(int32_t pid, int32_t parameter, uint32_t* out) override;
    HRESULT Reserved2(int32_t pid, int32_t parameter, uint32_t value) override;
    HRESULT Reserved3(int32_t pid, int32_t parameter, uint32_t value) override;
    HRESULT Reserved4(int32_t pid, int32_t parameter, uint32_t value) override;
    HRESULT Reserved5(int32_t pid, int32_t parameter, uint32_t value) override;

    // IAMPushSource, answered for in live mode only
    HRESULT GetLatency(REFERENCE_TIME* out) override;
    HRESULT GetPushSourceFlags(ULONG* out) override;
    HRESULT SetPushSourceFlags(ULONG) override { return E_NOTIMPL; }
    HRESULT SetStreamOffset(REFERENCE_TIME offset) override;
    HRESULT GetStreamOffset(REFERENCE_TIME* out) override;
    HRESULT GetMaxStreamOffset(REFERENCE_TIME* out) override;
    HRESULT SetMaxStreamOffset(REFERENCE_TIME) override { return S_OK; }

    // The platform pin's
    HRESULT SetMediaType(const AM_MEDIA_TYPE* type) override;
    HRESULT GetMediaType(int position, CMediaType* out) override;
    HRESULT CompleteConnect(IPin* other) override;
    HRESULT BreakConnect() override;
    HRESULT DecideBufferSize(IMemAllocator* allocator, ALLOCATOR_PROPERTIES* request) override;
    HRESULT Active() override;
    HRESULT Inactive() override;
    HRESULT EndOfStream() override;
    // Moves with every activation, flush and restart. EndActivity is EndOfStream, if it has not moved since.
    uint32_t Activity() const { return m_epoch; }
    void EndActivity(uint32_t activity);
    HRESULT DeliverBeginFlush() override;
    HRESULT DeliverEndFlush() override;
    // A new type, also while connected: the receiver is asked, and the next sample carries it. S_FALSE: it is the
    // type already.
    HRESULT SetOutputType(const AM_MEDIA_TYPE* type);
    // A new transport stream: the content forgets what it has. On the parsing thread.
    void Restart();
    // Breaks both sides, whatever the filters' states.
    void DropConnections();

    // IPacketSink
    int DeliverPacket(const uint8_t* packet, const TsHeader& header, const AdaptationFieldHeader& adaptation,
                      bool pidHasSectionFilter) override;
    PacketBatch* Batch() override { return &m_offered; }
    void FlushPackets() override;
    void SignalDelivery() override;
    int DeliverSection(const TsHeader& header, std::span<const uint8_t> section) override;
    std::vector<uint32_t> SectionPids() const override;
    int32_t GetPcrPid() const override;
    void NotifyDiscontinuity(int32_t code, IUnknown* mapping) override;
    void NotifyClockChange(const PcrClock& clock) override;

    // IRALThreadExecutor
    HRESULT OnThreadStart() override { return NameThread("ts-pin"), S_OK; }
    HRESULT OnThreadEnd() override { return S_OK; }
    uint32_t DoOneThreadTask() override;

    // For the contents
    HRESULT DeliverSample(IMediaSample* sample);
    StreamingMode Mode() const { return m_mode; }
    bool HasLiveClock() const { return m_liveClock; }
    REFERENCE_TIME StreamOffset() const { return m_streamOffset.load(std::memory_order_relaxed); }
    MediaClass Media() const { return m_media.load(std::memory_order_relaxed); }
    bool KeepsPesHeaders() const { return m_keepsPesHeaders.load(std::memory_order_relaxed); }
    bool PutsPidBeforeSections() const { return m_putsPidBeforeSections.load(std::memory_order_relaxed); }
    bool IsEosDelivered() const { return m_eosDelivered.load(); }
    void SetStartPending() { m_startPending = true; }
    void SetDataLost() { m_dataLost = true; }
    void SetFlushOnStart() { m_flushOnStart = true; }
    // There is room in the content: the parser may go on.
    void OnRoomMade() { m_room.Set(); }
    // Set when a wait on the delivery thread is to end.
    std::shared_ptr<CEvent> InterruptEvent() const { return m_interrupt; }
    // Before such a wait: forgets what ended others. False when it would have to end at once.
    bool MayWait();

    // For the filter
    ContentKind Kind() const { return m_kind.load(); }
    std::shared_ptr<CStreamExecutor> Content() const;
    const CPidMap& Map() const { return m_map; }
    bool HasRuntimeError() const { return m_runTimeError; }
    void SetRuntimeError();
    // The receiver wants no more but the end.
    bool HasRefused() const { return m_refused; }
    // Makes the delivery thread look.
    void Signal() { m_event->Set(); }

private:
    HRESULT Impl_CheckMediaType(const AM_MEDIA_TYPE& type) override;
    bool IsOnlyCurrentTypeOffered(ContentKind kind) const;
    void NoteMediaType(const AM_MEDIA_TYPE& type);
    HRESULT AskReceiver(const AM_MEDIA_TYPE& type);

    // The map mutex serialises changes of the map and of the content.
    HRESULT MakeContent(ContentKind kind) OS_REQUIRES(m_mapMutex);
    void DestroyContent() OS_REQUIRES(m_mapMutex);
    HRESULT ChooseContent(ULONG count, const ULONG* pids, MEDIA_SAMPLE_CONTENT content) OS_REQUIRES(m_mapMutex);
    HRESULT InsertPids(ULONG count, const ULONG* pids) OS_REQUIRES(m_mapMutex);
    // Tells an active content; brings one in file mode to its program while the filter is stopped.
    bool NoteMapping() OS_REQUIRES(m_mapMutex);
    void TellOfMapping(CStreamExecutor& content);
    // Not without the delivery thread, which the pin has from its activation to its deactivation.
    HRESULT Activate(CStreamExecutor& content);
    // Looks for the program without playing; one that has come to play meanwhile is told that the map has changed.
    void Bind(CStreamExecutor& content);

    // S_OK when the pin takes data.
    HRESULT CheckDeliveryState() const;
    void NoteDeliverable();
    enum class Room { kMaybe, kLost, kGaveUp };
    // After a content refused bytes of data: makes room, waits for it, or gives up.
    Room WaitForRoom(CStreamExecutor& content, uint32_t milliseconds);
    Room MakeRoom(CStreamExecutor& content, HRESULT refusal, int32_t bytes, uint32_t milliseconds, bool* retried);

    // Delivery
    std::shared_ptr<CRALThread> Thread();
    HRESULT MakeThread();
    void WakeThread();
    void BeginEpoch();
    void RunTask(uint32_t epoch);
    // Memory is out: the stream goes no further, and the application is told why.
    void FailTask(uint32_t epoch);
    bool SendSome(CStreamExecutor& content, int32_t budget, uint32_t epoch);
    // What write does at the end of a task, unless the task's epoch is over; then the thread rests.
    template <class Write>
    void Rest(uint32_t epoch, Write write);
    // The end is pending: through the thread, or by itself.
    void BringEnd(uint32_t activity);
    void DeliverPendingEnd(uint32_t epoch);
    void WaitForThreadInactive();
    // Ends the waits of the delivery thread, which then looks at the state again.
    void Interrupt();
    void FlushDownstream();

    IOutputHost& m_host;
    const StreamingMode m_mode;
    const bool m_liveClock;
    std::weak_ptr<CTsOutputPin> m_self;

    // So that no activation falls between those two of Bind.
    CCritSec m_activationLock{"content's activation", kRankActivation};
    CPidMap m_map;
    CCritSec m_mapMutex{"pin's map", kRankPinMap};
    mutable CCritSec m_contentLock{"content pointer", kRankContentRef};
    std::shared_ptr<CStreamExecutor> m_content OS_GUARDED_BY(m_contentLock);
    std::atomic<ContentKind> m_kind{ContentKind::kNone};

    // Of the current media type.
    std::atomic<MediaClass> m_media{MediaClass::kOther};
    std::atomic<bool> m_keepsPesHeaders{false};
    std::atomic<bool> m_putsPidBeforeSections{false};

    std::atomic<REFERENCE_TIME> m_streamOffset;
    std::atomic<bool> m_startPending{true};  // the next sample begins a segment
    std::atomic<bool> m_flushOnStart{false};
    std::atomic<bool> m_typeChanged{false};
    std::atomic<bool> m_dataLost{false};
    std::atomic<bool> m_eosPending{false};
    std::atomic<bool> m_eosDelivered{false};
    std::atomic<bool> m_flushing{false};
    std::atomic<bool> m_refused{false};
    RALThreadPtr<CRALExecutorThread> m_thread OS_GUARDED_BY(m_pinLock);
    const std::shared_ptr<CEvent> m_event;
    const std::shared_ptr<CEvent> m_interrupt;
    CEvent m_room{EventReset::kAuto};
    // Guards the step from one epoch to the next, and the end of a task against it.
    std::mutex m_taskMutex;
    std::condition_variable m_taskChanged;
    std::atomic<uint32_t> m_epoch{0};
    std::atomic<bool> m_threadRunning{false};  // it is awake; written under the mutex
    bool m_inTask = false;                     // under the mutex
    std::atomic<uint32_t> m_taskEpoch{0};      // in which the task began

    PacketBatch m_offered;
};

}  // namespace tessel
