#include "rpc/track_server.h"

#include <algorithm>
#include <utility>

namespace kinetrel::rpc {
namespace {

// The longest delay before a stop or a late client is noticed.
constexpr Milliseconds kStep{100};
// After a failed accept the listener stays ready, so the server pauses instead of spinning.
constexpr Milliseconds kAcceptRest{200};
// The system's buffers for a client; they hold several messages each way.
constexpr int kSystemBuffer = 16384;

}  // namespace

TrackServer::TrackServer(StreamListener listener, TrackProcedures& procedures)
    : listener_(std::move(listener)),
      procedures_(procedures),
      endpoint_(std::to_string(listener_.port())) {
  clients_.reserve(kMostClients);
  waits_.reserve(kMostClients);
}

TrackServer::~TrackServer() { Stop(); }

Status TrackServer::Start() {
  Result<Thread> thread = Thread::Start([this] { Run(); });
  if (thread.Ok()) thread_ = std::move(*thread);
  return thread.status();
}

void TrackServer::Stop() {
  stop_ = true;
  if (thread_) thread_->Wait(kForever);
  thread_.reset();
}

void TrackServer::Run() {
  while (!stop_) {
    const bool clientWaits = Wait();
    moreToDo_ = false;
    for (std::size_t i = 0; i < clients_.size(); ++i) {
      if (!Serve(*clients_[i], waits_[i].ready)) clients_[i] = nullptr;
    }
    std::erase(clients_, nullptr);
    if (clientWaits) AcceptWaiting();
    clientCount_ = clients_.size();
  }
  clients_.clear();
}

bool TrackServer::Wait() {
  waits_.clear();
  for (const auto& client : clients_) {
    waits_.push_back({&client->socket, !client->session.Output().empty(), false});
  }
  const StreamListener* const listener = acceptAgain_.Passed() ? &listener_ : nullptr;
  return WaitForStreams(listener, waits_, moreToDo_ ? Milliseconds(0) : kStep);
}

// ---- Connections -----------------------------------------------------------------------------

void TrackServer::AcceptWaiting() {
  // A limited number per round, so that new clients do not starve the others.
  for (std::size_t i = 0; i < kMostClients && acceptAgain_.Passed(); ++i) {
    Result<StreamSocket> socket = listener_.Accept();
    if (socket.Ok()) {
      Admit(std::move(*socket));
    } else if (socket.status().error == Error::TimedOut) {
      return;
    } else {
      acceptAgain_ = Deadline(kAcceptRest);
    }
  }
}

void TrackServer::Admit(StreamSocket socket) {
  if (clients_.size() >= kMostClients) {
    const auto idlest = std::max_element(
        clients_.begin(), clients_.end(),
        [](const auto& a, const auto& b) { return a->session.Idle() < b->session.Idle(); });
    if ((*idlest)->session.Idle() < kIdleLimit) return;
    clients_.erase(idlest);
  }
  socket.LimitBuffers(kSystemBuffer);
  if (++lastGroup_ == 0) ++lastGroup_;
  clients_.push_back(std::unique_ptr<Client>(
      new Client{std::move(socket), ServerSession(procedures_, lastGroup_, endpoint_)}));
}

// ---- One client ------------------------------------------------------------------------------

// False when the connection has ended.
bool TrackServer::Serve(Client& client, bool ready) {
  if (ready && !TakeInput(client)) return false;
  // One message per round, so that a client that sends many does not delay the others.
  client.session.Work();
  if (!GiveOutput(client) || client.session.IsOver()) return false;
  moreToDo_ |= client.session.HasWork();
  return true;
}

bool TrackServer::TakeInput(Client& client) {
  const std::span<std::byte> room = client.session.InputRoom();
  if (room.empty()) return true;
  const Result<std::size_t> got = client.socket.ReceiveSome(room);
  if (got.Ok()) client.session.Received(*got);
  return got.Ok();
}

bool TrackServer::GiveOutput(Client& client) {
  const std::span<const std::byte> output = client.session.Output();
  if (output.empty()) return true;
  const Result<std::size_t> sent = client.socket.SendSome(output);
  if (sent.Ok()) client.session.Sent(*sent);
  return sent.Ok();
}

}  // namespace kinetrel::rpc
