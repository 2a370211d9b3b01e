#include "bench/machine.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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

namespace {

void ThrowAway(int stream) {
  const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  ::dup2(nowhere, stream);
  ::close(nowhere);
}

}  // namespace

std::FILE* KeepOutput() {
  std::FILE* const kept = ::fdopen(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0), "w");
  if (kept == nullptr) throw std::runtime_error("standard output cannot be had");
  std::setvbuf(kept, nullptr, _IOLBF, BUFSIZ);
  ThrowAway(STDOUT_FILENO);
  return kept;
}

void ThrowAwayErrors() { ThrowAway(STDERR_FILENO); }

void ThrowAwayOutput() {
  ThrowAwayErrors();
  ThrowAway(STDOUT_FILENO);
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

namespace {

struct ThreadState {
  long waits = 0;
  bool sleeps = false;
};

ThreadState StateOf(const std::filesystem::path& task) {
  ThreadState state;
  std::ifstream status(task / "status");
  for (std::string line; std::getline(status, line);) {
    std::sscanf(line.c_str(), "voluntary_ctxt_switches: %ld", &state.waits);
    if (line.starts_with("State:")) state.sleeps = line.find("S (") != std::string::npos;
  }
  return state;
}

std::vector<ThreadState> StatesOf(pid_t process, pid_t allBut) {
  std::vector<ThreadState> states;
  const std::string tasks = "/proc/" + std::to_string(process) + "/task";
  for (const auto& task : std::filesystem::directory_iterator(tasks)) {
    if (task.path().filename() == std::to_string(allBut)) continue;
    states.push_back(StateOf(task.path()));
  }
  return states;
}

long SumOfWaits(const std::vector<ThreadState>& states) {
  long sum = 0;
  for (const ThreadState& state : states) sum += state.waits;
  return sum;
}

}  // namespace

long WakeUpsOf(pid_t process) { return SumOfWaits(StatesOf(process, 0)); }

long WakeUpsOfOtherThreads() { return SumOfWaits(StatesOf(::getpid(), ::gettid())); }

bool OtherThreadsSleep() {
  const std::vector<ThreadState> states = StatesOf(::getpid(), ::gettid());
  return std::all_of(states.begin(), states.end(), [](const auto& state) { return state.sleeps; });
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

}  // namespace kinetrel::bench
