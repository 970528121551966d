// See PyGlue.h.
#include "PyGlue.h"

#include <atomic>
#include <unistd.h>

namespace {

std::atomic<bool> g_bForbidden{false};

/// The object behind a weak reference, or null when it is gone.
CPyRef Referent(PyObject* pWeak) noexcept
{
#if PY_VERSION_HEX >= 0x030D0000
    PyObject* pObj = nullptr;
    static_cast<void>(PyWeakref_GetRef(pWeak, &pObj));
    return CPyRef(pObj);
#else
    PyObject* pObj = PyWeakref_GetObject(pWeak);
    return pObj == Py_None ? nullptr : NewPyRef(pObj);
#endif
}

/// Says it to sys.unraisablehook, which may be a script's own.
void WriteUnraisable(PyObject* pFn)
{
    WhilePythonLives([pFn] { PyErr_WriteUnraisable(pFn); });
}

} // namespace

void StayForGood() noexcept
{
    for (;;)
        ::pause();
}

CPyCallback::CPyCallback(PyObject* pFn)
{
    if (PyMethod_Check(pFn)) {
        m_pSelf.reset(PyWeakref_NewRef(PyMethod_GET_SELF(pFn), nullptr));
        if (m_pSelf)
            pFn = PyMethod_GET_FUNCTION(pFn);
        else
            PyErr_Clear(); // an instance that knows no weak references is kept like any other callable
    }
    m_pFn = NewPyRef(pFn);
}

/// What to call now, or null with or without an exception set.
CPyRef CPyCallback::Target() noexcept
{
    if (!m_pSelf)
        return NewPyRef(m_pFn.get());
    if (const CPyRef self = Referent(m_pSelf.get()))
        return CPyRef(PyMethod_New(m_pFn.get(), self.get()));
    if (!m_bWarned) {
        m_bWarned = true;
        WhilePythonLives([this] {
            PyErr_WarnFormat(
                PyExc_RuntimeWarning, 1,
                "RkDBAccess: the instance of the registered method %R is gone; its calls are skipped",
                m_pFn.get());
        });
    }
    return nullptr;
}

void CPyCallback::Call(const CPyRef& args) noexcept
{
    const CPyRef target = args ? Target() : nullptr;
    const CPyRef result(
        target ? WhilePythonLives([&] { return PyObject_CallObject(target.get(), args.get()); }) : nullptr);
    if (PyErr_Occurred())
        WriteUnraisable(target ? target.get() : m_pFn.get());
}

void CPyCallback::ReportError() noexcept
{
    if (PyErr_Occurred())
        WriteUnraisable(m_pFn.get());
}

CPyThread::~CPyThread()
{
    if (!m_pState || !Take())
        return;
    WhilePythonLives([this] { PyGILState_Release(m_eGil); }); // drops what the script kept for this thread
}

bool CPyThread::Take()
{
    if (m_bHeld)
        return true;
    if (IsForbidden())
        return false;
    WhilePythonLives([this] {
        if (m_pState) {
            PyEval_RestoreThread(m_pState);
        } else {
            m_eGil = PyGILState_Ensure();
            m_pState = PyThreadState_Get();
        }
    });
    m_link.ScriptMask().Apply();
    m_bHeld = true;
    return true;
}

void CPyThread::EndTurn() noexcept
{
    if (!m_bHeld)
        return;
    m_bHeld = false;
    m_ownMask.Apply();
    PyEval_SaveThread();
}

void CPyThread::ForbidAll() noexcept
{
    g_bForbidden = true;
}

bool CPyThread::IsForbidden() noexcept
{
    return g_bForbidden;
}
