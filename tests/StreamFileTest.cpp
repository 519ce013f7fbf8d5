// The file reader on real files that grow, shrink and are replaced, and its cache on a disk that fails.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "platform/os/Thread.h"
#include "source/StreamFile.h"

// Allocations of this thread that still succeed; below 0: all. Not inlined, or g++ takes new and free
// for a mismatched pair.
static thread_local int64_t t_allocations = -1;

[[gnu::noinline]] void* operator new(size_t size, const std::nothrow_t&) noexcept {
    if (t_allocations == 0)
        return nullptr;
    t_allocations -= t_allocations > 0;
    return std::malloc(size > 0 ? size : 1);
}
[[gnu::noinline]] void* operator new(size_t size) {
    if (void* memory = operator new(size, std::nothrow))
        return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}

namespace tessel {
namespace {

namespace fs = std::filesystem;

constexpr uint64_t kBlock = CStreamFile::kBlockSize;

uint8_t ByteAt(uint64_t offset, uint32_t version) {
    return static_cast<uint8_t>(((offset + uint64_t{version} * 1000) * 0x9E3779B97F4A7C15u) >> 56);
}

// Puts the bytes from `from` to `to` at the file's end; a file that is not there is made.
void Append(const fs::path& path, uint64_t from, uint64_t to, uint32_t version = 0) {
    std::string bytes;
    for (uint64_t i = from; i < to; ++i)
        bytes += static_cast<char>(ByteAt(i, version));
    std::ofstream(path, std::ios::binary | std::ios::app) << bytes;
}

// The system's files, of which it counts the open ones and notes the reads, and which it can make fail.
class WatchedSystem final : public CFileSystem {
public:
    class File final : public CFile {
    public:
        File(const WatchedSystem& system, std::unique_ptr<CFile> file) : m_system(system), m_file(std::move(file)) {
            ++m_system.m_open;
        }
        ~File() override { --m_system.m_open; }
        Identity GetIdentity() const override { return m_file->GetIdentity(); }
        uint32_t GetDriveType() const override { return m_system.m_driveType; }
        int64_t GetSize() const override { return m_system.m_sizeFails ? -1 : m_file->GetSize() + m_system.m_sizeLie; }
        int64_t ReadAt(uint64_t offset, std::span<uint8_t> buffer) const override {
            m_system.m_reads.emplace_back(offset, buffer.size());
            if (offset < m_system.m_failFrom)
                buffer = buffer.first(std::min<uint64_t>(buffer.size(), m_system.m_failFrom - offset));
            else if (offset < m_system.m_failEnd)
                return -1;
            return m_file->ReadAt(offset, buffer);
        }

    private:
        const WatchedSystem& m_system;
        const std::unique_ptr<CFile> m_file;
    };

    std::unique_ptr<CFile> Open(const char* path, uint32_t access) const override {
        auto file = CFileSystem::Open(path, access);
        return file ? std::make_unique<File>(*this, std::move(file)) : nullptr;
    }

    size_t TakeReads() const { return std::exchange(m_reads, {}).size(); }

    uint32_t m_driveType = DRIVE_FIXED;
    bool m_sizeFails = false;
    int64_t m_sizeLie = 0;
    uint64_t m_failFrom = UINT64_MAX;
    uint64_t m_failEnd = UINT64_MAX;
    mutable int m_open = 0;
    mutable std::vector<std::pair<uint64_t, size_t>> m_reads;
};

class StreamFile : public testing::Test {
protected:
    StreamFile() {
        std::string name = (fs::temp_directory_path() / ("tessel-" + std::string(6, 'X'))).string();
        EXPECT_NE(mkdtemp(name.data()), nullptr);
        m_folder = name;
    }
    ~StreamFile() override {
        fs::remove_all(m_folder);
        EXPECT_EQ(m_system.m_open, 0) << "files left open";
    }

    ComPtr<IStream> Open(const fs::path& path, HRESULT expected = S_OK) const {
        HRESULT result = E_UNEXPECTED;
        ComPtr<IStream> stream = OpenStreamFile(path.c_str(), GENERIC_READ, &result, m_system);
        EXPECT_EQ(result, expected) << path;
        EXPECT_EQ(static_cast<bool>(stream), expected == S_OK) << path;
        return stream;
    }

