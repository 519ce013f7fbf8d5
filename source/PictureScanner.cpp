#include "source/PictureScanner.h"

#include "Classes/MultiPlatform/ByteReader.h"

namespace tessel {

namespace {

// ISO/IEC 13818-2 table 6-1.
constexpr uint8_t kPicture = 0x00;
constexpr uint8_t kSequenceHeader = 0xB3;
constexpr uint8_t kExtension = 0xB5;
constexpr uint8_t kSequenceExtension = 1;
constexpr uint8_t kPictureCodingExtension = 8;
constexpr uint8_t kFramePicture = 3;

// ISO/IEC 14496-2 table 6-3.
constexpr uint8_t kFirstVideoObjectLayer = 0x20;
constexpr uint8_t kLastVideoObjectLayer = 0x2F;
constexpr uint8_t kVisualObjectSequence = 0xB0;
constexpr uint8_t kGroupOfVop = 0xB3;
constexpr uint8_t kVop = 0xB6;

// ISO/IEC 14496-10 table 7-1 and clause D.1.
constexpr uint8_t kSlice = 1;
constexpr uint8_t kLastPartition = 4;
constexpr uint8_t kIdrSlice = 5;
constexpr uint8_t kSei = 6;
constexpr uint8_t kSequenceParameterSet = 7;
constexpr uint32_t kRecoveryPoint = 6;

struct FrameRate {
    int64_t numerator;
    int64_t denominator;
};

// ISO/IEC 13818-2 table 6-4.
constexpr FrameRate kFrameRates[] = {{24'000, 1001}, {24, 1}, {25, 1},        {30'000, 1001},
                                     {30, 1},        {50, 1}, {60'000, 1001}, {60, 1}};

// A sum of bytes, all but the last of them 0xFF.
uint32_t ReadSeiNumber(ByteReader& reader) {
    uint32_t number = 0;
    uint8_t byte = 0xFF;
    while (byte == 0xFF && reader.Remaining() > 0) {
        byte = reader.U8();
        number += byte;
    }
    return number;
}

bool HasRecoveryPoint(std::span<const uint8_t> sei) {
    ByteReader reader(sei);
    while (reader.Remaining() > 1) {
        const uint32_t type = ReadSeiNumber(reader);
        const uint32_t size = ReadSeiNumber(reader);
        if (type == kRecoveryPoint)
            return true;
        reader.Skip(size);
    }
    return false;
}

}  // namespace

void CPictureScanner::Restart() {
    *this = CPictureScanner(m_rule);
    m_accessPoint = m_rule == AccessRule::kEveryStamp;
}

int32_t CPictureScanner::FrameDuration() const {
    if (m_frameRateCode < 1 || m_frameRateCode > std::size(kFrameRates))
        return kDefaultFrameDuration;
    const FrameRate rate = kFrameRates[m_frameRateCode - 1];
    return static_cast<int32_t>(10'000'000 * rate.denominator * (m_frameRateExtensionD + 1) /
                                (rate.numerator * (m_frameRateExtensionN + 1)));
}

size_t CPictureScanner::Wanted(uint8_t code) const {
    switch (m_rule) {
    case AccessRule::kMpeg2:
        return code == kPicture ? 2 : code == kSequenceHeader ? 4 : code == kExtension ? 6 : 0;
    case AccessRule::kMpeg4:
        return code == kVop ? 1 : 0;
    case AccessRule::kAvc:
        return (code & 0x1F) == kSei ? CStartCodeScanner::kMostBytes : 0;
    case AccessRule::kEveryStamp:
        break;
    }
    return 0;
}

void CPictureScanner::OnStartCode(uint8_t code, std::span<const uint8_t> bytes) {
    switch (m_rule) {
    case AccessRule::kMpeg2:
        OnMpeg2(code, bytes);
        break;
    case AccessRule::kMpeg4:
        m_accessPoint |= code == kVisualObjectSequence || code == kGroupOfVop ||
                         (code >= kFirstVideoObjectLayer && code <= kLastVideoObjectLayer) ||
                         (code == kVop && !bytes.empty() && bytes[0] >> 6 == 0);
        break;
    case AccessRule::kAvc:
        OnAvc(code & 0x1F, bytes);
        break;
    case AccessRule::kEveryStamp:
        break;
    }
}

void CPictureScanner::OnMpeg2(uint8_t code, std::span<const uint8_t> bytes) {
    if (code == kPicture && bytes.size() >= 2) {
        if (!m_temporalReference)
            m_temporalReference = bytes[0] << 2 | bytes[1] >> 6;
        m_halfPictures += 2;
    } else if (code == kSequenceHeader && bytes.size() >= 4) {
        m_accessPoint = true;
        m_frameRateCode = bytes[3] & 0x0F;
        m_frameRateExtensionN = m_frameRateExtensionD = 0;
    } else if (code == kExtension) {
        OnMpeg2Extension(bytes);
    }
}

void CPictureScanner::OnMpeg2Extension(std::span<const uint8_t> bytes) {
    if (bytes.size() < 6)
        return;
    if (bytes[0] >> 4 == kSequenceExtension) {
        m_frameRateExtensionN = bytes[5] >> 5 & 3;
        m_frameRateExtensionD = bytes[5] & 0x1F;
    } else if (bytes[0] >> 4 == kPictureCodingExtension && m_halfPictures >= 2) {
        if ((bytes[2] & 3) != kFramePicture)
            m_halfPictures -= 1;
        else if ((bytes[3] & 2) != 0)
            m_halfPictures += 1;  // repeat_first_field
    }
}

void CPictureScanner::OnAvc(uint8_t type, std::span<const uint8_t> bytes) {
    if (IsDecided())
        return;
    m_refused = type >= kSlice && type <= kLastPartition;
    m_accessPoint = type == kIdrSlice || type == kSequenceParameterSet || (type == kSei && HasRecoveryPoint(bytes));
}

}  // namespace tessel
