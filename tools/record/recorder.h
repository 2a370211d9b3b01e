// Writes what a SlotReader reads into a recording.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "mcap/recording_writer.h"
#include "record/slot_reader.h"

namespace kinetrel::record {

class Recorder {
 public:
  // Makes the file, or empties the one that exists.
  Status Open(const std::filesystem::path& path) { return writer_.Open(path, KINETREL_VERSION); }

  // Returns  the first failure of the disk; what is in the file by then stays readable.
  Status Write(const Item& item);
  Status WriteMarker(std::string_view text);
  Status Flush() { return writer_.Flush(); }
  Status Close() { return writer_.Close(); }

  std::uint64_t records() const { return records_; }
  std::uint64_t bytes() const { return writer_.bytes(); }

 private:
  mcap::RecordingWriter writer_;
  std::uint64_t records_ = 0;
};

}  // namespace kinetrel::record
