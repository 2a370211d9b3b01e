#include "platform/win32/winsock.h"

#include "platform/win32/os_status.h"

namespace kinetrel {
namespace {

int Start() {
  WSADATA told{};
  return ::WSAStartup(MAKEWORD(2, 2), &told);
}

}  // namespace

// Where it fails, the calls that follow say that it did.
void StartWinsock() { [[maybe_unused]] static const int started = Start(); }

Status LastSocketFailure(const char* what) {
  return StatusFromSystem(static_cast<unsigned long>(::WSAGetLastError()), what);
}

SOCKET NewSocket(int family, int type) {
  StartWinsock();
  const SOCKET made = ::WSASocketA(family, type, 0, nullptr, 0, WSA_FLAG_OVERLAPPED);
  if (made == INVALID_SOCKET || MakeOurs(made)) return made;
  const int code = ::WSAGetLastError();
  ::closesocket(made);
  ::WSASetLastError(code);
  return INVALID_SOCKET;
}

bool MakeOurs(SOCKET socket) {
  u_long on = 1;
  void* const handle = reinterpret_cast<void*>(socket);  // a socket is a handle of the system's
  ::SetHandleInformation(handle, HANDLE_FLAG_INHERIT, 0);
  return ::ioctlsocket(socket, static_cast<long>(FIONBIO), &on) == 0;
}

bool SetSocketOption(SOCKET socket, int level, int name, int value) {
  const char* const bytes = static_cast<const char*>(static_cast<const void*>(&value));
  return ::setsockopt(socket, level, name, bytes, sizeof value) == 0;
}

}  // namespace kinetrel
