// The filter that a page shows, through its interfaces.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/media/Mpeg2Demultiplexer.h"
#include "services/objects/Parameters.h"
#include "services/objects/PidParameters.h"
#include "services/objects/ServiceInterfaces.h"
#include "services/objects/TableInterfaces.h"

namespace tessel::page {

// What pin parameter kParamContentKind says of a pin that delivers content.
constexpr uint32_t KindOf(MEDIA_SAMPLE_CONTENT content) {
    return static_cast<uint32_t>(content) + 1;
}

struct OutputPin {
    std::u16string name;
    ComPtr<IPin> pin;

    bool IsConnected() const;
    // PIDs and special values.
    std::set<ULONG> Mapped() const;
    // 0 while the pin has no content yet.
    uint32_t Kind() const;
    // Maps pids as content. A pin without a PID that was to deliver something else changes to content.
    HRESULT Map(const std::vector<ULONG>& pids, MEDIA_SAMPLE_CONTENT content) const;
    HRESULT Unmap(const std::vector<ULONG>& pids) const;
};

// All of the filter's interfaces that pages use, or none.
struct Filter {
    ComPtr<IBaseFilter> base;
    ComPtr<IMpeg2Demultiplexer> demultiplexer;
    ComPtr<IDvbServiceInformationEx> information;
    ComPtr<ITableDecoder> tables;
    ComPtr<IMPEG2PIDParam> pids;
    ComPtr<IGetSetParam> parameters;

    // E_NOINTERFACE when object is not such a filter.
    HRESULT Connect(IUnknown* object);
    void Disconnect() { *this = {}; }

    // In the filter's order.
    std::vector<OutputPin> OutputPins() const;
    std::optional<OutputPin> CreatePin(const std::u16string& name, HRESULT* result) const;

    bool HasPackets(uint32_t pid) const { return PidParam(pid, kPidPresent); }
    bool IsScrambled(uint32_t pid) const { return PidParam(pid, kPidScrambled); }
    bool HasPackets(IDvbService& service) const;

    // Null when there is none. A service keeps the components of earlier versions; the current table does not.
    ComPtr<IDvbProgramMapTable> ProgramMap(uint32_t programNumber) const;
    std::vector<ComPtr<IDvbService>> Services() const;
    ComPtr<IDvbService> Service(uint32_t serviceId) const;

private:
    bool PidParam(uint32_t pid, int32_t parameter) const;
};

// Items 0, 1, ... of list that are an I.
template <class I>
std::vector<ComPtr<I>> ItemsOf(IDvbCollection* list) {
    std::vector<ComPtr<I>> items;
    uint32_t count = 0;
    if (list == nullptr || FAILED(list->GetCount(&count)))
        return items;
    for (uint32_t i = 0; i < count; ++i)
        if (auto item = ItemAs<I>(list, static_cast<int32_t>(i)))
            items.push_back(std::move(item));
    return items;
}

template <class I>
uint32_t ValueOf(I& object, HRESULT (I::*getter)(uint32_t*)) {
    uint32_t value = 0;
    (object.*getter)(&value);
    return value;
}

// Value of a parameter; 0 when the object has none.
uint32_t ParamOf(IUnknown* object, uint32_t id);

}  // namespace tessel::page
