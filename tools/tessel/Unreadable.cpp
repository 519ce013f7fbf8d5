#include "tools/tessel/Unreadable.h"

#include <algorithm>
#include <atomic>
#include <iterator>
#include <map>
#include <mutex>

namespace tessel::tool {

namespace {

// The least that a drive reads; of larger sectors the rest fails too.
constexpr int64_t kSector = 512;

std::atomic<bool> g_skips{false};

// The parts that could not be read, which do not overlap.
class Holes {
public:
    void Add(int64_t begin, int64_t end) {
        const std::lock_guard lock(m_mutex);
        auto next = m_ends.upper_bound(begin);
        if (next != m_ends.begin() && std::prev(next)->second >= begin) {
            --next;
            begin = next->first;
        }
        for (; next != m_ends.end() && next->first <= end; next = m_ends.erase(next))
            end = std::max(end, next->second);
        m_ends[begin] = end;
    }
    PassedOver All() const {
        const std::lock_guard lock(m_mutex);
        PassedOver all;
        for (const auto& [begin, end] : m_ends)
            all.bytes += end - begin;
        if (!m_ends.empty())
            all.first = m_ends.begin()->first;
        return all;
    }

private:
    mutable std::mutex m_mutex;
    std::map<int64_t, int64_t> m_ends;  // by beginning
};

Holes g_holes;

class SkippingFile final : public CFile {
public:
    explicit SkippingFile(std::unique_ptr<CFile> file) : m_file(std::move(file)) {}

    Identity GetIdentity() const override { return m_file->GetIdentity(); }
    uint32_t GetDriveType() const override { return m_file->GetDriveType(); }
    int64_t GetSize() const override { return m_file->GetSize(); }
    int64_t ReadAt(uint64_t offset, std::span<uint8_t> buffer) const override {
        const int64_t left = std::max<int64_t>(GetSize() - static_cast<int64_t>(offset), 0);
        buffer = buffer.first(std::min<uint64_t>(buffer.size(), static_cast<uint64_t>(left)));
        size_t done = 0;
        while (done < buffer.size()) {
            const int64_t count = m_file->ReadAt(offset + done, buffer.subspan(done));
            if (count == 0)
                break;
            done += count > 0 ? static_cast<size_t>(count)
                              : PassOver(static_cast<int64_t>(offset + done), buffer.subspan(done));
        }
        return static_cast<int64_t>(done);
    }

private:
    const std::unique_ptr<CFile> m_file;
};

class SkippingSystem final : public CFileSystem {
public:
    std::unique_ptr<CFile> Open(const char* path, uint32_t access) const override {
        auto file = CFileSystem::Open(path, access);
        return file ? std::make_unique<SkippingFile>(std::move(file)) : nullptr;
    }
};

}  // namespace

void SkipUnreadable() {
    g_skips = true;
}

bool SkipsUnreadable() {
    return g_skips;
}

const CFileSystem& InputFiles() {
    static const SkippingSystem skipping;
    return g_skips ? skipping : CFileSystem::System();
}

size_t PassOver(int64_t position, std::span<uint8_t> buffer) {
    buffer = buffer.first(std::min(buffer.size(), static_cast<size_t>(kSector - position % kSector)));
    std::fill(buffer.begin(), buffer.end(), uint8_t{0});
    g_holes.Add(position, position + static_cast<int64_t>(buffer.size()));
    return buffer.size();
}

PassedOver AllPassedOver() {
    return g_holes.All();
}

}  // namespace tessel::tool
