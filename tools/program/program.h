// The frame of every tool's main: standard streams, the text that ends a program at once, mistakes.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace kinetrel {

enum class WriteResult {
  Written,
  ReaderGone,  // the other end of the pipe is closed
  Failed,
};

// Writes to standard output at once, in one piece.
WriteResult WriteOut(const std::string& text);

// The text with '?' for control characters, which could steer a terminal.
std::string Printable(std::string_view text);

// The text as one word of a shell's command line, in quotes if it needs them.
std::string ShellWord(const std::string& text);

// What a program prints instead of doing its work.
struct Ending {
  int exitCode = 0;
  std::string text = {};  // for standard output, or if the code is not 0 standard error
};

// Prints it. Returns its exit code, or `unwritten` if standard output does not take the text.
int Print(const Ending& ending, const std::string& program, int unwritten = 1);

// Does `work` as the program of this name and returns its exit code. An exception ends it with one
// line on standard error and exit code 1.
int RunProgram(const std::string& program, const std::function<int()>& work);

}  // namespace kinetrel
