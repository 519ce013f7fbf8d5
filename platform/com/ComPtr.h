// A counted reference to an interface.
#pragma once

#include <utility>

#include "platform/com/Unknown.h"

template <class I>
class ComPtr {
public:
    ComPtr() = default;
    ComPtr(std::nullptr_t) {}
    explicit ComPtr(I* object) : m_object(object) {
        if (m_object != nullptr)
            m_object->AddRef();
    }
    ComPtr(const ComPtr& other) : ComPtr(other.m_object) {}
    ComPtr(ComPtr&& other) noexcept : m_object(std::exchange(other.m_object, nullptr)) {}
    ~ComPtr() { Reset(); }

    ComPtr& operator=(ComPtr other) noexcept {
        std::swap(m_object, other.m_object);
        return *this;
    }

    I* Get() const { return m_object; }
    I* operator->() const { return m_object; }
    I& operator*() const { return *m_object; }
    explicit operator bool() const { return m_object != nullptr; }

    void Reset() {
        if (I* object = std::exchange(m_object, nullptr))
            object->Release();
    }

    // For a call that writes a new reference.
    I** Put() {
        Reset();
        return &m_object;
    }

    // Gives the reference away.
    I* Detach() { return std::exchange(m_object, nullptr); }

    // Another interface of the same object; null when it has none.
    template <class J>
    ComPtr<J> As() const {
        ComPtr<J> other;
        if (m_object != nullptr)
            m_object->QueryInterface(J::kIid, reinterpret_cast<void**>(other.Put()));
        return other;
    }

private:
    I* m_object = nullptr;
};
