#include "bridge/vrpn_wire.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstdio>
#include <iterator>

namespace kinetrel::bridge {
namespace {

constexpr std::size_t kHeaderSize = 24;
constexpr std::size_t kLargestMessage = 65536;  // VRPN's own largest payload is 64000
constexpr std::int32_t kIds = 2000;             // VRPN numbers senders and types below this
constexpr std::size_t kTextSize = 1024;

// Types of system messages.
constexpr std::int32_t kDescribesSender = -1;
constexpr std::int32_t kDescribesType = -2;
constexpr std::int32_t kDescribesUdp = -3;

// The version that is announced. Clients compare up to the last dot.
constexpr std::string_view kVersion = "vrpn: ver. 07.38";
constexpr std::string_view kSameVersion = "vrpn: ver. 07.";

constexpr std::string_view kTypeNames[] = {"vrpn_Base ping_message", "vrpn_Base pong_message",
                                           "vrpn_Base text_message", "vrpn_Tracker Pos_Quat",
                                           "vrpn_Button Change",     "vrpn_Button States"};

// ---- Numbers
// -------------------------------------------------------------------------------------

void Put64(VrpnBytes& bytes, std::uint64_t value, int count = 8) {
  for (int i = count - 1; i >= 0; --i) {
    bytes.push_back(static_cast<std::byte>(value >> (8 * i) & 0xFF));
  }
}

void Put32(VrpnBytes& bytes, std::uint32_t value) { Put64(bytes, value, 4); }

void PutF64(VrpnBytes& bytes, double value) { Put64(bytes, std::bit_cast<std::uint64_t>(value)); }

void PutText(VrpnBytes& bytes, std::string_view text) {
  for (const char c : text) bytes.push_back(static_cast<std::byte>(c));
}

std::uint32_t Get32(std::span<const std::byte> bytes, std::size_t at) {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    value = value << 8 | std::to_integer<std::uint32_t>(bytes[at + i]);
  }
  return value;
}

double GetF64(std::span<const std::byte> bytes, std::size_t at) {
  return std::bit_cast<double>(static_cast<std::uint64_t>(Get32(bytes, at)) << 32 |
                               Get32(bytes, at + 4));
}

std::size_t Padded(std::size_t size) { return (size + 7) / 8 * 8; }

void PutHeader(VrpnBytes& bytes, std::int64_t utcNs, std::int32_t sender, std::int32_t type,
               std::size_t payload) {
  Put32(bytes, static_cast<std::uint32_t>(kHeaderSize + payload));
  Put32(bytes, static_cast<std::uint32_t>(utcNs / 1000000000));
  Put32(bytes, static_cast<std::uint32_t>(utcNs % 1000000000 / 1000));
  Put32(bytes, static_cast<std::uint32_t>(sender));
  Put32(bytes, static_cast<std::uint32_t>(type));
  Put32(bytes, 0);
}

void PutHeader(VrpnBytes& bytes, std::int64_t utcNs, std::int32_t sender, VrpnType type,
               std::size_t payload) {
  PutHeader(bytes, utcNs, sender, static_cast<std::int32_t>(type), payload);
}

// Everything before it is padded already.
void Pad(VrpnBytes& bytes) { bytes.resize(Padded(bytes.size())); }

void PutDescription(VrpnBytes& bytes, std::int64_t utcNs, std::int32_t id, std::int32_t type,
                    std::string_view name) {
  name = name.substr(0, kVrpnLongestName);
  PutHeader(bytes, utcNs, id, type, 4 + name.size() + 1);
  Put32(bytes, static_cast<std::uint32_t>(name.size() + 1));
  PutText(bytes, name);
  bytes.push_back(std::byte{0});
  Pad(bytes);
}

}  // namespace

// ---- What the server sends
// -----------------------------------------------------------------------

void AppendVrpnCookie(VrpnBytes& bytes) {
  PutText(bytes, kVersion);
  PutText(bytes, "  0");  // no remote log is asked for
  bytes.insert(bytes.end(), 5, std::byte{0});
}

void AppendVrpnSender(VrpnBytes& bytes, std::int64_t utcNs, std::int32_t sender,
                      std::string_view name) {
  PutDescription(bytes, utcNs, sender, kDescribesSender, name);
}

void AppendVrpnTypes(VrpnBytes& bytes, std::int64_t utcNs) {
  std::int32_t id = 0;
  for (const std::string_view name : kTypeNames) {
    PutDescription(bytes, utcNs, id++, kDescribesType, name);
  }
}

