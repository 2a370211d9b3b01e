// Text in buffers of a fixed size: device commands, status texts. Nothing here allocates.
#pragma once

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <span>

namespace kinetrel {

// Copies `from` into `to`, cut to `size` - 1 characters, and terminates it. Does nothing if `to` is
// null or `size` is below 1. Returns the number of characters copied.
inline int CopyTruncated(char* to, int size, const char* from) {
  if (to == nullptr || size <= 0) return 0;
  const std::size_t length = ::strnlen(from, static_cast<std::size_t>(size) - 1);
  std::memcpy(to, from, length);
  to[length] = '\0';
  return static_cast<int>(length);
}

// Copies at most `size` characters of `from`. The copy is terminated only if the text is shorter.
// Does nothing if `to` is null or `size` is below 1.
inline void CopyUpTo(char* to, int size, const char* from) {
  if (to == nullptr || size <= 0) return;
  const std::size_t length = std::strlen(from);
  std::memcpy(to, from, std::min(length + 1, static_cast<std::size_t>(size)));
}

// Builds a text in a buffer of at least one character. What does not fit is cut; the text is
// always terminated.
class TextAppender {
 public:
  explicit TextAppender(std::span<char> room) : room_(room) { room_[0] = '\0'; }

  void Append(const char* more) { AppendF("%s", more); }

  [[gnu::format(printf, 2, 3)]] void AppendF(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const int wanted = std::vsnprintf(&room_[length_], room_.size() - length_, format, arguments);
    va_end(arguments);
    if (wanted > 0) {
      length_ = std::min(length_ + static_cast<std::size_t>(wanted), room_.size() - 1);
    }
  }

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
