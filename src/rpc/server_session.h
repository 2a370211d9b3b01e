// One client of a tracking service, without its socket: bytes in, bytes out.
//
// A session accepts no input while it has output to send. A client that does not read its replies
// thus causes no work, and uses no memory beyond the session's fixed size.
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

// The procedures of a service. They run on the server's thread and must return quickly.
class TrackProcedures {
 public:
  virtual ~TrackProcedures() = default;
  virtual MappingReply GetMapping(const TrackKey& key) = 0;
  virtual AttributeReply GetAttribute(const AttributeArguments& arguments) = 0;
  // Fills all of `values`; returns false and leaves them unchanged on failure.
  virtual bool GetFloats(const FloatsArguments& arguments, std::span<float> values) = 0;
};

class ServerSession {
 public:
  static constexpr Milliseconds kPatience{
      5000};  // for the bind, a message, and the sending of a reply

  // group     a number that identifies the connection, not 0.
  // endpoint  the server's port as text; must live as long as the session.
  ServerSession(TrackProcedures& procedures, std::uint32_t group, std::string_view endpoint);

  // Where the caller stores the next bytes received; empty while output waits to be sent.
  std::span<std::byte> InputRoom();
  // Tells how many bytes the caller stored there.
  void Received(std::size_t count);

  // True when no output waits, and a whole message or one to be refused has arrived.
  bool HasWork() const;
  // Handles one message, if there is one.
  void Work();

  std::span<const std::byte> Output() const { return output_.subspan(sent_); }
  void Sent(std::size_t count);

  // True when the connection must be closed: it has ended and all is sent, or the client is late.
  bool IsOver() const;
  // The time since the last message of the client.
  Milliseconds Idle() const;

 private:
  bool Act();
  void Refuse(HeaderFault fault);
  bool Bind(std::span<const std::byte> pdu);
  bool Alter(std::span<const std::byte> pdu);
  void Accept(BindOffer& offer);
  bool IsAccepted(std::uint16_t context) const;
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
  bool ending_ = false;  // closes when all is sent
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
