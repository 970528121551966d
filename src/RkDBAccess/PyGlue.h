// Guards around the interpreter's C interface: references, the held callables, and the interpreter lock as a
// receive thread takes it.
//
// Rule of the house: the interpreter lock is never awaited while one of our own locks is held.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include "ForkMark.h"
#include "RecvLink.h"

#include <exception>
#include <memory>
#include <span>
#include <string>

/// Holds the calling thread for the rest of the process.
[[noreturn]] void StayForGood() noexcept;

/// Runs what may wait for the interpreter lock. An interpreter that ends lets no other thread have it again
/// and unwinds those that ask: through frames whose references may then only be left alone. Such a thread
/// stays here instead, until the process is gone.
template <class F> decltype(auto) WhilePythonLives(F&& fn)
{
    try {
        return fn();
    } catch (...) {
        if (std::current_exception())
            throw;
        StayForGood(); // unwinding that ends a thread is no exception of anybody's
    }
}

struct SPyDrop
{
    void operator()(PyObject* p) const noexcept
    {
        WhilePythonLives([p] { Py_DECREF(p); }); // may run a finaliser of the script
    }
};
/// Owns one reference; made and destroyed under the interpreter lock.
using CPyRef = std::unique_ptr<PyObject, SPyDrop>;

inline CPyRef NewPyRef(PyObject* p) noexcept
{
    Py_XINCREF(p);
    return CPyRef(p);
}

/// A script's callable, kept for as long as its registration lasts. A bound method is kept as its function
/// and a weak reference to its instance: a client object is not kept alive by its own subscription.
/// Made, called and destroyed under the interpreter lock.
class CPyCallback
{
public:
    explicit CPyCallback(PyObject* pFn);

    static constexpr size_t MAX_ARGS = 10;

    /// Calls with at most MAX_ARGS arguments, borrowed; a null one stands for an error that making it raised.
    /// Errors end in sys.unraisablehook with the callable as their object; no exception is left pending.
    void Call(std::span<PyObject* const> args) noexcept;
    /// The same with a tuple's items, or null for an error that building it raised.
    void Call(const CPyRef& args) noexcept;
    /// Reports the pending exception, if there is one, as one of this callable.
    void ReportError() noexcept;

private:
    void WarnOnce() noexcept;

    CPyRef m_pFn;   // the callable, or a method's function
    CPyRef m_pSelf; // weak reference to a method's instance; null: none
    bool m_bWarned = false;
};

/// The text object of a name, made once and given again until the name is another.
/// Used and destroyed under the interpreter lock.
class CPyName
{
public:
    /// Borrowed. Null with an exception set for what is no UTF-8.
    PyObject* Of(const std::string& strUtf8) noexcept;

private:
    CPyRef m_text;
};

/// The interpreter lock for a receive thread: one thread state for the thread's life, the lock taken at the
/// first call that a receive needs and kept to that receive's end. Meanwhile the thread blocks what the
/// script blocks, and not all signals as a receive thread does: a program that a callback starts inherits
/// that.
class CPyThread
{
public:
    explicit CPyThread(CRecvLink& link) noexcept : m_link(link) {}
    /// Gives the thread state back; the thread must have let go of its core.
    ~CPyThread();
    CPyThread(const CPyThread&) = delete;
    CPyThread& operator=(const CPyThread&) = delete;

    /// Runs fn under the interpreter lock. Meanwhile the core may go away: false says that it did, and the
    /// thread must leave without touching it. fn is skipped when it went before the lock was had. On leaving
    /// the thread has the lock all the same: it may hold the last reference to a callable. False as well in a
    /// process that fn has forked off, whose copy of the thread must not read from the parent's connection.
    template <class F> bool Call(F&& fn)
    {
        const bool bEntered = m_link.EnterPython();
        Take();
        if (bEntered && !m_link.IsLetGo())
            WhilePythonLives(fn);
        return !m_fork.IsForked() && m_link.LeavePython();
    }
    /// The end of a receive: gives the interpreter lock back if it was taken.
    void EndTurn() noexcept;

    /// The interpreter is ending: no thread gets its lock from now on, and who asks for it stays where it is.
    static void ForbidAll() noexcept;

private:
    void Take();

    CRecvLink& m_link;
    const CForkMark m_fork;
    const CSignalMask m_ownMask;
    PyThreadState* m_pState = nullptr; // made at the first call
    PyGILState_STATE m_eGil{};
    bool m_bHeld = false;
};
