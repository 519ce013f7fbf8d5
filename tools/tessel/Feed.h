// The bytes of an input, which can be had twice: a file is read again, of a pipe the head is kept.
#pragma once

#include <deque>
#include <span>
#include <vector>

#include "tools/tessel/Files.h"

namespace tessel::tool {

class Feed {
public:
    explicit Feed(InputFile& input) : m_input(input) {}

    // The number of bytes put into buffer; 0 at the end, or once interrupted. What was kept comes out first.
    size_t Fill(std::span<uint8_t> buffer);
    // From the first byte again, and for the last time.
    void Restart();
    const InputFile& Input() const { return m_input; }

private:
    size_t FillFromHead(std::span<uint8_t> buffer);

    InputFile& m_input;
    bool m_keep = true;
    std::deque<std::vector<uint8_t>> m_head;
    size_t m_headUsed = 0;  // of its first block
};

}  // namespace tessel::tool
