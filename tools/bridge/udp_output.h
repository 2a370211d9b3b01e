// What the outputs that send datagrams have in common, and the outputs themselves.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "bridge/output.h"
#include "bridge/packet.h"
#include "bridge/udp_sender.h"

namespace kinetrel::bridge {

class UdpOutput : public Output {
 public:
  std::string Open() override { return sender_.Open(); }
  std::string Place() const override { return sender_.Place(); }

 protected:
  UdpOutput(const OutputContext& context, Feed& feed, UdpSender::Describe describe)
      : sender_(context, feed, counts(), describe) {}

  // Sends the packets of one frame, and counts it if the network took one of them.
  void SendFrame(std::span<const Packet> packets);
  void SendFrame(const Packet& packet) { SendFrame(std::span(&packet, 1)); }

  UdpSender& sender() { return sender_; }

 private:
  UdpSender sender_;
};

// The quaternion's azimuth, elevation and roll where the operator chose other axes than the
// protocol's own: as the tracker's angles would be if it stood so.
Angles AnglesIn(const Feed& feed, const Pose& pose);

double Degrees(double radians);  // -180 to 180

// The rows of the table. Each says in output_table.cpp and docs/bridge.md which options it has.
using Feeds = std::vector<Feed*>;
std::unique_ptr<Output> MakeOscPlain(const OutputContext& context, const Feeds& feeds);
std::unique_ptr<Output> MakeOscVrchat(const OutputContext& context, const Feeds& feeds);
std::unique_ptr<Output> MakeOscVmc(const OutputContext& context, const Feeds& feeds);
std::unique_ptr<Output> MakeOscAdm(const OutputContext& context, const Feeds& feeds);
std::unique_ptr<Output> MakeFreeD(const OutputContext& context, const Feeds& feeds);
std::unique_ptr<Output> MakeOpentrack(const OutputContext& context, const Feeds& feeds);
std::unique_ptr<Output> MakePosiStageNet(const OutputContext& context, const Feeds& feeds);
std::unique_ptr<Output> MakeDTrack(const OutputContext& context, const Feeds& feeds);
std::unique_ptr<Output> MakeOpenTrackIo(const OutputContext& context, const Feeds& feeds);

}  // namespace kinetrel::bridge
