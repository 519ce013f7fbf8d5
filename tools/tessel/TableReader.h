// Reads the services of an input: what its beginning says, in whatever order.
#pragma once

#include "tools/tessel/Services.h"
#include "tools/tessel/StreamReader.h"

namespace tessel::tool {

class TableReader {
public:
    void Push(std::span<const uint8_t> bytes);
    // No more bytes come. A program map counts once packets of its PCR PID have been seen. In a short recording every
    // copy may come before the first of them: with the PIDs known, the beginning is read once more.
    void Finish();

    // Whether more bytes would add nothing: all tables have come, and none that has names is still on its way.
    bool IsComplete();
    bool IsNamed();
    // As far as they are known.
    std::vector<ServiceInfo> Services();
    // The PIDs of the input where it had to be read twice, else none: whoever reads it once more has to expect them.
    const PidSet& LatePids() const { return m_latePids; }
    StreamReader& Reader() { return *m_reader; }

private:
    const ComPtr<StreamReader> m_reader = MakeStreamReader();
    std::vector<uint8_t> m_head;
    PidSet m_latePids;
};

}  // namespace tessel::tool
