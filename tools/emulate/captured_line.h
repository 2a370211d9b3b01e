// A capture of kinetrel, read as what passed over the tracker's line.
//
// It is read step by step, so a file of any size needs the memory of one chunk.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "emulate/time_and_chance.h"
#include "mcap/mcap_reader.h"
#include "mcap/recording.h"

namespace kinetrel::emulate {

struct LineStep {
  mcap::TopicKind kind = mcap::TopicKind::Other;  // one of those of a line, or CaptureLost
  Moment time{0};                                 // since the first step of the capture
  std::vector<std::byte> bytes;                   // received or sent
  std::uint64_t number = 0;                       // of LineSettings the rate, of CaptureLost pieces
};

class CapturedLine {
 public:
  // Returns  empty, or a sentence for the user, also for a file without bytes of a line.
  std::string Open(const std::filesystem::path& path);

  // Empty: the end of the capture. The host's last bytes, to which no answer came, are left out.
  std::optional<LineStep> Next();
  void Rewind() { reader_->Seek(0); }

  // Goes on after the first question at `from` or later that begins with `asked`, or with which
  // `asked` begins. Looks at a bounded number of steps. When no such question follows, returns an
  // empty value and stays where it was.
  std::optional<LineStep> Find(std::span<const std::byte> asked, Moment from);

  // The options of the captured run as a configuration file, without port, slot and capture.
  std::string Options() const { return options_; }
  std::string Device() const;  // as option --device names it; empty: unknown
  // What of the file could not be read so far, to end a sentence; empty when nothing is missing.
  std::string WhatIsMissing() const;

 private:
  std::optional<LineStep> NextOf(mcap::McapReader& reader) const;
  void FindLastAnswer();

  std::filesystem::path path_;
  std::unique_ptr<mcap::McapReader> reader_;
  std::uint64_t firstNs_ = 0;   // of the first step, since 1970
  Moment lastAnswer_ = kNever;  // what the host sent after it was its farewell
  std::string options_;
};

// Up to 24 bytes in the way in which a person reads them: text in quotes, other bytes as numbers.
std::string ShowBytes(std::span<const std::byte> bytes);

}  // namespace kinetrel::emulate
