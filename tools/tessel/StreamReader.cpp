#include "tools/tessel/StreamReader.h"

#include "services/objects/Collections.h"
#include "tools/tessel/Failure.h"

namespace tessel::tool {

namespace {

constexpr int32_t kReadSize = 256 * 1024;

}  // namespace

StreamReader::StreamReader() : CTsFilterBase("StreamReader") {
    if (FAILED(SetMode(StreamingMode::kRecording, 0)) || FAILED(StartStreaming()))
        throw Failure("out of memory");
}

ComPtr<StreamReader> MakeStreamReader() {
    auto reader = MakeObject<StreamReader>();
    if (!reader)
        throw Failure("out of memory");
    return reader;
}

bool StreamReader::ReadSome(InputFile& input) {
    const std::span<uint8_t> room = ReserveData(kReadSize);
    if (room.empty())
        throw Failure("out of memory");
    const size_t count = input.Read(room);
    CommitData(static_cast<int32_t>(count));
    m_bytesRead += static_cast<int64_t>(count);
    if (count == 0) {
        // Too little may be left to be sure of the packet size: then the default holds.
        m_resyncPending = false;
        if (!FoundPackets())
            DetectPacketSize();
    }
    Parse();
    return count != 0;
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
    for (uint32_t pid = 0; pid < kPidCount; ++pid)
        if (PidStatus().IsPresent(pid))
            return true;
    return false;
}

std::string NoStreamText(const InputFile& input, const StreamReader& reader) {
    if (reader.BytesRead() == 0)
        return input.Name() + ": is empty; name a transport stream";
    return input.Name() + ": no transport stream packets in " + std::to_string(reader.BytesRead()) +
           " bytes; packets are 188 or 192 bytes long and begin with 0x47";
}

}  // namespace tessel::tool
