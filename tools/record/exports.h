// Recordings as tables for other programs.
//
//   CSV  a row for each pose, with a line of headings: time, slot, sensor, position in metres,
//        quaternion, angles in degrees, buttons, marker; a marker has a row of its own
//   TSV  BIDS motion: NAME_motion.tsv with a row for each frame, and NAME_channels.tsv,
//        NAME_motion.json and, if there are markers, NAME_events.tsv
//   TRC  positions in millimetres, a row for each frame, as programs for biomechanics read them
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "recording/recorded_frames.h"

namespace kinetrel::record {

enum class Export { Csv, Tsv, Trc };

// The files that the export may write. `target` is the table's path; for Tsv, the NAME with its
// folder.
std::vector<std::filesystem::path> ExportFiles(Export kind, const std::filesystem::path& target);

struct ExportResult {
  std::string complaint;  // empty, or a sentence for the user
  std::uint64_t frames = 0;
};

// Writes the table. Existing files are replaced, each when the new one is whole.
//
// frames  open.
ExportResult WriteExport(Export kind, RecordedFrames& frames, const std::filesystem::path& target);

}  // namespace kinetrel::record
