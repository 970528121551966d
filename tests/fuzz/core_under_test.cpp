// See core_under_test.h.
#include "core_under_test.h"

#include <cstdlib>

void StartPython()
{
    if (Py_IsInitialized())
        return;
    // The interpreter's own allocator would hide a wrong access to its objects and what is lost of them.
    ::setenv("PYTHONMALLOC", "malloc", 1);
    Py_InitializeEx(0);
}

CDBCoreTest::CDBCoreTest(CScriptedWire& wire, WORD nTags) : m_wire(wire)
{
    FUZZ_CHECK(m_core.m_rcvSock.Create());
    m_wire.Open(m_core.m_rcvSock.GetHandle());
    Reopen();
    const CThreadGuard guard(m_core.m_lock);
    SNDrvInfoEx info;
    info.tagNum = nTags;
    m_core.m_mapDrvInfos[CString("D")] = info;
    m_core.m_pDrivers.resize(1);
    m_core.m_bConnect = true;
}

void CDBCoreTest::Reopen()
{
    if (m_core.m_reqSock.IsSocket())
        return;
    FUZZ_CHECK(m_core.m_reqSock.Create());
    m_wire.Open(m_core.m_reqSock.GetHandle());
}

CDBDriver::TagSlots CDBCoreTest::Learn(const std::string& strNames, const std::vector<WORD>& positions)
{
    std::vector<BYTE> reply{'L'};
    for (const WORD nPos : positions)
        reply.insert(reply.end(), {static_cast<BYTE>(nPos), static_cast<BYTE>(nPos >> 8), 0, 0});
    m_wire.Reply(reply);
    CDBDriver::TagSlots slots;
    FUZZ_CHECK(Driver().CheckTagId(strNames.c_str(), slots));
    FUZZ_CHECK(slots.size() == positions.size());
    return slots;
}

bool CDBCoreTest::WalkReceive(CRecvBuffer& buffer)
{
    if (buffer.Fill(m_core.m_rcvSock) <= 0)
        return false;
    FUZZ_CHECK(m_core.WalkReceive(buffer, m_python));
    return true;
}
