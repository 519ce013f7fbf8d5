// Where a reader of streams may be more forgiving than the documented ways, which are the defaults.
#pragma once

namespace tessel {

struct ReadingRules {
    // Packets and sections go out only once a program map table has come; those that find no room until then are lost.
    bool packetsWaitForProgram = true;
};

}  // namespace tessel
