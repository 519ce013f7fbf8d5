#include "core/ServiceSelection.h"

#include <vector>

#include "descriptors/DescriptorInterfaces.h"

namespace tessel {

namespace {

// stream_type, ISO/IEC 13818-1 table 2-34, and the AC-3 value of A/53.
constexpr uint32_t kMpeg1Video = 0x01;
constexpr uint32_t kMpeg2Video = 0x02;
constexpr uint32_t kMpeg1Audio = 0x03;
constexpr uint32_t kMpeg2Audio = 0x04;
constexpr uint32_t kPrivatePes = 0x06;
constexpr uint32_t kMpeg4Video = 0x10;
constexpr uint32_t kAvcVideo = 0x1B;
constexpr uint32_t kAc3Audio = 0x81;

std::optional<uint32_t> StreamTypeOf(const GUID& videoSubtype) {
    if (videoSubtype == MEDIASUBTYPE_MPEG2_VIDEO || videoSubtype == MEDIASUBTYPE_MPEG1Payload)
        return kMpeg2Video;
    if (videoSubtype == MEDIASUBTYPE_MPEG4_VIDEO)
        return kMpeg4Video;
    if (videoSubtype == MEDIASUBTYPE_AVC_VIDEO)
        return kAvcVideo;
    return std::nullopt;
}

ComPtr<IUnknown> FindDescriptor(IDvbComponent& component, uint8_t tag) {
    ComPtr<IDvbMapping> descriptors;
    ComPtr<IUnknown> descriptor;
    if (SUCCEEDED(component.GetDescriptors(descriptors.Put())) && descriptors)
        descriptors->Lookup(tag, descriptor.Put());
    return descriptor;
}

// Undefined and clean effects; the others are for people with impairments, or comments.
bool IsMainAudio(IDvbDescISO639Language& languages) {
    ComPtr<IDvbDescISO639LanguageItem> first;
    uint32_t type = 0;
    return SUCCEEDED(languages.GetItem(0, first.Put())) && SUCCEEDED(first->GetAudioType(&type)) && type <= 1;
}

// The higher, the better; 0 for no audio.
uint32_t AudioScore(IDvbComponent& component) {
    uint32_t streamType = 0;
    component.GetStreamType(&streamType);
    uint32_t weight = 0;
    if (streamType == kMpeg1Audio || streamType == kMpeg2Audio)
        weight = 10;
    else if (streamType == kAc3Audio || (streamType == kPrivatePes && FindDescriptor(component, tag::kAc3)))
        weight = 50;
    const auto languages = FindDescriptor(component, tag::kISO639Language).As<IDvbDescISO639Language>();
    if (!languages)
        return weight / 2;
    return IsMainAudio(*languages.Get()) ? 2 * weight : weight;
}

bool IsVideo(IDvbComponent& component, std::optional<uint32_t> wanted) {
    uint32_t streamType = 0;
    component.GetStreamType(&streamType);
    if (streamType == kMpeg1Video)
        streamType = kMpeg2Video;
    if (streamType != kMpeg2Video && streamType != kMpeg4Video && streamType != kAvcVideo)
        return false;
    return !wanted || streamType == *wanted;
}

// Calls visit(component) until it returns false.
template <class Visit>
void ForEachComponent(const ComPtr<IDvbCollection>& components, Visit visit) {
    for (int32_t i = 0; const auto component = ItemAs<IDvbComponent>(components.Get(), i); ++i)
        if (!visit(*component.Get()))
            return;
}

}  // namespace

ComPtr<IDvbCollection> CServiceSelection::CurrentComponents(IDvbService& service) const {
    uint32_t id = 0;
    service.GetServiceId(&id);
    ComPtr<IDvbProgramMapTable> map;
    ComPtr<IDvbCollection> components;
    if (SUCCEEDED(m_information.GetProgramMapTable(id, map.Put())))
        map->GetComponents(components.Put());
    else
        service.GetComponents(components.Put());
    return components;
}

bool CServiceSelection::IsPresent(IDvbComponent& component) const {
    uint32_t pid = kPidCount;
    component.GetPid(&pid);
    return pid < kPidCount && m_pidStatus.IsPresent(pid);
}

bool CServiceSelection::HasPresentComponents(IDvbService& service) const {
    bool found = false;
    ComPtr<IDvbCollection> components;
    service.GetComponents(components.Put());
    ForEachComponent(components, [&](IDvbComponent& component) {
        found = IsPresent(component);
        return !found;
    });
    return found;
}

CServiceSelection::Pins CServiceSelection::FindPins() {
    Pins pins;
    for (const OutputPinPtr& pin : m_pins) {
        CMediaType type;
        if (!pin->IsConnected() || FAILED(pin->CurrentMediaType(type)))
            continue;
        if (type.majortype == MEDIATYPE_Video) {
            pins.video = pin;
            pins.videoType = StreamTypeOf(type.subtype);
        } else if (type.majortype == MEDIATYPE_Audio) {
            pins.audio = pin;
        }
    }
    return pins;
}

void CServiceSelection::FillPins(Pins& pins) {
    for (const OutputPinPtr& pin : m_pins) {
        const ContentKind kind = pin->Kind();
        if (pin->IsConnected() || (kind != ContentKind::kNone && kind != ContentKind::kElementaryStream))
            continue;
        if (pin->Name() == u"AOut" ? !pins.audio : pins.video && !pins.audio)
            pins.audio = pin;
        else if (!pins.video && pin->Name() != u"AOut")
            pins.video = pin;
    }
    const auto create = [this](OutputPinPtr& pin, const OLECHAR* name) {
        if (pin)
            return;
        pin = m_file->createPin(name);
        if (pin)
            m_pins.Add(pin);
    };
    create(pins.video, u"VOut");
    create(pins.audio, u"AOut");
}

CServiceSelection::Choice CServiceSelection::Choose(IDvbService& service, std::optional<uint32_t> videoType) const {
    Choice choice;
    uint32_t best = 0;
    ForEachComponent(CurrentComponents(service), [&](IDvbComponent& component) {
        if (!IsPresent(component))
            return true;
        uint32_t pid = 0;
        component.GetPid(&pid);
        if (!choice.videoPid && IsVideo(component, videoType))
            choice.videoPid = pid;
        if (const uint32_t score = AudioScore(component); score > best) {
            best = score;
            choice.audioPid = pid;
        }
        return true;
    });
    return choice;
}

void CServiceSelection::Map(const OutputPinPtr& pin, std::optional<uint32_t> pid) {
    if (!pin || !pid)
        return;
    const std::vector<ULONG> before = pin->Map().Entries();
    const ULONG wanted = *pid;
    if (before == std::vector<ULONG>{wanted})
        return;
    if (!before.empty())
        pin->UnmapPID(static_cast<ULONG>(before.size()), before.data());
    pin->MapPID(1, &wanted, MEDIA_ELEMENTARY_STREAM);
}

bool CServiceSelection::Try(IDvbService& service) {
    Pins pins = FindPins();
    if (m_file)
        FillPins(pins);
    const Choice choice = Choose(service, pins.videoType);
    Map(pins.video, choice.videoPid);
    Map(pins.audio, choice.audioPid);
    if (m_file)
        m_file->rewind();
    return choice.videoPid || choice.audioPid;
}

HRESULT CServiceSelection::Select(IDvbMapping& services, uint32_t index) {
    uint32_t number = 0;
    for (int32_t i = 0; const auto service = ItemAs<IDvbService>(&services, i); ++i)
        if (HasPresentComponents(*service.Get()) && number++ >= index && Try(*service.Get()))
            return S_OK;
    return E_FAIL;
}

}  // namespace tessel
