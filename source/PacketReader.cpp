#include "source/PacketReader.h"

namespace tessel {

HRESULT ReadFile(IStream& file, std::span<uint8_t> reserved, int32_t* read) {
    ULONG count = 0;
    const HRESULT result = file.Read(reserved.data(), static_cast<ULONG>(reserved.size()), &count);
    *read = static_cast<int32_t>(count);
    // A failure behind some bytes comes again when it is asked for the next ones.
    return count > 0 ? S_OK : result;
}

CPacketReader::CPacketReader(IStream& file, int32_t packetSize) : m_file(file) {
    m_parser.SetPacketSize(packetSize);
}

bool CPacketReader::MoveTo(int64_t position) {
    if (FAILED(m_parser.CreateBuffer()) || FAILED(m_file.Seek(position, STREAM_SEEK_SET, nullptr)))
        return false;
    m_parser.ResetPositions(position);
    m_readPosition = position;
    m_result = S_OK;
    return true;
}

const uint8_t* CPacketReader::ReadPacket(int64_t limit) {
    HRESULT result = m_parser.ParseData(*this);
    while (result == S_OK && m_parser.StreamPosition() < limit && ReadMore())
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
    int32_t read = 0;
    m_result = ReadFile(m_file, reserved, &read);
    m_parser.Commit(read);
    m_readPosition += read;
    return read > 0;
}

}  // namespace tessel
