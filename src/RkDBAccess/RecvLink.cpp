// See RecvLink.h.
#include "RecvLink.h"

bool CRecvLink::EnterPython()
{
    if (!(m_nState.fetch_or(IN_PYTHON) & LET_GO))
        return true;
    m_exitThreadEvent.Signal();
    return false;
}

bool CRecvLink::LeavePython()
{
    // Once let go the mark stays: nobody shall wait for a thread that has nothing to do with the core.
    unsigned nExpected = IN_PYTHON;
    return m_nState.compare_exchange_strong(nExpected, 0);
}

void CRecvLink::Done()
{
    m_nState.fetch_or(DONE);
    m_exitThreadEvent.Signal();
}

bool CRecvLink::LetGo(DWORD nMs)
{
    return (m_nState.fetch_or(LET_GO) & (IN_PYTHON | DONE)) || m_exitThreadEvent.Wait(nMs);
}
