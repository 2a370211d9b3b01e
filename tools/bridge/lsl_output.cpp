#include "bridge/lsl_output.h"

#include <algorithm>
#include <array>
#include <boost/asio/ip/host_name.hpp>
#include <limits>

#include "bridge/frame_gatherer.h"
#include "bridge/lsl_library.h"
#include "bridge/text.h"
#include "program/program.h"

namespace kinetrel::bridge {
namespace {

constexpr std::size_t kChannels = 8;  // of a sensor
constexpr int kBufferedSeconds = 60;  // for each inlet; of a stream without a rate, 6000 samples

struct Channel {
  const char* label;  // after "s<N>_"
  const char* type;   // of the recommendations; A of the orientation is the scalar
  const char* unit;   // null: that of the positions
};

constexpr std::array<Channel, kChannels> kLayout = {{{"x", "PositionX", nullptr},
                                                     {"y", "PositionY", nullptr},
                                                     {"z", "PositionZ", nullptr},
                                                     {"qw", "OrientationA", "quaternion"},
                                                     {"qx", "OrientationB", "quaternion"},
                                                     {"qy", "OrientationC", "quaternion"},
                                                     {"qz", "OrientationD", "quaternion"},
                                                     {"c", "Confidence", "normalized"}}};

std::string UnitOf(double scale) {
  if (scale == 1) return "meters";
  if (scale == 100) return "centimeters";
  if (scale == 1000) return "millimeters";
  return "meters / " + Fixed(scale, 6);
}

// An outlet that ends with the object.
class Outlet {
 public:
  Outlet(const LslCalls& calls, LslInfo* info)
      : calls_(calls), outlet_(calls.createOutlet(info, 0, kBufferedSeconds)) {}
  ~Outlet() {
    if (outlet_ != nullptr) calls_.destroyOutlet(outlet_);
  }
  Outlet(const Outlet&) = delete;
  Outlet& operator=(const Outlet&) = delete;

  LslOutlet* get() const { return outlet_; }
  bool HasClients() const { return calls_.haveConsumers(outlet_) != 0; }

