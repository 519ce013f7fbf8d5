// The content that delivers one elementary stream: the payload of the PES packets of one PID.
#pragma once

#include "core/stream/PesHeader.h"
#include "output/PayloadCache.h"
#include "output/StreamExecutor.h"

namespace tessel {

// It binds to the program whose map table lists its PID, and gets the pin's media type and the PCR PID from
// there. Until it has been bound and has started, it holds on to the newest data.
class CElementaryStream final : public CStreamExecutor {
public:
    CElementaryStream(CTsOutputPin& pin, IOutputHost& host) : CStreamExecutor(pin, host) {}

    bool TakesAnyProgram() const override { return false; }
    HRESULT SetProgram(uint32_t programNumber, IDvbProgramMapTable* table, uint32_t epoch) override;

private:
    // What the table says of the stream.
    struct Binding {
        HRESULT result = S_FALSE;  // S_FALSE: the table does not list it
        bool hasType = false;
        CMediaType type;
        uint32_t pcrPid = kNullPid;
    };

    HRESULT OnActive() override OS_REQUIRES(m_lock);
    void OnInactive() override OS_REQUIRES(m_lock) { m_cache.reset(); }
    void OnReset() override OS_REQUIRES(m_lock);
    int32_t PendingBytes(bool startPending, bool eosPending) override OS_REQUIRES(m_lock);
    HRESULT AddAll(std::span<const OfferedPacket> packets, size_t* taken) override OS_REQUIRES(m_lock);
    HRESULT Drop(int32_t bytes) override OS_REQUIRES(m_lock);
    bool UpdateMapping(IEnumPIDMap* mapping) override OS_REQUIRES(m_lock);
    int32_t TakeDataFromCache(IMediaSample* sample, int32_t bytes, bool startPending) override OS_REQUIRES(m_lock);

    // How many packets at the beginning were as most are, with room at the cache's end. The next is for Add.
    size_t AddWholePayloads(std::span<const OfferedPacket> packets) OS_REQUIRES(m_lock);
    HRESULT Add(const OfferedPacket& packet) OS_REQUIRES(m_lock);
    HRESULT MakeRoom(int32_t bytes) OS_REQUIRES(m_lock);
    void OnContinuityError() OS_REQUIRES(m_lock);
    // False when the packet is to be dropped.
    bool CheckContinuity(const OfferedPacket& packet) OS_REQUIRES(m_lock);
    // Whether the table is worth a look, by its version.
    bool WantsProgram(uint32_t programNumber, int32_t version) OS_REQUIRES(m_lock);
    static Binding FindStream(IDvbProgramMapTable& table, uint32_t pid);
    HRESULT Bind(const Binding& binding) OS_REQUIRES(m_lock);
    void FlushCache() OS_REQUIRES(m_lock);
    void Discard(int32_t bytes) OS_REQUIRES(m_lock);
    bool AlignToClock(IMediaSample& sample, REFERENCE_TIME start, int32_t* bytes) OS_REQUIRES(m_lock);

    static constexpr uint32_t kNoPid = 0xFFFF;

    // Null while inactive.
    std::unique_ptr<CPayloadCache> m_cache OS_GUARDED_BY(m_lock);
    int32_t m_capacity OS_GUARDED_BY(m_lock) = 0;  // the most bytes that the cache may hold
    int32_t m_patience OS_GUARDED_BY(m_lock) = 0;
    int32_t m_lastContinuityCounter OS_GUARDED_BY(m_lock) = -1;  // -1: the next one is right
    int32_t m_headerLeft OS_GUARDED_BY(m_lock) = 0;              // bytes of a PES header that are still to come
    int32_t m_pmtVersion OS_GUARDED_BY(m_lock) = -1;
    uint32_t m_programNumber OS_GUARDED_BY(m_lock) = 0;  // 0: none
    uint32_t m_streamPid OS_GUARDED_BY(m_lock) = kNoPid;
};

}  // namespace tessel
