// A source of buttons (digital channels) and axes (analog channels) that the engine samples
// together with the tracker: a joystick.
//
// Threads  Read runs on the sampling thread without the engine's lock. The other operations run
//          under the lock, possibly during a Read. The sampling thread reads the channels under the
//          lock, after its Read.
#pragma once

#include <array>
#include <cstdint>

namespace kinetrel {

class DAQControl {
 public:
  DAQControl() = default;
  DAQControl(const DAQControl&) = delete;
  DAQControl& operator=(const DAQControl&) = delete;
  virtual ~DAQControl() = default;

  virtual int Boot(int unused) = 0;  // 1 or more: usable

  // Describes the source in `text`, at most `size` bytes with the terminator. Returns 1, or 0 on
  // failure.
  virtual int QueryCaps(char* text, int size) = 0;

  // Samples the source. Nonzero if the channels below hold the new values. Never allocates or
  // waits.
  virtual int Read(int unused) = 0;

  virtual int GetId() { return 0; }
  virtual const char* GetName() { return "DAQControl"; }

  int digitalChannels() const { return digitalChannels_; }    // at most 32
  int analogChannels() const { return analogChannels_; }      // at most 32
  std::uint32_t digitalBits() const { return digitalBits_; }  // bit i = channel i
  std::uint32_t analogValue(int i) const { return analogValues_[static_cast<unsigned>(i)]; }

 protected:
  int digitalChannels_ = 0;
  int analogChannels_ = 0;
  std::uint32_t digitalBits_ = 0;
  std::array<std::uint32_t, 32> analogValues_{};
};

}  // namespace kinetrel
