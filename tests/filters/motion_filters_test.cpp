// What the filters promise of a moving sensor, as properties with bounds, and what they do with
// samples that make no sense.
#include <gtest/gtest.h>

#include <limits>

#include "tests/filters/filter_motion.h"
#include "tests/support/allocation_counter.h"

namespace kinetrel::test {
namespace {

constexpr double kRate = 120.0;  // Hz
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// ---- One-Euro --------------------------------------------------------------------------------

TEST(OneEuro, RestIsFiveTimesCalmerAndMotionLessThanFourMillisecondsLate) {
  const auto filter = Make("one-euro");
  Noise noise;
  Rms before[2], after[2];
  for (int i = 0; i < 5000; ++i) {
    const PoseSample truth = SampleAt(i / kRate, {0.3, -0.2, 0.5}, FromAngles({0.4, 0.2, 0.1}));
    PoseSample sample = truth;
    noise.On(sample);
    const PoseSample device = sample;
    ASSERT_TRUE(filter->FilterSample(sample));
    if (i < 500) continue;
    before[0].Add(Length(device.position - truth.position));
    after[0].Add(Length(sample.position - truth.position));
    before[1].Add(TurnBetween(device.orientation, truth.orientation));
    after[1].Add(TurnBetween(sample.orientation, truth.orientation));
  }
  EXPECT_GT(before[0].Value() / after[0].Value(), 5.0);
  EXPECT_GT(before[1].Value() / after[1].Value(), 5.0);

  // The lag is the shift in time that fits best: the error along the velocity over its square.
  filter->Restart();
  double behind = 0.0, moved = 0.0, turnBehind = 0.0, turned = 0.0;
  for (int i = 0; i < 5000; ++i) {
    const PoseSample truth = HandAt(i / kRate);
    PoseSample sample = truth;
    noise.On(sample);
    ASSERT_TRUE(filter->FilterSample(sample));
    if (i < 200) continue;
    const PoseSample next = HandAt((i + 0.01) / kRate);
    const double step = 0.01 / kRate;
    const Vector3 velocity = (1.0 / step) * (next.position - truth.position);
    behind += Dot(truth.position - sample.position, velocity);
    moved += Dot(velocity, velocity);
    const Vector3 turning =
        (1.0 / step) * ToTurn(AtUnitLength(Inverse(truth.orientation) * next.orientation));
    turnBehind +=
        Dot(ToTurn(AtUnitLength(Inverse(sample.orientation) * truth.orientation)), turning);
    turned += Dot(turning, turning);
  }
  EXPECT_LT(behind / moved, 0.004);
  EXPECT_LT(turnBehind / turned, 0.004);
  double shown = 0.0;
  ASSERT_TRUE(filter->GetAttributeDouble(5, &shown));
  EXPECT_NEAR(shown, 1e3 * behind / moved, 1.0);
  EXPECT_FALSE(filter->SetAttributeDouble(5, 0.0)) << "the lag is measured";
}

// ---- Prediction ------------------------------------------------------------------------------

TEST(Prediction, OfThirtyMillisecondsHalvesTheErrorOfNoneAndMore) {
  const auto filter = Make("predict:horizon-ms=30");
  Noise noise(5e-4, 0.1);
  Rms none[2], predicted[2];
  for (int i = 0; i < 5000; ++i) {
    PoseSample sample = HandAt(i / kRate);
    noise.On(sample);
    const PoseSample device = sample;
    ASSERT_TRUE(filter->FilterSample(sample));
    if (i < 100) continue;
    const PoseSample then = HandAt(i / kRate + 0.030);
    none[0].Add(Length(device.position - then.position));
    predicted[0].Add(Length(sample.position - then.position));
    none[1].Add(TurnBetween(device.orientation, then.orientation));
    predicted[1].Add(TurnBetween(sample.orientation, then.orientation));
  }
  EXPECT_LT(predicted[0].Value(), none[0].Value() / 2);
  EXPECT_LT(predicted[1].Value(), none[1].Value() / 2);
}

TEST(Prediction, ReachesNoFurtherThanItsSamplesAndItsBound) {
  const auto filter = Make("predict:horizon-ms=100,max-reach-m=0.05");
  const auto at = [](double seconds) {
    return SampleAt(seconds, {2.0 * seconds, 0, 0}, FromAngles({2.0 * seconds, 0, 0}));
  };
  PoseSample first = at(0.0);
  ASSERT_TRUE(filter->FilterSample(first));
  EXPECT_EQ(first.position[0], 0.0) << "one sample tells no speed";
  PoseSample second = at(0.01);
  ASSERT_TRUE(filter->FilterSample(second));
  EXPECT_LT(second.position[0], 0.02 + 0.02 + 1e-3)
      << "no further ahead than the samples reach back";
  EXPECT_LT(ToAngles(second.orientation)[0], 0.02 + 0.02 + 1e-3);
  for (int i = 2; i < 50; ++i) {
    PoseSample sample = at(i * 0.01);
    ASSERT_TRUE(filter->FilterSample(sample));
    EXPECT_LT(sample.position[0], 2.0 * i * 0.01 + 0.05 + 0.01);
  }
  // Lost: what comes after it is a first sample again.
  PoseSample lost = at(0.50);
  lost.hasPosition = false;
  ASSERT_TRUE(filter->FilterSample(lost));
  EXPECT_FALSE(lost.hasPosition);
  PoseSample back = at(0.51);
  ASSERT_TRUE(filter->FilterSample(back));
  EXPECT_EQ(back.position[0], 1.02);
}

TEST(Prediction, AimsAtTheDisplaysNextFrame) {
  const auto filter = Make("predict:horizon-ms=5.3,display-hz=50,noise-m=1e-6");
  for (int i = 0; i < 200; ++i) {
    const double now = i / kRate;
    PoseSample sample = SampleAt(now, {now, 0, 0});
    ASSERT_TRUE(filter->FilterSample(sample));
    if (i < 20) continue;
    const double frame = std::ceil((now + 0.0053) * 50) / 50;
    EXPECT_NEAR(sample.position[0], frame, 1e-4) << now;
  }
}

// ---- Outlier gate and dropout ----------------------------------------------------------------

TEST(OutlierGate, KeepsLeapsOutAndBelievesThemAfterAWhile) {
  for (const char* instead : {"hold", "invalid"}) {
    const auto filter = Make(std::string("gate:patience-s=0.1,instead=") + instead);
    Rms error;
    for (int i = 0; i < 2000; ++i) {
      const PoseSample truth = HandAt(i / kRate);
      PoseSample sample = truth;
      const bool leaps = i % 37 == 5;
      if (leaps) sample.position[1] += i % 2 == 0 ? 0.08 : -3.0;
      ASSERT_TRUE(filter->FilterSample(sample));
      const bool held = std::string(instead) == "hold";
      EXPECT_EQ(sample.hasPosition, held || !leaps) << i;
      if (sample.hasPosition) error.Add(Length(sample.position - truth.position));
    }
    EXPECT_LT(error.Value(), 0.005) << "good poses pass, and a held one is a step old";
    double outliers = 0.0;
    ASSERT_TRUE(filter->GetAttributeDouble(6, &outliers));
    EXPECT_EQ(outliers, 54.0);
    // The sensor has really moved: a hemisphere was crossed.
    int held = 0;
    for (int i = 2000; i < 2100; ++i) {
      PoseSample sample = HandAt(i / kRate);
      sample.position[0] += 1.0;
      const Vector3 device = sample.position;
      ASSERT_TRUE(filter->FilterSample(sample));
      held += sample.hasPosition && sample.position == device ? 0 : 1;
    }
    EXPECT_NEAR(held, 12, 1) << "a tenth of a second";
  }
}

TEST(Dropout, HoldsOrGoesOnForItsTimeThenSaysInvalid) {
  struct Row {
    const char* instead;
    double late;  // x after 0.2 s without a valid pose, of a sensor with 1 m/s
  };
  for (const Row& row : {Row{"hold", 1.0}, Row{"extrapolate", 1.2}, Row{"invalid", kNaN}}) {
    SCOPED_TRACE(row.instead);
    const auto filter = Make(std::string("dropout:time-s=0.25,instead=") + row.instead);
    const auto send = [&](double seconds, bool valid) {
      PoseSample sample = SampleAt(seconds, {seconds, 0, 0}, FromAngles({seconds, 0, 0}));
      sample.hasPosition = sample.hasOrientation = valid;
      EXPECT_TRUE(filter->FilterSample(sample));
      return sample;
    };
    EXPECT_FALSE(send(0.0, false).hasPosition) << "nothing to hold yet";
    for (int i = 1; i <= 100; ++i) EXPECT_EQ(send(i * 0.01, true).position[0], i * 0.01);
    PoseSample sample;
    for (int i = 101; i <= 120; ++i) sample = send(i * 0.01, false);
    EXPECT_EQ(sample.hasPosition, !std::isnan(row.late));
    if (sample.hasPosition) {
      EXPECT_NEAR(sample.position[0], row.late, 1e-6);
      EXPECT_NEAR(ToAngles(sample.orientation)[0], row.late, 1e-6);
    }
    for (int i = 121; i <= 130; ++i) sample = send(i * 0.01, false);
    EXPECT_FALSE(sample.hasPosition) << "its time is over";
    EXPECT_EQ(send(1.31, true).position[0], 1.31);
  }
}

// ---- Rotations -------------------------------------------------------------------------------

TEST(Rotations, OfEverySizeComeBackAsTheyWere) {
  for (const double size : {0.0, 1e-12, 1e-3, 0.0999, 0.1, 0.1001, 1.0, 3.1}) {
    const Vector3 turn = {size * 0.6, size * -0.48, size * 0.64};
    const Rotation q = FromTurn(turn);
    EXPECT_NEAR(q[0], std::cos(size / 2), 1e-10) << size;
    EXPECT_LT(Length(ToTurn(q) - turn), 1e-9) << size;
    EXPECT_LT(Length(ToTurn({-q[0], -q[1], -q[2], -q[3]}) - turn), 1e-9) << size;
  }
}

// ---- Bad input -------------------------------------------------------------------------------

const char* const kTexts[] = {"one-euro", "predict", "gate", "dropout", "rigid:tip-m=0.1/0/0"};

TEST(BadSamples, LeaveEveryFilterWithFiniteValidPosesAndNoAllocation) {
  struct Row {
    const char* name;
    void (*spoil)(PoseSample& sample);
  };
  constexpr Row kRows[] = {
      {"PositionNaN", [](PoseSample& s) { s.position[1] = kNaN; }},
      {"PositionInfinite", [](PoseSample& s) { s.position[2] = 1.0 / 0.0; }},
      {"PositionHuge", [](PoseSample& s) { s.position[2] = 1e308; }},
      {"QuaternionNaN", [](PoseSample& s) { s.orientation[3] = kNaN; }},
      {"QuaternionZero", [](PoseSample& s) { s.orientation = {}; }},
      {"QuaternionLong",
       [](PoseSample& s) {
         s.orientation = {0, 0, 0, 9};
       }},
      {"SameTime", [](PoseSample& s) { s.timeNs -= 10'000'000; }},
      {"TimeGoesBack", [](PoseSample& s) { s.timeNs -= 5'000'000'000; }},
      {"TimeAtItsEnds", [](PoseSample& s) { s.timeNs = 0; }},
      {"GapOfMinutes", [](PoseSample& s) { s.timeNs += 200'000'000'000; }},
      {"NothingValid", [](PoseSample& s) { s.hasPosition = s.hasOrientation = false; }},
  };
  for (const char* text : kTexts) {
    for (const Row& row : kRows) {
      SCOPED_TRACE(std::string(text) + " " + row.name);
      const auto filter = Make(text);
      PoseSample last;
      bool fine = true;
      const auto send = [&](PoseSample sample) {
        filter->FilterSample(sample);
        for (const double part : sample.position) {
          fine = fine && (!sample.hasPosition || std::isfinite(part));
        }
        const auto& q = sample.orientation;
        const double length = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
        fine = fine && (!sample.hasOrientation || std::abs(length - 1.0) < 1e-9);
        return sample;
      };
      const int allocations = AllocationsOf([&] {
        for (int i = 0; i < 10; ++i) send(HandAt(i * 0.01));
        PoseSample bad = HandAt(0.10);
        row.spoil(bad);
        send(bad);
        // Two seconds later nothing is left of it.
        for (int i = 11; i < 220; ++i) last = send(HandAt(i * 0.01));
      });
      EXPECT_EQ(allocations, 0);
      EXPECT_TRUE(fine);
      EXPECT_TRUE(last.hasPosition && last.hasOrientation);
      EXPECT_LT(Length(last.position - HandAt(2.19).position), 0.2);
    }
  }
}

TEST(BadSamples, AFilterThatBeginsAnewTakesTheSampleAsItIs) {
  for (const char* text : {"one-euro", "predict", "gate", "dropout"}) {
    for (const std::int64_t shift : {std::int64_t{-5'000'000'000}, std::int64_t{90'000'000'000}}) {
      const auto filter = Make(text);
      for (int i = 0; i < 100; ++i) {
        PoseSample sample = HandAt(i * 0.01);
        filter->FilterSample(sample);
      }
      PoseSample sample = HandAt(1.0);
      sample.timeNs += shift;
      sample.position = {7, 8, 9};
      EXPECT_TRUE(filter->FilterSample(sample));
      EXPECT_EQ(sample.position, (Vector3{7, 8, 9})) << text << " " << shift;
    }
  }
}

TEST(BadSamples, ASecondPoseOfOneMomentTeachesNothing) {
  for (const char* text : {"one-euro", "predict", "gate", "dropout:instead=extrapolate"}) {
    SCOPED_TRACE(text);
    const auto filter = Make(text);
    const auto spared = Make(text);
    for (int i = 0; i < 100; ++i) {
      PoseSample sample = HandAt(i * 0.01);
      PoseSample expected = sample;
      EXPECT_TRUE(filter->FilterSample(sample));
      EXPECT_TRUE(spared->FilterSample(expected));
      EXPECT_LT(Length(sample.position - expected.position), 1e-12) << i;
      EXPECT_LT(TurnBetween(sample.orientation, expected.orientation), 1e-9) << i;
      if (i % 10 != 5) continue;
      PoseSample again = HandAt(i * 0.01);
      for (double& part : again.position) part += 3e-4;
      again.orientation = again.orientation * FromTurn({0, 5e-4, 0});
      EXPECT_TRUE(filter->FilterSample(again));
    }
    PoseSample lost = HandAt(1.0);
    lost.hasPosition = lost.hasOrientation = false;
    EXPECT_TRUE(filter->FilterSample(lost));
    EXPECT_EQ(lost.hasPosition, std::string(text).starts_with("dropout"));
    if (!lost.hasPosition) continue;
    EXPECT_LT(Length(lost.position - HandAt(1.0).position), 0.005);
  }
}

TEST(BadSamples, APartThatIsBackIsTakenAsItIs) {
  for (const char* text : {"one-euro", "predict"}) {
    for (const bool positionIsLost : {true, false}) {
      SCOPED_TRACE(std::string(text) + (positionIsLost ? " position" : " orientation"));
      const auto filter = Make(text);
      for (int i = 0; i < 50; ++i) {
        PoseSample sample = HandAt(i * 0.01);
        filter->FilterSample(sample);
      }
      PoseSample lost = HandAt(0.50);
      (positionIsLost ? lost.hasPosition : lost.hasOrientation) = false;
      filter->FilterSample(lost);
      const Rotation turned = FromAngles({2.0, 1.0, 0.5});
      PoseSample back = SampleAt(0.51, {7, 8, 9}, turned);
      EXPECT_TRUE(filter->FilterSample(back));
      EXPECT_EQ(back.position == (Vector3{7, 8, 9}), positionIsLost);
      EXPECT_EQ(TurnBetween(back.orientation, turned) < 1e-9, !positionIsLost);
    }
  }
}

TEST(BadSamples, AResultThatIsNoNumberCostsNoLaterPose) {
  for (const char* text : {"one-euro", "predict"}) {
    const auto filter = Make(text);
    for (int i = 0; i < 50; ++i) {
      PoseSample sample = HandAt(i * 0.01);
      if (i == 10) sample.position[0] = 1e308;
      if (i == 11) sample.position[0] = -1e308;
      const PoseSample device = sample;
      const bool worked = filter->FilterSample(sample);
      EXPECT_TRUE(worked || i <= 13) << text << ' ' << i;
      EXPECT_TRUE(worked || sample.position == device.position) << text << ' ' << i;
    }
  }
}

TEST(BadSamples, TheGateComparesWithTheLastGoodPoseAcrossLostOnes) {
  const auto filter = Make("gate");
  const auto send = [&filter](double seconds, double x, bool valid) {
    PoseSample sample = SampleAt(seconds, {x, 0, 0});
    sample.hasPosition = sample.hasOrientation = valid;
    EXPECT_TRUE(filter->FilterSample(sample));
    return sample;
  };
  for (int i = 0; i < 10; ++i) send(i * 0.01, 0.5, true);
  EXPECT_FALSE(send(0.10, 0.0, false).hasPosition);
  EXPECT_EQ(send(0.11, 3.5, true).position[0], 0.5);
}

TEST(BadSamples, ADropoutHoldsNoPoseAcrossALongGap) {
  const auto filter = Make("dropout:time-s=1000");
  PoseSample valid = HandAt(0.0);
  EXPECT_TRUE(filter->FilterSample(valid));
  for (const double seconds : {5.0, 5.01}) {
    PoseSample lost = HandAt(seconds);
    lost.hasPosition = lost.hasOrientation = false;
    EXPECT_TRUE(filter->FilterSample(lost));
    EXPECT_FALSE(lost.hasPosition || lost.hasOrientation);
  }
}

TEST(BadSamples, AttributesOutOfRangeAreRefusedAndReadBack) {
  const auto filter = Make("gate");
  EXPECT_FALSE(filter->SetAttributeDouble(1, -1.0));
  EXPECT_FALSE(filter->SetAttributeDouble(1, kNaN));
  EXPECT_FALSE(filter->SetAttributeDouble(99, 1.0));
  EXPECT_FALSE(filter->SetAttributeInt(5, 2));
  EXPECT_TRUE(filter->SetAttributeInt(5, 1));
  int choice = 0;
  EXPECT_TRUE(filter->GetAttributeInt(5, &choice));
  EXPECT_EQ(choice, 1);
  float speed = 3.0F;
  EXPECT_TRUE(filter->SetAttributeFloatArray(1, 1, &speed));
  double read = 0.0;
  EXPECT_TRUE(filter->GetAttributeDouble(1, &read));
  EXPECT_EQ(read, 3.0);
  int count = 0;
  AttributeInfo rows[8];
  ASSERT_TRUE(filter->GetNumAvailableAttributes(&count));
  ASSERT_EQ(count, 7);
  ASSERT_TRUE(filter->GetAvailableAttributes(count, rows));
  EXPECT_STREQ(rows[5].name, "instead");
  EXPECT_EQ(rows[5].valueType, AttributeType::Number);
}

}  // namespace
}  // namespace kinetrel::test
