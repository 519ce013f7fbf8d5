// What every descriptor class is made of.
//
// A descriptor is made, parsed once and then only read, so readers need no lock.
#pragma once

#include <span>
#include <vector>

#include "descriptors/DescriptorBytes.h"
#include "descriptors/DescriptorInterfaces.h"
#include "platform/com/Unknown.h"
#include "services/objects/Parameters.h"

namespace tessel {

// For getters that skip a null out pointer.
template <class T>
HRESULT WriteIfAsked(T* out, T value) {
    if (out != nullptr)
        *out = value;
    return S_OK;
}

// For getters that refuse one.
template <class T>
HRESULT WriteValue(T* out, T value) {
    return out != nullptr ? WriteIfAsked(out, value) : E_POINTER;
}

// A descriptor whatever its interface.
class DescriptorBase : public CUnknown, public IGetSetCOMParamImpl, public IDescriptorBytes {
public:
    DECLARE_IUNKNOWN

    // Reads the bytes after tag and length: S_OK, or an error that says to discard the object.
    // Throws std::bad_alloc only.
    virtual HRESULT Parse(std::span<const uint8_t> payload) = 0;
    // Once, with what was parsed. Throws std::bad_alloc only.
    void KeepBytes(std::span<const uint8_t> payload) { m_bytes.assign(payload.begin(), payload.end()); }
    std::span<const uint8_t> Bytes() const override { return m_bytes; }

protected:
    explicit DescriptorBase(const char* name) : CUnknown(name, nullptr) {}

private:
    std::vector<uint8_t> m_bytes;
};

// The part of IDvbDescriptor in an interface I that is or derives from it.
template <class I>
class IDvbDescriptorImpl : public I {
public:
    HRESULT GetTag(uint32_t* out) override { return WriteIfAsked(out, m_tag); }

protected:
    explicit IDvbDescriptorImpl(uint32_t tag) : m_tag(tag) {}

private:
    const uint32_t m_tag;
};

// A descriptor that answers I, IDvbDescriptor and the parameter interfaces.
template <class I>
class Descriptor : public DescriptorBase, public IDvbDescriptorImpl<I> {
public:
    DECLARE_IUNKNOWN

    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override {
        if (out != nullptr) {
            if (iid == I::kIid || iid == IDvbDescriptor::kIid)
                return GetInterface<I>(this, out);
            if (IsParameterInterface(iid))
                return GetInterface<IGetSetCOMParam>(this, out);
            if (iid == IDescriptorBytes::kIid)
                return GetInterface<IDescriptorBytes>(this, out);
        }
        return CUnknown::NonDelegatingQueryInterface(iid, out);
    }

protected:
    Descriptor(const char* name, uint8_t descriptorTag) : DescriptorBase(name), IDvbDescriptorImpl<I>(descriptorTag) {}
};

}  // namespace tessel
