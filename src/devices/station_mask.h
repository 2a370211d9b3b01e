// Masks of stations (sensors): bit i is the station of index i. Stations past the mask's 32 bits
// are in no mask.
#pragma once

namespace kinetrel {

constexpr unsigned StationBit(int station) {
  return station >= 0 && station < 32 ? 1U << station : 0U;
}

constexpr bool HasStation(unsigned mask, int station) { return (mask & StationBit(station)) != 0; }

// The mask of the stations 0 to count - 1.
constexpr unsigned FirstStations(int count) {
  return count >= 32 ? ~0U : count <= 0 ? 0U : (1U << count) - 1;
}

}  // namespace kinetrel
