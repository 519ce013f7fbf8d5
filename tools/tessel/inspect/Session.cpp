#include "tools/tessel/inspect/Session.h"

#include <chrono>

#include "platform/os/Thread.h"
#include "proppages/PageText.h"
#include "proppages/Pages.h"
#include "proppages/Resources.h"
#include "tools/tessel/Failure.h"
#include "tools/tessel/Services.h"
#include "tools/tessel/Utf8.h"
#include "tools/tessel/inspect/Words.h"

namespace tessel::tool {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// How often what happened is looked at, and how often everything is counted anew.
constexpr auto kTick = 100ms;
constexpr auto kOverviewTime = 500ms;
constexpr auto kAnswerTime = 10s;

constexpr struct {
    const char* key;
    PageCreator create;
} kPages[] = {
    {"services", CreatePropPageServices},           {"pat", CreatePropPageProgramAssociationTable},
    {"sdt", CreatePropPageServiceDescriptionTable}, {"nit", CreatePropPageNetworkInformationTable},
    {"glt", CreatePropPageGenreLookupTable},        {"sgt", CreatePropPageServiceGuideTable},
    {"cat", CreatePropPageConditionalAccessTable},  {"vct", CreatePropPageVirtualChannelTable},
    {"pidmap", CreatePropPagePIDmapping},           {"outpins", CreatePropPageTSPin},
};

std::string Hex(uint32_t value) {
    return "0x" + ToUtf8(page::Hex4(value));
}

std::string EventText(const StreamEvent& event) {
    const std::string table = TableName(event.tableId);
    switch (event.kind) {
    case StreamEventKind::kServicesReady:
        return "The list of services is complete";
    case StreamEventKind::kReset:
        return "Reset";
    case StreamEventKind::kTableReady:
        return table + " " + Hex(event.value) + " is current";
    case StreamEventKind::kTableStale:
        return table + " " + Hex(event.value) + " is replaced";
    case StreamEventKind::kPidUsed:
        return "PID " + PidWords(event.value) + " is read for " + (table == "any" ? "sections" : table);
    case StreamEventKind::kPidsReset:
        return "Tables are looked for anew";
    }
    return {};
}

const char* EventKind(StreamEventKind kind) {
    switch (kind) {
    case StreamEventKind::kServicesReady:
        return "services";
    case StreamEventKind::kTableReady:
        return "table";
    case StreamEventKind::kTableStale:
        return "stale";
    case StreamEventKind::kPidUsed:
        return "pid";
    case StreamEventKind::kReset:
    case StreamEventKind::kPidsReset:
        break;
    }
    return "reset";
}

}  // namespace

Session::Session(Board& board, PlaybackInput input)
    : m_board(board), m_number(board.BeginSession()), m_playback(std::move(input)), m_events(MakeObject<EventLog>()) {
    page::Filter filter;
    Check(filter.Connect(m_playback.Splitter()), "cannot ask the splitter");
    Check(filter.information->AdviseEvents(static_cast<IDvbTableEvents2*>(m_events.Get()), &m_eventCookie),
          "cannot watch tables");
    const auto mapper = ComPtr<IBaseFilter>(m_playback.Splitter()).As<IDvbPidMapper>();
    Check(mapper->Advise(static_cast<IDvbPidMapperEvents*>(m_events.Get()), &m_pidCookie), "cannot watch PIDs");
    m_board.AddLine(m_number, "input", "Reading " + m_playback.Name());
    if (!m_playback.Doubt().empty())
        m_board.AddLine(m_number, "error", "This seems to be no transport stream: " + m_playback.Doubt());
    m_thread = std::thread([this] { Run(); });
}

