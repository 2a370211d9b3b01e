// The files behind named objects on Linux: their content, and what can disturb them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>

#include "platform/clock.h"
#include "platform/named_objects.h"
#include "tests/support/peer.h"

namespace kinetrel::test {
namespace {

int& NumberIn(const NamedMemory& memory) { return *static_cast<int*>(memory.data()); }

std::string PathOf(const std::string& name) { return "/dev/shm/" + name; }

bool AmRoot() { return ::geteuid() == 0; }

// A file among the objects that another program made. Removed with the test.
class Stray {
 public:
  Stray(const std::string& name, std::size_t size, mode_t mode = 0666)
      : path_(PathOf(name)), fd_(::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, mode)) {
    EXPECT_EQ(::ftruncate(fd_, static_cast<off_t>(size)), 0);
  }
  Stray(const Stray&) = delete;
  Stray& operator=(const Stray&) = delete;
  ~Stray() {
    ::close(fd_);
    std::filesystem::remove(path_);
  }
  // Locks as a user of the object does.
  void Hold() const {
    struct flock lock {};
    lock.l_type = F_RDLCK;
    lock.l_whence = SEEK_SET;
    lock.l_len = 1;
    EXPECT_EQ(::fcntl(fd_, F_OFD_SETLK, &lock), 0);
  }
  void LetGo() {
    ::close(fd_);
    fd_ = -1;
  }

