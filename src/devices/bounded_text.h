// Text built and handed out in room of a fixed size: commands, status texts. Nothing allocates.
#pragma once

#include <cstddef>
#include <span>

namespace kinetrel {

// Copies `from` into `to`, cut to `size` - 1 characters and terminated; nothing where there is no
// room at all. Returns the characters copied.
int CopyTruncated(char* to, int size, const char* from);

// Copies at most `size` characters of `from`: no terminator where the text fills the room. Nothing
// without room.
void CopyUpTo(char* to, int size, const char* from);

// Appends to a text in `room`, which holds its terminator too. What does not fit is cut.
class TextAppender {
 public:
  explicit TextAppender(std::span<char> room) : room_(room) { room_[0] = '\0'; }

  void Append(const char* more) { AppendF("%s", more); }
  [[gnu::format(printf, 2, 3)]] void AppendF(const char* format, ...);
  void DropLast() {
    if (length_ > 0) room_[--length_] = '\0';
  }
  const char* c_str() const { return room_.data(); }
  std::size_t length() const { return length_; }

 private:
  std::span<char> room_;
  std::size_t length_ = 0;
};

}  // namespace kinetrel
