// The bytes of VRPN, version 7: what a server sends, and what it reads of a client. Pure.
//
// All numbers are big-endian. A connection begins with a cookie of 24 bytes in each direction;
// after it come messages:
//
//   offset  size  field
//   0       4     length: 24 + payload, without the padding behind it
//   4       4     seconds since 1970 UTC
//   8       4     microseconds
//   12      4     sender: an id of the side that sends; system messages use it otherwise
//   16      4     type: an id of the side that sends; negative: a system message
//   20      4     sequence number, which receivers do not read: 0
//   24            payload, then padding to a multiple of 8
//
// Each side numbers its own senders (devices) and types (kinds of message) and describes them by
// name to the other. Source: VRPN's protocol note and its published source.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kinetrel::bridge {

using VrpnBytes = std::vector<std::byte>;

// ---- What the server sends
// -----------------------------------------------------------------------

// The ids that this server gives to its types; they stand in the order of the descriptions.
enum class VrpnType : std::int32_t { Ping, Pong, Text, PosQuat, ButtonChange, ButtonStates };

enum class VrpnSeverity : std::uint32_t { Normal, Warning, Error };

inline constexpr std::size_t kVrpnCookieSize = 24;
inline constexpr std::size_t kVrpnPoseSize = 88;  // bytes of a whole message
inline constexpr std::size_t kVrpnLongestName = 99;
inline constexpr std::size_t kVrpnMostButtons = 256;

// Each appends whole messages, with their padding. utcNs since 1970; sender is the device's id.
void AppendVrpnCookie(VrpnBytes& bytes);
void AppendVrpnSender(VrpnBytes& bytes, std::int64_t utcNs, std::int32_t sender,
                      std::string_view name);
void AppendVrpnTypes(VrpnBytes& bytes, std::int64_t utcNs);  // all of VrpnType
// position     m
// orientation  x, y, z, w
void AppendVrpnPose(VrpnBytes& bytes, std::int64_t utcNs, std::int32_t sender, unsigned sensor,
                    const std::array<double, 3>& position,
                    const std::array<double, 4>& orientation);
void AppendVrpnButton(VrpnBytes& bytes, std::int64_t utcNs, std::int32_t sender, unsigned button,
                      bool pressed);
// At most kVrpnMostButtons are sent.
void AppendVrpnButtons(VrpnBytes& bytes, std::int64_t utcNs, std::int32_t sender,
                       const std::vector<bool>& pressed);
void AppendVrpnPong(VrpnBytes& bytes, std::int64_t utcNs, std::int32_t sender);
// Text that is longer than 1023 bytes is cut.
void AppendVrpnText(VrpnBytes& bytes, std::int64_t utcNs, std::int32_t sender,
                    VrpnSeverity severity, std::string_view text);

// ---- What the server reads
// -----------------------------------------------------------------------

// What a client wants, in the order in which it said so.
struct VrpnRequest {
  enum class Kind {
    Greeting,  // its cookie came and fits: cookie and descriptions may be sent
    Ping,      // of the device `device`
    Udp,       // poses may go to the port `port` of the address that it calls its own
  };
  Kind kind = Kind::Greeting;
  std::int32_t device = 0;
  std::uint16_t port = 0;
  std::string address;
};

// One client's side of a connection. Takes its bytes in any pieces. Keeps at most 128 bytes of a
// message and the ids of 2000 senders and types.
class VrpnReader {
 public:
  // devices  names of the server's senders, by their ids; they outlive the reader.
  explicit VrpnReader(const std::vector<std::string>& devices) : devices_(devices) {}

  // Appends the requests. False: these are not the bytes of a VRPN client; the connection is to be
  // closed. The reader must not be used again then.
  bool Read(std::span<const std::byte> bytes, std::vector<VrpnRequest>& requests);

  bool HasCookie() const { return cookieSeen_; }

 private:
  bool TakeCookie(std::vector<VrpnRequest>& requests);
  bool TakeHeader();
  void TakeMessage(std::vector<VrpnRequest>& requests);
  std::string Name() const;

  const std::vector<std::string>& devices_;
  bool cookieSeen_ = false;
  std::array<std::byte, 128> kept_{};  // of the present message; more is counted only
  std::size_t have_ = 0;               // bytes of it that came
  std::size_t size_ = 0;               // with padding; 0: the header is not complete
  std::size_t payload_ = 0;
  std::map<std::int32_t, std::int32_t> senders_;  // the client's id: ours
  std::map<std::int32_t, bool> types_;            // the client's id: it is a ping
};

// The port that a call-back datagram names ("127.0.0.1 57027" and a NUL); 0 if it is not one, or
// names a port below 1024. Its address is left alone: the datagram's source counts, so that a
// client cannot have another machine called.
std::uint16_t ParseVrpnCall(std::span<const std::byte> datagram);

// Messages that this server sends, as text; one line each. For any bytes.
std::string DescribeVrpn(std::span<const std::byte> messages);

}  // namespace kinetrel::bridge
