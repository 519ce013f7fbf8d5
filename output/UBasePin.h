// What the product adds to the platform's pins: a lock, and a check of media types that may come back to itself.
#pragma once

#include <atomic>
#include <utility>

#include "Classes/MultiPlatform/GenUtilMP.h"
#include "Classes/MultiPlatform/LockRanks.h"
#include "platform/media/BasePin.h"

namespace tessel {

template <class Base>
class CUBasePin : public Base {
public:
    // While a check runs, the same thread's further ones pass: the first one decides.
    HRESULT CheckMediaType(const AM_MEDIA_TYPE* type) override {
        if (type == nullptr)
            return E_POINTER;
        CScopedLock lock(&m_pinLock);
        if (m_checking)
            return S_OK;
        m_checking = true;
        const HRESULT result = Impl_CheckMediaType(*type);
        m_checking = false;
        return result;
    }

protected:
    template <class... Arguments>
    explicit CUBasePin(Arguments&&... arguments) : Base(std::forward<Arguments>(arguments)...) {}

    virtual HRESULT Impl_CheckMediaType(const AM_MEDIA_TYPE& type) = 0;

    // Guards the pin's content and thread while they change.
    CCritSec m_pinLock{"pin", kRankPin};

private:
    bool m_checking OS_GUARDED_BY(m_pinLock) = false;
};

}  // namespace tessel
