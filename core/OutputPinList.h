// The filter's output pins, in order of creation.
#pragma once

#include <algorithm>
#include <array>
#include <memory>
#include <string>

#include "Classes/MultiPlatform/GenUtilMP.h"
#include "Classes/MultiPlatform/LockRanks.h"
#include "output/TsOutputPin.h"

namespace tessel {

using OutputPinPtr = std::shared_ptr<CTsOutputPin>;

// The pins as they were at one moment. Holding them needs no memory, for a filter must be able to stop without.
class COutputPins {
public:
    static constexpr size_t kMost = 10;

    const OutputPinPtr* begin() const { return m_pins.data(); }
    const OutputPinPtr* end() const { return begin() + m_count; }
    const OutputPinPtr* data() const { return begin(); }
    size_t size() const { return m_count; }

    // False when there are as many as may be.
    bool Add(const OutputPinPtr& pin) {
        if (m_count == kMost)
            return false;
        m_pins[m_count++] = pin;
        return true;
    }
    // The others keep their order.
    void Remove(size_t index) {
        std::move(m_pins.begin() + static_cast<ptrdiff_t>(index) + 1, m_pins.begin() + static_cast<ptrdiff_t>(m_count),
                  m_pins.begin() + static_cast<ptrdiff_t>(index));
        m_pins[--m_count] = nullptr;
    }

private:
    std::array<OutputPinPtr, kMost> m_pins;
    size_t m_count = 0;
};

// Its lock is a leaf: pins are taken out under it, and ended and released outside.
class COutputPinList {
public:
    size_t Count() const;
    // Null past the end.
    OutputPinPtr At(size_t index) const;
    // By exact name; null when there is none.
    OutputPinPtr Find(const std::u16string& name) const;
    COutputPins All() const;

    // Output1, Output2, ...; no number comes twice, and none that a pin has been given by name.
    std::u16string NextName();
    // False when the list is full.
    bool Add(const OutputPinPtr& pin);
    bool Remove(const CTsOutputPin* pin);
    // Empties the list and begins to count names anew.
    COutputPins TakeAll();

private:
    mutable CCritSec m_lock{"output pins", kRankLeaf};
    COutputPins m_pins OS_GUARDED_BY(m_lock);
    int32_t m_serial OS_GUARDED_BY(m_lock) = 0;
};

}  // namespace tessel
