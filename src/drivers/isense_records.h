// The records of the InterSense library's C interface, and their texts.
//
// The layouts are the library's: 32-bit words in the machine's byte order. Words that this driver
// does not use are reserved, because the library fills them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace kinetrel {

inline constexpr int kIsenseStations = 8;

struct IsenseTrackerInfo {
  float libVersion = 0;
  std::uint32_t trackerType = 0;
  std::uint32_t trackerModel = 0;
  std::uint32_t port = 0;
  std::uint32_t recordsPerSec = 0;
  float kBitsPerSec = 0;
  std::uint32_t syncState = 0;
  float syncRate = 0;
  std::uint32_t syncPhase = 0;
  std::uint32_t interface = 0;
  std::array<std::uint32_t, 11> reserved{};
};
static_assert(sizeof(IsenseTrackerInfo) == 84);

// The form of a station's orientation.
enum class IsenseAngleFormat : std::uint32_t { AsEuler = 1, AsQuaternion = 2 };

struct IsenseStationInfo {
  std::uint32_t id = 0;
  std::uint32_t state = 0;
  std::int32_t compass = 0;
  std::int32_t inertiaCube = 0;
  std::uint32_t enhancement = 0;
  std::uint32_t sensitivity = 0;
  std::uint32_t prediction = 0;
  IsenseAngleFormat angleFormat{};
  std::uint32_t timeStamped = 0;
  std::uint32_t reserved9 = 0;
  std::uint32_t getEncoderData = 0;
  std::uint32_t reserved11 = 0;
  std::uint32_t coordFrame = 0;
  std::array<std::uint32_t, 7> reserved13{};
  std::uint32_t getCameraData = 0;
  std::array<std::uint32_t, 3> reserved21{};
};
static_assert(sizeof(IsenseStationInfo) == 96);

struct IsenseStationData {
  std::uint8_t reserved0 = 0;
  std::uint8_t newData = 0;  // nonzero: a new record
  std::array<std::uint8_t, 2> reserved2{};
  std::array<float, 4> orientation{};  // yaw, pitch, roll in degrees; or a quaternion, w first
  std::array<std::uint8_t, 116> reserved20{};
};
static_assert(sizeof(IsenseStationData) == 136 && offsetof(IsenseStationData, orientation) == 4);

struct IsenseTrackerData {
  std::array<IsenseStationData, kIsenseStations> stations{};
};
static_assert(sizeof(IsenseTrackerData) == 1088);

// Both append lines while `size` leaves 80 bytes of room. With a size below 100, or a null text,
// they write nothing.
void FormatTrackerInfo(const IsenseTrackerInfo& info, char* text, int size);
void FormatStationInfo(const IsenseStationInfo& info, char* text, int size);

}  // namespace kinetrel
