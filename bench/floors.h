// The bare floors: what the machine itself takes for the work that the programs measure.
#pragma once

#include <pthread.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

#include "bench/handover.h"
#include "bench/machine.h"

namespace kinetrel::bench {

// A mutex of the kind that clients of a block lock: process-shared and robust.
class BareMutex {
 public:
  BareMutex();
  void Lock() { pthread_mutex_lock(&*mutex_); }
  void Unlock() { pthread_mutex_unlock(&*mutex_); }

 private:
  Common<pthread_mutex_t> mutex_;
};

// One sample's bytes, copied under the mutex with as many clock readings as a publication stamps.
class BarePublication {
 public:
  static constexpr int kClockReadings = 1;
  void operator()();

 private:
  struct Sample {
    std::array<float, 6> pose;
    std::uint32_t flags, buttons, sensorMask;
    double frameRate;
    std::int32_t count;
    std::array<std::int64_t, kClockReadings> times;
  };
  BareMutex mutex_;
  Common<Sample> shared_;
  Sample own_{};
};

// One block, copied under the mutex as a client does.
class BareRead {
 public:
  void operator()();

 private:
  static constexpr std::size_t kBlockBytes = 1464;
  using Block = std::array<unsigned char, kBlockBytes>;
  BareMutex mutex_;
  Common<Block> shared_;
  Block own_{};
};

// One futex word for any number of takers: wakes them all without data.
class BareWake final : public Handover {
 public:
  void OpenTaker() override;
  void Give() override;
  void Rehearse() override;
  void Take() override;

 private:
  Common<std::atomic<std::uint32_t>> word_;
  Common<std::atomic<std::uint32_t>> lonelyWord_;
  std::uint32_t last_ = 0;
};

// A pseudo-terminal: the giver writes a record at the far end, the taker polls and reads the near
// one.
class BareLine final : public Handover {
 public:
  explicit BareLine(int recordSize);
  ~BareLine() override;
  void Give() override;
  void Take() override;

  const std::string& path() const { return path_; }  // of the near end

 private:
  int far_;
  int near_;
  std::string path_;
  std::string record_;
};

}  // namespace kinetrel::bench
