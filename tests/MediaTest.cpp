// The parts of the media layer that need no graph: media types, samples, the allocator, saved state.
#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "platform/com/ComPtr.h"
#include "platform/com/MemoryStream.h"
#include "platform/com/TaskMemory.h"
#include "platform/media/MediaResult.h"
#include "platform/media/MemAllocator.h"
#include "platform/media/PersistStream.h"
#include "platform/os/Thread.h"

namespace {

constexpr uint32_t kBound = 60000;

TEST(MediaType, OwnsItsFormatAndItsObject) {
    const ComPtr<CMemoryStream> object(new CMemoryStream());
    uint8_t format[] = {1, 2, 3};
    AM_MEDIA_TYPE plain;
    plain.majortype = MEDIATYPE_Video;
    plain.pUnk = object->GetOwner();
    plain.cbFormat = sizeof(format);
    plain.pbFormat = format;

    CMediaType type;
    ASSERT_EQ(type.Set(plain), S_OK);
    format[0] = 9;
    EXPECT_EQ(type.pbFormat[0], 1) << "a copy of its own";
    EXPECT_FALSE(type == plain);
    CMediaType moved(std::move(type));
    EXPECT_EQ(type.pbFormat, nullptr);
    ASSERT_EQ(moved.Set(moved), S_OK);
    ASSERT_EQ(moved.cbFormat, 3u) << "setting it to itself frees nothing";
    AM_MEDIA_TYPE* created = CreateMediaType(&moved);
    ASSERT_NE(created, nullptr);
    EXPECT_TRUE(*created == moved);
    DeleteMediaType(created);
    ASSERT_EQ(moved.SetFormat(moved.pbFormat + 1, 2), S_OK);
    EXPECT_EQ(moved.pbFormat[1], 3);
    moved.ResetMediaType();
    object->AddRef();
    EXPECT_EQ(object->Release(), 1u) << "every reference was given back";

    plain.cbFormat = 1000;  // a length without a block
    plain.pbFormat = nullptr;
    ASSERT_EQ(type.Set(plain), S_OK);
    EXPECT_EQ(type.cbFormat, 0u);
}

ComPtr<CMemAllocator> MakeAllocator(LONG buffers, LONG size, LONG align = 1, LONG prefix = 0) {
    ComPtr<CMemAllocator> allocator(new CMemAllocator());
    const ALLOCATOR_PROPERTIES request{.cBuffers = buffers, .cbBuffer = size, .cbAlign = align, .cbPrefix = prefix};
    ALLOCATOR_PROPERTIES actual;
    EXPECT_EQ(allocator->SetProperties(&request, &actual), S_OK);
    EXPECT_EQ(actual.cbBuffer, size);
    return allocator;
}

ComPtr<IMediaSample> Take(CMemAllocator& allocator, HRESULT expected = S_OK) {
    ComPtr<IMediaSample> sample;
    EXPECT_EQ(allocator.GetBuffer(sample.Put(), nullptr, nullptr, AM_GBF_NOWAIT), expected);
    return sample;
}

TEST(Sample, KeepsTimesAndMarksUntilItIsGivenBack) {
    const auto allocator = MakeAllocator(1, 100);
    ASSERT_EQ(allocator->Commit(), S_OK);
    auto sample = Take(*allocator);
    const REFERENCE_TIME start = -5, end = 70;
    REFERENCE_TIME gotStart = 0, gotEnd = 0;
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(sample->GetTime(&gotStart, &gotEnd), VFW_E_SAMPLE_TIME_NOT_SET);
        EXPECT_EQ(sample->GetMediaTime(&gotStart, &gotEnd), VFW_E_MEDIA_TIME_NOT_SET);
        EXPECT_EQ(sample->IsSyncPoint(), S_FALSE);
        EXPECT_EQ(sample->IsPreroll(), S_FALSE);
        EXPECT_EQ(sample->IsDiscontinuity(), S_FALSE);
        EXPECT_EQ(sample->GetActualDataLength(), 100);
        AM_MEDIA_TYPE* type = nullptr;
        EXPECT_EQ(sample->GetMediaType(&type), S_FALSE);

        sample->SetTime(&start, nullptr);
        EXPECT_EQ(sample->GetTime(&gotStart, &gotEnd), VFW_S_NO_STOP_TIME);
        EXPECT_EQ(gotEnd, -4);
        sample->SetTime(&start, &end);
        EXPECT_EQ(sample->GetTime(&gotStart, &gotEnd), S_OK);
        EXPECT_EQ(gotStart, start);
        EXPECT_EQ(gotEnd, end);
        sample->SetMediaTime(&end, &start);
        EXPECT_EQ(sample->GetMediaTime(&gotStart, &gotEnd), S_OK);
        EXPECT_EQ(gotStart, end);
        EXPECT_EQ(sample->SetActualDataLength(101), VFW_E_BUFFER_OVERFLOW);
        EXPECT_EQ(sample->SetActualDataLength(-1), E_INVALIDARG);
        EXPECT_EQ(sample->SetActualDataLength(0), S_OK);
        sample->SetSyncPoint(1);
        sample->SetPreroll(1);
        sample->SetDiscontinuity(1);
        AM_MEDIA_TYPE given;
        given.majortype = MEDIATYPE_Stream;
        sample->SetMediaType(&given);
        ASSERT_EQ(sample->GetMediaType(&type), S_OK);
        EXPECT_EQ(type->majortype, MEDIATYPE_Stream);
        DeleteMediaType(type);
        EXPECT_EQ(sample->IsSyncPoint(), S_OK);
        EXPECT_EQ(sample->IsPreroll(), S_OK);
        EXPECT_EQ(sample->IsDiscontinuity(), S_OK);

        sample.Reset();
        sample = Take(*allocator);  // the same buffer, as new
    }
}

