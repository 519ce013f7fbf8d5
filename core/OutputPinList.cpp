#include "core/OutputPinList.h"

#include <algorithm>

namespace tessel {

size_t COutputPinList::Count() const {
    CScopedLock lock(&m_lock);
    return m_pins.size();
}

OutputPinPtr COutputPinList::At(size_t index) const {
    CScopedLock lock(&m_lock);
    return index < m_pins.size() ? m_pins.data()[index] : nullptr;
}

OutputPinPtr COutputPinList::Find(const std::u16string& name) const {
    CScopedLock lock(&m_lock);
    const auto found =
        std::find_if(m_pins.begin(), m_pins.end(), [&name](const OutputPinPtr& pin) { return pin->Name() == name; });
    return found != m_pins.end() ? *found : nullptr;
}

COutputPins COutputPinList::All() const {
    CScopedLock lock(&m_lock);
    return m_pins;
}

std::u16string COutputPinList::NextName() {
    std::u16string name;
    CScopedLock lock(&m_lock);
    do {
        const std::string digits = std::to_string(++m_serial);
        name = u"Output" + std::u16string(digits.begin(), digits.end());
    } while (Find(name));
    return name;
}

bool COutputPinList::Add(const OutputPinPtr& pin) {
    CScopedLock lock(&m_lock);
    return m_pins.Add(pin);
}

bool COutputPinList::Remove(const CTsOutputPin* pin) {
    OutputPinPtr last;  // goes after the lock
    CScopedLock lock(&m_lock);
    const auto found =
        std::find_if(m_pins.begin(), m_pins.end(), [pin](const OutputPinPtr& other) { return other.get() == pin; });
    if (found == m_pins.end())
        return false;
    last = *found;
    m_pins.Remove(static_cast<size_t>(found - m_pins.begin()));
    return true;
}

COutputPins COutputPinList::TakeAll() {
    CScopedLock lock(&m_lock);
    m_serial = 0;
    return std::exchange(m_pins, COutputPins());
}

}  // namespace tessel
