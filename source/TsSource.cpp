#include "source/TsSource.h"

#include "core/PropertyPages.h"
#include "platform/media/MediaResult.h"
#include "source/StreamFile.h"

namespace tessel {

namespace {

constexpr size_t kMostName = 259;

constexpr CLSID kPages[] = {kPageServices, kPageProgramAssociationTable, kPagePidMapping, kPageOutputPins};

// UTF-8, the narrow text of the system; nothing for text that is no UTF-16.
std::optional<std::string> ToNarrow(std::u16string_view text) {
    std::string narrow;
    for (size_t i = 0; i < text.size(); ++i) {
        uint32_t code = text[i];
        if (code >= 0xD800 && code <= 0xDFFF) {
            const uint32_t low = i + 1 < text.size() ? text[i + 1] : 0u;
            if (code >= 0xDC00 || low < 0xDC00 || low > 0xDFFF)
                return std::nullopt;
            code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
            ++i;
        }
        const auto tail = [&](int shift) { narrow += static_cast<char>(0x80 | (code >> shift & 0x3F)); };
        if (code < 0x80) {
            narrow += static_cast<char>(code);
        } else if (code < 0x800) {
            narrow += static_cast<char>(0xC0 | code >> 6);
            tail(0);
        } else if (code < 0x10000) {
            narrow += static_cast<char>(0xE0 | code >> 12);
            tail(6);
            tail(0);
        } else {
            narrow += static_cast<char>(0xF0 | code >> 18);
            tail(12);
            tail(6);
            tail(0);
        }
    }
    return narrow;
}

}  // namespace

CTsSource::CTsSource(IUnknown* outer)
    : CTsFilterBase("CTsSource", kBufferSize, outer),
      m_workEvent(std::make_shared<CEvent>(EventReset::kAuto)),
      m_hurry(std::make_shared<CEvent>(EventReset::kAuto)),
      m_worker(this, m_workEvent) {}

CTsSource::~CTsSource() {
    Stop();
}

void CTsSource::EndThreads() {
    CTsFilterBase::EndThreads();
    m_worker.End();
}

HRESULT CTsSource::NonDelegatingQueryInterface(const IID& iid, void** out) {
    if (out == nullptr)
        return E_POINTER;
    if (iid == ISpecifyPropertyPages::kIid)
        return GetInterface<ISpecifyPropertyPages>(this, out);
    if (iid == IFileSourceFilter::kIid)
        return GetInterface<IFileSourceFilter>(this, out);
    if (iid == IMediaSeeking::kIid)
        return GetInterface<IMediaSeeking>(this, out);
    if (IsServiceInformation(iid))
        return GetInterface<IDvbServiceInformationEx>(this, out);
    if (iid == IRALThreadExecutor::kIid)
        return GetInterface<IRALThreadExecutor>(this, out);
    return CTsFilterBase::NonDelegatingQueryInterface(iid, out);
}

HRESULT CTsSource::GetClassID(CLSID* out) {
    if (out == nullptr)
        return E_POINTER;
    *out = CLSID_TsSource;
    return S_OK;
}

HRESULT CTsSource::GetPages(CAUUID* pages) {
    return HandOutPages(kPages, pages);
}

HRESULT CTsSource::Load(const OLECHAR* name, const AM_MEDIA_TYPE*) {
    if (name == nullptr)
        return E_POINTER;
    try {
        std::u16string text(name);
        if (text.size() > kMostName)
            return E_INVALIDARG;
        CScopedLock state(&StateLock());
        if (!IsStopped())
            return VFW_E_NOT_STOPPED;
        ForgetFile();
        const std::optional<std::string> path = ToNarrow(text);
        HRESULT result = S_OK;
        ComPtr<IStream> stream = OpenStreamFile(path ? path->c_str() : nullptr, GENERIC_READ, &result, *m_system);
        if (!stream)
            return result;
        {
            CScopedLock lock(&StreamingLock());
            m_stream = std::move(stream);
        }
        result = ScanFile();
        if (FAILED(result)) {
            ForgetFile();
            return result;
        }
        {
            CScopedLock seeking(&m_seekLock);
            for (const OutputPinPtr& pin : Pins().All())
                pin->BindWhileStopped();
        }
        CScopedLock lock(&m_nameLock);
        m_fileName = std::move(text);
        return S_OK;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
}

HRESULT CTsSource::GetCurFile(OLECHAR** name, AM_MEDIA_TYPE* type) {
    if (name == nullptr)
        return E_POINTER;
    *name = nullptr;
    CScopedLock lock(&m_nameLock);
    if (m_fileName.empty())
        return S_OK;
    *name = CopyToTaskMemory(m_fileName);
    if (*name == nullptr)
        return E_OUTOFMEMORY;
    if (type == nullptr)
        return S_OK;
    *type = {};
    type->majortype = MEDIATYPE_Stream;
    type->subtype = MEDIASUBTYPE_MPEG2_TRANSPORT;
    type->formattype = FORMAT_None;
    type->bFixedSizeSamples = 1;
    type->lSampleSize = 1;
    return S_OK;
}

ComPtr<CTsSource> MakeTsSource() {
    auto source = MakeObject<CTsSource>();
    if (source && FAILED(source->SetMode(StreamingMode::kFile, 0)))
        source.Reset();
    return source;
}

HRESULT CreateTsSource(IBaseFilter** out) {
    if (out == nullptr)
        return E_POINTER;
    *out = ComPtr<IBaseFilter>(MakeTsSource().Get()).Detach();
    return *out != nullptr ? S_OK : E_OUTOFMEMORY;
}

}  // namespace tessel
