#include "rpc/server_session.h"

#include <algorithm>

namespace kinetrel::rpc {

ServerSession::ServerSession(TrackProcedures& procedures, std::uint32_t group,
                             std::string_view endpoint)
    : procedures_(procedures), group_(group), endpoint_(endpoint) {}

// ---- Bytes -----------------------------------------------------------------------------------

std::span<std::byte> ServerSession::InputRoom() {
  if (ending_ || !Output().empty()) return {};
  return std::span(input_).subspan(received_);
}

void ServerSession::Received(std::size_t count) {
  if (count == 0) return;
  // The time for a message, with all its fragments, starts at its first byte.
  if (bound_ && received_ == 0 && !request_.InProgress()) due_ = Deadline(kPatience);
  received_ += count;
}

void ServerSession::Sent(std::size_t count) {
  sent_ += count;
  if (!Output().empty()) return;
  output_ = {};
  sent_ = 0;
  due_ = Deadline(kPatience);  // for the message whose first bytes may have arrived
}

void ServerSession::Send(std::span<const std::byte> message) {
  output_ = message;
  sent_ = 0;
  due_ = Deadline(kPatience);
}

bool ServerSession::IsOver() const {
  if (ending_ && Output().empty()) return true;
  const bool owing = !bound_ || received_ > 0 || request_.InProgress() || !Output().empty();
  return owing && due_.Passed();
}

Milliseconds ServerSession::Idle() const {
  return Milliseconds((ClockTicks() - lastAsked_) * 1000 / ClockTicksPerSecond());
}

// ---- Messages --------------------------------------------------------------------------------

bool ServerSession::HasWork() const {
  if (ending_ || !Output().empty() || received_ < kHeaderSize) return false;
  PduHeader header;
  const HeaderFault fault = ReadHeader(std::span(input_).first(received_), header);
  return fault != HeaderFault::None || received_ >= header.length;
}

void ServerSession::Work() {
  if (!HasWork()) return;
  const HeaderFault fault = ReadHeader(std::span(input_).first(received_), header_);
  if (fault != HeaderFault::None) return Refuse(fault);
  lastAsked_ = ClockTicks();
  if (!Act()) ending_ = true;
  const auto beyond = input_.begin() + header_.length;
  received_ -= header_.length;
  std::copy(beyond, beyond + static_cast<std::ptrdiff_t>(received_), input_.begin());
}

void ServerSession::Refuse(HeaderFault fault) {
  ending_ = true;
  const bool told = fault == HeaderFault::Version || fault == HeaderFault::Authentication;
  if (bound_ || header_.type != PduType::Bind || !told) return;
  const bool version = fault == HeaderFault::Version;
  Send(WriteBindNak(outputBuffer_, header_.callId,
                    version ? NakReason::Version : NakReason::Authentication));
}

// False when the connection must be closed.
bool ServerSession::Act() {
  const auto pdu = std::span<const std::byte>(input_).first(header_.length);
  switch (header_.type) {
    case PduType::Bind:
      return !bound_ && Bind(pdu);
    case PduType::AlterContext:
      return bound_ && Alter(pdu);
    case PduType::Request:
      return bound_ && TakeFragment(pdu);
    case PduType::Orphaned:
      request_.Clear();
      return bound_;
    case PduType::Cancel:  // calls complete at once, so none can be cancelled
    case PduType::Auth3:
      return bound_;
    default:
      return false;
  }
}

bool ServerSession::Bind(std::span<const std::byte> pdu) {
  std::optional<BindOffer> offer = ReadBind(header_, pdu);
  if (!offer) {
    Send(WriteBindNak(outputBuffer_, header_.callId, NakReason::LocalLimit));
    return false;
  }
  bound_ = true;
  if (offer->group == 0) offer->group = group_;
  Accept(*offer);
  Send(WriteBindAck(outputBuffer_, PduType::BindAck, header_.callId, *offer, endpoint_));
  return true;
}

bool ServerSession::Alter(std::span<const std::byte> pdu) {
  std::optional<BindOffer> offer = ReadBind(header_, pdu);
  if (!offer) return false;
  if (offer->group == 0) offer->group = group_;
  Accept(*offer);
  Send(WriteBindAck(outputBuffer_, PduType::AlterContextResponse, header_.callId, *offer, {}));
  return true;
}

// Remembers the accepted contexts; refuses a context when the table is full.
void ServerSession::Accept(BindOffer& offer) {
  for (OfferedContext& context : std::span(offer.contexts).first(offer.count)) {
    if (context.result != ContextResult::Accepted || IsAccepted(context.id)) continue;
    if (acceptedCount_ < accepted_.size()) {
      accepted_[acceptedCount_++] = context.id;
    } else {
      context.result = ContextResult::TooMany;
    }
  }
}

bool ServerSession::IsAccepted(std::uint16_t context) const {
  const auto all = std::span(accepted_).first(acceptedCount_);
  return std::find(all.begin(), all.end(), context) != all.end();
}

bool ServerSession::TakeFragment(std::span<const std::byte> pdu) {
  const Reassembly::Outcome outcome = request_.Add(header_, pdu);
  if (outcome != Reassembly::Outcome::Whole) return outcome == Reassembly::Outcome::More;
  if ((request_.first().flags & kNoReplyWanted) == 0) Answer();
  request_.Clear();
  return true;
}

// ---- Procedures ------------------------------------------------------------------------------

void ServerSession::Answer() {
  if (!IsAccepted(request_.context())) return Fault(FaultStatus::UnknownInterface);
  switch (static_cast<Procedure>(request_.procedure())) {
    case Procedure::GetMapping:
      return AnswerMapping();
    case Procedure::GetAttribute:
      return AnswerAttribute();
    case Procedure::GetFloats:
      return AnswerFloats();
    default:
      return Fault(FaultStatus::NoSuchProcedure);
  }
}

void ServerSession::AnswerMapping() {
  const auto key = ReadKey(request_.stub(), request_.first().order);
  if (!key) return Fault(FaultStatus::BadStub);
  std::array<std::byte, kLongestReply> stub;
  OctetWriter out(stub);
  WriteReply(out, procedures_.GetMapping(*key));
  Reply(out.written());
}

void ServerSession::AnswerAttribute() {
  const auto arguments = ReadAttributeArguments(request_.stub(), request_.first().order);
  if (!arguments) return Fault(FaultStatus::BadStub);
  std::array<std::byte, kLongestReply> stub;
  OctetWriter out(stub);
  WriteReply(out, procedures_.GetAttribute(*arguments));
  Reply(out.written());
}

void ServerSession::AnswerFloats() {
  const auto arguments = ReadFloatsArguments(request_.stub(), request_.first().order);
  if (!arguments) return Fault(FaultStatus::BadStub);
  if (arguments->count < 0 || arguments->count > static_cast<int>(kMostFloats)) {
    return Fault(FaultStatus::InvalidBound);
  }
  std::array<float, kMostFloats> buffer{};
  const auto values = std::span(buffer).first(static_cast<std::size_t>(arguments->count));
  const bool known = procedures_.GetFloats(*arguments, values);
  std::array<std::byte, kLongestReply> stub;
  OctetWriter out(stub);
  WriteFloatsReply(out, known, values);
  Reply(out.written());
}

void ServerSession::Reply(std::span<const std::byte> stub) {
  Send(WriteResponse(outputBuffer_, request_.first().callId, request_.context(), stub));
}

void ServerSession::Fault(FaultStatus status) {
  Send(WriteFault(outputBuffer_, request_.first().callId, request_.context(), status));
}

}  // namespace kinetrel::rpc
