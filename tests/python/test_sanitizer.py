"""That a finding of the address sanitizer fails a test: what such a run says is worth as much as that."""

from __future__ import annotations

import os
import signal

from conftest import run_alone

READ_AFTER_FREE = """
import ctypes
libc = ctypes.CDLL(None)
libc.malloc.argtypes, libc.malloc.restype = [ctypes.c_size_t], ctypes.c_void_p
libc.free.argtypes, libc.memcpy.argtypes = [ctypes.c_void_p], [ctypes.c_void_p, ctypes.c_void_p, ctypes.c_size_t]
block, copy = libc.malloc(100), ctypes.create_string_buffer(100)
libc.free(block)
libc.memcpy(copy, block, 100)
print("went on")
"""


def test_a_wrong_access_ends_the_process_where_the_sanitizer_looks() -> None:
    # To standard error: among the reports of a run it would count as one of ours.
    outcome = run_alone(READ_AFTER_FREE, environment={"LSAN_OPTIONS": "exitcode=0"})
    if os.environ.get("RKDB_PRESET") == "asan":
        assert outcome.status == -signal.SIGABRT
        assert "heap-use-after-free" in outcome.errors
    else:
        assert (outcome.status, outcome.output) == (0, "went on\n")
