// Reads an input through the parsing core alone: tables and services, packets and sections by PID.
#pragma once

#include "core/TsFilterBase.h"
#include "services/objects/Collections.h"
#include "tools/tessel/Failure.h"
#include "tools/tessel/Files.h"

namespace tessel::tool {

// Bytes in which four sync bytes at an equal distance must have shown: packets, and a look-ahead.
inline constexpr int64_t kFourPackets = 4 * kTimestampedPacketSize + 6;

class StreamReader : public CTsFilterBase {
public:
    StreamReader() : CTsFilterBase("StreamReader") {}

    // Once, before anything else. Failure when there is no memory for it.
    void Start();
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

// An object lives by its references; a command holds its reader, which has been started, by one.
template <class Reader = StreamReader, class... Arguments>
ComPtr<Reader> MakeStreamReader(Arguments... arguments) {
    auto reader = MakeObject<Reader>(arguments...);
    if (!reader)
        throw Failure("out of memory");
    reader->Start();
    return reader;
}

// The text of the failure of an input that is no transport stream.
std::string NoStreamText(const InputFile& input);

}  // namespace tessel::tool
