#include <algorithm>
#include <array>
#include <boost/uuid/random_generator.hpp>
#include <random>
#include <vector>

#include "bridge/opentrackio.h"
#include "bridge/text.h"
#include "bridge/udp_output.h"
#include "program/program.h"

namespace kinetrel::bridge {
namespace {

constexpr int kSources = 200;
constexpr std::int64_t kStaticEveryNs = 2'000'000'000;
constexpr std::size_t kUsualSize = 576;  // hardly any packet is longer

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
        ownGroups_(feed.options.address().host.empty()),
        random_(std::random_device{}()) {
    RefuseNumbersPast(feed, "source", first_, kSources);
  }

  void Publish(const Feed&, std::span<const Pose> poses) override {
    for (const Pose& pose : poses) {
      const unsigned source =
          first_ < 0 ? pose.sensor + 1 : static_cast<unsigned>(first_) + pose.place;
      if (source > kSources) continue;
      if (ownGroups_) {
        EncodeOpenTrackIo(packets().writer(), SampleOf(pose, source), encoding_);
        packets().End(static_cast<std::uint8_t>(source));
      } else {
        EncodeOpenTrackIo(packets().writer(), SampleOf(pose, source), encoding_, kUsualSize);
        packets().End();
      }
      last_[pose.sensor] = pose;
    }
    SendFrame();
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
  using Id = std::array<char, 45>;  // "urn:uuid:" and a UUID

  struct Source {
    std::optional<Id> id;
    std::uint32_t sequence = 0;
    std::int64_t nextStaticNs = 0;
  };

  // Good until the next call.
  OpenTrackIoSample SampleOf(const Pose& pose, unsigned number) {
    const Angles& angles = pose.angles;
    Source& source = sources_[pose.sensor];
    if (!source.id) source.id = NewId();
    sampleId_ = NewId();
    OpenTrackIoSample sample;
    sample.sampleId = {sampleId_.data(), sampleId_.size()};
    sample.sourceId = {source.id->data(), source.id->size()};
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

  Id NewId() {
    constexpr std::string_view kScheme = "urn:uuid:";
    constexpr std::string_view kDigits = "0123456789abcdef";
    const boost::uuids::uuid number = makeId_();
    Id id;
    auto end = std::copy(kScheme.begin(), kScheme.end(), id.begin());
    for (std::size_t i = 0; i < number.size(); ++i) {
      if (i >= 4 && i <= 10 && i % 2 == 0) *end++ = '-';
      *end++ = kDigits[number.data[i] >> 4];
      *end++ = kDigits[number.data[i] & 0xF];
    }
    return id;
  }

  const int first_;  // source of the first chosen sensor; -1: not given
  const OpenTrackIoEncoding encoding_;
  const bool ownGroups_;
  std::mt19937_64 random_;
  boost::uuids::basic_random_generator<std::mt19937_64> makeId_{random_};
  Id sampleId_{};
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
