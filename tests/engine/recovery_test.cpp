// A serial tracker on a pseudo-terminal is unplugged, silenced, replaced and plugged in again.
// The tests check what clients and the log see.

#include "engine/recovery.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <thread>

#include "engine/tracker_engine.h"
#include "publish/shared_track_reader.h"
#include "tests/support/free_slot.h"
#include "tests/support/peer_world.h"
#include "tests/support/pseudo_terminal.h"

namespace kinetrel::test {
namespace {

// The settings of a tracker, as texts by name. A boot forgets them, as a restarted device does.
struct Memory {
  Mutex lock;
  std::map<std::string, std::string> settings GUARDED_BY(lock);
  int unguarded GUARDED_BY(lock) = 0;  // calls during which the device was free for other threads

  std::map<std::string, std::string> Settings() {
    const Lock held(lock);
    return settings;
  }
  int Unguarded() {
    const Lock held(lock);
    return unguarded;
  }
};

// Boots with "?" answered by the model's digit; a record is one byte, the position. Settings go to
// the memory; on the line a setting of units is a letter.
class ByteTracker final : public TrackerDevice {
 public:
  explicit ByteTracker(Memory& memory) : memory_(memory) {
    AllocateSensors(1);
    SetName(DeviceName::Fastrak);
    continuousByte_ = 'C';
    pollByte_ = 'P';
  }
  BootResult Boot(int) override {
    char model = 0;
    booted_ = false;
    Forget();
    PurgeInput();
    SetReadTimeouts(200, 0, 0);
    if (Write("?", 1) != 1 || !Read(&model, 1)) return kNoResponse;
    deviceType_ = model;
    booted_ = true;
    return kBooted;
  }
  int QueryStatus(char*, int) override { return 0; }
  unsigned ReadFrame(double* sampleTime) override {
    unsigned char record = 0;
    SetReadTimeouts(20, 0, 0);
    if (!Read(&record, 1)) return 0;
    *sampleTime = ElapsedSeconds();
    poses_[0][0] = record;
    return 1;
  }
  void StartContinuous() override {
    CheckInUse();
    TrackerDevice::StartContinuous();
  }
  int SetUnits(int units) override {
    Write("U", 1);
    Keep("units", {float(units)});
    return TrackerDevice::SetUnits(units);
  }
  unsigned SetSensorMask(unsigned mask, int sensors) override {
    Keep("mask", {float(mask)});
    return TrackerDevice::SetSensorMask(mask, sensors);
  }
  unsigned SetComponentMask(unsigned mask) override {
    Keep("components", {float(mask)});
    return TrackerDevice::SetComponentMask(mask);
  }
  bool SetSensorOffset(int, const float pose[6]) override {
    return Keep("offset", {pose, pose + 6});
  }
  int SetHemisphere(int, const float zenith[3]) override {
    return Keep("hemisphere", {zenith, zenith + 3}) ? 1 : 0;
  }
  int SetAlignment(int, const float x[3], const float y[3]) override {
    return Keep("alignX", {x, x + 3}) && Keep("alignY", {y, y + 3}) ? 1 : 0;
  }
  int SetSynchronization(int mode) override { return Keep("sync", {float(mode)}) ? 1 : 0; }
  int SetProtocol(int protocol) override {
    Keep("protocol", {float(protocol)});
    return TrackerDevice::SetProtocol(protocol);
  }
  bool SetControlString(const char* text) override {
    const Lock held(memory_.lock);
    memory_.settings["control"] += std::string(text) + '|';
    return true;
  }

 private:
  void Forget() {
    CheckInUse();
    protocol_ = 0;
    const Lock held(memory_.lock);
    memory_.settings.clear();
  }
  bool Keep(const char* name, const std::vector<float>& values) {
    std::string text;
    for (const float value : values) text += std::to_string(value) + ' ';
    const Lock held(memory_.lock);
    memory_.settings[name] = text;
    return true;
  }
  // Opening, when no other thread has the device yet, does not count.
  void CheckInUse() {
    if (std::exchange(opening_, false)) return;
    bool free = false;
    std::thread([&] {
      if (!inUse().try_lock()) return;
      free = true;
      inUse().unlock();
    }).join();
    const Lock held(memory_.lock);
    memory_.unguarded += free ? 1 : 0;
  }

