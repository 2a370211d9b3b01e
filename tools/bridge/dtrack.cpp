#include "bridge/dtrack.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "bridge/text.h"

namespace kinetrel::bridge {
namespace {

constexpr std::int64_t kDayUs = 86'400'000'000;

double Degrees(double radians) { return radians * 180 / std::numbers::pi; }

void AppendNumbers(std::string& text, std::span<const double> numbers, int decimals) {
  for (const double number : numbers) text.append(Fixed(number, decimals)).append(" ");
}

void AppendBody(std::string& text, const DTrackBody& body) {
  const std::array<double, 9>& r = body.rotation;
  const std::array<double, 3> angles = {Degrees(std::atan2(-r[5], r[8])),
                                        Degrees(std::asin(std::clamp(r[2], -1.0, 1.0))),
                                        Degrees(std::atan2(-r[1], r[0]))};
  const std::array<double, 9> columns = {r[0], r[3], r[6], r[1], r[4], r[7], r[2], r[5], r[8]};
  text += " [" + std::to_string(body.id) + " 1.000][";
  AppendNumbers(text, body.position, 3);
  AppendNumbers(text, angles, 4);
  text.back() = ']';
  text += '[';
  AppendNumbers(text, columns, 6);
  text.back() = ']';
}

}  // namespace

std::string EncodeDTrack(std::uint32_t frame, std::int64_t utcNs, unsigned known,
                         std::span<const DTrackBody> bodies) {
  const std::int64_t us = utcNs / 1000 % kDayUs;
  std::string text = "fr " + std::to_string(frame) + "\r\n";
  text += "ts " + Fixed(static_cast<double>(us) / 1e6, 6) + "\r\n";
  text += "6dcal " + std::to_string(known) + "\r\n";
  text += "6d " + std::to_string(bodies.size());
  for (const DTrackBody& body : bodies) AppendBody(text, body);
  return text + "\r\n";
}

}  // namespace kinetrel::bridge
