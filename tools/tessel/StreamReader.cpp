#include "tools/tessel/StreamReader.h"

namespace tessel::tool {

void StreamReader::Start() {
    if (FAILED(SetMode(StreamingMode::kRecording, 0)) || FAILED(StartStreaming()))
        throw Failure("out of memory");
}

void StreamReader::Push(std::span<const uint8_t> bytes) {
    m_bytesPushed += static_cast<int64_t>(bytes.size());
    const uint8_t* data = bytes.data();
    auto length = static_cast<int32_t>(bytes.size());
    while (length > 0) {
        // A parsed buffer holds at most one packet and its look-ahead, so there is room again.
        if (FAILED(AddData(&data, &length)))
            throw Failure("out of memory");
        Parse();
    }
}

void StreamReader::Finish() {
    // Too little may have come to be sure of the packet size: then the default holds. What has shown none
    // in more than that is no stream, even where two sync bytes stand at the right distance.
    if (m_resyncPending && FAILED(DetectPacketSize()) && m_bytesPushed > kFourPackets)
        return;
    m_resyncPending = false;
    Parse();
}

void StreamReader::Restart() {
    FlushBuffer();
    m_resyncPending = true;
    m_bytesPushed = 0;
}

void StreamReader::Parse() {
    if (m_resyncPending) {
        if (FAILED(DetectPacketSize()))
            return;
        m_resyncPending = false;
    }
    ParseData();
}

bool StreamReader::FoundPackets() const {
    return PidStatus().Present().any();
}

std::string NoStreamText(const InputFile& input) {
    if (input.BytesRead() == 0)
        return input.Name() + ": is empty; name a transport stream";
    return input.Name() + ": no transport stream packets in " + std::to_string(input.BytesRead()) +
           " bytes; packets are 188 or 192 bytes long and begin with 0x47";
}

}  // namespace tessel::tool
