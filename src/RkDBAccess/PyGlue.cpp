// See PyGlue.h.
#include "PyGlue.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cassert>
#include <string_view>
#include <unistd.h>
#include <utility>

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

void CPyCallback::WarnOnce() noexcept
{
    if (std::exchange(m_bWarned, true))
        return;
    WhilePythonLives([this] {
        PyErr_WarnFormat(
            PyExc_RuntimeWarning, 1,
            "RkDBAccess: the instance of the registered method %R is gone; its calls are skipped",
            m_pFn.get());
    });
    ReportError(); // a warning may be an error
}

void CPyCallback::Call(std::span<PyObject* const> args) noexcept
{
    assert(args.size() <= MAX_ARGS);
    if (std::ranges::find(args, nullptr) != args.end())
        return ReportError();
    const CPyRef self = m_pSelf ? Referent(m_pSelf.get()) : nullptr;
    if (m_pSelf && !self)
        return WarnOnce();
    // A method's function gets the instance in front, which is what a bound method would do. The place before
    // all arguments is the callee's to use.
    std::array<PyObject*, 2 + MAX_ARGS> places{};
    size_t nArgs = 0;
    if (self)
        places[++nArgs] = self.get();
    for (PyObject* pArg : args)
        places[++nArgs] = pArg;
    const CPyRef result(WhilePythonLives([&] {
        return PyObject_Vectorcall(m_pFn.get(), &places[1], nArgs | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr);
    }));
    if (result)
        return;
    const CPyRef method(self ? PyMethod_New(m_pFn.get(), self.get()) : nullptr);
    WriteUnraisable(method ? method.get() : m_pFn.get());
}

void CPyCallback::Call(const CPyRef& args) noexcept
{
    if (!args)
        return ReportError();
    Call(std::span(PySequence_Fast_ITEMS(args.get()), static_cast<size_t>(PyTuple_GET_SIZE(args.get()))));
}

void CPyCallback::ReportError() noexcept
{
    if (PyErr_Occurred())
        WriteUnraisable(m_pFn.get());
}

PyObject* CPyName::Of(const std::string& strUtf8) noexcept
{
    Py_ssize_t nLen = 0;
    const char* szText = m_text ? PyUnicode_AsUTF8AndSize(m_text.get(), &nLen) : nullptr;
    if (!szText || std::string_view(szText, static_cast<size_t>(nLen)) != strUtf8) {
        if (m_text && !szText)
            PyErr_Clear();
        m_text.reset(PyUnicode_FromStringAndSize(strUtf8.data(), static_cast<Py_ssize_t>(strUtf8.size())));
    }
    return m_text.get();
}

CPyThread::~CPyThread()
{
    if (!m_pState)
        return;
    Take();
    WhilePythonLives([this] { PyGILState_Release(m_eGil); }); // drops what the script kept for this thread
}

void CPyThread::Take()
{
    if (m_bHeld)
        return;
    if (g_bForbidden)
        StayForGood();
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
