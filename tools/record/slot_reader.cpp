#include "record/slot_reader.h"

#include <algorithm>
#include <array>
#include <utility>

#include "platform/clock.h"

namespace kinetrel::record {
namespace {

constexpr Milliseconds kLookEvery{20};
constexpr int kLooksOfAStart = 50;  // in which a writer that starts makes its stream
constexpr int kLooksOfAState = 10;  // looks between two at the state

}  // namespace

SlotReader::SlotReader(const std::vector<int>& slots) {
  for (const int number : slots) slots_.push_back({.number = number, .text = {}});
}

SlotReader::~SlotReader() {
  shared_->stop = true;
  if (thread_) thread_->Wait(Milliseconds(2000));
}

bool SlotReader::Start() {
  Result<Thread> started = Thread::Start(
      [shared = shared_, slots = std::move(slots_)]() mutable { Loop(*shared, slots); });
  if (started.Ok()) thread_.emplace(std::move(*started));
  return started.Ok();
}

void SlotReader::Take(std::vector<Item>& into) {
  into.clear();
  const Lock lock(shared_->mutex);
  into.swap(shared_->waiting);
}

void SlotReader::Loop(Shared& shared, std::vector<Slot>& slots) {
  std::vector<Item> found;
  for (int look = 0; !shared.stop; ++look) {
    for (Slot& slot : slots) {
      Look(shared, slot, found);
      if (slot.open && look % kLooksOfAState == 0) LookAtState(slot, found);
    }
    HandOver(shared, found);
    SleepFor(kLookEvery);
  }
  for (Slot& slot : slots) {
    Look(shared, slot, found);
    if (slot.open) kinetrel_stream_close(&slot.stream);
  }
  HandOver(shared, found);
}

void SlotReader::Look(Shared& shared, Slot& slot, std::vector<Item>& found) {
  if (!slot.open) {
    const kinetrel_stream_result result = kinetrel_stream_open(&slot.stream, slot.number, 0);
    slot.open = result == kinetrel_stream_ok;
    if (!slot.open) {
      slot.wasAbsent = true;
      slot.unfinished = result == kinetrel_stream_not_a_stream ? slot.unfinished + 1 : 0;
      if (slot.unfinished > 0 && slot.unfinished < kLooksOfAStart) return;
      return TakeState(slot, kinetrel_state_unknown, kinetrel_stream_result_text(result), found);
    }
    // All of a tracker that came while we waited for it; of another one what comes from now on.
    if (slot.wasAbsent) kinetrel_stream_rewind(&slot.stream);
    slot.awaitsRun = true;
    slot.told = 0;
  }
  for (;;) {
    if (slot.awaitsRun) {
      kinetrel_run run;
      if (kinetrel_stream_run(&slot.stream, &run) != kinetrel_stream_ok || run.utc_ns == 0) break;
      slot.awaitsRun = false;
      found.push_back({.kind = Item::Kind::Run,
                       .slot = slot.number,
                       .run = std::make_shared<const kinetrel_run>(run),
                       .text = {}});
    }
    kinetrel_record record;
    const kinetrel_stream_result result = kinetrel_stream_next(&slot.stream, &record, 0);
    if (result == kinetrel_stream_restarted) {
      slot.awaitsRun = true;
      continue;
    }
    if (result == kinetrel_stream_ok) {
      Item item{.slot = slot.number, .record = record, .run = nullptr, .text = {}};
      if ((record.flags & kinetrel_filtered) != 0 &&
          kinetrel_stream_device_pose(&slot.stream, &record, &item.devicePose) !=
              kinetrel_stream_ok) {
        item.devicePose = {};
      }
      found.push_back(std::move(item));
      continue;
    }
    if (result !=
        kinetrel_stream_timed_out) {  // the object is gone or was replaced by a stranger's
      kinetrel_stream_close(&slot.stream);
      slot.open = false;
    }
    break;
  }
  const std::uint64_t lost = slot.open ? kinetrel_stream_lost(&slot.stream) : slot.told;
  shared.lost += lost - slot.told;
  slot.told = lost;
}

void SlotReader::LookAtState(Slot& slot, std::vector<Item>& found) {
  std::array<kinetrel_log_line, kinetrel_stream_log_lines> lines;
  const int count = kinetrel_stream_log(&slot.stream, lines.data(), static_cast<int>(lines.size()));
  for (int i = 0; i < count; ++i) {
    const kinetrel_log_line& line = lines[static_cast<std::size_t>(i)];
    if (line.number <= slot.logLine) continue;
    slot.logLine = line.number;
    found.push_back({.kind = Item::Kind::Log,
                     .slot = slot.number,
                     .timeNs = kinetrel_now_ns(),
                     .run = nullptr,
                     .code = line.code,
                     .text = line.text});
  }
  char text[256];
  const kinetrel_state state = kinetrel_stream_state(&slot.stream, text);
  TakeState(slot, state, text, found);
}

void SlotReader::TakeState(Slot& slot, kinetrel_state state, const std::string& text,
                           std::vector<Item>& found) {
  if (state == slot.state && slot.text == text) return;
  slot.state = state;
  slot.text = text;
  found.push_back({.kind = Item::Kind::State,
                   .slot = slot.number,
                   .timeNs = kinetrel_now_ns(),
                   .run = nullptr,
                   .state = state,
                   .text = text});
}

void SlotReader::HandOver(Shared& shared, std::vector<Item>& found) {
  const Lock lock(shared.mutex);
  for (Item& item : found) {
    if (shared.waiting.size() >= kMostWaiting && item.kind == Item::Kind::Record) {
      ++shared.lost;
    } else {
      shared.waiting.push_back(std::move(item));
    }
  }
  found.clear();
}

}  // namespace kinetrel::record
