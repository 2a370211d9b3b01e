#include "tests/support/pseudo_terminal.h"

#include <poll.h>
#include <pty.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

namespace kinetrel::test {

PseudoTerminal::PseudoTerminal(Mode mode) {
  char name[128];
  if (openpty(&far_, &near_, name, nullptr, nullptr) != 0) throw std::runtime_error("openpty");
  path_ = name;
  if (mode == Mode::Cooked) return;
  termios settings = Settings();
  cfmakeraw(&settings);
  tcsetattr(near_, TCSANOW, &settings);
}

PseudoTerminal::~PseudoTerminal() {
  HangUp();
  CloseNear();
}

void PseudoTerminal::Send(const std::string& bytes) const {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t wrote = ::write(far_, bytes.data() + sent, bytes.size() - sent);
    if (wrote < 0 && errno == EINTR) continue;  // some tests send signals all the time
    if (wrote <= 0) throw std::runtime_error("write to pseudo-terminal");
    sent += static_cast<std::size_t>(wrote);
  }
}

termios PseudoTerminal::Settings() const {
  termios settings{};
  if (tcgetattr(near_, &settings) != 0) throw std::runtime_error("settings of pseudo-terminal");
  return settings;
}

bool SameSettings(const termios& a, const termios& b) {
  return a.c_iflag == b.c_iflag && a.c_oflag == b.c_oflag && a.c_cflag == b.c_cflag &&
         a.c_lflag == b.c_lflag && std::equal(a.c_cc, a.c_cc + NCCS, b.c_cc);
}

bool PseudoTerminal::TakeMore(std::chrono::milliseconds patience) {
  pollfd ready{far_, POLLIN, 0};
  if (::poll(&ready, 1, static_cast<int>(patience.count())) != 1) return false;
  char bytes[4096];
  const ssize_t got = ::read(far_, bytes, sizeof bytes);
  if (got <= 0) return false;
  received_.append(bytes, static_cast<std::size_t>(got));
  return true;
}

bool PseudoTerminal::Expect(const std::string& text, std::chrono::milliseconds patience) {
  const auto end = std::chrono::steady_clock::now() + patience;
  while (received_.find(text) == std::string::npos) {
    if (std::chrono::steady_clock::now() >= end) return false;
    TakeMore(std::chrono::milliseconds(50));
  }
  return true;
}

const std::string& PseudoTerminal::Received() {
  while (TakeMore(std::chrono::milliseconds(0))) {
  }
  return received_;
}

void PseudoTerminal::HangUp() {
  if (far_ >= 0) ::close(far_);
  far_ = -1;
}

void PseudoTerminal::CloseNear() {
  if (near_ >= 0) ::close(near_);
  near_ = -1;
}

}  // namespace kinetrel::test
