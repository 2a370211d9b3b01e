// Calls the procedures of a tracking service on another machine.
//
// The client keeps one connection and makes one call at a time. When the service has closed the
// connection between two calls, the next call connects again. After a failure during a call the
// connection is dropped, and calls do not connect again for one second.
//
// Threads  one at a time.
// Memory   a call on an open connection allocates nothing; connecting does.
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

// The result of every operation.
enum class CallResult : int {
  Success = 0,
  ReturnedFalse = -1,    // the service's procedure returned false
  NetworkError = -1000,  // no or an invalid answer in time, a fault, or a broken connection
  BindingError = -1001,  // unknown host, no connection, or the host does not serve this interface
  NotOpen = -1002,       // no successful Bind yet
};

class RpcTrackClient {
 public:
  static constexpr Milliseconds kStepTime{1000};  // for connecting and binding, and for each call
  static constexpr Milliseconds kRest{1000};      // after a failure within a call

  explicit RpcTrackClient(std::uint16_t port = kTrackPort) : port_(port) {}

  // Connects to `host`, a name or a numeric address, and binds the tracking interface. An earlier
  // binding is given up first.
  CallResult Bind(const std::string& host);
  CallResult Unbind();  // NotOpen when not bound

  // All later operations end by then. For a caller that makes several calls in a bounded time.
  void EndBy(const Deadline& end) { end_ = end; }

  // Each changes its outputs only when it succeeds.
  CallResult GetMapping(const TrackKey& key, std::int32_t& engine, std::int32_t& sensor);
  CallResult GetAttribute(const AttributeArguments& arguments, std::int32_t& value);
  // The angles are not checked; they may be infinite or not a number.
  CallResult GetAngles(const FloatsArguments& arguments, std::array<float, 3>& angles);

  // The status of the last fault since Bind; 0: none.
  std::uint32_t lastFault() const { return lastFault_; }

 private:
  // The end of one exchange. Unanswered: the connection broke before the first byte of the answer.
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

  // The message that is being received; `header_` describes it.
  PduHeader header_;
  std::size_t received_ = 0;
  std::array<std::byte, kLongestPdu> pdu_;
  Reassembly reply_;
};

}  // namespace kinetrel::rpc
