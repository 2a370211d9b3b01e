"""Read-only shared memory and the wait for its next arrival, on Linux and Windows.

Only system calls that the C reader (include/kinetrel/stream.h) makes too.
"""

from __future__ import annotations

import ctypes
import os
import platform
import sys
import threading
import time

from ._errors import Denied, KinetrelError, NoTracker, NotAStream


class Mapping:
    """The stream's object of one slot, mapped for reading until close()."""

    def __init__(self, slot: int) -> None:
        self.address = 0
        self.size = 0
        # Held while a thread waits: a mapping that another thread closes stays until the wait ends.
        self._waiting = threading.Lock()
        self._open(slot)
        self.view = memoryview((ctypes.c_ubyte * self.size).from_address(self.address)).cast("B")

    def close(self) -> None:
        with self._waiting:
            # Forgotten before it is unmapped: Ctrl-C may end this anywhere, and a second close()
            # must not touch what another mapping has got since.
            address, self.address = self.address, 0
            if address:
                self.view.release()
                self._close(address)

    def wait(self, offset: int, value: int, seconds: float) -> None:
        """Sleeps until the 32-bit word at `offset` is no longer `value`, or the time is up, or a
        signal comes. Returns at once when the mapping is closed."""
        with self._waiting:
            if self.address:
                self._wait(offset, value, seconds)

    # The rest is the system's.
    def _open(self, slot: int) -> None:
        raise NotImplementedError

    def _close(self, address: int) -> None:
        raise NotImplementedError

    def is_truncated(self) -> bool:
        """The object has become smaller: it must not be touched any more."""
        raise NotImplementedError

    def is_replaced(self) -> bool:
        """The slot's name no longer leads to this object."""
        raise NotImplementedError

    def _wait(self, offset: int, value: int, seconds: float) -> None:
        raise NotImplementedError


if sys.platform == "win32":
    now_ns = time.perf_counter_ns  # the performance counter, as the writer's clock

    from ctypes import wintypes

    _kernel = ctypes.WinDLL("kernel32", use_last_error=True)
    _kernel.OpenFileMappingW.restype = wintypes.HANDLE
    _kernel.OpenFileMappingW.argtypes = (wintypes.DWORD, wintypes.BOOL, wintypes.LPCWSTR)
    _kernel.OpenEventW.restype = wintypes.HANDLE
    _kernel.OpenEventW.argtypes = (wintypes.DWORD, wintypes.BOOL, wintypes.LPCWSTR)
    _kernel.MapViewOfFile.restype = ctypes.c_void_p
    _kernel.MapViewOfFile.argtypes = (
        wintypes.HANDLE, wintypes.DWORD, wintypes.DWORD, wintypes.DWORD, ctypes.c_size_t)
    _kernel.UnmapViewOfFile.argtypes = (ctypes.c_void_p,)
    _kernel.CloseHandle.argtypes = (wintypes.HANDLE,)
    _kernel.WaitForSingleObject.argtypes = (wintypes.HANDLE, wintypes.DWORD)
    _kernel.VirtualQuery.restype = ctypes.c_size_t

    class _MemoryInformation(ctypes.Structure):
        _fields_ = [
            ("base", ctypes.c_void_p), ("allocation", ctypes.c_void_p),
            ("allocation_protect", wintypes.DWORD), ("partition", wintypes.WORD),
            ("region_size", ctypes.c_size_t), ("state", wintypes.DWORD),
            ("protect", wintypes.DWORD), ("type", wintypes.DWORD)]

    _kernel.VirtualQuery.argtypes = (
        ctypes.c_void_p, ctypes.POINTER(_MemoryInformation), ctypes.c_size_t)

    _SYNCHRONIZE = 0x00100000
    _FILE_MAP_READ = 0x0004
    _MEM_COMMIT = 0x1000
    _ERROR_ACCESS_DENIED = 5
    # Two events take turns. A client that oversleeps two arrivals would wait for the third.
    _LONGEST_WAIT = 0.1

    class SystemMapping(Mapping):
        def _open(self, slot: int) -> None:
            name = f"KinetrelStream{slot - 1:X}"
            self._handles = [
                _kernel.OpenFileMappingW(_FILE_MAP_READ, False, name),
                _kernel.OpenEventW(_SYNCHRONIZE, False, name + "Wake0"),
                _kernel.OpenEventW(_SYNCHRONIZE, False, name + "Wake1")]
            if not all(self._handles):
                denied = ctypes.get_last_error() == _ERROR_ACCESS_DENIED
                self._close(0)
                raise Denied(slot) if denied else NoTracker(slot)
            self.address = _kernel.MapViewOfFile(self._handles[0], _FILE_MAP_READ, 0, 0, 0) or 0
            about = _MemoryInformation()
            if not self.address or not _kernel.VirtualQuery(
                    self.address, ctypes.byref(about), ctypes.sizeof(about)):
                self._close(self.address)
                raise KinetrelError(f"slot {slot}: the stream cannot be mapped")
            # Memory that is only reserved must not be touched.
            self.size = about.region_size if about.state == _MEM_COMMIT else 0

        def _close(self, address: int) -> None:
            handles, self._handles = self._handles, []
            if address:
                _kernel.UnmapViewOfFile(address)
            for handle in handles:
                if handle:
                    _kernel.CloseHandle(handle)

        def is_truncated(self) -> bool:
            return False  # a section keeps its size

        def is_replaced(self) -> bool:
            return False  # a name keeps its section while a client has it open

        def _wait(self, offset: int, value: int, seconds: float) -> None:
            _kernel.WaitForSingleObject(
                self._handles[1 + (value & 1)], int(1000 * min(seconds, _LONGEST_WAIT)))

