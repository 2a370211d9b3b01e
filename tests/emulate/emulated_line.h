// The host's end of the line to kinetrel-emulate, which runs as the user starts it.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/serial_line.h"
#include "tests/support/child_process.h"
#include "tests/support/wait_until.h"

namespace kinetrel::test {

inline std::string LinkName(const std::string& name) {
  return testing::TempDir() + "kinetrel-" + name + "-" + std::to_string(::getpid());
}

// A host's end of the line.
class Host {
 public:
  explicit Host(const std::string& port, unsigned baud = 115200) : line_(Opened(port)) {
    LineSettings settings = *line_.Settings();
    settings.baud = baud;
    EXPECT_TRUE(line_.Apply(settings).Ok());
    EXPECT_TRUE(line_.SetReadTimeouts({0, 0, 50}).Ok());  // reads wait, with a limit
  }

  bool ReadOnce(std::string& into) {
    std::byte bytes[256];
    const auto got = line_.Read(bytes);
    if (!got.Ok()) return false;
    into.append(reinterpret_cast<const char*>(bytes), *got);
    return true;
  }

  void Send(std::string_view bytes) {
    EXPECT_TRUE(line_.Write(std::as_bytes(std::span(bytes.data(), bytes.size()))).Ok());
  }

  std::string Ask(std::string_view question, std::size_t count) {
    Send(question);
    std::string text;
    WaitUntil([&] { return text.size() >= count || !ReadOnce(text); });
    return text;
  }

  // What comes until the line is quiet for 50 ms; it may be nothing.
  std::string AnswerTo(std::string_view question) {
    Send(question);
    std::string text;
    std::size_t before = 0;
    do {
      before = text.size();
    } while (ReadOnce(text) && text.size() > before);
    return text;
  }

  bool WaitUntilHungUp() {
    std::string ignored;
    return WaitUntil([&] { return !ReadOnce(ignored); });
  }

 private:
  static SerialLine Opened(const std::string& port) {
    std::optional<SerialLine> line;
    WaitUntil([&] {
      auto opened = SerialLine::Open(port);
      if (opened.Ok()) line.emplace(std::move(*opened));
      return line.has_value();
    });
    if (!line) throw std::runtime_error("cannot open " + port);
    return std::move(*line);
  }

  SerialLine line_;
};

// The emulator, on a link of its own.
class EmulatedLine {
 public:
  explicit EmulatedLine(std::vector<std::string> arguments)
      : link_(LinkName("line-" + std::to_string(++lines_))),
        program_("kinetrel-emulate", Linked(std::move(arguments), link_), {.emptyInput = true}) {
    EXPECT_TRUE(WaitUntil([this] { return std::filesystem::is_symlink(link_); }))
        << program_.error();
  }
  ~EmulatedLine() { ::unlink(link_.c_str()); }  // the emulator is killed, and leaves its link

  const std::string& path() const { return link_; }
  ChildProcess& program() { return program_; }

 private:
  static std::vector<std::string> Linked(std::vector<std::string> arguments,
                                         const std::string& link) {
    arguments.insert(arguments.end(), {"--link", link});
    return arguments;
  }

  static inline int lines_ = 0;
  std::string link_;
  ChildProcess program_;
};

}  // namespace kinetrel::test
