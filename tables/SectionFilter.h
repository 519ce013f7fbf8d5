// Assembles the sections of one PID from packet payloads, ISO/IEC 13818-1 clause 2.4.4.
//
// A section counts as complete when the next unit start arrives on its PID. It is judged then: length,
// plausible table_id, CRC. A packet completes at most one section; what follows a section in its
// packet is stuffing or lost. Damaged sections are dropped silently.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "platform/com/Result.h"

namespace tessel {

class SectionFilter {
public:
    explicit SectionFilter(uint16_t pid);

    // One call a packet of the PID that has payload. E_FAIL for a pointer_field that runs past the payload:
    // nothing changes then, and the packet should go nowhere else. S_OK for everything else, dropped
    // sections included.
    HRESULT AssembleSection(const uint8_t* payload, int32_t length, bool payloadUnitStart, bool discontinuity,
                            uint8_t continuityCounter);

    // The section that the last packet completed, table_id to CRC_32; empty when it completed none. Reading
    // clears the mark; the bytes stay until the next section completes.
    std::span<const uint8_t> TakeCompleted();

    uint16_t Pid() const { return m_pid; }

private:
    // Whether the section that starts in this packet may be taken.
    bool FinishSection(std::span<const uint8_t> tail);
    void StartSection(std::span<const uint8_t> head, uint8_t continuityCounter);
    bool Append(std::span<const uint8_t> bytes);

    const uint16_t m_pid;
    bool m_sectionReady = false;
    std::vector<uint8_t> m_completedData;  // both buffers only grow, in steps of 1024
    int32_t m_completedLength = 0;
    std::vector<uint8_t> m_assemblyData;
    int32_t m_assembledLength = 0;  // 0: waiting for a section start
    int32_t m_lastContinuityCounter = 0;
};

}  // namespace tessel
