#include "platform/os/File.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>

namespace {

constexpr uint32_t kUdfMagic = 0x15013346;  // of the system's udf driver, which has no public header

class SystemFile final : public CFile {
public:
    ~SystemFile() override {
        if (m_descriptor >= 0)
            close(m_descriptor);
    }

    bool Open(const char* path) {
        // O_NONBLOCK, or opening a pipe would wait for its writer; a plain file does not care.
        m_descriptor = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
        struct stat status {};
        if (m_descriptor < 0 || fstat(m_descriptor, &status) != 0 || !S_ISREG(status.st_mode))
            return false;
        m_identity = {status.st_dev, status.st_ino};
        return true;
    }

    Identity GetIdentity() const override { return m_identity; }

    uint32_t GetDriveType() const override {
        struct statfs status {};
        if (fstatfs(m_descriptor, &status) != 0)
            return DRIVE_FIXED;
        const auto type = static_cast<uint32_t>(status.f_type);
        return type == ISOFS_SUPER_MAGIC || type == kUdfMagic ? DRIVE_CDROM : DRIVE_FIXED;
    }

    int64_t GetSize() const override {
        struct stat status {};
        return fstat(m_descriptor, &status) == 0 ? status.st_size : -1;
    }

    int64_t ReadAt(uint64_t offset, std::span<uint8_t> buffer) const override {
        size_t done = 0;
        while (done < buffer.size()) {
            const ssize_t count =
                pread(m_descriptor, buffer.data() + done, buffer.size() - done, static_cast<off_t>(offset + done));
            if (count == 0)
                break;
            if (count > 0)
                done += static_cast<size_t>(count);
            else if (errno != EINTR)
                return done > 0 ? static_cast<int64_t>(done) : -1;
        }
        return static_cast<int64_t>(done);
    }

private:
    int m_descriptor = -1;
    Identity m_identity;
};

}  // namespace

std::unique_ptr<CFile> CFileSystem::Open(const char* path, uint32_t access) const {
    auto file = std::make_unique<SystemFile>();
    if (access != GENERIC_READ || !file->Open(path))
        return nullptr;
    return file;
}

const CFileSystem& CFileSystem::System() {
    static const CFileSystem system;
    return system;
}
