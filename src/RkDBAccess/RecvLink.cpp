// See RecvLink.h.
#include "RecvLink.h"

bool CRecvLink::EnterPython()
{
    const CThreadGuard guard(m_lock);
    m_bInPython = true;
    if (m_bLetGo)
        m_exitThreadEvent.Signal();
    return !m_bLetGo;
}

bool CRecvLink::LeavePython()
{
    const CThreadGuard guard(m_lock);
    m_bInPython = m_bLetGo;
    return !m_bLetGo;
}

void CRecvLink::Done()
{
    const CThreadGuard guard(m_lock);
    m_bDone = true;
    m_exitThreadEvent.Signal();
}

bool CRecvLink::IsLetGo() const
{
    const CThreadGuard guard(m_lock);
    return m_bLetGo;
}

bool CRecvLink::LetGo(DWORD nMs)
{
    {
        const CThreadGuard guard(m_lock);
        m_bLetGo = true;
        if (m_bDone || m_bInPython)
            return true;
    }
    return m_exitThreadEvent.Wait(nMs);
}
