#include "program/program.h"

#include <cerrno>
#include <cstdio>
#include <exception>

#include "platform/console.h"

namespace kinetrel {

WriteResult WriteOut(const std::string& text) {
  const std::size_t written = std::fwrite(text.data(), 1, text.size(), stdout);
  if (written == text.size() && std::fflush(stdout) == 0) return WriteResult::Written;
  return errno == EPIPE ? WriteResult::ReaderGone : WriteResult::Failed;
}

std::string Printable(std::string_view text) {
  std::string printable(text);
  for (char& letter : printable) {
    if (static_cast<unsigned char>(letter) < 0x20 || letter == 0x7F) letter = '?';
  }
  return printable;
}

std::string ShellWord(const std::string& text) {
  constexpr const char* kPlain =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-:+,@%";
  if (!text.empty() && text.find_first_not_of(kPlain) == std::string::npos) return text;
  std::string quoted = "'";
  for (const char letter : text) quoted += letter == '\'' ? "'\\''" : std::string(1, letter);
  return quoted + "'";
}

int Print(const Ending& ending, const std::string& program, int unwritten) {
  if (ending.exitCode != 0) {
    std::fputs(ending.text.c_str(), stderr);
    return ending.exitCode;
  }
  if (WriteOut(ending.text) != WriteResult::Failed) return 0;
  std::perror((program + ": the output cannot be written").c_str());
  return unwritten;
}

int RunProgram(const std::string& program, const std::function<int()>& work) {
  HoldStandardStreams();
  std::setvbuf(stderr, nullptr, _IONBF, 0);  // some systems buffer it when it leads to a pipe
  try {
    return work();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", program.c_str(), error.what());
    return 1;
  }
}

}  // namespace kinetrel
