// A serial tracker on a pseudo-terminal is unplugged, silenced, replaced and plugged in again.
// The tests check what clients and the log see.

#include "engine/recovery.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <thread>

#include "engine/tracker_engine.h"
#include "publish/shared_track_reader.h"
#include "tests/support/free_slot.h"
#include "tests/support/pseudo_terminal.h"

namespace kinetrel::test {
namespace {

// Boots with "?" answered by the model's digit; a record is one byte, the position. Settings are
// single letters.
class ByteTracker final : public TrackerDevice {
 public:
  ByteTracker() {
    AllocateSensors(1);
    SetName(DeviceName::Fastrak);
    continuousByte_ = 'C';
    pollByte_ = 'P';
  }
  BootResult Boot(int) override {
    char model = 0;
    booted_ = false;
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
  int SetUnits(int units) override {
    Write("U", 1);
    return TrackerDevice::SetUnits(units);
  }
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
    const std::lock_guard held(lock_);
    return heard_;
  }

 private:
  void Play() {
    bool sends = false;
    while (!over_) {
      pollfd input{line_.farEnd(), POLLIN, 0};
      char byte = 0;
      if (::poll(&input, 1, 5) == 1 && ::read(line_.farEnd(), &byte, 1) == 1) {
        const std::lock_guard held(lock_);
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
  std::mutex lock_;
  std::string heard_;
  std::thread thread_;
};

class Recovering : public testing::Test {
 protected:
  Recovering() {
    ::setenv("KINETREL_COM7", link_.c_str(), 1);
    DeviceFactory factory;
    factory.device = [](int) { return std::make_unique<ByteTracker>(); };
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
