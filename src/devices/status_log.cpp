#include "devices/status_log.h"
#include "platform/console.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace kinetrel {
namespace {

// Codes below the engine's own are a device's error numbers.
JournalLevel LevelOf(StatusCode code) {
  switch (code) {
    case StatusCode::Boot:
    case StatusCode::Port:
    case StatusCode::SharedMemory:
    case StatusCode::DeviceErrorLimit:
      return JournalLevel::Error;
    case StatusCode::Progress:
    case StatusCode::Closing:
      return JournalLevel::Notice;
    default:
      return code < StatusCode::Report ? JournalLevel::Warning : JournalLevel::Information;
  }
}

}  // namespace

StatusLog::StatusLog() : formatBuffer_(kLongestFormatted + 1) {}

bool StatusLog::SetStatus(StatusCode code, const char* text) {
  const Lock held(lock_);
  Append(code, text);
  return true;
}

bool StatusLog::SetStatusF(StatusCode code, const char* format, ...) {
  const Lock held(lock_);
  std::va_list arguments;
  va_start(arguments, format);
  AppendFormatted(code, format, arguments);
  va_end(arguments);
  return true;
}

const char* StatusLog::CurrentStatusText() const {
  const Lock held(lock_);
  return entries_.empty() ? "" : entries_.back().text.c_str();
}

StatusEntry StatusLog::Newest() const {
  const Lock held(lock_);
  return entries_.empty() ? StatusEntry{} : entries_.back();
}

std::vector<StatusEntry> StatusLog::Entries() const {
  const Lock held(lock_);
  return entries_;
}

std::vector<StatusEntry> StatusLog::EntriesAfter(std::uint64_t& seen) const {
  const Lock held(lock_);
  const std::uint64_t fresh = std::min<std::uint64_t>(added_ - seen, entries_.size());
  seen = added_;
  return {entries_.end() - static_cast<std::ptrdiff_t>(fresh), entries_.end()};
}

void StatusLog::Attach(StatusListener& listener) {
  const Lock held(lock_);
  listener_ = &listener;
  for (const StatusEntry& entry : entries_) listener.OnEntry(entry);
}

void StatusLog::Detach(const StatusListener& listener) {
  const Lock held(lock_);
  if (listener_ == &listener) listener_ = nullptr;
}

void StatusLog::Append(StatusCode code, std::string text) {
  if (PrintsForJournal()) PrintJournalLine(LevelOf(code), text);
  entries_.push_back({std::time(nullptr), static_cast<int>(code), std::move(text)});
  ++added_;
  if (listener_ != nullptr) listener_->OnEntry(entries_.back());
  if (entries_.size() < kTrimAt) return;
  entries_.erase(entries_.begin(), entries_.end() - kKeep);
}

void StatusLog::AppendFormatted(StatusCode code, const char* format, std::va_list arguments) {
  std::vsnprintf(formatBuffer_.data(), formatBuffer_.size(), format, arguments);
  Append(code, formatBuffer_.data());
}

bool Announce(StatusLog& log, const char* prefix, StatusCode code, const char* format, ...) {
  const Lock held(log.lock_);
  std::va_list arguments;
  va_start(arguments, format);
  log.AppendFormatted(code, format, arguments);
  va_end(arguments);
  // The journal has the line by now.
  if (!PrintsForJournal()) PrintError("%s%s", prefix, log.formatBuffer_.data());
  return true;
}

bool Post(StatusLog* log, StatusCode code, const char* format, ...) {
  if (log == nullptr) return true;
  const Lock held(log->lock_);
  std::va_list arguments;
  va_start(arguments, format);
  log->AppendFormatted(code, format, arguments);
  va_end(arguments);
  return true;
}

}  // namespace kinetrel
