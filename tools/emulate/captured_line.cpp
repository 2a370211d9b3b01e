#include "emulate/captured_line.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <string_view>

namespace kinetrel::emulate {
namespace {

using mcap::TopicKind;

constexpr int kMostStepsSearched = 100'000;
constexpr std::size_t kLongestStep = 65536;  // bytes; no read or write of a line is longer

bool IsStep(TopicKind kind) {
  switch (kind) {
    case TopicKind::LineReceived:
    case TopicKind::LineSent:
    case TopicKind::LineOpened:
    case TopicKind::LineSettings:
    case TopicKind::LineLost:
    case TopicKind::LineClosed:
    case TopicKind::CaptureLost:
      return true;
    default:
      return false;
  }
}

// The first number in a JSON object of one member; 0: it has none.
std::uint64_t FirstNumber(std::span<const std::byte> json) {
  const std::string_view text(static_cast<const char*>(static_cast<const void*>(json.data())),
                              json.size());
  const std::size_t begin = text.find_first_of("0123456789");
  std::uint64_t number = 0;
  if (begin != std::string_view::npos) {
    std::from_chars(text.data() + begin, text.data() + text.size(), number);
  }
  return number;
}

// What a run on another port must not take over.
std::string WithoutPlace(const std::string& options) {
  std::string kept;
  for (std::size_t at = 0; at < options.size();) {
    const std::size_t end = std::min(options.find('\n', at), options.size() - 1) + 1;
    const std::string_view line = std::string_view(options).substr(at, end - at);
    const bool place = std::ranges::any_of(
        std::array<std::string_view, 4>{"port =", "slot =", "capture =", "listen ="},
        [&](std::string_view key) { return line.starts_with(key); });
    if (!place) kept += line;
    at = end;
  }
  return kept;
}

bool BeginsWith(std::span<const std::byte> bytes, std::span<const std::byte> beginning) {
  return bytes.size() >= beginning.size() &&
         std::ranges::equal(bytes.first(beginning.size()), beginning);
}

}  // namespace

std::string CapturedLine::Open(const std::filesystem::path& path) {
  path_ = path;
  reader_ = std::make_unique<mcap::McapReader>();
  if (std::string complaint = reader_->Open(path); !complaint.empty()) return complaint;
  const mcap::TextMap texts = reader_->Metadata(mcap::kMetadataName);
  if (const auto found = texts.find("options"); found != texts.end()) {
    options_ = WithoutPlace(found->second);
  }
  while (const auto message = reader_->Next()) {
    if (!IsStep(mcap::ParseTopic(message->channel->topic).kind)) continue;
    firstNs_ = message->logTime;
    FindLastAnswer();
    Rewind();
    return {};
  }
  return "it holds nothing of a tracker's line; kinetrel --capture makes such files.";
}

// Among the last seconds only: the file may be huge.
void CapturedLine::FindLastAnswer() {
  constexpr std::uint64_t kTail = 3'000'000'000;  // ns
  const std::uint64_t last = reader_->lastTime();
  reader_->Seek(last - std::min(last, kTail));
  Moment found = kNever;
  for (int i = 0; i < kMostStepsSearched; ++i) {
    const auto step = NextOf(*reader_);
    if (!step) {
      lastAnswer_ = found;
      return;
    }
    if (step->kind == TopicKind::LineReceived || step->kind == TopicKind::LineLost) {
      found = step->time;
    }
  }
}

std::optional<LineStep> CapturedLine::Next() {
  std::optional<LineStep> step = NextOf(*reader_);
  return step && step->time <= lastAnswer_ ? step : std::nullopt;
}

std::optional<LineStep> CapturedLine::NextOf(mcap::McapReader& reader) const {
  while (const auto message = reader.Next()) {
    const TopicKind kind = mcap::ParseTopic(message->channel->topic).kind;
    if (!IsStep(kind) || message->data.size() > kLongestStep) continue;
    // A clock that goes back would send the replay into a wait without end.
    // Bytes that waited to be read may have come much earlier.
    const std::uint64_t when =
        kind == TopicKind::LineReceived ? message->publishTime : message->logTime;
    const std::uint64_t since = when - std::min(firstNs_, when);
    constexpr std::uint64_t kLongest = std::uint64_t{1} << 60;
    LineStep step{.kind = kind, .time = Moment(std::min(since, kLongest)), .bytes = {}};
    if (kind == TopicKind::LineReceived || kind == TopicKind::LineSent) {
      step.bytes.assign(message->data.begin(), message->data.end());
    } else {
      step.number = FirstNumber(message->data);
    }
    return step;
  }
  return std::nullopt;
}

std::optional<LineStep> CapturedLine::Find(std::span<const std::byte> asked, Moment from) {
  auto ahead = std::make_unique<mcap::McapReader>();
  if (!ahead->Open(path_).empty()) return std::nullopt;
  ahead->Seek(firstNs_ + static_cast<std::uint64_t>(from.count()));
  for (int i = 0; i < kMostStepsSearched; ++i) {
    std::optional<LineStep> step = NextOf(*ahead);
    if (!step) break;
    if (step->kind != TopicKind::LineSent || step->bytes.empty()) continue;
    if (!BeginsWith(asked, step->bytes) && !BeginsWith(step->bytes, asked)) continue;
    reader_ = std::move(ahead);
    return step;
  }
  return std::nullopt;
}

std::string CapturedLine::Device() const {
  constexpr std::string_view kKey = "device = ";
  if (!options_.starts_with(kKey)) return {};
  std::string name = options_.substr(kKey.size(), options_.find('\n') - kKey.size());
  std::erase(name, '"');
  return name;
}

std::string CapturedLine::WhatIsMissing() const {
  if (!reader_->whole()) return "; the file was cut here";
  return reader_->damaged() > 0 ? "; damaged parts of the file are left out" : "";
}

std::string ShowBytes(std::span<const std::byte> bytes) {
  constexpr std::size_t kMostShown = 24;
  std::string text;
  bool quoted = false;
  for (const std::byte byte : bytes.first(std::min(bytes.size(), kMostShown))) {
    const auto letter = static_cast<char>(byte);
    const bool printable = letter >= ' ' && letter <= '~' && letter != '"';
    if (printable != quoted) text += quoted ? "\"" : text.empty() ? "\"" : " \"";
    quoted = printable;
    if (printable) {
      text += letter;
      continue;
    }
    std::array<char, 8> number{};
    std::snprintf(number.data(), number.size(), "%02X", static_cast<unsigned>(byte));
    text += (text.empty() ? "" : " ") + std::string(number.data());
  }
  if (quoted) text += '"';
  return bytes.size() > kMostShown ? text + " ..." : text;
}

}  // namespace kinetrel::emulate
