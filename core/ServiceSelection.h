// Puts one service's video and audio on the output pins that are there for them.
#pragma once

#include <functional>
#include <optional>

#include "core/OutputPinList.h"
#include "core/stream/PidStatus.h"
#include "services/objects/ServiceInterfaces.h"

namespace tessel {

class CServiceSelection {
public:
    // What a filter that reads files adds: pins for what has none yet, and the way back to the start.
    struct FileOperations {
        std::function<OutputPinPtr(const OLECHAR* name)> createPin;
        std::function<void()> rewind;
    };

    CServiceSelection(COutputPins pins, const PidStatusBits& pidStatus, IDvbServiceInformationEx& information,
                      std::optional<FileOperations> file)
        : m_pins(std::move(pins)), m_pidStatus(pidStatus), m_information(information), m_file(std::move(file)) {}

    // The index-th of the services that have packets; when it has neither video nor audio, the next one that has.
    // E_FAIL when there is none.
    HRESULT Select(IDvbMapping& services, uint32_t index);

private:
    struct Pins {
        OutputPinPtr video;
        OutputPinPtr audio;
        std::optional<uint32_t> videoType;  // the stream_type that the video pin's connection takes
    };
    struct Choice {
        std::optional<uint32_t> videoPid;
        std::optional<uint32_t> audioPid;
    };

    // Of the current program map, where there is one: a service keeps the components of earlier versions.
    ComPtr<IDvbCollection> CurrentComponents(IDvbService& service) const;
    bool IsPresent(IDvbComponent& component) const;
    bool HasPresentComponents(IDvbService& service) const;
    bool Try(IDvbService& service);
    Pins FindPins();
    void FillPins(Pins& pins);
    Choice Choose(IDvbService& service, std::optional<uint32_t> videoType) const;
    static void Map(const OutputPinPtr& pin, std::optional<uint32_t> pid);

    COutputPins m_pins;
    const PidStatusBits& m_pidStatus;
    IDvbServiceInformationEx& m_information;
    const std::optional<FileOperations> m_file;
};

}  // namespace tessel
