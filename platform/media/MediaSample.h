// The sample of CMemAllocator.
#pragma once

#include <atomic>
#include <memory>
#include <optional>

#include "platform/media/Allocator.h"

// Who lends samples their memory.
class ISampleMemory {
public:
    // A sample has no more use for what it was lent of the block. On any thread.
    virtual void TakeBack(void* block) = 0;

protected:
    ~ISampleMemory() = default;
};

// A sample whose maker need not copy into it.
class ILendableSample : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{4F6D3C1A-52B7-4E0B-9C55-8C0E1B7A64D2}");

    // Until it is back at its allocator the sample has that part of the owner's block, size bytes, in place of its own
    // memory. False, with nothing done, when the part is larger than its own memory, or does not lie as the allocator
    // has to place it.
    virtual bool Lend(const std::shared_ptr<ISampleMemory>& owner, void* block, uint8_t* part, LONG size) = 0;

protected:
    ~ILendableSample() = default;
};

// It belongs to its allocator, which it gets back to when nobody refers to it any more.
class CMediaSample : public IMediaSample, public ILendableSample {
public:
    // allocator holds the sample and its memory, and lives while a reference is out. align: a power of two; prefix:
    // bytes in front of buffer.
    CMediaSample(IMemAllocator* allocator, uint8_t* buffer, LONG size, LONG align = 1, LONG prefix = 0)
        : m_allocator(allocator), m_buffer(buffer), m_size(size), m_align(align), m_prefix(prefix), m_length(size) {}
    virtual ~CMediaSample() = default;

    CMediaSample(const CMediaSample&) = delete;
    CMediaSample& operator=(const CMediaSample&) = delete;

    HRESULT QueryInterface(const IID& iid, void** out) override;
    ULONG AddRef() override;
    ULONG Release() override;

    HRESULT GetPointer(uint8_t** out) override;
    LONG GetSize() override { return m_lender ? m_lentSize : m_size; }
    HRESULT GetTime(REFERENCE_TIME* start, REFERENCE_TIME* end) override;
    HRESULT SetTime(const REFERENCE_TIME* start, const REFERENCE_TIME* end) override;
    HRESULT IsSyncPoint() override { return m_syncPoint ? S_OK : S_FALSE; }
    HRESULT SetSyncPoint(BOOL set) override { return m_syncPoint = set != 0, S_OK; }
    HRESULT IsPreroll() override { return m_preroll ? S_OK : S_FALSE; }
    HRESULT SetPreroll(BOOL set) override { return m_preroll = set != 0, S_OK; }
    LONG GetActualDataLength() override { return m_length; }
    HRESULT SetActualDataLength(LONG length) override;
    HRESULT GetMediaType(AM_MEDIA_TYPE** out) override;
    HRESULT SetMediaType(const AM_MEDIA_TYPE* type) override;
    HRESULT IsDiscontinuity() override { return m_discontinuity ? S_OK : S_FALSE; }
    HRESULT SetDiscontinuity(BOOL set) override { return m_discontinuity = set != 0, S_OK; }
    HRESULT GetMediaTime(int64_t* start, int64_t* end) override;
    HRESULT SetMediaTime(const int64_t* start, const int64_t* end) override;

    bool Lend(const std::shared_ptr<ISampleMemory>& owner, void* block, uint8_t* part, LONG size) override;

private:
    IMemAllocator* const m_allocator;
    uint8_t* const m_buffer;
    const LONG m_size;
    const LONG m_align;
    const LONG m_prefix;
    std::atomic<int32_t> m_references{0};

    // Back to these values with every round.
    std::shared_ptr<ISampleMemory> m_lender;
    void* m_block = nullptr;
    uint8_t* m_lent = nullptr;
    LONG m_lentSize = 0;
    LONG m_length;
    std::optional<REFERENCE_TIME> m_start;
    std::optional<REFERENCE_TIME> m_end;
    std::optional<int64_t> m_mediaStart;
    int64_t m_mediaEnd = 0;
    bool m_syncPoint = false;
    bool m_preroll = false;
    bool m_discontinuity = false;
    CMediaType m_type;
};
