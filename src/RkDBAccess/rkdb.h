// The flat functions between the Python types and the core: C names and plain pointers, so that whoever calls
// them needs no class of ours. Exported from the module. All are called under the interpreter lock.
//
// A null pDB or pDrv is answered like a connection that has ended. Text is UTF-8 and NUL-terminated; names
// are converted, the three texts of _DBConnect are passed on byte for byte. No exception of C++ leaves them.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

class CDBCore;
class CDBDriver;

#define RKDB_EXPORT __attribute__((visibility("default")))

extern "C" {
/// A new core; owned by the caller, ended by _DBCoreDelete. Null without memory.
RKDB_EXPORT CDBCore* _DBCoreNew();
/// 0 connected, -1 login refused, -2 connection or transfer failed, -3 reply or project name unusable.
RKDB_EXPORT int _DBConnect(CDBCore* pDB, const char* szHost, const char* szUserName, const char* szPassword);
/// The driver of that name, or null. Owned by the core: valid until its connection ends.
RKDB_EXPORT CDBDriver* _DBGetDriver(CDBCore* pDB, const char* szDriver);
RKDB_EXPORT void _DBSetRtAlarmNotify(CDBCore* pDB, PyObject* fn, int notifyExisting);
/// A new reference, or null with or without an exception set.
RKDB_EXPORT PyObject* _DrvGetTagValue(CDBDriver* pDrv, const char* szTags);
/// 0 sent, -1 no right, -2 look-up or send failed, -3 refused.
RKDB_EXPORT int _DrvSetTagValue(CDBDriver* pDrv, const char* szTags, PyObject* value);
RKDB_EXPORT void _DrvSetTagNotify(CDBDriver* pDrv, PyObject* fn);
/// 1 subscribed, 0 not.
RKDB_EXPORT int _DrvConnectTag(CDBDriver* pDrv, const char* szTags);
/// Ends the connection and the core. Null is allowed.
RKDB_EXPORT void _DBCoreDelete(CDBCore* pDB);
}

// For the module only: a Driver object's hold on its driver, which may outlive the core.
void DrvAddRef(CDBDriver* pDrv);
void DrvRelease(CDBDriver* pDrv);
/// Ends all connections of the process; the interpreter calls it before it ends.
void DBEndAll();
