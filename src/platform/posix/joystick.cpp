#include "platform/joystick.h"

#include <linux/joystick.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <span>
#include <utility>

#include "platform/posix/joystick_calls.h"
#include "platform/posix/joystick_search.h"
#include "platform/posix/serial_calls.h"

namespace kinetrel {
namespace {

constexpr std::uint32_t kAxisMax = 65535;

// The system keeps 64 records of a device. Only a pipe can deliver more; it must not hold us.
constexpr std::size_t kRecordsAtOnce = 64;
constexpr int kMostReads = 16;

// -32767 to 32767, as the system scales every axis, to 0 to 65535.
std::uint32_t Unsigned(std::int16_t value) {
  constexpr int kMost = 32767;
  const int clamped = std::max<int>(value, -kMost);
  return static_cast<std::uint32_t>(clamped + kMost) * kAxisMax / (2U * kMost);
}

// Follows a stick record by record. The first records of an opened device give the state of every
// button and axis, so they also show how many there are.
class JoystickRecords {
 public:
  // Room for the next bytes; Take says how many came. An unfinished record stays in front of it.
  std::span<std::byte> Room() { return std::span(bytes_).subspan(held_); }
  void Take(std::size_t count);

  const JoystickState& state() const { return state_; }
  const JoystickCounts& seen() const { return seen_; }

 private:
  void Apply(const js_event& record);
  void SetButton(unsigned number, bool down);
  void SetAxis(unsigned number, std::int16_t value);

  std::array<std::byte, kRecordsAtOnce * sizeof(js_event)> bytes_{};
  std::size_t held_ = 0;
  JoystickState state_;
  JoystickCounts seen_;
};

void JoystickRecords::Take(std::size_t count) {
  held_ += count;
  std::size_t used = 0;
  for (; held_ - used >= sizeof(js_event); used += sizeof(js_event)) {
    js_event record;
    std::memcpy(&record, &bytes_[used], sizeof(record));
    Apply(record);
  }
  std::copy(bytes_.begin() + static_cast<std::ptrdiff_t>(used),
            bytes_.begin() + static_cast<std::ptrdiff_t>(held_), bytes_.begin());
  held_ -= used;
}

void JoystickRecords::Apply(const js_event& record) {
  const int kind = record.type & ~JS_EVENT_INIT;
  if (kind == JS_EVENT_BUTTON) SetButton(record.number, record.value != 0);
  if (kind == JS_EVENT_AXIS) SetAxis(record.number, record.value);
}

void JoystickRecords::SetButton(unsigned number, bool down) {
  seen_.buttons = std::max(seen_.buttons, number + 1);
  if (number >= 32) return;
  const std::uint32_t bit = 1U << number;
  state_.buttons = down ? state_.buttons | bit : state_.buttons & ~bit;
}

void JoystickRecords::SetAxis(unsigned number, std::int16_t value) {
  seen_.axes = std::max(seen_.axes, number + 1);
  if (number < state_.axes.size()) state_.axes[number] = Unsigned(value);
}

}  // namespace

struct JoystickInput::Os {
  Os(int opened, JoystickIdentity whose, JoystickSearch searching)
      : fd(opened), identity(std::move(whose)), search(std::move(searching)) {}
  ~Os() {
    if (fd >= 0) ::close(fd);
  }
  Os(const Os&) = delete;
  Os& operator=(const Os&) = delete;

  Status TakeRecords();
  Status Lose(int code);

  int fd;  // -1 while it is unplugged
  const JoystickIdentity identity;
  JoystickSearch search;
  JoystickRecords records;
};

Status JoystickInput::Os::TakeRecords() {
  for (int i = 0; i < kMostReads; ++i) {
    const Transfer got = ReadOnce(fd, records.Room());
    if (got.how == Ended::Nothing) return {};
    if (got.how != Ended::Bytes) return Lose(got.code);
    records.Take(got.count);
  }
  return {};
}

Status JoystickInput::Os::Lose(int code) {
  search.Lost(std::exchange(fd, -1));
  return {Error::Closed, code, "read the joystick"};
}

int CountJoysticks() { return static_cast<int>(JoystickPaths().size()); }

JoystickInput::JoystickInput(std::unique_ptr<Os> os) : os_(std::move(os)) {}
JoystickInput::JoystickInput(JoystickInput&&) noexcept = default;
JoystickInput& JoystickInput::operator=(JoystickInput&&) noexcept = default;
JoystickInput::~JoystickInput() = default;

Result<JoystickInput> JoystickInput::Open(int number) {
  const std::vector<std::string> paths = JoystickPaths();
  if (number < 0 || static_cast<std::size_t>(number) >= paths.size()) {
    return Status{Error::NotFound, 0, "open the joystick"};
  }
  const std::string& path = paths[static_cast<std::size_t>(number)];
  const Result<int> fd = OpenJoystick(path);
  if (!fd.Ok()) return fd.status();
  const JoystickIdentity identity = AskJoystickIdentity(*fd);
  Result<JoystickSearch> search = JoystickSearch::Start(path, identity);
  if (!search.Ok()) {
    ::close(*fd);
    return search.status();
  }
  auto os = std::make_unique<Os>(*fd, identity, std::move(*search));
  if (const Status taken = os->TakeRecords(); !taken.Ok()) return taken;
  return JoystickInput(std::move(os));
}

Result<JoystickCapabilities> JoystickInput::Capabilities() const {
  if (os_->fd < 0) return Status{Error::Closed, 0, "ask what the joystick has"};
  Result<JoystickCounts> counts = AskJoystickCounts(os_->fd);
  if (!counts.Ok()) {
    if (counts.status().error != Error::Unsupported) {
      return Status{Error::Closed, counts.status().osCode, counts.status().what};
    }
    counts = os_->records.seen();
  }
  return JoystickCapabilities{
      .product = os_->identity.product,
      .driver = "joydev",
      .manufacturerId = os_->identity.manufacturerId,
      .productId = os_->identity.productId,
      .buttons = counts->buttons,
      .maxButtons = counts->buttons,
      .axes = counts->axes,
      .axisMax = {kAxisMax, kAxisMax, kAxisMax, kAxisMax, kAxisMax, kAxisMax}};
}

Result<JoystickState> JoystickInput::Read() {
  if (os_->fd < 0) {
    os_->fd = os_->search.TakeFound();
    if (os_->fd < 0) return Status{Error::Closed, 0, "read the joystick"};
    os_->records = {};
  }
  if (const Status taken = os_->TakeRecords(); !taken.Ok()) return taken;
  return os_->records.state();
}

}  // namespace kinetrel
