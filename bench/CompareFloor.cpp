// What scripts/compare sets other programs against: how little a transport stream can cost, as whole processes.
//   copies FILE             three plain copies of the bytes, 188 at a time
//   loop FILE               a bare demultiplexer: header, PES header, one copy of the payload
//   measure RESULT CMD...   runs CMD and writes "CPU-SECONDS PEAK-KIB STATUS" into the file RESULT
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include "core/stream/TsHeader.h"

namespace tessel::bench {
namespace {

constexpr size_t kPacket = kTransportPacketSize;
constexpr size_t kPacketsABlock = 256 * 1024 / kPacket;

// A buffer that is written from front to back and then again, as one that is drained in time.
class Ring {
public:
    explicit Ring(size_t size) : m_size(size), m_bytes(std::make_unique<uint8_t[]>(size)) {}

    uint8_t* Append(const uint8_t* bytes, size_t length) {
        if (m_at + length > m_size)
            m_at = 0;
        uint8_t* const to = m_bytes.get() + m_at;
        std::memcpy(to, bytes, length);
        asm volatile("" : : "r"(to) : "memory");  // the copy counts though nobody reads it
        m_at += length;
        return to;
    }

private:
    size_t m_size;
    size_t m_at = 0;
    std::unique_ptr<uint8_t[]> m_bytes;
};

// Calls take(packet) for every packet of the file, which must begin with one.
template <class Take>
int ForEachPacket(const char* path, Take take) {
    std::FILE* const file = std::fopen(path, "rb");
    if (!file) {
        std::perror(path);
        return 1;
    }
    std::setvbuf(file, nullptr, _IONBF, 0);
    const auto block = std::make_unique<uint8_t[]>(kPacketsABlock * kPacket);
    while (const size_t count = std::fread(block.get(), kPacket, kPacketsABlock, file)) {
        for (size_t i = 0; i < count; ++i)
            take(block.get() + i * kPacket);
    }
    std::fclose(file);
    return 0;
}

// The sizes are those of an input buffer, a content and a sample.
int Copies(const char* path) {
    Ring input(819'200);
    Ring content(196'608);
    Ring sample(75'200);
    return ForEachPacket(path, [&](const uint8_t* packet) {
        const uint8_t* const first = input.Append(packet, kPacket);
        const uint8_t* const second = content.Append(first, kPacket);
        sample.Append(second, kPacket);
    });
}

// Takes every PID on which a PES has begun.
class BareDemultiplexer {
public:
    void Packet(const uint8_t* packet) {
        const TsHeader header = DecodeTsHeader(packet);
        if (packet[0] != kSyncByte || !header.HasPayload() || header.Pid() == kNullPid)
            return;
        size_t at = header.HasAdaptationField() ? 5 + size_t{packet[4]} : 4;
        Stream& stream = m_streams[header.Pid()];
        if (header.PayloadUnitStartIndicator() && at + 9 <= kPacket) {
            if (packet[at] != 0 || packet[at + 1] != 0 || packet[at + 2] != 1)
                return;
            if (!stream.ring)
                stream.ring = std::make_unique<Ring>(75'200);
            ++stream.units;
            at += 9 + size_t{packet[at + 8]};
        }
        if (!stream.ring || at >= kPacket)
            return;
        stream.bytes += kPacket - at;
        stream.ring->Append(packet + at, kPacket - at);
    }

    void Report() const {
        for (size_t pid = 0; pid < kPidCount; ++pid) {
            if (m_streams[pid].ring)
                std::printf("%zu: %zu units, %zu bytes\n", pid, m_streams[pid].units, m_streams[pid].bytes);
        }
    }

private:
    struct Stream {
        std::unique_ptr<Ring> ring;
        size_t units = 0;
        size_t bytes = 0;
    };

    std::unique_ptr<Stream[]> m_streams = std::make_unique<Stream[]>(kPidCount);
};

int Loop(const char* path) {
    BareDemultiplexer demultiplexer;
    const int result = ForEachPacket(path, [&](const uint8_t* packet) { demultiplexer.Packet(packet); });
    demultiplexer.Report();
    return result;
}

// A small process starts the command: the peak of a child counts what its parent had before it.
int Measure(const char* result, char** command) {
    const pid_t child = fork();
    if (child == 0) {
        execvp(command[0], command);
        std::perror(command[0]);
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    if (child < 0 || wait4(child, &status, 0, &usage) != child) {
        std::perror("measure");
        return 1;
    }
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    std::FILE* const file = std::fopen(result, "w");
    if (!file) {
        std::perror(result);
        return 1;
    }
    std::fprintf(file, "%.6f %ld %d\n", seconds(usage.ru_utime) + seconds(usage.ru_stime), usage.ru_maxrss,
                 WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
    return std::fclose(file) == 0 ? 0 : 1;
}

}  // namespace
}  // namespace tessel::bench

int main(int argc, char** argv) {
    using namespace tessel::bench;
    const std::string_view what = argc > 2 ? argv[1] : "";
    if (what == "copies")
        return Copies(argv[2]);
    if (what == "loop")
        return Loop(argv[2]);
    if (what == "measure" && argc > 3)
        return Measure(argv[2], argv + 3);
    std::fprintf(stderr, "usage: %s copies FILE | loop FILE | measure RESULT COMMAND...\n", argv[0]);
    return 2;
}