 private:
  std::string path_;
  int fd_;
};

TEST(NamedFiles, StayWhenAForkedChildCloses) {
  const std::string name = UniqueName("fork");
  std::optional<NamedMemory> memory = *NamedMemory::Open(name, 8);
  const pid_t child = ::fork();
  if (child == 0) {
    memory.reset();
    ::_exit(0);
  }
  ::waitpid(child, nullptr, 0);
  EXPECT_TRUE(InSystem(name));
  Peer peer;
  peer.Ask("memory " + name + " 8");
  NumberIn(*memory) = 3;
  EXPECT_EQ(peer.Ask("peek"), "3");
}

TEST(NamedFiles, HaveTheirExactSizeAndAreOpenToAllUnderAnyUmask) {
  const std::string name = UniqueName("mode");
  Peer peer;
  peer.Ask("umask 63");  // 077
  ASSERT_EQ(peer.Ask("memory " + name + " 1464"), "done");
  struct stat about {};
  ASSERT_EQ(::stat(PathOf(name).c_str(), &about), 0);
  EXPECT_EQ(about.st_size, 1464);
  EXPECT_EQ(about.st_mode & 07777, 0666U);
}

TEST(NamedFiles, OpenToAnotherAccount) {
  if (!AmRoot()) GTEST_SKIP() << "needs root";
  const std::string name = UniqueName("account");
  Peer ours;
  Peer theirs;
  ASSERT_EQ(theirs.Ask("become 65534"), "yes");
  ours.Ask("memory " + name + " 8");
  ours.Ask("poke 5");
  EXPECT_EQ(theirs.Ask("memory " + name + " 8"), "done");
  EXPECT_EQ(theirs.Ask("peek"), "5");

  // The other account cannot remove it. The next user finds it as new, and can.
  ours.Ask("close");
  theirs.Ask("close");
  EXPECT_EQ(theirs.Ask("memory " + name + " 8"), "done");
  EXPECT_EQ(theirs.Ask("peek"), "0");
  theirs.Ask("close");
  ours.Ask("memory " + name + " 8");
  ours.Ask("close");
  EXPECT_FALSE(InSystem(name));
}

struct Left {
  const char* name;
  std::size_t size;
  mode_t mode;
};
TEST(NamedFiles, LeftBehindAreFoundFreshAndOpenToAll) {
  const Left rows[] = {{"SameSize", 64, 0666},
                       {"Empty", 0, 0666},
                       {"Larger", 8192, 0666},
                       {"BeforeItsMode", 0, 0600}};
  for (const Left& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string name = UniqueName("left");
    const Stray stray(name, row.size, row.mode);
    std::ofstream(PathOf(name), std::ios::in) << std::string(row.size, 'x');
    const Result<NamedMemory> memory = NamedMemory::Open(name, 64);
    ASSERT_TRUE(memory.Ok());
    EXPECT_EQ(std::string(static_cast<char*>(memory.value().data()), 64), std::string(64, '\0'));
    EXPECT_EQ(std::filesystem::file_size(PathOf(name)), 64U);
    EXPECT_EQ(std::filesystem::status(PathOf(name)).permissions(), std::filesystem::perms{0666});
  }
}

TEST(NamedFiles, AreFinishedByTheNextUserWhenTheirMakerDied) {
  const std::string name = UniqueName("half");
  Stray half(name, 0);
  half.Hold();  // as another process that opened it while the maker lived
  Peer peer;
  peer.Tell("mutex " + name);
  EXPECT_TRUE(WaitUntil([&] { return peer.Asleep(SYS_clock_nanosleep); }));
  half.LetGo();
  EXPECT_EQ(peer.Answer(), "done");
  EXPECT_EQ(peer.Ask("lock 0"), "yes");
}

TEST(NamedFiles, RefuseForeignContent) {
  const std::string name = UniqueName("wrong");
  const auto openMutex = [&] { return NamedMutex::Open(name).status().error; };
  {
    const Stray otherSize(name, 5);
    otherSize.Hold();
    EXPECT_EQ(openMutex(), Error::Invalid);
  }
  std::filesystem::create_directory(PathOf(name));
  EXPECT_EQ(openMutex(), Error::Invalid);
  std::filesystem::remove(PathOf(name));
  ASSERT_EQ(::mkfifo(PathOf(name).c_str(), 0666), 0);
  EXPECT_EQ(openMutex(), Error::Invalid);
  EXPECT_TRUE(InSystem(name)) << "not ours to remove";
  std::filesystem::remove(PathOf(name));
}

TEST(NamedFiles, ReportAnAccountWithoutRights) {
  if (!AmRoot()) GTEST_SKIP() << "needs root";
  const std::string name = UniqueName("denied");
  const Stray stray(name, 8, 0600);
  Peer peer;
  peer.Ask("become 65534");
  EXPECT_EQ(peer.Ask("memory " + name + " 8").find("opening shared memory: permission denied"), 0U);
}

TEST(NamedFiles, LeaveNothingBehindOnAFullSystem) {
  Peer peer;
  if (peer.Ask("shrink 8192") != "yes") GTEST_SKIP() << "needs root";
  EXPECT_EQ(peer.Ask("memory small 4096"), "done");
  EXPECT_EQ(peer.Ask("memory large 8192").find("allocating shared memory: no space left"), 0U);
  EXPECT_EQ(peer.Ask("objects"), "1");
}

TEST(EventFile, AsksForAWakeOnlyWhenSomebodyMayBeWaiting) {
  const std::string name = UniqueName("mark");
  Result<Event> event = Event::Open(name);
  EXPECT_FALSE(event->Mark());
  EXPECT_FALSE(event->Mark());
  event->Reset();
  EXPECT_FALSE(event->Mark());
  event->Reset();

  Peer waiter;
  waiter.Ask("event " + name);
  waiter.Tell("wait 20000");
  ASSERT_TRUE(WaitUntil([&] { return waiter.Asleep(); }));
  EXPECT_TRUE(event->Mark());
  event->Wake();
  EXPECT_EQ(waiter.Answer(), "yes");
  EXPECT_FALSE(event->Mark());
}

TEST(EventFile, ReachesItsWaitersWhenTheSetterDiesBeforeTheWake) {
  const std::string name = UniqueName("unwoken");
  Result<Event> event = Event::Open(name);
  Peer waiter;
  waiter.Ask("event " + name);
  waiter.Tell("wait 60000");
  ASSERT_TRUE(WaitUntil([&] { return waiter.Asleep(); }));
  ASSERT_TRUE(event->Mark());
  const std::int64_t start = ClockTicks();
  EXPECT_EQ(waiter.Answer(), "yes");
  EXPECT_LT(ClockTicks() - start, 30'000'000'000);
}

}  // namespace
}  // namespace kinetrel::test
