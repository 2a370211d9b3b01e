// What every source of this system needs: its errors as a Status, handles, waiting, and sockets.
//
// Includes no header of the system, so that each source can choose which of them it needs.
#pragma once

#include <cstdint>
#include <utility>

#include "platform/clock.h"
#include "platform/status.h"

namespace kinetrel {

// ---- Errors --------------------------------------------------------------------------------

// The one table of the system's codes, those of GetLastError and of WSAGetLastError; 0 is success.
Status StatusFromSystem(unsigned long code, const char* what);

Status StatusOfLastError(const char* what);  // of the calling thread

// ---- Handles -------------------------------------------------------------------------------

// Owns one handle of the system and closes it.
class Handle {
 public:
  Handle() = default;
  explicit Handle(void* handle) : handle_(handle) {}
  Handle(Handle&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
  Handle& operator=(Handle&& other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
  }
  ~Handle();

  void* get() const { return handle_; }
  explicit operator bool() const { return handle_ != nullptr; }

 private:
  void* handle_ = nullptr;  // null: none, as the calls that make objects return it
};

enum class WaitEnd { Signalled, Abandoned, TimedOut, Failed };

// Waits for a handle; kForever has no end. Abandoned: a mutex whose owner died; it is now ours.
WaitEnd WaitFor(void* handle, Milliseconds timeout);

// As much of `time` as one system call takes; never its value for "no end".
unsigned long WaitStep(Milliseconds time);

// ---- Sockets -------------------------------------------------------------------------------

using Socket = std::uintptr_t;  // the system's SOCKET
inline constexpr Socket kNoSocket = ~Socket{0};

// Starts the system's sockets, version 2.2, at the first call in the process. When it fails, the
// calls that follow report it.
void StartSockets();

Status LastSocketFailure(const char* what);

// A socket that never blocks and that child processes do not inherit. kNoSocket: see
// LastSocketFailure.
Socket NewSocket(int family, int type);

bool PrepareSocket(Socket socket);  // the same for a socket that the system made

bool SetSocketOption(Socket socket, int level, int name, int value);

inline Socket SocketOf(std::intptr_t handle) { return static_cast<Socket>(handle); }
inline std::intptr_t HandleOf(Socket socket) { return static_cast<std::intptr_t>(socket); }

}  // namespace kinetrel
