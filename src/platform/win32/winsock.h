// Sockets of this system, and what every use of them needs.
#pragma once

#include <winsock2.h>

#include <ws2tcpip.h>

#include <windows.h>

#include <cstdint>

#include "platform/status.h"

namespace kinetrel {

// Once for the process, whoever comes first; version 2.2. Cheap afterwards.
void StartWinsock();

Status LastSocketFailure(const char* what);

// Never blocks, and no program that we start gets it. INVALID_SOCKET: see LastSocketFailure.
SOCKET NewSocket(int family, int type);

bool MakeOurs(SOCKET socket);  // the same for a socket that the system made

bool SetSocketOption(SOCKET socket, int level, int name, int value);

inline SOCKET SocketOf(std::intptr_t handle) { return static_cast<SOCKET>(handle); }
inline std::intptr_t HandleOf(SOCKET socket) { return static_cast<std::intptr_t>(socket); }

}  // namespace kinetrel
