// The distortion map: what it does to a bent tracker, and which tables it refuses.
#include "filters/distortion_map.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "filters/rigid_fit.h"
#include "tests/filters/filter_motion.h"
#include "tests/support/allocation_counter.h"

namespace kinetrel::test {
namespace {

// The field of a room of 2 x 2 x 1.6 m, from -1 to 1: metal beyond one corner and under the floor
// bends positions by up to 50 mm and orientations by up to 3 degrees.
Vector3 BendAt(const Vector3& truth) {
  const auto pull = [&truth](const Vector3& metal, double strength) {
    const Vector3 off = metal - truth;
    return strength / (0.3 + Dot(off, off)) * off;
  };
  const Vector3 bend = pull({1.6, 1.4, 0.2}, 1.0) + pull({-0.4, 0.2, -1.6}, 0.7);
  return 0.065 * bend;
}

PosePair PairAt(const Vector3& truth, Noise& noise) {
  const Vector3 bend = BendAt(truth);
  const Rotation orientation = FromAngles({2.0 * truth[0], 0.5 * truth[1], truth[2]});
  PoseSample sample = SampleAt(0.0, truth + bend, FromTurn(bend) * orientation);
  noise.On(sample);
  return {sample.position, truth, sample.orientation, orientation, 0, ""};
}

// 5 x 5 x 8 points at a little random places about a grid, as an operator touches them.
PosePairTable Grid(Noise& noise, int alongX = 5, int alongY = 5, int alongZ = 8,
                   double jitter = 0.03) {
  std::mt19937 random(3);
  std::uniform_real_distribution<double> off(-jitter, jitter);
  PosePairTable table;
  table.hasOrientations = true;
  for (int i = 0; i < alongX * alongY * alongZ; ++i) {
    const auto part = [](int at, int of) { return of > 1 ? 2.0 * at / (of - 1) - 1.0 : 0.0; };
    const Vector3 truth = {part(i % alongX, alongX) + off(random),
                           part(i / alongX % alongY, alongY) + off(random),
                           0.8 * part(i / alongX / alongY, alongZ) + off(random)};
    table.pairs.push_back(PairAt(truth, noise));
    table.pairs.back().line = i + 2;
  }
  return table;
}

class TableFile {
 public:
  explicit TableFile(const PosePairTable& table) {
    std::ofstream file(path_);
    WritePosePairs(file, table);
  }
  ~TableFile() { std::remove(path_.c_str()); }
  const std::string& path() const { return path_; }

