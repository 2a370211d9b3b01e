#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <functional>
#include <limits>
#include <optional>

#include "platform/clock.h"
#include "publish/shared_track_reader.h"
#include "publish/shared_track_writer.h"
#include "tests/support/elapsed.h"
#include "tests/support/free_slot.h"
#include "tests/support/peer.h"

namespace kinetrel::test {
namespace {

constexpr Milliseconds kLong{20000};
constexpr Milliseconds kShort{50};
constexpr Milliseconds kNow{0};

// A device number of this test's own, and commands to peers that name it.
class SharedTracks : public testing::Test {
 protected:
  int device() const { return slot_.device(); }
  std::string Writer(int bins) const {
    return "writer " + std::to_string(device()) + " " + std::to_string(bins);
  }
  std::string Reader(int bin) const {
    return "reader " + std::to_string(device()) + " " + std::to_string(bin);
  }
  int ObjectsInSystem() const {
    int there = 0;
    for (int bin = 0; bin < kSharedBins; ++bin) {
      there += InSystem(BlockName(device(), bin)) + InSystem(MutexName(device(), bin)) +
               InSystem(EventName(device(), bin));
    }
    return there;
  }

 private:
  FreeSlot slot_;
};

bool PublishOne(SharedTrackMemory& bins, int frame = 0) {
  return bins.Lock(kLong) && bins.Publish(frame) && bins.Unlock();
}

class OpenWriter : public SharedTracks {
 protected:
  void SetUp() override { ASSERT_TRUE(writer_.OpenAll()); }
  SharedTrackWriter writer_{device(), 2};
};

// ---- Writers and readers come and go ----------------------------------------------------------

TEST_F(SharedTracks, ReaderMayComeFirst) {
  SharedTrackReader reader(device());
  ASSERT_TRUE(reader.OpenOnly(0));
  EXPECT_EQ(reader.block()->reserved, -1);
  EXPECT_EQ(reader.block()->writerPresent, 0);
  EXPECT_EQ(reader.block()->frameCount, 0);
  ASSERT_TRUE(reader.Lock(kLong));
  reader.block()->frameCount = 5;
  reader.block()->sensorMask = 9;
  reader.Unlock();

  Peer writer;
  EXPECT_EQ(writer.Ask(Writer(1)), "done");
  EXPECT_EQ(reader.block()->writerPresent, 1);
  EXPECT_EQ(reader.block()->frameCount, 0);
  EXPECT_EQ(reader.block()->sensorMask, 0U);
  writer.Ask("publish 0 0");
  EXPECT_EQ(reader.block()->frameCount, 1);
  writer.Ask("close");
  EXPECT_EQ(reader.block()->writerPresent, 0);
  EXPECT_EQ(reader.block()->frameCount, 1) << "the last data stay";
}

TEST_F(SharedTracks, ReaderStaysWhenTheWriterIsKilledAndComesBack) {
  SharedTrackReader reader(device());
  ASSERT_TRUE(reader.OpenOnly(0));
  {
    Peer writer;
    writer.Ask(Writer(1));
    for (int frame = 1; frame <= 10; ++frame) writer.Ask("publish 0 0");
    EXPECT_TRUE(reader.WaitForFrame(9, kNow));
    EXPECT_EQ(writer.Ask("lockbin 0"), "yes");
    writer.Kill();
  }
  Peer again;
  EXPECT_EQ(again.Ask(Writer(1)), "done") << "a dead writer is not a rival";
  EXPECT_EQ(reader.block()->frameCount, 0);
  EXPECT_FALSE(reader.WaitForFrame(10, kLong)) << "at once: a new writer counts from 0";
  again.Ask("publish 0 0");
  EXPECT_TRUE(reader.WaitForFrame(0, kLong));
}

TEST_F(OpenWriter, PublicationGoesOnWhenAReaderIsKilledWithTheMutex) {
  for (int round = 0; round < 3; ++round) {
    Peer reader;
    ASSERT_EQ(reader.Ask(Reader(0)), "done");
    ASSERT_EQ(reader.Ask("lockbin 0"), "yes");
    EXPECT_FALSE(writer_.Lock(kNow));
    reader.Kill();
    EXPECT_TRUE(PublishOne(writer_));
  }
  EXPECT_EQ(writer_.block()->frameCount, 3);
}

TEST_F(SharedTracks, ReinitialiseWhatKilledProcessesLeft) {
  {
    Peer writer;
    writer.Ask(Writer(1));
    writer.Ask("publish 0 41");
    writer.Kill();
  }
  SharedTrackReader reader(device());
  ASSERT_TRUE(reader.OpenOnly(0));
  EXPECT_EQ(reader.block()->frameCount, 0);
  EXPECT_EQ(reader.block()->writerPresent, 0);
}

TEST_F(SharedTracks, TwoWritersOfOneDeviceAreRivals) {
  Peer first;
  Peer second;
  EXPECT_EQ(first.Ask(Writer(16)), "done");
  EXPECT_EQ(second.Ask(Writer(1)), "rival");
  first.Kill();
  second.Ask("close");
  EXPECT_EQ(second.Ask(Writer(1)), "done");
}

TEST_F(SharedTracks, OpenSixteenBinsAndLeaveNoneBehind) {
  SharedTrackWriter writer(device(), 16);
  ASSERT_TRUE(writer.OpenAll());
  EXPECT_TRUE(writer.OpenAll());
  EXPECT_EQ(ObjectsInSystem(), 48);
  std::deque<Peer> readers(16);
  for (int bin = 0; bin < 16; ++bin) {
    Peer& reader = readers[static_cast<std::size_t>(bin)];
    ASSERT_EQ(reader.Ask(Reader(bin)), "done");
    ASSERT_EQ(writer.SelectBin(bin), bin);
    EXPECT_TRUE(PublishOne(writer, 100 + bin));
    EXPECT_EQ(reader.Ask("count"), std::to_string(100 + bin));
  }
  writer.CloseAll();
  EXPECT_EQ(ObjectsInSystem(), 48) << "the readers still have them";
  for (Peer& reader : readers) reader.Ask("close");
  EXPECT_EQ(ObjectsInSystem(), 0);
}

TEST_F(SharedTracks, ReaderAndWriterMayOpenAndCloseAtTheSameMoment) {
  const std::string place = UniqueName("place");
  const Result<NamedMemory> held = NamedMemory::Open(place, sizeof(int));
  Peer writer;
  Peer reader;
  const std::string rest = std::to_string(device()) + " 500 " + place;
  writer.Tell("collide writer " + rest);
  reader.Tell("collide reader " + rest);
  EXPECT_EQ(writer.Answer(), "done");
  EXPECT_EQ(reader.Answer(), "done");
}

// ---- The operations on a bin ------------------------------------------------------------------

TEST_F(SharedTracks, DoNothingOnWhatIsClosed) {
  SharedTrackWriter writer(device(), 2);
  EXPECT_FALSE(writer.Lock(kForever));
  EXPECT_FALSE(writer.Unlock());
  EXPECT_FALSE(writer.Publish(0));
  EXPECT_FALSE(writer.WaitForFrame(0, kForever));
  EXPECT_EQ(writer.block(), nullptr);
  EXPECT_FALSE(writer.CloseAll());

  ASSERT_TRUE(writer.OpenAll());
  EXPECT_EQ(writer.SelectBin(1), 1);
  for (const int bin : {2, 16, -1}) EXPECT_EQ(writer.SelectBin(bin), 1) << bin;
  EXPECT_TRUE(writer.Unlock()) << "not locked: nothing to do";
  writer.CloseAll();
  EXPECT_FALSE(writer.Lock(kForever));
}

TEST_F(SharedTracks, ABinThatCannotBeOpenedIsNeverTheCurrentOne) {
  const Result<NamedMemory> inTheWay = NamedMemory::Open(BlockName(device(), 0), 8);
  SharedTrackWriter writer(device(), 3);
  ASSERT_TRUE(writer.OpenAll());
  EXPECT_EQ(writer.failure().error, Error::Invalid) << "although later bins opened";
  EXPECT_EQ(writer.SelectBin(0), 1);
  EXPECT_TRUE(PublishOne(writer));
  EXPECT_EQ(writer.SelectBin(2), 2);
}

TEST_F(OpenWriter, HoldAtMostOneMutexAndNeverTwice) {
  Peer first;
  Peer second;
  first.Ask(Reader(0));
  second.Ask(Reader(1));

  EXPECT_TRUE(writer_.Lock(kNow));
  EXPECT_TRUE(writer_.Lock(kNow));
  EXPECT_TRUE(writer_.locked());
  EXPECT_EQ(first.Ask("waitframe 0 0"), "no");
  EXPECT_TRUE(writer_.Unlock());
  EXPECT_FALSE(writer_.locked());
  EXPECT_TRUE(writer_.Unlock());

  EXPECT_TRUE(writer_.Lock(kNow));
  writer_.SelectBin(1);
  EXPECT_TRUE(writer_.Lock(kNow));
  EXPECT_EQ(first.Ask("lockbin 0"), "yes");
  EXPECT_EQ(second.Ask("lockbin 0"), "no");
  first.Kill();
  writer_.CloseAll();
  EXPECT_EQ(second.Ask("lockbin 0"), "yes") << "closing gives the mutex back";
}

TEST_F(OpenWriter, PublishCountsAndDates) {
  const int most = std::numeric_limits<int>::max();
  struct Row {
    int before, frame, after;
  };
  for (const Row& row : {Row{0, 0, 1}, Row{1, 0, 2}, Row{2, 50, 50}, Row{50, 3, 3},
                         Row{most, 0, -most - 1}, Row{-1, 0, 0}}) {
    writer_.block()->frameCount = row.before;
    const double earliest = writer_.timer().ElapsedSeconds();
    ASSERT_TRUE(PublishOne(writer_, row.frame));
    EXPECT_EQ(writer_.block()->frameCount, row.after);
    EXPECT_GE(writer_.block()->sampleTime, earliest);
    EXPECT_GE(writer_.block()->publishTime, writer_.block()->sampleTime);
    EXPECT_LE(writer_.block()->publishTime, writer_.timer().ElapsedSeconds());
  }
}

// ---- A client that keeps the mutex --------------------------------------------------------------

double MillisecondsOf(const std::function<void()>& act) {
  const std::int64_t start = ClockTicks();
  act();
  return MillisecondsSince(start);
}

TEST_F(OpenWriter, ABinThatAClientKeepsIsSkippedAndComesBack) {
  Peer client;
  client.Ask(Reader(0));
  ASSERT_EQ(client.Ask("lockbin 0"), "yes");
  EXPECT_LT(MillisecondsOf([&] { EXPECT_FALSE(writer_.Enter()); }), 1000);
  const std::optional<BinNews> held = writer_.TakeNews();
  ASSERT_TRUE(held.has_value());
  EXPECT_EQ(held->kind, BinNews::Kind::Held);
  EXPECT_TRUE(held->process == client.pid() || held->process == 0);
  const double again = MillisecondsOf([&] {
    for (int i = 0; i < 1000; ++i) EXPECT_FALSE(writer_.Enter());
  });
  EXPECT_LT(again, 1000) << "it only tries";
  writer_.SelectBin(1);
  EXPECT_TRUE(writer_.Enter()) << "the others go on";
  writer_.Leave();
  EXPECT_FALSE(writer_.TakeNews().has_value()) << "said once";

  writer_.SelectBin(0);
  client.Kill();
  EXPECT_TRUE(WaitUntil([&] { return writer_.Enter(); }));
  writer_.Leave();
  const std::optional<BinNews> freed = writer_.TakeNews();
  ASSERT_TRUE(freed.has_value());
  EXPECT_EQ(freed->kind, BinNews::Kind::Free);
}

TEST_F(SharedTracks, AWriterStartsAndClosesWhileAClientKeepsTheMutex) {
  Peer client;
  client.Ask(Reader(0));
  client.Ask("lockbin 0");
  SharedTrackWriter writer(device(), 16);
  EXPECT_LT(MillisecondsOf([&] { EXPECT_TRUE(writer.OpenAll()); }), 2000);
  EXPECT_LT(MillisecondsOf([&] { writer.CloseAll(); }), 2000);
  ASSERT_TRUE(writer.OpenAll());
  client.Kill();
  EXPECT_TRUE(WaitUntil([&] { return writer.Enter(); }));
  EXPECT_EQ(writer.block()->writerPresent, 1) << "initialised as soon as it could be";
  writer.Leave();
}

TEST_F(SharedTracks, ClosingLeavesTheLastFrameAsPublished) {
  SharedTrackReader reader(device());
  ASSERT_TRUE(reader.OpenOnly(0));
  SharedTrackWriter writer(device(), 1);
  ASSERT_TRUE(writer.OpenAll());
  ASSERT_TRUE(writer.Enter());
  writer.block()->sampleTime = 0.25;
  writer.Publish(0);
  writer.Leave();
  writer.CloseAll();
  EXPECT_EQ(reader.block()->writerPresent, 0);
  EXPECT_EQ(reader.block()->sampleTime, 0.25);
}

// ---- Waiting for frames -----------------------------------------------------------------------

TEST_F(OpenWriter, WaitForFrameAnswersAtOnceWhatIsKnown) {
  PublishOne(writer_, 10);
  SharedTrackReader reader(device());
  ASSERT_TRUE(reader.OpenOnly(0));
  EXPECT_TRUE(reader.WaitForFrame(9, kForever));
  EXPECT_TRUE(reader.WaitForFrame(-1, kNow));
  EXPECT_FALSE(reader.WaitForFrame(11, kForever)) << "a new writer counts from 0";
  EXPECT_FALSE(reader.WaitForFrame(10, kNow));
  EXPECT_FALSE(reader.locked());

  const std::int64_t start = ClockTicks();
  EXPECT_FALSE(reader.WaitForFrame(10, kShort));
  EXPECT_GE(MillisecondsSince(start), kShort.count());

  Peer holder;
  holder.Ask(Reader(0));
  holder.Ask("lockbin 0");
  EXPECT_FALSE(reader.WaitForFrame(0, kShort)) << "another process holds the mutex";
  SharedTrackReader eventless(device());
  ASSERT_TRUE(eventless.OpenBin(0));
  EXPECT_FALSE(eventless.WaitForFrame(0, kForever));
}

TEST_F(OpenWriter, WaitForFrameWakesForTheNextOne) {
  PublishOne(writer_, 10);
  Peer reader;
  reader.Ask(Reader(0));
  for (const bool locked : {true, false}) {
    const int last = writer_.block()->frameCount;
    reader.Tell("waitframe " + std::to_string(last) + " 20000");
    ASSERT_TRUE(WaitUntil([&] { return reader.Asleep(); }));
    if (locked) {
      PublishOne(writer_);
    } else {
      writer_.Publish(0);  // wrong, but still heard of
    }
    EXPECT_EQ(reader.Answer(), "yes") << locked;
  }
}

class Following : public SharedTracks, public testing::WithParamInterface<std::pair<int, int>> {};

// The writer publishes once every reader has the frame before. A lost wake would stop it.
TEST_P(Following, EveryReaderHasEveryFrame) {
  const auto [readers, frames] = GetParam();
  const std::string tally = UniqueName("tally");
  Result<NamedMemory> seen = NamedMemory::Open(tally, sizeof(int));
  Result<Event> progress = Event::Open(tally + "-event");
  SharedTrackWriter writer(device(), 1);
  ASSERT_TRUE(writer.OpenAll());
  std::deque<Peer> peers(static_cast<std::size_t>(readers));
  for (Peer& peer : peers) {
    peer.Ask("memory " + tally + " 4");
    peer.Ask("event " + tally + "-event");
    ASSERT_EQ(peer.Ask(Reader(0)), "done");
    peer.Tell("follow " + std::to_string(frames));
  }
  const std::atomic_ref count(*static_cast<int*>(seen->data()));
  for (int frame = 1; frame <= frames; ++frame) {
    ASSERT_TRUE(PublishOne(writer));
    for (;;) {
      const Event::Ticket before = progress->Reset();
      if (count >= frame * readers) break;
      ASSERT_TRUE(progress->WaitSince(before, kLong)) << "frame " << frame << " is lost";
    }
  }
  for (Peer& peer : peers) EXPECT_EQ(peer.Answer(), "skipped 0");
}

INSTANTIATE_TEST_SUITE_P(SharedTracks, Following,
                         testing::Values(std::pair{1, 10000}, std::pair{6, 1000}));

}  // namespace
}  // namespace kinetrel::test
