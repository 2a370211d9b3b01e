// Lines on a standard stream, written by a thread of its own: the stream may lead to a stopped
// terminal or to a pipe that its reader leaves full, and a write waits then.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

namespace kinetrel::bridge {

// Threads  any.
class LineWriter {
 public:
  explicit LineWriter(std::FILE* stream);
  ~LineWriter() { (void)Finish(); }
  LineWriter(const LineWriter&) = delete;
  LineWriter& operator=(const LineWriter&) = delete;

  // Never waits for the stream. While it takes nothing, 1000 lines are kept; further ones are left
  // out, and a line tells how many.
  void Write(const std::string& line);

  // Waits until all lines are written, for at most a second. Further lines are left out.
  // Returns  false: the stream takes nothing. The thread goes on waiting and holds the stream, so
  //          the program must end by std::_Exit.
  bool Finish();

 private:
  struct Shared {  // with a thread that is left behind
    std::FILE* stream = nullptr;
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::string> lines;
    std::size_t leftOut = 0;  // since the last line in `lines`
    bool finishing = false;
    bool running = false;  // the thread
  };

  static void WriteLines(const std::shared_ptr<Shared>& shared);

  const std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
};

}  // namespace kinetrel::bridge
