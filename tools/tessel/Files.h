// What a command reads: a file, or "-" for standard input. And what it prints.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/com/ComPtr.h"
#include "platform/com/Stream.h"
#include "tools/tessel/Failure.h"

namespace tessel::tool {

// Of the system's errors those that the input has no part in: too many files are open, or memory is out.
bool LacksResources(int error);
// What the system has just said of opening path.
Failure CannotOpen(const std::string& path);
// A reader of its own of an input's file. Throws what keeps it from being opened.
ComPtr<IStream> OpenInputStream(const std::string& path);

// Throws Failure with a text that names the file.
class InputFile {
public:
    explicit InputFile(const std::string& path);
    ~InputFile();
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    // Some more bytes, valid until the next call; none at the end, when the user has interrupted, and in front of a
    // byte that cannot be read.
    std::span<const uint8_t> Read();
    // The same into a buffer of the caller's: the number of bytes.
    size_t Read(std::span<uint8_t> buffer);
    // Why the input ended before its end, as a sentence; what came until then counts. None once rewound.
    const std::optional<std::string>& Unreadable() const { return m_unreadable; }
    // Somebody else who reads the file could not read that byte.
    void NoteUnreadable(int64_t position, int error);
    // Whether a read would not wait. Of a file that grows, also when it has not done so for a while.
    bool IsReady() const;
    int64_t BytesRead() const { return m_bytesRead; }
    // A file proper can be read from its beginning again; what a pipe has given is gone.
    bool CanRewind() const { return m_start >= 0; }
    void Rewind();
    // The file may still grow: at its end a read waits for more, and gives up when none has come for idle. What becomes
    // of the file is said: one that was cut ends, one that its name no longer leads to may still grow. byName: in both
    // cases it goes on with what the name leads to, from its start. Failure for what is no file.
    void Follow(std::optional<std::chrono::milliseconds> idle, bool byName);
    // From here on only these bytes of the file are read.
    void SetRange(int64_t begin, int64_t end);
    // Bytes from the beginning to the end; unknown of a pipe, and of a file that grows.
    std::optional<int64_t> Size() const;
    // The path, or "standard input".
    const std::string& Name() const { return m_name; }
    int Descriptor() const { return m_descriptor; }

private:
    size_t ReadGrowing(std::span<uint8_t> buffer);
    void OpenGrowing();
    // When the file followed has been read: false when nothing more can come of it.
    bool MayGoOn();
    // After a read that failed: the bytes that stand for what cannot be read, or 0.
    size_t PassOverUnreadable(std::span<uint8_t> buffer, int error);

    std::string m_name;
    int m_descriptor = -1;
    ComPtr<IStream> m_growing;
    std::optional<std::string> m_unreadable;
    std::optional<std::chrono::milliseconds> m_idle;
    bool m_byName = false;
    bool m_saidReplaced = false;
    int64_t m_followed = 0;  // bytes read of the file that is followed
    std::chrono::steady_clock::time_point m_lastGrowth;
    int64_t m_start = -1;  // where in the file we began; -1 for a pipe
    std::vector<uint8_t> m_buffer;
    int64_t m_bytesRead = 0;
    int64_t m_left = INT64_MAX;  // of the range
};

// A line on standard error. What is named in it may drive a terminal, so it is guarded.
void Tell(const std::string& text);

// Writes to standard output at once.
void Print(const std::string& text);

}  // namespace tessel::tool
