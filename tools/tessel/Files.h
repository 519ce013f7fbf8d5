// Input and output of a command: a file, or "-" for standard input and output.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace tessel::tool {

// Both throw Failure with a text that names the file.
class InputFile {
public:
    explicit InputFile(const std::string& path);
    ~InputFile();
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    // Some more bytes, valid until the next call; none at the end.
    std::span<const uint8_t> Read();
    int64_t BytesRead() const { return m_bytesRead; }
    // The path, or "standard input".
    const std::string& Name() const { return m_name; }
    int Descriptor() const { return m_descriptor; }

private:
    std::string m_name;
    int m_descriptor = -1;
    std::vector<uint8_t> m_buffer;
    int64_t m_bytesRead = 0;
};

// Throws OutputClosed when the reader of a pipe has gone.
class OutputFile {
public:
    // Refuses (Misuse) to overwrite the file that input reads.
    OutputFile(const std::string& path, const InputFile& input);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    void Write(std::span<const uint8_t> bytes);
    // Writes what is buffered and closes; what fails late fails here.
    void Close();

private:
    void Flush();

    std::string m_name;
    int m_descriptor = -1;
    std::vector<uint8_t> m_buffer;
};

}  // namespace tessel::tool
