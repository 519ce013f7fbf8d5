// For scripts/compare, where libavformat's headers are installed: what its demultiplexer costs without a program around
// it.
extern "C" {
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
}

#include <cstdint>
#include <cstdio>

int main(int argc, char** argv) {
    AVFormatContext* input = nullptr;
    if (argc != 2 || avformat_open_input(&input, argv[1], nullptr, nullptr) != 0) {
        std::fprintf(stderr, "usage: %s FILE, a stream that can be opened\n", argv[0]);
        return 2;
    }
    AVPacket* packet = av_packet_alloc();
    if (!packet || avformat_find_stream_info(input, nullptr) < 0)
        return 1;
    int64_t packets = 0;
    int64_t bytes = 0;
    while (av_read_frame(input, packet) == 0) {
        ++packets;
        bytes += packet->size;
        av_packet_unref(packet);
    }
    std::printf("%lld packets, %lld bytes\n", static_cast<long long>(packets), static_cast<long long>(bytes));
    av_packet_free(&packet);
    avformat_close_input(&input);
    return 0;
}