    fs::path m_folder;
    WatchedSystem m_system;
};

uint64_t Seek(const ComPtr<IStream>& stream, int64_t move, DWORD origin) {
    uint64_t position = UINT64_MAX;
    EXPECT_EQ(stream->Seek(move, origin, &position), S_OK);
    return position;
}

// Reads at the position and looks at every byte; the result is how many came.
uint64_t ReadChecked(const ComPtr<IStream>& stream, ULONG count, uint32_t version = 0, HRESULT expected = S_OK) {
    const uint64_t from = Seek(stream, 0, STREAM_SEEK_CUR);
    std::vector<uint8_t> bytes(count + 1, 0xEE);
    bytes[count] = 0x5A;
    ULONG read = 99;
    EXPECT_EQ(stream->Read(bytes.data(), count, &read), expected);
    uint64_t wrong = 0;
    for (ULONG i = 0; i < read; ++i)
        wrong += bytes[i] != ByteAt(from + i, version);
    EXPECT_EQ(wrong, 0u) << "of " << read << " bytes at " << from << ", version " << version;
    EXPECT_EQ(bytes[count], 0x5A);
    EXPECT_EQ(Seek(stream, 0, STREAM_SEEK_CUR), from + read);
    return read;
}

uint64_t ReadAt(const ComPtr<IStream>& stream, uint64_t offset, ULONG count, uint32_t version = 0) {
    Seek(stream, static_cast<int64_t>(offset), STREAM_SEEK_SET);
    return ReadChecked(stream, count, version);
}

TEST_F(StreamFile, ReadsAcrossTheEdgesOfWholeBlocks) {
    constexpr uint64_t kSize = 3 * kBlock + 500;
    Append(m_folder / "a.ts", 0, kSize);
    for (const auto& [drive, block] : {std::pair<uint32_t, uint64_t>{DRIVE_FIXED, 131072}, {DRIVE_CDROM, 32768}}) {
        m_system.m_driveType = drive;
        const auto stream = Open(m_folder / "a.ts");
        m_system.TakeReads();
        struct Case {
            uint64_t offset, count, expected;
        };
        const Case cases[] = {{131070, 10, 10},
                              {block - 1, 1, 1},
                              {block, 1, 1},
                              {block - 1, block + 2, block + 2},
                              {0, 0, 0},
                              {kSize - 500, 1000, 500},
                              {kSize - 501, 1000, 501},
                              {kSize - 1, 1, 1},
                              {kSize, 1, 0},
                              {1, 8'000'000, kSize - 1},
                              {0, kSize, kSize}};
        for (const Case& c : cases)
            EXPECT_EQ(ReadAt(stream, c.offset, static_cast<ULONG>(c.count)), c.expected) << c.offset << " " << drive;
        EXPECT_EQ(ReadChecked(stream, 1000), 0u);
        EXPECT_EQ(m_system.m_reads.size(), kSize / block + 1) << "each block once";
        for (const auto& [offset, length] : m_system.m_reads) {
            EXPECT_EQ(offset % block, 0u);
            EXPECT_EQ(length, std::min(block, kSize - offset));
        }
    }
}

TEST_F(StreamFile, SeeksNoFurtherThanTheEnd) {
    constexpr uint64_t kSize = 1000;
    Append(m_folder / "a.ts", 0, kSize);
    const auto stream = Open(m_folder / "a.ts");
    struct Case {
        int64_t move;
        DWORD origin;
        uint64_t expected;
    };
    constexpr DWORD kSet = STREAM_SEEK_SET, kCur = STREAM_SEEK_CUR, kEnd = STREAM_SEEK_END;
    const Case cases[] = {{-188, kEnd, kSize - 188}, {-1, kCur, kSize - 189}, {100, kCur, kSize - 89},
                          {1, kEnd, kSize},          {10, kSet, 10},          {-11, kCur, kSize},
                          {INT64_MAX, kCur, kSize},  {-1000, kEnd, 0},        {-1001, kEnd, kSize},
                          {INT64_MIN, kEnd, kSize},  {-1, kSet, kSize},       {999, kSet, 999}};
    for (const Case& c : cases)
        EXPECT_EQ(Seek(stream, c.move, c.origin), c.expected) << c.move << " from " << c.origin;
    EXPECT_EQ(stream->Seek(5, 3, nullptr), E_INVALIDARG);
    EXPECT_EQ(ReadChecked(stream, 10), 1u) << "a bad origin moves nothing";
}

TEST_F(StreamFile, AnswersEveryOperation) {
    const fs::path path = m_folder / "a.ts";
    Append(path, 0, 300);
    const auto stream = Open(path);
    uint8_t byte = 0;
    EXPECT_EQ(stream->Read(nullptr, 1, nullptr), E_POINTER);
    EXPECT_EQ(stream->Read(&byte, 1, nullptr), S_OK);
    EXPECT_EQ(byte, ByteAt(0, 0));
    STATSTG status;
    EXPECT_EQ(stream->Stat(&status, 0), S_OK);
    EXPECT_EQ(std::pair(status.type, status.cbSize), std::pair(DWORD{2}, uint64_t{300}));

    m_system.m_sizeFails = true;
    ULONG read = 9;
    EXPECT_EQ(stream->Read(&byte, 1, &read), E_FAIL);
    EXPECT_EQ(read, 0u);
    EXPECT_EQ(stream->Seek(5, STREAM_SEEK_SET, nullptr), E_FAIL);
    m_system.m_sizeFails = false;
    EXPECT_EQ(Seek(stream, 0, STREAM_SEEK_CUR), 1u);

    ASSERT_EQ(mkfifo((m_folder / "pipe").c_str(), 0600), 0);
    for (const fs::path& bad :
         {m_folder / "none.ts", m_folder, m_folder / "pipe", fs::path(), fs::path(std::string(5000, 'a'))})
        Open(bad, E_FAIL);
    HRESULT result = S_OK;
    EXPECT_FALSE(OpenStreamFile(nullptr, GENERIC_READ, &result));
    EXPECT_EQ(result, E_POINTER);
    EXPECT_FALSE(OpenStreamFile(path.c_str(), 0, &result));
    EXPECT_EQ(result, E_FAIL);
}

TEST_F(StreamFile, FollowsAFileThatOthersChange) {
    const fs::path path = m_folder / "a.ts";
    Append(path, 0, 0);
    const auto stream = Open(path);
    EXPECT_EQ(ReadChecked(stream, 10), 0u);

    // Grows in its last block, over its edge and on.
    uint64_t size = 0;
    for (const uint64_t to : {uint64_t{100}, kBlock - 1, kBlock, kBlock + 1, 3 * kBlock + 7}) {
        Append(path, size, to);
        EXPECT_EQ(ReadChecked(stream, 4 * kBlock), to - size) << to;
        EXPECT_EQ(ReadAt(stream, 0, 4 * kBlock), to) << to;
        size = to;
    }

    // Shrinks under the position, and is written anew up to where it was.
    fs::resize_file(path, 50);
    EXPECT_EQ(ReadChecked(stream, 10, 1), 0u);
    EXPECT_EQ(Seek(stream, 0, STREAM_SEEK_CUR), 50u);
    fs::resize_file(path, 0);
    EXPECT_EQ(ReadChecked(stream, 10), 0u);
    Append(path, 0, size, 1);
    EXPECT_EQ(ReadChecked(stream, 4 * kBlock, 1), size);

    // Another file under its name is opened as another one; the old one stays what it was.
    fs::remove(path);
    Open(path, E_FAIL);
    EXPECT_EQ(ReadAt(stream, 0, 4 * kBlock, 1), size);
    Append(path, 0, size, 2);
    const auto second = Open(path);
    EXPECT_EQ(ReadChecked(second, 4 * kBlock, 2), size);
    EXPECT_EQ(ReadAt(stream, 0, 4 * kBlock, 1), size);
    Append(m_folder / "b.ts", 0, size, 3);
    fs::rename(m_folder / "b.ts", path);
    EXPECT_EQ(ReadChecked(Open(path), 4 * kBlock, 3), size);
    EXPECT_EQ(ReadAt(second, 0, 4 * kBlock, 2), size);
}

TEST_F(StreamFile, SharesOneOpenFileBetweenReadersOfOnePath) {
    Append(m_folder / "clip.ts", 0, 2 * kBlock);
    fs::create_hard_link(m_folder / "clip.ts", m_folder / "CLIP.TS");
    fs::create_hard_link(m_folder / "clip.ts", m_folder / "other.ts");
    Append(m_folder / "Clip.ts", 0, 2 * kBlock, 1);
    auto first = Open(m_folder / "clip.ts");
    const auto second = Open(m_folder / "CLIP.TS");
    EXPECT_EQ(m_system.m_open, 1);
    const auto otherName = Open(m_folder / "other.ts");
    const auto otherFile = Open(m_folder / "Clip.ts");
    EXPECT_EQ(m_system.m_open, 3);

    EXPECT_EQ(ReadChecked(first, 1000), 1000u);
    EXPECT_EQ(ReadChecked(otherFile, 1000, 1), 1000u);
    m_system.TakeReads();
    EXPECT_EQ(ReadChecked(second, 5000), 5000u) << "a position of its own";
    EXPECT_EQ(m_system.TakeReads(), 0u);
    first.Reset();
    EXPECT_EQ(m_system.m_open, 3);
    EXPECT_EQ(ReadAt(second, kBlock - 5, 10), 10u);
}

TEST_F(StreamFile, CountsWhatCameBeforeABlockThatCannotBeRead) {
    Append(m_folder / "a.ts", 0, 3 * kBlock);
    const auto stream = Open(m_folder / "a.ts");
    m_system.m_failFrom = 2 * kBlock;
    Seek(stream, 5, STREAM_SEEK_SET);
    EXPECT_EQ(ReadChecked(stream, 3 * kBlock, 0, E_FAIL), 2 * kBlock - 5);
    EXPECT_EQ(ReadChecked(stream, 1, 0, E_FAIL), 0u);
    m_system.m_failFrom = UINT64_MAX;
    EXPECT_EQ(ReadChecked(stream, 2 * kBlock), kBlock);

    // Of a block with a sector that cannot be read all the rest comes, the second time too.
    m_system.m_failFrom = kBlock + 700;
    m_system.m_failEnd = kBlock + 1212;
    Append(m_folder / "b.ts", 0, 3 * kBlock);
    const auto other = Open(m_folder / "b.ts");
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(ReadAt(other, 5, 3 * kBlock), kBlock + 695);
        EXPECT_EQ(ReadChecked(other, 10, 0, E_FAIL), 0u);
        EXPECT_EQ(ReadAt(other, kBlock + 699, 10), 1u);
        EXPECT_EQ(ReadAt(other, m_system.m_failEnd, 10), 10u);
        EXPECT_EQ(ReadAt(other, m_system.m_failEnd, 2 * kBlock), 2 * kBlock - 1212);
    }
    m_system.m_failFrom = UINT64_MAX;

