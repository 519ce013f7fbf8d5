#include "platform/com/RegistryText.h"

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <optional>

namespace {

constexpr std::string_view kHead =
    "# The classes and filters that are registered. Programs rewrite this file as a whole: comments are lost.\n";
constexpr std::string_view kBlanks = " \t\r";

// special: what means something where the text is to stand.
std::string Escape(std::string_view text, std::string_view special = {}) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<uint8_t>(text[i]);
        const bool isEdge = i == 0 || i + 1 == text.size();
        if (byte == '\\') {
            out += "\\\\";
        } else if (byte < 0x20 || byte == 0x7F || (byte == ' ' && isEdge) ||
                   special.find(text[i]) != std::string_view::npos) {
            char code[5];
            std::snprintf(code, sizeof(code), "\\x%02X", byte);
            out += code;
        } else {
            out += text[i];
        }
    }
    return out;
}

std::optional<std::string> Unescape(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        if (text[0] != '\\') {
            out += text[0];
            text.remove_prefix(1);
        } else if (text.starts_with("\\\\")) {
            out += '\\';
            text.remove_prefix(2);
        } else {
            uint8_t byte = 0;
            if (!text.starts_with("\\x") || text.size() < 4 ||
                std::from_chars(text.data() + 2, text.data() + 4, byte, 16).ptr != text.data() + 4)
                return std::nullopt;
            out += static_cast<char>(byte);
            text.remove_prefix(4);
        }
    }
    return out;
}

std::string_view Trimmed(std::string_view text) {
    const size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// values: of the key that the lines before began, or null.
bool ParseLine(std::string_view line, RegistryKeys& keys, RegistryValues*& values) {
    if (line.empty() || line[0] == '#')
        return true;
    if (line.find('\0') != std::string_view::npos)
        return false;
    if (line[0] == '[') {
        const auto key = Unescape(line.substr(1, line.size() - 2));
        if (line.size() < 3 || line.back() != ']' || !key)
            return false;
        values = &keys[*key];
        return true;
    }
    const size_t equals = line.find('=');
    if (values == nullptr || equals == std::string_view::npos)
        return false;
    const auto name = Unescape(Trimmed(line.substr(0, equals)));
    const auto value = Unescape(Trimmed(line.substr(equals + 1)));
    if (!name || name->empty() || !value)
        return false;
    values->emplace_back(*name, *value);
    return true;
}

}  // namespace

std::string_view FindValue(const RegistryValues& values, std::string_view name) {
    for (const auto& [key, value] : values)
        if (key == name)
            return value;
    return {};
}

std::string FormatRegistry(const RegistryKeys& keys) {
    std::string text(kHead);
    for (const auto& [key, values] : keys) {
        text += "\n[" + Escape(key) + "]\n";
        for (const auto& [name, value] : values)
            text += Escape(name, "=#[") + " = " + Escape(value) + "\n";
    }
    return text;
}

size_t ParseRegistry(std::string_view text, RegistryKeys* out) {
    out->clear();
    RegistryValues* values = nullptr;
    for (size_t number = 1; !text.empty(); ++number) {
        const size_t length = text.find('\n');
        if (!ParseLine(Trimmed(text.substr(0, length)), *out, values))
            return number;
        text.remove_prefix(length == std::string_view::npos ? text.size() : length + 1);
    }
    return 0;
}
