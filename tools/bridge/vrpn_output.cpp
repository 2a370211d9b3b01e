#include "bridge/vrpn_output.h"

#include <algorithm>
#include <bit>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/udp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <list>
#include <map>
#include <mutex>

#include "bridge/vrpn_client.h"
#include "bridge/vrpn_wire.h"
#include "platform/stream_socket.h"

namespace kinetrel::bridge {
namespace {

using boost::asio::ip::tcp;
using boost::asio::ip::udp;
using Failure = boost::system::error_code;

constexpr std::size_t kMostClients = 256;  // VRPN allows as many
constexpr std::size_t kMostCalls = 16;     // back, between two sweeps
constexpr std::size_t kPosesPerDatagram = 16;
constexpr auto kSweepEvery = std::chrono::milliseconds(250);

std::int64_t UtcNow() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

// The devices of one tracker.
struct Devices {
  std::int32_t tracker = 0;           // id of the sender; with `bodies` of the first one
  std::vector<std::int32_t> buttons;  // ids that carry the tracker's buttons
  bool bodies = false;
  std::uint32_t pressed = 0;
  std::uint32_t known = 0;
};

class VrpnServer final : public Output, public VrpnClient::Server {
 public:
  VrpnServer(const OutputContext& context, const std::vector<Feed*>& feeds);

  std::string Open() override;
  void Publish(const Feed& feed, std::span<const Pose> poses) override;
  void OnState(const Feed& feed, const SourceState& state) override;
  void Close() override;
  std::string Place() const override;

 private:
  std::mutex& Lock() override { return mutex_; }
  void OnRequests(VrpnClient& client, std::span<const VrpnRequest> requests) override;

  std::int32_t AddDevice(Feed& feed, const std::string& name);
  void AddFeed(Feed& feed);
  std::string Bind(const tcp::endpoint& endpoint);
  void Accept();
  void OnAccepted(const Failure& error, tcp::socket socket);
  void ReceiveCalls();
  void CallBack(std::uint16_t port);
  void Sweep();

  void Greet(VrpnClient& client);
  void Answer(VrpnClient& client, std::int32_t device);
  void AppendButtons(const Devices& devices, VrpnMessages& messages) const;
  void AppendPoses(const Devices& devices, std::span<const Pose> poses);
  void AppendChanges(Devices& devices, const Pose& pose);
  bool Broadcast();
  void SendPosesByUdp(const udp::endpoint& to);

  const OutputContext& context_;
  const std::string host_;
  const std::uint16_t port_;