    // The file is shorter when it is read than when its size was asked for.
    for (const int64_t lie : {int64_t{1}, int64_t{kBlock}, int64_t{2 * kBlock + 9}}) {
        m_system.m_sizeLie = lie;
        EXPECT_EQ(ReadAt(stream, 2 * kBlock + 4, 8 * kBlock), kBlock - 4) << lie;
        EXPECT_EQ(ReadAt(stream, 3 * kBlock + 1, 10), 0u) << lie;
        m_system.m_sizeLie = 0;
        Append(m_folder / "a.ts", 3 * kBlock, 3 * kBlock + static_cast<uint64_t>(lie));
        EXPECT_EQ(ReadAt(stream, 3 * kBlock, 8 * kBlock), static_cast<uint64_t>(lie)) << "what came short was kept";
        fs::resize_file(m_folder / "a.ts", 3 * kBlock);
        EXPECT_EQ(Seek(stream, 0, STREAM_SEEK_END), 3 * kBlock);
    }
}

TEST_F(StreamFile, KeepsTheBlocksReadLastWithinTheCache) {
    const fs::path path = m_folder / "a.ts";
    Append(path, 0, 0);
    fs::resize_file(path, 100 * kBlock);  // zeroes, so the bytes are not looked at
    auto stream = Open(path);
    // How often the disk was asked for one byte of each block.
    const auto touch = [&](uint64_t from, uint64_t to) {
        uint8_t byte = 0;
        for (uint64_t block = from; block < to; ++block) {
            Seek(stream, static_cast<int64_t>(block * kBlock + block), STREAM_SEEK_SET);
            EXPECT_EQ(stream->Read(&byte, 1, nullptr), S_OK);
        }
        return m_system.TakeReads();
    };
    // Reads that fail leave no frame held.
    m_system.m_failFrom = 0;
    for (int i = 0; i < 200; ++i)
        EXPECT_EQ(ReadChecked(stream, 1, 0, E_FAIL), 0u);
    EXPECT_EQ(m_system.TakeReads(), 200u);
    m_system.m_failFrom = UINT64_MAX;

    EXPECT_EQ(touch(0, 80), 80u);
    EXPECT_EQ(touch(0, 80), 0u);
    // Eight blocks are not held. Used again and again they outlast the one that is let go now, but not
    // those that are held.
    EXPECT_EQ(touch(0, 8), 0u);
    EXPECT_EQ(touch(80, 81), 1u);
    EXPECT_EQ(touch(0, 8) + touch(9, 81), 0u);
    EXPECT_EQ(touch(8, 9), 1u);
    // A long way on, the last 72 are there and the first are gone.
    EXPECT_EQ(touch(20, 100), 19u);
    EXPECT_EQ(touch(28, 100), 0u);
    EXPECT_EQ(touch(0, 8), 8u);
    // The 72nd is held too: the oldest of those that are not makes room instead.
    stream.Reset();
    stream = Open(path);
    EXPECT_EQ(touch(0, 80), 80u);
    EXPECT_EQ(touch(0, 9), 0u);
    EXPECT_EQ(touch(80, 81), 1u);
    EXPECT_EQ(touch(1, 81), 0u);

    // Another file keeps the cache, but nothing of a file that was closed is found again.
    Append(m_folder / "b.ts", 0, 1);
    auto other = Open(m_folder / "b.ts");
    stream.Reset();
    stream = Open(path);
    EXPECT_EQ(touch(70, 80), 10u);
    EXPECT_EQ(ReadChecked(other, 5), 1u);
}

TEST_F(StreamFile, LeavesNothingHalfMadeWhenMemoryRunsOut) {
    Append(m_folder / "a.ts", 0, 100);
    const std::string path = (m_folder / "a.ts").string();
    for (const bool another : {false, true}) {
        const auto keeper = another ? Open(path) : nullptr;
        int failures = 0;
        for (ComPtr<IStream> stream; !stream && failures < 100; ++failures) {
            HRESULT result = S_OK;
            t_allocations = failures;
            stream = OpenStreamFile(path.c_str(), GENERIC_READ, &result, m_system);
            t_allocations = -1;
            EXPECT_EQ(result, stream ? S_OK : E_OUTOFMEMORY) << failures;
            EXPECT_EQ(m_system.m_open, stream || another ? 1 : 0) << failures;
            EXPECT_EQ(stream ? ReadChecked(stream, 200) : 100u, 100u);
        }
        EXPECT_GT(failures, 3);
        EXPECT_LT(failures, 100);
    }
}

TEST_F(StreamFile, ManyThreadsReadManyFilesWhileOneGrows) {
    constexpr uint32_t kReaders = 4;
    constexpr uint64_t kSteps = 60;
    const fs::path paths[] = {m_folder / "a.ts", m_folder / "b.ts"};
    std::atomic<uint64_t> sizes[] = {3 * kBlock, 4 * kBlock + 321};
    for (uint32_t i = 0; i < 2; ++i)
        Append(paths[i], 0, sizes[i], i);
    std::vector<std::shared_ptr<CThread>> threads;
    for (uint32_t reader = 0; reader < kReaders; ++reader)
        threads.push_back(CThread::Create(0, [&, reader] {
            std::mt19937 random(reader);
            const uint32_t file = reader % 2;
            for (int round = 0; round < 10; ++round) {
                HRESULT result = E_FAIL;
                const auto stream = OpenStreamFile(paths[file].c_str(), GENERIC_READ, &result);
                EXPECT_EQ(result, S_OK);
                for (int i = 0; i < 10 && stream; ++i) {
                    const uint64_t written = sizes[file];
                    const uint64_t offset = random() % written;
                    const auto count = static_cast<ULONG>(random() % (kBlock + kBlock / 2));
                    EXPECT_GE(ReadAt(stream, offset, count, file), std::min<uint64_t>(count, written - offset));
                }
            }
            return 0u;
        }));
    for (uint64_t step = 0; step < kSteps; ++step) {
        const uint64_t size = sizes[0];
        Append(paths[0], size, size + 9999);
        sizes[0] = size + 9999;
    }
    for (const auto& thread : threads)
        ASSERT_TRUE(thread->Wait(120000));
}

}  // namespace
}  // namespace tessel
