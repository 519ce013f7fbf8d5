// Files that are read at given positions.
#pragma once

#include <compare>
#include <cstdint>
#include <memory>
#include <span>

// The only access that there is.
inline constexpr uint32_t GENERIC_READ = 0x80000000;

inline constexpr uint32_t DRIVE_FIXED = 3;
inline constexpr uint32_t DRIVE_CDROM = 5;

// An open file. Any number of threads may call it at a time: it has no position of its own.
class CFile {
public:
    // Tells a file from every other one that exists, whatever paths lead to it.
    struct Identity {
        uint64_t volume = 0;
        uint64_t index = 0;
        auto operator<=>(const Identity&) const = default;
    };

    virtual ~CFile() = default;

    virtual Identity GetIdentity() const = 0;
    // The type of the drive that the file lies on: DRIVE_CDROM for optical media, else DRIVE_FIXED.
    virtual uint32_t GetDriveType() const = 0;
    // Bytes at this moment: others may make the file longer or shorter. -1 when the system does not say.
    virtual int64_t GetSize() const = 0;
    // Fills buffer from offset on. How many bytes were read: fewer at the end of the file, and in front of a byte that
    // cannot be read. -1 when the first cannot.
    virtual int64_t ReadAt(uint64_t offset, std::span<uint8_t> buffer) const = 0;
};

// Opens files. Who needs other ones derives from it.
class CFileSystem {
public:
    virtual ~CFileSystem() = default;

    // access: GENERIC_READ. Others may go on writing to the file, or delete it. Null when the file cannot
    // be opened, is no plain file (a folder, a pipe, a device) or access is another. Throws nothing but
    // std::bad_alloc.
    virtual std::unique_ptr<CFile> Open(const char* path, uint32_t access) const;

    static const CFileSystem& System();
};
