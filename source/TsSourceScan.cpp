// The file source's scan of the beginning of a file, until its tables and clocks are known.
#include <algorithm>

#include "services/objects/Collections.h"
#include "source/TsSource.h"
#include "tables/TableFactory.h"

namespace tessel {

namespace {

constexpr int64_t kSyncLimit = 10'240;
constexpr int64_t kTableLimit = 10'000'000;

}  // namespace

void CTsSource::ForgetFile() {
    CScopedLock seeking(&m_seekLock);
    m_steadyClocks.clear();
    m_index.reset();
    m_master = {};
    {
        CScopedLock lock(&m_masterLock);
        m_masterPin.reset();
    }
    m_seekReady = false;
    m_endOfStream = m_aborted = false;
    NotePoints();
    m_position = 0;
    ComPtr<IStream> last;
    {
        CScopedLock lock(&StreamingLock());
        std::swap(last, m_stream);
        m_start = {};
        m_dataStart = 0;
        m_endPosition = INT64_MAX;
    }
    ApplyOffsets();
    CScopedLock lock(&m_nameLock);
    m_fileName.clear();
}

HRESULT CTsSource::StartScan() {
    {
        CScopedLock lock(&StreamingLock());
        const HRESULT result = CreateInput();
        if (FAILED(result))
            return result;
        SetScanning(true);
        InternalReset();
        SetInputPosition(0);
        SetPacketSize(kTransportPacketSize);
        if (FAILED(m_stream->Seek(0, STREAM_SEEK_SET, nullptr)))
            return E_FAIL;
    }
    RunDeferred();
    // So that every PID with PCRs gets a clock.
    Clocks().SetUpdateCount(1);
    return S_OK;
}

HRESULT CTsSource::ScanFile() {
    HRESULT result = StartScan();
    if (SUCCEEDED(result) && !FindSync())
        result = E_FAIL;
    if (SUCCEEDED(result)) {
        ScanTables();
        if (!m_discontinuity && !m_tablesReady && Services() != nullptr && SUCCEEDED(Services()->FinishWithoutNames()))
            m_tablesReady = true;
        // A program without a clock of use is played, and cannot be sought in; one that has it is enough.
        const ClockCount clocks = CountClocks();
        if (m_discontinuity || !m_tablesReady || clocks.steady == 0)
            result = E_FAIL;
        if (clocks.steady == 0 && clocks.jumped > 0)
            m_discontinuity = true;
    }
    RemoveSectionFilters();
    Clocks().SetUpdateCount(0);
    SetScanning(false);
    if (SUCCEEDED(result))
        FinishClocks();
    return result;
}

bool CTsSource::FindSync() {
    CScopedLock lock(&StreamingLock());
    while (Parser().StreamPosition() < kSyncLimit) {
        if (ReadInput() != Input::kRead)
            return false;
        const HRESULT result = DetectPacketSize();
        if (result == S_OK)
            break;
        if (result != E_ABORT)
            return false;
    }
    m_dataStart = m_start.filePos = Parser().StreamPosition();
    return m_dataStart < kSyncLimit;
}

void CTsSource::ScanTables() {
    // What was read for the sync is parsed first, for it may be all that there is.
    Input input = Input::kRead;
    while (input == Input::kRead && SUCCEEDED(ParseData())) {
        CScopedLock lock(&StreamingLock());
        if (m_discontinuity || (m_tablesReady && HasAllClocks()) || Parser().StreamPosition() >= kTableLimit)
            return;
        input = ReadInput();
    }
}

CTsSource::ClockCount CTsSource::CountClocks() {
    std::vector<uint32_t> pids;
    CurrentProgramMapTables()->ForEach(
        [&pids](uint32_t, IDvbProgramMapTable& table) { table.GetPcrPid(&pids.emplace_back(kNullPid)); });
    ClockCount count;
    CScopedLock lock(&Clocks().Lock());
    for (const uint32_t pid : pids) {
        const PcrClock* const clock = Clocks().Find(static_cast<int32_t>(pid));
        if (clock != nullptr && clock->discontinuityCount != 0)
            ++count.jumped;
        else if (clock != nullptr && clock->pcrDelta != 0)
            ++count.steady;
        else if (pid != kNullPid)
            ++count.awaited;
    }
    return count;
}

bool CTsSource::HasAllClocks() {
    const ClockCount count = CountClocks();
    return count.awaited == 0 && count.steady + count.jumped > 0;
}

void CTsSource::FinishClocks() {
    std::vector<int32_t> steady;
    Clocks().ForEach([&steady](PcrClock& clock) {
        if (clock.discontinuityCount == 0 && clock.pcrDelta != 0)
            steady.push_back(clock.pid);
        clock.timeOrigin = 0;
        clock.lastPcr = kUnknown;
    });
    CScopedLock seeking(&m_seekLock);
    m_steadyClocks = std::move(steady);
}

HRESULT CTsSource::OnTableReady(uint32_t tableId, uint32_t key) {
    const HRESULT result = CTsFilterBase::OnTableReady(tableId, key);
    CDvbServices* const services = Services();
    if (FAILED(result) || services == nullptr)
        return result;
    // The scan waits for names as long as it goes on.
    if (services->IsComplete() == S_OK ||
        (!IsScanning() && services->IsPmtComplete() == S_OK && SUCCEEDED(services->FinishWithoutNames())))
        m_tablesReady = true;
    return S_OK;
}

void CTsSource::NewTSID(uint32_t transportStreamId) {
    if (CurrentTransportStreamId() != 0)
        m_discontinuity = true;
    m_tablesReady = false;
    SetCurrentTransportStreamId(transportStreamId);
}

void CTsSource::InternalReset() {
    // The tables that the scan found are there for as long as the file is.
    if (IsScanning()) {
        CTsFilterBase::InternalReset();
    } else {
        ResetParsing();
        RegisterKeptTables();
    }
    m_tablesReady = false;
    m_discontinuity = false;
}

// A table that is known raises no event when it comes again, so what it asked for is asked for here.
void CTsSource::RegisterKeptTables() {
    CScopedLock lock(&TableLock());
    ComPtr<IDvbCollection> tables;
    EnumTables(kProgramAssociationTable, tables.Put());
    for (int32_t i = 0; const auto table = ItemAs<IDvbProgramAssociationTable>(tables.Get(), i); ++i) {
        ComPtr<IDvbMapping> associations;
        table->GetAssociations(associations.Put());
        for (int32_t j = 0; const auto association = ItemAs<IDvbProgramAssociation>(associations.Get(), j); ++j) {
            uint32_t programNumber = 0;
            uint32_t pid = kNullPid;
            association->GetProgramNumber(&programNumber);
            association->GetPid(&pid);
            if (programNumber != 0)
                AddTablePid(kProgramMapTable, programNumber, pid);
        }
    }
    for (const TableStore::Version& version : TableVersions())
        if (version.tableId == kMasterGuideTable)
            Services()->TableComplete(version.tableId, version.key);
}

bool CTsSource::IsPlayed(int32_t pcrPid) {
    const auto pins = Pins().All();
    return std::any_of(pins.begin(), pins.end(),
                       [pcrPid](const OutputPinPtr& pin) { return pin->IsConnected() && pin->GetPcrPid() == pcrPid; });
}

// Clocks keep the time that the scan gave them. Contents hear of a jump no more than they hear of the end, which it is
// where one that is played takes its time from the clock.
HRESULT CTsSource::SetPcrDiscont(PcrClock& clock) {
    if (IsScanning())
        ++clock.discontinuityCount;
    else if (IsPlayed(clock.pid))
        m_discontinuity = true;
    return E_FAIL;
}

HRESULT CTsSource::BeginPcrUpdate() {
    return Clocks().BeginUpdate(PcrClocks::Stale::kKeep);
}

HRESULT CTsSource::EndPcrUpdate() {
    return Clocks().EndUpdate(PcrClocks::Stale::kKeep,
                              IsScanning() ? PcrClocks::Missing::kLeave : PcrClocks::Missing::kMake);
}

}  // namespace tessel
