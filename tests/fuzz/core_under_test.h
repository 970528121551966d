// A core with a driver and two scripted connections, and the values of tags as the target expects them,
// written down a second time: encoded bytes in place of variants, so that the two cannot be wrong in the same
// way.
#pragma once

#include "DBCore.h"
#include "scripted_wire.h"

#include <optional>
#include <string>

/// An encoded value: type word and payload.
using Encoded = std::vector<BYTE>;

/// The value at the front of bytes as it would be encoded again, and how many bytes it takes there. Nothing
/// when the bytes end inside it.
struct SDecoded
{
    Encoded value;
    size_t nUsed = 0;
};
std::optional<SDecoded> DecodeTyped(std::span<const BYTE> bytes);
std::optional<SDecoded> DecodePayload(unsigned nType, std::span<const BYTE> bytes);
Encoded Encode(const XVariant& value);
inline unsigned LittleWord(std::span<const BYTE> bytes)
{
    return bytes[0] | unsigned{bytes[1]} << 8;
}

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
