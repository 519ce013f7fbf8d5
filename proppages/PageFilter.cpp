#include "proppages/PageFilter.h"

namespace tessel::page {

bool OutputPin::IsConnected() const {
    ComPtr<IPin> other;
    return pin->ConnectedTo(other.Put()) == S_OK;
}

std::set<ULONG> OutputPin::Mapped() const {
    std::set<ULONG> mapped;
    ComPtr<IEnumPIDMap> list;
    const auto map = pin.As<IMPEG2PIDMap>();
    if (!map || FAILED(map->EnumPIDMap(list.Put())))
        return mapped;
    PID_MAP entry;
    while (list->Next(1, &entry, nullptr) == S_OK)
        mapped.insert(entry.ulPID);
    return mapped;
}

uint32_t OutputPin::Kind() const {
    return ParamOf(pin.Get(), kParamContentKind);
}

HRESULT OutputPin::Map(const std::vector<ULONG>& pids, MEDIA_SAMPLE_CONTENT content) const {
    const auto map = pin.As<IMPEG2PIDMap>();
    if (!map)
        return E_NOINTERFACE;
    const auto parameters = pin.As<IGetSetParam>();
    if (const uint32_t kind = Kind(); kind != 0 && kind != KindOf(content) && parameters)
        parameters->SetParam(kParamContentKind, KindOf(content));  // a pin that cannot refuses the PIDs too
    return map->MapPID(static_cast<ULONG>(pids.size()), pids.data(), content);
}

HRESULT OutputPin::Unmap(const std::vector<ULONG>& pids) const {
    const auto map = pin.As<IMPEG2PIDMap>();
    return map ? map->UnmapPID(static_cast<ULONG>(pids.size()), pids.data()) : E_NOINTERFACE;
}

HRESULT Filter::Connect(IUnknown* object) {
    const ComPtr<IUnknown> filter(object);
    base = filter.As<IBaseFilter>();
    demultiplexer = filter.As<IMpeg2Demultiplexer>();
    information = filter.As<IDvbServiceInformationEx>();
    tables = filter.As<ITableDecoder>();
    pids = filter.As<IMPEG2PIDParam>();
    parameters = filter.As<IGetSetParam>();
    if (base && demultiplexer && information && tables && pids && parameters)
        return S_OK;
    Disconnect();
    return E_NOINTERFACE;
}

std::vector<OutputPin> Filter::OutputPins() const {
    std::vector<OutputPin> outputs;
    ComPtr<IEnumPins> pins;
    if (!base || FAILED(base->EnumPins(pins.Put())))
        return outputs;
    // A list that changes meanwhile is shown as far as it was read; the next update has it all.
    for (ComPtr<IPin> pin; pins->Next(1, pin.Put(), nullptr) == S_OK;) {
        PIN_INFO info;
        if (FAILED(pin->QueryPinInfo(&info)))
            continue;
        if (info.pFilter != nullptr)
            info.pFilter->Release();
        if (info.dir == PINDIR_OUTPUT)
            outputs.push_back({info.achName, pin});
    }
    return outputs;
}

std::optional<OutputPin> Filter::CreatePin(const std::u16string& name, HRESULT* result) const {
    OutputPin created{name, {}};
    *result = demultiplexer->CreateOutputPin(nullptr, name.c_str(), created.pin.Put());
    return SUCCEEDED(*result) ? std::optional(std::move(created)) : std::nullopt;
}

bool Filter::HasPackets(IDvbService& service) const {
    ComPtr<IDvbCollection> components;
    service.GetComponents(components.Put());
    for (const auto& component : ItemsOf<IDvbComponent>(components.Get()))
        if (HasPackets(ValueOf(*component, &IDvbComponent::GetPid)))
            return true;
    return false;
}

ComPtr<IDvbProgramMapTable> Filter::ProgramMap(uint32_t programNumber) const {
    ComPtr<IDvbProgramMapTable> table;
    if (FAILED(information->GetProgramMapTable(programNumber, table.Put())))
        return nullptr;
    return table;
}

std::vector<ComPtr<IDvbService>> Filter::Services() const {
    ComPtr<IDvbMapping> services;
    information->GetServices(services.Put());
    return ItemsOf<IDvbService>(services.Get());
}

ComPtr<IDvbService> Filter::Service(uint32_t serviceId) const {
    ComPtr<IDvbMapping> services;
    information->GetServices(services.Put());
    return LookupAs<IDvbService>(services.Get(), static_cast<int32_t>(serviceId));
}

bool Filter::PidParam(uint32_t pid, int32_t parameter) const {
    uint32_t value = 0;
    return pids->GetPidParam(static_cast<int32_t>(pid), parameter, &value) == S_OK && value != 0;
}

uint32_t ParamOf(IUnknown* object, uint32_t id) {
    uint32_t value = 0;
    if (const auto parameters = ComPtr<IUnknown>(object).As<IGetSetParam>())
        parameters->GetParam(id, &value);
    return value;
}

}  // namespace tessel::page
