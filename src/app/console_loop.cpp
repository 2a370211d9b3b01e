#include "app/console_loop.h"

#include <cstdio>

#include "engine/tracker_engine.h"
#include "platform/console.h"

namespace kinetrel {
namespace {

constexpr Milliseconds kStep{500};
// A tracker that is steered by keys looks for them every frame and comes first.
constexpr Milliseconds kFewFrames{60};
constexpr int kCtrlA = 1;
constexpr int kEscape = 27;

void Acknowledge(const char* text) {
  std::fputs(text, stdout);
  std::fflush(stdout);
}

void ActOn(TrackerEngine& engine, Key key) {
  if (key.extended) return;
  switch (key.code) {
    case kCtrlA:
      engine.ZeroAzimuth();
      Acknowledge("\rRunning ... (Azimuth Zeroed) ");
      break;
    case 'A':
    case 'a':
      engine.RestoreAzimuth();
      Acknowledge("\r                                \rRunning ... ");
      break;
    case kEscape:
      engine.StopSampling(true);
      break;
    default:
      break;
  }
}

}  // namespace

void RunConsoleLoop(TrackerEngine& engine, const std::atomic<int>& stopRequest) {
  while (engine.HasSamplingThread() && !engine.WaitSampling(kStep)) {
    if (stopRequest != 0) {
      engine.StopSampling(true);
    } else if (const std::optional<Key> key = TakeLeftKey(kFewFrames)) {
      ActOn(engine, *key);
    }
  }
}

}  // namespace kinetrel