Session::~Session() {
    {
        const std::lock_guard lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_all();
    m_thread.join();
    const ComPtr<IBaseFilter> splitter(m_playback.Splitter());
    splitter.As<IDvbServiceInformationEx>()->UnadviseEvents(m_eventCookie);
    splitter.As<IDvbPidMapper>()->Unadvise(m_pidCookie);
}

void Session::MakePages() {
    for (const auto& page : kPages)
        m_pages.emplace_back(page.key, page.create, m_playback.Splitter());
    m_overview = std::make_unique<Overview>(m_playback);
    Json list = Json::array();
    for (const PageHost& page : m_pages)
        list.push_back({{"key", page.Key()}, {"title", page.Title()}});
    m_board.Publish(m_number, "pages",
                    Json{{"session", m_number}, {"input", m_playback.Name()}, {"pages", std::move(list)}}.dump());
}

void Session::Run() {
    NameThread("inspect-pages");
    YieldToOthers();
    try {
        MakePages();
        m_playback.Start();
        Loop();
    } catch (const std::exception& error) {
        m_board.AddLine(m_number, "error", error.what());
    }
    m_overview.reset();
    m_pages.clear();
    // Whoever still waits for an answer gets none.
    const std::lock_guard lock(m_mutex);
    m_stop = true;
    m_commands.clear();
}

void Session::Loop() {
    Clock::time_point counted;
    for (;;) {
        std::list<std::packaged_task<Json()>> commands;
        {
            std::unique_lock lock(m_mutex);
            m_wake.wait_for(lock, kTick, [this] { return m_stop || !m_commands.empty(); });
            if (m_stop)
                return;
            commands.swap(m_commands);
        }
        for (auto& command : commands)
            command();
        for (PageHost& page : m_pages)
            page.Pump();
        TellEvents();
        UpdatePages();
        if (!commands.empty() || Clock::now() - counted >= kOverviewTime) {
            counted = Clock::now();
            const Json overview = m_overview->Make();
            TellMaps(overview.at("outputs"));
            m_board.Publish(m_number, "overview", overview.dump());
            if (m_overview->NeedsOutputs())
                m_playback.ConnectOutputs();
        }
        Publish();
    }
}

void Session::Publish() {
    for (PageHost& page : m_pages) {
        for (const std::string& message : page.TakeMessages())
            m_board.AddLine(m_number, "message", message);
        if (page.HasChanged())
            m_board.Publish(m_number, "page-" + page.Key(), page.Snapshot().dump());
    }
}

void Session::TellEvents() {
    for (const StreamEvent& event : m_events->Take()) {
        m_board.AddLine(m_number, EventKind(event.kind), EventText(event));
        m_tablesChanged |= event.kind != StreamEventKind::kPidUsed;
    }
    const PlaybackState state = m_playback.State();
    if (state == std::exchange(m_lastState, state))
        return;
    if (state == PlaybackState::kEnded)
        m_board.AddLine(m_number, "input", "The input has ended");
    else if (state == PlaybackState::kFailed)
        m_board.AddLine(m_number, "error", m_playback.Error());
}

void Session::TellMaps(const Json& outputs) {
    std::map<std::string, std::set<ULONG>> maps;
    for (const Json& output : outputs)
        for (const Json& pid : output.at("pids"))
            maps[output.at("name")].insert(pid.at("pid").get<ULONG>());
    if (!m_mapsKnown)
        m_maps = maps;
    m_mapsKnown = true;
    const auto tell = [this](const auto& now, const auto& before, const char* what) {
        for (const auto& [pin, pids] : now)
            for (const ULONG pid : pids)
                if (const auto old = before.find(pin); old == before.end() || !old->second.contains(pid))
                    m_board.AddLine(m_number, "map", (pid < kPidCount ? "PID " : "") + PidWords(pid) + what + pin);
    };
    tell(maps, m_maps, " mapped on ");
    tell(m_maps, maps, " taken off ");
    m_maps = std::move(maps);
}

// Presses "Update" for pages that do not look by themselves.
void Session::UpdatePages() {
    m_pidsChanged |= m_overview->PidCount() != std::exchange(m_pidCount, m_overview->PidCount());
    if (std::exchange(m_tablesChanged, false)) {
        m_pidsChanged = true;
        for (PageHost& page : m_pages)
            page.Update(page::kTableList);
    }
    // Where somebody has chosen PIDs, later.
    PageHost& map = PidMap();
    if (m_pidsChanged && map.State(page::kFreePids).selected < 0 && map.State(page::kMappedPids).selected < 0) {
        m_pidsChanged = false;
        map.Dialog().Click(page::kUpdate);
    }
}

PageHost* Session::FindPage(const std::string& key) {
    for (PageHost& page : m_pages)
        if (page.Key() == key)
            return &page;
    return nullptr;
}

Json Session::Ask(std::function<Json()> command) {
    std::packaged_task<Json()> task([command = std::move(command)]() -> Json {
        try {
            return command();
        } catch (const nlohmann::json::exception&) {
            return {{"error", "The request is not understood."}};
        }
    });
    std::future<Json> answer = task.get_future();
    {
        const std::lock_guard lock(m_mutex);
        if (m_stop)
            return {{"error", "The session is over."}};
        m_commands.push_back(std::move(task));
    }
    m_wake.notify_all();
    if (answer.wait_for(kAnswerTime) != std::future_status::ready)
        return {{"error", "The pages do not answer."}};
    try {
        return answer.get();
    } catch (const std::future_error&) {
        return {{"error", "The session is over."}};
    }
}

Json Session::Act(const Json& request) {
    return Ask([this, request]() -> Json {
        PageHost* page = FindPage(request.at("page").get<std::string>());
        if (page == nullptr)
            return {{"error", "There is no such page."}};
        const bool maps = page == &PidMap() && request.at("control") == page::kMap && request.at("action") == "click";
        if (const std::string typed = maps ? PidMap().Text(page::kPid) : ""; !typed.empty())
            return MapTyped(typed, request.value("sure", false));
        return page->Act(request);
    });
}

bool Session::ChoosePin(const std::string& name) {
    PidMap().Dialog().Click(page::kUpdate);
    const int32_t row = PidMap().FindRow(page::kPinChoice, TypedText(name));
    return row >= 0 && PidMap().Dialog().SelectRows(page::kPinChoice, &row, 1) == S_OK;
}

Json Session::MapTyped(const std::string& typed, bool sure) {
    const std::optional<ULONG> pid = ReadPidWords(typed);
    if (!pid)
        return {{"result", "refused"},
                {"messages",
                 {ToTerminal("'" + typed +
                             "' is not a PID. A PID is a number up to 8191, or up to 0x1fff in hexadecimal "
                             "behind 0x; \"All PIDs\" and \"All Tables\" stand for many.")}}};
    if (!sure && *pid < kPidCount && m_playback.Counter().Of(*pid).packets == 0)
        return {{"ask", "The stream has had no packets of PID " + PidWords(*pid) + " so far. Map it all the same?"}};
    IDialog& dialog = PidMap().Dialog();
    dialog.TypeText(page::kPid, page::PidText(*pid).c_str());
    dialog.Click(page::kMap);
    // Of what could not be mapped the user's own words stay.
    if (!PidMap().Text(page::kPid).empty())
        dialog.TypeText(page::kPid, TypedText(typed).c_str());
    return {{"result", "done"}, {"messages", PidMap().TakeMessages()}};
}

Json Session::Map(const Json& request) {
    return Ask([this, request]() -> Json {
        if (!ChoosePin(request.at("pin").get<std::string>()))
            return {{"error", "The pin is not there any more."}};
        const std::string typed = request.at("pid").get<std::string>();
        if (page::Trimmed(TypedText(typed)).empty())
            return {{"error", "Type a PID first."}};
        IDialog& dialog = PidMap().Dialog();
        dialog.TypeText(page::kPinName, u"");
        Json answer = MapTyped(typed, request.value("sure", false));
        dialog.TypeText(page::kPid, u"");
        return answer;
    });
}

Json Session::Unmap(const Json& request) {
    return Ask([this, request]() -> Json {
        if (!ChoosePin(request.at("pin").get<std::string>()))
            return {{"error", "The pin is not there any more."}};
        const int32_t row = PidMap().FindRow(page::kMappedPids, page::PidText(request.at("pid").get<ULONG>()));
        if (row < 0)
            return {{"error", "The PID is not mapped on the pin any more."}};
        PidMap().Dialog().SelectRows(page::kMappedPids, &row, 1);
        PidMap().Dialog().Click(page::kUnmap);
        return {{"result", "done"}, {"messages", PidMap().TakeMessages()}};
    });
}

}  // namespace tessel::tool
