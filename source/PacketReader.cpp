#include "source/PacketReader.h"

namespace tessel {

int32_t ReadFile(IStream& file, std::span<uint8_t> reserved) {
    ULONG read = 0;
    // A failure behind some bytes comes again when it is asked for the next ones.
    file.Read(reserved.data(), static_cast<ULONG>(reserved.size()), &read);
    return static_cast<int32_t>(read);
}

CPacketReader::CPacketReader(IStream& file, int32_t packetSize) : m_file(file) {
    m_parser.SetPacketSize(packetSize);
}

bool CPacketReader::MoveTo(int64_t position) {
    if (FAILED(m_parser.CreateBuffer()) || FAILED(m_file.Seek(position, STREAM_SEEK_SET, nullptr)))
        return false;
    m_parser.ResetPositions(position);
    return true;
}

const uint8_t* CPacketReader::ReadPacket() {
    HRESULT result = m_parser.ParseData(*this);
    while (result == S_OK && ReadMore())
        result = m_parser.ParseData(*this);
    return result == kParsePaused ? m_packet : nullptr;
}

ParserStep CPacketReader::ParsePacket(const uint8_t* packet) {
    m_packet = packet;
    m_position = m_parser.StreamPosition();
    return ParserStep::kPause;
}

bool CPacketReader::ReadMore() {
    const std::span<uint8_t> reserved = m_parser.Reserve(kReadSize);
    if (reserved.empty())
        return false;
    const int32_t read = ReadFile(m_file, reserved);
    m_parser.Commit(read);
    return read > 0;
}

}  // namespace tessel
