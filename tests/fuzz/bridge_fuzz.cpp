// What kinetrel-bridge reads: the bytes of VRPN clients (fuzz-vrpn), and what an operator or a
// script writes for an output (fuzz-output_address). KINETREL_FUZZ selects one.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "bridge/vrpn_wire.h"
#include "bridge_front/output_address.h"
#include "bridge_front/pose_selector.h"

namespace {

using namespace kinetrel::bridge;

// In any pieces: the first byte is their size. A client may ask once for each of its messages,
// which have 24 bytes or more.
void Client(std::span<const std::byte> data) {
  static const std::vector<std::string> devices = {"Tracker0", "Button0"};
  static_cast<void>(ParseVrpnCall(data));
  static_cast<void>(DescribeVrpn(data));
  if (data.empty()) return;
  const std::size_t piece = std::max<std::size_t>(1, std::to_integer<std::size_t>(data[0]));
  auto rest = data.subspan(1);
  VrpnReader reader(devices);
  std::vector<VrpnRequest> requests;
  while (!rest.empty() && reader.Read(rest.first(std::min(piece, rest.size())), requests)) {
    rest = rest.subspan(std::min(piece, rest.size()));
  }
  if (requests.size() > data.size() / 24 + 1) std::abort();
  for (const VrpnRequest& request : requests) {
    if (request.device < 0 || request.device > 1 || request.address.size() > 16) std::abort();
    if (request.kind == VrpnRequest::Kind::Udp && request.port < 1024) std::abort();
  }
}

// A selector whose options are accepted gives poses that are finite.
void Address(std::span<const std::byte> data) {
  OutputAddress address;
  const std::string_view text(reinterpret_cast<const char*>(data.data()), data.size());
  if (!ParseOutputAddress(text, address).empty()) return;
  OutputOptions options(address);
  const PoseSelector selector(options, {"unity", "sensor"});
  if (!options.Complaint().empty()) return;
  kinetrel_record record{};
  record.flags = kinetrel_position_valid | kinetrel_orientation_valid;
  record.position[1] = 1.5;
  record.orientation[0] = 1;
  std::vector<Pose> poses;
  for (; record.sensor <= kinetrel_stream_sensors; ++record.sensor) {
    selector.Select({&record, 1}, SourceState{}, poses);
  }
  if (poses.size() != selector.sensors().size()) std::abort();
  for (const Pose& pose : poses) {
    const Quaternion& q = pose.orientation;
    const double length = q.w * q.w + q.x * q.x + q.y * q.y + q.z * q.z;
    if (!std::isfinite(pose.position[1]) || std::abs(length - 1) > 1e-3) std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr bool kIsClient = std::string_view(KINETREL_FUZZ) == "vrpn";
  (kIsClient ? Client : Address)(std::as_bytes(std::span(data, size)));
  return 0;
}
