// Writes what trackers publish into an MCAP file, in the channels of mcap/recording.h.
//
// Threads  one at a time. Every call may wait for the disk.
#pragma once

#include <kinetrel/stream.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "mcap/mcap_writer.h"
#include "mcap/pose_stamped.h"
#include "mcap/recording.h"

namespace kinetrel::mcap {

class RecordingWriter {
 public:
  // Makes the file, or empties the one that exists.
  //
  // version  of this program; it stands in the metadata.
  Status Open(const std::filesystem::path& path, const std::string& version);

  // A text of the metadata. It is written with the next run, or now.
  void SetText(const std::string& key, std::string text) { metadata_[key] = std::move(text); }
  Status WriteTexts() { return writer_.AddMetadata(kMetadataName, metadata_); }

  // A tracker was found on a slot (from 1). For its times the clocks of this run count from here
  // on. The record of metadata is written again with every run; the last one counts.
  Status WriteRun(int slot, const kinetrel_run& run);

  // own  the device's own pose of a filtered record; null or with the number 0: none.
  Status WriteRecord(int slot, const kinetrel_record& record, const kinetrel_device_pose* own);

  Status WriteJson(const Topic& topic, std::uint64_t utcNs, const std::string& json);
  Status WriteBytes(const Topic& topic, std::uint64_t logNs, std::uint64_t publishNs,
                    std::span<const std::byte> bytes);

  Status Flush() { return writer_.Flush(); }
  Status Close() { return writer_.Close(); }

  // A time of kinetrel_now_ns() by the clocks of the slot's run; now, if it had none.
  std::uint64_t Utc(int slot, std::int64_t timeNs);

  std::uint64_t bytes() const { return writer_.bytes(); }  // in the file

 private:
  struct SlotState {
    kinetrel_run clocks{};                      // the pair turns all times into UTC
    std::map<unsigned, std::uint32_t> buttons;  // of each sensor, as last written
  };

  std::uint16_t ChannelOf(const Topic& topic, const kinetrel_run* run = nullptr);
  Status WritePose(const Topic& topic, const kinetrel_record& record, const double (&position)[3],
                   const float (&orientation)[4], unsigned flags);

  McapWriter writer_;
  std::uint16_t poseSchema_ = 0;
  std::map<std::string, std::uint16_t> channels_;
  std::map<int, SlotState> slots_;
  TextMap metadata_;
  PoseStamped pose_;  // reused
  std::vector<std::byte> bytes_;
};

// The system's clock: nanoseconds since 1970.
std::uint64_t UtcNow();

}  // namespace kinetrel::mcap