 private:
  std::string path_ = testing::TempDir() + "kinetrel-map-" +
                      std::to_string(std::chrono::steady_clock::now().time_since_epoch().count());
};

TEST(Distortion, OfFiftyMillimetresIsReducedBelowTwoInsideTheGrid) {
  Noise noise(5e-4, 0.05);
  const TableFile file(Grid(noise));
  std::mt19937 random(11);
  std::uniform_real_distribution<double> within(-0.97, 0.97);
  for (const char* model : {"", ",model=polynomial", ",model=polynomial,degree=4"}) {
    SCOPED_TRACE(model);
    const auto filter = Make("map:file=" + file.path() + model);
    Rms before, after, turnBefore, turnAfter;
    double largest = 0.0;
    for (int i = 0; i < 2000; ++i) {
      const Vector3 truth = {within(random), within(random), 0.8 * within(random)};
      Noise none(0.0, 0.0);
      const PosePair pair = PairAt(truth, none);
      PoseSample sample = SampleAt(i * 0.01, pair.measured, pair.measuredOrientation);
      ASSERT_EQ(AllocationsOf([&] { filter->FilterSample(sample); }), 0);
      before.Add(Length(pair.measured - truth));
      after.Add(Length(sample.position - truth));
      largest = std::max(largest, Length(pair.measured - truth));
      turnBefore.Add(TurnBetween(pair.measuredOrientation, pair.trueOrientation));
      turnAfter.Add(TurnBetween(sample.orientation, pair.trueOrientation));
    }
    EXPECT_NEAR(largest, 0.050, 0.01) << "the bend of this test";
    EXPECT_LT(after.Value(), 0.002);
    EXPECT_LT(turnAfter.Value(), 0.1 * turnBefore.Value());
    // What it says of itself is true: the noise of a left-out point and the error of the map.
    double said = 0.0;
    ASSERT_TRUE(filter->GetAttributeDouble(2, &said));
    const double expected = std::hypot(after.Value(), 5e-4 * std::sqrt(3.0));
    EXPECT_GT(said, 0.7 * expected);
    EXPECT_LT(said, 2.0 * expected);
  }
}

TEST(Distortion, TablesThatCannotMakeAMapAreRefusedWithTheReason) {
  Noise noise(5e-4, 0.05);
  const auto straight = [](PosePairTable table) {
    Noise again(5e-4, 0.05);
    for (PosePair& pair : table.pairs) {
      PoseSample sample = SampleAt(0.0, pair.truth, pair.trueOrientation);
      again.On(sample);
      pair.measured = sample.position;
    }
    return table;
  };
  const auto twice = [](PosePairTable table) {
    for (std::size_t i = 0; i + 1 < table.pairs.size(); i += 2) table.pairs[i + 1] = table.pairs[i];
    return table;
  };
  struct Row {
    const char* name;
    PosePairTable table;
    const char* reason;  // of both models; empty: the map is made
    const char* polynomialReason;
  };
  for (const Row& row : {
           Row{"Enough", Grid(noise), "", ""},
           Row{"None", {}, "at least 8 points; there are 0", "at least 8 points"},
           Row{"OneLine", Grid(noise, 1, 1, 50, 1e-3), "in one plane", "in one plane"},
           Row{"Eight", Grid(noise, 2, 2, 2), "needs 12 to 1000 points; there are 8",
               "degree 3 needs at least 40 points; there are 8"},
           Row{"OneLevel", Grid(noise, 10, 10, 1, 1e-3), "in one plane", "in one plane"},
           Row{"ThreeLevels", Grid(noise, 6, 6, 3, 1e-3), "",
               "do not determine a polynomial of degree 3"},
           Row{"TooMany", Grid(noise, 11, 10, 10), "needs 12 to 1000 points", ""},
           Row{"AllTwice", twice(Grid(noise)), "most points are twice", ""},
           Row{"NotBent", straight(Grid(noise)), "would not make the poses better",
               "would not make the poses better"},
       }) {
    SCOPED_TRACE(row.name);
    std::string error;
    const auto hardy = DistortionMap::Fit(row.table, MapModel::Multiquadric, 3, error);
    EXPECT_EQ(hardy != nullptr, *row.reason == '\0') << error;
    EXPECT_NE(error.find(row.reason), std::string::npos) << error;
    error.clear();
    const auto polynomial = DistortionMap::Fit(row.table, MapModel::Polynomial, 3, error);
    EXPECT_EQ(polynomial != nullptr, *row.polynomialReason == '\0') << error;
    EXPECT_NE(error.find(row.polynomialReason), std::string::npos) << error;
  }
}

TEST(Distortion, APointThatWasMistypedIsNamed) {
  Noise noise(5e-4, 0.05);
  PosePairTable table = Grid(noise);
  table.pairs[70].truth[1] += 0.2;
  std::string error;
  const auto map = DistortionMap::Fit(table, MapModel::Multiquadric, 3, error);
  ASSERT_NE(map, nullptr) << error;
  EXPECT_EQ(map->report().worstLine, 72);
}

TEST(Distortion, LeavingTheVolumeIsLoggedOnceAndCorrectedAsAtTheBorder) {
  Noise noise(0.0, 0.0);
  const TableFile file(Grid(noise));
  const auto filter = Make("map:file=" + file.path());
  StatusLog log;
  filter->SetStatusLog(&log);
  const auto lines = [&log] {
    int count = 0;
    for (const StatusEntry& entry : log.Entries()) {
      count += entry.text.find("Sensor 1 is outside") != std::string::npos ? 1 : 0;
    }
    return count;
  };
  double now = 0.0;
  const auto send = [&](double seconds, double x) {
    PoseSample sample;
    for (const double end = now + seconds; now < end; now += 0.01) {
      sample = SampleAt(now, {x, 0.1, 0.1});
      EXPECT_TRUE(filter->FilterSample(sample));
    }
    return sample;
  };
  send(0.5, 0.0);
  EXPECT_EQ(lines(), 0);
  const double border = send(0.1, 1.5).position[0] - 1.5;
  EXPECT_EQ(lines(), 1);
  EXPECT_NEAR(send(5.0, 9.0).position[0] - 9.0, border, 1e-9);
  for (int i = 0; i < 20; ++i) send(0.1, i % 2 == 0 ? 0.0 : 9.0);
  EXPECT_EQ(lines(), 1) << "it only trembles on the border";
  send(2.0, 0.0);
  send(0.1, -9.0);
  EXPECT_EQ(lines(), 2);
  PoseSample lost = SampleAt(now, {});
  lost.hasPosition = false;
  EXPECT_FALSE(filter->FilterSample(lost)) << "an orientation alone cannot be corrected";
}

TEST(Distortion, TablesOfOtherProgramsAreReadAndMistakesNameTheirLine) {
  constexpr const char* kTitle =
      "note;true_z_m;true_y_m;true_x_m;measured_x_m;measured_y_m;measured_z_m\r\n";
  PosePairTable table;
  std::string error;
  const auto read = [&](const std::string& text) {
    std::istringstream from(text);
    return ReadPosePairs(from, PoseColumns::MeasuredAndTrue, table, error);
  };
  ASSERT_TRUE(read("\xEF\xBB\xBF# a board\n" + std::string(kTitle) +
                   "\"left\";3;2;1; 1.5;-2e-1;\"3\"\r\n\n"))
      << error;
  ASSERT_EQ(table.pairs.size(), 1U);
  EXPECT_EQ(table.pairs[0].truth, (Vector3{1, 2, 3}));
  EXPECT_EQ(table.pairs[0].measured, (Vector3{1.5, -0.2, 3}));
  EXPECT_EQ(table.pairs[0].line, 3);
  EXPECT_FALSE(table.hasOrientations);
  struct Row {
    std::string text;
    const char* reason;
  };
  for (const Row& row : {
           Row{"", "it is empty"},
           Row{"x,y,z\n1,2,3\n", "line 1: there is no column measured_x_m"},
           Row{std::string(kTitle) + "a;1;2;3;4;5\n", "line 2: it has 6 columns in place of 7"},
           Row{std::string(kTitle) + "a;1;2;3;4;5;0,5\n", "line 2: \"0,5\" is not a number"},
           Row{std::string(kTitle) + "a;1;2;3;4;nan;5\n", "line 2: \"nan\" is not a number"},
           Row{std::string(kTitle) + "a;1;2;3;4;1e9;5\n", "line 2: \"1e9\" is not a number"},
           Row{std::string(kTitle) + "a;1;2;3;4;;5\n", "line 2: \"\" is not a number"},
           Row{"true_roll_deg,measured_x_m,measured_y_m,measured_z_m,true_x_m,true_y_m,true_z_m\n",
               "line 1: there is no column true_azimuth_deg"},
       }) {
    EXPECT_FALSE(read(row.text)) << row.text;
    EXPECT_EQ(error.find(row.reason), 0U) << error;
  }
}

}  // namespace
}  // namespace kinetrel::test
