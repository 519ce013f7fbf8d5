// The stream that the benchmarks read: two programmes, one packet in fifty carries a table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tessel::bench {

// About size bytes of 188-byte packets: PAT, two PMTs and an SDT in turn on every fiftieth packet, video
// and audio with a PCR every hundredth.
std::vector<uint8_t> MakeStream(size_t size);

// The stream that most benchmarks share: larger than the processor's caches.
const std::vector<uint8_t>& SharedStream();

}  // namespace tessel::bench