  Memory& memory_;
  bool opening_ = true;
};

// The far end: answers "?" with its model, and sends its position when it is told to.
class Peer {
 public:
  Peer(const std::string& link, char model, char position) : model_(model), position_(position) {
    std::filesystem::remove(link);
    std::filesystem::create_symlink(line_.path(), link);
    thread_ = std::thread([this] { Play(); });
  }
  ~Peer() {
    over_ = true;
    thread_.join();
  }
  void Silence(bool on) { silent_ = on; }
  std::string Heard() {
    const Lock held(lock_);
    return heard_;
  }

 private:
  void Play() {
    bool sends = false;
    while (!over_) {
      pollfd input{line_.farEnd(), POLLIN, 0};
      char byte = 0;
      if (::poll(&input, 1, 5) == 1 && ::read(line_.farEnd(), &byte, 1) == 1) {
        const Lock held(lock_);
        heard_ += byte;
        if (byte == '?') sends = false;
        if (byte == 'C') sends = true;
        if (byte == '?' && !silent_) line_.Send(std::string(1, model_));
      } else if (sends && !silent_) {
        line_.Send(std::string(1, position_));
      }
    }
  }

  PseudoTerminal line_;
  const char model_;
  const char position_;
  std::atomic<bool> over_ = false;
  std::atomic<bool> silent_ = false;
  Mutex lock_;
  std::string heard_ GUARDED_BY(lock_);
  std::thread thread_;
};

class Recovering : public testing::Test {
 protected:
  Recovering() {
    ::setenv("KINETREL_COM7", link_.c_str(), 1);
    DeviceFactory factory;
    factory.device = [this](int) { return std::make_unique<ByteTracker>(memory_); };
    engine_ = std::make_unique<TrackerEngine>(factory);
    StartConfig config;
    config.shmDevice = slot_.device();
    engine_->Configure(config);
  }
  ~Recovering() override {
    engine_.reset();
    std::filesystem::remove(link_);
  }

  void Start() {
    ASSERT_EQ(engine_->Open(2, 7, false), OpenResult::Opened);
    ASSERT_TRUE(engine_->StartSampling());
    ASSERT_TRUE(reader_.OpenOnly(0));
  }
  bool Shows(float position) {
    return WaitUntil(
        [&] { return reader_.Copy(block_, Milliseconds(1000)) && block_.poses[0][0] == position; });
  }
  std::ptrdiff_t Logged(const std::string& beginning) {
    const auto entries = engine_->status().Entries();
    return std::count_if(entries.begin(), entries.end(), [&](const StatusEntry& entry) {
      return entry.text.starts_with(beginning);
    });
  }
  bool FramesStandStill() {
    reader_.Copy(block_, Milliseconds(1000));
    const int before = block_.frameCount;
    SleepFor(Milliseconds(300));
    reader_.Copy(block_, Milliseconds(1000));
    return block_.frameCount == before;
  }

