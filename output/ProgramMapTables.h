// The current program map tables by program_number, as they were at one time.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "platform/com/ComPtr.h"
#include "services/objects/TableInterfaces.h"

namespace tessel {

// It never changes: a change makes another one. Since a stream may have tens of thousands of programs, whose tables
// come one by one, the two share all but the page that the change is in.
class ProgramMapTables {
public:
    using Table = ComPtr<IDvbProgramMapTable>;

    // These tables, but for that of programNumber (16 bits): table, or none when that is null.
    std::shared_ptr<const ProgramMapTables> With(uint32_t programNumber, Table table) const {
        auto changed = std::make_shared<ProgramMapTables>(*this);
        auto& shared = changed->m_pages[PageOf(programNumber)];
        auto page = shared ? std::make_shared<Page>(*shared) : std::make_shared<Page>();
        const auto at = LowerBound(*page, programNumber);
        const auto position = page->begin() + (at - page->cbegin());
        if (at != page->cend() && at->first == programNumber)
            page->erase(position);
        if (table)
            page->emplace(page->begin() + (LowerBound(*page, programNumber) - page->cbegin()), programNumber,
                          std::move(table));
        shared = page->empty() ? nullptr : std::move(page);
        return changed;
    }
    // Null when the program has none.
    Table Find(uint32_t programNumber) const {
        const auto& page = m_pages[PageOf(programNumber)];
        if (!page)
            return {};
        const auto at = LowerBound(*page, programNumber);
        return at != page->cend() && at->first == programNumber ? at->second : Table();
    }
    bool IsEmpty() const {
        return std::none_of(m_pages.begin(), m_pages.end(), [](const auto& page) { return page != nullptr; });
    }
    // Calls visit(program_number, IDvbProgramMapTable&) in order of the numbers.
    template <class Visit>
    void ForEach(Visit visit) const {
        for (const auto& page : m_pages)
            if (page)
                for (const auto& [number, table] : *page)
                    visit(number, *table.Get());
    }

private:
    using Page = std::vector<std::pair<uint32_t, Table>>;  // in order

    static constexpr size_t kPages = 256;

    static size_t PageOf(uint32_t programNumber) { return programNumber / kPages % kPages; }
    static Page::const_iterator LowerBound(const Page& page, uint32_t programNumber) {
        return std::lower_bound(page.begin(), page.end(), programNumber,
                                [](const auto& entry, uint32_t number) { return entry.first < number; });
    }

    std::array<std::shared_ptr<const Page>, kPages> m_pages;
};

}  // namespace tessel