void AppendVrpnPose(VrpnBytes& bytes, std::int64_t utcNs, std::int32_t sender, unsigned sensor,
                    const std::array<double, 3>& position,
                    const std::array<double, 4>& orientation) {
  PutHeader(bytes, utcNs, sender, VrpnType::PosQuat, 64);
  Put32(bytes, sensor);
  Put32(bytes, sensor);  // a filler
  for (const double value : position) PutF64(bytes, value);
  for (const double value : orientation) PutF64(bytes, value);
}

void AppendVrpnButton(VrpnBytes& bytes, std::int64_t utcNs, std::int32_t sender, unsigned button,
                      bool pressed) {
  PutHeader(bytes, utcNs, sender, VrpnType::ButtonChange, 8);
  Put32(bytes, button);
  Put32(bytes, pressed ? 1 : 0);
}

void AppendVrpnButtons(VrpnBytes& bytes, std::int64_t utcNs, std::int32_t sender,
                       const std::vector<bool>& pressed) {
  const std::size_t count = std::min(pressed.size(), kVrpnMostButtons);
  PutHeader(bytes, utcNs, sender, VrpnType::ButtonStates, 4 + 4 * count);
  Put32(bytes, static_cast<std::uint32_t>(count));
  for (std::size_t i = 0; i < count; ++i) Put32(bytes, pressed[i] ? 1 : 0);
  Pad(bytes);
}

void AppendVrpnPong(VrpnBytes& bytes, std::int64_t utcNs, std::int32_t sender) {
  PutHeader(bytes, utcNs, sender, VrpnType::Pong, 0);
}

void AppendVrpnText(VrpnBytes& bytes, std::int64_t utcNs, std::int32_t sender,
                    VrpnSeverity severity, std::string_view text) {
  text = text.substr(0, kTextSize - 1);
  PutHeader(bytes, utcNs, sender, VrpnType::Text, 8 + kTextSize);
  Put32(bytes, static_cast<std::uint32_t>(severity));
  Put32(bytes, 0);  // level
  PutText(bytes, text);
  bytes.insert(bytes.end(), kTextSize - text.size(), std::byte{0});
}

// ---- What the server reads
// -----------------------------------------------------------------------

bool VrpnReader::Read(std::span<const std::byte> bytes, std::vector<VrpnRequest>& requests) {
  while (!bytes.empty()) {
    const std::size_t wanted = size_ != 0 ? size_ : cookieSeen_ ? kHeaderSize : kVrpnCookieSize;
    const std::size_t count = std::min(wanted - have_, bytes.size());
    if (have_ < kept_.size()) {
      const auto taken = bytes.first(std::min(count, kept_.size() - have_));
      std::copy(taken.begin(), taken.end(), kept_.begin() + static_cast<std::ptrdiff_t>(have_));
    }
    have_ += count;
    bytes = bytes.subspan(count);
    if (have_ < wanted) return true;
    if (!cookieSeen_) {
      if (!TakeCookie(requests)) return false;
    } else if (size_ == 0) {
      if (!TakeHeader()) return false;
      if (size_ > kHeaderSize) continue;
    }
    if (size_ != 0) TakeMessage(requests);
    size_ = 0;
    have_ = 0;
  }
  return true;
}

bool VrpnReader::TakeCookie(std::vector<VrpnRequest>& requests) {
  const auto at = [&](std::size_t i) { return static_cast<char>(kept_[i]); };
  for (std::size_t i = 0; i < kSameVersion.size(); ++i) {
    if (at(i) != kSameVersion[i]) return false;
  }
  // The digit is what the client asks to be logged remotely; this server logs nothing.
  constexpr std::size_t kDigit = 18;
  if (at(kDigit) < '0' || at(kDigit) > '3') return false;
  cookieSeen_ = true;
  requests.push_back({});
  return true;
}

bool VrpnReader::TakeHeader() {
  const std::size_t length = Get32(kept_, 0);
  if (length < kHeaderSize || length > kLargestMessage) return false;
  payload_ = length - kHeaderSize;
  size_ = Padded(length);
  return true;
}

// The name of a description; empty if the message holds none.
std::string VrpnReader::Name() const {
  if (payload_ < 5) return {};
  const std::size_t size = Get32(kept_, kHeaderSize);
  if (size < 2 || size > kVrpnLongestName + 1 || size > payload_ - 4) return {};
  std::string name;
  for (std::size_t i = 0; i < size; ++i) {
    const char c = static_cast<char>(kept_[kHeaderSize + 4 + i]);
    if (c == '\0') return name;
    name += c;
  }
  return {};
}

