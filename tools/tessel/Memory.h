// What the tool does when memory is out.
#pragma once

namespace tessel::tool {

// At the beginning: notes from here on when an allocation fails.
void WatchMemory();
// Whether one has failed, even if somebody coped with it: what came out may be less than all.
bool RanOutOfMemory();

// While one lives, an allocation of this thread that fails is met from memory that was put aside, once. JSON values
// need one: their destructors allocate, and what fails there would end the program.
class SpareMemory {
public:
    SpareMemory();
    ~SpareMemory();
    SpareMemory(const SpareMemory&) = delete;
    SpareMemory& operator=(const SpareMemory&) = delete;
};

}  // namespace tessel::tool
