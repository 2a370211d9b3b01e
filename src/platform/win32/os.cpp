#include "platform/win32/os.h"

#include <winsock2.h>

#include <windows.h>

#include <algorithm>
#include <type_traits>

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

int StartOnce() {
  WSADATA told{};
  return ::WSAStartup(MAKEWORD(2, 2), &told);
}

}  // namespace

// ---- Errors --------------------------------------------------------------------------------

Status StatusFromSystem(unsigned long code, const char* what) {
  for (const Row& row : kRows) {
    if (row.code == code) return {row.error, static_cast<int>(code), what};
  }
  return {Error::Failed, static_cast<int>(code), what};
}

Status StatusOfLastError(const char* what) { return StatusFromSystem(::GetLastError(), what); }

// ---- Handles -------------------------------------------------------------------------------

Handle::~Handle() {
  if (handle_ != nullptr) ::CloseHandle(handle_);
}

unsigned long WaitStep(Milliseconds time) {
  constexpr Milliseconds::rep kLongest = 1'000'000'000;
  return static_cast<unsigned long>(std::clamp<Milliseconds::rep>(time.count(), 0, kLongest));
}

WaitEnd WaitFor(void* handle, Milliseconds timeout) {
  const Deadline deadline(timeout);
  for (Milliseconds left = timeout;; left = deadline.Remaining()) {
    switch (::WaitForSingleObject(handle, left == kForever ? INFINITE : WaitStep(left))) {
      case WAIT_OBJECT_0:
        return WaitEnd::Signalled;
      case WAIT_ABANDONED:
        return WaitEnd::Abandoned;
      case WAIT_TIMEOUT:
        // The system's tick may end a wait a little early.
        if (deadline.Passed()) return WaitEnd::TimedOut;
        break;
      default:
        return WaitEnd::Failed;
    }
  }
}

// ---- Sockets -------------------------------------------------------------------------------

static_assert(std::is_same_v<Socket, SOCKET> && kNoSocket == INVALID_SOCKET);

void StartSockets() { [[maybe_unused]] static const int started = StartOnce(); }

Status LastSocketFailure(const char* what) {
  return StatusFromSystem(static_cast<unsigned long>(::WSAGetLastError()), what);
}

Socket NewSocket(int family, int type) {
  StartSockets();
  const Socket made = ::WSASocketA(family, type, 0, nullptr, 0, WSA_FLAG_OVERLAPPED);
  if (made == kNoSocket || PrepareSocket(made)) return made;
  const int code = ::WSAGetLastError();
  ::closesocket(made);
  ::WSASetLastError(code);
  return kNoSocket;
}

bool PrepareSocket(Socket socket) {
  u_long on = 1;
  void* const handle = reinterpret_cast<void*>(socket);  // a socket is a handle of the system's
  ::SetHandleInformation(handle, HANDLE_FLAG_INHERIT, 0);
  return ::ioctlsocket(socket, static_cast<long>(FIONBIO), &on) == 0;
}

bool SetSocketOption(Socket socket, int level, int name, int value) {
  const char* const bytes = static_cast<const char*>(static_cast<const void*>(&value));
  return ::setsockopt(socket, level, name, bytes, sizeof value) == 0;
}

}  // namespace kinetrel
