#include "tools/tessel/TableReader.h"

#include <algorithm>

#include "services/objects/Collections.h"
#include "tables/TableFactory.h"

namespace tessel::tool {

void TableReader::Push(std::span<const uint8_t> bytes) {
    m_reader->Push(bytes);
    const auto room = static_cast<size_t>(kByteLimit) - m_head.size();
    bytes = bytes.first(std::min(bytes.size(), room));
    m_head.insert(m_head.end(), bytes.begin(), bytes.end());
}

void TableReader::Finish() {
    m_reader->Finish();
    const PidSet present = m_reader->PidStatus().Present();
    if (present.none() || m_reader->Services()->IsPmtComplete() == S_OK)
        return;
    const size_t before = m_reader->TableVersions().size();
    m_reader->Restart();
    m_reader->Push(m_head);
    m_reader->Finish();
    if (m_reader->TableVersions().size() != before)
        m_latePids = present;
}

bool TableReader::IsComplete() {
    return m_reader->Services()->IsComplete() == S_OK &&
           NoNamesToCome(*m_reader, [this](uint32_t pid) { return m_reader->PidStatus().IsPresent(pid); });
}

bool TableReader::IsNamed() {
    return HasTable(*m_reader, kServiceDescriptionTable) || HasTable(*m_reader, kVirtualChannelTable);
}

std::vector<ServiceInfo> TableReader::Services() {
    ComPtr<IDvbMapping> list;
    m_reader->GetServices(list.Put());
    const bool named = IsNamed();
    std::vector<ServiceInfo> services;
    for (int32_t i = 0; const auto service = ItemAs<IDvbService>(list.Get(), i); ++i)
        services.push_back(DescribeService(service.Get(), *m_reader, named));
    return services;
}

}  // namespace tessel::tool
