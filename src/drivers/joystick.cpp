#include "drivers/joystick.h"

#include <algorithm>
#include <utility>

#include "devices/bounded_text.h"
#include "platform/console.h"

namespace kinetrel {
namespace {

int LimitChannels(unsigned count) { return static_cast<int>(std::min(count, 32U)); }

}  // namespace

JoystickChannels ChannelsOf(const JoystickCapabilities& capabilities) {
  const int most = LimitChannels(capabilities.maxButtons);
  return {most, std::max(most, LimitChannels(capabilities.buttons)),
          LimitChannels(capabilities.axes)};
}

std::string DescribeJoystick(const JoystickCapabilities& capabilities) {
  constexpr int kLongestName = 30;
  const JoystickChannels channels = ChannelsOf(capabilities);
  std::array<char, 363> text{};
  TextAppender(text).AppendF(
      "\n\tProduct: %.*s\n\tOEM: %.*s\n\tModel: %u\tID: %u\n\tDigiChnls: %d\tAnalChnls: %d",
      kLongestName, capabilities.product.c_str(), kLongestName, capabilities.driver.c_str(),
      capabilities.manufacturerId, capabilities.productId, channels.digital, channels.analog);
  return text.data();
}

Joystick::Joystick(int id) : deviceCount_(CountJoysticks()) {
  if (id >= 0 && id < deviceCount_) joystickId_ = id;
}

int Joystick::Boot(int) {
  const std::lock_guard held(lock_);
  deviceCount_ = CountJoysticks();
  Status booted{Error::NotFound, 0, "find a joystick"};
  if (joystickId_ < deviceCount_) booted = TakeCapabilities(nullptr, 0);
  if (booted.Ok()) booted = TakeState();
  if (booted.Ok()) return 1;
  PrintError("\n\t\t%s", Describe(booted).c_str());
  return 0;
}

int Joystick::QueryCaps(char* text, int size) {
  const std::lock_guard held(lock_);
  return TakeCapabilities(text, size).Ok() ? 1 : 0;
}

int Joystick::Read(int) {
  const std::unique_lock held(lock_, std::try_to_lock);
  return held && TakeState().Ok() ? 1 : 0;
}

// ---- With the lock held --------------------------------------------------------------------

Result<JoystickCapabilities> Joystick::AskCapabilities() {
  if (input_) {
    Result<JoystickCapabilities> known = input_->Capabilities();
    if (known.Ok()) return known;
  }
  Result<JoystickInput> opened = JoystickInput::Open(joystickId_);
  if (!opened.Ok()) return opened.status();  // input_ stays, as its stick may come back
  input_ = std::move(*opened);
  return input_->Capabilities();
}

Status Joystick::TakeCapabilities(char* text, int size) {
  const Result<JoystickCapabilities> capabilities = AskCapabilities();
  if (!capabilities.Ok()) return capabilities.status();
  const JoystickChannels channels = ChannelsOf(*capabilities);
  maxButtons_ = channels.maxButtons;
  digitalChannels_ = channels.digital;
  analogChannels_ = channels.analog;
  axisMax_ = capabilities->axisMax;
  CopyTruncated(text, size, DescribeJoystick(*capabilities).c_str());
  return {};
}

Status Joystick::TakeState() {
  if (!input_) return {Error::Closed, 0, "read the joystick"};
  const Result<JoystickState> state = input_->Read();
  if (!state.Ok()) return state.status();
  digitalBits_ = state->buttons;
  std::ranges::copy(state->axes, analogValues_.begin());
  return {};
}

}  // namespace kinetrel
