// A stream on its way through a splitter: its input, read at the speed of its clock, and its outputs, counted.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "tools/tessel/Feed.h"
#include "tools/tessel/Pacer.h"
#include "tools/tessel/Pipeline.h"
#include "tools/tessel/inspect/CountingSink.h"
#include "tools/tessel/inspect/StreamCounter.h"

namespace tessel::tool {

struct PlaybackInput {
    std::unique_ptr<InputFile> file;
    std::string name;
    bool loop = false;  // of a file proper
    // More bytes are to come into the file; null: nothing is known of that.
    std::shared_ptr<const std::atomic<bool>> filling;
    std::string doubt = {};  // why it seems to be no transport stream
};

enum class PlaybackState {
    kPlaying,
    kWaiting,  // for more bytes of a pipe, or of a file that is being filled
    kEnded,    // a file that grows after that plays on
    kFailed,
};

class Playback {
public:
    // Failure when there is no graph to be had.
    explicit Playback(PlaybackInput input);
    ~Playback();
    Playback(const Playback&) = delete;
    Playback& operator=(const Playback&) = delete;

    void Start();
    // From any thread:
    IBaseFilter* Splitter() const { return m_pipeline.Splitter(0); }
    const std::string& Name() const { return m_input.name; }
    const std::string& Doubt() const { return m_input.doubt; }
    bool IsPipe() const { return !m_input.file->CanRewind(); }
    PlaybackState State() const { return m_state; }
    // Why it failed.
    std::string Error() const;
    const StreamCounter& Counter() const { return m_counter; }
    int64_t Bytes() const { return m_bytes; }
    // The time of the stream's clock, from its first reference on.
    REFERENCE_TIME StreamTime() const { return m_streamTime; }
    int64_t Rounds() const { return m_rounds; }
    // The sink of an output pin; null for a pin that leads nowhere.
    ComPtr<CountingSink> SinkOf(const std::u16string& pin) const;
    // Outputs with PIDs that lead nowhere get a sink. The graph stops for it, so the tables come anew.
    void ConnectOutputs() { m_connectWanted = true; }

private:
    void MakeOutputs();
    // type: null for any.
    bool Connect(IPin* pin, const std::u16string& name, const AM_MEDIA_TYPE* type);
    void ConnectMapped();
    void Run();
    bool PlaySome();
    bool WaitForBytes();
    // At the end of what there is: true to try again.
    bool OnNoBytes();
    size_t PieceSize() const;
    std::chrono::microseconds DueTime() const;
    void Pace();
    // False once the playback is to end.
    bool Wait(std::chrono::milliseconds time);
    void Fail(const std::string& text);

    PlaybackInput m_input;
    Feed m_feed;
    StreamCounter m_counter;
    Pacer m_pacer;
    int64_t m_pcrPosition = -1;
    int64_t m_clockedBytes = 0;  // before the first clock reference
    std::chrono::steady_clock::time_point m_start;
    std::chrono::steady_clock::time_point m_lastBytes = std::chrono::steady_clock::now();
    bool m_ended = false;
    std::set<std::u16string> m_refused;  // pins that take no sink
    std::atomic<PlaybackState> m_state{PlaybackState::kPlaying};
    std::atomic<int64_t> m_bytes{0};
    std::atomic<REFERENCE_TIME> m_streamTime{0};
    std::atomic<int64_t> m_rounds{0};
    std::atomic<bool> m_connectWanted{false};

    mutable std::mutex m_mutex;  // for the three below; nothing is called out with it held
    std::condition_variable m_changed;
    bool m_stop = false;
    std::string m_error;
    std::map<std::u16string, ComPtr<CountingSink>> m_sinks;

    Pipeline m_pipeline;  // behind what its threads use
    std::thread m_thread;
};

}  // namespace tessel::tool
