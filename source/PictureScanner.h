// What the start codes of a PES packet say about where decoding may begin, and about its pictures.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "source/StartCodes.h"

namespace tessel {

// How the places are found where a decoder can begin.
enum class AccessRule {
    kEveryStamp,  // audio, and video of which nothing else is known
    kMpeg2,       // ISO/IEC 11172-2 and 13818-2: a sequence header
    kMpeg4,       // ISO/IEC 14496-2: a header, or an intra picture
    kAvc,         // ISO/IEC 14496-10: a parameter set, an IDR picture or a recovery point before any other picture
};

inline constexpr int32_t kDefaultFrameDuration = 333'666;  // 100 ns

class CPictureScanner {
public:
    explicit CPictureScanner(AccessRule rule) : m_rule(rule) {}

    // A new PES packet begins.
    void Restart();
    void Feed(std::span<const uint8_t> payload) { m_scanner.Feed(payload, *this); }
    void Finish() { m_scanner.Finish(*this); }

    // Whether an access point begins in the PES packet. Decided: more bytes change nothing.
    bool IsAccessPoint() const { return m_accessPoint; }
    bool IsDecided() const { return m_accessPoint || m_refused; }

    // Of the pictures that kMpeg2 looks at. A field is half of a picture, one that is shown half as long again three
    // halves.
    int32_t HalfPictures() const { return m_halfPictures; }
    std::optional<int32_t> FirstTemporalReference() const { return m_temporalReference; }
    int32_t FrameDuration() const;

    // For the scanner
    size_t Wanted(uint8_t code) const;
    void OnStartCode(uint8_t code, std::span<const uint8_t> bytes);

private:
    void OnMpeg2(uint8_t code, std::span<const uint8_t> bytes);
    void OnMpeg2Extension(std::span<const uint8_t> bytes);
    void OnAvc(uint8_t code, std::span<const uint8_t> bytes);

    AccessRule m_rule;
    CStartCodeScanner m_scanner;
    bool m_accessPoint = false;
    bool m_refused = false;
    int32_t m_halfPictures = 0;
    std::optional<int32_t> m_temporalReference;
    uint32_t m_frameRateCode = 0;
    uint32_t m_frameRateExtensionN = 0;
    uint32_t m_frameRateExtensionD = 0;
};

}  // namespace tessel
