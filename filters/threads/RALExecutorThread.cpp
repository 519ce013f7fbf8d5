#include "filters/threads/RALExecutorThread.h"

namespace tessel {

HRESULT CRALExecutorThread::OnThreadStart() {
    const auto executor = m_executor.lock();
    if (executor == nullptr)
        return E_ABORT;
    const HRESULT result = executor->OnThreadStart();
    if (SUCCEEDED(result))
        CRALThread::OnThreadStart();
    return result;
}

HRESULT CRALExecutorThread::OnThreadEnd() {
    const auto executor = m_executor.lock();
    return executor != nullptr ? executor->OnThreadEnd() : S_OK;
}

uint32_t CRALExecutorThread::DoOneThreadTask() {
    if (const auto executor = m_executor.lock())
        return executor->DoOneThreadTask();
    Leave();
    return INFINITE;
}

}  // namespace tessel
