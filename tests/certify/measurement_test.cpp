// Figures of a stream whose sample times, losses and noise are known: each within 2 % of what was
// put in. The records go through a real slot; no figure depends on how busy the machine is.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <string>

#include "certify/certificate.h"
#include "certify/measurement.h"
#include "certify/tracker_reader.h"
#include "publish/record_stream_writer.h"
#include "tests/support/free_slot.h"

namespace kinetrel::certify {
namespace {

// What was put in, and the figures expected of it.
struct Tracker {
  const char* name;
  double nominal = 120;    // Hz, as the device states it
  double ppm = 0;          // its clock is faster
  double jitter = 0;       // s, standard deviation of each sample time
  unsigned loseEvery = 0;  // one frame of so many
  double noise = 0;        // m and rad, standard deviation on x; twice that on y, thrice on z
  double movement = 0;     // m, along a slow circle
  double bunch = 0;        // s: sample times are rounded up to it, as an adapter does
  unsigned frames = 20'000;
};

void PrintTo(const Tracker& row, std::ostream* out) { *out << row.name; }

// Publishes records with stated sample times, and reads them.
class PlayedTracker {
 public:
  explicit PlayedTracker(double nominal) { Start(nominal); }

  void Start(double nominal) {
    writer_.reset();
    auto opened = RecordStreamWriter::Open(slot_.device());
    ASSERT_TRUE(opened.Ok());
    writer_ = std::move(*opened);
    writer_->ChangeRun([&](kinetrel_run& run) {
      run.nominal_rate = nominal;
      run.sensor_mask = 1;
    });
    writer_->SetState(kinetrel_state_running, "Records come.");
  }
  void End() { writer_.reset(); }

  void Publish(double seconds, const Vector3& position, const Rotation& orientation) {
    kinetrel_record record{};
    record.frame = ++frame_;
    record.sample_ns = kStart + std::llround(seconds * 1e9);
    record.flags = kinetrel_position_valid | kinetrel_orientation_valid;
    std::copy(position.begin(), position.end(), record.position);
    std::transform(orientation.begin(), orientation.end(), record.orientation,
                   [](double part) { return static_cast<float>(part); });
    writer_->Publish({&record, 1});
    if (frame_ % 1000 == 0) reader.Read(0);
  }

  Measurement measured;
  const test::FreeSlot slot_;
  TrackerReader reader{slot_.slot(), measured};

