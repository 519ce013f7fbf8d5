// A file on disk as a stream that can be read while others still write to it.
#pragma once

#include "platform/com/ComPtr.h"
#include "platform/com/Stream.h"
#include "platform/os/File.h"
#include "source/OpenFiles.h"

namespace tessel {

// Opens a file for reading, from its beginning. Readers of one file share the open file and the cached
// blocks, and each has a position of its own.
//
// path: narrow text, taken as it is. access: GENERIC_READ. result: S_OK; E_POINTER for a null path;
// E_FAIL when the file cannot be opened; E_OUTOFMEMORY. Null unless it is S_OK.
ComPtr<IStream> OpenStreamFile(const char* path, DWORD access, HRESULT* result,
                               const CFileSystem& system = CFileSystem::System());

// Asks for the file's size at every call. Reads whole blocks at multiples of their size and keeps them.
// One thread at a time uses a reader.
class CStreamFile final : public CUnknown, public IStream {
public:
    static constexpr uint32_t kBlockSize = 0x20000;
    static constexpr uint32_t kBlockSizeCdRom = 0x8000;

    CStreamFile(OpenFiles::Reference file, uint32_t blockSize);

    DECLARE_IUNKNOWN
    HRESULT NonDelegatingQueryInterface(const IID& iid, void** out) override;

    // S_OK with fewer bytes than asked for where the file ends, with 0 behind its end. E_FAIL in front of a byte that
    // cannot be read: those before it have been read. Where there are some, the failure may come with the next call
    // only. E_POINTER for a null buffer.
    HRESULT Read(void* buffer, ULONG count, ULONG* read) override;
    // Before the beginning and behind the end it goes to the end. E_INVALIDARG: no such origin.
    HRESULT Seek(int64_t move, DWORD origin, uint64_t* position) override;
    // Type and size; all else is zero.
    HRESULT Stat(STATSTG* out, DWORD flags) override;

    HRESULT Write(const void*, ULONG, ULONG*) override { return E_FAIL; }
    HRESULT SetSize(uint64_t) override { return E_NOTIMPL; }
    HRESULT CopyTo(IStream*, uint64_t, uint64_t*, uint64_t*) override { return E_NOTIMPL; }
    HRESULT Commit(DWORD) override { return E_NOTIMPL; }
    HRESULT Revert() override { return E_NOTIMPL; }
    HRESULT LockRegion(uint64_t, uint64_t, DWORD) override { return E_NOTIMPL; }
    HRESULT UnlockRegion(uint64_t, uint64_t, DWORD) override { return E_NOTIMPL; }
    HRESULT Clone(IStream**) override { return E_NOTIMPL; }

private:
    HRESULT ReadBlocks(std::span<uint8_t> buffer, ULONG* read);

    const OpenFiles::Reference m_file;
    uint64_t m_position = 0;  // of the next byte to read
    const uint32_t m_blockSize;
};

}  // namespace tessel
