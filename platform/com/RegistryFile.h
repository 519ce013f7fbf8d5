// The file behind the class registry: whole at every moment, whoever writes it and however they end.
#pragma once

#include <string>
#include <string_view>

#include "platform/com/Result.h"

// A system call failed: with the error number in the low 16 bits.
inline constexpr HRESULT ResultOfError(int error) {
    return MakeResult(0xA05E0000u | (static_cast<uint32_t>(error) & 0xFFFF));
}
// The error number of such a result; 0 for any other.
inline constexpr int ErrorOfResult(HRESULT result) {
    const auto bits = static_cast<uint32_t>(result);
    return (bits & 0xFFFF0000u) == 0xA05E0000u ? static_cast<int>(bits & 0xFFFF) : 0;
}

// Readers need no lock: the file is replaced as a whole. Who changes it holds the lock from reading to replacing, so
// that nobody's change is lost. The lock is a file of its own beside it (PATH.lock), which stays.
class CRegistryFile {
public:
    // Follows links, so that a link to a registry stays one.
    explicit CRegistryFile(const std::string& path);
    ~CRegistryFile() { Unlock(); }

    CRegistryFile(const CRegistryFile&) = delete;
    CRegistryFile& operator=(const CRegistryFile&) = delete;

    // Waits up to ten seconds for another process, or thread.
    HRESULT Lock();
    void Unlock();
    // A missing file is an empty one. Longer than kMaxSize is EFBIG.
    HRESULT Read(std::string* out) const;
    // With the lock. After a failure the file is the old one.
    HRESULT Replace(std::string_view text);

    static constexpr size_t kMaxSize = size_t{16} << 20;

private:
    const std::string m_path;
    int m_lock = -1;
};
