#include "platform/browser.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "platform/posix/os.h"

namespace kinetrel {

Status OpenInBrowser(const std::string& address) {
  std::string program = "xdg-open";
  std::string argument = address;
  char* const arguments[] = {program.data(), argument.data(), nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  // The browser outlives us: with our sockets it would keep the port in use.
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  // In a session of its own, Ctrl-C on our terminal does not end it.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
  pid_t child = -1;
  const int failure =
      ::posix_spawnp(&child, program.c_str(), &actions, &attributes, arguments, environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (failure != 0) return StatusFromErrno(failure, "xdg-open cannot be started");
  std::thread([child] { ::waitpid(child, nullptr, 0); }).detach();  // no zombie stays
  return {};
}

}  // namespace kinetrel
