// The common base of the filters: owns the parser, the program clocks, the section filters, the table
// store, the service list and the output pins, and wires them.
//
// One thread at a time feeds and parses, with the streaming lock. The table lock guards section filters, table
// store and service list, so clients may read those at any time. The program clocks have the PCR lock. What the
// parser finds to do that calls receivers or sinks waits until those locks are released.
#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <span>
#include <vector>

#include "core/OutputPinList.h"
#include "core/PacketRouter.h"
#include "core/ParseTurn.h"
#include "core/SavedState.h"
#include "core/stream/PacketParser.h"
#include "core/stream/PcrClocks.h"
#include "core/stream/PidStatus.h"
#include "core/stream/ReadingRules.h"
#include "core/stream/StreamingMode.h"
#include "output/OutputHost.h"
#include "platform/media/BaseFilter.h"
#include "platform/media/Mpeg2Demultiplexer.h"
#include "platform/media/PersistStream.h"
#include "platform/media/SourceInterfaces.h"
#include "services/ServiceList.h"
#include "services/objects/Parameters.h"
#include "services/objects/PidParameters.h"
#include "tables/SectionFilter.h"
#include "tables/TableStore.h"

namespace tessel {

// The base filter is given the state lock, so that one comes first.
struct FilterStateLock {
    CCritSec m_stateLock{"filter state", kRankFilterState};
};

class CTsFilterBase : private FilterStateLock,
                      public CBaseFilter,
                      public CPersistStream,
                      public IAMFilterMiscFlags,
                      public IMpeg2Demultiplexer,
                      public IGetSetParam,
                      public IMPEG2PIDParam,
                      public ITableDecoder,
                      public IDvbServiceInformationEx,
                      protected IOutputHost,
                      private IPcrClockOwner,
                      private ITableStoreEvents,
                      private IServiceListOwner {
public:
    using CDvbServices = tessel::CDvbServices;

    ~CTsFilterBase() override;

    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override;
    // References of clients. Threads of the filter hold it apart from them (Hold), so that what they call may take a
    // reference at any time. When the last client lets go, the filter stops and ends its threads; it is gone when
    // none of them holds it any more.
    ULONG NonDelegatingAddRef() override;
    ULONG NonDelegatingRelease() override;
    void ForgetReference() override;

    // Chooses the mode (parameter: 1 in live mode whatever is passed), makes the five table decoders and
    // the service list; there are no output pins then. E_FAIL when that cannot be done.
    HRESULT SetMode(StreamingMode mode, int32_t parameter);
    StreamingMode Mode() const { return m_mode; }
    int32_t ModeParameter() const { return m_modeParameter; }
    // Before the first start.
    void SetRules(const ReadingRules& rules) { m_rules = rules; }

    // PIDs that the input is known to have: a program map does not wait for the first packet of one. Before streaming,
    // and from then on, resets included.
    void ExpectPids(const PidSet& pids) { m_expectedPids = pids; }

    // The filter's states. Stop ends every wait for a receiver first.
    HRESULT GetClassID(CLSID* out) override { return CBaseFilter::GetClassID(out); }
    HRESULT Stop() override;
    HRESULT Pause() override;
    HRESULT Run(REFERENCE_TIME start) override;
    // VFW_S_CANT_CUE while paused, but for files.
    HRESULT GetState(DWORD milliseconds, FILTER_STATE* out) override;
    int GetPinCount() override { return static_cast<int>(m_pins.Count()); }
    std::shared_ptr<CBasePin> GetPin(int index) override;

    ULONG GetMiscFlags() override { return AM_FILTER_MISC_FLAGS_IS_SOURCE; }

    // IMpeg2Demultiplexer. A name has 1 to 49 characters (E_INVALIDARG) and is given once (VFW_E_DUPLICATE_NAME);
    // E_FAIL when there are 10 pins, or none of that name.
    HRESULT CreateOutputPin(AM_MEDIA_TYPE* type, const OLECHAR* name, IPin** out) override;
    HRESULT SetOutputPinMediaType(const OLECHAR* name, AM_MEDIA_TYPE* type) override;
    HRESULT DeleteOutputPin(const OLECHAR* name) override;

    // IGetSetParam: kParamWorkerPriority, kParamSelectService
    HRESULT SetParam(uint32_t id, uint32_t value) override;
    HRESULT GetParam(uint32_t id, uint32_t* out) override;
    HRESULT Reserved1(uint32_t, uint32_t, uint32_t) override { return S_FALSE; }
    HRESULT Reserved2(uint32_t, uint32_t) override { return S_FALSE; }
    HRESULT Reserved3(uint32_t, uint32_t) override { return S_FALSE; }
    HRESULT Reserved4(uint32_t, uint32_t, void**) override { return S_FALSE; }

    // IMPEG2PIDParam
    HRESULT GetPidParam(int32_t pid, int32_t parameter, uint32_t* out) override;
    HRESULT Reserved1(int32_t, int32_t, uint32_t) override { return S_FALSE; }
    HRESULT Reserved2(int32_t, int32_t, uint32_t) override { return S_FALSE; }
    HRESULT Reserved3(int32_t, int32_t, uint32_t) override { return S_FALSE; }
    HRESULT Reserved4(int32_t, int32_t, uint32_t) override { return S_FALSE; }
    HRESULT Reserved5(int32_t, int32_t, uint32_t) override { return S_FALSE; }

    // Makes the buffer, resets parsing, and takes data from then on. S_OK or E_OUTOFMEMORY.
    virtual HRESULT StartStreaming();
    // As StartStreaming, by whoever does not hold the state lock. S_FALSE, and nothing done, when the filter is stopped
    // or about to stop.
    HRESULT RestartStreaming();
    virtual HRESULT StopStreaming();
    bool IsStreaming() const { return m_streaming.load(std::memory_order_relaxed); }

    // Copies what fits of *length bytes and moves the caller's pointer and length on by that. S_FALSE when
    // not streaming, E_UNEXPECTED without a buffer, E_OUTOFMEMORY when nothing fits.
    HRESULT AddData(const uint8_t** data, int32_t* length);
    // Live mode: the next byte added arrives now.
    void NoteArrival();
    // In-place write into the input buffer; an empty span reserves nothing and needs no commit.
    std::span<uint8_t> ReserveData(int32_t length) { return m_parser.Reserve(length); }
    void CommitData(int32_t written) { m_parser.Commit(written); }
    HRESULT FlushBuffer() { return m_parser.FlushBuffer(); }
    HRESULT DetectPacketSize() { return m_parser.DetectPacketSize(); }
    // S_OK out of data, S_FALSE stopped by the outputs (file mode), by a stop or where the input ends, E_UNEXPECTED
    // without a buffer.
    // Takes the streaming lock for the parsing and calls receivers and sinks without it.
    HRESULT ParseData();
    // As ParseData, on the caller's bytes where they lie, when nothing waits and nobody else parses; moves the pointer
    // on and the length down by what it took. S_OK when no packet is left to parse; S_FALSE when it could do nothing;
    // kParsePaused where receivers or sinks are to be called: the rest is for AddData and ParseData.
    HRESULT ParseInPlace(const uint8_t** data, int32_t* length);

    const PacketParser& Parser() const { return m_parser; }
    const PidStatusBits& PidStatus() const { return m_pidStatus; }
    PacketRouter& Router() { return m_router; }
    PcrClocks& Clocks() { return m_clocks; }
    // Null before SetMode.
    CDvbServices* Services() { return m_services.get(); }
    uint32_t CurrentTransportStreamId() const { return m_currentTransportStreamId.load(std::memory_order_relaxed); }
    // Every current table, by table_id and key.
    std::vector<TableStore::Version> TableVersions();

    // A jump of a clock; called with the PCR lock held once. Contents go through the host's operation.
    HRESULT SetPcrDiscont(PcrClock& clock) override;
    // Around every change of what an output wants. Stale clocks are dropped, and the last end makes a clock for
    // every output's PCR PID that has none.
    HRESULT BeginPcrUpdate() override;
    HRESULT EndPcrUpdate() override;

    // Throws away buffered bytes, PID status, clocks, tables, services and section filters, and puts the default
    // section filters back.
    virtual void InternalReset();

    // ITableDecoder
    HRESULT AddTablePid(uint32_t tableId, uint32_t tableIdExtension, uint32_t pid) override;
    HRESULT EnumTables(uint32_t tableId, IDvbCollection** out) override;
    HRESULT GetTable(uint32_t tableId, uint32_t key, IDvbTable** out) override;
    // The table of that table_id with the lowest key.
    HRESULT GetFirstTable(uint32_t tableId, IDvbTable** out);

    // IDvbServiceInformationEx; a filter that has no client events leaves the first three as they are.
    HRESULT Reset() override { return S_OK; }
    HRESULT AdviseEvents(IUnknown*, uint32_t*) override { return S_OK; }
    HRESULT UnadviseEvents(uint32_t) override { return S_OK; }
    HRESULT IsServiceInformationComplete() override;
    HRESULT GetTable(uint32_t tableId, IDvbTable** out) override { return GetFirstTable(tableId, out); }
    HRESULT GetProgramMapTable(uint32_t programNumber, IDvbProgramMapTable** out) override;
    HRESULT GetTransportStreamId(uint32_t* out) override;
    HRESULT GetOriginalNetworkId(uint32_t* out) override;
    HRESULT GetServices(IDvbMapping** out) override;

protected:
    // A section filter came, or all went.
    struct PidNotice {
        bool reset = false;
        uint32_t tableId = 0;
        uint32_t pid = 0;
    };

    explicit CTsFilterBase(const char* name, int32_t requestedCapacity = PacketParser::kDefaultCapacity,
                           IUnknown* outer = nullptr);

    // For filters' own query functions.
    static bool IsServiceInformation(const IID& iid) {
        return iid == IDvbServiceInformation::kIid || iid == IDvbServiceInformationEx::kIid;
    }

    // The steps of StartStreaming, for a filter that puts them together in its own way. With the streaming lock.
    HRESULT CreateInput() { return m_parser.CreateBuffer(); }
    // The stream position of the next byte that comes in.
    void SetInputPosition(int64_t position) { m_parser.ResetPositions(position); }
    void TakeInput();
    // TakeInput that ends no ending.
    void BeginInput();
    // InternalReset but for tables, services and clocks, which stay.
    void ResetParsing();
    // Without a lock. Sections come in no more until the next reset.
    void RemoveSectionFilters();
    // While set, tables and clocks are made, and the outputs are offered nothing.
    void SetScanning(bool scanning) { m_scanning.store(scanning, std::memory_order_relaxed); }
    bool IsScanning() const { return m_scanning.load(std::memory_order_relaxed); }

    // Whether the packet that is being parsed ends the input: then it stays unread. Asked behind a clock reference and
    // a PAT of another stream.
    virtual bool EndsInput() const { return false; }
    // A PAT carries another transport_stream_id than before.
    virtual void NewTSID(uint32_t transportStreamId);
    void SetCurrentTransportStreamId(uint32_t transportStreamId) {
        m_currentTransportStreamId.store(transportStreamId, std::memory_order_relaxed);
    }
    HRESULT __ResetTables();

    // Raised by the table store inside the table lock; filters extend them.
    HRESULT OnTableReady(uint32_t tableId, uint32_t key) override;
    HRESULT OnTableStale(uint32_t tableId, uint32_t key) override;

    // Stream time from Run until streaming ends, else 0.
    REFERENCE_TIME CurrentStreamTime() override;

    // Tells the clients of a filter that has any; no lock is held.
    virtual void TellPidSinks(std::span<const PidNotice>) {}
    // After an output pin has made, or broken, its connection. The first with the state lock.
    virtual HRESULT EnsureFreePin(CTsOutputPin&) { return S_OK; }
    void OnPinDisconnected(CTsOutputPin&) override {}

    CCritSec& StateLock() OS_RETURN_CAPABILITY(m_stateLock) { return m_stateLock; }
    CCritSec& StreamingLock() OS_RETURN_CAPABILITY(m_streamingLock) { return m_streamingLock; }
    CCritSec& TableLock() OS_RETURN_CAPABILITY(m_tableLock) { return m_tableLock; }
    // Not to be had when the filter is about to stop; see CParseTurn.
    CHeldTurn TakeParseTurn() {
        return CHeldTurn(m_parseTurn.Take([this] { return IsEnding(); }) ? &m_parseTurn : nullptr);
    }
    // As TakeParseTurn, also from a parser that waits for a receiver: what there is no room for meanwhile is lost.
    CHeldTurn SeizeParseTurn();
    COutputPinList& Pins() { return m_pins; }

    // A new pin at the end of the list; null when the list is full or memory is out. An empty name: the next number.
    OutputPinPtr CreatePin(const std::u16string& name);
    // Disconnects and ends the pin whatever the filter's state.
    void RemovePin(const OutputPinPtr& pin);

    void SetPacketSize(int32_t size) { m_parser.SetPacketSize(size); }
    // The last client has let go. On any thread, also one that is to end; without a lock.
    virtual void EndThreads() { Stop(); }
    // Put off until the locks are released: contents start anew.
    void DeferRestart();
    void DeferPidNotice(const PidNotice& notice);
    // What was put off, in order. Without a lock, by whoever had the streaming lock.
    void RunDeferred();
    // From now on until StartStreaming nobody waits for a receiver.
    void BeginEnding();

    // IOutputHost
    std::shared_ptr<const void> Hold() override;
    bool IsEnding() const override { return m_ending.load(); }
    bool IsParserAwaited() const override { return IsEnding() || m_seizing != 0; }
    int32_t WorkerPriority() const override { return m_workerPriority.load(std::memory_order_relaxed); }
    std::shared_ptr<const ProgramMapTables> CurrentProgramMapTables() override;

    // CPersistStream
    DWORD GetSoftwareVersion() override { return 7; }
    uint64_t SizeMax() override;
    HRESULT ScribbleToStream(IStream* stream) override;
    HRESULT ReadFromStream(IStream* stream) override;

private:
    enum class DefaultFilters { kWithPat, kWithoutPat };

    struct ProgramOffer {
        OutputPinPtr pin;
        std::shared_ptr<CStreamExecutor> content;
        uint32_t epoch;  // of the content
        uint32_t programNumber;
        ComPtr<IDvbProgramMapTable> table;
    };
    struct Deferred {
        bool restart = false;
        std::vector<ProgramOffer> offers;
        std::vector<PidNotice> notices;
    };

    friend PacketParser;
    ParserStep ParsePacket(const uint8_t* packet);
    // What most packets do not need is in operations of its own. These two take the headers by value, so that
    // ParsePacket can keep them in registers.
    //
    // The step of a clock. False where the input ends.
    bool FollowClock(const uint8_t* packet, TsHeader header, AdaptationFieldHeader adaptation);
    // Of a PID with a section filter: one packet in fifty.
    ParserStep ParseTablePacket(const uint8_t* packet, TsHeader header, AdaptationFieldHeader adaptation);
    ParserStep OfferTablePacket(const uint8_t* packet, const TsHeader& header, const AdaptationFieldHeader& adaptation);
    // A section that announced another transport stream. The contents start anew before they get it, so it waits,
    // with its packet, until that has been done.
    struct Announcement {
        int64_t position = -1;  // of the packet
        HRESULT status = S_OK;
        std::vector<uint8_t> section;
    };

    // What the section filter of the packet's PID makes of it; a failure keeps the packet from the outputs.
    HRESULT ParseSections(const uint8_t* packet, const TsHeader& header, const AdaptationFieldHeader& adaptation,
                          bool* announced);
    ParserStep OfferAnnouncement(const uint8_t* packet, TsHeader header);
    HRESULT DispatchSection(std::span<const uint8_t> section);
    void DeleteSectionFilters(uint32_t firstPid) OS_REQUIRES(m_tableLock);
    void InstallSectionFilters(DefaultFilters which);
    HRESULT InstallSectionFilter(uint32_t pid);
    void OfferProgram(uint32_t programNumber);
    // The current table of that program, or null, takes its place in the snapshot.
    void NoteProgramMapTable(uint32_t programNumber, ComPtr<IDvbProgramMapTable> table);
    HRESULT SelectService(uint32_t index);
    HRESULT LoadPin(const SavedPin& saved);

    std::vector<int32_t> PcrPids() override { return m_router.PcrPids(); }
    void NotifyDiscontinuity(int32_t pcrPid) override { m_router.NotifyDiscontinuity(pcrPid); }
    void NotifyClockChange(const PcrClock& clock) override { m_router.NotifyClockChange(clock); }
    bool IsPidPresent(uint32_t pid) const override {
        return pid < kPidCount && (m_pidStatus.IsPresent(pid) || m_expectedPids.test(pid));
    }
    HRESULT RequestTablePid(uint32_t tableId, uint32_t tableIdExtension, uint32_t pid) override;

    // IOutputHost
    bool IsHostStopped() const override { return IsStopped(); }
    bool IsHostRunning() const override { return State() == State_Running; }
    bool HasClock() const override { return static_cast<bool>(Clock()); }
    std::shared_ptr<CDeliveryLock> DeliveryLock() override { return m_deliveryLock; }
    const ReadingRules& Rules() const override { return m_rules; }
    HRESULT SetPcrDiscont(int32_t pcrPid) override { return m_clocks.SetPcrDiscont(pcrPid); }
    HRESULT StartSync(const CStreamExecutor& content, bool inputEnded, int64_t* ptsOrigin,
                      REFERENCE_TIME* timeOrigin) override;
    void WaitForStreamTime(REFERENCE_TIME at, const std::shared_ptr<CEvent>& event, uint32_t milliseconds) override;
    HRESULT WantSections(uint32_t pid) override;
    void OnPinWants(CTsOutputPin& pin, ULONG pid, bool wanted) override;
    void OnPinWantsChanged(CTsOutputPin& pin) override;
    void OnPinDeliverableChanged(CTsOutputPin& pin, bool deliverable) override;
    HRESULT OnPinConnected(CTsOutputPin& pin) override;
    bool IsFirstPin(const CTsOutputPin& pin) override { return m_pins.At(0).get() == &pin; }
    HRESULT QueryHost(const IID& iid, void** out) override { return QueryInterface(iid, out); }

    std::atomic<int32_t> m_clients{0};       // their references, which together hold the filter once
    std::atomic<int32_t> m_lastReleases{0};  // those by which they all went, and whose EndThreads is still to come

    CCritSec m_streamingLock;
    CCritSec m_tableLock;
    CParseTurn m_parseTurn;

    // Written with the streaming lock held; read by those who need no more than its value. The buffer itself is
    // only touched under the lock.
    std::atomic<bool> m_streaming{false};
    std::atomic<bool> m_running{false};  // as m_streaming; a pause leaves it, so that the time of the arrivals goes on
    std::atomic<bool> m_ending{false};
    std::atomic<int> m_seizing{0};  // how many threads wait in SeizeParseTurn
    std::atomic<bool> m_scanning{false};
    std::atomic<int32_t> m_workerPriority{1};
    StreamingMode m_mode = StreamingMode::kStream;
    int32_t m_modeParameter = 1;
    ReadingRules m_rules;
    const std::shared_ptr<CDeliveryLock> m_deliveryLock;

    PacketParser m_parser;
    // With the streaming lock.
    Announcement m_announcement;
    PidStatusBits m_pidStatus;
    PidSet m_expectedPids;  // does not change while the filter streams
    PacketRouter m_router;
    PcrClocks m_clocks;
    COutputPinList m_pins;

    // Set under the table lock. The parser asks whether a slot is occupied without it: filters are deleted
    // only while the parser stands still, and one added a packet later is as good.
    std::unique_ptr<std::atomic<SectionFilter*>[]> m_sectionFilterSlots;
    // Written by the parsing thread and by resets under the table lock; clients only display it.
    std::atomic<uint32_t> m_currentTransportStreamId{0};
    // A PAT has come since the last reset.
    bool m_isStreamKnown OS_GUARDED_BY(m_tableLock) = false;
    TableStore m_tables OS_GUARDED_BY(m_tableLock);
    std::unique_ptr<CDvbServices> m_services;

    // What there is after a reset, which needs no memory.
    const std::shared_ptr<const ProgramMapTables> m_noPrograms;
    CCritSec m_programsLock{"program map tables", kRankLeaf};
    std::shared_ptr<const ProgramMapTables> m_programs OS_GUARDED_BY(m_programsLock);

    CCritSec m_deferredLock{"deferred work", kRankLeaf};
    Deferred m_deferred OS_GUARDED_BY(m_deferredLock);
    // There is some; the parser asks after every section.
    std::atomic<bool> m_hasDeferred{false};
};

}  // namespace tessel
