#include "source/StreamFile.h"

#include <algorithm>
#include <new>

namespace tessel {

static_assert(CStreamFile::kBlockSize <= CMemoryCache::kFrameSize);

namespace {

HRESULT Open(const char* path, DWORD access, const CFileSystem& system, ComPtr<IStream>* out) {
    try {
        std::unique_ptr<CFile> opened = system.Open(path, access);
        if (!opened)
            return E_FAIL;
        const uint32_t blockSize =
            opened->GetDriveType() == DRIVE_CDROM ? CStreamFile::kBlockSizeCdRom : CStreamFile::kBlockSize;
        *out = ComPtr<IStream>(new CStreamFile(OpenFiles::Instance().Attach(path, std::move(opened)), blockSize));
        return S_OK;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
}

}  // namespace

ComPtr<IStream> OpenStreamFile(const char* path, DWORD access, HRESULT* result, const CFileSystem& system) {
    ComPtr<IStream> stream;
    *result = path == nullptr ? E_POINTER : Open(path, access, system, &stream);
    return stream;
}

CStreamFile::CStreamFile(OpenFiles::Reference file, uint32_t blockSize)
    : CUnknown("CStreamFile", nullptr), m_file(std::move(file)), m_blockSize(blockSize) {}

HRESULT CStreamFile::NonDelegatingQueryInterface(const IID& iid, void** out) {
    if (out != nullptr && iid == IStream::kIid)
        return GetInterface<IStream>(this, out);
    return CUnknown::NonDelegatingQueryInterface(iid, out);
}

HRESULT CStreamFile::Read(void* buffer, ULONG count, ULONG* read) {
    ULONG ignored = 0;
    ULONG& done = read != nullptr ? *read : ignored;
    done = 0;
    if (buffer == nullptr)
        return E_POINTER;
    return ReadBlocks({static_cast<uint8_t*>(buffer), count}, &done);
}

HRESULT CStreamFile::ReadBlocks(std::span<uint8_t> buffer, ULONG* read) {
    const int64_t now = OpenFiles::Instance().GetSize(*m_file);
    if (now < 0)
        return E_FAIL;
    const auto size = static_cast<uint64_t>(now);
    // Nothing is left when the file has become shorter than the position.
    buffer = buffer.first(std::min<uint64_t>(buffer.size(), size - std::min(m_position, size)));
    while (!buffer.empty()) {
        const auto inBlock = static_cast<uint32_t>(m_position % m_blockSize);
        const uint64_t start = m_position - inBlock;
        const auto length = static_cast<uint32_t>(std::min<uint64_t>(m_blockSize, size - start));
        const OpenFiles::Block block = OpenFiles::Instance().ReadBlock(*m_file, start, length, inBlock, buffer);
        if (FAILED(block.result))
            return block.result;
        buffer = buffer.subspan(block.copied);
        m_position += block.copied;
        *read += block.copied;
        if (block.valid < m_blockSize)
            break;  // the end of the file, wherever it is by now; or what comes next cannot be read, which is told then
    }
    return S_OK;
}

HRESULT CStreamFile::Seek(int64_t move, DWORD origin, uint64_t* position) {
    const int64_t now = OpenFiles::Instance().GetSize(*m_file);
    if (now < 0)
        return E_FAIL;
    const auto size = static_cast<uint64_t>(now);
    uint64_t from = 0;
    switch (origin) {
    case STREAM_SEEK_SET:
        break;
    case STREAM_SEEK_CUR:
        from = m_position;
        break;
    case STREAM_SEEK_END:
        from = size;
        break;
    default:
        return E_INVALIDARG;
    }
    // What would be negative is a very great number here.
    m_position = std::min(from + static_cast<uint64_t>(move), size);
    if (position != nullptr)
        *position = m_position;
    return S_OK;
}

HRESULT CStreamFile::Stat(STATSTG* out, DWORD) {
    if (out == nullptr)
        return E_POINTER;
    *out = {};
    const int64_t size = OpenFiles::Instance().GetSize(*m_file);
    if (size < 0)
        return E_FAIL;
    out->type = STGTY_STREAM;
    out->cbSize = static_cast<uint64_t>(size);
    return S_OK;
}

}  // namespace tessel
