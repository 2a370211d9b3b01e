#include "platform/win32/os_status.h"

#include <winsock2.h>

#include <windows.h>

namespace kinetrel {
namespace {

struct Row {
  DWORD code;
  Error error;
};
constexpr Row kRows[] = {
    {ERROR_SUCCESS, Error::None},
    {ERROR_FILE_NOT_FOUND, Error::NotFound},
    {ERROR_PATH_NOT_FOUND, Error::NotFound},
    {ERROR_INVALID_DRIVE, Error::NotFound},
    {ERROR_BAD_UNIT, Error::NotFound},
    {ERROR_DEV_NOT_EXIST, Error::NotFound},
    {ERROR_MOD_NOT_FOUND, Error::NotFound},
    {ERROR_PROC_NOT_FOUND, Error::NotFound},
    {ERROR_ACCESS_DENIED, Error::Denied},
    {ERROR_PRIVILEGE_NOT_HELD, Error::Denied},
    {ERROR_SHARING_VIOLATION, Error::Busy},
    {ERROR_LOCK_VIOLATION, Error::Busy},
    {ERROR_BUSY, Error::Busy},
    {ERROR_PIPE_BUSY, Error::Busy},
    {ERROR_NOT_ENOUGH_MEMORY, Error::NoSpace},
    {ERROR_OUTOFMEMORY, Error::NoSpace},
    {ERROR_TOO_MANY_OPEN_FILES, Error::NoSpace},
    {ERROR_DISK_FULL, Error::NoSpace},
    {ERROR_NO_SYSTEM_RESOURCES, Error::NoSpace},
    {ERROR_COMMITMENT_LIMIT, Error::NoSpace},
    {ERROR_SEM_TIMEOUT, Error::TimedOut},
    {WAIT_TIMEOUT, Error::TimedOut},
    {ERROR_TIMEOUT, Error::TimedOut},
    {ERROR_INVALID_HANDLE, Error::Closed},
    {ERROR_NOT_READY, Error::Closed},
    {ERROR_BAD_COMMAND, Error::Closed},  // a serial port that was unplugged
    {ERROR_GEN_FAILURE, Error::Closed},  // the same, of other drivers
    {ERROR_DEVICE_NOT_CONNECTED, Error::Closed},
    {ERROR_DEVICE_REMOVED, Error::Closed},
    {ERROR_OPERATION_ABORTED, Error::Closed},
    {ERROR_BROKEN_PIPE, Error::Closed},
    {ERROR_NO_DATA, Error::Closed},
    {ERROR_PIPE_NOT_CONNECTED, Error::Closed},
    {ERROR_INVALID_PARAMETER, Error::Invalid},
    {ERROR_INVALID_NAME, Error::Invalid},
    {ERROR_BAD_PATHNAME, Error::Invalid},
    {ERROR_FILENAME_EXCED_RANGE, Error::Invalid},
    {ERROR_BAD_EXE_FORMAT, Error::Invalid},
    {ERROR_INVALID_FUNCTION, Error::Unsupported},
    {ERROR_NOT_SUPPORTED, Error::Unsupported},
    {ERROR_CALL_NOT_IMPLEMENTED, Error::Unsupported},
    {WSAHOST_NOT_FOUND, Error::NotFound},
    {WSANO_DATA, Error::NotFound},
    {WSAENETUNREACH, Error::NotFound},
    {WSAEHOSTUNREACH, Error::NotFound},
    {WSAEADDRNOTAVAIL, Error::NotFound},
    {WSAEACCES, Error::Denied},
    {WSAEADDRINUSE, Error::Busy},
    {WSAEMFILE, Error::NoSpace},
    {WSAENOBUFS, Error::NoSpace},
    {WSAEWOULDBLOCK, Error::TimedOut},
    {WSAETIMEDOUT, Error::TimedOut},
    {WSAECONNREFUSED, Error::Closed},
    {WSAECONNRESET, Error::Closed},
    {WSAECONNABORTED, Error::Closed},
    {WSAENETRESET, Error::Closed},
    {WSAENOTCONN, Error::Closed},
    {WSAESHUTDOWN, Error::Closed},
    {WSAEINVAL, Error::Invalid},
    {WSAEAFNOSUPPORT, Error::Unsupported},
    {WSAEOPNOTSUPP, Error::Unsupported},
};

}  // namespace

Status StatusFromSystem(unsigned long code, const char* what) {
  for (const Row& row : kRows) {
    if (row.code == code) return {row.error, static_cast<int>(code), what};
  }
  return {Error::Failed, static_cast<int>(code), what};
}

Status StatusOfLastError(const char* what) { return StatusFromSystem(::GetLastError(), what); }

}  // namespace kinetrel
