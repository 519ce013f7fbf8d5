// The platform's description of audio samples.
#pragma once

#include <cstdint>

inline constexpr uint16_t WAVE_FORMAT_PCM = 1;

// 18 bytes in the platform's layout; what the compiler puts behind cbSize is not part of it.
struct WAVEFORMATEX {
    uint16_t wFormatTag = 0;
    uint16_t nChannels = 0;
    uint32_t nSamplesPerSec = 0;
    uint32_t nAvgBytesPerSec = 0;
    uint16_t nBlockAlign = 0;
    uint16_t wBitsPerSample = 0;
    uint16_t cbSize = 0;  // bytes that follow the record
};
