// Objects that save what they are to a stream and load it again.
#pragma once

#include <atomic>

#include "platform/com/Stream.h"

class IPersist : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{0000010C-0000-0000-C000-000000000046}");

    virtual HRESULT GetClassID(CLSID* out) = 0;

protected:
    ~IPersist() = default;
};

class IPersistStream : public IPersist {
public:
    static constexpr IID kIid = MakeGuid("{00000109-0000-0000-C000-000000000046}");

    // S_OK when something changed since the last save or load, else S_FALSE.
    virtual HRESULT IsDirty() = 0;
    virtual HRESULT Load(IStream* stream) = 0;
    virtual HRESULT Save(IStream* stream, BOOL clearDirty) = 0;
    // How many bytes a save takes at most.
    virtual HRESULT GetSizeMax(uint64_t* out) = 0;

protected:
    ~IPersistStream() = default;
};

// Puts a header in front of what a derived class saves: its version as eleven decimal digits and a
// blank, in UTF-16LE, 24 bytes. The derived class answers for IPersistStream in its own query.
class CPersistStream : public IPersistStream {
public:
    HRESULT IsDirty() override { return m_dirty ? S_OK : S_FALSE; }
    // E_FAIL when there is no whole header or it is of another version.
    HRESULT Load(IStream* stream) override;
    HRESULT Save(IStream* stream, BOOL clearDirty) override;
    HRESULT GetSizeMax(uint64_t* out) override;

    void SetDirty(bool dirty) { m_dirty = dirty; }

protected:
    ~CPersistStream() = default;

    virtual DWORD GetSoftwareVersion() = 0;
    // Bytes after the header, at most.
    virtual uint64_t SizeMax() = 0;
    virtual HRESULT ScribbleToStream(IStream* stream) = 0;
    virtual HRESULT ReadFromStream(IStream* stream) = 0;

private:
    // Set by any thread that changes what is saved; nothing else hangs on it.
    std::atomic<bool> m_dirty{false};
};

// Exactly count bytes, or E_FAIL.
HRESULT ReadAll(IStream& stream, void* buffer, ULONG count);
HRESULT WriteAll(IStream& stream, const void* buffer, ULONG count);
