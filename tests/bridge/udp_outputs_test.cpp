// What the outputs of datagrams and of LSL make of poses and states, as a dry run prints it.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bridge/output.h"

namespace kinetrel::bridge {
namespace {

using Strings = std::vector<std::string>;

class Outputs : public testing::Test {
 protected:
  // Returns what is wrong with the text, empty if nothing is.
  std::string Make(const std::string& text) {
    OutputAddress address;
    std::string complaint = ParseOutputAddress(text, address);
    if (!complaint.empty()) return complaint;
    const Protocol* const protocol = FindProtocol(address.scheme, address.path);
    if (protocol == nullptr) return "unknown";
    OutputOptions options(std::move(address));
    PoseSelector selector(options, {protocol->axes, protocol->name});
    feed_ = std::make_unique<Feed>(Feed{1, protocol, std::move(options), std::move(selector)});
    output_ = protocol->make(context_, {feed_.get()});
    complaint = feed_->options.Complaint();
    return complaint.empty() ? output_->Open() : complaint;
  }

  void SetState(kinetrel_state state, std::uint32_t sensors) {
    SourceState source;
    source.present = true;
    source.state = state;
    source.run.sensor_mask = sensors;
    output_->OnState(*feed_, source);
  }

  // A record of one sensor (from 1) through the front part; seen at (1, 2, 3), not turned.
  void Publish(std::uint64_t frame, unsigned sensor, bool seen = true, std::uint32_t buttons = 0) {
    kinetrel_record record{};
    record.frame = frame;
    record.sensor = sensor - 1;
    record.sample_ns = static_cast<std::int64_t>(frame) * 1000000;
    record.position[0] = 1;
    record.position[1] = 2;
    record.position[2] = 3;
    record.orientation[0] = 1;
    record.flags = kinetrel_buttons_valid;
    if (seen) record.flags |= kinetrel_position_valid | kinetrel_orientation_valid;
    record.buttons = buttons;
    record.buttons_known = 3;
    std::vector<Pose> poses;
    feed_->selector.Select({&record, 1}, SourceState{}, poses);
    if (!poses.empty()) output_->Publish(*feed_, poses);
  }

  Strings TakePrinted() { return std::exchange(printed_, {}); }

