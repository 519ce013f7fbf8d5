// The filter's output pins, in order of creation.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Classes/MultiPlatform/GenUtilMP.h"
#include "Classes/MultiPlatform/LockRanks.h"
#include "output/TsOutputPin.h"

namespace tessel {

using OutputPinPtr = std::shared_ptr<CTsOutputPin>;

// Its lock is a leaf: pins are taken out under it, and ended and released outside.
class COutputPinList {
public:
    static constexpr size_t kMaxPins = 10;

    size_t Count() const;
    // Null past the end.
    OutputPinPtr At(size_t index) const;
    // By exact name; null when there is none.
    OutputPinPtr Find(const std::u16string& name) const;
    std::vector<OutputPinPtr> All() const;

    // Output1, Output2, ...; no number comes twice, and none that a pin has been given by name.
    std::u16string NextName();
    // False when the list is full.
    bool Add(const OutputPinPtr& pin);
    bool Remove(const CTsOutputPin* pin);
    // Empties the list and begins to count names anew.
    std::vector<OutputPinPtr> TakeAll();

private:
    mutable CCritSec m_lock{"output pins", kRankLeaf};
    std::vector<OutputPinPtr> m_pins OS_GUARDED_BY(m_lock);
    int32_t m_serial OS_GUARDED_BY(m_lock) = 0;
};

}  // namespace tessel
