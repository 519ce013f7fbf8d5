// Reads an input through the parsing core alone: tables and services, packets and sections by PID.
#pragma once

#include "core/TsFilterBase.h"
#include "tools/tessel/Files.h"

namespace tessel::tool {

class StreamReader final : public CTsFilterBase {
public:
    // Starts streaming; Failure when there is no memory for it.
    StreamReader();

    // Reads some more and parses it; false at the end of the input, when all that is complete is parsed.
    bool ReadSome(InputFile& input);

    int64_t BytesRead() const { return m_bytesRead; }
    // Whether any packet has been parsed.
    bool FoundPackets() const;

private:
    void Parse();

    int64_t m_bytesRead = 0;
    bool m_resyncPending = true;
};

// An object lives by its references; a command holds its reader by one.
ComPtr<StreamReader> MakeStreamReader();

// The text of the failure of an input that is no transport stream.
std::string NoStreamText(const InputFile& input, const StreamReader& reader);

}  // namespace tessel::tool
