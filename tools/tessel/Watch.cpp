#include "tools/tessel/Watch.h"

#include <atomic>
#include <exception>
#include <mutex>
#include <nlohmann/json.hpp>
#include <utility>

#include "tools/tessel/Failure.h"
#include "tools/tessel/PacketMeter.h"
#include "tools/tessel/Pipeline.h"
#include "tools/tessel/Services.h"
#include "tools/tessel/StreamReader.h"
#include "tools/tessel/Utf8.h"

namespace tessel::tool {

namespace {

using Json = nlohmann::ordered_json;

std::string Shown(const Json& value) {
    if (value.is_null())
        return "(none)";
    return value.is_string() ? "\"" + ToTerminal(value.get<std::string>()) + "\"" : value.dump();
}

// "table_ready  table_id 2  PMT  key 101"
std::string AsLine(const Json& event) {
    std::string line;
    for (const auto& [key, value] : event.items()) {
        if (key == "event")
            line += value.get<std::string>();
        else if (key == "table")
            line += "  " + value.get<std::string>();
        else if (key == "services")
            for (const Json& service : value)
                line += "\n  service " + service["id"].dump() + "  " + Shown(service["name"]);
        else
            line += "  " + key + " " + Shown(value);
    }
    return line;
}

// Called on the splitter's event thread, and about PIDs on the thread that parses or starts it.
class Watcher final : public CUnknown, public IDvbTableEvents2, public IDvbPidMapperEvents {
public:
    Watcher(WatchFormat format, ComPtr<IDvbServiceInformationEx> information, ComPtr<ITableDecoder> tables)
        : CUnknown("Watcher", nullptr),
          m_format(format),
          m_information(std::move(information)),
          m_tables(std::move(tables)) {}

    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override {
        if (out != nullptr && iid == IDvbTableEvents2::kIid)
            return GetInterface<IDvbTableEvents2>(this, out);
        if (out != nullptr && iid == IDvbPidMapperEvents::kIid)
            return GetInterface<IDvbPidMapperEvents>(this, out);
        return CUnknown::NonDelegatingQueryInterface(iid, out);
    }

    HRESULT OnServicesReady() override {
        return Say([this] {
            const bool named =
                HasTable(*m_tables, kServiceDescriptionTable) || HasTable(*m_tables, kVirtualChannelTable);
            Json services = Json::array();
            ComPtr<IDvbMapping> list;
            m_information->GetServices(list.Put());
            for (int32_t i = 0; const auto item = ItemAs<IDvbService>(list.Get(), i); ++i) {
                const ServiceInfo service = DescribeService(item.Get(), *m_tables, named);
                services.push_back({{"id", service.id}, {"name", service.name ? Json(*service.name) : Json(nullptr)}});
            }
            return Json{{"event", "services_ready"}, {"services", std::move(services)}};
        });
    }
    HRESULT OnReset() override {
        return Say([] { return Json{{"event", "reset"}}; });
    }
    HRESULT OnTableReady(uint32_t tableId, uint32_t key) override {
        return Say([&] { return AboutTable("table_ready", tableId, key); });
    }
    HRESULT OnTableStale(uint32_t tableId, uint32_t key) override {
        return Say([&] { return AboutTable("table_stale", tableId, key); });
    }
    HRESULT OnPidUsed(uint32_t tableId, uint32_t pid) override {
        return Say([&] {
            // -1: for whatever table comes.
            const Json id = tableId <= 0xFF ? Json(tableId) : Json(nullptr);
            return Json{{"event", "pid_used"}, {"pid", pid}, {"table_id", id}, {"table", TableName(tableId)}};
        });
    }
    HRESULT OnPidsReset() override {
        return Say([] { return Json{{"event", "pids_reset"}}; });
    }

    // From here on lines are printed, and first those that have been kept: the input is a stream.
    void LetPrint() {
        const std::lock_guard lock(m_printing);
        if (std::exchange(m_released, true))
            return;
        PrintLines();
    }
    bool HasFailed() const { return m_failed; }
    // What printing has met. When nobody prints any more.
    void Rethrow() const {
        if (m_failed)
            std::rethrow_exception(m_error);
    }

private:
    static Json AboutTable(const char* name, uint32_t tableId, uint32_t key) {
        return {{"event", name}, {"table_id", tableId}, {"table", TableName(tableId)}, {"key", key}};
    }
    // No exception crosses the interface: the first is kept, and nothing is printed after it.
    template <class Make>
    HRESULT Say(const Make& make) {
        try {
            const Json event = make();
            const std::string line = m_format == WatchFormat::kJson ? event.dump() : AsLine(event);
            const std::lock_guard lock(m_printing);
            m_lines += line + "\n";
            PrintLines();
        } catch (...) {
            const std::lock_guard lock(m_printing);
            if (!m_failed)
                m_error = std::current_exception();
            m_failed = true;
        }
        return S_OK;
    }
    void PrintLines() {
        if (!m_released || m_failed)
            return;
        Print(m_lines);
        m_lines.clear();
    }

    const WatchFormat m_format;
    const ComPtr<IDvbServiceInformationEx> m_information;
    const ComPtr<ITableDecoder> m_tables;
    std::mutex m_printing;  // a line is not torn; nothing is called out with it held
    std::string m_lines;
    bool m_released = false;
    std::exception_ptr m_error;
    std::atomic<bool> m_failed{false};
};

}  // namespace

void Watch(InputFile& input, WatchFormat format) {
    Pipeline pipeline(StreamingMode::kRecording, 1);
    const auto information = pipeline.SplitterAs<IDvbServiceInformationEx>(0);
    const auto mapper = pipeline.SplitterAs<IDvbPidMapper>(0);
    const auto watcher = MakeObject<Watcher>(format, information, pipeline.SplitterAs<ITableDecoder>(0));
    if (!watcher)
        throw Failure("out of memory");
    uint32_t events = 0, pids = 0;
    Check(information->AdviseEvents(static_cast<IDvbTableEvents2*>(watcher.Get()), &events), "cannot watch tables");
    Check(mapper->Advise(static_cast<IDvbPidMapperEvents*>(watcher.Get()), &pids), "cannot watch PIDs");

    Feed feed(input);
    feed.Restart();  // nothing is read twice
    PacketMeter meter;
    pipeline.Start();
    for (auto bytes = pipeline.Read(feed); !bytes.empty() && !watcher->HasFailed(); bytes = pipeline.Read(feed)) {
        meter.Push(bytes);
        if (meter.FoundPackets())
            watcher->LetPrint();
        pipeline.Push();
    }
    // All events have been told when this returns.
    pipeline.End();
    pipeline.Stop();
    information->UnadviseEvents(events);
    mapper->Unadvise(pids);
    meter.Finish();
    if (!meter.FoundPackets())
        throw Failure(NoStreamText(input));
    watcher->LetPrint();
    watcher->Rethrow();
}

}  // namespace tessel::tool
