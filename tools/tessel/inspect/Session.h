// An input under inspection: its playback, the ten pages, and the thread that they belong to.
#pragma once

#include <condition_variable>
#include <functional>
#include <future>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>

#include "tools/tessel/inspect/Board.h"
#include "tools/tessel/inspect/EventLog.h"
#include "tools/tessel/inspect/Overview.h"
#include "tools/tessel/inspect/PageHost.h"
#include "tools/tessel/inspect/Playback.h"

namespace tessel::tool {

class Session {
public:
    // Begins a session of the board. Failure when there is no graph to be had.
    Session(Board& board, PlaybackInput input);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // From any thread; each waits for the pages' thread, which is never busy for long. The answer has "error" when it
    // could not be done.
    //
    // {"page", ...}: see PageHost::Act. What is mapped by a typed PID goes as Map does.
    Json Act(const Json& request);
    // {"pin", "pid", "sure"}: by the PID map page, with what it says about it. {"ask"} is the answer where nothing of
    // the PID has come and the person has not said to be sure. Pid: as it was typed.
    Json Map(const Json& request);
    // {"pin", "pid"}, a number.
    Json Unmap(const Json& request);

private:
    void Run();
    void Loop();
    Json Ask(std::function<Json()> command);
    void MakePages();
    PageHost* FindPage(const std::string& key);
    PageHost& PidMap() { return *FindPage("pidmap"); }
    // False when the page has no such pin; its message then stands.
    bool ChoosePin(const std::string& name);
    // Has the page map the PID on the pin that it has chosen.
    Json MapTyped(const std::string& typed, bool sure);
    void TellEvents();
    void TellMaps(const Json& outputs);
    void UpdatePages();
    void Publish();

    Board& m_board;
    const uint64_t m_number;
    Playback m_playback;
    ComPtr<EventLog> m_events;
    uint32_t m_eventCookie = 0;
    uint32_t m_pidCookie = 0;

    // Of the pages' thread.
    std::list<PageHost> m_pages;
    std::unique_ptr<Overview> m_overview;
    std::map<std::string, std::set<ULONG>> m_maps;  // PIDs by output pin
    bool m_mapsKnown = false;
    bool m_tablesChanged = false;
    bool m_pidsChanged = false;
    size_t m_pidCount = 0;
    PlaybackState m_lastState = PlaybackState::kPlaying;

    std::mutex m_mutex;  // for those below; nothing is called out with it held
    std::condition_variable m_wake;
    bool m_stop = false;
    std::list<std::packaged_task<Json()>> m_commands;
    std::thread m_thread;
};

}  // namespace tessel::tool
