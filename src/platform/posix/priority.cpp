#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "platform/posix/os.h"
#include "platform/thread.h"

namespace kinetrel {
namespace {

// Above every ordinary thread, below the kernel's own interrupt threads (50).
constexpr int kTimeCritical = 40;
constexpr int kHighestNice = -20;

}  // namespace

Status RaiseToTimeCritical() {
  sched_param parameters{};
  parameters.sched_priority = kTimeCritical;
  // 0 is the calling thread here, though the man page says process.
  if (::sched_setscheduler(0, SCHED_FIFO | SCHED_RESET_ON_FORK, &parameters) == 0) return {};
  const Status refused = StatusFromErrno(errno, "raising the priority");
  const auto self = static_cast<id_t>(::syscall(SYS_gettid));
  ::setpriority(PRIO_PROCESS, self, kHighestNice);  // better than nothing
  return refused;
}

}  // namespace kinetrel
