// A multiplex of constant rate: PES packets by deadline, tables at fixed times, null packets in between.
#pragma once

#include <cstdint>
#include <vector>

#include "samples/ElementaryStreams.h"
#include "tests/support/StreamBuilder.h"

namespace tessel::sample {

struct ElementaryStream {
    uint16_t pid = 0;
    uint8_t streamId = 0;
    AccessUnits units = {};
    double lead = 0.5;           // seconds before its decoding at which a unit may begin to arrive, at most
    build::PesOptions pes = {};  // what all its PES packets have in common; packet.scrambling included
};

struct TableRound {
    double time = 0;  // seconds from the start
    struct Table {
        uint16_t pid = 0;
        Bytes section = {};
    };
    std::vector<Table> tables = {};
};

struct Multiplex {
    int64_t firstPcr = 0;       // 27 MHz
    int64_t packetTicks = 0;    // duration of a packet at the multiplex rate, 27 MHz
    double decoderDelay = 0.5;  // seconds from the first packet to time 0 of the units
    std::vector<uint16_t> pcrPids = {};
    std::vector<ElementaryStream> streams = {};
    std::vector<TableRound> rounds = {};  // by time
};

// Ends with the last round or unit, whichever is later. A unit that cannot arrive in time throws.
Bytes Run(const Multiplex& multiplex);

}  // namespace tessel::sample
