#include "tests/support/child_process.h"

namespace kinetrel::test {

bool ChildProcess::ExpectOutput(const std::string& text, std::chrono::milliseconds patience) {
  return WaitUntil([&] { return output().find(text) != std::string::npos; }, patience);
}

bool ChildProcess::ExpectError(const std::string& text, std::chrono::milliseconds patience) {
  return WaitUntil([&] { return error().find(text) != std::string::npos; }, patience);
}

const std::string& ChildProcess::output() {
  TakeOutput();
  return outputText_;
}

const std::string& ChildProcess::error() {
  TakeOutput();
  return errorText_;
}

}  // namespace kinetrel::test
