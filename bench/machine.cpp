#include "bench/machine.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace kinetrel::bench {

// ---- Names and CPUs ----------------------------------------------------------------------------

std::string IsolateNames() {
  const bool isolated = ::unshare(CLONE_NEWNS) == 0 &&
                        ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                        ::mount("tmpfs", "/dev/shm", "tmpfs", 0, "size=16m") == 0;
  return isolated ? "shared-memory names of this run's own"
                  : "no names of our own permitted: uses the machine's shared-memory slot 16";
}

WakefulCpus::WakefulCpus() : request_(::open("/dev/cpu_dma_latency", O_WRONLY | O_CLOEXEC)) {
  const int microseconds = 0;
  if (request_ < 0) return;
  if (::write(request_, &microseconds, sizeof microseconds) == sizeof microseconds) return;
  ::close(request_);
  request_ = -1;
}

WakefulCpus::~WakefulCpus() {
  if (request_ >= 0) ::close(request_);
}

std::string WakefulCpus::note() const {
  return request_ >= 0 ? "/dev/cpu_dma_latency held at 0"
                       : "/dev/cpu_dma_latency not permitted: sleeping CPUs wake late";
}

int CpuCount() { return static_cast<int>(::sysconf(_SC_NPROCESSORS_ONLN)); }

namespace {

void RunOnCpus(int first, int last) {
  cpu_set_t cpus;
  CPU_ZERO(&cpus);
  for (int cpu = first; cpu <= last; ++cpu) CPU_SET(static_cast<std::size_t>(cpu), &cpus);
  ::sched_setaffinity(0, sizeof cpus, &cpus);
}

}  // namespace

void RunOnCpu(int cpu) { RunOnCpus(cpu, cpu); }

void RunOnAnyCpu() { RunOnCpus(0, CpuCount() - 1); }

bool RunAtPriority(int priority) {
  sched_param parameters{};
  parameters.sched_priority = priority;
  return ::sched_setscheduler(0, SCHED_FIFO, &parameters) == 0;
}

void RunAtNormalPriority() {
  const sched_param parameters{};
  ::sched_setscheduler(0, SCHED_OTHER, &parameters);
}

// ---- Memory and processes ----------------------------------------------------------------------

void* MapCommon(std::size_t size) {
  void* const memory =
      ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::runtime_error("no memory in common");
  return memory;
}

void UnmapCommon(void* memory, std::size_t size) { ::munmap(memory, size); }

Child::Child(const std::function<void()>& body) : pid_(::fork()) {
  if (pid_ < 0) throw std::runtime_error("fork");
  if (pid_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    body();
    ::_exit(0);
  }
  const std::string path = "/proc/" + std::to_string(pid_) + "/stat";
  stat_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
}

Child::~Child() {
  if (!joined_) {
    Kill();
    Join();
  }
  ::close(stat_);
}

void Child::Kill() const { ::kill(pid_, SIGKILL); }

void Child::End() {
  ::kill(pid_, SIGTERM);
  Join();
}

bool Child::Sleeps() const {
  char text[128];
  const ssize_t length = ::pread(stat_, text, sizeof text, 0);
  if (length <= 0) return false;
  const std::string_view line(text, static_cast<std::size_t>(length));
  return line.find(") S ") != std::string_view::npos;
}

bool Child::Join() {
  int status = 0;
  joined_ = ::waitpid(pid_, &status, 0) == pid_;
  return joined_ && status == 0;
}

void ThrowAwayErrors() {
  const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  ::dup2(nowhere, STDERR_FILENO);
  ::close(nowhere);
}

void ThrowAwayOutput() {
  ThrowAwayErrors();
  ::dup2(STDERR_FILENO, STDOUT_FILENO);
}

void RunProgram(const std::string& name, const std::vector<std::string>& arguments) {
  const std::string path =
      std::filesystem::read_symlink("/proc/self/exe").replace_filename(name).string();
  int silence[2];
  if (::pipe(silence) != 0) ::_exit(127);  // both ends stay with the program
  ::dup2(silence[0], STDIN_FILENO);
  ThrowAwayOutput();
  std::vector<char*> argv = {const_cast<char*>(path.c_str())};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  ::execv(path.c_str(), argv.data());
  ::_exit(127);
}

// ---- Counters ----------------------------------------------------------------------------------

long OwnSwitches() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return usage.ru_nvcsw + usage.ru_nivcsw;
}

long WakeUpsOf(pid_t process) {
  long sum = 0;
  const std::string tasks = "/proc/" + std::to_string(process) + "/task";
  for (const auto& task : std::filesystem::directory_iterator(tasks)) {
    std::ifstream status(task.path() / "status");
    long ofTask = 0;
    for (std::string line; std::getline(status, line);) {
      std::sscanf(line.c_str(), "voluntary_ctxt_switches: %ld", &ofTask);
    }
    sum += ofTask;
  }
  return sum;
}

namespace {

double Seconds(const timespec& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

}  // namespace

double CpuSecondsOf(pid_t process) {
  clockid_t clock{};
  timespec used{};
  if (::clock_getcpuclockid(process, &clock) != 0) return 0;
  ::clock_gettime(clock, &used);
  return Seconds(used);
}

double OwnThreadCpuSeconds() {
  timespec used{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
  return Seconds(used);
}

// ---- System calls ------------------------------------------------------------------------------

namespace {

// Two calls that nothing else here makes tell the tracer when to count.
constexpr long kBegin = SYS_getsid;
constexpr long kEnd = SYS_getpgid;

// Lets the child run to the next system call's entry, and returns its number; nothing when the
// child has ended.
std::optional<long> NextSystemCall(pid_t child) {
  long signal = 0;
  for (;;) {
    int status = 0;
    ::ptrace(PTRACE_SYSCALL, child, nullptr, signal);
    if (::waitpid(child, &status, 0) != child || !WIFSTOPPED(status)) return std::nullopt;
    const int reason = WSTOPSIG(status);
    signal = reason == (SIGTRAP | 0x80) || reason == SIGTRAP ? 0 : reason;
    if (reason != (SIGTRAP | 0x80)) continue;
    __ptrace_syscall_info info{};
    ::ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info);
    if (info.op == PTRACE_SYSCALL_INFO_ENTRY) return static_cast<long>(info.entry.nr);
  }
}

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
  const long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL;
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

std::optional<SystemCalls> CountSystemCalls(const std::function<void()>& body) {
  const pid_t child = StartTraced(body);
  if (child == 0) return std::nullopt;
  SystemCalls calls;
  bool counting = false;
  while (const std::optional<long> number = NextSystemCall(child)) {
    if (*number == kBegin || *number == kEnd) {
      counting = *number == kBegin;
    } else if (counting) {
      ++calls[*number];
    }
  }
  return calls;
}

}  // namespace kinetrel::bench
