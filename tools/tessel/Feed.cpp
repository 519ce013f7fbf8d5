#include "tools/tessel/Feed.h"

#include <algorithm>

namespace tessel::tool {

size_t Feed::Fill(std::span<uint8_t> buffer) {
    if (!m_keep && !m_head.empty())
        return FillFromHead(buffer);
    const size_t count = m_input.Read(buffer);
    if (m_keep && count != 0 && !m_input.CanRewind())
        m_head.emplace_back(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(count));
    return count;
}

size_t Feed::FillFromHead(std::span<uint8_t> buffer) {
    const auto left = std::span(m_head.front()).subspan(m_headUsed);
    const size_t count = std::min(left.size(), buffer.size());
    std::copy_n(left.begin(), count, buffer.begin());
    m_headUsed += count;
    if (count == left.size()) {
        m_head.pop_front();
        m_headUsed = 0;
    }
    return count;
}

void Feed::Restart() {
    m_keep = false;
    if (m_input.CanRewind())
        m_input.Rewind();
}

}  // namespace tessel::tool
