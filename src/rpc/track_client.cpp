#include "rpc/track_client.h"

#include <algorithm>

#include "rpc/binding.h"

namespace kinetrel::rpc {
namespace {

constexpr std::uint32_t kBindCallId = 1;
// Some services answer every call with this id.
constexpr std::uint32_t kAnyCallId = 1;
constexpr std::size_t kLongestRequest = kStubOffset + kLongestArguments;
constexpr std::size_t kBindSize = 72;

}  // namespace

// ---- Binding ---------------------------------------------------------------------------------

CallResult RpcTrackClient::Bind(const std::string& host) {
  Unbind();
  host_ = host;
  lastFault_ = 0;
  bound_ = !host.empty() && port_ != 0 && Connect();
  return bound_ ? CallResult::Success : CallResult::BindingError;
}

CallResult RpcTrackClient::Unbind() {
  socket_.reset();
  rest_ = Deadline(Milliseconds(0));
  if (!bound_) return CallResult::NotOpen;
  bound_ = false;
  return CallResult::Success;
}

Deadline RpcTrackClient::StepEnd() const { return Deadline(std::min(kStepTime, end_.Remaining())); }

bool RpcTrackClient::Connect() {
  const Deadline end = StepEnd();
  Result<StreamSocket> socket = connector_.Connect(host_, port_, end);
  if (!socket.Ok()) return false;
  socket_ = std::move(*socket);
  if (BindConnection(end)) return true;
  socket_.reset();
  return false;
}

bool RpcTrackClient::BindConnection(const Deadline& end) {
  std::array<std::byte, kBindSize> bind;
  callId_ = kBindCallId;
  if (!socket_->Send(WriteBind(bind, callId_), end).Ok()) return false;
  received_ = 0;
  return ReceivePdu(end) && AnswersUs() && received_ == header_.length &&
         ReadBindReply(header_, std::span(pdu_).first(received_)) == BindOutcome::Accepted;
}

// ---- Calls -----------------------------------------------------------------------------------

CallResult RpcTrackClient::GetMapping(const TrackKey& key, std::int32_t& engine,
                                      std::int32_t& sensor) {
  std::array<std::byte, kLongestArguments> arguments;
  OctetWriter out(arguments);
  WriteKey(out, key);
  const CallResult result = Call(Procedure::GetMapping, out.written());
  if (result != CallResult::Success) return result;
  const auto reply = ReadMappingReply(reply_.stub(), reply_.first().order);
  if (!reply) return Fail();
  if (!reply->found) return CallResult::ReturnedFalse;
  engine = reply->engine;
  sensor = reply->sensor;
  return CallResult::Success;
}

CallResult RpcTrackClient::GetAttribute(const AttributeArguments& arguments, std::int32_t& value) {
  std::array<std::byte, kLongestArguments> stub;
  OctetWriter out(stub);
  WriteArguments(out, arguments);
  const CallResult result = Call(Procedure::GetAttribute, out.written());
  if (result != CallResult::Success) return result;
  const auto reply = ReadAttributeReply(reply_.stub(), reply_.first().order);
  if (!reply) return Fail();
  if (!reply->known) return CallResult::ReturnedFalse;
  value = reply->value;
  return CallResult::Success;
}

CallResult RpcTrackClient::GetAngles(const FloatsArguments& arguments,
                                     std::array<float, 3>& angles) {
  std::array<std::byte, kLongestArguments> stub;
  OctetWriter out(stub);
  WriteArguments(out, arguments);
  const CallResult result = Call(Procedure::GetFloats, out.written());
  if (result != CallResult::Success) return result;
  const auto reply = ReadAnglesReply(reply_.stub(), reply_.first().order);
  if (!reply) return Fail();
  if (!reply->known) return CallResult::ReturnedFalse;
  angles = reply->values;
  return CallResult::Success;
}

// Success: a whole reply is in `reply_`.
CallResult RpcTrackClient::Call(Procedure procedure, std::span<const std::byte> arguments) {
  if (!bound_) return CallResult::NotOpen;
  if (!socket_ && !rest_.Passed()) return CallResult::NetworkError;
  // The service sent something unexpected or closed the connection.
  if (socket_ && !socket_->IsQuiet()) socket_.reset();
  const bool reused = socket_.has_value();
  if (!reused && !Connect()) return Fail();
  Exchange exchange = Ask(procedure, arguments);
  // The service may have closed the idle connection just before the call: try once more.
  if (exchange == Exchange::Unanswered && reused && Connect()) exchange = Ask(procedure, arguments);
  return exchange == Exchange::Done ? CallResult::Success : Fail();
}

CallResult RpcTrackClient::Fail() {
  socket_.reset();
  rest_ = Deadline(kRest);
  return CallResult::NetworkError;
}

RpcTrackClient::Exchange RpcTrackClient::Ask(Procedure procedure,
                                             std::span<const std::byte> arguments) {
  const Deadline end = StepEnd();
  // Ids must grow. After the largest they start again behind the bind's id.
  callId_ = std::max(callId_ + 1, kBindCallId + 1);
  std::array<std::byte, kLongestRequest> request;
  const auto bytes =
      WriteRequest(request, callId_, static_cast<std::uint16_t>(procedure), arguments);
  received_ = 0;
  const Status sent = socket_->Send(bytes, end);
  if (sent.Ok()) return TakeReply(end);
  return sent.error == Error::Closed ? Exchange::Unanswered : Exchange::Failed;
}

RpcTrackClient::Exchange RpcTrackClient::TakeReply(const Deadline& end) {
  reply_.Clear();
  for (;;) {
    if (!ReceivePdu(end)) {
      const bool nothing = received_ == 0 && !reply_.InProgress() && !end.Passed();
      return nothing ? Exchange::Unanswered : Exchange::Failed;
    }
    const auto pdu = std::span(pdu_).first(header_.length);
    if (header_.type == PduType::Fault) lastFault_ = ReadFault(pdu, header_.order).value_or(0);
    if (header_.type != PduType::Response || !AnswersUs()) return Exchange::Failed;
    const Reassembly::Outcome outcome = reply_.Add(header_, pdu);
    if (outcome == Reassembly::Outcome::Refused) return Exchange::Failed;
    DropPdu();
    if (outcome == Reassembly::Outcome::More) continue;
    // The reply is complete; bytes behind it are unexpected.
    if (received_ > 0) socket_.reset();
    return Exchange::Done;
  }
}

// Bytes behind the message begin the next one.
void RpcTrackClient::DropPdu() {
  const auto beyond = pdu_.begin() + header_.length;
  received_ -= header_.length;
  std::copy(beyond, beyond + static_cast<std::ptrdiff_t>(received_), pdu_.begin());
}

bool RpcTrackClient::AnswersUs() const {
  return header_.callId == callId_ || header_.callId == kAnyCallId;
}

// Receives until a whole message has arrived. More bytes may have arrived behind it.
bool RpcTrackClient::ReceivePdu(const Deadline& end) {
  if (!ReceiveUpTo(kHeaderSize, end)) return false;
  if (ReadHeader(std::span(pdu_).first(kHeaderSize), header_) != HeaderFault::None) return false;
  return ReceiveUpTo(header_.length, end);
}

bool RpcTrackClient::ReceiveUpTo(std::size_t size, const Deadline& end) {
  while (received_ < size) {
    const Result<std::size_t> got = socket_->Receive(std::span(pdu_).subspan(received_), end);
    if (!got.Ok()) return false;
    received_ += *got;
    // A peer that sends byte by byte must not hold us past the end.
    if (received_ < size && end.Passed()) return false;
  }
  return true;
}

}  // namespace kinetrel::rpc
