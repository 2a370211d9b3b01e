#include "platform/joystick.h"

// The multimedia headers need the types of this one.
#include <windows.h>

#include <mmsystem.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace kinetrel {
namespace {

Status StatusOfJoystick(MMRESULT code, const char* what) {
  switch (code) {
    case JOYERR_NOERROR:
      return {};
    case JOYERR_UNPLUGGED:
      return {Error::Closed, static_cast<int>(code), what};
    case MMSYSERR_NODRIVER:
    case MMSYSERR_BADDEVICEID:
    case MMSYSERR_INVALPARAM:
    case JOYERR_PARMS:
      return {Error::NotFound, static_cast<int>(code), what};
    default:
      return {Error::Failed, static_cast<int>(code), what};
  }
}

// A text that fills its field has no end mark.
template <std::size_t Size>
std::string TextOf(const char (&field)[Size]) {
  return std::string(field, ::strnlen(field, Size));
}

JoystickCapabilities CapabilitiesOf(const JOYCAPSA& found) {
  return {
      .product = TextOf(found.szPname),
      .driver = TextOf(found.szOEMVxD),
      .manufacturerId = found.wMid,
      .productId = found.wPid,
      .buttons = found.wNumButtons,
      .maxButtons = found.wMaxButtons,
      .axes = found.wNumAxes,
      .axisMax = {found.wXmax, found.wYmax, found.wZmax, found.wRmax, found.wUmax, found.wVmax}};
}

}  // namespace

struct JoystickInput::Os {
  UINT number;
};

int CountJoysticks() { return static_cast<int>(::joyGetNumDevs()); }

JoystickInput::JoystickInput(std::unique_ptr<Os> os) : os_(std::move(os)) {}
JoystickInput::JoystickInput(JoystickInput&&) noexcept = default;
JoystickInput& JoystickInput::operator=(JoystickInput&&) noexcept = default;
JoystickInput::~JoystickInput() = default;

Result<JoystickInput> JoystickInput::Open(int number) {
  if (number < 0 || number >= CountJoysticks()) {
    return Status{Error::NotFound, 0, "open the joystick"};
  }
  JoystickInput input(std::make_unique<Os>(Os{static_cast<UINT>(number)}));
  const Result<JoystickCapabilities> capabilities = input.Capabilities();
  if (!capabilities.Ok()) return capabilities.status();
  return input;
}

Result<JoystickCapabilities> JoystickInput::Capabilities() const {
  JOYCAPSA found{};
  static_assert(sizeof found == 404);
  const MMRESULT code = ::joyGetDevCapsA(os_->number, &found, sizeof found);
  const Status asked = StatusOfJoystick(code, "ask what the joystick has");
  if (!asked.Ok()) return asked;
  return CapabilitiesOf(found);
}

Result<JoystickState> JoystickInput::Read() {
  JOYINFO found{};
  const Status read = StatusOfJoystick(::joyGetPos(os_->number, &found), "read the joystick");
  if (!read.Ok()) return read;
  return JoystickState{found.wButtons, {found.wXpos, found.wYpos, found.wZpos}};
}

}  // namespace kinetrel
