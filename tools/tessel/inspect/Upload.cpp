#include "tools/tessel/inspect/Upload.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tools/tessel/Failure.h"
#include "tools/tessel/InputKind.h"

namespace tessel::tool {

namespace {

// What an upload leaves free for others.
constexpr int64_t kReserve = int64_t{256} << 20;
// How often that is looked at: others fill the folder too.
constexpr int64_t kCheckEvery = int64_t{16} << 20;

std::string Folder() {
    const char* folder = std::getenv("TMPDIR");
    return folder != nullptr && *folder != '\0' ? folder : "/tmp";
}

int64_t FreeBytes(int failure, const struct statvfs& status) {
    return failure != 0 ? INT64_MAX : static_cast<int64_t>(status.f_bavail) * static_cast<int64_t>(status.f_frsize);
}

}  // namespace

int64_t Upload::Room() {
    struct statvfs status {};
    const int failure = statvfs(Folder().c_str(), &status);
    return std::clamp<int64_t>(FreeBytes(failure, status) - kReserve, 0, kMostBytes);
}

Upload::Upload(std::string name) : m_name(std::move(name)), m_filling(std::make_shared<std::atomic<bool>>(true)) {
    std::string path = Folder() + "/tessel-XXXXXX";
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
    if (m_bytes >= m_checkAt) {
        struct statvfs status {};
        const int failure = fstatvfs(m_descriptor, &status);
        if (FreeBytes(failure, status) < kReserve)
            return false;
        m_checkAt = m_bytes + kCheckEvery;
    }
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

std::optional<std::string> Upload::Doubt() const {
    return WhyNoStream(m_descriptor);
}

PlaybackInput Upload::Input() const {
    // A descriptor of its own, with a position of its own.
    auto file = std::make_unique<InputFile>("/proc/self/fd/" + std::to_string(m_descriptor));
    return {std::move(file), m_name, false, m_filling};
}

}  // namespace tessel::tool