TEST(Allocator, RefusesWhatItCannotDo) {
    struct Case {
        ALLOCATOR_PROPERTIES request;
        HRESULT set;
        HRESULT commit;
    };
    for (const Case& c : {
             Case{{-1, 100, 1, 0}, E_INVALIDARG, VFW_E_SIZENOTSET},
             Case{{1, -100, 1, 0}, E_INVALIDARG, VFW_E_SIZENOTSET},
             Case{{1, 100, 1, -1}, E_INVALIDARG, VFW_E_SIZENOTSET},
             Case{{1, 100, 0, 0}, VFW_E_BADALIGN, VFW_E_SIZENOTSET},
             Case{{1, 100, 3, 0}, VFW_E_BADALIGN, VFW_E_SIZENOTSET},
             Case{{0, 100, 1, 0}, S_OK, VFW_E_SIZENOTSET},
             Case{{1, 0, 1, 0}, S_OK, VFW_E_SIZENOTSET},
         }) {
        const ComPtr<CMemAllocator> allocator(new CMemAllocator());
        ALLOCATOR_PROPERTIES actual;
        EXPECT_EQ(allocator->SetProperties(&c.request, &actual), c.set);
        EXPECT_EQ(allocator->Commit(), c.commit);
    }
    const auto allocator = MakeAllocator(1, 100);
    Take(*allocator, VFW_E_NOT_COMMITTED);
    ASSERT_EQ(allocator->Commit(), S_OK);
    ALLOCATOR_PROPERTIES properties{2, 200, 1, 0};
    EXPECT_EQ(allocator->SetProperties(&properties, &properties), VFW_E_ALREADY_COMMITTED);
    auto sample = Take(*allocator);
    Take(*allocator, VFW_E_TIMEOUT);
    allocator->Decommit();
    EXPECT_EQ(allocator->SetProperties(&properties, &properties), VFW_E_BUFFERS_OUTSTANDING);
    sample.Reset();
    EXPECT_EQ(allocator->SetProperties(&properties, &properties), S_OK);
}

TEST(Allocator, GivesAlignedBuffersThatDoNotOverlap) {
    const auto allocator = MakeAllocator(3, 100, 64, 10);
    ASSERT_EQ(allocator->Commit(), S_OK);
    std::vector<ComPtr<IMediaSample>> samples;
    std::vector<uint8_t*> buffers;
    for (int i = 0; i < 3; ++i) {
        samples.push_back(Take(*allocator));
        uint8_t* buffer = nullptr;
        ASSERT_EQ(samples.back()->GetPointer(&buffer), S_OK);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(buffer) % 64, 0u);
        std::fill(buffer - 10, buffer + 100, static_cast<uint8_t>(i));  // the prefix too: asan looks on
        buffers.push_back(buffer);
    }
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(buffers[i][-10] == i && buffers[i][99] == i) << i;
}