  boost::asio::io_context io_;
  Strings printed_;
  OutputContext context_{.io = io_,
                         .listen = "127.0.0.1",
                         .dryRun = true,
                         .say = [](const std::string&) {},
                         .print = [this](const std::string& line) { printed_.push_back(line); }};
  std::unique_ptr<Feed> feed_;
  std::unique_ptr<Output> output_;
};

constexpr const char* kPose = "pose 1.000000 2.000000 3.000000 0.000000 0.000000 0.000000 1.000000";

TEST_F(Outputs, OscTellsButtonsAtChangesAndALossOnce) {
  const std::string text = "osc://127.0.0.1?name=he*ad&sensors=2";
  ASSERT_EQ(Make(text), "");
  const std::string bundle = text + ": bundle, at once:";
  const std::string head = "\n  /kinetrel/1/he_ad/";
  const auto frame = [](int number) { return "\n  /kinetrel/1/frame " + std::to_string(number); };
  Publish(1, 2, true, 2);
  Publish(2, 2, true, 2);
  Publish(3, 1);  // not chosen
  Publish(4, 2, false, 1);
  Publish(5, 2, false, 1);
  Publish(6, 2, true, 1);
  SetState(kinetrel_state_silent, 2);
  SetState(kinetrel_state_recovering, 2);
  EXPECT_EQ(TakePrinted(),
            (Strings{bundle + head + kPose + "\n  /kinetrel/1/buttons 2" + frame(1),
                     bundle + head + kPose + frame(2),
                     bundle + head + "lost\n  /kinetrel/1/buttons 1" + frame(4), bundle + frame(5),
                     bundle + head + kPose + frame(6), bundle + head + "lost"}));
}

TEST_F(Outputs, LslHasOneSampleForEachFrameAndNaNForWhatIsNotSeen) {
  ASSERT_EQ(Make("lsl?sensors=2,1"), "");
  SetState(kinetrel_state_running, 3);
  const std::string one =
      " 1.000000 2.000000 3.000000 1.000000 0.000000 0.000000 0.000000 1.000000";
  const std::string none = " nan nan nan nan nan nan nan 0.000000";
  Publish(1, 1);
  Publish(1, 2);
  Publish(2, 1, false);
  Publish(2, 2, true, 1);
  Publish(3, 1);
  Publish(4, 1);
  EXPECT_EQ(TakePrinted(),
            (Strings{"Kinetrel-1:" + one + one, "Kinetrel-1:" + one + none,
                     "Kinetrel-1-buttons: button 1 down", "Kinetrel-1-buttons: button 1 up",
                     "Kinetrel-1:" + none + one}));
  // A sensor that is switched off does not hold up the others.
  SetState(kinetrel_state_running, 1);
  Publish(5, 1);
  EXPECT_EQ(TakePrinted(), (Strings{"Kinetrel-1:" + one, "Kinetrel-1:" + one}));
  SetState(kinetrel_state_recovering, 1);
  SetState(kinetrel_state_silent, 1);
  EXPECT_EQ(TakePrinted(), (Strings{"Kinetrel-1:" + none}));
}

TEST_F(Outputs, DTrackPacketsHoldWholeFrames) {
  ASSERT_EQ(Make("dtrack://127.0.0.1?sensors=3,1"), "");
  SetState(kinetrel_state_running, 5);
  const auto ends = [this](const std::string& counts) {
    const Strings printed = TakePrinted();
    ASSERT_EQ(printed.size(), 1U);
    EXPECT_NE(printed[0].find(counts), std::string::npos) << printed[0];
  };
  Publish(1, 1);
  EXPECT_TRUE(TakePrinted().empty());
  Publish(1, 3);
  ends("6dcal 2\n6d 2 [1 1.000][1000.000 -2000.000 -3000.000 0.0000 0.0000 0.0000]");
  Publish(2, 3);
  output_->Tick(*feed_, 2'000'000 + 50'000'000);
  EXPECT_TRUE(TakePrinted().empty());
  output_->Tick(*feed_, 2'000'000 + 150'000'000);  // its other sensor does not come any more
  ends("6dcal 2\n6d 1 [0 1.000]");
  SetState(kinetrel_state_recovering, 5);
  SetState(kinetrel_state_silent, 5);
  ends("fr 3\n");
}

TEST_F(Outputs, NumberAndChooseSensorsAsAsked) {
  struct {
    const char* text;
    bool seen;
    Strings parts;  // of the one line that sensor 3 gives; none: it gives none
  } const rows[] = {
      {"freed://127.0.0.1", true, {"camera 3 "}},
      {"freed://127.0.0.1?camera=5&sensors=1,3&zoom=7", true, {"camera 6 ", " zoom 7 focus 0"}},
      {"freed://127.0.0.1", false, {}},
      {"opentrack", true, {}},
      {"opentrack?sensors=3", true, {"TX -200.0000 TY -300.0000 TZ -100.0000 yaw 0.0000"}},
      {"opentrack?sensors=3&axes=tracker", true, {"TX 1.0000 TY 2.0000 TZ 3.0000"}},
      {"opentrack?sensors=3&axes=tracker&scale=10", true, {"TX 10.0000 TY 20.0000 TZ 30.0000"}},
      {"psn?tracker=40&sensors=1,3", true, {"tracker 41 position (2.000000, -3.000000, 1.000000)"}},
      {"psn", false, {"tracker 3 ", " not valid "}},
      {"osc:///vrchat?sensors=1,2,4,5,6,7,8,9,3", true, {}},
      {"osc://127.0.0.1/adm?object=10&extent=4,4,6&aed=yes&sensors=3&centre=2,0,0",
       true,
       {"/adm/obj/10/aed 0.000000 -71.565048 0.527046"}},
      {"opentrackio?sensors=3&source=9", false, {"\"sourceNumber\":9", "\"status\":\"lost\""}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    ASSERT_EQ(Make(row.text), "");
    Publish(1, 3, row.seen);
    const Strings printed = TakePrinted();
    EXPECT_EQ(printed.empty(), row.parts.empty());
    for (const std::string& part : row.parts) {
      ASSERT_FALSE(printed.empty());
      EXPECT_NE(printed[0].find(part), std::string::npos) << printed[0];
    }
  }
}

TEST_F(Outputs, OpenTrackIoTellsOnceThatATrackerIsLost) {
  ASSERT_EQ(Make("opentrackio"), "");
  Publish(1, 1);
  Publish(1, 3);
  TakePrinted();
  SetState(kinetrel_state_recovering, 5);
  SetState(kinetrel_state_silent, 5);
  const Strings printed = TakePrinted();
  ASSERT_EQ(printed.size(), 2U);
  EXPECT_NE(printed[0].find("\"sourceNumber\":1,"), std::string::npos) << printed[0];
  for (const std::string& line : printed) {
    EXPECT_NE(line.find("\"status\":\"lost\""), std::string::npos) << line;
    EXPECT_EQ(line.find("transforms"), std::string::npos) << line;
  }
}

TEST_F(Outputs, PreferIPv4) {
  ASSERT_EQ(Make("opentrack://localhost"), "");
  EXPECT_EQ(output_->Place(), "127.0.0.1:4242");
  ASSERT_EQ(Make("opentrack://[::1]"), "");
  EXPECT_EQ(output_->Place(), "[::1]:4242");
}

TEST_F(Outputs, VrpnCountsNoFrameWithoutAMessage) {
  ASSERT_EQ(Make("vrpn"), "");
  Publish(1, 1, false);  // tells the buttons
  Publish(2, 1, false);
  EXPECT_EQ(output_->counts().frames, 1U);
}

TEST_F(Outputs, RefuseWhatTheyCannotDo) {
  const std::pair<const char*, const char*> rows[] = {
      {"freed", "it needs a host"},
      {"freed://127.0.0.1?flip=pan,tilts", "option flip needs some of"},
      {"freed://127.0.0.1?camera=256", "camera"},
      {"freed://127.0.0.1?camera=255&sensors=1,2", "camera leaves no number"},
      {"opentrackio?source=199&sensors=1,2,3", "source leaves no number"},
      {"opentrack?sensors=1,2", "takes one sensor"},
      {"opentrackio?encoding=xml", "encoding"},
      {"opentrackio?source=201", "source"},
      {"osc://127.0.0.1/adm?extent=1,0,1", "it needs half the size of the room"},
      {"osc://127.0.0.1/adm", "it needs half the size of the room"},
      {"osc:///vrchat?head=33", "head"},
      {"osc:///vrchat?sensors=1,2&head=4", "option head needs one of the sensors"},
      {"osc://127.0.0.1/adm?extent=1,1,1&sensors=1&listener=2", "option listener needs one of"},
      {"osc:///vrchat?time=yes", "time"},
      {"lsl?rate=-1", "rate"},
      {"dtrack://no host", "host"},
  };
  for (const auto& [text, complaint] : rows) {
    EXPECT_NE(Make(text).find(complaint), std::string::npos) << text << ": " << Make(text);
  }
}

}  // namespace
}  // namespace kinetrel::bridge
