// A device that takes its poses from a live tracker, with real processes: kinetrel in one slot,
// kinetrel-emulate on it, and kinetrel on the emulated device in another slot.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <kinetrel/stream.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "emulate/device_table.h"
#include "emulate/live_motion.h"
#include "recording/recorded_frames.h"
#include "tests/emulate/device_bench.h"
#include "tests/emulate/emulated_line.h"
#include "tests/support/free_slot.h"
#include "tests/support/pseudo_terminal.h"

namespace kinetrel::test {
namespace {

// The records of a slot, from the moment at which a tracker is there.
class Records {
 public:
  explicit Records(const FreeSlot& slot) {
    EXPECT_EQ(kinetrel_stream_open(&stream_, slot.slot(), 20000), kinetrel_stream_ok);
  }
  ~Records() { kinetrel_stream_close(&stream_); }
  Records(const Records&) = delete;
  Records& operator=(const Records&) = delete;

  // Appends what has come.
  void Take(std::vector<kinetrel_record>& into) {
    kinetrel_record record;
    while (kinetrel_stream_next(&stream_, &record, 0) == kinetrel_stream_ok) into.push_back(record);
  }

  kinetrel_state State() { return kinetrel_stream_state(&stream_, nullptr); }

 private:
  kinetrel_stream stream_{};
};

double Distance(const kinetrel_record& a, const kinetrel_record& b) {
  return std::hypot(a.position[0] - b.position[0], a.position[1] - b.position[1],
                    a.position[2] - b.position[2]);
}

// 1: the same orientation.
double Likeness(const kinetrel_record& a, const kinetrel_record& b) {
  double sum = 0;
  for (int i = 0; i < 4; ++i) sum += a.orientation[i] * b.orientation[i];
  return std::abs(sum);
}

std::vector<std::string> From(const FreeSlot& slot, std::vector<std::string> rest) {
  rest.insert(rest.begin() + 1, "--from=slot:" + std::to_string(slot.slot()));
  return rest;
}

class LiveRecording : public testing::Test {
 protected:
  LiveRecording() { std::filesystem::create_directories(folder_); }
  ~LiveRecording() override { std::filesystem::remove_all(folder_); }

  std::string Path(const std::string& name) const { return (folder_ / name).string(); }

  // Records two sensors of the simulated tracker, which captures itself too.
  void Record() const {
    const FreeSlot slot;
    ChildProcess tracker("kinetrel", Simulated(slot, {"-s3", "--capture", Path("capture.mcap")}));
    const Records runs(slot);
    ChildProcess recorder("kinetrel-record", {Path("a.mcap"), "--slot", std::to_string(slot.slot()),
                                              "--seconds", "1.5"});
    EXPECT_EQ(recorder.Wait(), 0) << recorder.error();
    tracker.Signal(SIGINT);
    tracker.Wait();
  }

  std::vector<record::RecordedPose> Poses(const std::string& name) const {
    record::RecordedFrames file;
    EXPECT_EQ(file.Open(Path(name), 0), "");
    std::vector<record::RecordedPose> poses;
    for (record::RecordedFrame frame; file.Next(frame);) {
      poses.insert(poses.end(), frame.poses.begin(), frame.poses.end());
    }
    EXPECT_GT(poses.size(), 40U);
    return poses;
  }

