// Packet payloads of one PID, with any flags, as the section filter gets them.
//
// The input begins with the PID (one of those that tables are tied to, or a private one). Records follow: flags, a size
// and a payload. Of the flags, bits 0 to 3 are added to the counter that would be right, bit 6 is the discontinuity
// indicator, bit 7 the unit start indicator.
#include <algorithm>
#include <vector>

#include "Classes/MultiPlatform/ByteReader.h"
#include "fuzz/FuzzSupport.h"
#include "tables/SectionFilter.h"
#include "tests/support/SectionBuilder.h"

namespace tessel {
namespace {

constexpr uint16_t kPids[] = {0x0000, 0x0001, 0x0010, 0x0011, 0x0012, 0x1FFB, 0x0100};
constexpr size_t kMaxSection = 3 + 4095;
constexpr uint8_t kPrivateTable = 0x80;
constexpr uint8_t kDiscontinuityInformationTable = 0x71;

class Assembly {
public:
    explicit Assembly(uint16_t pid) : m_filter(pid) {}

    // The section that the payload completes.
    std::vector<uint8_t> Feed(std::span<const uint8_t> bytes, uint8_t flags) {
        const std::vector<uint8_t> payload(bytes.begin(), bytes.end());
        m_counter = (m_counter + 1 + (flags & 0x0F)) & 0x0F;
        const bool unitStart = (flags & 0x80) != 0;
        const HRESULT result = m_filter.AssembleSection(payload.data(), static_cast<int32_t>(payload.size()), unitStart,
                                                        (flags & 0x40) != 0, m_counter);
        const auto completed = m_filter.TakeCompleted();
        Require(m_filter.TakeCompleted().empty());
        const bool overrun = payload.empty() || (unitStart && payload[0] > payload.size() - 1);
        Require(result == S_OK || (result == E_FAIL && overrun && completed.empty()));
        Require(completed.empty() || unitStart);
        return {completed.begin(), completed.end()};
    }

private:
    SectionFilter m_filter;
    uint8_t m_counter = 0;
};

void Check(const std::vector<uint8_t>& section) {
    if (section.empty())
        return;
    Require(section.size() >= 3 && section.size() <= kMaxSection);
    Require(section.size() == 3u + ((section[1] & 0x0Fu) << 8 | section[2]));
    Require((section[1] & 0x80) == 0 || section[0] == kDiscontinuityInformationTable || build::Crc32(section) == 0);
}

// Whatever came before, a section that is repeated comes through.
void RequireGoodSection(Assembly& assembly) {
    static const build::Bytes section = build::LongSection(kPrivateTable, 1, build::Text("good"));
    static const build::Bytes payload = build::Join({{0}, section, build::Bytes(160, 0xFF)});
    bool found = false;
    for (int times = 0; times < 5; ++times)
        found = assembly.Feed(payload, 0x80) == section || found;
    Require(found);
}

}  // namespace
}  // namespace tessel

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace tessel;
    ByteReader reader({data, size});
    Assembly assembly(kPids[reader.U8() % std::size(kPids)]);
    while (reader.Remaining() > 1) {
        const uint8_t flags = reader.U8();
        const size_t length = std::min<size_t>(reader.U8(), 184);
        Check(assembly.Feed(reader.TakeUpTo(length), flags));
    }
    RequireGoodSection(assembly);
    return 0;
}
