#include "bench/tracing.h"

#include <linux/futex.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>

namespace kinetrel::bench {
namespace {

// Two system calls that no other code here makes tell the tracer when to count.
constexpr long kBegin = SYS_getsid;
constexpr long kEnd = SYS_getpgid;

struct Entry {
  pid_t thread;
  long number;
  const std::uint64_t* arguments;
};

// System calls that may sleep. A poll without a time-out does not.
bool Waits(const Entry& entry) {
  switch (entry.number) {
    case SYS_poll:
      return entry.arguments[2] != 0;
    case SYS_futex: {
      const auto operation = static_cast<int>(entry.arguments[1]) & FUTEX_CMD_MASK;
      return operation == FUTEX_WAIT || operation == FUTEX_WAIT_BITSET ||
             operation == FUTEX_LOCK_PI || operation == FUTEX_LOCK_PI2;
    }
    case SYS_ppoll:
    case SYS_epoll_wait:
    case SYS_nanosleep:
    case SYS_clock_nanosleep:
      return true;
    default:
      return false;
  }
}

bool IsConsoleOutput(const Entry& entry) {
  return entry.number == SYS_write && entry.arguments[0] <= STDERR_FILENO;
}

struct ThreadCalls {
  SystemCalls calls;
  int all = 0;
  int waits = 0;
};

class Tracer {
 public:
  explicit Tracer(pid_t child) : stopped_(child) {}

  // Lets them run until one enters a system call; empty when all have ended.
  std::optional<Entry> Next() {
    for (;;) {
      if (stopped_ != 0) ::ptrace(PTRACE_SYSCALL, stopped_, nullptr, signal_);
      int status = 0;
      stopped_ = ::waitpid(-1, &status, __WALL);
      if (stopped_ < 0) return std::nullopt;
      if (!WIFSTOPPED(status)) {
        stopped_ = 0;  // this one has ended
        continue;
      }
      const int reason = WSTOPSIG(status);
      // SIGSTOP is how a new thread begins.
      const bool own = (reason & 0x7F) == SIGTRAP || reason == SIGSTOP;
      signal_ = own ? 0 : reason;
      if (reason != (SIGTRAP | 0x80)) continue;
      ::ptrace(PTRACE_GET_SYSCALL_INFO, stopped_, sizeof info_, &info_);
      if (info_.op != PTRACE_SYSCALL_INFO_ENTRY) continue;
      return Entry{stopped_, static_cast<long>(info_.entry.nr), info_.entry.args};
    }
  }

 private:
  pid_t stopped_;
  long signal_ = 0;
  __ptrace_syscall_info info_{};
};

// Starts `body` in a child that waits for its tracer; 0 when it may not be traced.
pid_t StartTraced(const std::function<void()>& body) {
  const pid_t child = ::fork();
  if (child == 0) {
    if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) ::_exit(1);
    ::raise(SIGSTOP);
    body();
    ::_exit(0);
  }
  int status = 0;
  if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFSTOPPED(status)) return 0;
  const long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE | PTRACE_O_EXITKILL;
  ::ptrace(PTRACE_SETOPTIONS, child, nullptr, options);
  return child;
}

}  // namespace

void BeginCount() { ::syscall(kBegin, 0); }
void EndCount() { ::syscall(kEnd, 0); }

double PerOperation(const SystemCalls& calls, int operations) {
  double sum = 0;
  for (const auto& [number, count] : calls) sum += count;
  return sum / operations;
}

std::optional<TracedCalls> CountSystemCalls(const std::function<void()>& body) {
  const pid_t child = StartTraced(body);
  if (child == 0) return std::nullopt;
  TracedCalls calls;
  std::map<pid_t, ThreadCalls> others;
  bool counting = false;
  Tracer tracer(child);
  while (const std::optional<Entry> entry = tracer.Next()) {
    if (entry->number == kBegin || entry->number == kEnd) {
      counting = entry->number == kBegin;
    } else if (counting && entry->thread == child) {
      ++calls.own[entry->number];
    } else if (counting && !IsConsoleOutput(*entry)) {
      ThreadCalls& thread = others[entry->thread];
      ++thread.calls[entry->number];
      ++thread.all;
      if (Waits(*entry)) ++thread.waits;
    }
  }
  const auto busiest =
      std::max_element(others.begin(), others.end(),
                       [](const auto& a, const auto& b) { return a.second.all < b.second.all; });
  if (busiest != others.end()) {
    calls.busiest = busiest->second.calls;
    calls.busiestWaits = busiest->second.waits;
  }
  return calls;
}

}  // namespace kinetrel::bench
