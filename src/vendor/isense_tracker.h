// One open tracker of the InterSense substitute: on a serial or USB port a tracker in known motion,
// on a UDP port what somebody else passes on to it.
//
// The motion, by frame n from 0, in steps of a quarter of a degree: yaw -180 + n % 1440 / 4,
// pitch -45 + n / 1440 % 360 / 4, roll -90 + n % 720 / 4. Stations 2 to 8 have one degree more of
// roll each. A record stays to be read, behind those before it, for 64 periods.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "platform/datagram_socket.h"
#include "vendor/isense_interface.h"

namespace kinetrel::substitute {

class Tracker {
 public:
  static constexpr std::uint32_t kFirstUdpPort = 1000;

  // Nothing when the port cannot be had.
  static std::optional<Tracker> Open(std::uint32_t port);

  bool Answers();
  void Describe(TrackerWords& info) const;
  StationWords* Station(std::uint16_t number);  // null: no such station
  bool Configure(std::uint16_t number, const StationWords& wanted);
  bool Read(DataBlock& data);  // false: does not answer

 private:
  explicit Tracker(std::uint32_t port);
  std::uint64_t PeriodsPassed() const;
  bool MeetMishaps();
  void DropOldest(std::uint64_t waiting);
  void Measure(DataBlock& data);
  void ReceiveRecord(DataBlock& data);

  std::uint32_t port_;
  std::optional<DatagramSocket> source_;  // of a UDP port
  std::array<StationWords, kStations> stations_{};
  DataBlock newest_{};
  std::int64_t started_;
  std::uint64_t frame_ = 0;    // the next
  std::uint64_t periods_ = 0;  // passed before it
  std::uint64_t lostUntil_ = 0;
  std::uint64_t mishapsMet_ = 0;  // one bit each
};

}  // namespace kinetrel::substitute
