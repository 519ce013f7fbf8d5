#include "core/SavedState.h"

#include <algorithm>
#include <cstring>

#include "platform/media/PersistStream.h"

namespace tessel {

namespace {

constexpr uint32_t kMaxNameBytes = 100;
// Every PID and a special value.
constexpr uint32_t kMaxEntries = kPidCount + 1;

HRESULT WriteNumber(IStream& stream, uint32_t value) {
    const uint8_t bytes[] = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
                             static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)};
    return WriteAll(stream, bytes, sizeof(bytes));
}

HRESULT ReadNumber(IStream& stream, uint32_t* out) {
    uint8_t bytes[4];
    const HRESULT result = ReadAll(stream, bytes, sizeof(bytes));
    *out = uint32_t{bytes[3]} << 24 | uint32_t{bytes[2]} << 16 | uint32_t{bytes[1]} << 8 | bytes[0];
    return result;
}

HRESULT WriteName(IStream& stream, const std::u16string& name) {
    std::vector<uint8_t> bytes;
    for (const char16_t unit : name + u'\0') {
        bytes.push_back(static_cast<uint8_t>(unit));
        bytes.push_back(static_cast<uint8_t>(unit >> 8));
    }
    const HRESULT result = WriteNumber(stream, static_cast<uint32_t>(bytes.size()));
    return SUCCEEDED(result) ? WriteAll(stream, bytes.data(), static_cast<ULONG>(bytes.size())) : result;
}

// A name ends at its zero, or else where its record ends.
HRESULT ReadName(IStream& stream, std::u16string* out) {
    uint32_t size = 0;
    HRESULT result = ReadNumber(stream, &size);
    if (FAILED(result) || size > kMaxNameBytes)
        return E_FAIL;
    uint8_t bytes[kMaxNameBytes];
    result = ReadAll(stream, bytes, size);
    if (FAILED(result))
        return result;
    for (uint32_t i = 0; i + 1 < size; i += 2) {
        const auto unit = static_cast<char16_t>(bytes[i + 1] << 8 | bytes[i]);
        if (unit == 0)
            break;
        out->push_back(unit);
    }
    return S_OK;
}

HRESULT ReadPin(IStream& stream, SavedPin* out) {
    uint32_t count = 0;
    HRESULT result = ReadName(stream, &out->name);
    if (SUCCEEDED(result))
        result = ReadNumber(stream, &out->contentKind);
    if (SUCCEEDED(result))
        result = ReadNumber(stream, &count);
    if (FAILED(result) || count > kMaxEntries)
        return E_FAIL;
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t entry = 0;
        result = ReadNumber(stream, &entry);
        if (FAILED(result))
            return result;
        out->entries.push_back(entry);
    }
    return S_OK;
}

}  // namespace

HRESULT WritePins(IStream& stream, const std::vector<SavedPin>& pins) {
    HRESULT result = WriteNumber(stream, static_cast<uint32_t>(pins.size()));
    for (const SavedPin& pin : pins) {
        if (SUCCEEDED(result))
            result = WriteName(stream, pin.name);
        if (SUCCEEDED(result))
            result = WriteNumber(stream, pin.contentKind);
        if (SUCCEEDED(result))
            result = WriteNumber(stream, static_cast<uint32_t>(pin.entries.size()));
        for (size_t i = 0; SUCCEEDED(result) && i < pin.entries.size(); ++i)
            result = WriteNumber(stream, pin.entries[i]);
    }
    return result;
}

HRESULT ReadPins(IStream& stream, std::vector<SavedPin>* out) {
    uint32_t count = 0;
    HRESULT result = ReadNumber(stream, &count);
    if (FAILED(result) || count > COutputPins::kMost)
        return E_FAIL;
    out->resize(count);
    for (SavedPin& pin : *out) {
        result = ReadPin(stream, &pin);
        if (FAILED(result))
            return result;
    }
    return S_OK;
}

}  // namespace tessel
