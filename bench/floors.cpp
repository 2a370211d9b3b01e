#include "bench/floors.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <poll.h>
#include <pty.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>

#include <climits>
#include <stdexcept>

namespace kinetrel::bench {

BareMutex::BareMutex() {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  pthread_mutex_init(&*mutex_, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

void BarePublication::operator()() {
  mutex_.Lock();
  for (std::int64_t& time : own_.times) time = ClockTicks();
  ++own_.count;
  *shared_ = own_;
  mutex_.Unlock();
}

void BareRead::operator()() {
  mutex_.Lock();
  own_ = *shared_;
  asm volatile("" ::"r"(own_.data()) : "memory");  // or the compiler drops the copy
  mutex_.Unlock();
}

// ---- BareWake ----------------------------------------------------------------------------------

namespace {

void Futex(std::atomic<std::uint32_t>& word, int operation, std::uint32_t value) {
  ::syscall(SYS_futex, &word, operation, value, nullptr, nullptr, 0);
}

void Wake(std::atomic<std::uint32_t>& word) {
  word.fetch_add(1);
  Futex(word, FUTEX_WAKE, INT_MAX);
}

}  // namespace

void BareWake::OpenTaker() { last_ = word_->load(); }

void BareWake::Give() { Wake(*word_); }

void BareWake::Rehearse() { Wake(*lonelyWord_); }

void BareWake::Take() {
  while (word_->load() == last_) Futex(*word_, FUTEX_WAIT, last_);
  last_ = word_->load();
}

// ---- BareLine ----------------------------------------------------------------------------------

BareLine::BareLine(int recordSize) : record_(static_cast<std::size_t>(recordSize), 'r') {
  char path[64];
  termios raw{};
  ::cfmakeraw(&raw);
  if (::openpty(&far_, &near_, path, &raw, nullptr) != 0) throw std::runtime_error("openpty");
  path_ = path;
}

BareLine::~BareLine() {
  ::close(far_);
  ::close(near_);
}

void BareLine::Give() {
  if (::write(far_, record_.data(), record_.size()) < 0) throw std::runtime_error("far end");
}

void BareLine::Take() {
  std::array<char, 256> bytes;
  for (std::size_t got = 0; got < record_.size();) {
    pollfd ready{near_, POLLIN, 0};
    ::poll(&ready, 1, 1000);
    const ssize_t more = ::read(near_, bytes.data(), record_.size() - got);
    if (more > 0) got += static_cast<std::size_t>(more);
  }
}

}  // namespace kinetrel::bench
