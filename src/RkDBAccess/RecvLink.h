// What a core and its receive thread share, so that either may end first. Outlives both.
//
// The thread owns the right to touch the core, except while it is "in Python": from before it awaits the
// interpreter lock until a call is over. Whoever ends the connection waits for the thread only while the
// thread has that right; a thread in Python finds out afterwards and leaves.
#pragma once

#include "ThreadHelp.h"

#include <atomic>

class CRecvLink
{
public:
    CRecvLink() { m_exitThreadEvent.Create(); }
    ~CRecvLink() = default;
    CRecvLink(const CRecvLink&) = delete;
    CRecvLink& operator=(const CRecvLink&) = delete;

    /// The signals that the script's thread blocks which made the connection.
    const CSignalMask& ScriptMask() const noexcept { return m_scriptMask; }

    // The thread's side.

    /// Gives up the right to touch the core. False: it is lost for good already.
    bool EnterPython();
    /// Takes the right back. False: the core has let go; leave without touching it.
    bool LeavePython();
    /// The thread is over with the core.
    void Done();
    bool IsLetGo() const noexcept { return m_nState & LET_GO; }
    /// True outside Python: the core waits for this thread.
    bool OwnsCore() const noexcept { return !(m_nState & IN_PYTHON); }

    // The core's side.

    /// From the return on the thread touches the core no more. False when the thread has neither left nor
    /// entered Python within nMs: the core must then stay in memory.
    bool LetGo(DWORD nMs);

private:
    // Both sides look and leave their mark in one step, at every call into Python and back: a lock would cost
    // as much as building the call's arguments.
    static constexpr unsigned IN_PYTHON = 1;
    static constexpr unsigned LET_GO = 2;
    static constexpr unsigned DONE = 4;

    std::atomic<unsigned> m_nState{0};
    const CSignalMask m_scriptMask;
    XTEvent m_exitThreadEvent; // signalled when a core that waits need wait no longer
};
