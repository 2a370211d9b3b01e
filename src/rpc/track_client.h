// Calls the procedures of a tracking service on another machine.
//
// One connection, one call at a time. It is kept from call to call; when the service has closed it
// between two calls, the next one makes it anew. After a failure within a call the connection is
// dropped, and for a second no new one is tried: Bind again, or go on calling.
//
// Threads  one at a time.
// Memory   a call on a standing connection allocates nothing; making one does.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "platform/stream_socket.h"
#include "rpc/pdu.h"
#include "rpc/track_procedures.h"

namespace kinetrel::rpc {

// What every operation answers.
enum class CallResult : int {
  Success = 0,
  ReturnedFalse = -1,    // the service answered no
  NetworkError = -1000,  // no answer in time, a fault, a connection that broke, or nonsense
  BindingError = -1001,  // no such host, nobody there, or nobody who serves this
  NotOpen = -1002,       // before a successful Bind
};

class RpcTrackClient {
 public:
  static constexpr Milliseconds kStepTime{1000};  // for connecting and binding, and for each call
  static constexpr Milliseconds kRest{1000};      // after a failure within a call

  explicit RpcTrackClient(std::uint16_t port = kTrackPort) : port_(port) {}

  // Connects to `host`, a name or a numeric address, and asks for the tracking interface. What was
  // bound before is given up.
  CallResult Bind(const std::string& host);
  CallResult Unbind();  // NotOpen when there is nothing to unbind

  // Whatever the steps that follow may take, they end by then. For a caller that makes several in
  // a row and must be back in time.
  void EndBy(const Deadline& end) { end_ = end; }

  // Each leaves its outputs untouched unless it succeeds.
  CallResult GetMapping(const TrackKey& key, std::int32_t& engine, std::int32_t& sensor);
  CallResult GetAttribute(const AttributeArguments& arguments, std::int32_t& value);
  // Angles may be no numbers at all: they are what came.
  CallResult GetAngles(const FloatsArguments& arguments, std::array<float, 3>& angles);

  // The status of the last fault that a service answered with; 0 when none did since Bind.
  std::uint32_t lastFault() const { return lastFault_; }

 private:
  // How one exchange on the connection ended. Unanswered: it broke before anything came back.
  enum class Exchange { Done, Unanswered, Failed };

  Deadline StepEnd() const;
  bool Connect();
  bool BindConnection(const Deadline& end);
  CallResult Call(Procedure procedure, std::span<const std::byte> arguments);
  Exchange Ask(Procedure procedure, std::span<const std::byte> arguments);
  Exchange TakeReply(const Deadline& end);
  bool ReceivePdu(const Deadline& end);
  bool ReceiveUpTo(std::size_t size, const Deadline& end);
  void DropPdu();
  bool AnswersUs() const;
  CallResult Fail();

  const std::uint16_t port_;
  std::string host_;
  bool bound_ = false;
  StreamConnector connector_;
  std::optional<StreamSocket> socket_;
  Deadline end_{kForever};
  Deadline rest_{Milliseconds(0)};
  std::uint32_t callId_ = 0;
  std::uint32_t lastFault_ = 0;

  // What has been received: the message that `header_` describes, as far as it is there.
  PduHeader header_;
  std::size_t received_ = 0;
  std::array<std::byte, kLongestPdu> pdu_;
  Reassembly reply_;
};

}  // namespace kinetrel::rpc
