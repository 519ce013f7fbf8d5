// Reads an input through the parsing core alone: tables and services, packets and sections by PID.
#pragma once

#include "core/TsFilterBase.h"
#include "tools/tessel/Files.h"

namespace tessel::tool {

// Bytes in which four sync bytes at an equal distance must have shown: packets, and a look-ahead.
inline constexpr int64_t kFourPackets = 4 * kTimestampedPacketSize + 6;

class StreamReader final : public CTsFilterBase {
public:
    // Starts streaming; Failure when there is no memory for it.
    StreamReader();

    // Parses bytes; those after the last whole packet wait for more.
    void Push(std::span<const uint8_t> bytes);
    // No more bytes come: parses what is complete.
    void Finish();
    // The input comes once more, from its beginning; what has been learnt stays.
    void Restart();

    // Whether any packet has been parsed.
    bool FoundPackets() const;

private:
    void Parse();

    bool m_resyncPending = true;
    int64_t m_bytesPushed = 0;  // since the beginning of the input
};

// An object lives by its references; a command holds its reader by one.
ComPtr<StreamReader> MakeStreamReader();

// The text of the failure of an input that is no transport stream.
std::string NoStreamText(const InputFile& input);

}  // namespace tessel::tool
