// Poses from a tracker that publishes in a slot.
#include <utility>

#include "bridge_front/stream_source.h"
#include "emulate/pose_feed.h"

namespace kinetrel::emulate {
namespace {

LivePose PoseOf(const kinetrel_record& record) {
  LivePose pose;
  if ((record.flags & kinetrel_position_valid) != 0) {
    pose.position = {record.position[0], record.position[1], record.position[2]};
  }
  if ((record.flags & kinetrel_orientation_valid) != 0) {
    const float* const q = record.orientation;
    pose.orientation = {q[0], q[1], q[2], q[3]};
  }
  if ((record.flags & kinetrel_buttons_valid) != 0) {
    pose.buttons = record.buttons & record.buttons_known;
  }
  return pose;
}

class SlotSource final : public PoseSource {
 public:
  SlotSource(int slot, std::shared_ptr<LiveMotion> motion)
      : source_(slot), motion_(std::move(motion)), news_(Slot() + "waiting for a tracker") {}

  std::uint32_t Next(Milliseconds patience) override {
    const auto [records, stateChanged] = source_.Next(static_cast<int>(patience.count()));
    if (stateChanged) TakeState();
    std::uint32_t stations = 0;
    if (source_.state().Delivers()) {
      for (const kinetrel_record& record : records) {
        stations |= motion_->Put(record.sensor, PoseOf(record), record.publish_ns);
      }
    }
    // Between two looks at the state, and for sensors that only one by one are lost.
    motion_->ForgetSilent(kinetrel_now_ns(), source_.state().run.nominal_rate);
    return stations;
  }

  bool IsKnown() const override { return known_; }
  std::string TakeNews() override { return std::exchange(news_, {}); }

 private:
  std::string Slot() const { return "slot " + std::to_string(source_.state().slot) + ": "; }

  void TakeState() {
    const bridge::SourceState& state = source_.state();
    std::string told;
    if (state.Delivers()) {
      const std::uint32_t sensors = state.run.sensor_mask;
      motion_->SetSensors(sensors);
      known_ = sensors != 0;
      told = motion_->map().Tell(state.run.device_name + std::string(" runs"), sensors);
    } else {
      motion_->ForgetAll();
      told = state.sentence + (known_ ? "; no station has a pose" : "");
    }
    if (told != told_) news_ = Slot() + told;
    told_ = told;
  }

  bridge::StreamSource source_;
  const std::shared_ptr<LiveMotion> motion_;
  bool known_ = false;
  std::string told_;
  std::string news_;
};

}  // namespace

std::unique_ptr<PoseSource> MakeSlotSource(int slot, std::shared_ptr<LiveMotion> motion) {
  return std::make_unique<SlotSource>(slot, std::move(motion));
}

}  // namespace kinetrel::emulate
