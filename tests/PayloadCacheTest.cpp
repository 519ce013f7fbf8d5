// Payload in blocks: the bytes come out as they went in, copied or lent.
#include "output/PayloadCache.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "platform/com/ComPtr.h"
#include "platform/media/MediaResult.h"
#include "platform/media/MemAllocator.h"

namespace tessel {
namespace {

constexpr int32_t kBlock = PayloadBlock::kSize;
constexpr int32_t kSample = kLargestSample;

using Bytes = std::vector<uint8_t>;

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

TEST(PayloadCache, LendsWhatLiesInOneBlock) {
    const auto allocator = MakeAllocator({4, kSample, 1, 0});
    CPayloadCache cache;
    Stream stream(cache);
    stream.Append(50'000);
    cache.BeginUnit();  // there is room for another sample
    stream.Append(kBlock - kSample - 49'999);
    cache.BeginUnit();  // too little room
    stream.Append(kBlock + 20'000);

    const auto first = SampleOf(*allocator);
    EXPECT_FALSE(stream.Take(*first, 100));
    EXPECT_TRUE(stream.Take(*first, 50'000));
    EXPECT_EQ(first->GetSize(), 50'000) << "what lies behind is not the sample's";
    EXPECT_EQ(first->SetActualDataLength(50'001), VFW_E_BUFFER_OVERFLOW);
    const uint8_t* const lent = PointerOf(*first);
    stream.Copy(1);
    const auto second = SampleOf(*allocator);
    EXPECT_TRUE(stream.Take(*second, kBlock - kSample - 50'000)) << "up to the end of the block";
    EXPECT_EQ(PointerOf(*second), lent + 50'001);
    const auto third = SampleOf(*allocator);
    EXPECT_TRUE(stream.Take(*third, kSample));
    stream.Skip(kBlock - kSample - 10'000);
    EXPECT_FALSE(stream.Take(*SampleOf(*allocator), 20'000)) << "in two blocks";
    stream.Copy(20'000);
    EXPECT_EQ(cache.Available(), 10'000);
}

// What is lent stays as it is, whatever is written meanwhile.
TEST(PayloadCache, WritesBehindWhatIsLent) {
    const auto allocator = MakeAllocator({16, kSample, 1, 0});
    CPayloadCache cache;
    Stream stream(cache);
    std::vector<std::pair<ComPtr<IMediaSample>, Bytes>> held;
    for (int i = 0; i < 12; ++i) {
        held.emplace_back(SampleOf(*allocator), Bytes());
        cache.BeginUnit();
        stream.Append(40'000);
        ASSERT_TRUE(stream.Take(*held.back().first, 40'000)) << i;
        const uint8_t* const bytes = PointerOf(*held.back().first);
        held.back().second.assign(bytes, bytes + 40'000);
    }
    for (const auto& [sample, bytes] : held)
        EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), PointerOf(*sample)));
}

TEST(PayloadCache, GivesTheBytesInOrderWhateverTheSteps) {
    const auto allocator = MakeAllocator({4, kSample, 1, 0});
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
            const int32_t count = std::min(cache.Available(), kSample);
            held.push_back(SampleOf(*allocator));
            if (stream.Take(*held.back(), count))
                ++lent;
            else
                stream.Copy(count);
        }
        }
        ASSERT_FALSE(testing::Test::HasFailure()) << "step " << i;
    }
    EXPECT_GT(lent, 100);
}

TEST(LendableSample, HasItsOwnMemoryAgainAfterARound) {
    const auto pool = std::make_shared<CBlockPool>();
    for (const ALLOCATOR_PROPERTIES& request :
         {ALLOCATOR_PROPERTIES{1, kSample, 64, 0}, {1, kSample, 4096, 0}, {1, kSample, 1, 8}, {1, kSample - 1, 1, 0}}) {
        const auto allocator = MakeAllocator(request);
        auto sample = SampleOf(*allocator);
        const uint8_t* const own = PointerOf(*sample);
        PayloadBlock* const block = pool->Take();
        // A block may happen to lie on a page.
        const bool fits = reinterpret_cast<uintptr_t>(block->bytes) % static_cast<uintptr_t>(request.cbAlign) == 0 &&
                          request.cbPrefix == 0 && request.cbBuffer >= kSample;
        EXPECT_EQ(sample.As<ILendableSample>()->Lend(pool, block, block->bytes, kSample), fits);
        EXPECT_EQ(PointerOf(*sample), fits ? block->bytes : own);
        if (!fits)
            pool->TakeBack(block);
        sample.Reset();
        PayloadBlock* const again = pool->Take();
        EXPECT_EQ(again, block) << "it came back";
        pool->TakeBack(again);
        sample = SampleOf(*allocator);
        EXPECT_EQ(PointerOf(*sample), own);
        EXPECT_GE(sample->GetSize(), request.cbBuffer);
    }
}

}  // namespace
}  // namespace tessel
