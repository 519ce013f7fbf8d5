#include "tools/tessel/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tools/tessel/Failure.h"

namespace tessel::tool {

namespace {

constexpr size_t kReadSize = 256 * 1024;
constexpr size_t kOutputBuffer = 1 << 20;

std::string Reason() {
    return std::strerror(errno);
}

bool SameFile(int first, int second) {
    struct stat a {};
    struct stat b {};
    return fstat(first, &a) == 0 && fstat(second, &b) == 0 && S_ISREG(a.st_mode) && a.st_dev == b.st_dev &&
           a.st_ino == b.st_ino;
}

}  // namespace

InputFile::InputFile(const std::string& path) : m_name(path) {
    if (path == "-") {
        m_name = "standard input";
        m_descriptor = STDIN_FILENO;
        if (isatty(m_descriptor) != 0)
            throw Misuse("standard input is a terminal; name a file, or pipe a transport stream in");
        return;
    }
    m_descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (m_descriptor < 0)
        throw Failure(m_name + ": cannot open: " + Reason() + "; check the path");
    struct stat status {};
    if (fstat(m_descriptor, &status) == 0 && S_ISDIR(status.st_mode)) {
        close(m_descriptor);
        throw Failure(m_name + ": is a directory; name a transport stream file in it");
    }
}

InputFile::~InputFile() {
    if (m_descriptor > STDIN_FILENO)
        close(m_descriptor);
}

std::span<const uint8_t> InputFile::Read() {
    m_buffer.resize(kReadSize);
    for (;;) {
        const ssize_t count = read(m_descriptor, m_buffer.data(), m_buffer.size());
        if (count >= 0) {
            m_bytesRead += count;
            return std::span(m_buffer).first(static_cast<size_t>(count));
        }
        if (errno != EINTR)
            throw Failure(m_name + ": cannot read: " + Reason());
    }
}

OutputFile::OutputFile(const std::string& path, const InputFile& input) : m_name(path) {
    if (path == "-") {
        m_name = "standard output";
        m_descriptor = STDOUT_FILENO;
        if (isatty(m_descriptor) != 0)
            throw Misuse("the output is binary and standard output is a terminal; name a file with -o");
    } else {
        // Truncated only once it is known not to be the input.
        m_descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
        if (m_descriptor < 0)
            throw Failure(m_name + ": cannot write: " + Reason() + "; choose another file with -o");
    }
    if (SameFile(m_descriptor, input.Descriptor()))
        throw Misuse(m_name + ": is also the input; choose another file with -o");
    if (path != "-" && ftruncate(m_descriptor, 0) != 0 && errno != EINVAL)
        throw Failure(m_name + ": cannot write: " + Reason());
    m_buffer.reserve(kOutputBuffer);
}

OutputFile::~OutputFile() {
    if (m_descriptor > STDOUT_FILENO)
        close(m_descriptor);
}

void OutputFile::Write(std::span<const uint8_t> bytes) {
    if (m_buffer.size() + bytes.size() > kOutputBuffer)
        Flush();
    m_buffer.insert(m_buffer.end(), bytes.begin(), bytes.end());
}

void OutputFile::Flush() {
    size_t written = 0;
    while (written < m_buffer.size()) {
        const ssize_t count = write(m_descriptor, m_buffer.data() + written, m_buffer.size() - written);
        if (count >= 0)
            written += static_cast<size_t>(count);
        else if (errno == EPIPE)
            throw OutputClosed();
        else if (errno != EINTR)
            throw Failure(m_name + ": cannot write: " + Reason());
    }
    m_buffer.clear();
}

void OutputFile::Close() {
    Flush();
    if (m_descriptor > STDOUT_FILENO) {
        const int descriptor = m_descriptor;
        m_descriptor = -1;
        if (close(descriptor) != 0)
            throw Failure(m_name + ": cannot write: " + Reason());
    }
}

}  // namespace tessel::tool
