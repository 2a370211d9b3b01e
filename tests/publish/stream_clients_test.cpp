// Clients of the stream in processes of their own: stopped, killed, many, of another account and in
// another namespace; and writers that are killed.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "publish/record_stream_writer.h"
#include "tests/support/free_slot.h"
#include "tests/support/wait_until.h"

namespace kinetrel::test {
namespace {

constexpr uid_t kNobody = 65534;
constexpr int kSkipped = 77;

std::unique_ptr<RecordStreamWriter> OpenWriter(int device) {
  auto opened = RecordStreamWriter::Open(device);
  EXPECT_TRUE(opened.Ok()) << Describe(opened.status());
  return opened.Ok() ? std::move(*opened) : nullptr;
}

void PublishTo(RecordStreamWriter& writer, int count) {
  for (int i = 0; i < count; ++i) {
    kinetrel_record record{};
    writer.Publish({&record, 1});
  }
}

// A process that runs `body` and exits with its result.
class Process {
 public:
  explicit Process(const std::function<int()>& body) : pid_(::fork()) {
    if (pid_ == 0) ::_exit(body());
  }
  ~Process() {
    if (ended_) return;
    ::kill(pid_, SIGKILL);
    Wait();
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const { return pid_; }
  int Wait() {
    int status = 0;
    ::waitpid(pid_, &status, 0);
    ended_ = true;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  pid_t pid_;
  bool ended_ = false;
};

// How many processes have come as far as they can by themselves; shared with them all.
std::atomic<int>& Ready() {
  static auto* const ready = static_cast<std::atomic<int>*>(
      ::mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
             -1, 0));
  return *ready;
}

// Reads until the record of the number; 0 when it came and none was lost.
int ReadUpTo(int slot, std::uint64_t last) {
  kinetrel_stream stream;
  const kinetrel_stream_result opened = kinetrel_stream_open(&stream, slot, 20'000);
  ++Ready();
  if (opened != kinetrel_stream_ok) return 1;
  kinetrel_stream_rewind(&stream);
  kinetrel_record record;
  for (record.number = 0; record.number < last;) {
    if (kinetrel_stream_next(&stream, &record, 20'000) != kinetrel_stream_ok) return 2;
  }
  return kinetrel_stream_lost(&stream) == 0 ? 0 : 3;
}

int AsNobody(int slot, int device, std::uint64_t last) {
  if (::setgid(kNobody) != 0 || ::setuid(kNobody) != 0) return ++Ready(), kSkipped;
  const std::string name = "/" + StreamName(device);
  if (::shm_open(name.c_str(), O_RDWR, 0) >= 0) return 4;
  if (::shm_unlink(name.c_str()) == 0) return 5;
  return ReadUpTo(slot, last);
}

int InOtherNamespace(int slot, std::uint64_t last) {
  if (::unshare(CLONE_NEWPID) != 0) return ++Ready(), kSkipped;
  return Process([=] { return ReadUpTo(slot, last); }).Wait();
}

struct ClientCase {
  const char* name;
  int clients;
  int signal;  // that each gets when it has the stream open
  std::function<int(const FreeSlot&, std::uint64_t)> body;
};

void PrintTo(const ClientCase& row, std::ostream* out) { *out << row.name; }

class StreamClients : public testing::TestWithParam<ClientCase> {};

// Whatever a client does, the writer goes on and a reader beside it gets everything.
TEST_P(StreamClients, DoNothingToTheWriter) {
  constexpr std::uint64_t kRecords = 1000;
  const FreeSlot slot;
  const mode_t before = ::umask(077);
  const auto writer = OpenWriter(slot.device());
  ::umask(before);
  ASSERT_NE(writer, nullptr);
  Ready() = 0;
  std::vector<std::unique_ptr<Process>> clients;
  for (int i = 0; i < GetParam().clients; ++i) {
    clients.push_back(std::make_unique<Process>([&] { return GetParam().body(slot, kRecords); }));
  }
  Process beside([&] { return ReadUpTo(slot.slot(), kRecords); });
  PublishTo(*writer, kRecords / 2);
  ASSERT_TRUE(WaitUntil([] { return Ready() == GetParam().clients + 1; }));
  for (const auto& client : clients) {
    if (GetParam().signal != 0) ::kill(client->pid(), GetParam().signal);
  }
  PublishTo(*writer, kRecords / 2);
  EXPECT_EQ(beside.Wait(), 0);
  if (GetParam().signal != 0) return;
  for (const auto& client : clients) {
    const int result = client->Wait();
    if (result == kSkipped) GTEST_SKIP() << "not permitted here";
    EXPECT_EQ(result, 0);
  }
}

int ReadOn(const FreeSlot& slot, std::uint64_t last) { return ReadUpTo(slot.slot(), last); }

INSTANTIATE_TEST_SUITE_P(All, StreamClients,
                         testing::Values(ClientCase{"Stopped", 3, SIGSTOP, ReadOn},
                                         ClientCase{"Killed", 3, SIGKILL, ReadOn},
                                         ClientCase{"FiveHundred", 500, 0, ReadOn},
                                         ClientCase{"OtherAccount", 1, 0,
                                                    [](const FreeSlot& slot, std::uint64_t last) {
                                                      return AsNobody(slot.slot(), slot.device(),
                                                                      last);
                                                    }},
                                         ClientCase{"OtherNamespace", 1, 0,
                                                    [](const FreeSlot& slot, std::uint64_t last) {
                                                      return InOtherNamespace(slot.slot(), last);
                                                    }}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(StreamWriters, KilledAHundredTimesAreFollowedToTheLast) {
  constexpr int kWriters = 100;
  const FreeSlot slot;
  auto writer = OpenWriter(slot.device());
  kinetrel_stream stream;
  kinetrel_record record;
  ASSERT_EQ(kinetrel_stream_open(&stream, slot.slot(), 0), kinetrel_stream_ok);
  writer.reset();
  for (int i = 0; i < kWriters; ++i) {
    Process killed([&] {
      const auto own = OpenWriter(slot.device());
      PublishTo(*own, 20);
      return ::raise(SIGKILL);
    });
    kinetrel_stream_next(&stream, &record, 2);
    EXPECT_EQ(killed.Wait(), -SIGKILL);
  }
  writer = OpenWriter(slot.device());
  ASSERT_NE(writer, nullptr);
  writer->ChangeRun([](kinetrel_run& run) { run.port = 42; });
  PublishTo(*writer, 1);
  kinetrel_run run{};
  EXPECT_TRUE(WaitUntil([&] {
    const auto result = kinetrel_stream_next(&stream, &record, 100);
    EXPECT_LE(result, kinetrel_stream_restarted);
    return result == kinetrel_stream_ok &&
           kinetrel_stream_run(&stream, &run) == kinetrel_stream_ok && run.port == 42;
  }));
  kinetrel_stream_close(&stream);
}

// A writer that is killed leaves its object; its readers learn from the heartbeat that it has gone.
TEST(StreamWriters, AKilledOneIsTakenForLostAndACutObjectIsLetGo) {
  const FreeSlot slot;
  Process killed([&] {
    const auto own = OpenWriter(slot.device());
    return ::raise(SIGKILL);
  });
  EXPECT_EQ(killed.Wait(), -SIGKILL);
  kinetrel_stream stream;
  ASSERT_EQ(kinetrel_stream_open(&stream, slot.slot(), 0), kinetrel_stream_ok);
  EXPECT_EQ(kinetrel_stream_state(&stream, nullptr), kinetrel_state_starting);
  EXPECT_TRUE(
      WaitUntil([&] { return kinetrel_stream_state(&stream, nullptr) == kinetrel_state_lost; }));
  const std::string path = "/dev/shm/" + StreamName(slot.device());
  ASSERT_EQ(::truncate(path.c_str(), 4096), 0);
  kinetrel_record record;
  EXPECT_EQ(kinetrel_stream_next(&stream, &record, 10), kinetrel_stream_timed_out);
  EXPECT_EQ(stream.memory, nullptr);
  EXPECT_EQ(kinetrel_stream_state(&stream, nullptr), kinetrel_state_lost);
  const auto writer = OpenWriter(slot.device());
  ASSERT_NE(writer, nullptr);
  EXPECT_EQ(kinetrel_stream_next(&stream, &record, 20'000), kinetrel_stream_restarted);
  kinetrel_stream_close(&stream);
}

TEST(StreamWriters, TheOneThatIsReplacedTellsItsReaders) {
  const FreeSlot slot;
  const auto first = OpenWriter(slot.device());
  kinetrel_stream stream;
  kinetrel_record record;
  ASSERT_EQ(kinetrel_stream_open(&stream, slot.slot(), 0), kinetrel_stream_ok);
  const auto second = OpenWriter(slot.device());
  EXPECT_EQ(kinetrel_stream_next(&stream, &record, 20'000), kinetrel_stream_restarted);
  kinetrel_stream_close(&stream);
}

}  // namespace
}  // namespace kinetrel::test
