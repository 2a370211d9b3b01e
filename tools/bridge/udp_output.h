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

  PacketBatch& packets() { return packets_; }  // the present frame's

  // Sends and clears the packets of one frame, and counts it if the network took one of them.
  void SendFrame() {
    if (SendPackets()) ++counts().frames;
  }
  // Sends packets that do not count as a frame of the tracker.
  void SendAside() { (void)SendPackets(); }

 private:
  bool SendPackets();

  UdpSender sender_;
  PacketBatch packets_;
};

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
