#include "app/service_report.h"

#include <algorithm>
#include <utility>

#include "platform/console.h"

namespace kinetrel {
namespace {

constexpr Milliseconds kLongestPause{5000};
// More time to become ready, in microseconds: several pauses.
constexpr const char* kMoreTime = "EXTEND_TIMEOUT_USEC=30000000";

}  // namespace

ServiceReport::ServiceReport(TrackerEngine& engine)
    : engine_(engine),
      pause_(std::min(manager_.WatchdogPeriod().value_or(kLongestPause * 4) / 4, kLongestPause)) {}

void ServiceReport::Look() {
  if (!manager_.IsPresent() || stopping_) return;
  const SamplingProgress progress = engine_.Progress();
  if (!ready_ && progress.frames > 0) ready_ = manager_.Send("READY=1");
  ReportAlive(progress);
  ReportStatus();
}

void ServiceReport::ReportAlive(const SamplingProgress& progress) {
  if (progress.passes == passes_ || !next_.Passed()) return;
  if (!manager_.Send(ready_ ? "WATCHDOG=1" : kMoreTime)) return;
  passes_ = progress.passes;
  next_ = Deadline(pause_);
}

void ServiceReport::ReportStatus() {
  std::string newest = PlainLine(engine_.status().Newest().text);
  if (newest == status_ || !manager_.Send("STATUS=" + newest)) return;
  status_ = std::move(newest);
}

void ServiceReport::Stopping() {
  if (stopping_) return;
  stopping_ = true;
  manager_.Send("STOPPING=1");
}

}  // namespace kinetrel
