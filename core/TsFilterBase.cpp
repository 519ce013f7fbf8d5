#include "core/TsFilterBase.h"

#include <new>

#include "Classes/MultiPlatform/GenUtilMP.h"
#include "Classes/MultiPlatform/LockRanks.h"
#include "tables/TableFactory.h"

namespace tessel {

namespace {

constexpr uint32_t kAnyTable = 0xFFFFFFFF;

struct DefaultFilter {
    uint32_t tableId;
    uint32_t pid;
};

// In this order: the two ATSC tables share a PID, so the last request finds it occupied.
constexpr DefaultFilter kPatFilter = {kProgramAssociationTable, 0x0000};
constexpr DefaultFilter kNameFilters[] = {
    {kServiceDescriptionTable, 0x0011}, {kMasterGuideTable, 0x1FFB}, {kVirtualChannelTable, 0x1FFB}};

template <class Factory>
std::unique_ptr<ITableFactory> MakeFactory() {
    return std::unique_ptr<ITableFactory>(new (std::nothrow) Factory);
}

}  // namespace

CTsFilterBase::CTsFilterBase(const char* name, int32_t requestedCapacity, IUnknown* outer)
    : CBaseFilter(name, outer, &m_stateLock, GUID_NULL),
      m_streamingLock("streaming", kRankStreaming),
      m_tableLock("tables", kRankTable),
      m_deliveryLock(std::make_shared<CDeliveryLock>()),
      m_parser(requestedCapacity),
      m_clocks(*this),
      m_sectionFilterSlots(new std::atomic<SectionFilter*>[kPidCount]()),
      m_tables(*this),
      m_noPrograms(std::make_shared<const ProgramMapTables>()),
      m_programs(m_noPrograms) {}

CTsFilterBase::~CTsFilterBase() {
    Stop();
    __ResetTables();
    {
        CScopedLock lock(&m_tableLock);
        DeleteSectionFilters(0);
    }
    for (const OutputPinPtr& pin : m_pins.All())
        RemovePin(pin);
}

HRESULT CTsFilterBase::SetMode(StreamingMode mode, int32_t parameter) {
    for (const OutputPinPtr& pin : m_pins.All())
        RemovePin(pin);
    m_pins.TakeAll();
    m_mode = mode;
    m_modeParameter = mode == StreamingMode::kLive ? 1 : parameter;
    m_clocks.SetLive(mode == StreamingMode::kLive);

    CScopedLock lock(&m_tableLock);
    const bool decoders =
        m_tables.AddDecoder(kProgramAssociationTable, MakeFactory<ProgramAssociationTableFactory>()) &&
        m_tables.AddDecoder(kProgramMapTable, MakeFactory<ProgramMapTableFactory>()) &&
        m_tables.AddDecoder(kServiceDescriptionTable, MakeFactory<ServiceDescriptionTableFactory>()) &&
        m_tables.AddDecoder(kMasterGuideTable, MakeFactory<MasterGuideTableFactory>()) &&
        m_tables.AddDecoder(kVirtualChannelTable, MakeFactory<VirtualChannelTableFactory>());
    m_services.reset(new (std::nothrow) CDvbServices(m_tableLock, *this));
    return decoders && m_services ? S_OK : E_FAIL;
}

HRESULT CTsFilterBase::StartStreaming() {
    m_ending = false;
    return RestartStreaming();
}

HRESULT CTsFilterBase::RestartStreaming() {
    HRESULT result = S_OK;
    {
        CScopedLock lock(&m_streamingLock);
        // A stop says so first, and then ends streaming with this lock.
        if (IsEnding())
            return S_FALSE;
        result = m_parser.CreateBuffer();
        if (FAILED(result))
            return result;
        InternalReset();
        SetInputPosition(0);
        BeginInput();
    }
    RunDeferred();
    return result;
}

void CTsFilterBase::BeginInput() {
    m_streaming.store(true, std::memory_order_relaxed);
    m_running = State() == State_Running;
}

void CTsFilterBase::TakeInput() {
    m_ending = false;
    BeginInput();
}

HRESULT CTsFilterBase::StopStreaming() {
    CScopedLock lock(&m_streamingLock);
    if (m_streaming.exchange(false, std::memory_order_relaxed)) {
        m_running = false;
        m_parser.DestroyBuffer();
    }
    return S_OK;
}

HRESULT CTsFilterBase::AddData(const uint8_t** data, int32_t* length) {
    return IsStreaming() ? m_parser.AddData(data, length) : S_FALSE;
}

void CTsFilterBase::NoteArrival() {
    if (m_mode == StreamingMode::kLive)
        m_parser.NoteArrival(CurrentStreamTime());
}

HRESULT CTsFilterBase::ParseData() {
    const CHeldTurn turn = TakeParseTurn();
    if (!turn)
        return S_FALSE;
    HRESULT result = S_OK;
    do {
        RunDeferred();
        CScopedLock lock(&m_streamingLock);
        result = m_parser.ParseData(*this);
        // The bytes that the outputs noted may move when the lock is released.
        m_router.FlushPackets();
        if (result != kParsePaused)
            m_router.SignalDelivery();
    } while (result == kParsePaused);
    RunDeferred();
    return result;
}

HRESULT CTsFilterBase::ParseInPlace(const uint8_t** data, int32_t* length) {
    const CHeldTurn turn(m_parseTurn.TryTake() ? &m_parseTurn : nullptr);
    if (!turn)
        return S_FALSE;
    CScopedLock lock(&m_streamingLock);
    if (!IsStreaming() || m_hasDeferred)
        return S_FALSE;
    const HRESULT result = m_parser.ParseInPlace(*this, data, length);
    m_router.FlushPackets();
    m_router.SignalDelivery();
    return result;
}

[[gnu::always_inline]] inline ParserStep CTsFilterBase::ParsePacket(const uint8_t* packet) {
    const TsHeader header = DecodeTsHeader(packet);
    if (m_announcement.position >= 0 && m_announcement.position == m_parser.StreamPosition()) [[unlikely]]
        return OfferAnnouncement(packet, header);
    const uint32_t pid = header.Pid();
    const bool scrambled = header.TransportScramblingControl() != 0;
    m_pidStatus.Update(pid, scrambled);
    if (header.TransportErrorIndicator() || scrambled)
        return ParserStep::kGoOn;

    AdaptationFieldHeader adaptation;
    if (header.HasAdaptationField()) {
        adaptation = DecodeAdaptationFieldHeader(packet);
        if (adaptation.Length() > kMaxAdaptationFieldLength)
            return ParserStep::kGoOn;
        if (m_clocks.Wants(adaptation) && !FollowClock(packet, header, adaptation)) [[unlikely]]
            return ParserStep::kRefused;
    }

    const bool hasSectionFilter = m_sectionFilterSlots[pid].load(std::memory_order_acquire) != nullptr;
    if (!hasSectionFilter) [[likely]] {
        const bool refused = !IsScanning() && m_router.OfferPacket(packet, header, adaptation, false);
        return refused && m_mode == StreamingMode::kFile ? ParserStep::kRefused : ParserStep::kGoOn;
    }
    return ParseTablePacket(packet, header, adaptation);
}

bool CTsFilterBase::FollowClock(const uint8_t* packet, TsHeader header, AdaptationFieldHeader adaptation) {
    // Notices about a jump stand at the right byte only when all before it has gone in.
    m_router.FlushPackets();
    m_clocks.AdjustPcr(packet, header, adaptation, m_parser.StreamPosition(), m_parser.CurrentArrival());
    return !EndsInput();
}

ParserStep CTsFilterBase::ParseTablePacket(const uint8_t* packet, TsHeader header, AdaptationFieldHeader adaptation) {
    bool announced = false;
    const HRESULT status = ParseSections(packet, header, adaptation, &announced);
    if (announced)
        return EndsInput() ? ParserStep::kRefused : ParserStep::kAgain;
    if (SUCCEEDED(status))
        return OfferTablePacket(packet, header, adaptation);
    return m_hasDeferred.load(std::memory_order_relaxed) ? ParserStep::kPause : ParserStep::kGoOn;
}

ParserStep CTsFilterBase::OfferTablePacket(const uint8_t* packet, const TsHeader& header,
                                           const AdaptationFieldHeader& adaptation) {
    const bool refused = !IsScanning() && m_router.OfferPacket(packet, header, adaptation, true);
    if (refused && m_mode == StreamingMode::kFile)
        return ParserStep::kRefused;
    return m_hasDeferred.load(std::memory_order_relaxed) ? ParserStep::kPause : ParserStep::kGoOn;
}

HRESULT CTsFilterBase::ParseSections(const uint8_t* packet, const TsHeader& header,
                                     const AdaptationFieldHeader& adaptation, bool* announced) {
    HRESULT status = S_OK;
    std::span<const uint8_t> section;
    {
        CScopedLock lock(&m_tableLock);
        SectionFilter* filter = m_sectionFilterSlots[header.Pid()].load(std::memory_order_relaxed);
        if (filter == nullptr || !header.HasPayload())
            return S_OK;
        const int32_t offset = PayloadOffset(header, adaptation);
        const int32_t length = kTransportPacketSize - offset;
        if (length < 1)
            return E_FAIL;
        status = filter->AssembleSection(packet + offset, length, header.PayloadUnitStartIndicator(),
                                         adaptation.DiscontinuityIndicator(), header.ContinuityCounter());
        section = filter->TakeCompleted();
        if (!section.empty()) {
            const uint32_t before = CurrentTransportStreamId();
            DispatchSection(section);
            *announced = CurrentTransportStreamId() != before;
        }
    }
    if (*announced) {
        m_announcement = {m_parser.StreamPosition(), status, {section.begin(), section.end()}};
        return status;
    }
    // Outside the table lock: the bytes stay until this PID's next section completes, on this thread.
    if (!section.empty() && !IsScanning())
        m_router.OfferSection(header, section);
    return status;
}

ParserStep CTsFilterBase::OfferAnnouncement(const uint8_t* packet, TsHeader header) {
    const Announcement announcement = std::exchange(m_announcement, {});
    if (!IsScanning())
        m_router.OfferSection(header, announcement.section);
    if (FAILED(announcement.status))
        return ParserStep::kGoOn;
    const auto adaptation = header.HasAdaptationField() ? DecodeAdaptationFieldHeader(packet) : AdaptationFieldHeader{};
    return OfferTablePacket(packet, header, adaptation);
}

HRESULT CTsFilterBase::DispatchSection(std::span<const uint8_t> section) {
    CScopedLock lock(&m_tableLock);
    if (section.size() >= 5 && section[0] == kProgramAssociationTable) {
        const auto transportStreamId = static_cast<uint32_t>(section[3] << 8 | section[4]);
        if (transportStreamId != CurrentTransportStreamId())
            NewTSID(transportStreamId);
        m_isStreamKnown = true;
    }
    m_tables.Dispatch(section);
    return S_OK;
}

// The clocks call this with their lock held, which the interface between them cannot say.
HRESULT CTsFilterBase::SetPcrDiscont(PcrClock& clock) OS_NO_THREAD_SAFETY_ANALYSIS {
    return m_clocks.SetPcrDiscont(clock);
}

HRESULT CTsFilterBase::BeginPcrUpdate() {
    return m_clocks.BeginUpdate(PcrClocks::Stale::kDrop);
}

HRESULT CTsFilterBase::EndPcrUpdate() {
    return m_clocks.EndUpdate(PcrClocks::Stale::kDrop, PcrClocks::Missing::kMake);
}

void CTsFilterBase::InternalReset() {
    CScopedLock lock(&m_tableLock);
    __ResetTables();
    ResetParsing();
}

void CTsFilterBase::ResetParsing() {
    m_parser.FlushBuffer();
    m_announcement = {};
    CScopedLock lock(&m_tableLock);
    SetCurrentTransportStreamId(0);
    m_isStreamKnown = false;
    m_pidStatus.Clear();
    DeleteSectionFilters(0);
    InstallSectionFilters(DefaultFilters::kWithPat);
}

void CTsFilterBase::NewTSID(uint32_t transportStreamId) {
    CScopedLock lock(&m_tableLock);
    __ResetTables();
    // The PAT that announced the new stream is still being handled on PID 0, so its filter stays.
    DeleteSectionFilters(1);
    InstallSectionFilters(DefaultFilters::kWithoutPat);
    // What came before the first table is of the stream that it names: the contents keep it.
    if (m_isStreamKnown)
        DeferRestart();
    SetCurrentTransportStreamId(transportStreamId);
}

HRESULT CTsFilterBase::__ResetTables() {
    TableStore::Detached tables;
    std::vector<ComPtr<IUnknown>> services;
    std::shared_ptr<const ProgramMapTables> programs = m_noPrograms;
    CScopedLock lock(&m_tableLock);
    {
        CScopedLock snapshot(&m_programsLock);
        std::swap(programs, m_programs);
    }
    // Under both locks, so that nobody meets the clocks of one stream with the tables of another.
    CScopedLock clocks(&m_clocks.Lock());
    tables = m_tables.Detach();
    m_clocks.Clear();
    if (m_services)
        services = m_services->Detach();
    return S_OK;
}

void CTsFilterBase::RemoveSectionFilters() {
    CScopedLock streaming(&m_streamingLock);
    CScopedLock tables(&m_tableLock);
    DeleteSectionFilters(0);
}

void CTsFilterBase::DeleteSectionFilters(uint32_t firstPid) {
    for (uint32_t pid = firstPid; pid < kPidCount; ++pid)
        if (m_sectionFilterSlots[pid].load(std::memory_order_relaxed) != nullptr)
            delete m_sectionFilterSlots[pid].exchange(nullptr, std::memory_order_acq_rel);
}

void CTsFilterBase::InstallSectionFilters(DefaultFilters which) {
    if (which == DefaultFilters::kWithPat)
        RequestTablePid(kPatFilter.tableId, 0, kPatFilter.pid);
    for (const DefaultFilter& filter : kNameFilters)
        RequestTablePid(filter.tableId, 0, filter.pid);
    for (const auto& sink : m_router.Sinks())
        for (const uint32_t pid : sink->SectionPids())
            RequestTablePid(kAnyTable, 0, pid);
}

HRESULT CTsFilterBase::InstallSectionFilter(uint32_t pid) {
    if (pid >= kPidCount)
        return E_INVALIDARG;
    CScopedLock lock(&m_tableLock);
    std::atomic<SectionFilter*>& slot = m_sectionFilterSlots[pid];
    if (slot.load(std::memory_order_relaxed) != nullptr)
        return E_ACCESSDENIED;
    try {
        slot.store(new SectionFilter(static_cast<uint16_t>(pid)), std::memory_order_release);
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    return S_OK;
}

HRESULT CTsFilterBase::RequestTablePid(uint32_t tableId, uint32_t, uint32_t pid) {
    const HRESULT result = InstallSectionFilter(pid);
    if (SUCCEEDED(result))
        DeferPidNotice({.tableId = tableId, .pid = pid});
    return result;
}

HRESULT CTsFilterBase::AddTablePid(uint32_t tableId, uint32_t, uint32_t pid) {
    const HRESULT result = InstallSectionFilter(pid);
    if (SUCCEEDED(result)) {
        const PidNotice notice{.tableId = tableId, .pid = pid};
        TellPidSinks({&notice, 1});
    }
    return result;
}

HRESULT CTsFilterBase::WantSections(uint32_t pid) {
    return AddTablePid(kAnyTable, 0, pid);
}

HRESULT CTsFilterBase::EnumTables(uint32_t tableId, IDvbCollection** out) {
    CScopedLock lock(&m_tableLock);
    return m_tables.EnumTables(tableId, out);
}

HRESULT CTsFilterBase::GetTable(uint32_t tableId, uint32_t key, IDvbTable** out) {
    CScopedLock lock(&m_tableLock);
    return m_tables.GetTable(tableId, key, out);
}

HRESULT CTsFilterBase::GetFirstTable(uint32_t tableId, IDvbTable** out) {
    CScopedLock lock(&m_tableLock);
    return m_tables.GetFirstTable(tableId, out);
}

HRESULT CTsFilterBase::IsServiceInformationComplete() {
    return m_services ? m_services->IsComplete() : S_FALSE;
}

HRESULT CTsFilterBase::GetProgramMapTable(uint32_t programNumber, IDvbProgramMapTable** out) {
    if (out == nullptr)
        return E_POINTER;
    *out = nullptr;
    ComPtr<IDvbTable> table;
    const HRESULT result = GetTable(kProgramMapTable, programNumber, table.Put());
    return SUCCEEDED(result) ? table->QueryInterface(IDvbProgramMapTable::kIid, reinterpret_cast<void**>(out)) : result;
}

HRESULT CTsFilterBase::GetTransportStreamId(uint32_t* out) {
    return m_services ? m_services->GetTransportStreamId(out) : E_NOINTERFACE;
}

HRESULT CTsFilterBase::GetOriginalNetworkId(uint32_t* out) {
    return m_services ? m_services->GetOriginalNetworkId(out) : E_NOINTERFACE;
}

HRESULT CTsFilterBase::GetServices(IDvbMapping** out) {
    if (out == nullptr)
        return E_POINTER;
    *out = nullptr;
    return m_services ? m_services->GetServices(out) : E_NOINTERFACE;
}

std::vector<TableStore::Version> CTsFilterBase::TableVersions() {
    CScopedLock lock(&m_tableLock);
    return m_tables.Versions();
}

HRESULT CTsFilterBase::OnTableReady(uint32_t tableId, uint32_t key) {
    const bool isProgram = tableId == kProgramMapTable;
    if (isProgram) {
        ComPtr<IDvbTable> table;
        GetTable(tableId, key, table.Put());
        NoteProgramMapTable(key, table.As<IDvbProgramMapTable>());
    }
    const HRESULT result = m_services ? m_services->TableComplete(tableId, key) : S_OK;
    if (isProgram && FAILED(result))
        NoteProgramMapTable(key, nullptr);  // the store drops it
    if (isProgram && SUCCEEDED(result))
        OfferProgram(key);
    return result;
}

HRESULT CTsFilterBase::OnTableStale(uint32_t tableId, uint32_t key) {
    return m_services ? m_services->TableChanging(tableId, key) : S_OK;
}

void CTsFilterBase::NoteProgramMapTable(uint32_t programNumber, ComPtr<IDvbProgramMapTable> table) {
    std::shared_ptr<const ProgramMapTables> last;
    CScopedLock lock(&m_programsLock);
    last = std::exchange(m_programs, m_programs->With(programNumber, std::move(table)));
}

std::shared_ptr<const ProgramMapTables> CTsFilterBase::CurrentProgramMapTables() {
    CScopedLock lock(&m_programsLock);
    return m_programs;
}

void CTsFilterBase::OfferProgram(uint32_t programNumber) {
    const ComPtr<IDvbProgramMapTable> table = CurrentProgramMapTables()->Find(programNumber);
    if (!table)
        return;
    for (const OutputPinPtr& pin : m_pins.All()) {
        const auto content = pin->Content();
        if (!content || !content->IsActive())
            continue;  // it asks when it becomes active
        CScopedLock lock(&m_deferredLock);
        m_deferred.offers.push_back({pin, content, content->Epoch(), programNumber, table});
        m_hasDeferred = true;
    }
}

void CTsFilterBase::DeferRestart() {
    CScopedLock lock(&m_deferredLock);
    m_deferred.restart = true;
    m_hasDeferred = true;
}

void CTsFilterBase::DeferPidNotice(const PidNotice& notice) {
    CScopedLock lock(&m_deferredLock);
    m_deferred.notices.push_back(notice);
    m_hasDeferred = true;
}

void CTsFilterBase::RunDeferred() {
    if (!m_hasDeferred)
        return;
    Deferred deferred;
    {
        CScopedLock lock(&m_deferredLock);
        std::swap(deferred, m_deferred);
        m_hasDeferred = false;
    }
    if (deferred.restart)
        for (const OutputPinPtr& pin : m_pins.All())
            pin->Restart();
    for (const ProgramOffer& offer : deferred.offers) {
        if (FAILED(offer.content->SetProgram(offer.programNumber, offer.table.Get(), offer.epoch)))
            offer.pin->SetRuntimeError();
        offer.pin->Signal();
    }
    TellPidSinks(deferred.notices);
}

}  // namespace tessel
