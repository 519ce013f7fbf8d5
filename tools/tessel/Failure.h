// What ends a command early.
#pragma once

#include <stdexcept>

namespace tessel::tool {

// kInterrupted: as shells count a process that SIGINT has ended.
enum ExitCode { kDone = 0, kCouldNot = 1, kWrongUse = 2, kInterrupted = 130 };

// Could not be done: the text says what, where, and what to do about it.
class Failure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Asked for something that makes no sense.
class Misuse : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Whoever reads our output has gone: nothing is left to do, and nothing to say.
class OutputClosed {};

}  // namespace tessel::tool
