// The file source: reads a transport stream file by itself, plays it and seeks in it by time.
#pragma once

#include <atomic>
#include <optional>
#include <string>
#include <thread>

#include "core/TsFilterBase.h"
#include "filters/threads/FilterWorker.h"
#include "platform/com/PropertyPages.h"
#include "platform/os/File.h"
#include "source/PacketReader.h"
#include "source/SeekIndex.h"

namespace tessel {

inline constexpr CLSID CLSID_TsSource = MakeGuid("{B79FBC21-A510-49EA-84BE-1DB7A26A7281}");

// Load scans the beginning of the file for tables and clocks. From then on every clock has its time: 0 is its first
// PCR, and a jump of a clock is no new start but the end of playback.
//
// The worker reads and parses while the filter streams; the file is moved while it does not. Both with the streaming
// lock, which is the worker's. Nobody waits for the worker with that lock: what it leaves behind counts only in the
// epoch that it began in.
class CTsSource final : public CTsFilterBase,
                        public ISpecifyPropertyPages,
                        public IFileSourceFilter,
                        public IMediaSeeking,
                        public IRALThreadExecutor {
public:
    explicit CTsSource(IUnknown* outer = nullptr);
    ~CTsSource() override;

    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override;

    HRESULT GetClassID(CLSID* out) override;
    HRESULT Stop() override;
    HRESULT Pause() override;

    HRESULT GetPages(CAUUID* pages) override;

    // IFileSourceFilter. VFW_E_NOT_STOPPED while there is something to play; E_FAIL for what is no transport stream
    // file, and then none is open.
    HRESULT Load(const OLECHAR* name, const AM_MEDIA_TYPE* type) override;
    HRESULT GetCurFile(OLECHAR** name, AM_MEDIA_TYPE* type) override;

    // IMediaSeeking, in media time. A file without a stream to time it by is not seekable: no capabilities, duration 0.
    HRESULT GetCapabilities(DWORD* out) override;
    HRESULT CheckCapabilities(DWORD* inOut) override;
    HRESULT IsFormatSupported(const GUID* format) override;
    HRESULT QueryPreferredFormat(GUID* out) override;
    HRESULT GetTimeFormat(GUID* out) override { return QueryPreferredFormat(out); }
    HRESULT IsUsingTimeFormat(const GUID* format) override { return IsFormatSupported(format); }
    HRESULT SetTimeFormat(const GUID* format) override;
    HRESULT GetDuration(int64_t* out) override;
    HRESULT GetStopPosition(int64_t* out) override { return GetDuration(out); }
    HRESULT GetCurrentPosition(int64_t* out) override;
    HRESULT ConvertTimeFormat(int64_t*, const GUID*, int64_t, const GUID*) override { return E_NOTIMPL; }
    // E_UNEXPECTED while running, S_FALSE when the file is not seekable. stop is not used.
    HRESULT SetPositions(int64_t* current, DWORD currentFlags, int64_t* stop, DWORD stopFlags) override;
    HRESULT GetPositions(int64_t* current, int64_t* stop) override;
    HRESULT GetAvailable(int64_t* earliest, int64_t* latest) override;
    HRESULT SetRate(double) override { return E_NOTIMPL; }
    HRESULT GetRate(double* out) override;
    HRESULT GetPreroll(int64_t*) override { return E_NOTIMPL; }

    // IRALThreadExecutor: the worker
    HRESULT OnThreadStart() override;
    HRESULT OnThreadEnd() override { return S_OK; }
    uint32_t DoOneThreadTask() override;

    // E_UNEXPECTED without a file.
    HRESULT StartStreaming() override;
    HRESULT StopStreaming() override;
    void InternalReset() override;

    // Beyond the interfaces. Playback ends in front of this byte of the file, as at its end; while it plays too.
    void SetEndPosition(int64_t filePos) { m_endPosition = filePos; }
    // Where playback begins: what the last seek has chosen.
    int64_t StartPosition();
    // Stopped: forgets the last seek. The first byte of the file is not where a seek to its beginning arrives.
    void StartAtBeginning();
    // How far the file has been read since playback began there.
    int64_t ReadPosition() const { return m_readPosition; }
    // A failure: the byte there cannot be read. What came before it went out, then the event of the abort.
    HRESULT ReadResult() const { return m_readResult; }
    // Before Load: where the file is opened.
    void SetFileSystem(const CFileSystem& system) { m_system = &system; }
    // A clock jumped, or the transport stream became another one: in the scan, which that has failed, or in playback,
    // which that has ended.
    bool MetDiscontinuity() const { return m_discontinuity; }
    bool WasAborted() const { return m_aborted; }

    HRESULT SetPcrDiscont(PcrClock& clock) override;
    HRESULT BeginPcrUpdate() override;
    HRESULT EndPcrUpdate() override;

private:
    // The stream that times the file, and the pin that it goes out of.
    struct Master {
        std::weak_ptr<CTsOutputPin> pin;
        int32_t pcrPid = kProgramUnknown;
        SeekMaster stream;

        bool operator==(const Master& other) const {
            return pin.lock() == other.pin.lock() && pcrPid == other.pcrPid && stream == other.stream;
        }
    };
    enum class Input { kNone, kRead, kFull, kEnd };
    // What playback reads at once: a block of the file while it begins, so that a seek is not held up, and more of them
    // the longer it goes on. The outputs deliver the last ones meanwhile.
    static constexpr int32_t kLargestPiece = 0x100000;
    static constexpr int32_t kBufferSize = kLargestPiece + CPacketReader::kReadSize;

    bool EndsInput() const override { return m_discontinuity; }
    void NewTSID(uint32_t transportStreamId) override;
    HRESULT OnTableReady(uint32_t tableId, uint32_t key) override;
    void EndThreads() override;

    // Scan
    HRESULT ScanFile();
    HRESULT StartScan();
    bool FindSync();
    void ScanTables();
    // Of the current programs' clocks: those that go on, those that have jumped, and those that may still come.
    struct ClockCount {
        size_t steady = 0;
        size_t jumped = 0;
        size_t awaited = 0;
    };
    ClockCount CountClocks();
    bool HasAllClocks();
    bool IsPlayed(int32_t pcrPid);
    void FinishClocks();
    void RegisterKeptTables();
    void ForgetFile();

    // Playback
    Input ReadInput() OS_REQUIRES(StreamingLock());
    // False: it is better to wait a little before the next.
    bool ReadAndParse();
    std::optional<uint32_t> EndInput(uint32_t epoch);
    void EndOutputs(uint32_t epoch);
    void AbortPlayback(uint32_t epoch);
    // The file ends where it is; of a failure the application is told.
    void EndPlayback(uint32_t epoch, HRESULT why);
    void ApplyOffsets();

    // Seeking
    bool IsSeekable();
    bool InitSeek() OS_REQUIRES(m_seekLock);
    bool FindMaster(Master* out) OS_REQUIRES(m_seekLock);
    bool IsTimed(CTsOutputPin& pin) OS_REQUIRES(m_seekLock);
    HRESULT SeekTo(REFERENCE_TIME requested, bool toKeyFrame, REFERENCE_TIME* reached) OS_REQUIRES(m_seekLock);
    void NotePoints() OS_REQUIRES(m_seekLock);
    // The position becomes the time of what went out last.
    void NoteMasterTime();
    REFERENCE_TIME CurrentPosition();
    bool IsOnWorker() const { return m_workerId.load() == std::this_thread::get_id(); }

    CCritSec m_seekLock{"seeking", kRankSeek};

    // The file. Changed with the state lock and the streaming lock, in the stopped state.
    ComPtr<IStream> m_stream OS_GUARDED_BY(StreamingLock());
    int64_t m_dataStart = 0;
    const CFileSystem* m_system = &CFileSystem::System();
    CCritSec m_nameLock{"file name", kRankLeaf};
    std::u16string m_fileName OS_GUARDED_BY(m_nameLock);  // empty when no file is open

    // The services are complete; set by the parsing thread, under the table lock.
    std::atomic<bool> m_tablesReady{false};
    // A clock that counts jumped, or the transport stream became another one. Any thread.
    std::atomic<bool> m_discontinuity{false};
    // All of the input has been parsed, or was given up. Until the next start.
    std::atomic<bool> m_endOfStream{false};
    std::atomic<bool> m_aborted{false};
    // Moves with every start, stop and end of the input. Written with the streaming lock.
    std::atomic<uint32_t> m_inputEpoch{0};

    // The PCR PIDs that the scan has found to go on without a jump: media time counts from their first PCR.
    std::vector<int32_t> m_steadyClocks OS_GUARDED_BY(m_seekLock);
    std::optional<CSeekIndex> m_index OS_GUARDED_BY(m_seekLock);
    Master m_master OS_GUARDED_BY(m_seekLock);
    // The master's pin, for who may not wait for a seek.
    CCritSec m_masterLock{"master pin", kRankLeaf};
    std::weak_ptr<CTsOutputPin> m_masterPin OS_GUARDED_BY(m_masterLock);
    // What the index says, for the getters.
    std::atomic<bool> m_seekReady{false};
    std::atomic<REFERENCE_TIME> m_duration{0};
    std::atomic<REFERENCE_TIME> m_currentTime{kUnknown};
    std::atomic<REFERENCE_TIME> m_currentEnd{kUnknown};
    std::atomic<REFERENCE_TIME> m_position{0};

    // Where playback begins; with the streaming lock.
    struct Start {
        int64_t filePos = 0;
        REFERENCE_TIME time = 0;    // that was asked for, which a client sees
        REFERENCE_TIME origin = 0;  // the media time that becomes sample time 0
        int32_t frameDuration = 0;
    };
    Start m_start OS_GUARDED_BY(StreamingLock());
    std::atomic<int64_t> m_endPosition{INT64_MAX};
    std::atomic<int64_t> m_readPosition{0};  // these two are written with the streaming lock
    std::atomic<HRESULT> m_readResult{S_OK};

    const std::shared_ptr<CEvent> m_workEvent;
    // Ends the worker's short waits. Shared, as it is used when the task has let go of the filter.
    const std::shared_ptr<CEvent> m_hurry;
    CFilterWorker m_worker;
    std::atomic<std::thread::id> m_workerId{};
};

// A file source without a file; null when there is no memory.
ComPtr<CTsSource> MakeTsSource();
// The same. E_OUTOFMEMORY.
HRESULT CreateTsSource(IBaseFilter** out);

}  // namespace tessel
