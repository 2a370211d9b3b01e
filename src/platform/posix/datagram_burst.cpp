#include "platform/datagram_burst.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace kinetrel {
namespace {

constexpr std::size_t kMostJoined = 64;          // datagrams that every Linux since 4.18 joins
constexpr std::size_t kMostJoinedBytes = 65000;  // what one IP packet holds, less its headers
constexpr std::size_t kMostInCall = 64;          // datagrams
constexpr int kSegmentSize = 103;                // UDP_SEGMENT, which older C libraries lack

// Some of the datagrams as the system call takes them.
class Call {
 public:
  Call(std::span<const OutgoingDatagram> datagrams, bool joins) {
    datagrams = datagrams.first(std::min(datagrams.size(), kMostInCall));
    while (!datagrams.empty()) {
      const std::size_t count = joins ? Joined(datagrams) : 1;
      AddMessage(datagrams.first(count));
      datagrams = datagrams.subspan(count);
    }
  }

  // Returns how many messages the system took, or -1.
  int Send(int socket) {
    return ::sendmmsg(socket, messages_.data(), static_cast<unsigned>(size_), MSG_DONTWAIT);
  }

  std::size_t DatagramsOf(int messages) const {
    std::size_t sum = 0;
    for (int i = 0; i < messages; ++i) sum += counts_[static_cast<std::size_t>(i)];
    return sum;
  }
  bool BeginsJoined() const { return counts_[0] > 1; }

 private:
  // How many of the first datagrams can be one message: all but its last have one length.
  static std::size_t Joined(std::span<const OutgoingDatagram> datagrams) {
    const OutgoingDatagram& first = datagrams[0];
    std::size_t count = 1;
    std::size_t bytes = first.bytes.size();
    while (count < std::min(datagrams.size(), kMostJoined) &&
           datagrams[count - 1].bytes.size() == first.bytes.size() &&
           datagrams[count].bytes.size() <= first.bytes.size() &&
           bytes + datagrams[count].bytes.size() <= kMostJoinedBytes &&
           datagrams[count].to.data() == first.to.data()) {
      bytes += datagrams[count].bytes.size();
      ++count;
    }
    return count;
  }

  void AddMessage(std::span<const OutgoingDatagram> datagrams) {
    msghdr& head = messages_[size_].msg_hdr;
    head.msg_name = const_cast<std::byte*>(datagrams[0].to.data());
    head.msg_namelen = static_cast<socklen_t>(datagrams[0].to.size());
    head.msg_iov = &pieces_[pieceCount_];
    const std::byte* end = nullptr;
    for (const OutgoingDatagram& each : datagrams) {
      if (head.msg_iovlen > 0 && each.bytes.data() == end) {  // right behind the one before
        pieces_[pieceCount_ - 1].iov_len += each.bytes.size();
      } else {
        pieces_[pieceCount_++] = {const_cast<std::byte*>(each.bytes.data()), each.bytes.size()};
        ++head.msg_iovlen;
      }
      end = each.bytes.data() + each.bytes.size();
    }
    if (datagrams.size() > 1) TellLength(head, datagrams[0].bytes.size());
    counts_[size_++] = datagrams.size();
  }

  void TellLength(msghdr& head, std::size_t length) {
    head.msg_control = controls_[size_].bytes.data();
    head.msg_controllen = sizeof controls_[size_].bytes;
    cmsghdr* const control = CMSG_FIRSTHDR(&head);
    control->cmsg_level = IPPROTO_UDP;
    control->cmsg_type = kSegmentSize;
    control->cmsg_len = CMSG_LEN(sizeof(std::uint16_t));
    const auto size = static_cast<std::uint16_t>(length);
    std::memcpy(CMSG_DATA(control), &size, sizeof size);
  }

  struct Control {
    alignas(cmsghdr) std::array<std::byte, CMSG_SPACE(sizeof(std::uint16_t))> bytes;
  };

  std::array<mmsghdr, kMostInCall> messages_{};
  std::array<iovec, kMostInCall> pieces_;
  std::array<Control, kMostInCall> controls_;
  std::array<std::size_t, kMostInCall> counts_;  // datagrams of each message
  std::size_t size_ = 0;                         // messages
  std::size_t pieceCount_ = 0;
};

// What the system says of joined datagrams on a road that cannot carry them: an interface that
// leaves checksums to us, a tunnel, a path for shorter packets, an older system.
bool MayRefuseJoining(int code) {
  return code == EIO || code == EINVAL || code == EMSGSIZE || code == EOPNOTSUPP ||
         code == ENOPROTOOPT;
}

}  // namespace

DatagramBurst::Outcome DatagramBurst::Send(std::intptr_t socket,
                                           std::span<const OutgoingDatagram> datagrams) {
  Outcome outcome;
  while (outcome.sent < datagrams.size()) {
    Call call(datagrams.subspan(outcome.sent), joins_);
    const int taken = call.Send(static_cast<int>(socket));
    if (taken > 0) {
      outcome.sent += call.DatagramsOf(taken);
    } else if (call.BeginsJoined() && MayRefuseJoining(errno)) {
      joins_ = false;
    } else if (errno != EINTR) {
      outcome.osCode = errno;
      return outcome;
    }
  }
  return outcome;
}

}  // namespace kinetrel
