#include "tests/support/child_process.h"

#include <windows.h>

#include <array>
#include <cstdlib>
#include <stdexcept>

namespace kinetrel::test {
namespace {

// The code of a program that was ended from outside, here and by those of our own that end so.
constexpr UINT kKilledCode = 0xDEAD;

struct Pipe {
  HANDLE read = nullptr;
  HANDLE write = nullptr;
};

// The end that the test keeps is not the program's to inherit: it would hold itself open.
Pipe MakePipe(HANDLE Pipe::*kept) {
  constexpr DWORD kRoom = 1 << 20;
  SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
  Pipe pipe;
  if (!::CreatePipe(&pipe.read, &pipe.write, &inherited, kRoom)) throw std::runtime_error("pipe");
  ::SetHandleInformation(pipe.*kept, HANDLE_FLAG_INHERIT, 0);
  return pipe;
}

void CloseEnd(HANDLE& end) {
  if (end != nullptr) ::CloseHandle(end);
  end = nullptr;
}

// Our programs lie beside the one that runs this test.
std::string PathOf(const std::string& program) {
  if (program.find_first_of("/\\") != std::string::npos) return program;
  std::array<char, 4096> self{};
  ::GetModuleFileNameA(nullptr, self.data(), self.size());
  const std::string path = self.data();
  return path.substr(0, path.rfind('\\') + 1) + program + ".exe";
}

// As the program's start-up takes it apart again.
std::string Quoted(const std::string& argument) {
  std::string text = "\"";
  std::size_t backslashes = 0;
  for (const char letter : argument) {
    if (letter == '"') text.append(backslashes + 1, '\\');
    backslashes = letter == '\\' ? backslashes + 1 : 0;
    text += letter;
  }
  return text.append(backslashes, '\\') + '"';
}

std::string CommandLine(const std::string& path, const std::vector<std::string>& arguments) {
  std::string line = Quoted(path);
  for (const std::string& argument : arguments) line += ' ' + Quoted(argument);
  return line;
}

// While one lives, the variables are the test's own, and so the program's that it starts.
class Environment {
 public:
  explicit Environment(const std::vector<std::pair<std::string, std::string>>& variables)
      : variables_(variables) {
    for (const auto& [name, value] : variables_) {
      ::SetEnvironmentVariableA(name.c_str(), value.c_str());
    }
  }
  ~Environment() {
    for (const auto& [name, value] : variables_) ::SetEnvironmentVariableA(name.c_str(), nullptr);
  }
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

 private:
  const std::vector<std::pair<std::string, std::string>>& variables_;
};

HANDLE StartProgram(const std::string& path, std::string line, const Pipe& in, const Pipe& out,
                    const Pipe& err) {
  STARTUPINFOA start{};
  start.cb = sizeof start;
  start.dwFlags = STARTF_USESTDHANDLES;
  start.hStdInput = in.read;
  start.hStdOutput = out.write;
  start.hStdError = err.write;
  PROCESS_INFORMATION process{};
  // On a busy machine Wine now and then loses a program while it loads it.
  for (int attemptsLeft = 3; !::CreateProcessA(path.c_str(), line.data(), nullptr, nullptr, TRUE, 0,
                                               nullptr, nullptr, &start, &process);) {
    const DWORD failure = ::GetLastError();
    if (failure == ERROR_INTERNAL_ERROR && --attemptsLeft > 0) continue;
    throw std::runtime_error("starting " + path + ": error " + std::to_string(failure));
  }
  ::CloseHandle(process.hThread);
  return process.hProcess;
}

// Lines end alike for the tests of both systems.
void AppendText(std::string& into, const char* bytes, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    if (bytes[i] == '\n' && into.ends_with('\r')) into.pop_back();
    into += bytes[i];
  }
}

// Takes what is there without waiting; closes the end when the program has closed its own.
void Drain(HANDLE& end, std::string& into) {
  std::array<char, 4096> bytes{};
  DWORD waiting = 0;
  while (end != nullptr) {
    if (!::PeekNamedPipe(end, nullptr, 0, nullptr, &waiting, nullptr)) return CloseEnd(end);
    if (waiting == 0) return;
    DWORD got = 0;
    if (!::ReadFile(end, bytes.data(), bytes.size(), &got, nullptr)) return CloseEnd(end);
    AppendText(into, bytes.data(), got);
  }
}

}  // namespace

struct ChildProcess::Os {
  HANDLE process = nullptr;
  HANDLE input = nullptr;
  HANDLE output = nullptr;
  HANDLE error = nullptr;
};

ChildProcess::ChildProcess(const std::string& program, std::vector<std::string> arguments,
                           Options options)
    : os_(std::make_unique<Os>()) {
  const std::string path = PathOf(program);
  Pipe in = MakePipe(&Pipe::write);
  Pipe out = MakePipe(&Pipe::read);
  Pipe err = MakePipe(&Pipe::read);
  const Environment variables(options.environment);
  os_->process = StartProgram(path, CommandLine(path, arguments), in, out, err);
  CloseEnd(in.read);
  CloseEnd(out.write);
  CloseEnd(err.write);
  os_->input = in.write;
  os_->output = out.read;
  os_->error = err.read;
  if (options.emptyInput) CloseInput();
}

ChildProcess::~ChildProcess() {
  if (!ended_) Kill();
  CloseEnd(os_->input);
  CloseEnd(os_->output);
  CloseEnd(os_->error);
  CloseEnd(os_->process);
}

pid_t ChildProcess::pid() const { return static_cast<pid_t>(::GetProcessId(os_->process)); }

void ChildProcess::Kill() {
  ::TerminateProcess(os_->process, kKilledCode);
  Wait();
}

void ChildProcess::Signal(int) const { throw std::runtime_error("no such signal"); }

void ChildProcess::Send(const std::string& bytes) const {
  DWORD sent = 0;
  ::WriteFile(os_->input, bytes.data(), static_cast<DWORD>(bytes.size()), &sent, nullptr);
  if (sent != bytes.size()) throw std::runtime_error("write to program");
}

void ChildProcess::CloseInput() { CloseEnd(os_->input); }

void ChildProcess::TakeOutput() {
  Drain(os_->output, outputText_);
  Drain(os_->error, errorText_);
}

int ChildProcess::Wait(std::chrono::milliseconds patience) {
  const bool ended = WaitUntil(
      [&] {
        TakeOutput();
        return ended_ || ::WaitForSingleObject(os_->process, 0) == WAIT_OBJECT_0;
      },
      patience);
  if (!ended) return kStillRuns;
  if (!ended_) {
    ended_ = true;
    DWORD code = 0;
    ::GetExitCodeProcess(os_->process, &code);
    result_ = code == kKilledCode ? kKilled : static_cast<int>(code & 0xFF);
  }
  TakeOutput();
  return result_;
}

void SetVariable(const std::string& name, const std::string& value) {
  ::_putenv_s(name.c_str(), value.c_str());
}

void UnsetVariable(const std::string& name) { ::_putenv_s(name.c_str(), ""); }

}  // namespace kinetrel::test
