// A tracker from the wire to a client: kinetrel-emulate, kinetrel and a reader of shared memory,
// each a process of its own.
#pragma once

#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "publish/shared_track_reader.h"
#include "tests/support/child_process.h"
#include "tests/support/free_slot.h"

namespace kinetrel::test {

class WholeRun {
 public:
  // `device` as kinetrel-emulate has it, with its options; `options` are those of kinetrel.
  WholeRun(const std::vector<std::string>& device, std::vector<std::string> options)
      : emulator_("kinetrel-emulate", EmulatorArguments(device)) {
    if (!emulator_.ExpectOutput("KINETREL_COM1=")) return;
    options.insert(options.end(), {"-p", "1", "-w", std::to_string(slot_.slot())});
    kinetrel_ = std::make_unique<ChildProcess>(
        "kinetrel", options,
        ChildProcess::Options{.environment = {{"KINETREL_COM1", link_}}, .emptyInput = true});
  }

  ~WholeRun() { ::unlink(link_.c_str()); }  // the emulator is killed, and leaves its link
  WholeRun(const WholeRun&) = delete;
  WholeRun& operator=(const WholeRun&) = delete;

  // Looks at published blocks, each at most once, until `enough`; false when frames stop coming.
  bool Watch(const std::function<bool(const SharedTrackBlock&)>& enough) {
    if (kinetrel_ == nullptr || !kinetrel_->ExpectError("Running ...")) return false;
    if (!WaitUntil([&] { return reader_.OpenOnly(0); })) return false;
    SharedTrackBlock block{};
    int seen = 0;
    for (;;) {
      const bool fresh = WaitUntil([&] {
        return reader_.WaitForFrame(seen, Milliseconds(100)) &&
               reader_.Copy(block, Milliseconds(1000)) && block.frameCount != seen;
      });
      if (!fresh) return false;
      seen = block.frameCount;
      if (enough(block)) return true;
    }
  }

  ChildProcess& emulator() { return emulator_; }
  ChildProcess& kinetrel() { return *kinetrel_; }

 private:
  std::vector<std::string> EmulatorArguments(std::vector<std::string> device) const {
    device.insert(device.end(), {"--link", link_});
    return device;
  }

  FreeSlot slot_;
  std::string link_ =
      "/tmp/kinetrel-line-" + std::to_string(::getpid()) + "-" + std::to_string(slot_.slot());
  ChildProcess emulator_;
  std::unique_ptr<ChildProcess> kinetrel_;
  SharedTrackReader reader_{slot_.device()};
};

}  // namespace kinetrel::test
