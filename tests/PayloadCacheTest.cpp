// Payload in blocks: the bytes come out as they went in, copied or lent.
#include "output/PayloadCache.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "platform/com/ComPtr.h"
#include "platform/media/MemAllocator.h"

namespace tessel {
namespace {

constexpr int32_t kBlock = CBlockPool::kBlockSize;

ComPtr<CMemAllocator> MakeAllocator(ALLOCATOR_PROPERTIES request) {
    ComPtr<CMemAllocator> allocator(new CMemAllocator());
    ALLOCATOR_PROPERTIES actual;
    EXPECT_EQ(allocator->SetProperties(&request, &actual), S_OK);
    EXPECT_EQ(allocator->Commit(), S_OK);
    return allocator;
}

ComPtr<IMediaSample> SampleOf(CMemAllocator& allocator) {
    ComPtr<IMediaSample> sample;
    EXPECT_EQ(allocator.GetBuffer(sample.Put(), nullptr, nullptr, AM_GBF_NOWAIT), S_OK);
    return sample;
}

uint8_t* PointerOf(IMediaSample& sample) {
    uint8_t* pointer = nullptr;
    EXPECT_EQ(sample.GetPointer(&pointer), S_OK);
    return pointer;
}

// A stream whose every byte is known by its position.
class Stream {
public:
    explicit Stream(CPayloadCache& cache) : m_cache(cache) {}

    void Append(int32_t length) {
        std::vector<uint8_t> bytes(static_cast<size_t>(length));
        for (uint8_t& byte : bytes)
            byte = At(m_in++);
        for (int32_t at = 0; at < length; at += 184) {
            const int32_t piece = std::min(length - at, 184);
            ASSERT_TRUE(m_cache.Reserve(piece));
            m_cache.Append(bytes.data() + at, piece);
        }
    }
    void Skip(int32_t count) {
        m_cache.Skip(count);
        m_out += count;
    }
    void Copy(int32_t count) {
        std::vector<uint8_t> bytes(static_cast<size_t>(count));
        m_cache.CopyTo(bytes.data(), count);
        Compare(bytes.data(), count);
        m_cache.Skip(count);
    }
    // Whether it was lent.
    bool Take(IMediaSample& sample, int32_t count) {
        if (!m_cache.LendTo(sample, count))
            return false;
        Compare(PointerOf(sample), count);
        return true;
    }

private:
    static uint8_t At(int64_t position) { return static_cast<uint8_t>(position * 31 ^ position >> 9); }
    void Compare(const uint8_t* bytes, int32_t count) {
        for (int32_t i = 0; i < count; ++i)
            ASSERT_EQ(bytes[i], At(m_out + i)) << "at " << m_out + i;
        m_out += count;
    }

    CPayloadCache& m_cache;
    int64_t m_in = 0;
    int64_t m_out = 0;
};

TEST(PayloadCache, LendsWhatIsABlockByItself) {
    const auto allocator = MakeAllocator({3, kBlock, 1, 0});
    CPayloadCache cache;
    Stream stream(cache);
    stream.Append(50'000);
    cache.BeginUnit();
    stream.Append(2 * kBlock + 20'000);
    cache.BeginUnit();  // too little in that block to end it
    stream.Append(10'000);

    const auto first = SampleOf(*allocator);
    EXPECT_FALSE(stream.Take(*first, 49'999));
    EXPECT_TRUE(stream.Take(*first, 50'000));
    const uint8_t* const lent = PointerOf(*first);
    const auto second = SampleOf(*allocator);
    stream.Copy(1);
    EXPECT_FALSE(stream.Take(*second, kBlock - 1)) << "its begin is gone";
    stream.Copy(kBlock - 1);
    EXPECT_TRUE(stream.Take(*second, kBlock));
    EXPECT_FALSE(stream.Take(*SampleOf(*allocator), 20'000)) << "it shares the block";
    stream.Copy(20'000);
    EXPECT_EQ(cache.Available(), 10'000);
    EXPECT_EQ(PointerOf(*first), lent) << "nothing that came later moved what was lent";
}

// A block that is lent while it is written to ends there.
TEST(PayloadCache, GoesOnBehindALentBlock) {
    const auto allocator = MakeAllocator({2, kBlock, 1, 0});
    CPayloadCache cache;
    Stream stream(cache);
    for (int i = 0; i < 5; ++i) {
        const auto sample = SampleOf(*allocator);
        stream.Append(40'000);
        EXPECT_TRUE(stream.Take(*sample, 40'000));
        EXPECT_EQ(cache.Room(), 0);
    }
}

TEST(PayloadCache, GivesTheBytesInOrderWhateverTheSteps) {
    const auto allocator = MakeAllocator({4, kBlock, 1, 0});
    CPayloadCache cache;
    Stream stream(cache);
    std::mt19937 random(7);
    const auto upTo = [&random](int32_t most) { return static_cast<int32_t>(random() % static_cast<uint32_t>(most)); };
    std::vector<ComPtr<IMediaSample>> held;
    int lent = 0;
    for (int i = 0; i < 3000; ++i) {
        if (held.size() > 2)
            held.erase(held.begin() + upTo(3));
        switch (random() % 5) {
        case 0:
            cache.BeginUnit();
            [[fallthrough]];
        case 1:
            stream.Append(upTo(60'000));
            break;
        case 2:
            stream.Copy(upTo(std::min(cache.Available(), 30'000) + 1));
            break;
        case 3:
            if (i % 50 == 0)
                stream.Skip(cache.Available());
            break;
        default: {
            const int32_t count = std::min(cache.Available(), kBlock);
            held.push_back(SampleOf(*allocator));
            if (stream.Take(*held.back(), count))
                ++lent;
            else
                stream.Copy(count);
        }
        }
        ASSERT_FALSE(testing::Test::HasFailure()) << "step " << i;
    }
    EXPECT_GT(lent, 20);
}

TEST(LendableSample, HasItsOwnMemoryAgainAfterARound) {
    const auto pool = std::make_shared<CBlockPool>();
    for (const ALLOCATOR_PROPERTIES& request :
         {ALLOCATOR_PROPERTIES{1, kBlock, 16, 0}, {1, kBlock, 4096, 0}, {1, kBlock, 1, 8}, {1, kBlock + 1, 1, 0}}) {
        const auto allocator = MakeAllocator(request);
        auto sample = SampleOf(*allocator);
        const uint8_t* const own = PointerOf(*sample);
        uint8_t* const block = pool->Take();
        const bool fits = request.cbAlign <= 64 && request.cbPrefix == 0 && request.cbBuffer <= kBlock;
        // A block may happen to lie on a page.
        const bool lent = sample.As<ILendableSample>()->Lend(pool, block, kBlock);
        EXPECT_EQ(lent, fits || (request.cbAlign == 4096 && reinterpret_cast<uintptr_t>(block) % 4096 == 0));
        EXPECT_EQ(PointerOf(*sample), lent ? block : own);
        if (!lent)
            pool->TakeBack(block);
        sample.Reset();
        uint8_t* const again = pool->Take();
        EXPECT_EQ(again, block) << "it came back";
        pool->TakeBack(again);
        EXPECT_EQ(PointerOf(*SampleOf(*allocator)), own);
    }
}

}  // namespace
}  // namespace tessel
