#include "platform/com/Unknown.h"

namespace {

std::atomic<int32_t> g_objectsActive{0};

}  // namespace

CUnknown::CUnknown(const char* name, IUnknown* outer)
    : m_name(name), m_inner(*this), m_owner(outer != nullptr ? outer : &m_inner) {
    g_objectsActive.fetch_add(1, std::memory_order_relaxed);
}

CUnknown::~CUnknown() {
    g_objectsActive.fetch_sub(1, std::memory_order_relaxed);
}

HRESULT CUnknown::NonDelegatingQueryInterface(const IID& iid, void** out) {
    if (out == nullptr)
        return E_POINTER;
    *out = nullptr;
    if (iid != IUnknown::kIid)
        return E_NOINTERFACE;
    return GetInterface<IUnknown>(&m_inner, out);
}

ULONG CUnknown::NonDelegatingAddRef() {
    return static_cast<ULONG>(m_references.fetch_add(1, std::memory_order_relaxed) + 1);
}

ULONG CUnknown::NonDelegatingRelease() {
    const int32_t left = m_references.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left > 0)
        return static_cast<ULONG>(left);
    // A destructor that hands this object out for a moment must not delete it a second time.
    m_references.store(1, std::memory_order_relaxed);
    delete this;
    return 0;
}

int32_t CUnknown::ObjectsActive() {
    return g_objectsActive.load(std::memory_order_relaxed);
}