 private:
  const LslCalls& calls_;
  LslOutlet* outlet_;
};

class LslOutput final : public Output {
 public:
  LslOutput(const OutputContext& context, Feed& feed)
      : context_(context),
        feed_(feed),
        axes_(feed.options.Text("axes", "tracker")),
        rate_(feed.options.Number("rate", 0, 0, 10'000)),
        name_(feed.options.Text("stream", "Kinetrel-" + std::to_string(feed.slot))),
        gatherer_(feed, [this](std::span<const Pose> poses) { Push(poses); }) {}

  std::string Open() override {
    if (context_.dryRun) return {};
    std::string complaint;
    calls_ = LoadLsl(complaint);
    if (calls_ != nullptr) clock_.emplace(*calls_);
    return complaint;
  }

  void Publish(const Feed&, std::span<const Pose> poses) override {
    gatherer_.Add(poses);
    PushButtons(poses.back());  // each record has the buttons of the tracker
  }

  // What a stream holds is fixed when its outlet is made: other sensors or another device get a new
  // one.
  void OnState(const Feed&, const SourceState& state) override {
    gatherer_.SetState(state);
    if (!state.Delivers()) PushLoss();
    if (!state.present) return;
    std::vector<unsigned> sensors;
    for (const unsigned sensor : feed_.selector.sensors()) {
      if ((state.run.sensor_mask >> sensor & 1U) != 0) sensors.push_back(sensor);
    }
    const std::string device = Printable(state.run.device_name);
    if (sensors.empty() || (sensors == sensors_ && device == device_)) return;
    sensors_ = sensors;
    device_ = device;
    values_.resize(sensors_.size() * kChannels);
    if (calls_ != nullptr) MakeOutlet();
  }

  void Tick(const Feed&, std::int64_t nowNs) override {
    gatherer_.Tick(nowNs);
    if (outlet_) counts().clients = outlet_->HasClients() ? 1 : 0;
  }

  std::string Place() const override { return name_; }

 private:
  std::string SourceId() const {
    boost::system::error_code error;
    return "kinetrel-" + boost::asio::ip::host_name(error) + "-" + std::to_string(feed_.slot);
  }

  // ---- Making a stream ----

  void MakeOutlet() {
    outlet_.reset();
    buttons_.reset();
    const auto channels = static_cast<std::int32_t>(values_.size());
    LslInfo* const info = calls_->createInfo(name_.c_str(), "MoCap", channels, rate_,
                                             LslFormat::Float32, SourceId().c_str());
    if (info != nullptr) {
      Describe(calls_->description(info));
      outlet_ = std::make_unique<Outlet>(*calls_, info);
      calls_->destroyInfo(info);
    }
    if (!outlet_ || outlet_->get() == nullptr) Refused(outlet_);
  }

  void MakeButtonOutlet() {
    LslInfo* const info = calls_->createInfo((name_ + "-buttons").c_str(), "Markers", 1, 0,
                                             LslFormat::Text, (SourceId() + "-buttons").c_str());
    if (info != nullptr) {
      buttons_ = std::make_unique<Outlet>(*calls_, info);
      calls_->destroyInfo(info);
    }
    if (!buttons_ || buttons_->get() == nullptr) Refused(buttons_);
  }

  void Refused(std::unique_ptr<Outlet>& outlet) {
    outlet.reset();
    const std::string trouble = "liblsl refuses to make the stream " + name_;
    if (counts().Report(trouble)) context_.say(trouble);
  }

  void Describe(LslXml* description) const {
    LslXml* const channels = calls_->appendChild(description, "channels");
    const std::string unit = UnitOf(feed_.selector.axes().scale);
    for (const unsigned sensor : sensors_) {
      for (const Channel& row : kLayout) {
        LslXml* const channel = calls_->appendChild(channels, "channel");
        const std::string label = "s" + std::to_string(sensor + 1) + "_" + row.label;
        calls_->appendValue(channel, "label", label.c_str());
        calls_->appendValue(channel, "object", ObjectName(sensor).c_str());
        calls_->appendValue(channel, "type", row.type);
        calls_->appendValue(channel, "unit", row.unit != nullptr ? row.unit : unit.c_str());
      }
    }
    LslXml* const acquisition = calls_->appendChild(description, "acquisition");
    calls_->appendValue(acquisition, "model", device_.c_str());
    calls_->appendValue(acquisition, "compensated_lag", "0");
    LslXml* const setup = calls_->appendChild(description, "setup");
    const AxesPreset* const preset = FindAxesPreset(axes_);
    // The unit is said with each channel.
    const std::string words = preset != nullptr
                                  ? std::string(preset->words.substr(0, preset->words.find(';')))
                                  : axes_ + " of x forward, y right, z down";
    calls_->appendValue(setup, "axes", words.c_str());
  }

  std::string ObjectName(unsigned sensor) const {
    const auto sensors = feed_.selector.sensors();
    const auto place = std::find(sensors.begin(), sensors.end(), sensor) - sensors.begin();
    return feed_.selector.NameOf(static_cast<std::size_t>(place));
  }

  // ---- Sending ----

  void Push(std::span<const Pose> poses) {
    ClearValues();
    for (const Pose& pose : poses) Fill(pose);
    delivered_ = PushValues(poses[0].sampleNs) || delivered_;
  }

  // A tracker that delivers nothing: one sample in which no sensor is seen.
  void PushLoss() {
    if (!delivered_) return;
    delivered_ = false;
    ClearValues();
    PushValues(kinetrel_now_ns());
  }

  // True if liblsl took the sample, or it was printed.
  bool PushValues(std::int64_t sampleNs) {
    if (context_.dryRun) {
      Show();
    } else if (!outlet_ ||
               calls_->pushFloats(outlet_->get(), values_.data(), NextStamp(sampleNs), 1) != 0) {
      ++counts().dropped;
      return false;
    }
    ++counts().frames;
    return true;
  }

  void ClearValues() {
    std::fill(values_.begin(), values_.end(), std::numeric_limits<float>::quiet_NaN());
    for (std::size_t i = kChannels - 1; i < values_.size(); i += kChannels) values_[i] = 0;
  }

  void Fill(const Pose& pose) {
    const auto found = std::find(sensors_.begin(), sensors_.end(), pose.sensor);
    if (found == sensors_.end() || !pose.Seen()) return;
    const auto at = static_cast<std::size_t>(found - sensors_.begin()) * kChannels;
    const Quaternion& q = pose.orientation;
    const std::array<double, 7> numbers = {
        pose.position[0], pose.position[1], pose.position[2], q.w, q.x, q.y, q.z};
    for (std::size_t i = pose.hasPosition ? 0 : 3; i < (pose.hasOrientation ? 7U : 3U); ++i) {
      values_[at + i] = static_cast<float>(numbers[i]);
    }
    values_[at + 7] = 1;
  }

  // Stamps must not run backwards.
  double NextStamp(std::int64_t sampleNs) {
    stamp_ = std::max(stamp_, clock_->StampOf(sampleNs, kinetrel_now_ns()));
    return stamp_;
  }

  void PushButtons(const Pose& pose) {
    if (pose.buttonsKnown == 0) return;
    const std::uint32_t changed = (buttonsDown_ ^ pose.buttons) & pose.buttonsKnown;
    buttonsDown_ ^= changed;
    if (calls_ != nullptr && !buttons_ && outlet_) MakeButtonOutlet();
    for (unsigned i = 0; i < 32; ++i) {
      if ((changed >> i & 1U) == 0) continue;
      const std::string text =
          "button " + std::to_string(i + 1) + ((buttonsDown_ >> i & 1U) != 0 ? " down" : " up");
      if (context_.dryRun) context_.print(name_ + "-buttons: " + text);
      if (!buttons_) continue;
      const char* marker = text.c_str();
      calls_->pushTexts(buttons_->get(), &marker, clock_->StampOf(pose.sampleNs, kinetrel_now_ns()),
                        1);
    }
  }

  void Show() const {
    std::string text = name_ + ":";
    for (const float value : values_) text.append(" ").append(Fixed(value, 6));
    context_.print(text);
  }

  const OutputContext& context_;
  const Feed& feed_;
  const std::string axes_;  // as the operator named them
  const double rate_;       // Hz; 0: irregular
  const std::string name_;
  FrameGatherer gatherer_;
  const LslCalls* calls_ = nullptr;  // null: dry run
  std::optional<LslClock> clock_;
  std::vector<unsigned> sensors_;  // in the stream, from 0
  std::string device_;
  std::vector<float> values_;
  double stamp_ = 0;  // s, of the last sample
  std::unique_ptr<Outlet> outlet_;
  std::unique_ptr<Outlet> buttons_;
  std::uint32_t buttonsDown_ = 0;  // bit i: button i
  bool delivered_ = false;         // since the last loss
};

}  // namespace

std::unique_ptr<Output> MakeLsl(const OutputContext& context, const std::vector<Feed*>& feeds) {
  return std::make_unique<LslOutput>(context, *feeds.front());
}

}  // namespace kinetrel::bridge
