// What one tracker sends, receives, logs and publishes, on its way into a file.
//
// The threads that use the device put it into a ring, and a thread of the capture writes the file.
// So sampling never waits for a disk. What does not fit into the ring is counted, and the status
// log and the file say so. A disk that is full ends the capture and nothing else.
//
// Threads  the operations may be called by the threads that use the device, one at a time; Close by
//          one thread.
// Memory   OnLine, OnRun and OnRecords allocate nothing and never wait.
#pragma once

#include <kinetrel/stream.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "capture/capture_ring.h"
#include "devices/status_log.h"
#include "platform/byte_line.h"
#include "platform/thread.h"

namespace kinetrel {

class Capture final : public LineTap {
 public:
  static constexpr std::size_t kRingSize = std::size_t{1} << 22;  // seconds of the largest tracker

  // Makes the file, or empties the one that exists, and starts the thread.
  //
  // options  in force, as a configuration file has them.
  // log      gets what is to be said; its entries go into the file.
  // Errors   of the file: NotFound, Denied, NoSpace. Failed: no thread starts.
  static Result<std::shared_ptr<Capture>> Open(const std::string& path, const std::string& options,
                                               std::shared_ptr<StatusLog> log);

  ~Capture() override { Close(); }
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  void OnLine(LineEvent event, std::span<const std::byte> bytes, std::int64_t since) override;

  // slot  from 1. The clocks of the run are the capture's.
  void OnRun(int slot, kinetrel_run run);

  // Published records, and the device's own poses of those that are filtered.
  void OnRecords(int slot, std::span<const kinetrel_record> records,
                 const kinetrel_device_pose* own);

  // Writes what waits and closes the file. Gives up after five seconds if the disk takes nothing.
  // What is put later is lost.
  void Close();

 private:
  struct Shared;  // owned by the thread too: it may hang in the disk
  explicit Capture(std::shared_ptr<Shared> shared) : shared_(std::move(shared)) {}

  std::shared_ptr<Shared> shared_;
  std::optional<Thread> thread_;  // until Close
};

}  // namespace kinetrel
