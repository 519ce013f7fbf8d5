// The order in which the product's locks are taken, outermost first.
//
// A thread that holds one may only take those below it. Leaves call nothing out.
#pragma once

namespace tessel {

enum LockRank {
    kRankFilterState = 0,   // state changes, pin creation
    kRankSeek = 10,         // the file source's seeking
    kRankReceive = 20,      // one sample at a time from upstream
    kRankThreads = 25,      // a filter's threads start or rest
    kRankStreaming = 30,    // input buffer and parser
    kRankEventFilter = 35,  // the event thread asks its filter, which does not go away meanwhile
    kRankTable = 40,        // section filters, table store, service list
    kRankActivation = 45,   // a content's activation, beside one for its program alone
    kRankContentBind = 50,  // a content binds to its program
    kRankPin = 60,          // a pin's content, thread and flags
    kRankPinMap = 70,       // changes of a pin's PID map
    kRankContent = 80,      // a content's buffer and queues
    kRankNotice = 85,       // notices about clocks to the outputs
    kRankPcr = 90,          // PCR clocks
    kRankLeaf = 100,        // lists, counters, queues: taken last, held briefly
    kRankContentRef = 110,  // the pointer to a pin's content, which is asked for under leaves too
    kRankMemory = 1100,     // blocks, which come back wherever their last user goes, under leaves of the platform too
};

}  // namespace tessel
