// A stream that a browser sends: it goes into a file without a name, which is read while it grows.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "tools/tessel/inspect/Playback.h"

namespace tessel::tool {

class Upload {
public:
    // Larger ones are refused, however much room there is.
    static constexpr int64_t kMostBytes = int64_t{4} << 30;
    // How long a stream may be for the folder of temporary files to keep some room for others.
    static int64_t Room();

    // Failure when there is no room for temporary files.
    explicit Upload(std::string name);
    ~Upload();
    Upload(const Upload&) = delete;
    Upload& operator=(const Upload&) = delete;

    // False when it does not fit.
    bool Write(std::span<const char> bytes);
    int64_t Bytes() const { return m_bytes; }
    // Why what has come so far is no transport stream; see WhyNoStream.
    std::optional<std::string> Doubt() const;
    // Reads it from its beginning, and waits at its end for as long as the upload is there.
    PlaybackInput Input() const;

private:
    const std::string m_name;
    int m_descriptor = -1;
    int64_t m_bytes = 0;
    int64_t m_checkAt = 0;
    const std::shared_ptr<std::atomic<bool>> m_filling;
};

}  // namespace tessel::tool
