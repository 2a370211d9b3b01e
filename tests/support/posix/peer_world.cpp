#include "tests/support/peer_world.h"

#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace kinetrel::test {

std::string UniqueName(const std::string& word) {
  return "kinetrel-test-" + std::to_string(::getpid()) + "-" + word;
}

bool IsAsleep(pid_t process, long call) {
  std::ifstream file("/proc/" + std::to_string(process) + "/syscall");
  std::string now;
  const long wanted = call == kWaitForOthers ? SYS_futex : call;
  return !(file >> now) || now == std::to_string(wanted);
}

bool InSystem(const std::string& name) { return std::filesystem::exists("/dev/shm/" + name); }

void DieAtOnce() {
  ::raise(SIGKILL);
  ::_exit(1);
}

bool BecomeAccount(unsigned account) { return ::setgid(account) == 0 && ::setuid(account) == 0; }

bool SetFileMask(unsigned mask) {
  ::umask(mask);
  return true;
}

bool ShrinkSharedMemory(std::size_t bytes) {
  const std::string size = "size=" + std::to_string(bytes);
  return ::unshare(CLONE_NEWNS) == 0 &&
         ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount("small", "/dev/shm", "tmpfs", 0, size.c_str()) == 0;
}

std::size_t CountObjects() {
  const std::filesystem::directory_iterator all("/dev/shm");
  return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

}  // namespace kinetrel::test
