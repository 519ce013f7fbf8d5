// The files of the page, which the build puts into the program.
#pragma once

#include <span>
#include <string_view>

namespace tessel::tool {

struct WebFile {
    std::string_view path;  // "/main.js"
    std::string_view type;
    std::string_view content;
};

std::span<const WebFile> WebFiles();

}  // namespace tessel::tool
