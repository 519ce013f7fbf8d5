// The common base of the filters: owns the parser, the program clocks, the section filters, the table
// store, the service list and the output hooks, and wires them.
//
// One thread at a time feeds and parses; the filters see to that with their streaming lock. The table
// lock guards section filters, table store and service list, so clients may read those at any time. The
// program clocks have the PCR lock.
#pragma once

#include <array>
#include <atomic>
#include <memory>

#include "core/PacketRouter.h"
#include "core/stream/PacketParser.h"
#include "core/stream/PcrClocks.h"
#include "core/stream/PidStatus.h"
#include "platform/com/Unknown.h"
#include "platform/os/CritSec.h"
#include "services/ServiceList.h"
#include "tables/SectionFilter.h"
#include "tables/TableStore.h"

namespace tessel {

enum class StreamingMode : int32_t {
    kLive = 0,       // time from input arrivals; outputs drop rather than wait
    kStream = 1,     // outputs wait for room
    kRecording = 2,  // as kStream, with mode parameter 0
    kFile = 3,       // as kStream; parsing stops when every output refuses a packet
};

class CTsFilterBase : public CUnknown,
                      public ITableDecoder,
                      private IPacketHandler,
                      private IPcrClockOwner,
                      private ITableStoreEvents,
                      private IServiceListOwner {
public:
    using CDvbServices = tessel::CDvbServices;

    ~CTsFilterBase() override;

    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override;

    // Chooses the mode (parameter: 1 in live mode whatever is passed), makes the five table decoders and
    // the service list. E_FAIL when that cannot be done.
    HRESULT SetMode(StreamingMode mode, int32_t parameter);
    StreamingMode Mode() const { return m_mode; }
    int32_t ModeParameter() const { return m_modeParameter; }
    // "live", "strm", "rec " or "file", for diagnostics.
    const char* ModeName() const { return m_modeName; }

    // Makes the buffer, resets parsing, and takes data from then on. S_OK or E_OUTOFMEMORY.
    virtual HRESULT StartStreaming();
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
    // S_OK out of data, S_FALSE stopped by the outputs (file mode), E_UNEXPECTED without a buffer.
    HRESULT ParseData() { return m_parser.ParseData(*this); }

    const PacketParser& Parser() const { return m_parser; }
    const PidStatusBits& PidStatus() const { return m_pidStatus; }
    PacketRouter& Router() { return m_router; }
    PcrClocks& Clocks() { return m_clocks; }
    // Null before SetMode.
    CDvbServices* Services() { return m_services.get(); }
    uint32_t CurrentTransportStreamId() const { return m_currentTransportStreamId.load(std::memory_order_relaxed); }
    // Every current table, by table_id and key.
    std::vector<TableStore::Version> TableVersions();

    // A jump of a clock; called with the PCR lock held once. Contents go through Clocks().SetPcrDiscont.
    HRESULT SetPcrDiscont(PcrClock& clock) override;
    // Around every change of what an output wants. Stale clocks are dropped, and the last end makes a clock for
    // every output's PCR PID that has none.
    virtual HRESULT BeginPcrUpdate();
    virtual HRESULT EndPcrUpdate();

    // Throws away buffered bytes, PID status, clocks, tables, services and section filters, and puts the default
    // section filters back.
    virtual void InternalReset();

    // ITableDecoder
    HRESULT AddTablePid(uint32_t tableId, uint32_t tableIdExtension, uint32_t pid) override;
    HRESULT EnumTables(uint32_t tableId, IDvbCollection** out) override;
    HRESULT GetTable(uint32_t tableId, uint32_t key, IDvbTable** out) override;
    // The table of that table_id with the lowest key.
    HRESULT GetFirstTable(uint32_t tableId, IDvbTable** out);

protected:
    explicit CTsFilterBase(const char* name, int32_t requestedCapacity = PacketParser::kDefaultCapacity);

    // A PAT carries another transport_stream_id than before.
    virtual void NewTSID(uint32_t transportStreamId);
    HRESULT __ResetTables();

    // Raised by the table store inside the table lock; filters extend them.
    HRESULT OnTableReady(uint32_t tableId, uint32_t key) override;
    HRESULT OnTableStale(uint32_t tableId, uint32_t key) override;

    // Stream time while running, else 0.
    REFERENCE_TIME CurrentStreamTime() override { return 0; }

    CCritSec& TableLock() OS_RETURN_CAPABILITY(m_tableLock) { return m_tableLock; }

private:
    enum class DefaultFilters { kWithPat, kWithoutPat };

    int ParsePacket(const uint8_t* packet) override;
    // What the section filter of the packet's PID makes of it; a failure keeps the packet from the outputs.
    HRESULT ParseSections(const uint8_t* packet, const TsHeader& header, const AdaptationFieldHeader& adaptation);
    HRESULT DispatchSection(std::span<const uint8_t> section);
    void DeleteSectionFilters(uint32_t firstPid) OS_REQUIRES(m_tableLock);
    void InstallSectionFilters(DefaultFilters which);
    std::vector<int32_t> PcrPids() override { return m_router.PcrPids(); }
    void NotifyDiscontinuity(int32_t pcrPid) override { m_router.NotifyDiscontinuity(pcrPid); }
    void NotifyClockChange(const PcrClock& clock) override { m_router.NotifyClockChange(clock); }
    bool IsPidPresent(uint32_t pid) const override { return pid < kPidCount && m_pidStatus.IsPresent(pid); }

    CCritSec m_tableLock;

    // Read by AddData without the streaming lock's help; the buffer itself is only touched under it.
    std::atomic<bool> m_streaming{false};
    StreamingMode m_mode = StreamingMode::kStream;
    int32_t m_modeParameter = 1;
    const char* m_modeName = "";

    PacketParser m_parser;
    PidStatusBits m_pidStatus;
    PacketRouter m_router;
    PcrClocks m_clocks;

    // Set under the table lock. The parser asks whether a slot is occupied without it: filters are deleted
    // only while the parser stands still, and one added a packet later is as good.
    std::unique_ptr<std::atomic<SectionFilter*>[]> m_sectionFilterSlots;
    // Written by the parsing thread and by resets under the table lock; clients only display it.
    std::atomic<uint32_t> m_currentTransportStreamId{0};
    TableStore m_tables OS_GUARDED_BY(m_tableLock);
    std::unique_ptr<CDvbServices> m_services;
};

}  // namespace tessel
