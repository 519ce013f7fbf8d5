// The task that a worker thread runs.
#pragma once

#include "platform/com/Unknown.h"

namespace tessel {

// Called on the worker thread only.
class IRALThreadExecutor : public IUnknown {
public:
    static constexpr IID kIid = MakeGuid("{990CF57C-B9B5-11D1-98B6-00AA00AE68A1}");

    // Before the first task. A failure ends the thread.
    virtual HRESULT OnThreadStart() = 0;
    // After the last task. The result becomes the thread's exit code.
    virtual HRESULT OnThreadEnd() = 0;
    // One piece of work. Returns the milliseconds until the next, or INFINITE: as soon as it is woken.
    virtual uint32_t DoOneThreadTask() = 0;
};

}  // namespace tessel
