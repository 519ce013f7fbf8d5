#include "samples/Subtitles.h"

#include <algorithm>
#include <array>
#include <stdexcept>

namespace tessel::sample {

namespace {

using build::BitWriter;

constexpr uint8_t kRegion = 0;
constexpr uint8_t kClut = 0;
constexpr uint16_t kObject = 0;
constexpr unsigned kScale = 6;  // pixels and lines for a dot of a letter
constexpr unsigned kBackground = 1;
constexpr unsigned kForeground = 2;
constexpr unsigned kRows = 7;

using Letter = std::array<std::string_view, kRows>;

const Letter& LetterOf(char character) {
    static constexpr Letter kE = {"#####", "#....", "#....", "####.", "#....", "#....", "#####"};
    static constexpr Letter kL = {"#....", "#....", "#....", "#....", "#....", "#....", "#####"};
    static constexpr Letter kS = {".####", "#....", "#....", ".###.", "....#", "....#", "####."};
    static constexpr Letter kT = {"#####", "..#..", "..#..", "..#..", "..#..", "..#..", "..#.."};
    switch (character) {
    case 'E':
        return kE;
    case 'L':
        return kL;
    case 'S':
        return kS;
    case 'T':
        return kT;
    default:
        throw std::invalid_argument("no such letter");
    }
}

// EN 300 743, 7.2.
Bytes Segment(uint8_t type, const Bytes& data) {
    return BitWriter().Put(0x0F, 8).Put(type, 8).Put(kSubtitlePage, 16).Put(data.size(), 16).Put(data).bytes();
}

// EN 300 743, 7.2.5.2, the 2-bit/pixel_code_string. Colours are not 0 here, so a single pixel is its colour.
void PutRun(BitWriter& out, unsigned colour, unsigned count) {
    while (count > 0) {
        unsigned run = 1;
        if (count >= 29) {
            run = std::min(count, 284u);
            out.Put(0b000011, 6).Put(run - 29, 8);
        } else if (count >= 12) {
            run = std::min(count, 27u);
            out.Put(0b000010, 6).Put(run - 12, 4);
        } else if (count >= 3) {
            run = std::min(count, 10u);
            out.Put(0b001, 3).Put(run - 3, 3);
        }
        out.Put(colour, 2);
        count -= run;
    }
}

Bytes PixelLine(std::string_view word, unsigned row) {
    BitWriter out;
    out.Put(0x10, 8);
    for (const char character : word) {
        for (const char dot : LetterOf(character)[row])
            PutRun(out, dot == '#' ? kForeground : kBackground, kScale);
        PutRun(out, kBackground, kScale);
    }
    out.Put(0, 6).Align();            // end of the string
    return out.Put(0xF0, 8).bytes();  // end of the line
}

Bytes PageComposition(unsigned version, bool shown) {
    enum : unsigned { kNormalCase = 0, kModeChange = 2 };
    BitWriter out;
    out.Put(5, 8).Put(version, 4).Put(shown ? kModeChange : kNormalCase, 2).Put(3, 2);  // gone after 5 s
    if (shown)
        out.Put(kRegion, 8).Put(0xFF, 8).Put(240, 16).Put(480, 16);
    return Segment(0x10, out.bytes());
}

Bytes DisplaySet(const std::vector<Bytes>& segments) {
    return build::Join({{0x20, 0x00}, build::Join(segments), Segment(0x80, {}), {0xFF}});
}

}  // namespace

Bytes SubtitleShow(unsigned version, std::string_view word) {
    const auto width = static_cast<unsigned>(word.size()) * 6 * kScale;
    BitWriter region;
    region.Put(kRegion, 8).Put(version, 4).Put(1, 1).Put(7, 3).Put(width, 16).Put(kRows * kScale, 16);
    region.Put(1, 3).Put(1, 3).Put(3, 2).Put(kClut, 8);  // two bits a pixel
    region.Put(0, 8).Put(0, 4).Put(kBackground, 2).Put(3, 2);
    region.Put(kObject, 16).Put(0, 2).Put(0, 2).Put(0, 12).Put(15, 4).Put(0, 12);

    struct Colour {
        unsigned entry, y, cr, cb, transparency;
    };
    BitWriter clut;
    clut.Put(kClut, 8).Put(version, 4).Put(15, 4);
    for (const Colour& colour : {Colour{kBackground, 16, 128, 128, 64}, Colour{kForeground, 235, 128, 128, 0}}) {
        clut.Put(colour.entry, 8).Put(0b100, 3).Put(15, 4).Put(1, 1);
        clut.Put(colour.y, 8).Put(colour.cr, 8).Put(colour.cb, 8).Put(colour.transparency, 8);
    }

    // A dot is an even number of lines high, so that both fields hold the same and are sent once.
    static_assert(kScale % 2 == 0);
    std::vector<Bytes> lines;
    for (unsigned line = 0; line < kRows * kScale / 2; ++line)
        lines.push_back(PixelLine(word, line / (kScale / 2)));
    const Bytes pixels = build::Join(lines);
    BitWriter object;
    object.Put(kObject, 16).Put(version, 4).Put(0, 2).Put(0, 1).Put(1, 1);
    object.Put(pixels.size(), 16).Put(0, 16).Put(pixels);
    if (pixels.size() % 2 == 0)  // the segment data is a whole number of words
        object.Put(0, 8);

    return DisplaySet({PageComposition(version, true), Segment(0x11, region.bytes()), Segment(0x12, clut.bytes()),
                       Segment(0x13, object.bytes())});
}

Bytes SubtitleHide(unsigned version) {
    return DisplaySet({PageComposition(version, false)});
}

}  // namespace tessel::sample
