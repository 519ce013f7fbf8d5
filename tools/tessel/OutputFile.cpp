#include "tools/tessel/OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <utility>

#include "tools/tessel/Failure.h"

namespace tessel::tool {

namespace {

constexpr mode_t kAnyMode = 0666;
constexpr mode_t kModeBits = 0777;

bool SameFile(const struct stat& output, const InputFile& input) {
    struct stat other {};
    return fstat(input.Descriptor(), &other) == 0 && S_ISREG(output.st_mode) && output.st_dev == other.st_dev &&
           output.st_ino == other.st_ino;
}

std::string FolderOf(const std::string& path) {
    const std::string folder = std::filesystem::path(path).parent_path();
    return folder.empty() ? "." : folder;
}

}  // namespace

OutputFile::OutputFile(const std::string& path, const InputFile& input, size_t buffer)
    : m_name(path), m_capacity(buffer) {
    if (path == "-") {
        m_name = "standard output";
        m_descriptor = STDOUT_FILENO;
        if (isatty(m_descriptor) != 0)
            throw Misuse("the output is binary and standard output is a terminal; name a file with -o");
    } else {
        m_descriptor = open(path.c_str(), O_WRONLY | O_CLOEXEC);
        if (m_descriptor < 0 && errno != ENOENT)
            ThrowCannotWrite(errno);
    }
    struct stat status {};
    const bool exists = m_descriptor >= 0 && fstat(m_descriptor, &status) == 0;
    if (exists && SameFile(status, input)) {
        if (m_descriptor > STDOUT_FILENO)
            close(m_descriptor);
        throw Misuse(m_name + ": is also the input; choose another file with -o");
    }
    m_isFile = path != "-" && (!exists || S_ISREG(status.st_mode));
    m_buffer.reserve(m_capacity);
    if (!m_isFile)
        return;
    // A link stays one: what it leads to is replaced.
    std::error_code error;
    const std::string target = exists ? std::filesystem::canonical(path, error).string() : path;
    if (error || access(FolderOf(target).c_str(), W_OK | X_OK) != 0) {
        if (!exists)
            ThrowCannotWrite(errno);
        return;  // a file that may be changed in a folder that may not
    }
    m_target = target;
    if (exists) {
        m_mode = status.st_mode & kModeBits;
        close(std::exchange(m_descriptor, -1));
    }
}

OutputFile::~OutputFile() {
    try {
        Close();
    } catch (...) {
        // Only where the command has failed already, and has told of that.
    }
    if (m_descriptor > STDOUT_FILENO)
        close(m_descriptor);
    if (!m_beside.empty())
        unlink(m_beside.c_str());
}

void OutputFile::Write(std::span<const uint8_t> bytes) {
    if (m_buffer.size() + bytes.size() > m_capacity)
        Flush();
    if (bytes.size() >= m_capacity)
        WriteBlock(bytes);
    else
        m_buffer.insert(m_buffer.end(), bytes.begin(), bytes.end());
}

void OutputFile::Close() {
    if (m_kept && !m_failed)
        Flush();
    if (m_descriptor > STDOUT_FILENO && close(std::exchange(m_descriptor, -1)) != 0)
        ThrowCannotWrite(errno);
}

void OutputFile::Flush() {
    WriteBlock(m_buffer);
    m_buffer.clear();
}

void OutputFile::WriteBlock(std::span<const uint8_t> bytes) {
    if (bytes.empty())
        return;
    m_failed = true;  // until it has succeeded: nothing is tried twice
    if (m_descriptor < 0)
        OpenBeside();
    try {
        WriteOut(bytes);
    } catch (const Failure&) {
        [[maybe_unused]] const int taken = m_isFile ? ftruncate(m_descriptor, m_written) : 0;
        throw;
    }
    m_written += static_cast<off_t>(bytes.size());
    if (m_kept && !m_beside.empty()) {
        if (rename(m_beside.c_str(), m_target.c_str()) != 0)
            ThrowCannotWrite(errno);
        m_beside.clear();
    }
    m_failed = false;
}

void OutputFile::OpenBeside() {
    static std::atomic<unsigned> number{0};
    // A name of its own length: the target's may be as long as names may be.
    const std::string stem = FolderOf(m_target) + "/.tessel-" + std::to_string(getpid()) + "-";
    do {
        m_beside = stem + std::to_string(number++);
        m_descriptor = open(m_beside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, m_mode.value_or(kAnyMode));
    } while (m_descriptor < 0 && errno == EEXIST);
    if (m_descriptor < 0) {
        m_beside.clear();
        ThrowCannotWrite(errno);
    }
    if (m_mode)
        fchmod(m_descriptor, *m_mode);
}

void OutputFile::WriteOut(std::span<const uint8_t> bytes) {
    // What is written in place is emptied only now.
    if (m_isFile && m_written == 0 && ftruncate(m_descriptor, 0) != 0)
        ThrowCannotWrite(errno);
    while (!bytes.empty()) {
        const ssize_t count = write(m_descriptor, bytes.data(), bytes.size());
        if (count >= 0)
            bytes = bytes.subspan(static_cast<size_t>(count));
        else if (errno == EPIPE)
            throw OutputClosed();
        else if (errno != EINTR)
            ThrowCannotWrite(errno);
    }
}

void OutputFile::ThrowCannotWrite(int error) const {
    const std::string text = m_name + ": cannot write: " + std::strerror(error);
    if (m_written == 0)
        throw Failure(text +
                      (m_descriptor == STDOUT_FILENO || LacksResources(error) ? "" : "; choose another file with -o"));
    throw Failure(text + "; the " + std::to_string(m_written) + " bytes before that are kept");
}

}  // namespace tessel::tool
