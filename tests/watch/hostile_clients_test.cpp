// A running tracker, kinetrel, among clients of its blocks that are in other namespaces of process
// numbers, stopped, killed with the mutex in their hands, or overwrite the mutex. It lives, frames
// go on, and it ends when it is told to.
//
// Some seconds; KINETREL_TEST_HOSTILE=60 makes the long run, with so many seconds of readers.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>

#include "publish/shared_track_reader.h"
#include "tests/watch/tracker.h"

namespace kinetrel::test {
namespace {

constexpr std::size_t kMutexSize = 48;

int LongRunSeconds() {
  const char* const asked = std::getenv("KINETREL_TEST_HOSTILE");
  return asked != nullptr ? std::atoi(asked) : 0;
}
int Times(int usual, int inLongRun) { return LongRunSeconds() > 0 ? inLongRun : usual; }

// A process that holds the mutex of a block as the C library's clients do, in a namespace of
// process numbers of its own if asked. It is stopped or killed by its number here.
class Holder {
 public:
  Holder(void* mutex, bool elsewhere) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return;
    parent_ = ::fork();
    if (parent_ == 0) Begin(static_cast<pthread_mutex_t*>(mutex), elsewhere, ends[1]);
    ::close(ends[1]);
    std::array<pid_t, 2> said{};  // its number here, and that it holds the mutex
    for (pid_t& each : said) {
      holds_ = ::read(ends[0], &each, sizeof each) == sizeof each && each != 0;
    }
    pid_ = said[0];
    ::close(ends[0]);
  }
  ~Holder() {
    if (pid_ > 0) ::kill(pid_, SIGKILL);
    ::waitpid(parent_, nullptr, 0);
  }
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;

  bool holds() const { return holds_; }
  pid_t pid() const { return pid_; }

 private:
  [[noreturn]] static void Begin(pthread_mutex_t* mutex, bool elsewhere, int end) {
    if (elsewhere && ::unshare(CLONE_NEWPID) != 0) ::_exit(1);
    std::array<int, 2> told{};
    if (::pipe2(told.data(), O_CLOEXEC) != 0) ::_exit(1);
    const pid_t child = ::fork();
    if (child != 0) {  // in the old namespace, so it knows the child's number there
      pid_t done = 0;
      (void)!::write(end, &child, sizeof child);
      ::close(told[1]);
      (void)!::read(told[0], &done, sizeof done);
      (void)!::write(end, &done, sizeof done);
      ::waitpid(child, nullptr, 0);
      ::_exit(0);
    }
    const int code = ::pthread_mutex_lock(mutex);
    if (code == EOWNERDEAD) ::pthread_mutex_consistent(mutex);
    const pid_t done = code == 0 || code == EOWNERDEAD ? 1 : 0;
    (void)!::write(told[1], &done, sizeof done);
    for (;;) ::pause();
  }