void VrpnReader::TakeMessage(std::vector<VrpnRequest>& requests) {
  const auto sender = static_cast<std::int32_t>(Get32(kept_, 12));
  const auto type = static_cast<std::int32_t>(Get32(kept_, 16));
  if (type == kDescribesUdp) {
    VrpnRequest request;
    request.kind = VrpnRequest::Kind::Udp;
    if (sender < 1024 || sender > 65535) return;
    request.port = static_cast<std::uint16_t>(sender);
    for (std::size_t i = 0; i < std::min<std::size_t>(payload_, 16); ++i) {
      const char c = static_cast<char>(kept_[kHeaderSize + i]);
      if (c == '\0') break;
      request.address += c;
    }
    requests.push_back(std::move(request));
  } else if (type == kDescribesSender || type == kDescribesType) {
    if (sender < 0 || sender >= kIds) return;
    const std::string name = Name();
    if (type == kDescribesType) {
      types_[sender] = name == kTypeNames[static_cast<std::size_t>(VrpnType::Ping)];
      return;
    }
    const auto found = std::find(devices_.begin(), devices_.end(), name);
    senders_[sender] =
        found == devices_.end() ? -1 : static_cast<std::int32_t>(found - devices_.begin());
  } else {
    const auto kind = types_.find(type);
    const auto device = senders_.find(sender);
    if (kind == types_.end() || !kind->second || device == senders_.end()) return;
    // A ping of an unknown device stays without an answer: its client then tells the user.
    if (device->second < 0) return;
    requests.push_back({VrpnRequest::Kind::Ping, device->second, 0, {}});
  }
}

std::uint16_t ParseVrpnCall(std::span<const std::byte> datagram) {
  constexpr std::size_t kLongest = 150;
  if (datagram.empty() || datagram.size() > kLongest) return 0;
  std::string text;
  for (const std::byte byte : datagram) {
    const char c = static_cast<char>(byte);
    if (c == '\0') break;
    const bool isHost = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') ||
                        (c >= 'A' && c <= 'Z') || c == '.' || c == '-' || c == '_';
    if (!isHost && c != ' ') return 0;
    text += c;
  }
  const std::size_t space = text.find(' ');
  if (space == 0 || space == std::string::npos) return 0;
  std::uint16_t port = 0;
  const char* const end = text.data() + text.size();
  const auto read = std::from_chars(text.data() + space + 1, end, port);
  return read.ec == std::errc() && read.ptr == end && port >= 1024 ? port : std::uint16_t{0};
}

// ---- As text
// -------------------------------------------------------------------------------------

namespace {

std::string DescribePose(std::span<const std::byte> message) {
  char text[256];
  std::snprintf(text, sizeof text,
                " sensor %u position %.6f %.6f %.6f quaternion xyzw %.6f %.6f %.6f %.6f",
                Get32(message, 24), GetF64(message, 32), GetF64(message, 40), GetF64(message, 48),
                GetF64(message, 56), GetF64(message, 64), GetF64(message, 72), GetF64(message, 80));
  return text;
}

std::string DescribeMessage(std::span<const std::byte> message, std::size_t length) {
  const auto type = static_cast<std::int32_t>(Get32(message, 16));
  char head[96];
  std::snprintf(head, sizeof head, "time %u.%06u sender %d ", Get32(message, 4), Get32(message, 8),
                static_cast<int>(Get32(message, 12)));
  std::string text = head;
  if (type < 0 || type >= static_cast<std::int32_t>(std::size(kTypeNames))) {
    return text + "system message " + std::to_string(type);
  }
  text += kTypeNames[type];
  const auto kind = static_cast<VrpnType>(type);
  if (kind == VrpnType::PosQuat && length == kVrpnPoseSize) text += DescribePose(message);
  if (kind == VrpnType::ButtonChange && length == kHeaderSize + 8) {
    text += " button " + std::to_string(Get32(message, 24)) + " state " +
            std::to_string(Get32(message, 28));
  }
  return text;
}

}  // namespace

std::string DescribeVrpn(std::span<const std::byte> messages) {
  std::string text;
  while (messages.size() >= kHeaderSize) {
    const std::size_t length = Get32(messages, 0);
    if (length < kHeaderSize || length > messages.size()) break;
    text += (text.empty() ? "" : "\n") + DescribeMessage(messages, length);
    messages = messages.subspan(std::min(Padded(length), messages.size()));
  }
  return text.empty() ? "not a VRPN message" : text;
}

}  // namespace kinetrel::bridge
