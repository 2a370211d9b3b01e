// Which poses of a moving sensor the gate holds back.
#include "devices/motion_gate.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

namespace kinetrel {
namespace {

constexpr double kPeriod = 1.0 / 120;  // s
constexpr double kDegrees = kRadiansPerDegree;

float Narrow(double value) { return static_cast<float>(value); }

// A place in cm and angles in radians.
MotionGate::Sample At(double time, double x, double y, double z, double azimuth, double elevation,
                      double roll) {
  const Pose pose = {Narrow(x),       Narrow(y),         Narrow(z),
                     Narrow(azimuth), Narrow(elevation), Narrow(roll)};
  return MotionGate::SampleOf(pose, 1, time);
}

// ---- Stories -------------------------------------------------------------------------------

constexpr int kLeadIn = 30;  // records, before the script

// A circle of 30 cm and 20 degrees of roll, once a second.
MotionGate::Sample OnCircle(double step) {
  const double turned = 2 * kPi * step * kPeriod;
  return At(step * kPeriod, 30 * std::cos(turned), 30 * std::sin(turned), 20, turned, 0,
            0.35 * std::cos(turned));
}

// One letter for each record: '.' as the sensor moves, '-' lost, 'l' read 2 ms late, 'b' together
// with the next one, 'x' damaged by 5 cm, 'd' by 4 mm, 'j' 10 cm away from where it would be, 's'
// as the last one, 't' with the rotation of a third of a step later, 'p' after a pause of 0.6 s,
// 'f' after Forget. What the gate accepts is a '.', what it holds back an 'x'.
struct Story {
  const char* name;
  std::string records;
  std::string verdicts;
};

class MotionGateStories : public testing::TestWithParam<Story> {};

TEST_P(MotionGateStories, AreToldRight) {
  MotionGate gate;
  const MotionGate::Source source{kPeriod, 0, 0};
  for (int i = 0; i < kLeadIn; ++i) EXPECT_TRUE(gate.Accept(OnCircle(i), source)) << i;
  double step = kLeadIn - 1;
  double stopped = 0;
  std::string verdicts;
  for (const char kind : GetParam().records) {
    step += kind == 'p' ? 0.6 / kPeriod : 1;
    if (kind == '-') continue;
    if (kind == 's') stopped += 1;
    MotionGate::Sample sample = OnCircle(step - stopped);
    sample.time = step * kPeriod + (kind == 'l' ? 0.002 : kind == 'b' ? 0.99 * kPeriod : 0);
    const auto axis = static_cast<std::size_t>(step) % 3;
    const auto moveBy = [&](double length) { sample.position[axis] += Narrow(length); };
    if (kind == 'x') moveBy(5);
    if (kind == 'd') moveBy(0.4);
    if (kind == 'j' || kind == 'p' || kind == 'f') sample.position[0] += 10;
    if (kind == 't') sample.rotation = OnCircle(step + 0.33).rotation;
    if (kind == 'f') gate.Forget();
    verdicts += gate.Accept(sample, source) ? '.' : 'x';
  }
  EXPECT_EQ(verdicts, GetParam().verdicts);
}

INSTANTIATE_TEST_SUITE_P(
    Of, MotionGateStories,
    testing::Values(Story{"DamagedRecords", ".x....x.x..", ".x....x.x.."},
                    Story{"DamageRightAfterALostRecord", ".x.-x....", ".x.x...."},
                    Story{"DamageSoonAfterALostRecord", "..-..x....", "....x...."},
                    Story{"LittleDamageToACleanLine", "..d..d..", "........"},
                    Story{"LittleDamageToADamagedLine", ".x..d..d..-.d..", ".x..x..x...x.."},
                    Story{"LostRecords", ".x.-....--.....", ".x.........."},
                    Story{"RecordsReadLate", ".x.l..l.l.x..", ".x........x.."},
                    Story{"RecordsReadTogether", ".x.b..b.x..", ".x......x.."},
                    Story{"AJumpCostsOneRecord", "..jjjj", "..x..."},
                    Story{"AStopOnADamagedLineCostsOneRecord", ".x..ssss", ".x..x..."},
                    Story{"TheRotationOfAnotherMoment", ".x..t...", ".x..x..."},
                    Story{"FiveDamagedInARow", ".x..xxxxxx", ".x..xxxxx."},
                    Story{"AfterAPause", "..p", "..."}, Story{"AfterForget", "..f", "..."}),
    [](const auto& row) { return std::string(row.param.name); });

// ---- Honest motions ------------------------------------------------------------------------

constexpr double kFast = 500;              // cm/s
constexpr double kTurn = 1500 * kDegrees;  // a second
constexpr double kSwing = 30;              // cm
constexpr double kNod = 60 * kDegrees;

std::minstd_rand& Random() {
  static std::minstd_rand random;
  return random;
}

double Noise(double deviation) { return std::normal_distribution<double>(0, deviation)(Random()); }

// From 0 to 1 in 0.25 s as a hand moves; then it rests.
double Reach(double time) {
  const double part = std::clamp(time / 0.25, 0.0, 1.0);
  return part * part * part * (10 - 15 * part + 6 * part * part);
}

struct HonestMotion {
  const char* name;
  MotionGate::Sample (*at)(double time);
};

const HonestMotion kMotions[] = {
    {"Rest", [](double t) { return At(t, 40, 0, 20, 1, 0, 0); }},
    {"Noise",
     [](double t) {
       return At(t, 40 + Noise(0.2), Noise(0.2), 20 + Noise(0.2), Noise(0.01), Noise(0.01),
                 Noise(0.01));
     }},
    {"CircleOf5MetresPerSecond",
     [](double t) {
       const double turned = t * kFast / kSwing;
       return At(t, kSwing * std::cos(turned), kSwing * std::sin(turned), 20, turned, 0, 0);
     }},
    {"SwingOf5MetresPerSecond",
     [](double t) { return At(t, kSwing * std::sin(t * kFast / kSwing), 0, 20, 0, 0, 0); }},
    {"SpinOf1500Degrees", [](double t) { return At(t, 40, 0, 20, t * kTurn, 0, 0); }},
    {"NodOf1500Degrees",
     [](double t) { return At(t, 40, 0, 20, 0, kNod * std::sin(t * kTurn / kNod), 0); }},
    {"ReachesAndRests",
     [](double t) {
       const double round = std::fmod(t, 1.0);
       const double gone = Reach(round) - Reach(round - 0.5);
       return At(t, 60 * gone, 0, 20, gone, 0, -gone);
     }},
    {"StopsAtOnce",
     [](double t) {
       const double round = std::fmod(t, 1.0);
       const double gone = std::min(Reach(round), 0.5) - 0.5 * Reach(round - 0.5);
       return At(t, 60 * gone, 0, 20, gone, 0, 0);
     }},
    {"QuaternionsOfBothSigns",
     [](double t) {
       MotionGate::Sample sample = At(t, 40, 0, 20, t, 0, 0);
       if (std::fmod(t, 0.2) < 0.1) {
         for (float& part : sample.rotation) part = -part;
       }
       return sample;
     }},
};

// When the records of a line were measured, and when they were read.
struct Record {
  double measured;
  double read;
};

struct Line {
  const char* name;
  double period;  // s, as the driver tells it
  Record (*next)(int number, const Record& last);
};

double Share() { return std::uniform_real_distribution<double>(0, 1)(Random()); }

Record After(const Record& last, double seconds) {
  const double measured = last.measured + seconds;
  return {measured, measured + 0.0003 * Share()};
}

const Line kLines[] = {
    {"240Hz", 1 / 240.0, [](int, const Record& last) { return After(last, 1 / 240.0); }},
    {"120Hz", 1 / 120.0, [](int, const Record& last) { return After(last, 1 / 120.0); }},
    {"FourStations", 1 / 30.0, [](int, const Record& last) { return After(last, 1 / 30.0); }},
    // The line carries fewer records than the unit measures.
    {"Thin", 1 / 240.0,
     [](int number, const Record& last) {
       constexpr int kCycles[] = {1, 2, 1, 1, 3, 2, 4};
       return After(last, kCycles[number % 7] / 240.0);
     }},
    {"LostRecords", 1 / 120.0,
     [](int, const Record& last) { return After(last, (Share() < 0.2 ? 2 : 1) / 120.0); }},
    {"Polled", 1 / 100.0,
     [](int, const Record& last) { return After(last, 0.01 + 0.01 * Share()); }},
    {"ReadInBursts", 1 / 120.0,
     [](int number, const Record& last) {
       const Record next = After(last, 1 / 120.0);
       return Record{next.measured, next.measured + (3 - number % 4) / 120.0};
     }},
    {"Gaps", 1 / 120.0,
     [](int number, const Record& last) {
       return After(last, number % 50 == 0 ? 0.3 : number % 75 == 0 ? 0.6 : 1 / 120.0);
     }},
};

struct HonestRow {
  HonestMotion motion;
  Line line;
};

std::vector<HonestRow> HonestRows() {
  std::vector<HonestRow> rows;
  for (const HonestMotion& motion : kMotions) {
    for (const Line& line : kLines) rows.push_back({motion, line});
  }
  return rows;
}

class HonestMotions : public testing::TestWithParam<HonestRow> {};

TEST_P(HonestMotions, AreNeverHeldBack) {
  MotionGate gate;
  Random().seed(1);
  Record record{};
  int held = 0;
  for (int i = 1; i <= 3000; ++i) {
    record = GetParam().line.next(i, record);
    MotionGate::Sample sample = GetParam().motion.at(record.measured);
    sample.time = record.read;
    held += gate.Accept(sample, {GetParam().line.period, 0, 0}) ? 0 : 1;
  }
  EXPECT_EQ(held, 0);
}

INSTANTIATE_TEST_SUITE_P(Of, HonestMotions, testing::ValuesIn(HonestRows()), [](const auto& row) {
  return std::string(row.param.motion.name) + "On" + row.param.line.name;
});

// Noise widens the bound of a damaged line, and a rest narrows it again.
TEST(MotionGate, LearnsTheNoiseOfASensor) {
  MotionGate gate;
  const MotionGate::Source source{kPeriod, 0, 0};
  int count = 0;
  const auto next = [&](double noise, double away) {
    return At(++count * kPeriod, Noise(noise), Noise(noise), 30 + away, 0, 0, 0);
  };
  const auto passes = [&](double away) {
    MotionGate asked = gate;
    EXPECT_FALSE(asked.Accept(next(0, 50), source));
    EXPECT_TRUE(asked.Accept(next(0, 0), source));
    return asked.Accept(next(0, away), source);
  };
  for (int i = 0; i < 500; ++i) EXPECT_TRUE(gate.Accept(next(0.2, 0), source)) << i;
  EXPECT_TRUE(passes(0.3));
  EXPECT_FALSE(passes(8));
  for (int i = 0; i < 100; ++i) gate.Accept(next(0, 0), source);
  EXPECT_FALSE(passes(0.3));
}

}  // namespace
}  // namespace kinetrel
