// A core with a driver and two scripted connections.
#pragma once

#include "DBCore.h"
#include "scripted_wire.h"
#include "second_reading.h"

/// An interpreter for the rest of the process, whose lock the caller holds.
void StartPython();

/// The only friend that CDBCore has; what the targets need of its inside goes through here.
class CDBCoreTest
{
public:
    /// The driver is "D" with id 0. Both connections are open in the script.
    CDBCoreTest(CScriptedWire& wire, WORD nTags);

    CDBCore& Core() { return m_core; }
    CDBDriver& Driver() { return *m_core._GetDriver("D"); }
    /// Opens the request connection again if an exchange has ended it.
    void Reopen();
    /// Makes names known by a lookup that goes well; the slots of those that exist come in order.
    CDBDriver::TagSlots Learn(const std::string& strNames, const std::vector<WORD>& positions);
    /// One receive of the notification stream and its walk. False at the end of the stream.
    bool WalkReceive(CRecvBuffer& buffer);

    EConnect Login(DWORD& nRights) { return m_core.Login("user", "password", nRights); }
    bool ReadActiveAlarms(std::vector<S2RtAlarm2>& alarms) { return m_core.ReadActiveAlarms(alarms); }

private:
    CScriptedWire& m_wire;
    CDBCore m_core;
    CRecvLink m_link;
    CPyThread m_python{m_link}; // takes no lock: no callable is registered
};
