// Streams of bytes with a position: ISequentialStream and IStream.
#pragma once

#include "platform/com/Unknown.h"

// Origins of IStream::Seek.
inline constexpr DWORD STREAM_SEEK_SET = 0;
inline constexpr DWORD STREAM_SEEK_CUR = 1;
inline constexpr DWORD STREAM_SEEK_END = 2;

inline constexpr DWORD STGTY_STREAM = 2;

// What IStream::Stat tells. Times count 100 ns.
struct STATSTG {
    OLECHAR* pwcsName = nullptr;
    DWORD type = 0;
    uint64_t cbSize = 0;
    uint64_t mtime = 0;
    uint64_t ctime = 0;
    uint64_t atime = 0;
    DWORD grfMode = 0;
    DWORD grfLocksSupported = 0;
    CLSID clsid = GUID_NULL;
    DWORD grfStateBits = 0;
    DWORD reserved = 0;
};

class ISequentialStream : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{0C733A30-2A1C-11CE-ADE5-00AA0044773D}");

    // read, written: how many bytes; may be null. Fewer than count are read only where the stream ends.
    virtual HRESULT Read(void* buffer, ULONG count, ULONG* read) = 0;
    virtual HRESULT Write(const void* buffer, ULONG count, ULONG* written) = 0;

protected:
    ~ISequentialStream() = default;
};

class IStream : public ISequentialStream {
public:
    static constexpr IID kIid = MakeGuid("{0000000C-0000-0000-C000-000000000046}");

    // position: where the stream stands afterwards; may be null.
    virtual HRESULT Seek(int64_t move, DWORD origin, uint64_t* position) = 0;
    virtual HRESULT SetSize(uint64_t size) = 0;
    virtual HRESULT CopyTo(IStream* stream, uint64_t count, uint64_t* read, uint64_t* written) = 0;
    virtual HRESULT Commit(DWORD flags) = 0;
    virtual HRESULT Revert() = 0;
    virtual HRESULT LockRegion(uint64_t offset, uint64_t count, DWORD type) = 0;
    virtual HRESULT UnlockRegion(uint64_t offset, uint64_t count, DWORD type) = 0;
    virtual HRESULT Stat(STATSTG* out, DWORD flags) = 0;
    virtual HRESULT Clone(IStream** out) = 0;

protected:
    ~IStream() = default;
};