TEST(Allocator, LivesUntilTheLastSampleIsBack) {
    auto allocator = MakeAllocator(2, 100);
    ASSERT_EQ(allocator->Commit(), S_OK);
    const auto sample = Take(*allocator);
    allocator->Decommit();
    allocator->Commit();  // takes the buffer that is out on again
    const auto other = Take(*allocator);
    Take(*allocator, VFW_E_TIMEOUT);
    allocator.Reset();
    uint8_t* buffer = nullptr;
    sample->GetPointer(&buffer);
    std::fill_n(buffer, 100, 1);  // asan looks on
}

TEST(Allocator, EndsAWaitByAReleaseAndByDecommit) {
    const auto allocator = MakeAllocator(1, 100);
    ASSERT_EQ(allocator->Commit(), S_OK);
    for (const bool release : {true, false}) {
        auto held = Take(*allocator);
        std::atomic<bool> begun{false};
        std::atomic<HRESULT> result{E_FAIL};
        const auto thread = CThread::Create(0, [&]() -> uint32_t {
            begun = true;
            ComPtr<IMediaSample> sample;
            result = allocator->GetBuffer(sample.Put(), nullptr, nullptr, 0);
            return 0;
        });
        ASSERT_NE(thread, nullptr);
        while (!begun)
            Sleep(1);
        EXPECT_FALSE(thread->Wait(20)) << "it waits";
        if (release) {
            held.Reset();
        } else {
            allocator->Decommit();
            allocator->Commit();  // at once: the waiter must not be caught again
        }
        ASSERT_TRUE(thread->Wait(kBound));
        EXPECT_EQ(result, release ? S_OK : VFW_E_NOT_COMMITTED);
    }
}

class Saved final : public CPersistStream, public CUnknown {
public:
    explicit Saved(DWORD version) : CUnknown("Saved", nullptr), m_version(version) {}
    DECLARE_IUNKNOWN
    HRESULT GetClassID(CLSID*) override { return E_NOTIMPL; }
    DWORD GetSoftwareVersion() override { return m_version; }
    uint64_t SizeMax() override { return 4; }
    HRESULT ScribbleToStream(IStream* stream) override { return WriteAll(*stream, &m_value, 4); }
    HRESULT ReadFromStream(IStream* stream) override { return ReadAll(*stream, &m_value, 4); }

    const DWORD m_version;
    uint32_t m_value = 0;
};

TEST(PersistStream, PutsTheVersionInFrontAndRefusesAnother) {
    const ComPtr<CMemoryStream> stream(new CMemoryStream());
    const ComPtr<Saved> saved(new Saved(7));
    saved->m_value = 0x01020304;
    saved->SetDirty(true);
    ASSERT_EQ(saved->Save(stream.Get(), 0), S_OK);
    EXPECT_EQ(saved->IsDirty(), S_OK);
    stream->Seek(0, STREAM_SEEK_SET, nullptr);
    ASSERT_EQ(saved->Save(stream.Get(), 1), S_OK);
    EXPECT_EQ(saved->IsDirty(), S_FALSE);

    const std::u16string_view expected = u"00000000007 ";
    ASSERT_EQ(stream->Bytes().size(), 28u);
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(stream->Bytes()[2 * i], expected[i]) << i;
        EXPECT_EQ(stream->Bytes()[2 * i + 1], 0) << i;
    }
    uint64_t size = 0;
    EXPECT_EQ(saved->GetSizeMax(&size), S_OK);
    EXPECT_EQ(size, 28u);

    const auto load = [&](DWORD version, uint64_t length) {
        const ComPtr<Saved> loaded(new Saved(version));
        stream->SetSize(length);
        stream->Seek(0, STREAM_SEEK_SET, nullptr);
        const HRESULT result = loaded->Load(stream.Get());
        if (SUCCEEDED(result) || version != 7) {
            EXPECT_EQ(loaded->m_value, SUCCEEDED(result) ? 0x01020304u : 0u) << version;
        }
        return result;
    };
    EXPECT_EQ(load(7, 28), S_OK);
    EXPECT_EQ(load(6, 28), E_FAIL);
    EXPECT_EQ(load(8, 28), E_FAIL);
    for (const uint64_t cut : {27, 24, 23, 1, 0})
        EXPECT_EQ(load(7, cut), E_FAIL) << cut;
}

}  // namespace
