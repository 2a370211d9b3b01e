#include "platform/serial_device_port.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

#include "platform/posix/os.h"
#include "platform/posix/serial_calls.h"
#include "platform/posix/terminal_settings.h"

namespace kinetrel {
namespace {

using std::chrono::nanoseconds;

class SerialDevicePort final : public DevicePort {
 public:
  explicit SerialDevicePort(std::string name) : name_(std::move(name)) {}
  ~SerialDevicePort() override {
    Unplug();
    if (wake_ >= 0) ::close(wake_);
  }

  Status Prepare() {
    wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return wake_ >= 0 ? Status{} : StatusFromErrno(errno, "make a serial line's waker");
  }

  const std::string& path() const override { return path_; }
  bool IsPlugged() const override { return line_ >= 0; }
  bool HasHost() const override { return IsPlugged(); }
  unsigned HostBaud() const override { return 0; }

  Status Plug(unsigned baud) override {
    Unplug();
    const std::string device = SerialDevicePath(name_);
    if (const Status kind = CheckIsCharacterDevice(device); !kind.Ok()) return kind;
    const Result<int> opened = OpenSerialDevice(device);
    if (!opened.Ok()) return opened.status();
    line_ = *opened;
    const Status ready = SetUp(baud);
    if (ready.Ok()) {
      path_ = name_;
    } else {
      Unplug();
    }
    return ready;
  }

  void Unplug() override {
    if (line_ < 0) return;
    if (found_) {
      if (foundDriverFlags_) RestoreLatency(line_, *foundDriverFlags_);
      (void)DiscardOutput(line_);  // closing would wait for a stuck line
      (void)WriteTerminal(line_, *found_);
      ReleaseExclusiveMode(line_);
    }
    ::close(std::exchange(line_, -1));
    hungUp_ = false;
    found_.reset();
    foundDriverFlags_.reset();
    path_.clear();
  }

  std::size_t Read(std::span<std::byte> into) override {
    if (line_ < 0) return 0;
    const Transfer read = ReadOnce(line_, into);
    const bool ended = read.how == Ended::Nothing && hungUp_;
    if (ended || read.how == Ended::HungUp || read.how == Ended::Failed) Unplug();
    return read.how == Ended::Bytes ? read.count : 0;
  }

  std::size_t Write(std::span<const std::byte> from) override {
    if (line_ < 0) return from.size();
    const Transfer written = WriteOnce(line_, from);
    if (written.how == Ended::HungUp || written.how == Ended::Failed) Unplug();
    return written.how == Ended::Bytes ? written.count : 0;
  }

  // A line that has hung up is read at once: when its last bytes are taken, it is unplugged.
  void Wait(nanoseconds atMost) override {
    const nanoseconds time = std::clamp<nanoseconds>(atMost, nanoseconds(0), std::chrono::hours(1));
    const timespec patience{time.count() / 1'000'000'000, time.count() % 1'000'000'000};
    pollfd ready[2] = {{wake_, POLLIN, 0}, {line_, POLLIN, 0}};
    if (::ppoll(ready, line_ >= 0 ? 2 : 1, &patience, nullptr) < 1) return;
    hungUp_ = line_ >= 0 && (ready[1].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
    eventfd_t count = 0;
    if ((ready[0].revents & POLLIN) != 0) ::eventfd_read(wake_, &count);
  }

  void Interrupt() override { ::eventfd_write(wake_, 1); }

 private:
  Status SetUp(unsigned baud) {
    termios2 terminal{};
    if (!ReadTerminal(line_, terminal).Ok()) {
      return {Error::Invalid, 0, "open the serial line: it is another device"};
    }
    if (const Status claimed = ClaimLine(line_); !claimed.Ok()) return claimed;
    if (ReadModemLines(line_).status().error == Error::Closed) {
      return {Error::NotFound, 0, "open the serial line"};
    }
    found_ = terminal;
    MakeRaw(terminal);
    LineSettings settings;
    settings.baud = baud;
    if (const Status put = PutSettings(settings, terminal); !put.Ok()) return put;
    if (const Status written = WriteTerminal(line_, terminal); !written.Ok()) return written;
    if (const Status read = ReadTerminal(line_, terminal); !read.Ok()) return read;
    const unsigned made = terminal.c_ospeed;
    if (std::max(made, baud) - std::min(made, baud) > baud / 32) {
      return {Error::Unsupported, 0, "set the baud rate"};
    }
    foundDriverFlags_ = AskForLowLatency(line_);
    return {};
  }

  const std::string name_;
  std::string path_;  // the name, while plugged
  int line_ = -1;
  int wake_ = -1;
  bool hungUp_ = false;
  std::optional<termios2> found_;  // the settings to restore
  std::optional<int> foundDriverFlags_;
};

}  // namespace

Result<std::unique_ptr<DevicePort>> OpenSerialDevicePort(const std::string& name, unsigned baud) {
  auto port = std::make_unique<SerialDevicePort>(name);
  if (const Status prepared = port->Prepare(); !prepared.Ok()) return prepared;
  if (const Status plugged = port->Plug(baud); !plugged.Ok()) return plugged;
  return std::unique_ptr<DevicePort>(std::move(port));
}

}  // namespace kinetrel
