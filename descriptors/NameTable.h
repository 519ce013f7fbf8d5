// The display names of numeric codes.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace tessel {

class NameTable {
public:
    struct Row {
        uint32_t key;
        std::u16string_view name;
    };

    // name: what a key without a row shows. rows: in rising order of their keys, and theirs to keep.
    constexpr NameTable(std::u16string_view name, std::span<const Row> rows) : m_name(name), m_rows(rows) {}

    // The name of key; without a row the table's name and the key in hexadecimal: DescriptorTag[7f].
    std::u16string GetName(uint32_t key) const;

private:
    const std::u16string_view m_name;
    const std::span<const Row> m_rows;
};

const NameTable& DescriptorTagNames();
const NameTable& StreamTypeNames();
const NameTable& ServiceTypeNames();

}  // namespace tessel