  pid_t parent_ = -1;
  pid_t pid_ = 0;
  bool holds_ = false;
};

class HostileClients : public testing::Test {
 protected:
  void SetUp() override {
    ChildProcess probe("/usr/bin/unshare", {"-p", "-f", "--mount-proc", "true"});
    if (probe.Wait() != 0) GTEST_SKIP() << "needs the right to make namespaces";
    tracker_ = std::make_unique<ChildProcess>("kinetrel", Simulated(slot_, {"-s", "0xFFFFFFFF"}));
    ASSERT_TRUE(WaitUntil([&] { return reader_.OpenOnly(0); })) << tracker_->error();
    const std::string name = "/" + MutexName(slot_.device(), 0);
    const int file = ::shm_open(name.c_str(), O_RDWR | O_CLOEXEC, 0);
    mutex_ = ::mmap(nullptr, kMutexSize, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    ::close(file);
    ASSERT_NE(mutex_, MAP_FAILED);
    ASSERT_TRUE(FramesGoOn());
  }

  void TearDown() override {
    if (tracker_ == nullptr) return;
    EXPECT_TRUE(FramesGoOn()) << tracker_->error();
    tracker_->Signal(SIGTERM);
    EXPECT_EQ(tracker_->Wait(), 0) << tracker_->error();
  }

  bool FramesGoOn() {
    SharedTrackBlock block{};
    if (!WaitUntil([&] { return reader_.Copy(block, Milliseconds(1000)); })) return false;
    const int before = block.frameCount;
    return WaitUntil(
        [&] { return reader_.Copy(block, Milliseconds(1000)) && block.frameCount > before + 32; });
  }

  // `thread`  its number in its namespace; 1: every first process has it.
  std::unique_ptr<ChildProcess> StartReader(int thread) const {
    const std::string watch = std::string(KINETREL_BIN_DIR) +
                              "/kinetrel-watch --block --json --slot " +
                              std::to_string(slot_.slot()) + " >/dev/null";
    const std::string command = thread == 1
                                    ? "exec " + watch
                                    : "echo " + std::to_string(thread - 1) +
                                          " >/proc/sys/kernel/ns_last_pid; " + watch + "; true";
    return std::make_unique<ChildProcess>(
        "/usr/bin/unshare",
        Strings{"-p", "-f", "--kill-child", "--mount-proc", "sh", "-c", command});
  }

  void ReadersComeAndGo(bool equalNumbers) {
    std::array<std::unique_ptr<ChildProcess>, 8> readers;
    const auto start = [&](std::size_t i) {
      readers[i] = StartReader(equalNumbers ? 1 : 100 * (static_cast<int>(i) + 1));
    };
    for (std::size_t i = 0; i < readers.size(); ++i) start(i);
    const int kills = Times(10, 100);
    const Milliseconds pause(Times(1000, 1000 * LongRunSeconds()) / kills);
    std::mt19937 random(1);
    for (int i = 0; i < kills; ++i) {
      SleepFor(pause);
      const std::size_t killed = random() % readers.size();
      readers[killed].reset();
      start(killed);
      ASSERT_EQ(tracker_->Wait(std::chrono::milliseconds(0)), ChildProcess::kStillRuns)
          << tracker_->error();
    }
  }

  const FreeSlot slot_;
  SharedTrackReader reader_{slot_.device()};
  std::unique_ptr<ChildProcess> tracker_;
  void* mutex_ = MAP_FAILED;
};

TEST_F(HostileClients, ReadInNamespacesWithEqualThreadNumbers) { ReadersComeAndGo(true); }
TEST_F(HostileClients, ReadInNamespacesWithUnequalThreadNumbers) { ReadersComeAndGo(false); }

TEST_F(HostileClients, DieWithTheMutexInTheirHands) {
  for (int i = 0; i < Times(6, 100); ++i) {
    Holder holder(mutex_, i % 2 == 0);
    ASSERT_TRUE(holder.holds());
    ::kill(holder.pid(), SIGKILL);
    ASSERT_TRUE(FramesGoOn()) << i << tracker_->error();
  }
}

TEST_F(HostileClients, StopWithTheMutexInTheirHands) {
  {
    const Holder holder(mutex_, false);
    ASSERT_TRUE(holder.holds());
    ::kill(holder.pid(), SIGSTOP);
    EXPECT_TRUE(tracker_->ExpectError("(process " + std::to_string(holder.pid()) + ") holds"));
  }
  EXPECT_TRUE(tracker_->ExpectError("is free again"));
  const Holder elsewhere(mutex_, true);
  ASSERT_TRUE(elsewhere.holds());
  ::kill(elsewhere.pid(), SIGSTOP);
  EXPECT_TRUE(tracker_->ExpectError("was not found. The bin was taken back"));
}

TEST_F(HostileClients, WriteAnythingIntoTheMutex) {
  const auto reader = StartReader(1);
  std::mt19937 random(1);
  const int times = Times(1000, 10000);
  for (int i = 0; i < times; ++i) {
    std::array<unsigned char, kMutexSize> noise;
    for (auto& byte : noise) byte = static_cast<unsigned char>(random());
    std::memcpy(mutex_, noise.data(), kMutexSize);
    SleepFor(Milliseconds(i % 10 == 0 ? 1 : 0));
  }
  EXPECT_TRUE(FramesGoOn()) << tracker_->error();
}

}  // namespace
}  // namespace kinetrel::test
