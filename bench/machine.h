// The machine under a benchmark: other processes, where they run, and what they cost.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdio>
#include <functional>
#include <new>
#include <string>
#include <vector>

namespace kinetrel::bench {

// The shared-memory device number of every benchmark.
inline constexpr int kBenchDevice = 15;

// Gives this process and its children shared-memory names of their own, apart from other runs and
// live programs. If the system does not permit that, they use the machine's names. Returns a line
// that says which. Call it first.
std::string IsolateNames();

// While an object of this class exists, no CPU sleeps deeply, if the system permits that.
class WakefulCpus {
 public:
  WakefulCpus();
  ~WakefulCpus();
  WakefulCpus(const WakefulCpus&) = delete;
  WakefulCpus& operator=(const WakefulCpus&) = delete;
  std::string note() const;

 private:
  int request_;
};

int CpuCount();
void RunOnCpu(int cpu);  // the calling thread; an unknown CPU changes nothing
void RunOnAnyCpu();

// Real-time priority for the calling thread, 1 upward; false where it is not permitted.
bool RunAtPriority(int priority);
void RunAtNormalPriority();

// One T in memory that this process and the children it forks have in common.
void* MapCommon(std::size_t size);
void UnmapCommon(void* memory, std::size_t size);

template <typename T>
class Common {
 public:
  Common() : value_(new (MapCommon(sizeof(T))) T{}) {}
  ~Common() { UnmapCommon(value_, sizeof(T)); }
  Common(const Common&) = delete;
  Common& operator=(const Common&) = delete;
  T* operator->() const { return value_; }
  T& operator*() const { return *value_; }

 private:
  T* value_;
};

// A child process that runs `body` and ends. It opens its objects itself: parent and child would
// count as one user of an object that was open at the fork.
class Child {
 public:
  explicit Child(const std::function<void()>& body);
  ~Child();  // kills it if it still runs
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  void Kill() const;
  void End();           // asks it to end, and waits until it has
  bool Sleeps() const;  // is in the kernel, waiting
  bool Join();          // true when it ended by itself, with exit code 0

 private:
  pid_t pid_;
  int stat_ = -1;
  bool joined_ = false;
};

// Returns the present standard output, for the report, and discards what this process and its
// children print from now on: the lines of a device would stand between those of the report.
std::FILE* KeepOutput();
void ThrowAwayErrors();  // discards what this process prints on standard error
void ThrowAwayOutput();  // on both streams

// Becomes one of our programs, with a silent standard input and discarded output. For a child's
// body.
void RunProgram(const std::string& name, const std::vector<std::string>& arguments);

long OwnSwitches();                  // context switches of this process, of both kinds
long WakeUpsOf(pid_t process);       // how often its threads, those that live, had to wait
long WakeUpsOfOtherThreads();        // how often all of this process but the calling one had to
bool OtherThreadsSleep();            // all of them are in the kernel, waiting
double CpuSecondsOf(pid_t process);  // of all its threads, so far
double OwnThreadCpuSeconds();

}  // namespace kinetrel::bench
