// kinetrel-calibrate as an operator and a script run it, against trackers whose poses are known.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "platform/clock.h"
#include "publish/record_stream_writer.h"
#include "tests/filters/filter_motion.h"
#include "tests/support/emulated_run.h"

namespace kinetrel::test {
namespace {

constexpr double kZero = 0.4;  // rad; the azimuth zero of the tracker below

// A tracker that sends the pose it is told, 200 times a second. A filter moves what it publishes,
// so only the device's own pose is right.
class ToldTracker {
 public:
  explicit ToldTracker(int device) {
    auto opened = RecordStreamWriter::Open(device);
    if (!opened.Ok()) throw std::runtime_error(Describe(opened.status()));
    writer_ = std::move(*opened);
    writer_->ChangeRun([](kinetrel_run& run) { run.azimuth_zero = kZero; });
    writer_->SetState(kinetrel_state_running, "All is well.");
    thread_ = std::thread([this] { Run(); });
  }
  ~ToldTracker() {
    done_ = true;
    thread_.join();
  }

  void Tell(const Vector3& position, const Rotation& orientation, double trembling = 0.0) {
    const Lock held(mutex_);
    position_ = position;
    orientation_ = orientation;
    trembling_ = trembling;
  }

 private:
  void Run() {
    for (int frame = 1; !done_; ++frame) {
      kinetrel_record record{};
      kinetrel_device_pose own{};
      record.frame = static_cast<std::uint64_t>(frame);
      record.sample_ns = kinetrel_now_ns();
      record.orientation[0] = 1.0F;
      own.flags = kinetrel_position_valid | kinetrel_orientation_valid;
      record.flags = own.flags | kinetrel_filtered;
      {
        const Lock held(mutex_);
        std::ranges::copy(position_, own.position);
        own.position[0] += frame % 2 == 0 ? trembling_ : -trembling_;
        const Rotation shown = FromTurn({0, 0, -kZero}) * orientation_;
        std::ranges::transform(shown, own.orientation,
                               [](double part) { return static_cast<float>(part); });
      }
      writer_->Publish({&record, 1}, &own);
      SleepFor(Milliseconds(5));
    }
  }

