// One open tracker of the InterSense substitute: on a serial or USB port a tracker with known
// motion, on a UDP port the records that another program sends.
//
// Frame n, from 0, has the angles yaw -180 + n % 1440 / 4, pitch -45 + n / 1440 % 360 / 4 and roll
// -90 + n % 720 / 4 degrees. Each station from 2 to 8 has one degree more roll than the one before.
// The newest 64 records wait to be read.
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

  // Nothing when the port cannot be opened.
  static std::optional<Tracker> Open(std::uint32_t port);

  bool Answers();  // false while the tracker is lost
  void Describe(TrackerWords& info) const;
  StationWords* Station(std::uint16_t number);  // null: no such station
  bool Configure(std::uint16_t number, const StationWords& wanted);
  bool Read(DataBlock& data);  // false: the tracker does not answer

 private:
  explicit Tracker(std::uint32_t port);
  std::uint64_t PeriodsPassed() const;
  bool PlayDueFaults();
  void DropOldest(std::uint64_t waiting);
  void Measure(DataBlock& data);
  void ReceiveRecord(DataBlock& data);

  std::uint32_t port_;
  std::optional<DatagramSocket> source_;  // for a UDP port
  std::array<StationWords, kStations> stations_{};
  DataBlock newest_{};
  std::int64_t started_;
  std::uint64_t frame_ = 0;    // the number of the next frame
  std::uint64_t periods_ = 0;  // periods that passed before it
  std::uint64_t lostUntil_ = 0;
  std::uint64_t faultsPlayed_ = 0;  // one bit per item of the list
};

}  // namespace kinetrel::substitute
