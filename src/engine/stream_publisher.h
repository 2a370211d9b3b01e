// The record stream's side of a sampling run: takes each record from the device as soon as it is
// decoded, turns it into metres, radians and a quaternion, and writes it into the stream. Keeps
// the stream's state, description and status log.
//
// A mapping's filters work here too, for the stream and for the blocks. The stream shows the pose
// of the first mapping of the sensor that has a filter; the device's own pose lies beside it. A
// sensor that has fallen silent gets records of its filters where one of them bridges gaps.
//
// Without a stream (no shared memory left, another account's object) only the filters work:
// sampling goes on with the blocks.
//
// Threads  the sampling thread; OnEntry any.
// Memory   nothing is allocated after Open.
#pragma once

#include <kinetrel/stream.h>

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <utility>

#include "capture/capture.h"
#include "devices/optional_interfaces.h"
#include "devices/status_log.h"
#include "devices/tracker_device.h"
#include "engine/filter_bank.h"
#include "engine/recovery.h"
#include "engine/start_config.h"
#include "publish/record_stream_writer.h"

namespace kinetrel {

// How the records of a frame are to be understood.
struct RecordContext {
  unsigned components = 0;   // mask of what the device delivers
  unsigned units = 0;        // as TrackerDevice::GetUnits
  float azimuthZero = 0.0F;  // radians

  bool operator==(const RecordContext&) const = default;
};

double MetresOf(unsigned units);  // in a unit of TrackerDevice::GetUnits

// The pose of a sensor's newest record, in the stream's units. The caller sets the numbers, the
// times and the buttons.
//
// index  of the sensor's record in the device; see PackedRecords.
kinetrel_record MakeRecord(TrackerDevice& device, int index, const RecordContext& context);

class StreamPublisher final : public RecordReceiver, private StatusListener {
 public:
  // run  the number of the run of sampling; see FilterBank::Begin.
  StreamPublisher(StatusLog& log, FilterBank& filters, unsigned run)
      : log_(log), filters_(filters), run_(run) {}
  ~StreamPublisher();  // leaves the state "stopped"
  StreamPublisher(const StreamPublisher&) = delete;
  StreamPublisher& operator=(const StreamPublisher&) = delete;

  // Opens the stream of a device number, or announces why it cannot be.
  //
  // device      read by every later operation.
  // deviceType  number of the driver.
  // rate        Hz of each sensor, as the device states it.
  // origin      of the device's sample times, a reading of ClockTicks().
  void Open(int shmDevice, TrackerDevice& device, int deviceType, int rate, std::int64_t origin);

  // From now on `capture` gets the records and what describes them. Call it before Open.
  void CaptureInto(std::shared_ptr<Capture> capture) { capture_ = std::move(capture); }

  // Names sensors in the stream. Without a stream it does nothing.
  void NameSensors(const std::vector<SensorSettings>& sensors);

  // For who gives this run up while it hangs in its device. Null: no stream.
  const std::shared_ptr<RecordStreamWriter>& writer() const { return writer_; }

  // Before each read: what holds for the records of the next frame.
  void BeginFrame(unsigned sensors, const RecordContext& context);
  void SetButtons(ButtonBits::Buttons joystick) { joystick_ = joystick; }

  void OnRecords(unsigned sensors, double sampleTime, int code) override;
  void OnDropped() override;
  bool hasDropped() const { return hasDropped_; }  // a record, since BeginFrame

  void EndGoodFrame();
  // quiet  a device that has nothing to say unless it is moved, so that silence is not a fault.
  void EndFailedFrame(bool quiet);
  void SetTrouble(Recovery::Trouble trouble);  // after a recovery's try

 private:
  void OnEntry(const StatusEntry& entry) override;
  void CountBytes();
  // The sentence is the device's name between both texts.
  void SetState(kinetrel_state state, const char* before, const char* after);
  void FillRecord(kinetrel_record& record, kinetrel_device_pose& devicePose, int sensor,
                  double sampleTime, int code);
  void FilterRecord(kinetrel_record& record, kinetrel_device_pose& devicePose, int index);
  void ShowLag(int sensor, double seconds);
  bool BridgeGaps(std::int64_t timeNs);  // true: a record was published
  kinetrel_record BridgingRecord(int sensor, std::int64_t timeNs, const FilteredPose& pose) const;
  void DescribeDevice(unsigned sensors);
  void FillRun(kinetrel_run& run) const;
  void Publish(std::span<kinetrel_record> records, kinetrel_device_pose* own);
  void CaptureRecords(std::span<kinetrel_record> records, const kinetrel_device_pose* own);

  StatusLog& log_;
  FilterBank& filters_;
  const unsigned run_;
  std::shared_ptr<RecordStreamWriter> writer_;  // null: no stream
  std::shared_ptr<Capture> capture_;            // null: none
  int slot_ = 0;                                // from 1
  TrackerDevice* device_ = nullptr;
  PackedRecords* packed_ = nullptr;
  const ButtonBits* ownButtons_ = nullptr;
  int deviceType_ = 0;
  int rate_ = 0;             // Hz
  std::int64_t origin_ = 0;  // ns
  RecordContext context_;
  unsigned sensors_ = 0;  // mask
  unsigned lagging_ = 0;  // mask of the sensors whose filters were measured to add a lag
  ButtonBits::Buttons joystick_{};
  bool hasDropped_ = false;
  std::uint64_t frame_ = 1;
  std::uint64_t bytesIn_ = 0;
  std::uint64_t bytesOut_ = 0;
  std::int64_t frameTime_ = 0;  // ns; of the first record of this frame, 0: none yet
  std::array<std::int64_t, kinetrel_stream_sensors> told_{};  // ns; newest record, 0: none yet
  std::int64_t lastNews_ = 0;                                 // ns; when a frame last came
  kinetrel_state state_ = kinetrel_state_starting;
};

}  // namespace kinetrel
