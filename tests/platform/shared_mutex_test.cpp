// A named mutex and the C library's clients: together, and against every content.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <functional>
#include <random>

#include "platform/named_objects.h"
#include "tests/support/peer.h"

namespace kinetrel::test {
namespace {

constexpr Milliseconds kLong{20000};
constexpr Milliseconds kNow{0};
constexpr int kRounds = 20000;

class PthreadClients : public testing::Test {
 protected:
  static constexpr std::size_t kSize = 48;

  void SetUp() override {
    const int fd = ::shm_open(("/" + name_).c_str(), O_RDWR | O_CLOEXEC, 0);
    struct flock use {};
    use.l_type = F_RDLCK;
    use.l_len = 1;
    ASSERT_EQ(::fcntl(fd, F_OFD_SETLK, &use), 0);
    object_ = ::mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ASSERT_NE(object_, MAP_FAILED);
  }

  // As a client does it. What pthread_mutex_lock answered.
  int Lock() const {
    const int code = ::pthread_mutex_lock(mutex());
    if (code == EOWNERDEAD) ::pthread_mutex_consistent(mutex());
    return code;
  }
  pthread_mutex_t* mutex() const { return static_cast<pthread_mutex_t*>(object_); }

  // In another process. What `act` returned; below 0: the signal that ended it.
  static pid_t Begin(const std::function<int()>& act) {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(act());
    return child;
  }
  static int EndOf(pid_t child) {
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
  }
  static int Elsewhere(const std::function<int()>& act) { return EndOf(Begin(act)); }

  int CountWithPthread() {
    for (int i = 0; i < kRounds; ++i) {
      if (const int code = Lock(); code != 0) return code;
      Increment();
      ::pthread_mutex_unlock(mutex());
    }
    return 0;
  }
  int CountWithOurs() {
    for (int i = 0; i < kRounds; ++i) {
      if (!ours_.Lock(kLong)) return 1;
      Increment();
      if (!ours_.Unlock()) return 2;
    }
    return 0;
  }
  // Not atomic, on purpose.
  void Increment() { *sum() = *sum() + 1; }
  volatile int* sum() const { return static_cast<volatile int*>(memory_.data()); }

  const std::string name_ = UniqueName("pthread");
  NamedMutex ours_ = NamedMutex::Open(name_).value();
  NamedMemory memory_ = NamedMemory::Open(name_ + "-sum", sizeof(int)).value();
  void* object_ = nullptr;
};

TEST_F(PthreadClients, AreKeptOutAndKeepUsOut) {
  const pid_t first = Begin([&] { return CountWithPthread(); });
  const pid_t second = Begin([&] { return CountWithPthread(); });
  EXPECT_EQ(CountWithOurs(), 0);
  EXPECT_EQ(EndOf(first), 0);
  EXPECT_EQ(EndOf(second), 0);
  EXPECT_EQ(*sum(), 3 * kRounds);
}

TEST_F(PthreadClients, GetTheMutexOfOurDeadAndWeGetTheirs) {
  EXPECT_EQ(Elsewhere([&] { return ours_.Lock(kNow) ? 7 : 1; }), 7);
  EXPECT_EQ(Elsewhere([&] { return Lock(); }), EOWNERDEAD);
  EXPECT_TRUE(ours_.Lock(kNow)) << "the client died with it";
  EXPECT_TRUE(ours_.Unlock());
  EXPECT_FALSE(ours_.TakeRepaired());
}

// A client that unlocks an abandoned mutex without repairing it makes it unusable for all.
TEST_F(PthreadClients, AreHelpedWhenOneLeftTheMutexUnrecoverable) {
  Elsewhere([&] { return Lock(); });
  Elsewhere([&] {
    const int code = ::pthread_mutex_lock(mutex());
    ::pthread_mutex_unlock(mutex());
    return code;
  });
  EXPECT_EQ(Elsewhere([&] { return Lock(); }), ENOTRECOVERABLE);
  ASSERT_TRUE(ours_.Lock(kNow));
  EXPECT_TRUE(ours_.TakeRepaired());
  EXPECT_FALSE(ours_.TakeRepaired()) << "told once";
  EXPECT_TRUE(ours_.Unlock());
  EXPECT_EQ(Elsewhere([&] { return Lock() + ::pthread_mutex_unlock(mutex()); }), 0);
}

// Equal thread numbers in two process-id namespaces: each first process is number 1.
TEST_F(PthreadClients, OfOtherNamespacesAreKeptApartDespiteEqualNumbers) {
  const auto inNamespace = [&](const std::function<int()>& act) {
    return Begin([&] { return ::unshare(CLONE_NEWPID) == 0 ? Elsewhere(act) : 99; });
  };
  const pid_t first = inNamespace([&] { return ::getpid() == 1 ? CountWithOurs() : 3; });
  const pid_t second = inNamespace([&] { return ::getpid() == 1 ? CountWithOurs() : 3; });
  const pid_t third = inNamespace([&] { return ::getpid() == 1 ? CountWithPthread() : 3; });
  const int end = EndOf(first);
  EXPECT_EQ(EndOf(second), end);
  EXPECT_EQ(EndOf(third), end);
  if (end == 99) GTEST_SKIP() << "needs the right to make namespaces";
  EXPECT_EQ(end, 0);
  EXPECT_EQ(*sum(), 3 * kRounds);
}

TEST_F(PthreadClients, MayWriteAnything) {
  std::mt19937 random(1);
  const auto scribble = [&] {
    std::array<unsigned char, kSize> noise;
    for (auto& byte : noise) byte = static_cast<unsigned char>(random());
    std::memcpy(object_, noise.data(), kSize);
  };
  int noticed = 0;
  for (int i = 0; i < 10000; ++i) {
    if (i % 2 == 0) scribble();
    if (!ours_.Lock(kNow)) {
      EXPECT_NE(ours_.FindOwner().evidence, MutexOwner::Evidence::Impossible) << "this test has it";
      ASSERT_TRUE(ours_.TakeFrom(ours_.OwnerNumber()));
    }
    if (i % 3 == 0) scribble();
    noticed += ours_.Unlock() ? 0 : 1;
  }
  EXPECT_GT(noticed, 3000);
  while (!ours_.Lock(kNow)) ASSERT_TRUE(ours_.TakeFrom(ours_.OwnerNumber()));
  EXPECT_TRUE(ours_.Unlock());
  EXPECT_EQ(Elsewhere([&] { return Lock() + ::pthread_mutex_unlock(mutex()); }), 0);
}

TEST_F(PthreadClients, AreNamedAsOwners) {
  Peer peer;
  peer.Ask("mutex " + name_);
  ASSERT_EQ(peer.Ask("lock 0"), "yes");
  const MutexOwner owner = ours_.FindOwner();
  EXPECT_EQ(owner.evidence, MutexOwner::Evidence::Found);
  EXPECT_EQ(owner.process, peer.pid());
}

}  // namespace
}  // namespace kinetrel::test
