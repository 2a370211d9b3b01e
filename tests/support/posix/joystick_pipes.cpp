#include "tests/support/joystick_pipes.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/joystick.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <utility>

namespace kinetrel::test {

std::string BytesOf(const std::vector<JoystickRecord>& records) {
  std::string bytes;
  for (const JoystickRecord& record : records) {
    const js_event event{12345, record.value, record.kind, record.number};
    bytes.append(reinterpret_cast<const char*>(&event), sizeof(event));
  }
  return bytes;
}

std::string AtRest(int buttons, int axes) {
  std::vector<JoystickRecord> records;
  for (int i = 0; i < buttons + axes; ++i) {
    const bool button = i < buttons;
    const int kind =
        JoystickRecord::First | (button ? JoystickRecord::Button : JoystickRecord::Axis);
    records.push_back(
        {static_cast<std::uint8_t>(kind), static_cast<std::uint8_t>(button ? i : i - buttons), 0});
  }
  return BytesOf(records);
}

JoystickDirectory::JoystickDirectory()
    : path_(testing::TempDir() + "kinetrel-joysticks-" + std::to_string(::getpid())) {
  std::filesystem::create_directory(path_);
  ::setenv("KINETREL_JOYSTICKS", path_.c_str(), 1);
}

JoystickDirectory::~JoystickDirectory() {
  ::unsetenv("KINETREL_JOYSTICKS");
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

// Opened for both, as a pipe is not opened for writing alone before someone reads.
JoystickPipe::JoystickPipe(std::string path, const std::string& firstBytes)
    : path_(std::move(path)) {
  ::mkfifo(path_.c_str(), 0600);
  fd_ = ::open(path_.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (fd_ < 0) throw std::runtime_error("no pipe at " + path_);
  SendBytes(firstBytes);
}

JoystickPipe::~JoystickPipe() {
  ::close(fd_);
  ::unlink(path_.c_str());
}

void JoystickPipe::SendBytes(const std::string& bytes) const {
  if (::write(fd_, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
    throw std::runtime_error("the pipe is full");
  }
}

}  // namespace kinetrel::test
