#include "platform/named_objects.h"

#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <span>
#include <thread>

#include "platform/clock.h"
#include "tests/support/elapsed.h"
#include "tests/support/peer.h"

namespace kinetrel::test {
namespace {

constexpr Milliseconds kLong{20000};
constexpr Milliseconds kShort{50};
constexpr Milliseconds kNow{0};

// ---- Life of an object -----------------------------------------------------------------------

TEST(NamedObjects, AreSharedWhenAProcessOpensThemTwice) {
  const std::string name = UniqueName("twice");
  Result<NamedMemory> first = NamedMemory::Open(name, 8);
  {
    const Result<NamedMemory> second = NamedMemory::Open(name, 8);
    EXPECT_EQ(first->data(), second.value().data());
    EXPECT_EQ(NamedMemory::Open(name, 16).status().error, Error::Invalid);
  }
  EXPECT_TRUE(InSystem(name));
}

void ExpectGone(const std::string& churned) {
  for (const char* part : {"", "-mutex", "-event"}) EXPECT_FALSE(InSystem(churned + part)) << part;
}

TEST(NamedObjects, OfOneNameAreNeverTwo) {
  const std::string name = UniqueName("churn");
  const Result<NamedMemory> witness = NamedMemory::Open(name + "-witness", 12);
  Peer peers[4];
  for (Peer& peer : peers) peer.Tell("churn " + name + " 4000 witnessed");
  for (Peer& peer : peers) EXPECT_EQ(peer.Answer(), "done");
  ExpectGone(name);
}

TEST(NamedObjects, SurviveUsersKilledAtAnyMoment) {
  const std::string name = UniqueName("massacre");
  Peer survivor;
  survivor.Tell("churn " + name + " 3000 alone");
  std::deque<Peer> victims(2);
  for (Peer& victim : victims) victim.Tell("churn " + name + " 1000000 alone");
  std::minstd_rand random(1);
  for (int kill = 0; kill < 60; ++kill) {
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 10000));
    victims.front().Kill();
    EXPECT_EQ(victims.front().output(), "") << "a victim met an error";
    victims.pop_front();
    victims.emplace_back().Tell("churn " + name + " 1000000 alone");
  }
  EXPECT_EQ(survivor.Answer(), "done");
  survivor.Kill();
  for (Peer& victim : victims) victim.Kill();
  EXPECT_EQ(Peer().Ask("churn " + name + " 1 alone"), "done");
  ExpectGone(name);
}

// ---- Mutex -----------------------------------------------------------------------------------

TEST(NamedMutex, KeepsOthersOutUntilTheirTimeout) {
  const std::string name = UniqueName("mutex");
  Peer peer;
  peer.Ask("mutex " + name);
  ASSERT_EQ(peer.Ask("lock 0"), "yes");
  Result<NamedMutex> mutex = NamedMutex::Open(name);
  const std::int64_t start = ClockTicks();
  EXPECT_FALSE(mutex->Lock(kNow));
  EXPECT_FALSE(mutex->Lock(kShort));
  EXPECT_GE(MillisecondsSince(start), kShort.count());
  peer.Ask("unlock");
  EXPECT_TRUE(mutex->Lock(kForever));
  mutex->Unlock();
}

TEST(NamedMutex, IsRecursive) {
  const std::string name = UniqueName("recursive");
  Result<NamedMutex> mutex = NamedMutex::Open(name);
  Peer peer;
  peer.Ask("mutex " + name);
  for (const Milliseconds timeout : {kForever, kNow, kShort}) EXPECT_TRUE(mutex->Lock(timeout));
  for (int held = 3; held > 0; --held) {
    EXPECT_EQ(peer.Ask("lock 0"), "no") << held;
    mutex->Unlock();
  }
  EXPECT_EQ(peer.Ask("lock 20000"), "yes");
}

TEST(NamedMutex, CanBeLockedAfterItsOwnerIsKilled) {
  const std::string name = UniqueName("orphan");
  Result<NamedMutex> mutex = NamedMutex::Open(name);
  for (const Milliseconds timeout : {kNow, kLong, kForever, kLong}) {
    Peer peer;
    peer.Ask("mutex " + name);
    ASSERT_EQ(peer.Ask("lock 0"), "yes");
    peer.Kill();
    EXPECT_TRUE(mutex->Lock(timeout));
    mutex->Unlock();
  }
}

TEST(NamedMutex, PassesToAWaiterWhenItsOwnerIsKilled) {
  const std::string name = UniqueName("heirs");
  Peer owner;
  Peer heirs[3];
  owner.Ask("mutex " + name);
  owner.Ask("lock 0");
  for (Peer& heir : heirs) {
    heir.Ask("mutex " + name);
    heir.Tell("lock 20000");
    ASSERT_TRUE(WaitUntil([&] { return heir.Asleep(); }));
  }
  owner.Kill();
  for (Peer& heir : heirs) {
    EXPECT_EQ(heir.Answer(), "yes");
    heir.Ask("unlock");
  }
}

// ---- Event -----------------------------------------------------------------------------------

TEST(Event, StaysSetUntilItIsReset) {
  Event event;
  EXPECT_FALSE(event.IsSet());
  EXPECT_FALSE(event.Wait(kNow));
  const std::int64_t start = ClockTicks();
  EXPECT_FALSE(event.Wait(kShort));
  EXPECT_GE(MillisecondsSince(start), kShort.count());
  event.Set();
  EXPECT_TRUE(event.IsSet());
  for (const Milliseconds timeout : {kNow, kShort, kForever}) EXPECT_TRUE(event.Wait(timeout));
  event.Reset();
  EXPECT_FALSE(event.IsSet());
  EXPECT_FALSE(event.Wait(kNow));
}

TEST(Event, ASetBeforeAResetIsNotMissed) {
  Event event;
  const Event::Ticket ticket = event.Reset();
  EXPECT_FALSE(event.WaitSince(ticket, kNow));
  event.Set();
  event.Reset();
  EXPECT_TRUE(event.WaitSince(ticket, kForever));
  EXPECT_FALSE(event.Wait(kNow));
  EXPECT_FALSE(event.WaitSince(event.Reset(), kShort));
}

TEST(Event, WakesEveryWaiterAlsoAfterOneIsKilled) {
  const std::string name = UniqueName("event");
  Result<Event> event = Event::Open(name);
  Peer waiters[4];
  for (Peer& waiter : waiters) {
    waiter.Ask("event " + name);
    waiter.Tell("wait 20000");
    ASSERT_TRUE(WaitUntil([&] { return waiter.Asleep(); }));
  }
  waiters[0].Kill();
  event->Set();
  for (Peer& waiter : std::span(waiters).subspan(1)) EXPECT_EQ(waiter.Answer(), "yes");
}

}  // namespace
}  // namespace kinetrel::test
