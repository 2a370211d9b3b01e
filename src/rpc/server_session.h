// One client of a tracking service, without its socket: bytes in, bytes out.
//
// A session takes nothing in while it has something to send: a client that does not read is done no
// work for, and holds no memory beyond the session's own fixed size.
//
// Threads  one at a time.
// Memory   allocates nothing.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "platform/clock.h"
#include "rpc/binding.h"
#include "rpc/pdu.h"
#include "rpc/track_procedures.h"

namespace kinetrel::rpc {

// What a service serves. Called on the server's thread; none may take long.
class TrackProcedures {
 public:
  virtual ~TrackProcedures() = default;
  virtual MappingReply GetMapping(const TrackKey& key) = 0;
  virtual AttributeReply GetAttribute(const AttributeArguments& arguments) = 0;
  // Fills `values`, as many as the caller wants; false leaves them as they are.
  virtual bool GetFloats(const FloatsArguments& arguments, std::span<float> values) = 0;
};

class ServerSession {
 public:
  static constexpr Milliseconds kPatience{5000};  // for the bind, for a message, for a reply's way

  // group     a number of the connection's own, not 0.
  // endpoint  the server's port as text; lives as long as the session.
  ServerSession(TrackProcedures& procedures, std::uint32_t group, std::string_view endpoint);

  // Where the next bytes received go; empty while there is something to send.
  std::span<std::byte> InputRoom();
  // Says how many were received there.
  void Received(std::size_t count);

  // A whole message, or one that can only be refused, is there, and nothing waits to be sent.
  bool HasWork() const;
  // Acts on one message, if there is work.
  void Work();

  std::span<const std::byte> Output() const { return output_.subspan(sent_); }
  void Sent(std::size_t count);

  // The connection is to be closed: it ended itself and all is sent, or the client is late.
  bool IsOver() const;
  // How long nothing has been asked for.
  Milliseconds Idle() const;

 private:
  bool Act();
  void Refuse(HeaderFault fault);
  bool Bind(std::span<const std::byte> pdu);
  bool Alter(std::span<const std::byte> pdu);
  void Accept(BindOffer& offer);
  bool Accepted(std::uint16_t context) const;
  bool TakeFragment(std::span<const std::byte> pdu);
  void Answer();
  void AnswerMapping();
  void AnswerAttribute();
  void AnswerFloats();
  void Reply(std::span<const std::byte> stub);
  void Fault(FaultStatus status);
  void Send(std::span<const std::byte> message);

  TrackProcedures& procedures_;
  const std::uint32_t group_;
  const std::string_view endpoint_;

  bool bound_ = false;
  bool ending_ = false;  // once all is sent
  Deadline due_{kPatience};
  std::int64_t lastAsked_ = ClockTicks();
  std::array<std::uint16_t, kMostContexts> accepted_{};
  std::size_t acceptedCount_ = 0;

  PduHeader header_;
  std::size_t received_ = 0;
  std::array<std::byte, kLongestPdu> input_;
  Reassembly request_;

  std::array<std::byte, 512> outputBuffer_;
  std::span<const std::byte> output_;
  std::size_t sent_ = 0;
};

}  // namespace kinetrel::rpc
