#include "platform/console.h"

#include <windows.h>

#include <array>
#include <atomic>
#include <cstring>

namespace kinetrel {
namespace {

HANDLE Output() { return ::GetStdHandle(STD_OUTPUT_HANDLE); }

// A console whose text is being marked with the mouse, and a full pipe, hold the thread that
// writes, and neither shows it before. So a thread of its own writes; text that comes while it is
// held is dropped. One per process, like standard output.
class Writer {
 public:
  void Show(const char* text);

 private:
  enum class State { NotStarted, Idle, Filling, Busy };

  static DWORD WINAPI Run(void* self);
  bool Start();

  std::atomic<State> state_{State::NotStarted};
  HANDLE filled_ = nullptr;
  std::array<char, 64> text_{};
  DWORD length_ = 0;
};
constinit Writer writer;

// The library must stay loaded from now on, because the thread's code is in it.
bool Writer::Start() {
  HMODULE self = nullptr;
  ::GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                       reinterpret_cast<const char*>(&Writer::Run), &self);
  filled_ = ::CreateEventA(nullptr, FALSE, FALSE, nullptr);
  if (filled_ == nullptr) return false;
  const HANDLE thread = ::CreateThread(nullptr, 0, &Writer::Run, this, 0, nullptr);
  if (thread != nullptr) ::CloseHandle(thread);
  return thread != nullptr;
}

DWORD WINAPI Writer::Run(void* self) {
  auto* const our = static_cast<Writer*>(self);
  while (::WaitForSingleObject(our->filled_, INFINITE) == WAIT_OBJECT_0) {
    DWORD written = 0;
    ::WriteFile(::GetStdHandle(STD_OUTPUT_HANDLE), our->text_.data(), our->length_, &written,
                nullptr);
    our->state_.store(State::Idle);
  }
  return 0;
}

void Writer::Show(const char* text) {
  State state = State::NotStarted;
  if (state_.compare_exchange_strong(state, State::Filling)) {
    if (!Start()) return;  // and do not try again
  } else {
    state = State::Idle;
    if (!state_.compare_exchange_strong(state, State::Filling)) return;
  }
  length_ = static_cast<DWORD>(::strnlen(text, text_.size()));
  std::memcpy(text_.data(), text, length_);
  state_.store(State::Busy);
  ::SetEvent(filled_);
}

}  // namespace

void HoldStandardStreams() {}  // on this system no opened file takes the place of a stream

bool StandardOutputIsTerminal() {
  DWORD mode = 0;
  return ::GetConsoleMode(Output(), &mode) != 0;
}

TerminalSize StandardOutputSize() {
  CONSOLE_SCREEN_BUFFER_INFO about{};
  TerminalSize told;
  if (!::GetConsoleScreenBufferInfo(Output(), &about)) return told;
  const int columns = about.srWindow.Right - about.srWindow.Left + 1;
  const int rows = about.srWindow.Bottom - about.srWindow.Top + 1;
  if (columns > 0) told.columns = columns;
  if (rows > 0) told.rows = rows;
  return told;
}

bool EnableTerminalSequences() {
  DWORD mode = 0;
  return ::GetConsoleMode(Output(), &mode) != 0 &&
         ::SetConsoleMode(Output(), mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

bool OutputTakesLine() { return PrintingIsOn(); }

void ShowTransient(const char* text) {
  if (TransientIsOn() && OutputTakesLine()) writer.Show(text);
}

}  // namespace kinetrel
