// A user of named objects in a process of its own, for tests of what several processes share.
// Reads commands from standard input and answers each by one line on standard output.
#include <atomic>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <optional>
#include <sstream>
#include <thread>

#include "publish/shared_track_reader.h"
#include "publish/shared_track_writer.h"
#include "tests/support/peer_world.h"

namespace kinetrel {
namespace {

using Words = std::istringstream;

template <typename T>
T Next(Words& words) {
  T value{};
  words >> value;
  return value;
}

Milliseconds NextTime(Words& words) { return Milliseconds(Next<int>(words)); }

std::string Told(bool answer) { return answer ? "yes" : "no"; }
std::string Told(const Status& status) { return status.Ok() ? "done" : Describe(status); }

std::atomic_ref<int> Number(NamedMemory& memory, int index = 0) {
  return std::atomic_ref(static_cast<int*>(memory.data())[index]);
}

// ---- What it holds -----------------------------------------------------------------------------

std::optional<NamedMemory> memory;
std::optional<NamedMutex> mutex;
std::optional<Event> event;
std::optional<SharedTrackWriter> writer;
std::optional<SharedTrackReader> reader;

template <typename T>
std::string Keep(std::optional<T>& place, Result<T> opened) {
  if (opened.Ok()) place = *opened;
  return Told(opened.status());
}

SharedTrackMemory& Bins() {
  if (writer) return *writer;
  return *reader;
}

// ---- Races -------------------------------------------------------------------------------------

// Opens and closes the same names over and over. Processes that have them open together must have
// the same objects: the users of an object agree on its number, in a witness that stays open.
struct Witness {
  int users;
  int number;
  int numbersGiven;
};

std::string ChurnOnce(const std::string& name, Witness* witness, NamedMutex& guard) {
  Result<NamedMemory> shared = NamedMemory::Open(name, 64);
  Result<NamedMutex> lock = NamedMutex::Open(name + "-mutex");
  Result<Event> flag = Event::Open(name + "-event");
  if (!shared.Ok()) return Told(shared.status());
  if (!lock.Ok()) return Told(lock.status());
  if (!flag.Ok()) return Told(flag.status());
  if (!lock->Lock(Milliseconds(20000))) return "not locked";
  lock->Unlock();
  if (witness == nullptr) return {};

  guard.Lock(kForever);
  std::atomic_ref<int> number = Number(*shared);
  if (number == 0) number = ++witness->numbersGiven;
  const bool same = witness->users++ == 0 || witness->number == number;
  witness->number = number;
  guard.Unlock();
  std::this_thread::yield();
  guard.Lock(kForever);
  --witness->users;
  guard.Unlock();
  return same ? "" : "two objects of one name";
}

std::string Churn(Words& words) {
  const auto name = Next<std::string>(words);
  const int rounds = Next<int>(words);
  const bool witnessed = Next<std::string>(words) == "witnessed";
  Result<NamedMemory> held = NamedMemory::Open(name + "-witness", sizeof(Witness));
  Result<NamedMutex> guard = NamedMutex::Open(name + "-guard");
  for (int round = 0; round < rounds; ++round) {
    std::string fault =
        ChurnOnce(name, witnessed ? static_cast<Witness*>(held->data()) : nullptr, *guard);
    if (!fault.empty()) return fault;
  }
  return "done";
}

// Waits until two processes have come here; `steps` counts one's own steps.
void Meet(NamedMemory& place, int& steps) {
  Number(place).fetch_add(1);
  ++steps;
  while (Number(place) < 2 * steps) std::this_thread::yield();
}

bool AnyInSystem(int device) {
  for (const std::string& name :
       {BlockName(device, 0), MutexName(device, 0), EventName(device, 0)}) {
    if (test::InSystem(name)) return true;
  }
  return false;
}

// Opens and closes a bin at the same moments as another process, a reader and a writer, over and
// over.
std::string Collide(Words& words) {
  const bool writes = Next<std::string>(words) == "writer";
  const int device = Next<int>(words);
  const int rounds = Next<int>(words);
  Result<NamedMemory> place = NamedMemory::Open(Next<std::string>(words), sizeof(int));
  SharedTrackWriter ours(device, 1);
  SharedTrackReader theirs(device);
  SharedTrackMemory& bins = writes ? static_cast<SharedTrackMemory&>(ours) : theirs;
  int steps = 0;
  for (int round = 0; round < rounds; ++round) {
    Meet(*place, steps);
    const bool opened = writes ? ours.OpenAll() : theirs.OpenOnly(0);
    Meet(*place, steps);
    const bool initialised = opened && bins.block()->writerPresent == 1;
    Meet(*place, steps);
    bins.CloseAll();
    Meet(*place, steps);
    if (!initialised) return "not initialised in round " + std::to_string(round);
    if (AnyInSystem(device)) return "left behind in round " + std::to_string(round);
  }
  return "done";
}

// ---- Publication -------------------------------------------------------------------------------

// Waits for frame after frame up to `last`, and tells the writer of each by adding 1 to the
// memory's number and setting the event.
std::string Follow(Words& words) {
  const int last = Next<int>(words);
  int skipped = 0;
  for (int seen = 0; seen < last;) {
    if (!reader->WaitForFrame(seen, Milliseconds(20000)))
      return "no frame after " + std::to_string(seen);
    const int newest = reader->block()->frameCount;
    skipped += newest - seen - 1;
    seen = newest;
    Number(*memory).fetch_add(1);
    event->Set();
  }
  return "skipped " + std::to_string(skipped);
}

std::string Publish(Words& words) {
  const bool selected = Bins().SelectBin(Next<int>(words)) >= 0 && Bins().Lock(kForever);
  const bool published = selected && Bins().Publish(Next<int>(words));
  return Told(published && Bins().Unlock());
}

std::string OpenWriter(Words& words) {
  const int device = Next<int>(words);
  writer.emplace(device, Next<int>(words));
  if (!writer->OpenAll()) return Describe(writer->failure());
  return writer->rivalPresent() ? "rival" : "done";
}

std::string OpenReader(Words& words) {
  reader.emplace(Next<int>(words));
  return reader->OpenOnly(Next<int>(words)) ? "done" : Describe(reader->failure());
}

// ---- Everything -------------------------------------------------------------------------------

std::string Close() {
  memory.reset();
  mutex.reset();
  event.reset();
  writer.reset();
  reader.reset();
  return "done";
}

const std::map<std::string, std::function<std::string(Words&)>> commands = {
    {"memory",
     [](Words& words) {
       const auto name = Next<std::string>(words);
       return Keep(memory, NamedMemory::Open(name, Next<std::size_t>(words)));
     }},
    {"mutex", [](Words& w) { return Keep(mutex, NamedMutex::Open(Next<std::string>(w))); }},
    {"event", [](Words& w) { return Keep(event, Event::Open(Next<std::string>(w))); }},
    {"poke", [](Words& w) { return std::to_string(Number(*memory) = Next<int>(w)); }},
    {"peek", [](Words&) { return std::to_string(Number(*memory)); }},
    {"lock", [](Words& words) { return Told(mutex->Lock(NextTime(words))); }},
    {"unlock", [](Words&) { return mutex->Unlock(), "done"; }},
    {"wait", [](Words& words) { return Told(event->Wait(NextTime(words))); }},
    {"churn", Churn},
    {"collide", Collide},
    {"writer", OpenWriter},
    {"reader", OpenReader},
    {"publish", Publish},
    {"follow", Follow},
    {"count", [](Words&) { return std::to_string(Bins().block()->frameCount); }},
    {"lockbin", [](Words& words) { return Told(Bins().Lock(NextTime(words))); }},
    {"waitframe",
     [](Words& words) {
       const int last = Next<int>(words);
       return Told(reader->WaitForFrame(last, NextTime(words)));
     }},
    {"become", [](Words& w) { return Told(test::BecomeAccount(Next<unsigned>(w))); }},
    {"umask", [](Words& w) { return Told(test::SetFileMask(Next<unsigned>(w))); }},
    {"shrink", [](Words& w) { return Told(test::ShrinkSharedMemory(Next<std::size_t>(w))); }},
    {"objects", [](Words&) { return std::to_string(test::CountObjects()); }},
    {"close", [](Words&) { return Close(); }},
};

}  // namespace
}  // namespace kinetrel

int main() {
  for (std::string line; std::getline(std::cin, line);) {
    kinetrel::Words words(line);
    const auto command = kinetrel::commands.find(kinetrel::Next<std::string>(words));
    const bool known = command != kinetrel::commands.end();
    std::cout << (known ? command->second(words) : "no such command") << std::endl;
  }
  kinetrel::Close();
  std::_Exit(0);  // a sanitizer would take a second to leave
}