  std::mutex mutex_;                // guards everything below; held by no call that waits
  std::vector<std::string> names_;  // of the senders, by id; constant after the constructor
  std::map<const Feed*, Devices> devices_;
  tcp::acceptor acceptor_;
  udp::socket udp_;
  boost::asio::steady_timer timer_;
  std::list<std::shared_ptr<VrpnClient>> clients_;
  bool closed_ = false;
  bool accepts_ = false;  // an accept waits
  std::array<std::byte, 256> call_{};
  udp::endpoint caller_;
  VrpnMessages poses_;  // of this Publish; kept for their memory
  VrpnMessages others_;
};

// ---- Devices
// -------------------------------------------------------------------------------------

VrpnServer::VrpnServer(const OutputContext& context, const std::vector<Feed*>& feeds)
    : context_(context),
      host_(HostOf(*feeds.front()).empty() ? context.listen : HostOf(*feeds.front())),
      port_(PortOf(*feeds.front())),
      acceptor_(context.io),
      udp_(context.io),
      timer_(context.io) {
  counts().clients = 0;
  for (Feed* const feed : feeds) AddFeed(*feed);
}

std::int32_t VrpnServer::AddDevice(Feed& feed, const std::string& name) {
  if (name.empty() || name.size() > kVrpnLongestName) {
    feed.options.Complain("a device's name has 1 to 99 characters");
  }
  if (std::find(names_.begin(), names_.end(), name) != names_.end()) {
    feed.options.Complain("two devices have the name " + name + "; give option name");
  }
  names_.push_back(name);
  return static_cast<std::int32_t>(names_.size()) - 1;
}

void VrpnServer::AddFeed(Feed& feed) {
  Devices devices;
  const std::string number = std::to_string(feed.slot - 1);
  devices.bodies = feed.options.Flag("bodies", false);
  if (devices.bodies) {
    for (std::size_t place = 0; place < feed.selector.sensors().size(); ++place) {
      const std::int32_t id = AddDevice(feed, feed.selector.NameOf(place));
      if (place == 0) devices.tracker = id;
      devices.buttons.push_back(id);
    }
  } else {
    devices.tracker = AddDevice(feed, feed.options.Text("name", "Tracker" + number));
    devices.buttons.push_back(devices.tracker);
  }
  // Many programs ask for the buttons by a name of their own.
  const std::string buttons = feed.options.Text("buttons", "Button" + number);
  if (std::find(names_.begin(), names_.end(), buttons) == names_.end()) {
    devices.buttons.push_back(AddDevice(feed, buttons));
  }
  devices_.emplace(&feed, std::move(devices));
}

// ---- Sockets that wait
// ---------------------------------------------------------------------------

std::string VrpnServer::Open() {
  if (context_.dryRun) return {};
  Failure error;
  tcp::resolver resolver(context_.io);
  const auto found = resolver.resolve(tcp::v4(), host_, std::to_string(port_), error);
  if (error || found.empty()) return "address " + host_ + " does not resolve: " + error.message();
  std::string failure = Bind(found.begin()->endpoint());
  if (!failure.empty()) return failure;
  const std::lock_guard lock(mutex_);
  Accept();
  ReceiveCalls();
  Sweep();
  return {};
}

std::string VrpnServer::Bind(const tcp::endpoint& endpoint) {
  Failure error;
  const auto failed = [&](const char* what) {
    return std::string(what) + " port " + std::to_string(port_) + " of " + host_ +
           " cannot be opened: " + error.message();
  };
  udp_.open(udp::v4(), error);
  if (!error) udp_.non_blocking(true, error);
  if (!error) udp_.bind({endpoint.address(), endpoint.port()}, error);
  if (error) return failed("UDP");
  acceptor_.open(tcp::v4(), error);
  if (!error) ClaimPort(static_cast<std::intptr_t>(acceptor_.native_handle()));
  if (!error) acceptor_.bind(endpoint, error);
  if (!error) acceptor_.listen(boost::asio::socket_base::max_listen_connections, error);
  if (error) return failed("TCP");
  return {};
}

void VrpnServer::Accept() {
  accepts_ = true;
  acceptor_.async_accept([this](const Failure& error, tcp::socket socket) {
    const std::lock_guard lock(mutex_);
    accepts_ = false;
    if (!closed_) OnAccepted(error, std::move(socket));
  });
}

void VrpnServer::OnAccepted(const Failure& error, tcp::socket socket) {
  // After a failure (no descriptor left, most likely) the next sweep tries again.
  if (error) return;
  if (clients_.size() < kMostClients) {
    clients_.push_back(std::make_shared<VrpnClient>(std::move(socket), *this, names_));
    clients_.back()->Start();
  }
  Accept();
}

void VrpnServer::ReceiveCalls() {
  udp_.async_receive_from(boost::asio::buffer(call_), caller_,
                          [this](const Failure& error, std::size_t count) {
                            const std::lock_guard lock(mutex_);
                            if (closed_) return;
                            if (!error) {
                              CallBack(ParseVrpnCall(std::span(call_).first(count)));
                            }
                            ReceiveCalls();
                          });
}

// A client repeats its datagram every two seconds, so one that is ignored here comes again.
void VrpnServer::CallBack(std::uint16_t port) {
  if (port == 0 || clients_.size() >= kMostClients) return;
  const tcp::endpoint endpoint(caller_.address(), port);
  std::size_t calls = 0;
  for (const auto& client : clients_) {
    if (!client->WasCalled()) continue;
    if (!client->IsClosed() && client->peer() == endpoint) return;
    if (!client->IsGreeted()) ++calls;  // those that failed count until the next sweep
  }
  if (calls >= kMostCalls) return;
  clients_.push_back(std::make_shared<VrpnClient>(tcp::socket(context_.io), *this, names_));
  clients_.back()->Call(endpoint);
}

void VrpnServer::Sweep() {
  const std::int64_t now = kinetrel_now_ns();
  int greeted = 0;
  for (const auto& client : clients_) {
    client->JudgeTime(now);
    if (client->IsGreeted()) ++greeted;
  }
  clients_.remove_if([](const auto& client) { return client->IsClosed(); });
  counts().clients = greeted;
  if (!accepts_) Accept();
  timer_.expires_after(kSweepEvery);
  timer_.async_wait([this](const Failure& error) {
    const std::lock_guard lock(mutex_);
    if (!error && !closed_) Sweep();
  });
}

void VrpnServer::Close() {
  const std::lock_guard lock(mutex_);
  closed_ = true;
  Failure ignored;
  acceptor_.close(ignored);
  udp_.close(ignored);
  timer_.cancel();
  for (const auto& client : clients_) client->Close();
  clients_.clear();
}

std::string VrpnServer::Place() const { return host_ + ":" + std::to_string(port_); }

// ---- What clients ask for
// ------------------------------------------------------------------------

void VrpnServer::OnRequests(VrpnClient& client, std::span<const VrpnRequest> requests) {
  for (const VrpnRequest& request : requests) {
    switch (request.kind) {
      case VrpnRequest::Kind::Greeting:
        Greet(client);
        break;
      case VrpnRequest::Kind::Ping:
        Answer(client, request.device);
        break;
      case VrpnRequest::Kind::Udp:
        // Only to the machine that the connection leads to: else a client could have another
        // one flooded. Poses of any other client go by TCP.
        if (client.WasCalled() && request.address == client.peer().address().to_string()) {
          client.poses = udp::endpoint(client.peer().address(), request.port);
        }
        break;
    }
  }
}

void VrpnServer::Greet(VrpnClient& client) {
  const std::int64_t now = UtcNow();
  VrpnMessages greeting;
  if (!client.WasCalled()) AppendVrpnCookie(greeting.bytes);
  for (std::size_t id = 0; id < names_.size(); ++id) {
    AppendVrpnSender(greeting.bytes, now, static_cast<std::int32_t>(id), names_[id]);
  }
  AppendVrpnTypes(greeting.bytes, now);
  greeting.End(kVrpnKept);
  for (const auto& [feed, devices] : devices_) AppendButtons(devices, greeting);
  client.Send(greeting);
  client.SetGreeted();
}

void VrpnServer::Answer(VrpnClient& client, std::int32_t device) {
  VrpnMessages answer;
  AppendVrpnPong(answer.bytes, UtcNow(), device);
  answer.End(kVrpnPong | static_cast<VrpnKey>(device));
  for (const auto& [feed, devices] : devices_) {
    if (std::find(devices.buttons.begin(), devices.buttons.end(), device) !=
        devices.buttons.end()) {
      AppendButtons(devices, answer);
    }
  }
  client.Send(answer);
}

void VrpnServer::AppendButtons(const Devices& devices, VrpnMessages& messages) const {
  if (devices.known == 0) return;
  std::vector<bool> pressed;
  for (std::uint32_t rest = devices.known, i = 0; rest != 0; rest >>= 1, ++i) {
    pressed.push_back((devices.pressed >> i & 1U) != 0);
  }
  for (const std::int32_t sender : devices.buttons) {
    AppendVrpnButtons(messages.bytes, UtcNow(), sender, pressed);
    messages.End(kVrpnStates | static_cast<VrpnKey>(sender));
  }
}

// ---- Poses
// ---------------------------------------------------------------------------------------

void VrpnServer::Publish(const Feed& feed, std::span<const Pose> poses) {
  const std::lock_guard lock(mutex_);
  Devices& devices = devices_.at(&feed);
  poses_.Clear();
  others_.Clear();
  AppendPoses(devices, poses);
  AppendChanges(devices, poses.back());
  if (Broadcast()) ++counts().frames;
}

void VrpnServer::AppendPoses(const Devices& devices, std::span<const Pose> poses) {
  for (const Pose& pose : poses) {
    if (!pose.Seen()) continue;
    const auto place = static_cast<std::int32_t>(pose.place);
    const std::int32_t sender = devices.tracker + (devices.bodies ? place : 0);
    const unsigned sensor = devices.bodies ? 0 : pose.sensor;
    const Quaternion& q = pose.orientation;
    AppendVrpnPose(poses_.bytes, pose.utcNs, sender, sensor, pose.position, {q.x, q.y, q.z, q.w});
    poses_.End(static_cast<VrpnKey>(sender) * kinetrel_stream_sensors + sensor);
  }
}

void VrpnServer::AppendChanges(Devices& devices, const Pose& pose) {
  if (pose.buttonsKnown == 0) return;
  const bool isFirst = devices.known != pose.buttonsKnown;
  const std::uint32_t changed = devices.pressed ^ pose.buttons;
  devices.known = pose.buttonsKnown;
  devices.pressed = pose.buttons;
  if (isFirst) {
    AppendButtons(devices, others_);
    return;
  }
  for (unsigned button = 0; button < 32; ++button) {
    if ((changed >> button & 1U) == 0) continue;
    for (const std::int32_t sender : devices.buttons) {
      AppendVrpnButton(others_.bytes, pose.utcNs, sender, button,
                       (pose.buttons >> button & 1U) != 0);
      others_.End(kVrpnKept);
    }
  }
}

// True if at least one client was sent something, or it was printed.
bool VrpnServer::Broadcast() {
  if (poses_.bytes.empty() && others_.bytes.empty()) return false;
  if (context_.dryRun) {
    if (!poses_.bytes.empty()) context_.print(DescribeVrpn(poses_.bytes));
    if (!others_.bytes.empty()) context_.print(DescribeVrpn(others_.bytes));
    return true;
  }
  bool sent = false;
  for (const auto& client : clients_) {
    if (!client->IsGreeted()) continue;
    if (client->poses) {
      SendPosesByUdp(*client->poses);
    } else {
      counts().dropped += client->Send(poses_);
    }
    counts().dropped += client->Send(others_);
    sent = true;
  }
  return sent;
}

void VrpnServer::SendPosesByUdp(const udp::endpoint& to) {
  for (std::size_t first = 0; first < poses_.marks.size(); first += kPosesPerDatagram) {
    const std::size_t last = std::min(first + kPosesPerDatagram, poses_.marks.size());
    const std::size_t begin = first == 0 ? 0 : poses_.marks[first - 1].end;
    const std::size_t size = poses_.marks[last - 1].end - begin;
    Failure error;
    udp_.send_to(boost::asio::buffer(poses_.bytes.data() + begin, size), to, 0, error);
    if (error) counts().dropped += last - first;
  }
}

// Clients print a warning on their console.
void VrpnServer::OnState(const Feed& feed, const SourceState& state) {
  const std::lock_guard lock(mutex_);
  const Devices& devices = devices_.at(&feed);
  poses_.Clear();
  others_.Clear();
  const VrpnSeverity severity = state.Delivers() ? VrpnSeverity::Normal : VrpnSeverity::Warning;
  const std::string text =
      std::string("tracker ") + kinetrel_state_text(state.state) + ": " + state.sentence;
  AppendVrpnText(others_.bytes, UtcNow(), devices.tracker, severity, text);
  others_.End(kVrpnKept);
  if (!context_.dryRun) Broadcast();
}

}  // namespace

std::unique_ptr<Output> MakeVrpnOutput(const OutputContext& context,
                                       const std::vector<Feed*>& feeds) {
  return std::make_unique<VrpnServer>(context, feeds);
}

}  // namespace kinetrel::bridge
