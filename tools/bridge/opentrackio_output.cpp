#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <random>
#include <vector>

#include "bridge/opentrackio.h"
#include "bridge/text.h"
#include "bridge/udp_output.h"

namespace kinetrel::bridge {
namespace {

constexpr int kSources = 200;
constexpr std::int64_t kStaticEveryNs = 2'000'000'000;

// Source numbers: the sensor's own, or counted from option source=N in the order of the chosen
// sensors. Without a host, each source has the multicast group of its number. Option encoding: json
// or cbor.
class OpenTrackIoOutput final : public UdpOutput {
 public:
  OpenTrackIoOutput(const OutputContext& context, Feed& feed)
      : UdpOutput(context, feed, DescribeOpenTrackIo),
        first_(feed.options.Integer("source", -1, 1, kSources)),
        encoding_(feed.options.Choice("encoding", 0, {"json", "cbor"}) == 0
                      ? OpenTrackIoEncoding::Json
                      : OpenTrackIoEncoding::Cbor),
        ownGroups_(feed.options.spec().host.empty()),
        random_(std::random_device{}()) {
    RefuseNumbersPast(feed, "source", first_, kSources);
  }

  void Publish(const Feed& feed, std::span<const Pose> poses) override {
    bool sent = false;
    for (const Pose& pose : poses) {
      const unsigned source =
          first_ < 0 ? pose.sensor + 1 : static_cast<unsigned>(first_) + pose.place;
      if (source > kSources) continue;
      const Packet packet = EncodeOpenTrackIo(SampleOf(feed, pose, source), encoding_);
      sent = (ownGroups_ ? sender().SendToGroup(packet, source) : sender().Send(packet)) || sent;
      last_[pose.sensor] = pose;
    }
    if (sent) ++counts().frames;
  }

  // A tracker that delivers nothing: one sample with the status "lost" for each source.
  void OnState(const Feed& feed, const SourceState& state) override {
    model_ = Printable(state.run.device_name);
    rate_ = state.run.nominal_rate;
    if (state.Delivers()) return;
    std::vector<Pose> lost;
    for (std::optional<Pose>& pose : last_) {
      if (!pose) continue;
      pose->hasPosition = pose->hasOrientation = false;
      const std::int64_t now = kinetrel_now_ns();
      pose->utcNs += now - pose->sampleNs;
      pose->sampleNs = now;
      lost.push_back(*pose);
    }
    Publish(feed, lost);
    last_.fill({});
  }

 private:
  struct Source {
    std::string id;
    std::uint32_t sequence = 0;
    std::int64_t nextStaticNs = 0;
  };

  OpenTrackIoSample SampleOf(const Feed& feed, const Pose& pose, unsigned number) {
    const Angles angles = AnglesIn(feed, pose);
    Source& source = sources_[pose.sensor];
    if (source.id.empty()) source.id = NewId();
    OpenTrackIoSample sample;
    sample.sampleId = NewId();
    sample.sourceId = source.id;
    sample.sourceNumber = number;
    sample.seen = pose.Seen();
    sample.rate = rate_;
    sample.utcNs = pose.utcNs;
    sample.sequence = source.sequence++;
    sample.position = pose.position;
    sample.pan = -Degrees(angles.azimuth);
    sample.tilt = Degrees(angles.elevation);
    sample.roll = Degrees(angles.roll);
    if (pose.sampleNs >= source.nextStaticNs && !model_.empty()) {
      source.nextStaticNs = pose.sampleNs + kStaticEveryNs;
      sample.make = "Kinetrel";
      sample.model = model_;
    }
    return sample;
  }

  std::string NewId() { return "urn:uuid:" + boost::uuids::to_string(makeId_()); }

  const int first_;  // source of the first chosen sensor; -1: not given
  const OpenTrackIoEncoding encoding_;
  const bool ownGroups_;
  std::mt19937_64 random_;
  boost::uuids::basic_random_generator<std::mt19937_64> makeId_{random_};
  std::array<Source, kinetrel_stream_sensors> sources_;
  std::array<std::optional<Pose>, kinetrel_stream_sensors> last_;  // since the tracker delivers
  std::string model_;
  double rate_ = 0;  // Hz; 0: not known
};

}  // namespace

std::unique_ptr<Output> MakeOpenTrackIo(const OutputContext& context, const Feeds& feeds) {
  return std::make_unique<OpenTrackIoOutput>(context, *feeds.front());
}

}  // namespace kinetrel::bridge