  const std::filesystem::path folder_ = LinkName("recorded");
};

struct Road {
  const char* device;
  std::vector<std::string> options;
  const char* type;
  double metres;  // the wire's resolution, or better
  double unlike;
  std::uint32_t sensors;  // that arrive, as bits: our driver reads one bird
};

// Every pose of the second slot is one of the first slot's, and all move.
TEST(LiveSource, PosesComeThroughEveryKindOfDevice) {
  const Road roads[] = {
      {"fastrak", {}, "2", 1e-5, 1e-6, 3},
      {"fastrak", {"--sensors=2,1"}, "2", 1e-5, 1e-6, 3},
      {"flock", {"--range=144"}, "3", 1.5e-3, 1e-5, 1},
      {"liberty", {}, "10", 1e-5, 1e-6, 3},
      {"logitech", {}, "4", 3e-5, 1e-5, 1},
  };
  const FreeSlot first;
  ChildProcess tracker("kinetrel", Simulated(first, {"-s3"}));
  Records source(first);
  for (const Road& road : roads) {
    SCOPED_TRACE(road.device);
    std::vector<std::string> arguments = road.options;
    arguments.insert(arguments.begin(), road.device);
    EmulatedLine line(From(first, arguments));
    const FreeSlot second;
    ChildProcess host("kinetrel",
                      {"-d", road.type, "-p1", "-s3", "-w" + std::to_string(second.slot())},
                      {.environment = {{"KINETREL_COM1", line.path()},
                                       {"KINETREL_PDI", KINETREL_PDI_SUBSTITUTE},
                                       {"KINETREL_PDI_SERIAL", "1"}},
                       .emptyInput = true});
    Records sink(second);
    std::vector<kinetrel_record> sent, received;
    ASSERT_TRUE(WaitUntil([&] {
      source.Take(sent);
      sink.Take(received);
      return received.size() >= 40;
    })) << host.error()
        << line.program().error();
    const bool crossed = !road.options.empty() && road.options[0] == "--sensors=2,1";
    double moved = 0;
    std::uint32_t sensors = 0;
    for (const kinetrel_record& record : received) {
      const std::uint32_t wanted = crossed ? 1 - record.sensor : record.sensor;
      double nearest = 1e9, likeness = 0;
      for (const kinetrel_record& each : sent) {
        if (each.sensor != wanted || Distance(each, record) >= nearest) continue;
        nearest = Distance(each, record);
        likeness = Likeness(each, record);
      }
      EXPECT_LT(nearest, road.metres) << "sensor " << record.sensor;
      EXPECT_GT(likeness, 1 - road.unlike) << "sensor " << record.sensor;
      moved = std::max(moved, Distance(record, received.front()));
      sensors |= 1U << record.sensor;
    }
    EXPECT_GT(moved, 0.01);
    EXPECT_EQ(sensors, road.sensors);
  }
}

// A loop, a file that was cut, and the poses of a capture of the line.
TEST_F(LiveRecording, PosesOfAFileReachTheHost) {
  Record();
  std::filesystem::copy(Path("a.mcap"), Path("cut.mcap"));
  std::filesystem::resize_file(Path("cut.mcap"), std::filesystem::file_size(Path("a.mcap")) / 2);
  const std::pair<std::string, const char*> rows[] = {
      {"a.mcap", "with 2 sensors"}, {"cut.mcap", "was cut"}, {"capture.mcap", "with 2 sensors"}};
  for (const auto& [file, told] : rows) {
    SCOPED_TRACE(file);
    const auto sent = Poses(file);
    EmulatedLine line({"fastrak", "--from", Path(file), "--loop", "--speed=2"});
    EXPECT_TRUE(line.program().ExpectOutput(told)) << line.program().error();
    const FreeSlot slot;
    ChildProcess host("kinetrel", {"-d2", "-p1", "-s3", "-w" + std::to_string(slot.slot())},
                      {.environment = {{"KINETREL_COM1", line.path()}}, .emptyInput = true});
    Records sink(slot);
    std::vector<kinetrel_record> received;
    ASSERT_TRUE(WaitUntil([&] {
      sink.Take(received);
      return received.size() > sent.size();
    })) << host.error();
    double moved = 0;
    for (const kinetrel_record& record : received) {
      double nearest = 1e9;
      for (const record::RecordedPose& each : sent) {
        if (each.sensor != static_cast<int>(record.sensor) + 1) continue;
        nearest = std::min(nearest, std::hypot(each.position[0] - record.position[0],
                                               each.position[1] - record.position[1],
                                               each.position[2] - record.position[2]));
      }
      EXPECT_LT(nearest, 1e-5) << "sensor " << record.sensor;
      moved = std::max(moved, Distance(record, received.front()));
    }
    EXPECT_GT(moved, 0.01);
  }
}

// A polled device answers as with its receivers pulled out.
TEST_F(LiveRecording, TheEndIsToldAndNoPoseStays) {
  Record();
  EmulatedLine line({"fastrak", "--from", Path("a.mcap"), "--speed=0.4"});
  Host host(line.path());
  EXPECT_TRUE(WaitUntil([&] { return !host.AnswerTo("P").empty(); })) << line.program().error();
  EXPECT_TRUE(line.program().ExpectOutput("the recording has ended; no station has a pose"));
  EXPECT_TRUE(WaitUntil([&] { return host.AnswerTo("P").empty(); }));
  EXPECT_EQ(host.Ask("PS", 2).substr(0, 2), "21");  // the status is all that comes
}

// The tracker is killed or stopped; then another one takes the slot, or it goes on.
TEST(LiveSource, TheHostSeesSilenceUntilTheSourceIsBack) {
  for (const int signal : {SIGKILL, SIGSTOP}) {
    SCOPED_TRACE(signal);
    const FreeSlot first, second;
    auto tracker = std::make_unique<ChildProcess>("kinetrel", Simulated(first, {"-s3"}));
    { const Records runs(first); }
    EmulatedLine line(From(first, {"fastrak"}));
    ChildProcess host("kinetrel", {"-d2", "-p1", "-s3", "-w" + std::to_string(second.slot())},
                      {.environment = {{"KINETREL_COM1", line.path()}}, .emptyInput = true});
    Records sink(second);
    std::vector<kinetrel_record> received;
    const auto comes = [&] {
      received.clear();
      return WaitUntil([&] {
        sink.Take(received);
        return received.size() >= 20;
      });
    };
    ASSERT_TRUE(comes()) << host.error();
    tracker->Signal(signal);
    EXPECT_TRUE(WaitUntil([&] { return sink.State() == kinetrel_state_silent; }));
    sink.Take(received);
    received.clear();
    EXPECT_EQ(sink.State(), kinetrel_state_silent);
    sink.Take(received);
    EXPECT_TRUE(received.empty());
    if (signal == SIGSTOP) {
      tracker->Signal(SIGCONT);
    } else {
      tracker = std::make_unique<ChildProcess>("kinetrel", Simulated(first, {"-s1"}));
    }
    EXPECT_TRUE(comes()) << line.program().error();
  }
}

struct Quiet {
  const char* device;
  const char* option;  // null: none
  const char* asked;
  bool (*hasPose)(const std::string& answer);
};

// No device repeats an old pose.
TEST(LiveSource, DevicesOfOneStationTellNoLostPose) {
  const auto anything = [](const std::string& answer) { return !answer.empty(); };
  const Quiet rows[] = {{"pan-tilt", nullptr, "d", anything},
                        {"intertrax", "--start=streaming", "", anything},
                        {"logitech", nullptr, "*d",
                         [](const std::string& answer) { return (answer.at(0) & 0x20) == 0; }},
                        {"gps", nullptr, "", [](const std::string& answer) {
                           return answer.find("\x10\x4A") != std::string::npos;
                         }}};
  for (const Quiet& row : rows) {
    SCOPED_TRACE(row.device);
    const DeviceRow& device = *FindDevice(row.device);
    const std::vector<const char*> given(row.option != nullptr ? 1 : 0, row.option);
    OptionValues options = OptionValues::Parse(given, device.options());
    const auto motion = std::make_shared<LiveMotion>(StationMap(), device.unitsPerMetre);
    DeviceBench bench(device.make(options, motion));
    for (const bool has : {true, false, true}) {
      if (has) {
        motion->Put(0, {.position = Vector3{1, 2, 3}, .orientation = Quaternion4{1, 0, 0, 0}}, 0);
      } else {
        motion->ForgetAll();
      }
      bench.Collect(seconds(1));  // what was on its way
      EXPECT_EQ(row.hasPose(bench.Ask(row.asked, seconds(1))), has);
    }
  }
}

// Programs that are started do not hold it open.
std::unique_ptr<PseudoTerminal> MakeCable() {
  auto cable = std::make_unique<PseudoTerminal>();
  for (const int end : {cable->farEnd(), cable->nearEnd()}) ::fcntl(end, F_SETFD, FD_CLOEXEC);
  return cable;
}

// A pseudo-terminal of the test stands for the line: what a pulled adapter does, and what comes of
// a source that goes and comes back.
TEST(LiveSource, ARealLineIsServedUntilItVanishes) {
  const FreeSlot slot;
  auto cable = MakeCable();
  const std::string name = LinkName("cable");
  std::filesystem::create_symlink(cable->path(), name);
  ChildProcess tracker("kinetrel", Simulated(slot, {"-s1"}));
  { const Records runs(slot); }
  ChildProcess emulator("kinetrel-emulate", From(slot, {"fastrak", "--port", name}));
  ASSERT_TRUE(emulator.ExpectOutput(" on " + name + ". The host")) << emulator.error();
  cable->CloseNear();
  // One station, because the tracker has one sensor: no more records than that in an answer.
  cable->Send("F");
  EXPECT_TRUE(WaitUntil([&] {
    cable->Send("P");
    return cable->Expect("\r\n", std::chrono::milliseconds(200));
  }));
  EXPECT_EQ(cable->Received().substr(0, 2), "01");
  tracker.Signal(SIGINT);
  EXPECT_TRUE(emulator.ExpectOutput("no station has a pose"));
  cable->HangUp();
  EXPECT_TRUE(emulator.ExpectOutput("The port has gone"));
  cable = MakeCable();
  std::filesystem::remove(name);
  std::filesystem::create_symlink(cable->path(), name);
  EXPECT_TRUE(emulator.ExpectOutput("The port is back"));
  emulator.Signal(SIGTERM);
  EXPECT_EQ(emulator.Wait(), 0);
  std::filesystem::remove(name);
}

TEST(LiveSource, BadOptionsAreRefusedInWords) {
  const std::pair<std::vector<std::string>, const char*> rows[] = {
      {{"--from=slot:17"}, "slot:1 to slot:16"},
      {{"--from=/dev/nowhere"}, "/dev/nowhere: it cannot be opened"},
      {{"--from=/proc/self/exe"}, "it is not an MCAP file"},
      {{"--from=slot:1", "--loop"}, "--loop: goes with --from FILE.mcap"},
      {{"--from=slot:1", "--motion=ramp"}, "--motion: goes without --from"},
      {{"--from=slot:1", "--sensors=0"}, "--sensors: wants"},
      {{"--sensors=1"}, "--sensors: goes with --from"},
      {{"--port=/dev/null", "--whole"}, "--whole: goes without --port"},
      {{"--port=/dev/null"}, "/dev/null: not a serial device"},
      {{"--port=/dev/nowhere"}, "/dev/nowhere: no such device"}};
  for (auto [arguments, complaint] : rows) {
    arguments.insert(arguments.begin(), "fastrak");
    ChildProcess program("kinetrel-emulate", arguments, {.emptyInput = true});
    EXPECT_TRUE(program.ExpectError(complaint)) << program.error();
    EXPECT_NE(program.Wait(), 0);
  }
}

}  // namespace
}  // namespace kinetrel::test
