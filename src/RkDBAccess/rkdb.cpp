// See rkdb.h.
#include "rkdb.h"

#include "DBCore.h"
#include "WaitHook.h"

#include <chrono>
#include <exception>
#include <thread>
#include <utility>

namespace {

constexpr auto YIELD_STEP = std::chrono::milliseconds(1);
constexpr auto EXIT_STEP = std::chrono::milliseconds(1);
constexpr auto EXIT_WAIT = std::chrono::seconds(2);

/// The object itself where it can be used: not null, and not the copy of a live one that a fork made.
CDBDriver* Usable(CDBDriver* p) noexcept
{
    return p && !p->IsForked() ? p : nullptr;
}

/// Nor one that a Connect is running on: a signal handler runs in the middle of it.
CDBCore* Usable(CDBCore* p) noexcept
{
    return p && !p->IsForked() && !p->IsConnecting() ? p : nullptr;
}

/// The waits of one call of a script. As in the interpreter's own socket calls the script's signal handlers
/// run meanwhile, in its main thread, and an exception of theirs ends the call; a handler that forks ends the
/// child's copy of the call, whose connection is the parent's.
class CScriptCall
{
public:
    CScriptCall() noexcept : m_scope({GoOn, Yield}), m_pBefore(std::exchange(Current(), this)) {}
    ~CScriptCall() { Current() = m_pBefore; }
    CScriptCall(const CScriptCall&) = delete;
    CScriptCall& operator=(const CScriptCall&) = delete;

private:
    static CScriptCall*& Current() noexcept
    {
        static thread_local CScriptCall* pCall = nullptr;
        return pCall;
    }
    static bool GoOn()
    {
        // Once it has to end it has to: the exception is pending, and a further wait would see no signal.
        CScriptCall& call = *Current();
        if (!call.m_bEnds)
            call.m_bEnds =
                WhilePythonLives([] { return PyErr_CheckSignals(); }) != 0 || call.m_fork.IsForked();
        return !call.m_bEnds;
    }
    static void Yield()
    {
        PyThreadState* pState = PyEval_SaveThread();
        std::this_thread::sleep_for(YIELD_STEP);
        WhilePythonLives([pState] { PyEval_RestoreThread(pState); });
    }

    const CForkMark m_fork;
    bool m_bEnds = false;
    const CWaitHookScope m_scope;
    CScriptCall* const m_pBefore;
};

/// Calls the core; what it throws (no memory) becomes the operation's own failure.
template <class TResult, class F> TResult Guarded(TResult failed, F&& fn) noexcept
{
    const CScriptCall call;
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
    const CScriptCall call;
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
    // Leak the core if its receive thread may still use it: a leak is better than a use after free. One that
    // is in the middle of a call, which a signal handler of the script has interrupted, goes at that call's
    // end.
    if (pDB && Guarded(false, [&] { return pDB->_Disconnect(); }))
        pDB->Release();
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
    // A busy callback gives the lock back late each time, so the clock counts and not the steps.
    const auto end = std::chrono::steady_clock::now() + EXIT_WAIT;
    while (CDBCore::CountThreads() > 0 && std::chrono::steady_clock::now() < end && !PyErr_CheckSignals()) {
        PyThreadState* pState = PyEval_SaveThread();
        std::this_thread::sleep_for(EXIT_STEP);
        PyEval_RestoreThread(pState);
    }
    CPyThread::ForbidAll();
}
