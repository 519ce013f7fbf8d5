#include "tools/tessel/Watch.h"

#include <exception>
#include <nlohmann/json.hpp>
#include <utility>

#include "tables/TableFactory.h"
#include "tools/tessel/Memory.h"
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

Json AboutTable(const char* name, uint32_t tableId, uint32_t key) {
    return {{"event", name}, {"table_id", tableId}, {"table", TableName(tableId)}, {"key", key}};
}

// Notes what happens where it does, on the thread that parses: at every run the same, in the same order.
class Watcher final : public StreamReader {
public:
    explicit Watcher(WatchFormat format) : m_format(format) {}

    // What has been noted since the last time, once it is known that the input is a stream.
    void PrintLines() {
        if (m_error)
            std::rethrow_exception(m_error);
        if (FoundPackets())
            Print(std::exchange(m_lines, {}));
    }

private:
    HRESULT OnTableReady(uint32_t tableId, uint32_t key) override {
        const HRESULT result = StreamReader::OnTableReady(tableId, key);
        if (FAILED(result))
            return result;
        Note([&] { return AboutTable("table_ready", tableId, key); });
        if (!m_announced && IsServiceInformationComplete() == S_OK) {
            m_announced = true;
            Note([this] { return AboutServices(); });
        }
        return result;
    }
    HRESULT OnTableStale(uint32_t tableId, uint32_t key) override {
        Note([&] { return AboutTable("table_stale", tableId, key); });
        return StreamReader::OnTableStale(tableId, key);
    }
    void NewTSID(uint32_t transportStreamId) override {
        StreamReader::NewTSID(transportStreamId);
        m_announced = false;
    }
    void InternalReset() override {
        StreamReader::InternalReset();
        Note([] { return Json{{"event", "pids_reset"}}; });
    }
    void TellPidSinks(std::span<const PidNotice> notices) override {
        for (const PidNotice& notice : notices) {
            Note([&notice] {
                // -1: for whatever table comes.
                const Json id = notice.tableId <= 0xFF ? Json(notice.tableId) : Json(nullptr);
                return Json{
                    {"event", "pid_used"}, {"pid", notice.pid}, {"table_id", id}, {"table", TableName(notice.tableId)}};
            });
        }
    }

    Json AboutServices() {
        const bool named = HasTable(*this, kServiceDescriptionTable) || HasTable(*this, kVirtualChannelTable);
        Json services = Json::array();
        ComPtr<IDvbMapping> list;
        GetServices(list.Put());
        for (int32_t i = 0; const auto item = ItemAs<IDvbService>(list.Get(), i); ++i) {
            const ServiceInfo service = DescribeService(item.Get(), *this, named);
            services.push_back({{"id", service.id}, {"name", service.name ? Json(*service.name) : Json(nullptr)}});
        }
        return {{"event", "services_ready"}, {"services", std::move(services)}};
    }
    // No exception goes through the parser: the first is kept, and nothing is noted after it.
    template <class Make>
    void Note(const Make& make) {
        if (m_error)
            return;
        const SpareMemory spare;
        try {
            const Json event = make();
            m_lines += (m_format == WatchFormat::kJson ? event.dump() : AsLine(event)) + "\n";
        } catch (...) {
            m_error = std::current_exception();
        }
    }

    const WatchFormat m_format;
    std::string m_lines;
    bool m_announced = false;
    std::exception_ptr m_error;
};

}  // namespace

void Watch(InputFile& input, WatchFormat format) {
    const ComPtr<Watcher> watcher = MakeStreamReader<Watcher>(format);
    for (auto bytes = input.Read(); !bytes.empty(); bytes = input.Read()) {
        watcher->Push(bytes);
        watcher->PrintLines();
    }
    watcher->Finish();
    if (!watcher->FoundPackets())
        throw Failure(NoStreamText(input));
    watcher->PrintLines();
}

}  // namespace tessel::tool
