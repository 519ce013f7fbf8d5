#include "tools/tessel/Files.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "source/StreamFile.h"
#include "tools/tessel/Interrupt.h"
#include "tools/tessel/Unreadable.h"
#include "tools/tessel/Utf8.h"

namespace tessel::tool {

namespace {

constexpr size_t kReadSize = 256 * 1024;
// Milliseconds after which the end of a growing file is looked at again.
constexpr int64_t kGrowthPoll = 50;
constexpr std::chrono::milliseconds kGrowthPatience{500};

std::string Reason() {
    return std::strerror(errno);
}

// The offset of a file proper, else -1.
int64_t OffsetOf(int descriptor) {
    struct stat status {};
    return fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) ? lseek(descriptor, 0, SEEK_CUR) : -1;
}

}  // namespace

bool LacksResources(int error) {
    return error == EMFILE || error == ENFILE || error == ENOMEM;
}

Failure CannotOpen(const std::string& path) {
    const int error = errno;
    return Failure(path + ": cannot open: " + std::strerror(error) + (LacksResources(error) ? "" : "; check the path"));
}

ComPtr<IStream> OpenInputStream(const std::string& path) {
    HRESULT result = S_OK;
    ComPtr<IStream> stream = OpenStreamFile(path.c_str(), GENERIC_READ, &result, InputFiles());
    if (result == E_OUTOFMEMORY)
        throw std::bad_alloc();
    if (!stream)
        throw CannotOpen(path);
    return stream;
}

InputFile::InputFile(const std::string& path) : m_name(path) {
    if (path == "-") {
        m_name = "standard input";
        m_descriptor = STDIN_FILENO;
        if (isatty(m_descriptor) != 0)
            throw Misuse("standard input is a terminal; name a file, or pipe a transport stream in");
        m_start = OffsetOf(m_descriptor);
        return;
    }
    m_descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (m_descriptor < 0)
        throw CannotOpen(m_name);
    struct stat status {};
    if (fstat(m_descriptor, &status) == 0 && S_ISDIR(status.st_mode)) {
        close(m_descriptor);
        throw Failure(m_name + ": is a directory; name a transport stream file in it");
    }
    m_start = OffsetOf(m_descriptor);
}

InputFile::~InputFile() {
    if (m_descriptor > STDIN_FILENO)
        close(m_descriptor);
}

std::span<const uint8_t> InputFile::Read() {
    m_buffer.resize(kReadSize);
    return std::span(m_buffer).first(Read(std::span(m_buffer)));
}

