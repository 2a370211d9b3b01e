#include "devices/record_window.h"

#include <algorithm>

namespace kinetrel {

bool RecordWindow::Want(SerialPort& port, std::size_t count) {
  readFailed_ = false;
  if (size() >= count) return true;
  if (count > kRoom) return false;
  if (begin_ + count > kRoom) {
    std::copy(room_.data() + begin_, room_.data() + end_, room_.data());
    end_ -= begin_;
    begin_ = 0;
  }
  unsigned got = 0;
  readFailed_ = !port.ReadSome(room_.data() + end_, static_cast<unsigned>(count - size()), &got);
  end_ += got;
  return size() >= count;
}

void RecordWindow::Drop(std::size_t count) {
  begin_ += std::min(count, size());
  if (begin_ == end_) Clear();
}

}  // namespace kinetrel