 private:
  static constexpr std::int64_t kStart = 1'000'000'000'000;
  std::unique_ptr<RecordStreamWriter> writer_;
  std::uint64_t frame_ = 0;
};

class CertifiedTracker : public testing::TestWithParam<Tracker> {};

TEST_P(CertifiedTracker, HasTheFiguresThatWerePutIn) {
  const Tracker& put = GetParam();
  PlayedTracker tracker(put.nominal);
  tracker.reader.Read(0);
  std::mt19937_64 random(7);
  std::normal_distribution<double> normal;
  const double period = 1 / (put.nominal * (1 + put.ppm * 1e-6));
  unsigned lost = 0;
  for (unsigned i = 0; i < put.frames; ++i) {
    double seconds = i * period + put.jitter * normal(random);
    if (put.bunch > 0) seconds = std::ceil(seconds / put.bunch) * put.bunch;
    const double turn = 0.2 * seconds;
    const Vector3 position = {put.movement * std::cos(turn) + put.noise * normal(random),
                              put.movement * std::sin(turn) + 2 * put.noise * normal(random),
                              3 * put.noise * normal(random)};
    const Vector3 tilt = {put.noise * normal(random), 2 * put.noise * normal(random),
                          3 * put.noise * normal(random)};
    if (put.loseEvery > 0 && i % put.loseEvery == put.loseEvery / 2) {
      ++lost;
    } else {
      tracker.Publish(seconds, position, FromTurn(tilt));
    }
  }
  tracker.reader.Read(0);
  tracker.measured.Finish();

  const Measurement& measured = tracker.measured;
  const FramePace& pace = measured.pace();
  EXPECT_EQ(pace.frames(), put.frames - lost);
  EXPECT_EQ(pace.Missing(), lost);
  if (put.bunch == 0) {
    EXPECT_EQ(pace.gaps(), lost);
  }
  const double share = static_cast<double>(put.frames - lost) / put.frames;
  EXPECT_NEAR(pace.DeliveredHertz() * period / share, 1, 1e-3);
  if (put.bunch == 0) {
    // The time between two frames has the jitter of both.
    EXPECT_NEAR(pace.intervals().Deviation(), std::sqrt(2) * put.jitter,
                0.02 * std::sqrt(2) * put.jitter + 1e-9);
    const double upper = pace.IntervalQuantile(0.975) - period;
    EXPECT_NEAR(upper, 1.96 * std::sqrt(2) * put.jitter, 0.03 * upper + 1e-9);
  }
  const ClockFit clock = pace.Clock();
  ASSERT_TRUE(clock.known);
  EXPECT_NEAR(clock.partsPerMillion, put.ppm, put.bunch > 0 ? 5 : 0.02 * std::abs(put.ppm) + 0.1);
  EXPECT_LE(std::abs(clock.partsPerMillion - put.ppm), clock.uncertainty + 0.01);
  if (put.bunch == 0) {
    EXPECT_NEAR(clock.unevenness, put.jitter, 0.02 * put.jitter + 1e-9);
  }

  const SensorNoise& sensor = measured.sensors().at(0);
  EXPECT_EQ(sensor.PositionHeld(), put.movement > 0 ? Held::Moved : Held::Still);
  EXPECT_EQ(sensor.TurnHeld(), Held::Still);
  for (std::size_t axis = 0; axis < 3; ++axis) {
    const double noise = put.noise * static_cast<double>(axis + 1);
    EXPECT_NEAR(sensor.turn()[axis].all().Deviation(), noise, 0.02 * noise + 1e-7);
    if (put.movement > 0) continue;
    EXPECT_NEAR(sensor.position()[axis].all().Deviation(), noise, 0.02 * noise + 1e-12);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Put, CertifiedTracker,
    testing::Values(Tracker{.name = "Even"}, Tracker{.name = "Jitter", .jitter = 0.2e-3},
                    Tracker{.name = "Drift", .nominal = 240, .ppm = 50, .jitter = 0.1e-3},
                    Tracker{.name = "SlowClock", .nominal = 60, .ppm = -300, .jitter = 0.1e-3},
                    Tracker{.name = "Loss", .ppm = 50, .jitter = 0.3e-3, .loseEvery = 100},
                    Tracker{.name = "HeavyLoss", .jitter = 0.1e-3, .loseEvery = 4},
                    Tracker{.name = "Noise", .noise = 0.3e-3},
                    Tracker{.name = "LoudNoise", .nominal = 30, .noise = 8e-3},
                    Tracker{.name = "Moved", .noise = 0.3e-3, .movement = 0.02},
                    Tracker{.name = "Bunches", .nominal = 240, .ppm = 100, .bunch = 0.016}),
    [](const auto& row) { return std::string(row.param.name); });

// Ages come from the clock of the client, so they are given here.
TEST(Measurement, TellsAgesWithinTwoPercent) {
  std::mt19937_64 random(7);
  std::exponential_distribution<double> exponential(1 / 3e6);  // 3 ms
  std::int64_t now = 1'000'000'000;
  Measurement measured;
  kinetrel_record record{};
  for (int i = 0; i < 500'000; ++i) {
    now += 10'000'000;
    ++record.frame;
    record.sample_ns = now - 2'000'000 - std::llround(exponential(random));
    record.publish_ns = now - 500'000;
    measured.TakeRecord(record, now, true);
  }
  for (const double share : {0.1, 0.5, 0.9, 0.99, 0.999}) {
    const double age = 2e6 - 3e6 * std::log(1 - share);
    EXPECT_NEAR(measured.age().Quantile(share), age, 0.02 * age) << share;
    EXPECT_NEAR(measured.age().CountBelow(age), share * 500'000, 0.02 * share * 500'000);
  }
  EXPECT_NEAR(measured.toClient().Quantile(0.5), 500'000, 5'000);
  EXPECT_LE(measured.timeLine().pieces().size(), TimeLine::kMostPieces);
}

// Intervals of 9 and 11 ms in turn, poses off by 1 mm and 0.5 degrees, and one gap of five frames.
TEST(Certificate, HasEachFigureInItsUnit) {
  constexpr double kHalfDegree = 0.5 * 3.14159265358979 / 180;
  Measurement measured;
  kinetrel_run run{};
  run.nominal_rate = 99.99;  // the device's clock is 100 ppm faster
  run.failed_reads = 10, run.dropped = 20, run.recoveries = 30;
  measured.BeginWriter(run, false, 0);
  kinetrel_record record{};
  record.flags = kinetrel_position_valid | kinetrel_orientation_valid;
  for (int i = 0; i < 6000; ++i) {
    if (i >= 3001 && i <= 3005) continue;
    const double off = i % 2 == 0 ? -1 : 1;
    ++record.frame;
    record.sample_ns = 1'000'000'000 + i * 10'000'000LL + std::llround(off * 500'000);
    record.publish_ns = record.sample_ns + 1'000'000;
    for (double& each : record.position) each = 0.3 + off * 0.001;
    const Rotation turned = FromTurn({off * kHalfDegree, 0, 0});
    std::ranges::transform(turned, record.orientation,
                           [](double part) { return static_cast<float>(part); });
    measured.TakeRecord(record, record.sample_ns + 3'000'000, true);
  }
  run.failed_reads += 3, run.dropped += 4, run.recoveries += 5;
  measured.TakeRun(run);
  run.failed_reads = 1, run.dropped = 1, run.recoveries = 1;  // of another writer
  measured.BeginWriter(run, true, record.sample_ns);
  measured.SetLostHere(6);
  measured.Finish();
  const auto figures = nlohmann::json::parse(CertificateJson(measured, {}));
  struct Row {
    const char* path;
    double value;
  };
  for (const Row& row : {
           Row{"/rate/nominalHz", 99.99},
           Row{"/rate/deliveredHz", 100 * 5994.0 / 5999},
           Row{"/intervals/meanMs", 10},
           Row{"/intervals/jitterMs", 1},
           Row{"/intervals/leastMs", 9},
           Row{"/intervals/mostMs", 11},
           Row{"/gaps/count", 1},
           Row{"/gaps/longestMs", 60},
           Row{"/gaps/missingFrames", 5},
           Row{"/gaps/missingShare", 5.0 / 6000},
           Row{"/age/medianMs", 3},
           Row{"/age/percentile99_9Ms", 3},
           Row{"/ageAtPublication/medianMs", 1},
           Row{"/fromPublicationToClient/medianMs", 2},
           Row{"/clock/frameHz", 100},
           Row{"/clock/driftPpm", 100},
           Row{"/clock/unevennessMs", 0.5},
           Row{"/sensors/0/positionMm/z/deviation", 1},
           Row{"/sensors/0/positionMm/z/peakToPeak", 2},
           Row{"/sensors/0/turnDegrees/x/deviation", 0.5},
           Row{"/loss/failedReads", 4},
           Row{"/loss/unusableRecords", 5},
           Row{"/loss/recoveries", 6},
           Row{"/loss/lostAtThisClient", 6},
           Row{"/loss/programsSeen", 2},
       }) {
    const double value = figures.at(nlohmann::json::json_pointer(row.path)).get<double>();
    EXPECT_NEAR(value, row.value, 0.02 * row.value) << row.path;
  }
}

// A sensor that rests at two places, or is shaken, was not held still.
TEST(SensorNoise, KnowsMovements) {
  const auto held = [](double rate, const auto& path) {
    SensorNoise sensor;
    kinetrel_record record{};
    record.flags = kinetrel_position_valid;
    for (int i = 0; i < 60 * rate; ++i) {
      record.sample_ns = std::llround(i / rate * 1e9);
      record.position[0] = path(i / rate);
      sensor.Add(record);
    }
    return sensor.PositionHeld();
  };
  const auto step = [](double t) { return t < 31 ? 0.0 : 0.003; };
  const auto slow = [](double t) { return 1e-4 * t; };
  const auto swing = [](double t) { return 0.1 * std::sin(6.2831853 * t); };
  const auto lastDigit = [](double t) { return t < 20 || t > 40 ? 0.0 : 0.0001; };
  for (const double rate : {10.0, 120.0}) {
    EXPECT_EQ(held(rate, step), Held::Moved);
    EXPECT_EQ(held(rate, slow), Held::Moved);
    EXPECT_EQ(held(rate, lastDigit), Held::Still);
  }
  EXPECT_EQ(held(120, swing), Held::Moved);
  EXPECT_EQ(held(0.1, slow), Held::Unknown);
}

// A tracker that is silent, ends and comes back: told as interruptions, and not as lost frames.
TEST(Measurement, TellsOfSilencesAndNewWriters) {
  PlayedTracker tracker(100);
  tracker.reader.Read(0);
  const auto play = [&](double from, int frames) {
    for (int i = 0; i < frames; ++i) tracker.Publish(from + i * 0.01, {}, kNoRotation);
    tracker.reader.Read(0);
  };
  play(0, 500);
  play(7.99, 500);  // after 3 s
  const auto startAgain = [&] {
    const std::uint64_t before = tracker.measured.writers();
    tracker.End();
    tracker.Start(100);
    for (int i = 0; i < 100 && tracker.measured.writers() == before; ++i) tracker.reader.Read(20);
  };
  startAgain();
  play(20, 500);
  tracker.measured.Finish();
  const FramePace& pace = tracker.measured.pace();
  EXPECT_EQ(tracker.measured.writers(), 2U);
  EXPECT_EQ(pace.frames(), 1500U);
  EXPECT_EQ(pace.Missing(), 0U);
  EXPECT_EQ(pace.interruptions(), 2U);
  EXPECT_NEAR(pace.interruptedSeconds(), 3 + 7.02, 0.001);
  EXPECT_NEAR(pace.DeliveredHertz(), 1499 / 24.99, 0.01);
  EXPECT_NEAR(pace.RunningHertz(), 100, 0.01);
  EXPECT_NEAR(pace.Clock().partsPerMillion, 0, 0.1);
  std::string told;
  for (const Event& event : tracker.measured.events()) told += event.text + "\n";
  EXPECT_NE(told.find("started again"), std::string::npos) << told;
  startAgain();
  play(24.5, 10);  // the two wrote at once
  EXPECT_EQ(pace.interruptions(), 3U);
  EXPECT_NEAR(pace.interruptedSeconds(), 3 + 7.02, 0.001);
}

}  // namespace
}  // namespace kinetrel::certify