size_t InputFile::Read(std::span<uint8_t> buffer) {
    if (m_growing)
        return ReadGrowing(buffer);
    buffer = buffer.first(static_cast<size_t>(std::min<int64_t>(static_cast<int64_t>(buffer.size()), m_left)));
    while (WaitForInput(m_descriptor)) {
        ssize_t count = read(m_descriptor, buffer.data(), buffer.size());
        if (count < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (count < 0)
            count = static_cast<ssize_t>(PassOverUnreadable(buffer, errno));
        m_bytesRead += count;
        m_left -= count;
        return static_cast<size_t>(count);
    }
    return 0;
}

size_t InputFile::PassOverUnreadable(std::span<uint8_t> buffer, int error) {
    const int64_t position = OffsetOf(m_descriptor);
    struct stat status {};
    if (position >= 0 && SkipsUnreadable() && fstat(m_descriptor, &status) == 0 && status.st_size > position) {
        const auto left = static_cast<uint64_t>(status.st_size - position);
        const size_t count = PassOver(position, buffer.first(std::min<uint64_t>(buffer.size(), left)));
        if (lseek(m_descriptor, static_cast<off_t>(count), SEEK_CUR) >= 0)
            return count;
    }
    NoteUnreadable(position >= 0 ? position : m_bytesRead, error);
    return 0;
}

void InputFile::NoteUnreadable(int64_t position, int error) {
    if (!m_unreadable)
        m_unreadable = m_name + ": cannot read byte " + std::to_string(position) + ": " + std::strerror(error) +
                       (CanRewind() && !SkipsUnreadable() ? "; --skip-unreadable goes on behind it" : "");
}

void InputFile::Follow(std::optional<std::chrono::milliseconds> idle, bool byName) {
    if (!CanRewind())
        throw Failure(m_name + ": only a file can be followed; a pipe is read to its end anyhow");
    OpenGrowing();
    m_idle = idle;
    m_byName = byName;
}

void InputFile::OpenGrowing() {
    m_growing = OpenInputStream(m_name);
    m_followed = 0;
}

bool InputFile::MayGoOn() {
    struct stat mine {};
    struct stat named {};
    if (fstat(m_descriptor, &mine) != 0)
        return true;
    const bool cut = mine.st_size < m_followed;
    // A name that leads nowhere may yet lead to the next one.
    const bool replaced = stat(m_name.c_str(), &named) == 0 &&
                          (named.st_dev != mine.st_dev || named.st_ino != mine.st_ino) && S_ISREG(named.st_mode);
    if (m_byName && (cut || replaced)) {
        const int descriptor = open(m_name.c_str(), O_RDONLY | O_CLOEXEC);
        if (descriptor < 0)
            return true;
        close(std::exchange(m_descriptor, descriptor));
        OpenGrowing();
        Tell(m_name + (replaced ? ": was replaced; the new file is read from its start"
                                : ": was cut; it is read from its start"));
    } else if (cut) {
        m_unreadable = m_name + ": was cut to " + std::to_string(mine.st_size) + " bytes when " +
                       std::to_string(m_followed) + " had been read; --follow=name reads it from its start";
        return false;
    } else if (replaced && !std::exchange(m_saidReplaced, true)) {
        Tell(m_name + ": was replaced, and the old file is followed; --follow=name reads the new one");
    }
    return true;
}

size_t InputFile::ReadGrowing(std::span<uint8_t> buffer) {
    m_lastGrowth = std::chrono::steady_clock::now();
    while (!Interrupted()) {
        ULONG count = 0;
        const HRESULT result = m_growing->Read(buffer.data(), static_cast<ULONG>(buffer.size()), &count);
        if (count != 0) {
            m_bytesRead += count;
            m_followed += count;
            m_lastGrowth = std::chrono::steady_clock::now();
            return count;
        }
        if (FAILED(result)) {
            NoteUnreadable(m_followed, EIO);
            break;
        }
        if (!MayGoOn())
            break;
        if (m_idle && std::chrono::steady_clock::now() - m_lastGrowth >= *m_idle)
            break;
        SleepUnlessInterrupted(kGrowthPoll);
    }
    return 0;
}

bool InputFile::IsReady() const {
    struct stat status {};
    if (m_growing)
        return std::chrono::steady_clock::now() - m_lastGrowth > kGrowthPatience ||
               (fstat(m_descriptor, &status) == 0 && status.st_size != m_followed);
    pollfd ready{m_descriptor, POLLIN, 0};
    return poll(&ready, 1, 0) != 0;
}

void InputFile::Rewind() {
    const bool moved = m_growing ? SUCCEEDED(m_growing->Seek(0, STREAM_SEEK_SET, nullptr))
                                 : lseek(m_descriptor, m_start, SEEK_SET) >= 0;
    if (!moved)
        throw Failure(m_name + ": cannot read from the beginning again: " + Reason());
    m_bytesRead = 0;
    m_followed = 0;
    m_unreadable.reset();
}

void InputFile::SetRange(int64_t begin, int64_t end) {
    if (lseek(m_descriptor, begin, SEEK_SET) < 0)
        throw Failure(m_name + ": cannot be sought in: " + Reason());
    m_bytesRead = 0;
    m_unreadable.reset();
    m_left = end - begin;
}

std::optional<int64_t> InputFile::Size() const {
    struct stat status {};
    if (!CanRewind() || m_growing || fstat(m_descriptor, &status) != 0)
        return std::nullopt;
    return status.st_size - m_start;
}

void Tell(const std::string& text) {
    std::fprintf(stderr, "tessel: %s\n", ToTerminal(text).c_str());
}

void Print(const std::string& text) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
        if (errno == EPIPE)
            throw OutputClosed();
        throw Failure("standard output: cannot write: " + Reason());
    }
}

}  // namespace tessel::tool