  std::unique_ptr<RecordStreamWriter> writer_;
  Mutex mutex_;
  Vector3 position_ GUARDED_BY(mutex_){};
  Rotation orientation_ GUARDED_BY(mutex_) = kNoRotation;
  double trembling_ GUARDED_BY(mutex_) = 0.0;
  std::atomic<bool> done_ = false;
  std::thread thread_;
};

int Count(const std::string& text, const std::string& part) {
  int count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

class Calibrate : public testing::Test {
 protected:
  Calibrate() { std::filesystem::create_directories(folder_); }
  ~Calibrate() override { std::filesystem::remove_all(folder_); }

  std::string In(const std::string& name) const { return folder_ + "/" + name; }
  std::string Write(const std::string& name, const std::string& content) const {
    std::ofstream(In(name)) << content;
    return In(name);
  }
  std::string Content(const std::string& name) const {
    std::stringstream text;
    text << std::ifstream(In(name)).rdbuf();
    return text.str();
  }
  std::unique_ptr<ChildProcess> Start(Arguments arguments) const {
    arguments.insert(arguments.end(),
                     {"--slot", std::to_string(slot_.slot()), "--output", In("new")});
    return std::make_unique<ChildProcess>("kinetrel-calibrate", std::move(arguments));
  }
  // The filter that was written.
  std::unique_ptr<Filter> Written() const {
    std::vector<FilterOption> options;
    std::string error;
    EXPECT_TRUE(ReadFilterFile(In("new.filters"), options, error)) << error;
    return options.size() == 1 ? options[0].filter->Clone() : nullptr;
  }

  // A tracker that rests at `bent` and runs with the configuration that was written.
  void ExpectCorrected(const Vector3& truth, const Vector3& bent) const {
    std::ostringstream motion;
    motion << "x,y,z,azimuth,elevation,roll\n";
    for (const double metres : bent) motion << 100 * metres << ',';
    motion << "0,0,0\n";
    EmulatedRun run("fastrak", 2, {"--motion", "file:" + Write("bent.csv", motion.str())},
                    {"--config", In("new.toml")});
    const std::vector<SharedTrackBlock> seen = run.Watch(10);
    ASSERT_FALSE(seen.empty()) << run.tracker().error();
    for (std::size_t i = 0; i < 3; ++i) {
      EXPECT_NEAR(seen.back().poses[0][i], 100 * truth[i], 0.3) << i;
    }
  }

  const FreeSlot slot_;

 private:
  std::string folder_ =
      std::filesystem::temp_directory_path() / ("kinetrel-calibrate-" + std::to_string(getpid()));
};

TEST_F(Calibrate, TheTipOfAnEmulatedToolIsFoundAndItsFilterHoldsTheTipStill) {
  const Vector3 tip = {12.0, 1.0, -2.0};  // cm
  std::ostringstream motion;
  motion << "x,y,z,azimuth,elevation,roll\n";
  for (int i = 0; i < 480; ++i) {
    const Vector3 degrees = {40 * std::sin(i * 0.05), 35 * std::sin(i * 0.083 + 1),
                             60 * std::sin(i * 0.031)};
    const Rotation q = FromAngles(kRadiansPerDegree * degrees);
    const Vector3 position = Vector3{30.0, 10.0, 20.0} - Rotate(q, tip);
    for (const double each : position) motion << each << ',';
    motion << degrees[0] << ',' << degrees[1] << ',' << degrees[2] << '\n';
  }
  const std::string file = "file:" + Write("motion.csv", motion.str());
  {
    EmulatedRun run("fastrak", 2, {"--motion", file});
    ASSERT_FALSE(run.Watch(5).empty());
    ChildProcess calibrate("kinetrel-calibrate", {"tip", "--slot", std::to_string(run.slot()),
                                                  "--seconds", "2", "--output", In("new")});
    calibrate.Send("\n");
    ASSERT_EQ(calibrate.Wait(), 0) << calibrate.error();
    EXPECT_NE(calibrate.output().find("The tip is known well."), std::string::npos);
  }
  EXPECT_EQ(Content("new.filters").find("# Tip of the tool, FasTRAK, sensor 1"), 0U);
  EXPECT_NE(Content("new.html").find("<svg"), std::string::npos);
  ChildProcess check("kinetrel", {"-d2", "-p1", "--config", In("new.toml"), "--check-config"});
  EXPECT_EQ(check.Wait(), 0) << check.error();
  EmulatedRun run("fastrak", 2, {"--motion", file}, {"--config", In("new.toml")});
  const std::vector<SharedTrackBlock> seen = run.Watch(100);
  ASSERT_GT(seen.size(), 10U);
  for (const SharedTrackBlock& block : seen) {
    EXPECT_NEAR(block.poses[0][0], 30.0, 0.05);
    EXPECT_NEAR(block.poses[0][1], 10.0, 0.05);
    EXPECT_NEAR(block.poses[0][2], 20.0, 0.05);
  }
}

TEST_F(Calibrate, TheRoomIsFoundPointByPoint) {
  const Rotation turn = FromAngles({0.6, -0.2, 0.1});
  const Vector3 shift = {1.0, 2.5, 0.7};
  const Vector3 points[] = {{0, 0, 0}, {2, 0, 0}, {0, 3, 0}, {1, 1, 2}};
  ToldTracker tracker(slot_.device());
  const auto place = [&](const Vector3& point, double trembling) {
    tracker.Tell(Rotate(Inverse(turn), point - shift), kNoRotation, trembling);
  };
  const auto calibrate = Start({"room", "--seconds", "0.1", "--points",
                                Write("points.csv",
                                      "point,true_x_m,true_y_m,true_z_m\ncorner,0,0,0\n"
                                      "door,2,0,0\nwindow,0,3,0\n,1,1,2\n")});
  ASSERT_TRUE(calibrate->ExpectError("Point 1 of 4, corner: 0.000 / 0.000 / 0.000 m."));
  int measured = 0;
  const auto measure = [&](const Vector3& point, double trembling) {
    place(point, trembling);
    calibrate->Send("\n");
    measured += trembling == 0.0 ? 1 : 0;
    return WaitUntil([&] { return Count(calibrate->error(), "Measured ") == measured; });
  };
  ASSERT_TRUE(measure(points[3], 0.0));  // wrong: it is measured again
  calibrate->Send("r\n");
  ASSERT_TRUE(measure(points[0], 0.0));
  ASSERT_TRUE(measure(points[1], 0.0));
  measure(points[2], 0.02);
  ASSERT_TRUE(calibrate->ExpectError("The sensor moved by "));
  ASSERT_TRUE(measure(points[2], 0.0));
  ASSERT_TRUE(measure(points[3], 0.0));
  ASSERT_EQ(calibrate->Wait(), 0) << calibrate->error();
  EXPECT_NE(calibrate->output().find("room: good. The points fit together."), std::string::npos)
      << calibrate->output();
  const auto filter = Written();
  ASSERT_NE(filter, nullptr);
  PoseSample sample = SampleAt(0.0, Rotate(Inverse(turn), Vector3{5, 6, 7} - shift));
  ASSERT_TRUE(filter->FilterSample(sample));
  EXPECT_LT(Length(sample.position - Vector3{5, 6, 7}), 1e-4);
  EXPECT_LT(TurnBetween(sample.orientation, turn), 1e-5);
}

TEST_F(Calibrate, AMapIsMeasuredAndStraightensPositionsAndOrientations) {
  const auto bend = [](const Vector3& p) {
    return Vector3{0.05 * p[0] * p[0], 0.04 * p[0] * p[1], 0.03 * p[2]};
  };
  const Rotation known = FromAngles({0.3, 0.1, 0.0});
  const auto measured = [&](const Vector3& truth) {
    return std::pair(truth + bend(truth), FromTurn(bend(truth)) * known);
  };
  std::ostringstream points;
  points << "true_x_m,true_y_m,true_z_m,true_azimuth_deg,true_elevation_deg,true_roll_deg\n";
  std::vector<Vector3> truths;
  for (int i = 0; i < 36; ++i) {
    truths.push_back({i % 4 / 3.0, i / 4 % 3 / 2.0, i / 12 / 2.0});
    for (const double part : truths.back()) points << part << ',';
    points << 0.3 * kDegreesPerRadian << ',' << 0.1 * kDegreesPerRadian << ",0\n";
  }
  ToldTracker tracker(slot_.device());
  const auto calibrate =
      Start({"map", "--seconds", "0.1", "--points", Write("grid.csv", points.str())});
  for (std::size_t i = 0; i < truths.size(); ++i) {
    ASSERT_TRUE(calibrate->ExpectError("Point " + std::to_string(i + 1) + " of 36"));
    const auto [position, orientation] = measured(truths[i]);
    tracker.Tell(position, orientation);
    calibrate->Send("\n");
  }
  ASSERT_EQ(calibrate->Wait(), 0) << calibrate->error();
  const auto filter = Written();
  ASSERT_NE(filter, nullptr);
  for (const Vector3& truth : {Vector3{0.5, 0.4, 0.6}, Vector3{0.9, 0.8, 0.2}}) {
    const auto [position, orientation] = measured(truth);
    PoseSample sample = SampleAt(0.0, position, orientation);
    ASSERT_TRUE(filter->FilterSample(sample));
    EXPECT_LT(Length(sample.position - truth), 0.003);
    EXPECT_LT(TurnBetween(sample.orientation, known), 0.003);
  }
  ExpectCorrected({0.5, 0.4, 0.6}, measured({0.5, 0.4, 0.6}).first);
  // The table that it wrote is complete: no tracker is needed the second time.
  const auto again = Start(
      {"map", "--force", "--model", "polynomial", "--degree", "1", "--points", In("new.csv")});
  EXPECT_EQ(again->Wait(), 0) << again->error();
  EXPECT_NE(Content("new.filters").find("new.csv,model=polynomial,degree=1"), std::string::npos);
}

TEST_F(Calibrate, WhatCannotWorkIsSaidAndLeavesNoFilter) {
  const std::string line =
      Write("line.csv",
            "measured_x_m,measured_y_m,measured_z_m,true_x_m,true_y_m,true_z_m\n"
            "0,0,0,0,0,0\n1,0,0,1,0,0\n2,0,0,2,0,0\n");
  const std::string wrong =
      Write("wrong.csv",
            "measured_x_m,measured_y_m,measured_z_m,true_x_m,true_y_m,true_z_m\n"
            "0,0,0,0,0,0\n1,0,0,1,0,0\n0,1,0,0,2,0\n0,0,1,0,0,1\n");
  const std::string points = Write("points.csv", "true_x_m,true_y_m,true_z_m\n0,0,0\n1,0,0\n");
  const std::string broken = Write("broken.csv", "true_x_m,true_y_m\n0,0\n");
  std::filesystem::create_directory(In("a,b"));
  struct Row {
    Arguments arguments;
    int code;
    const char* said;
  };
  for (const Row& row : {
           Row{{}, 2, "subcommand is required"},
           Row{{"room"}, 2, "--points is required"},
           Row{{"tip", "--sensor", "33"}, 2, "--sensor"},
           Row{{"room", "--points", In("none.csv")}, 2, "none.csv: it cannot be read"},
           Row{{"room", "--points", broken}, 2, "there is no column true_z_m"},
           Row{{"map", "--points", In("a,b/x.csv")}, 2, "no comma"},
           Row{{"room", "--points", line}, 1, "almost on one line"},
           Row{{"room", "--points", wrong}, 1, "The points do not fit together"},
           Row{{"map", "--points", line}, 1, "at least 8 points; there are 3"},
           Row{{"room", "--points", points}, 1, "ended at point 1"},
           Row{{"tip"}, 1, "ended"},
       }) {
    SCOPED_TRACE(testing::PrintToString(row.arguments));
    ChildProcess::Options quiet{.emptyInput = true};
    Arguments arguments = row.arguments;
    if (!arguments.empty()) {
      arguments.insert(arguments.end(),
                       {"--slot", std::to_string(slot_.slot()), "--output", In("new"), "--force"});
    }
    ChildProcess calibrate("kinetrel-calibrate", arguments, quiet);
    EXPECT_EQ(calibrate.Wait(), row.code) << calibrate.error();
    const std::string said = calibrate.output() + calibrate.error();
    EXPECT_NE(said.find(row.said), std::string::npos) << said;
    EXPECT_FALSE(std::filesystem::exists(In("new.filters")));
    EXPECT_FALSE(std::filesystem::exists(In("new.toml")));
  }
  Write("new.filters", "mine");
  const auto kept = Start({"tip"});
  EXPECT_EQ(kept->Wait(), 2);
  EXPECT_NE(kept->error().find("new.filters exists; --force replaces it"), std::string::npos);
  EXPECT_EQ(Content("new.filters"), "mine");
}

TEST_F(Calibrate, ATrackerThatIsLostLeavesThePointsSoFar) {
  auto tracker = std::make_unique<ToldTracker>(slot_.device());
  tracker->Tell({0.25, 0.5, 0.75}, kNoRotation);
  const auto calibrate =
      Start({"room", "--seconds", "0.1", "--points",
             Write("points.csv", "true_x_m,true_y_m,true_z_m\n1,2,3\n4,5,6\n7,8,9\n")});
  ASSERT_TRUE(calibrate->ExpectError("Point 1 of 3"));
  calibrate->Send("\n");
  ASSERT_TRUE(calibrate->ExpectError("Point 2 of 3"));
  tracker.reset();
  calibrate->Send("\n");
  EXPECT_EQ(calibrate->Wait(3 * kPatience), 1);
  EXPECT_NE(calibrate->error().find("no poses come: "), std::string::npos) << calibrate->error();
  EXPECT_NE(calibrate->error().find("The points so far are in"), std::string::npos);
  EXPECT_NE(Content("new.csv").find("\n0.25,0.5,0.75,1,2,3,"), std::string::npos)
      << Content("new.csv");
}

}  // namespace
}  // namespace kinetrel::test
