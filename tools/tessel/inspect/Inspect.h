// `tessel inspect`: the property pages of a playing stream, in a browser.
#pragma once

#include <memory>

#include "tools/tessel/Files.h"
#include "tools/tessel/inspect/Guard.h"

namespace tessel::tool {

struct InspectRequest {
    ListenAddress listen;
    bool open = false;
    bool loop = false;
    bool allowUploads = false;  // from other machines
};

// Serves until interrupted.
void Inspect(std::unique_ptr<InputFile> input, const InspectRequest& request);

}  // namespace tessel::tool
