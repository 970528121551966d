"""What this process has of memory, for scripts that look whether something piles up."""

from __future__ import annotations

import ctypes
import gc
import os
from pathlib import Path

_NAMES = ("arena", "ordblks", "smblks", "hblks", "hblkhd", "usmblks", "fsmblks", "uordblks", "fordblks", "keepcost")


class _MallInfo(ctypes.Structure):
    _fields_ = [(name, ctypes.c_size_t) for name in _NAMES]


_mallinfo = ctypes.CDLL(None).mallinfo2
_mallinfo.restype = _MallInfo


def in_use() -> tuple[int, int]:
    """Bytes that malloc has given out, and that the kernel has; a sanitizer's malloc says 0 for the first."""
    gc.collect()
    told = _mallinfo()
    pages = int(Path("/proc/self/statm").read_text(encoding="ascii").split()[1])
    return told.uordblks + told.hblkhd, pages * os.sysconf("SC_PAGE_SIZE")


def peak() -> int:
    """The most bytes that the kernel has ever given to this process.

    Not ru_maxrss, which begins with what the process had that started this one.
    """
    status = dict(line.split(":", 1) for line in Path("/proc/self/status").read_text(encoding="ascii").splitlines())
    return int(status["VmHWM"].split()[0]) * 1024
