#include "tools/tessel/inspect/Upload.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tools/tessel/Failure.h"

namespace tessel::tool {

Upload::Upload(std::string name) : m_name(std::move(name)), m_filling(std::make_shared<std::atomic<bool>>(true)) {
    const char* folder = std::getenv("TMPDIR");
    std::string path = std::string(folder != nullptr && *folder != '\0' ? folder : "/tmp") + "/tessel-XXXXXX";
    m_descriptor = mkostemp(path.data(), O_CLOEXEC);
    if (m_descriptor < 0)
        throw Failure(path + ": cannot make a temporary file: " + std::strerror(errno));
    unlink(path.c_str());
}

Upload::~Upload() {
    *m_filling = false;
    close(m_descriptor);
}

bool Upload::Write(std::span<const char> bytes) {
    if (m_bytes + static_cast<int64_t>(bytes.size()) > kMostBytes)
        return false;
    while (!bytes.empty()) {
        const ssize_t count = write(m_descriptor, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        m_bytes += count;
        bytes = bytes.subspan(static_cast<size_t>(count));
    }
    return true;
}

PlaybackInput Upload::Input() const {
    // A descriptor of its own, with a position of its own.
    auto file = std::make_unique<InputFile>("/proc/self/fd/" + std::to_string(m_descriptor));
    return {std::move(file), m_name, false, m_filling};
}

}  // namespace tessel::tool
