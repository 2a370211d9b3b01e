#include "tests/support/joystick_file.h"

#include <fcntl.h>
#include <linux/fuse.h>
#include <linux/joystick.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "tests/support/joystick_pipes.h"

namespace kinetrel::test {
namespace {

template <typename Record>
std::string Bytes(const Record& record) {
  return {reinterpret_cast<const char*>(&record), sizeof(record)};
}

template <typename Record>
Record ArgumentOf(const char* request) {
  Record record;
  std::memcpy(&record, request + sizeof(fuse_in_header), sizeof(record));
  return record;
}

// In a mount namespace of its own, which goes with the thread whatever becomes of the test.
bool MountAlone(int fd, const std::string& path) {
  if (::unshare(CLONE_NEWNS) != 0) return false;
  if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
  const std::string options = "fd=" + std::to_string(fd) + ",rootmode=100444,user_id=0,group_id=0";
  return ::mount("joystick", path.c_str(), "fuse", MS_NOSUID | MS_NODEV, options.c_str()) == 0;
}

std::string StartReply(const char* request) {
  fuse_init_out start{};
  start.major = FUSE_KERNEL_VERSION;
  start.minor =
      std::min<unsigned>(FUSE_KERNEL_MINOR_VERSION, ArgumentOf<fuse_init_in>(request).minor);
  start.max_write = 4096;
  return Bytes(start);
}

std::string AttributesReply() {
  fuse_attr_out attributes{};
  attributes.attr.ino = 1;
  attributes.attr.mode = S_IFREG | 0444;
  attributes.attr.nlink = 1;
  return Bytes(attributes);
}

}  // namespace

struct JoystickFile::Reply {
  int error = 0;
  std::string bytes = {};
};

JoystickFile::JoystickFile(const std::string& path, Stick stick)
    : path_(path), stick_(std::move(stick)) {
  ::close(::open(path_.c_str(), O_CREAT | O_RDONLY | O_CLOEXEC, 0644));
  fd_ = ::open("/dev/fuse", O_RDWR | O_NONBLOCK | O_CLOEXEC);
  mounted_ = fd_ >= 0 && MountAlone(fd_, path_);
  Become(stick_);
  if (mounted_) server_ = std::thread([this] { Serve(); });
}

JoystickFile::~JoystickFile() {
  stop_ = true;
  if (server_.joinable()) server_.join();
  if (fd_ >= 0) ::close(fd_);
  if (mounted_) ::umount2(path_.c_str(), MNT_DETACH);
}

void JoystickFile::Become(const Stick& stick) {
  const std::lock_guard held(lock_);
  stick_ = stick;
}

void JoystickFile::Send(const std::string& bytes) {
  const std::lock_guard held(lock_);
  pending_ += bytes;
}

void JoystickFile::Serve() {
  std::vector<char> request(FUSE_MIN_READ_BUFFER * 2);
  while (!stop_) {
    pollfd waiting{fd_, POLLIN, 0};
    if (::poll(&waiting, 1, 20) <= 0) continue;
    if (::read(fd_, request.data(), request.size()) > 0) Answer(request.data());
  }
}

void JoystickFile::Answer(const char* request) {
  fuse_in_header head;
  std::memcpy(&head, request, sizeof(head));
  const std::lock_guard held(lock_);
  Reply reply{ENOSYS};
  if (head.opcode == FUSE_INIT) reply = {0, StartReply(request)};
  if (head.opcode == FUSE_GETATTR) reply = {0, AttributesReply()};
  if (head.opcode == FUSE_OPEN) reply = Open();
  if (head.opcode == FUSE_READ) reply = Read(request);
  if (head.opcode == FUSE_IOCTL) reply = Ask(request);
  if (head.opcode == FUSE_RELEASE || head.opcode == FUSE_FLUSH) reply = {};
  const fuse_out_header out{static_cast<std::uint32_t>(sizeof(out) + reply.bytes.size()),
                            -reply.error, head.unique};
  const std::string whole = Bytes(out) + reply.bytes;
  if (::write(fd_, whole.data(), whole.size()) < 0) stop_ = true;
}

JoystickFile::Reply JoystickFile::Open() {
  ++openings_;
  if (!stick_.plugged) return {ENODEV};
  pending_ = AtRest(stick_.buttons, stick_.axes);
  return {0, Bytes(fuse_open_out{
                 .fh = 1, .open_flags = FOPEN_DIRECT_IO | FOPEN_NONSEEKABLE, .padding = 0})};
}

JoystickFile::Reply JoystickFile::Read(const char* request) {
  if (!stick_.plugged) return {ENODEV};
  if (pending_.empty()) return {EAGAIN};
  const std::size_t size =
      std::min<std::size_t>(ArgumentOf<fuse_read_in>(request).size, pending_.size());
  const std::string bytes = pending_.substr(0, size);
  pending_.erase(0, size);
  return {0, bytes};
}

JoystickFile::Reply JoystickFile::Ask(const char* request) {
  if (!stick_.plugged) return {ENODEV};
  const auto question = ArgumentOf<fuse_ioctl_in>(request);
  std::string answer;
  if (question.cmd == JSIOCGBUTTONS) answer = static_cast<char>(stick_.buttons);
  if (question.cmd == JSIOCGAXES) answer = static_cast<char>(stick_.axes);
  if (_IOC_NR(question.cmd) == _IOC_NR(JSIOCGNAME(0))) {
    answer = std::string(stick_.name.c_str(), stick_.name.size() + 1).substr(0, question.out_size);
  }
  if (answer.empty()) return {EINVAL};
  const fuse_ioctl_out head{
      .result = static_cast<std::int32_t>(answer.size()), .flags = 0, .in_iovs = 0, .out_iovs = 0};
  return {0, Bytes(head) + answer};
}

}  // namespace kinetrel::test
