// What a command writes: a file, or "-" for standard output.
#pragma once

#include <sys/types.h>

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "tools/tessel/Files.h"

namespace tessel::tool {

// What stands under the name stays as it is until something worth keeping has come: the first block is written to a
// file beside, which then takes the name. A command that fails keeps what it has; a block that does not go out whole
// is taken back, so that the file ends with a whole packet, section or sample.
class OutputFile {
public:
    static constexpr size_t kBuffer = 1 << 20;

    // Refuses (Misuse) to overwrite the file that input reads, and (Failure) what cannot be written. buffer: bytes
    // gathered before they are written.
    OutputFile(const std::string& path, const InputFile& input, size_t buffer = kBuffer);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    // Of whole units. Throws Failure, or OutputClosed when the reader of a pipe has gone.
    void Write(std::span<const uint8_t> bytes);
    // What has been written is worth a file. Without this there is none in the end.
    void Keep() { m_kept = true; }
    // Writes what is buffered and closes; what fails late fails here.
    void Close();

private:
    void Flush();
    void WriteBlock(std::span<const uint8_t> bytes);
    void OpenBeside();
    void WriteOut(std::span<const uint8_t> bytes);
    [[noreturn]] void ThrowCannotWrite(int error) const;

    std::string m_name;
    std::string m_target;          // what the file beside replaces; where there is none, writing is in place
    std::string m_beside;          // as long as that has its own name
    std::optional<mode_t> m_mode;  // of the file that is replaced
    int m_descriptor = -1;
    bool m_isFile = false;
    bool m_kept = false;
    bool m_failed = false;
    off_t m_written = 0;
    const size_t m_capacity;
    std::vector<uint8_t> m_buffer;
};

}  // namespace tessel::tool
