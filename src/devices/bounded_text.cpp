#include "devices/bounded_text.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace kinetrel {

int CopyTruncated(char* to, int size, const char* from) {
  if (to == nullptr || size <= 0) return 0;
  const std::size_t length = ::strnlen(from, static_cast<std::size_t>(size) - 1);
  std::memcpy(to, from, length);
  to[length] = '\0';
  return static_cast<int>(length);
}

void CopyUpTo(char* to, int size, const char* from) {
  if (to == nullptr || size <= 0) return;
  const std::size_t length = std::strlen(from);
  std::memcpy(to, from, std::min(length + 1, static_cast<std::size_t>(size)));
}

void TextAppender::AppendF(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  const int wanted = std::vsnprintf(&room_[length_], room_.size() - length_, format, arguments);
  va_end(arguments);
  if (wanted > 0) length_ = std::min(length_ + static_cast<std::size_t>(wanted), room_.size() - 1);
}

}  // namespace kinetrel
