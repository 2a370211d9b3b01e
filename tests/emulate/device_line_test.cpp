// The line's speed and the faults that strike on it, by a clock of the test's own.
#include "emulate/device_line.h"

#include <gtest/gtest.h>

#include <cmath>

#include "tests/emulate/device_bench.h"

namespace kinetrel::test {
namespace {

// Sends a record of twenty letters every 100 ms, the n-th of the n-th letter.
class Beacon final : public EmulatedDevice {
 public:
  std::string Name() const override { return "beacon"; }
  void PowerOn(Moment now, DeviceLine&) override { start_ = now, sent_ = 0; }
  void Receive(Moment now, std::span<const std::byte> bytes, DeviceLine& line) override {
    line.SendReply(now, bytes);
  }
  Moment NextEvent() const override { return NthOf(start_, sent_ + 1, 10); }
  void OnEvent(Moment now, DeviceLine& line) override {
    line.SendRecord(now, AsBytes(std::string(20, static_cast<char>('a' + sent_++ % 26))));
  }

 private:
  Moment start_{0};
  std::uint64_t sent_ = 0;
};

DeviceBench BeaconAt(LineOptions options) {
  return DeviceBench(std::make_unique<Beacon>(), std::move(options));
}

// ---- Speed -------------------------------------------------------------------------------------

TEST(DeviceLine, BytesLeaveAtTenBitsEachInPieces) {
  DeviceBench bench = BeaconAt({1000});  // a byte in 10 ms
  const auto pieces = bench.Watch(milliseconds(300));
  ASSERT_EQ(pieces.size(), 3U);
  EXPECT_EQ(pieces[0].when, milliseconds(180));
  EXPECT_EQ(pieces[0].bytes, std::string(8, 'a'));
  EXPECT_EQ(pieces[1].when, milliseconds(260));
  EXPECT_EQ(pieces[2].when, milliseconds(300));  // the end of a record waits for nothing
  EXPECT_EQ(pieces[2].bytes, std::string(4, 'a'));
}

// A process that is stopped (Ctrl-Z) and continued: the devices' time goes on from where it was.
// Once the ticks of a stop of 9.2 s overflowed, and the time stood still for good.
TEST(EmulatorClock, GoesOnAfterAnyHalt) {
  for (const std::int64_t ticksPerSecond : {1'000'000'000LL, 10'000'000LL}) {
    EmulatorClock clock(12'345 * ticksPerSecond, ticksPerSecond);
    std::int64_t ticks = 12'345 * ticksPerSecond;
    const auto after = [&](double time) {
      return clock.At(ticks +=
                      static_cast<std::int64_t>(time * static_cast<double>(ticksPerSecond)));
    };
    Moment last = after(0.5);
    EXPECT_EQ(last, milliseconds(500));
    for (const double halt : {1.5, 9.3, 60.0, 86'400.0, 31'536'000.0}) {
      EXPECT_EQ(after(halt), last) << halt;
      EXPECT_EQ(after(0.25), last + milliseconds(250)) << halt;
      last += milliseconds(250);
    }
  }
}

// Each record is late by chance, none is too early or overtakes another.
TEST(DeviceLine, JitterHasItsSpread) {
  LineOptions options{115'200};
  options.jitter = milliseconds(2);
  options.whole = true;
  DeviceBench bench = BeaconAt(options);
  const auto pieces = bench.Watch(std::chrono::seconds(400));
  ASSERT_GT(pieces.size(), 3900U);
  double sum = 0, squares = 0;
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    ASSERT_EQ(pieces[i].bytes[0], static_cast<char>('a' + i % 26));
    const double late = static_cast<double>((pieces[i].when % milliseconds(100)).count()) * 1e-6;
    sum += late;
    squares += late * late;
  }
  const double mean = sum / static_cast<double>(pieces.size());
  EXPECT_NEAR(std::sqrt(squares / static_cast<double>(pieces.size()) - mean * mean), 2, 0.1);
}

TEST(EmulatorClock, IsFasterByItsDrift) {
  EmulatorClock clock(0, 1'000'000'000, 100);
  Moment now{0};
  for (std::int64_t i = 1; i <= 7200; ++i) now = clock.At(i * 500'000'000);
  EXPECT_EQ(now, std::chrono::seconds(3600) + milliseconds(360));
}

// ---- Faults ------------------------------------------------------------------------------------

struct FaultCase {
  const char* name;
  std::vector<const char*> rules;
  std::string received;  // in 450 ms, four records; a byte that is noise is shown as ?
};

class Faults : public testing::TestWithParam<FaultCase> {};

std::string Letters(std::string_view counts) {
  std::string text;
  for (std::size_t i = 0; i + 1 < counts.size(); i += 2) {
    text += std::string(static_cast<std::size_t>(counts[i + 1] - '0') * 2, counts[i]);
  }
  return text;
}

TEST_P(Faults, OccurWhereTheRulesSay) {
  LineOptions options{19200};
  for (const char* const rule : GetParam().rules) options.faults.push_back(*ParseFaultRule(rule));
  std::string got = BeaconAt(options).Collect(milliseconds(450));
  for (char& byte : got) byte = byte >= 'a' && byte <= 'd' ? byte : '?';
  EXPECT_EQ(got, GetParam().received);
}

const std::string kAll = Letters("a5a5b5b5c5c5d5d5");

INSTANTIATE_TEST_SUITE_P(
    Line, Faults,
    testing::Values(FaultCase{"None", {}, kAll},
                    FaultCase{"CutByRecord", {"cut@#2"}, Letters("a5a5b5c5c5d5d5")},
                    FaultCase{"CutTo", {"cut:4@/#2"}, Letters("a5a5b2c5c5d2")},
                    FaultCase{"Noise", {"noise:4@0.35s"}, Letters("a5a5b5b5c5c5?2d5d5")},
                    FaultCase{"NoiseAgain", {"noise:2@/0.15s"}, Letters("a5a5?1b5b5?1c5c5d5d5")},
                    FaultCase{"Silence", {"silence:0.1@0.18s"}, Letters("a5a5c5c5d5d5")},
                    FaultCase{"AlwaysByChance", {"cut:2@100%"}, Letters("a1b1c1d1")}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(Faults, BadRulesAreRefused) {
  for (const char* const text :
       {"",        "cut",      "@5s",       "cut@",         "cut@5",        "cut@-1s",
        "cut@/0s", "cut@#0",   "cut@#1.5",  "cut@/#0",      "cut@101%",     "cut@nan%",
        "cut:@5s", "cut:x@5s", "cut:-1@5s", "restart:1@5s", "noise:1e9@5s", "silence:inf@5s",
        "fire@5s", "cut@usr3"}) {
    EXPECT_FALSE(ParseFaultRule(text)) << text;
  }
  EXPECT_EQ(ParseFault("error:A")->argument, 65);
  EXPECT_EQ(ParseFault("error:7")->argument, 7);
}

}  // namespace
}  // namespace kinetrel::test
