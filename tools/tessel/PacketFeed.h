// A packet parser that is fed with bytes as they come, and hands its owner packets.
#pragma once

#include <span>

#include "core/stream/PacketParser.h"
#include "tools/tessel/Failure.h"
#include "tools/tessel/StreamReader.h"

namespace tessel::tool {

// Handler: as PacketParser has it.
class PacketFeed {
public:
    PacketFeed() {
        if (FAILED(m_parser.CreateBuffer()))
            throw Failure("out of memory");
        m_parser.ResetPositions();
    }

    template <class Handler>
    void Push(std::span<const uint8_t> bytes, Handler& handler) {
        const uint8_t* data = bytes.data();
        auto length = static_cast<int32_t>(bytes.size());
        while (length > 0) {
            // A parsed buffer holds at most one packet and its look-ahead, so there is room again.
            if (FAILED(m_parser.AddData(&data, &length)))
                throw Failure("out of memory");
            Parse(handler);
        }
    }
    // No more bytes come. Nothing is told of packets that no packet size was found for.
    template <class Handler>
    void Finish(Handler& handler) {
        // As the reader of tables has it: of very few bytes the default size holds.
        if (m_resyncPending && FAILED(m_parser.DetectPacketSize()) && m_parser.BytesReceived() > kFourPackets)
            return;
        m_resyncPending = false;
        Parse(handler);
    }

    // Of the packet that the handler has.
    int64_t Position() const { return m_parser.StreamPosition(); }
    int64_t BytesReceived() const { return m_parser.BytesReceived(); }

private:
    template <class Handler>
    void Parse(Handler& handler) {
        if (m_resyncPending && FAILED(m_parser.DetectPacketSize()))
            return;
        m_resyncPending = false;
        m_parser.ParseData(handler);
    }

    static constexpr int32_t kCapacity = 65'536;

    PacketParser m_parser{kCapacity};
    bool m_resyncPending = true;
};

}  // namespace tessel::tool
