#include "platform/media/PersistStream.h"

#include <array>

namespace {

constexpr size_t kDigits = 11;
using Header = std::array<uint8_t, 2 * (kDigits + 1)>;

Header MakeHeader(DWORD version) {
    Header header{};
    header[2 * kDigits] = ' ';
    for (size_t i = kDigits; i-- > 0; version /= 10)
        header[2 * i] = static_cast<uint8_t>('0' + version % 10);
    return header;
}

}  // namespace

HRESULT CPersistStream::Load(IStream* stream) {
    if (stream == nullptr)
        return E_POINTER;
    Header header;
    const HRESULT result = ReadAll(*stream, header.data(), header.size());
    if (FAILED(result))
        return result;
    // Each version has one spelling, so there is nothing to parse.
    if (header != MakeHeader(GetSoftwareVersion()))
        return E_FAIL;
    return ReadFromStream(stream);
}

HRESULT CPersistStream::Save(IStream* stream, BOOL clearDirty) {
    if (stream == nullptr)
        return E_POINTER;
    const Header header = MakeHeader(GetSoftwareVersion());
    HRESULT result = WriteAll(*stream, header.data(), header.size());
    if (SUCCEEDED(result))
        result = ScribbleToStream(stream);
    if (SUCCEEDED(result) && clearDirty)
        m_dirty = false;
    return result;
}

HRESULT CPersistStream::GetSizeMax(uint64_t* out) {
    if (out == nullptr)
        return E_POINTER;
    *out = sizeof(Header) + SizeMax();
    return S_OK;
}

HRESULT ReadAll(IStream& stream, void* buffer, ULONG count) {
    ULONG read = 0;
    const HRESULT result = stream.Read(buffer, count, &read);
    if (FAILED(result))
        return result;
    return read == count ? S_OK : E_FAIL;
}

HRESULT WriteAll(IStream& stream, const void* buffer, ULONG count) {
    ULONG written = 0;
    const HRESULT result = stream.Write(buffer, count, &written);
    if (FAILED(result))
        return result;
    return written == count ? S_OK : E_FAIL;
}