  Memory memory_;
  FreeSlot slot_;
  std::string link_ = testing::TempDir() + "kinetrel-recovery-" + std::to_string(::getpid());
  std::unique_ptr<TrackerEngine> engine_;
  SharedTrackReader reader_{slot_.device()};
  SharedTrackBlock block_{};
};

TEST_F(Recovering, AnUnpluggedDeviceIsFollowedToItsNewPort) {
  auto peer = std::make_unique<Peer>(link_, '1', 5);
  Start();
  ASSERT_TRUE(Shows(5));
  peer.reset();
  ASSERT_TRUE(WaitUntil([&] { return Logged("The port of FasTRAK has gone") == 1; }));
  EXPECT_TRUE(FramesStandStill());

  peer = std::make_unique<Peer>(link_, '1', 9);
  ASSERT_TRUE(Shows(9));
  EXPECT_EQ(peer->Heard().substr(0, 3), "?UC");  // the device identified itself first
  EXPECT_EQ(Logged("The port of FasTRAK has gone"), 1);
  EXPECT_EQ(Logged("FasTRAK is back after"), 1);
}

TEST_F(Recovering, WhatTheHostHasSetIsRestored) {
  auto peer = std::make_unique<Peer>(link_, '1', 5);
  Start();
  const float offset[] = {1, 2, 3, 0.1F, 0.2F, 0.5F};
  const float axis[] = {0, 0, 1};
  const auto set = [&](EngineAttribute id, auto value) {
    return engine_->SetAttributeInt(static_cast<int>(id), value);
  };
  EXPECT_TRUE(set(EngineAttribute::Units, 3));
  EXPECT_TRUE(set(EngineAttribute::ComponentMask, 7));
  EXPECT_TRUE(set(EngineAttribute::Synchronization, 2));
  EXPECT_TRUE(set(EngineAttribute::RollAllSensors, 1));
  EXPECT_TRUE(engine_->SetAttributeFloatArray(7, 6, offset));
  for (const int id : {8, 9, 10}) EXPECT_TRUE(engine_->SetAttributeFloatArray(id, 3, axis));
  EXPECT_TRUE(engine_->SetAttributeString(16, "4"));
  for (const char* const text : {"A1,0,0,0\r", "\x19", "N2\r", "A1,0,0,0\r"}) {
    EXPECT_TRUE(engine_->SetAttributeString(17, text));
  }
  ASSERT_TRUE(Shows(5));
  auto before = memory_.Settings();
  EXPECT_EQ(before.size(), 10U);
  before["control"] = "N2\r|A1,0,0,0\r|";  // each setting once, and no command

  peer.reset();
  ASSERT_TRUE(WaitUntil([&] { return Logged("The port of FasTRAK has gone") == 1; }));
  peer = std::make_unique<Peer>(link_, '1', 9);
  ASSERT_TRUE(Shows(9));
  EXPECT_EQ(memory_.Settings(), before);
  EXPECT_EQ(memory_.Unguarded(), 0);
  char text[8] = {};
  EXPECT_TRUE(engine_->GetAttributeString(16, sizeof text, text));
  EXPECT_STREQ(text, "4");
}

// An account without a right to real-time priority is told on the console, also if it may be nice.
// A process of its own changes to that account.
TEST_F(Recovering, SamplingWithoutRealTimePriorityIsReportedOnTheConsole) {
  const auto sample = [this](rlim_t nice) {
    const rlimit none{0, 0};
    const rlimit nicest{nice, nice};
    ::setrlimit(RLIMIT_RTPRIO, &none);
    ::setrlimit(RLIMIT_NICE, &nicest);
    const bool weak = BecomeAccount(65534) || ::geteuid() != 0;
    Peer peer(link_, '1', 5);
    Start();
    ::_exit(weak && Shows(5) && Logged("Sampling without real-time priority") == 1 ? 0 : 1);
  };
  const char* const said = "Sampling without real-time priority: .*rtprio 50";
  EXPECT_EXIT(sample(0), testing::ExitedWithCode(0), said);
  EXPECT_EXIT(sample(40), testing::ExitedWithCode(0), said);
}

TEST_F(Recovering, AnotherDeviceOnThePortIsLeftAlone) {
  auto peer = std::make_unique<Peer>(link_, '1', 5);
  Start();
  ASSERT_TRUE(Shows(5));
  peer.reset();
  peer = std::make_unique<Peer>(link_, '2', 7);
  ASSERT_TRUE(WaitUntil([&] { return Logged("FasTRAK answers in place of FasTRAK") == 1; }));
  EXPECT_TRUE(FramesStandStill());
  const std::string heard = peer->Heard();
  EXPECT_EQ(heard.find_first_not_of('?'), std::string::npos) << heard;
}

TEST_F(Recovering, ASilentDeviceIsBootedAgain) {
  Peer peer(link_, '1', 5);
  Start();
  ASSERT_TRUE(Shows(5));
  peer.Silence(true);
  ASSERT_TRUE(WaitUntil([&] { return Logged("FasTRAK sends nothing usable") == 1; }));
  peer.Silence(false);
  ASSERT_TRUE(WaitUntil([&] { return Logged("FasTRAK is back after") == 1; }));
  EXPECT_FALSE(FramesStandStill());
}

}  // namespace
}  // namespace kinetrel::test
