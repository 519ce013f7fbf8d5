// Reference-counted objects that answer for their interfaces: IUnknown and the base class CUnknown.
//
// An interface derives from IUnknown and carries its identifier as the static member kIid.
// An object class derives from CUnknown and from its interfaces, puts DECLARE_IUNKNOWN in its public
// part, and overrides NonDelegatingQueryInterface to answer for its own interfaces.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/com/Guid.h"
#include "platform/com/Result.h"

class IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{00000000-0000-0000-C000-000000000046}");

    // Writes a new reference, or null and E_NOINTERFACE. A null out pointer gives E_POINTER.
    virtual HRESULT QueryInterface(const IID& iid, void** out) = 0;
    virtual ULONG AddRef() = 0;
    virtual ULONG Release() = 0;

protected:
    ~IUnknown() = default;
};

// Base of every object: the reference count (0 at birth: the maker adds the first reference before
// anyone else sees the object), aggregation, a debug name, and the count of living objects.
class CUnknown {
public:
    // name: a string literal, the class name. outer: the controlling object when aggregated, else null.
    CUnknown(const char* name, IUnknown* outer);
    virtual ~CUnknown();

    CUnknown(const CUnknown&) = delete;
    CUnknown& operator=(const CUnknown&) = delete;

    // Answers IUnknown; derived classes answer for their own interfaces first and then call this.
    virtual HRESULT NonDelegatingQueryInterface(const IID& iid, void** out);
    virtual ULONG NonDelegatingAddRef();
    virtual ULONG NonDelegatingRelease();
    // Takes back a reference that the maker held for a while: the object lives, with a count of 0 as at birth.
    virtual void ForgetReference() { m_references.fetch_sub(1, std::memory_order_relaxed); }

    // The object that outsiders count references on: the aggregating one, else this one's own IUnknown.
    IUnknown* GetOwner() const { return m_owner; }
    const char* DebugName() const { return m_name; }

    // Objects alive in this process; tests compare it before and after.
    static int32_t ObjectsActive();

protected:
    // What NonDelegatingQueryInterface does with an interface that it has.
    template <class I>
    static HRESULT GetInterface(I* object, void** out) {
        object->AddRef();
        *out = object;
        return S_OK;
    }

private:
    // The object's own IUnknown: never delegates, so that an aggregating object can hold it.
    class Inner final : public IUnknown {
    public:
        explicit Inner(CUnknown& self) : m_self(self) {}
        HRESULT QueryInterface(const IID& iid, void** out) override {
            return m_self.NonDelegatingQueryInterface(iid, out);
        }
        ULONG AddRef() override { return m_self.NonDelegatingAddRef(); }
        ULONG Release() override { return m_self.NonDelegatingRelease(); }

    private:
        CUnknown& m_self;
    };

    std::atomic<int32_t> m_references{0};
    const char* const m_name;
    Inner m_inner;
    IUnknown* const m_owner;
};

// Routes the IUnknown of every interface that a class inherits to its owner.
#define DECLARE_IUNKNOWN                                          \
    HRESULT QueryInterface(const IID& iid, void** out) override { \
        return GetOwner()->QueryInterface(iid, out);              \
    }                                                             \
    ULONG AddRef() override {                                     \
        return GetOwner()->AddRef();                              \
    }                                                             \
    ULONG Release() override {                                    \
        return GetOwner()->Release();                             \
    }
