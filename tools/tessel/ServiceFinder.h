// Finds the services of an input, and whether their streams have shown what they need to start.
#pragma once

#include <functional>

#include "tools/tessel/Feed.h"
#include "tools/tessel/PacketMeter.h"
#include "tools/tessel/TableReader.h"

namespace tessel::tool {

// What keeps a component from being delivered as an elementary stream. One that never starts would hold up
// the others of its splitter.
enum class Obstacle {
    kNone,
    kNoMediaType,  // the system has none for it
    kNoPin,        // it has one that no pin delivers
    kScrambled,
    kNoClock,  // no clock references for its service
    kNoPackets,
    kNoTimeStamp,
};

Obstacle ObstacleOf(const ServiceInfo& service, const ComponentInfo& component, const PacketMeter& meter);

struct FoundServices {
    std::vector<ServiceInfo> services;
    bool complete = false;
    bool wholeInput = false;  // all of it has been seen
    PidSet latePids;          // see TableReader
};

// Reads feed until the services are complete and no obstacle is left that more bytes could lift, or up to
// kByteLimit. Only services that are wanted count.
FoundServices FindServices(Feed& feed, PacketMeter& meter, const std::function<bool(const ServiceInfo&)>& wanted);

}  // namespace tessel::tool
