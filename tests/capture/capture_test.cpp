// The sampling thread's side of a capture: it neither allocates nor waits, whatever the disk does.
#include "capture/capture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>

#include "tests/support/allocation_counter.h"

namespace kinetrel::test {
namespace {

constexpr int kPieces = 20000;  // more than the ring holds of 300 bytes each

// A named pipe stands for a disk that hangs: after some 64 kB the capture's thread waits in a write
// for ever. If the sampling thread needed a lock of that thread, it would wait too.
TEST(Capture, AtADiskThatHangsSamplingNeitherAllocatesNorWaits) {
  const std::string path =
      std::filesystem::temp_directory_path() / ("kinetrel-capture-" + std::to_string(getpid()));
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  const int reader = ::open(path.c_str(), O_RDWR);
  const auto log = std::make_shared<StatusLog>();
  auto opened = Capture::Open(path, "", log);
  ASSERT_TRUE(opened.Ok()) << Describe(opened.status());
  Capture& capture = **opened;
  const std::array<std::byte, 300> bytes{};
  const std::array<kinetrel_record, 4> records{};
  EXPECT_EQ(AllocationsOf([&] {
              for (int i = 0; i < kPieces; ++i) {
                capture.OnLine(LineEvent::Received, bytes, 0);
                capture.OnRecords(1, records, nullptr);
              }
              capture.OnRun(1, {});
            }),
            0);
  ASSERT_NE(std::signal(SIGPIPE, SIG_IGN), SIG_ERR);
  ::close(reader);  // so the thread's write fails, and the thread ends
  std::filesystem::remove(path);
}

}  // namespace
}  // namespace kinetrel::test