else:
    now_ns = time.monotonic_ns

    import errno

    _libc = ctypes.CDLL(None, use_errno=True)
    _libc.mmap.restype = ctypes.c_void_p
    _libc.mmap.argtypes = (ctypes.c_void_p, ctypes.c_size_t, ctypes.c_int, ctypes.c_int,
                           ctypes.c_int, ctypes.c_int64)
    _libc.munmap.argtypes = (ctypes.c_void_p, ctypes.c_size_t)
    _libc.syscall.restype = ctypes.c_long

    _PROT_READ = 1
    _MAP_SHARED = 1
    _MAP_FAILED = ctypes.c_void_p(-1).value
    _FUTEX_WAIT = 0  # between processes; works on memory that is mapped for reading
    _FUTEX_NUMBERS = {"x86_64": 202, "aarch64": 98, "riscv64": 98, "armv7l": 240, "i686": 240,
                      "ppc64le": 221}
    _FUTEX = _FUTEX_NUMBERS.get(platform.machine()) if sys.maxsize > 2**32 or (
        platform.machine() in ("armv7l", "i686")) else None

    class _Time(ctypes.Structure):
        _fields_ = [("seconds", ctypes.c_long), ("nanoseconds", ctypes.c_long)]

    class SystemMapping(Mapping):
        def _open(self, slot: int) -> None:
            try:
                self._file = os.open(f"/dev/shm/KinetrelStream{slot - 1:X}",
                                     os.O_RDONLY | os.O_CLOEXEC | os.O_NOFOLLOW)
            except FileNotFoundError:
                raise NoTracker(slot) from None
            except PermissionError:
                raise Denied(slot) from None
            try:
                self.size = os.fstat(self._file).st_size
                if self.size == 0:
                    raise NotAStream(slot)
                address = _libc.mmap(None, self.size, _PROT_READ, _MAP_SHARED, self._file, 0)
                if address == _MAP_FAILED:
                    code = ctypes.get_errno()
                    raise KinetrelError(
                        f"slot {slot}: the stream cannot be mapped: {os.strerror(code)}")
                self.address = address
            except BaseException:
                os.close(self._file)
                raise

        def _close(self, address: int) -> None:
            file, self._file = self._file, -1
            _libc.munmap(address, self.size)
            os.close(file)

        def is_truncated(self) -> bool:
            return os.fstat(self._file).st_size < self.size

        def is_replaced(self) -> bool:
            return os.fstat(self._file).st_nlink == 0

        def _wait(self, offset: int, value: int, seconds: float) -> None:
            if _FUTEX is None:  # a machine whose number of the call we do not know
                time.sleep(min(seconds, 0.001))
                return
            whole = int(seconds)
            limit = _Time(whole, int((seconds - whole) * 1e9))
            result = _libc.syscall(
                ctypes.c_long(_FUTEX), ctypes.c_void_p(self.address + offset),
                ctypes.c_int(_FUTEX_WAIT), ctypes.c_uint32(value), ctypes.byref(limit), None,
                ctypes.c_int(0))
            if result < 0 and ctypes.get_errno() == errno.ENOSYS:
                time.sleep(min(seconds, 0.001))
