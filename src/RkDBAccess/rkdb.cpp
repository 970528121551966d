// See rkdb.h.
#include "rkdb.h"

#include "DBCore.h"

#include <chrono>
#include <exception>
#include <thread>

namespace {

constexpr auto EXIT_STEP = std::chrono::milliseconds(1);
constexpr int EXIT_STEPS = 2000;

/// The object itself where it can be used: not null, and not the copy of a live one that a fork made.
template <class T> T* Usable(T* p) noexcept
{
    return p && !p->IsForked() ? p : nullptr;
}

/// Calls the core; what it throws (no memory) becomes the operation's own failure.
template <class TResult, class F> TResult Guarded(TResult failed, F&& fn) noexcept
{
    try {
        return fn();
    } catch (const std::exception&) {
        return failed;
    }
}

} // namespace

CDBCore* _DBCoreNew()
{
    return Guarded<CDBCore*>(nullptr, [] { return new CDBCore; });
}

int _DBConnect(CDBCore* pDB, const char* szHost, const char* szUserName, const char* szPassword)
{
    return Guarded(static_cast<int>(EConnect::Failed), [&] {
        pDB = Usable(pDB);
        return static_cast<int>(pDB ? pDB->_Connect(CString(szHost), szUserName, szPassword)
                                    : EConnect::Failed);
    });
}

CDBDriver* _DBGetDriver(CDBCore* pDB, const char* szDriver)
{
    return Guarded<CDBDriver*>(
        nullptr, [&] { return Usable(pDB) ? pDB->_GetDriver(CUTF82T(szDriver).c_str()) : nullptr; });
}

void _DBSetRtAlarmNotify(CDBCore* pDB, PyObject* fn, int notifyExisting)
{
    Guarded(-2, [&] { return Usable(pDB) ? pDB->_SetRtAlarmNotify(fn, notifyExisting != 0) : -2; });
}

PyObject* _DrvGetTagValue(CDBDriver* pDrv, const char* szTags)
{
    try {
        if (Usable(pDrv))
            return pDrv->GetTagValue(CUTF82T(szTags).c_str());
    } catch (const std::exception&) {
        // No memory: a value that could not be had, like any other.
    }
    return NewPyRef(Py_None).release();
}

int _DrvSetTagValue(CDBDriver* pDrv, const char* szTags, PyObject* value)
{
    const int nFailed = static_cast<int>(EWrite::Failed);
    return Guarded(nFailed, [&] {
        return Usable(pDrv) ? static_cast<int>(pDrv->SetTagValue(CUTF82T(szTags).c_str(), value)) : nFailed;
    });
}

void _DrvSetTagNotify(CDBDriver* pDrv, PyObject* fn)
{
    Guarded(false, [&] { return Usable(pDrv) && pDrv->SetTagNotify(fn); });
}

int _DrvConnectTag(CDBDriver* pDrv, const char* szTags)
{
    return Guarded(0, [&] { return Usable(pDrv) && pDrv->_ConnectTag(CUTF82T(szTags).c_str()) ? 1 : 0; });
}

void _DBCoreDelete(CDBCore* pDB)
{
    if (pDB && pDB->IsForked()) {
        pDB->AbandonForked();
        return;
    }
    // A core that its receive thread may still touch is worth less than a process that goes on.
    if (pDB && Guarded(false, [&] { return pDB->_Disconnect(); }))
        delete pDB;
}

void DrvAddRef(CDBDriver* pDrv)
{
    pDrv->AddRef();
}

void DrvRelease(CDBDriver* pDrv)
{
    if (pDrv)
        pDrv->Release();
}

void DBEndAll()
{
    Guarded(0, [] {
        CDBCore::EndAll();
        return 0;
    });
    // A thread that awaits the interpreter lock now must have it and be gone before the interpreter ends.
    PyThreadState* pState = PyEval_SaveThread();
    for (auto nLeft = EXIT_STEPS; nLeft > 0 && CDBCore::CountThreads() > 0; --nLeft)
        std::this_thread::sleep_for(EXIT_STEP);
    CPyThread::ForbidAll();
    PyEval_RestoreThread(pState);
}
