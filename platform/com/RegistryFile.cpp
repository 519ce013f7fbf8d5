#include "platform/com/RegistryFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <thread>

namespace {

constexpr auto kLockWait = std::chrono::seconds(10);
constexpr auto kLockStep = std::chrono::milliseconds(5);
constexpr mode_t kNewFile = 0644;

class Descriptor {
public:
    Descriptor(const std::string& path, int flags, mode_t mode = 0)
        : m_value(open(path.c_str(), flags | O_CLOEXEC, mode)) {}
    ~Descriptor() {
        if (m_value >= 0)
            close(m_value);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int Get() const { return m_value; }

private:
    const int m_value;
};

std::string WithoutLinks(const std::string& path) {
    std::error_code error;
    const std::filesystem::path real = std::filesystem::weakly_canonical(path, error);
    return error ? path : real.string();
}

HRESULT LastError() {
    return ResultOfError(errno);
}

HRESULT WriteAll(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(descriptor, text.data(), text.size());
        if (count < 0 && errno != EINTR)
            return LastError();
        if (count > 0)
            text.remove_prefix(static_cast<size_t>(count));
    }
    return fsync(descriptor) == 0 ? S_OK : LastError();
}

// On disk before it takes the old one's place: a power cut must not leave an empty file under the name.
HRESULT WriteNew(const std::string& path, std::string_view text, mode_t mode) {
    // Whoever has the lock may have ended in the middle of this.
    unlink(path.c_str());
    const Descriptor file(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, mode);
    if (file.Get() < 0)
        return LastError();
    return WriteAll(file.Get(), text);
}

}  // namespace

CRegistryFile::CRegistryFile(const std::string& path) : m_path(WithoutLinks(path)) {}

HRESULT CRegistryFile::Lock() {
    const std::string path = m_path + ".lock";
    m_lock = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, kNewFile);
    if (m_lock < 0)
        return LastError();
    const auto end = std::chrono::steady_clock::now() + kLockWait;
    while (flock(m_lock, LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        if (error == EWOULDBLOCK && std::chrono::steady_clock::now() < end) {
            std::this_thread::sleep_for(kLockStep);
        } else if (error != EINTR) {
            Unlock();
            return ResultOfError(error);
        }
    }
    return S_OK;
}

void CRegistryFile::Unlock() {
    if (m_lock >= 0)
        close(m_lock);
    m_lock = -1;
}

HRESULT CRegistryFile::Read(std::string* out) const {
    out->clear();
    // O_NONBLOCK, or opening a pipe would wait for its writer.
    const Descriptor file(m_path, O_RDONLY | O_NONBLOCK);
    if (file.Get() < 0)
        return errno == ENOENT ? S_OK : LastError();
    struct stat status {};
    if (fstat(file.Get(), &status) != 0)
        return LastError();
    if (!S_ISREG(status.st_mode))
        return ResultOfError(S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
    char block[16 * 1024];
    for (;;) {
        const ssize_t count = read(file.Get(), block, sizeof(block));
        if (count == 0)
            return S_OK;
        if (count < 0 && errno != EINTR)
            return LastError();
        if (count > 0)
            out->append(block, static_cast<size_t>(count));
        if (out->size() > kMaxSize)
            return ResultOfError(EFBIG);
    }
}

HRESULT CRegistryFile::Replace(std::string_view text) {
    struct stat status {};
    const bool exists = stat(m_path.c_str(), &status) == 0;
    const std::string path = m_path + ".new";
    HRESULT result = WriteNew(path, text, exists ? status.st_mode & 0777 : kNewFile);
    if (SUCCEEDED(result) && rename(path.c_str(), m_path.c_str()) != 0)
        result = LastError();
    if (FAILED(result)) {
        unlink(path.c_str());
        return result;
    }
    // The name too; where a folder cannot be synchronised the file is still whole.
    const std::string folder = std::filesystem::path(m_path).parent_path().string();
    const Descriptor directory(folder.empty() ? "." : folder, O_RDONLY | O_DIRECTORY);
    if (directory.Get() >= 0)
        fsync(directory.Get());
    return S_OK;
}
