// Tells an object that a fork has copied it into another process.
//
// The copy has the parent's descriptors but not its receive threads, and a lock that such a thread held at
// that moment stays locked for ever. So a copy of a live connection takes no lock, sends nothing, and goes
// away by closing its numbers; the parent's connection goes on.
#pragma once

class CForkMark
{
public:
    CForkMark() noexcept : m_nProcess(Current()) {}
    /// True in a process that was forked off since this mark was made or renewed.
    bool IsForked() const noexcept { return m_nProcess != Current(); }
    void Renew() noexcept { m_nProcess = Current(); }

private:
    static unsigned Current() noexcept;

    unsigned m_nProcess;
};
