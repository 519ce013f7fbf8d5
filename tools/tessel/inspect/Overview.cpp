#include "tools/tessel/inspect/Overview.h"

#include <algorithm>
#include <map>

#include "proppages/PageText.h"
#include "tools/tessel/Services.h"
#include "tools/tessel/Utf8.h"
#include "tools/tessel/inspect/Words.h"

namespace tessel::tool {

namespace {

// Rates are of the last seconds.
constexpr REFERENCE_TIME kUnitsPerSecond = 1000 * kUnitsPerMillisecond;
constexpr REFERENCE_TIME kRateTime = 2 * kUnitsPerSecond;
constexpr size_t kMostMarks = 16;

// PIDs with a meaning of their own: ISO/IEC 13818-1 table 2-3, EN 300 468 table 1, A/65 clause 4.
constexpr struct {
    uint32_t pid;
    const char* text;
} kKnownPids[] = {
    {0x0000, "Program Association Table"},
    {0x0001, "Conditional Access Table"},
    {0x0002, "Transport Stream Description Table"},
    {0x0010, "NIT"},
    {0x0011, "SDT and BAT"},
    {0x0012, "EIT"},
    {0x0013, "RST"},
    {0x0014, "TDT and TOT"},
    {0x0015, "Network synchronisation"},
    {0x001E, "DIT"},
    {0x001F, "SIT"},
    {0x1FFB, "PSIP: MGT and VCT"},
    {kNullPid, "Null packets"},
};

const char* KnownPid(uint32_t pid) {
    for (const auto& row : kKnownPids)
        if (row.pid == pid)
            return row.text;
    return "";
}

const char* StateName(PlaybackState state) {
    switch (state) {
    case PlaybackState::kPlaying:
        return "playing";
    case PlaybackState::kWaiting:
        return "waiting";
    case PlaybackState::kEnded:
        return "ended";
    case PlaybackState::kFailed:
        break;
    }
    return "failed";
}

const char* ContentName(uint32_t kind) {
    constexpr const char* kNames[] = {"nothing yet", "Transport packets", "Elementary stream", "PSI sections"};
    return kind < std::size(kNames) ? kNames[kind] : "";
}

Json OrNull(const std::optional<std::string>& text) {
    return text ? Json(ToTerminal(*text)) : Json(nullptr);
}

}  // namespace

Overview::Overview(Playback& playback) : m_playback(playback) {
    Check(m_filter.Connect(playback.Splitter()), "cannot ask the splitter");
}

Overview::Mark Overview::Now() const {
    const StreamCounter& counter = m_playback.Counter();
    Mark mark{m_playback.StreamTime(), counter.Packets(), {}};
    for (uint32_t pid = 0; pid < kPidCount; ++pid)
        if (const uint64_t packets = counter.Of(pid).packets; packets != 0)
            mark.packets.emplace_back(pid, packets);
    return mark;
}

uint64_t Overview::Before(uint32_t pid) const {
    if (m_marks.empty())
        return 0;
    const auto& packets = m_marks.front().packets;
    const auto found = std::ranges::lower_bound(packets, pid, {}, &std::pair<uint32_t, uint64_t>::first);
    return found != packets.end() && found->first == pid ? found->second : 0;
}

std::optional<int64_t> Overview::Rate(uint64_t packets, uint64_t before) const {
    const REFERENCE_TIME time = m_now.time - (m_marks.empty() ? 0 : m_marks.front().time);
    if (time <= 0)
        return std::nullopt;
    return static_cast<int64_t>(static_cast<double>(packets - before) * kTransportPacketSize * 8 /
                                static_cast<double>(time) * kUnitsPerSecond);
}

Json Overview::Make() {
    m_now = Now();
    while (m_marks.size() > 1 && m_now.time - m_marks[1].time >= kRateTime)
        m_marks.pop_front();
    const std::optional<int64_t> rate = Rate(m_now.all, m_marks.empty() ? 0 : m_marks.front().all);
    const StreamCounter& counter = m_playback.Counter();
    uint32_t stream = 0, network = 0;
    const bool known = m_filter.information->GetTransportStreamId(&stream) == S_OK && !m_filter.Services().empty();
    m_filter.information->GetOriginalNetworkId(&network);
    Json overview = {
        {"state", StateName(m_playback.State())},
        {"pipe", m_playback.IsPipe()},
        {"found", m_now.all != 0},
        {"error", m_playback.Error()},
        {"doubt", m_playback.Doubt()},
        {"bytes", m_playback.Bytes()},
        {"packets", m_now.all},
        {"damaged", counter.Damaged()},
        {"seconds", static_cast<double>(m_now.time / kUnitsPerMillisecond) / 1000},
        {"rounds", m_playback.Rounds()},
        {"rate", rate ? Json(*rate) : Json(nullptr)},
        {"stream", known ? Json(ShownText(page::Hex4(stream))) : Json(nullptr)},
        {"network", known ? Json(ShownText(page::Hex4(network))) : Json(nullptr)},
        {"complete", m_filter.information->IsServiceInformationComplete() == S_OK},
        {"services", Services()},
        {"pids", Pids()},
        {"outputs", Outputs()},
    };
    // While time stands still, the last rates stand.
    if (m_marks.empty() || m_now.time - m_marks.back().time >= kRateTime / 8)
        m_marks.push_back(m_now);
    if (m_marks.size() > kMostMarks)
        m_marks.pop_front();
    return overview;
}

Json Overview::Services() {
    const bool named =
        HasTable(*m_filter.tables, kServiceDescriptionTable) || HasTable(*m_filter.tables, kVirtualChannelTable);
    Json services = Json::array();
    m_words.clear();
    for (const auto& service : m_filter.Services()) {
        const ServiceInfo info = DescribeService(service.Get(), *m_filter.tables, named);
        Json pids = Json::array();
        for (const ComponentInfo& component : info.components) {
            pids.push_back(component.pid);
            m_words.try_emplace(component.pid, ToTerminal(ComponentWords(component)));
        }
        const auto add = [&](const std::optional<uint32_t>& pid, const char* words) {
            if (!pid)
                return;
            pids.push_back(*pid);
            m_words.try_emplace(*pid, words);
        };
        add(info.pmtPid, "Program map");
        add(info.pcrPid, "Program clock");
        services.push_back({{"id", info.id},
                            {"name", OrNull(info.name)},
                            {"provider", OrNull(info.provider)},
                            {"type", OrNull(info.typeName)},
                            {"scrambled", info.scrambled},
                            {"pids", std::move(pids)}});
    }
    return services;
}

Json Overview::Pids() {
    const auto texts = page::PidTexts(m_filter);
    std::map<ULONG, Json> mappedOn;
    for (const page::OutputPin& pin : m_filter.OutputPins())
        for (const ULONG pid : pin.Mapped())
            mappedOn[pid].push_back(ShownText(pin.name));
    Json pids = Json::array();
    m_pidCount = 0;
    for (uint32_t pid = 0; pid < kPidCount; ++pid) {
        const StreamCounter::Counts counts = m_playback.Counter().Of(pid);
        const auto text = texts.find(pid);
        const auto words = m_words.find(pid);
        const auto mapped = mappedOn.find(pid);
        m_pidCount += counts.packets != 0 ? 1 : 0;
        if (counts.packets == 0 && text == texts.end() && mapped == mappedOn.end())
            continue;
        const auto rate = Rate(counts.packets, Before(pid));
        pids.push_back({{"pid", pid},
                        {"words", words != m_words.end() ? words->second : KnownPid(pid)},
                        {"text", text != texts.end() ? ShownText(text->second) : ""},
                        {"packets", counts.packets},
                        {"rate", rate ? Json(*rate) : Json(nullptr)},
                        {"scrambled", m_filter.IsScrambled(pid)},
                        {"lost", counts.lost},
                        {"pcr", counts.hasPcr},
                        {"pins", mapped != mappedOn.end() ? mapped->second : Json::array()}});
    }
    return pids;
}

Json Overview::Outputs() {
    Json outputs = Json::array();
    m_needsOutputs = false;
    for (const page::OutputPin& pin : m_filter.OutputPins()) {
        Json pids = Json::array();
        for (const ULONG pid : pin.Mapped())
            pids.push_back({{"pid", pid}, {"text", PidWords(pid)}});
        const bool connected = pin.IsConnected();
        m_needsOutputs |= !connected && !pids.empty();
        const auto sink = m_playback.SinkOf(pin.name);
        outputs.push_back({{"name", ShownText(pin.name)},
                           {"content", ContentName(pin.Kind())},
                           {"connected", connected},
                           {"pids", std::move(pids)},
                           {"samples", sink ? sink->Samples() : 0},
                           {"bytes", sink ? sink->Bytes() : 0}});
    }
    return outputs;
}

}  // namespace tessel::tool
