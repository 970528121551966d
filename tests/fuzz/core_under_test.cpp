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
    for (CScnSocket* pSock : {&m_core.m_rcvSock, static_cast<CScnSocket*>(&m_core.m_reqSock)}) {
        FUZZ_CHECK(pSock->Create());
        FUZZ_CHECK(pSock->SetTimeOut(TIME_OUT_MS));
        m_wire.Open(pSock->GetHandle());
    }
    FUZZ_CHECK(m_core.m_rcvSock.SetTimeOut(0x7FFFFFFF));
    {
        const CThreadGuard guard(m_core.m_lock);
        SNDrvInfoEx info;
        info.tagNum = nTags;
        m_core.m_mapDrvInfos[CString("D")] = info;
        m_core.m_pDrivers.resize(1);
        m_core.m_bConnect = true;
    }
    m_driver = CDriverRef(m_core._GetDriver("D"));
}

CDBCoreTest::~CDBCoreTest()
{
    FUZZ_CHECK(m_core._Disconnect());
}

void CDBCoreTest::CheckWhole(bool bConnected)
{
    FUZZ_CHECK(m_core.IsConnected() == bConnected);
    FUZZ_CHECK(m_core.m_reqSock.IsSocket() == bConnected);
    FUZZ_CHECK(m_core.m_rcvSock.IsSocket() == bConnected);
    FUZZ_CHECK(m_core._GetDriver("D") == (bConnected ? m_driver.Get() : nullptr));
    FUZZ_CHECK(!m_core.IsExchanging());
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

CDBCoreTest::EReceived CDBCoreTest::Receive(CRecvBuffer& buffer)
{
    if (!m_core.Receive(buffer))
        return EReceived::None;
    const auto eWalk = m_core.WalkReceive(buffer, m_python);
    FUZZ_CHECK(eWalk != CDBCore::EWalk::Gone);
    return eWalk == CDBCore::EWalk::Walked ? EReceived::Walked : EReceived::Lost;
}
