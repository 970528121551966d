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
    static constexpr long TIME_OUT_MS = 8000; // of the request connection

    /// The driver is "D" with id 0. Both connections are open in the script.
    CDBCoreTest(CScriptedWire& wire, WORD nTags);
    ~CDBCoreTest();
    CDBCoreTest(const CDBCoreTest&) = delete;
    CDBCoreTest& operator=(const CDBCoreTest&) = delete;

    CDBCore& Core() { return m_core; }
    /// Stays when the connection ends.
    CDBDriver& Driver() { return *m_driver.Get(); }
    /// Ends the process unless the connection is as it was made, or has ended wholly: both connections, the
    /// directory and the driver.
    void CheckWhole(bool bConnected);
    /// Makes names known by a lookup that goes well; the slots of those that exist come in order.
    CDBDriver::TagSlots Learn(const std::string& strNames, const std::vector<WORD>& positions);

    /// How one receive of the notification stream ended.
    enum class EReceived
    {
        Walked,
        Lost, // inside a notification
        None, // nothing comes any more
    };
    EReceived Receive(CRecvBuffer& buffer);

    EConnect Login(DWORD& nRights) { return m_core.Login("user", "password", nRights); }
    bool ReadActiveAlarms(std::vector<S2RtAlarm2>& alarms) { return m_core.ReadActiveAlarms(alarms); }

private:
    CScriptedWire& m_wire;
    CDBCore m_core;
    CDriverRef m_driver;
    CRecvLink m_link;
    CPyThread m_python{m_link}; // takes no lock: no callable is registered
};
