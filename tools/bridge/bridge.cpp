#include "bridge/bridge.h"

#include <kinetrel/stream.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace kinetrel::bridge {
namespace {

constexpr int kPatienceMs = 100;                             // of a slot's thread without records
constexpr auto kWatchEvery = std::chrono::milliseconds(50);  // stop request, table, end of --once

std::string UnknownPath(const OutputAddress& address) {
  std::string presets;
  for (const Protocol& row : Protocols()) {
    if (row.scheme != address.scheme || row.path.empty()) continue;
    presets += (presets.empty() ? "" : ", ") + std::string(row.path);
  }
  return presets.empty()
             ? address.scheme + " takes no path"
             : address.scheme + " has no preset " + address.path + "; known are " + presets;
}

std::string UnknownProtocol(const OutputAddress& address) {
  std::vector<std::string_view> schemes;
  std::string list;
  for (const Protocol& row : Protocols()) {
    if (row.scheme == address.scheme) return UnknownPath(address);
    if (!row.path.empty()) continue;
    schemes.push_back(row.scheme);
    list += (list.empty() ? "" : ", ") + std::string(row.scheme);
  }
  const std::string_view closest = Nearest(address.scheme, schemes);
  return "unknown protocol " + address.scheme +
         (closest.empty() ? "; known are " + list : "; did you mean " + std::string(closest) + "?");
}

std::string Failure(const Feed& feed, const std::string& why) {
  return feed.options.address().text + ": " + why;
}

}  // namespace

Bridge::Bridge(const BridgeOptions& options, LineWriter& errors, LineWriter& prints,
               const std::atomic<int>& stop)
    : options_(options),
      errors_(errors),
      stop_(stop),
      context_{io_, options.listen, options.dryRun, [this](const std::string& line) { Say(line); },
               [&prints](const std::string& line) { prints.Write(line); }} {}

Bridge::~Bridge() {
  ending_ = true;
  for (Tracker& tracker : trackers_) {
    if (tracker.thread.joinable()) tracker.thread.join();
  }
}

// ---- Opening
// -------------------------------------------------------------------------------------

std::string Bridge::AddFeed(const BridgeOptions::Wanted& wanted) {
  OutputAddress address;
  const std::string complaint = ParseOutputAddress(wanted.text, address);
  if (!complaint.empty()) return wanted.text + ": " + complaint;
  const Protocol* const protocol = FindProtocol(address.scheme, address.path);
  if (protocol == nullptr) return wanted.text + ": " + UnknownProtocol(address);
  OutputOptions read(std::move(address));
  PoseSelector selector(read, {protocol->axes, protocol->name});
  feeds_.push_back({wanted.slot, protocol, std::move(read), std::move(selector)});
  return {};
}

// Two trackers at one place must not have sensors of one name or number.
void Bridge::KeepApart(Feed& feed) {
  const std::string key(feed.protocol->apart);
  if (key.empty()) return;
  for (Feed& other : feeds_) {
    if (other.slot == feed.slot || other.protocol != feed.protocol ||
        HostOf(other) != HostOf(feed) || PortOf(other) != PortOf(feed)) {
      continue;
    }
    const std::string shared = "slots " + std::to_string(std::min(feed.slot, other.slot)) +
                               " and " + std::to_string(std::max(feed.slot, other.slot)) +
                               " would send under the same numbers; ";
    if (key == "port") {
      feed.options.Complain(shared + "give one of them another port");
    } else if (key != "name") {
      if (feed.options.Find(key) == other.options.Find(key)) {
        feed.options.Complain(
            std::string(shared).append("set ").append(key).append("= for one of them"));
      }
    } else if (feed.slot != 1 && !feed.options.Find("name")) {
      const std::string name = std::string(feed.protocol->name) + std::to_string(feed.slot) + "-";
      feed.selector = PoseSelector(feed.options, {feed.protocol->axes, name});
    }
  }
}

std::string Bridge::MakeOutputs() {
  for (Feed& feed : feeds_) KeepApart(feed);
  for (Feed& feed : feeds_) {
    // Trackers that share a server's port are one output.
    const auto shared = std::find_if(outputs_.begin(), outputs_.end(), [&](const Running& running) {
      const Feed& other = *running.feeds.front();
      return feed.protocol->server && other.protocol == feed.protocol &&
             HostOf(other) == HostOf(feed) && PortOf(other) == PortOf(feed);
    });
    if (shared != outputs_.end()) {
      shared->feeds.push_back(&feed);
    } else {
      outputs_.push_back({nullptr, {&feed}, feed.options.address().text});
    }
  }
  for (Running& running : outputs_) {
    running.output = running.feeds.front()->protocol->make(context_, running.feeds);
    for (const Feed* const feed : running.feeds) {
      const std::string complaint = feed->options.Complaint();
      if (!complaint.empty()) return Failure(*feed, complaint);
    }
  }
  return {};
}

std::string Bridge::Open() {
  for (const auto& wanted : options_.outputs) {
    std::string complaint = AddFeed(wanted);
    if (!complaint.empty()) return complaint;
  }
  std::string complaint = MakeOutputs();
  if (!complaint.empty()) return complaint;
  for (Running& running : outputs_) {
    const std::string failure = running.output->Open();
    if (!failure.empty()) return Failure(*running.feeds.front(), failure);
    for (Feed* const feed : running.feeds) {
      auto tracker = std::find_if(trackers_.begin(), trackers_.end(),
                                  [&](const Tracker& each) { return each.slot == feed->slot; });
      if (tracker == trackers_.end()) {
        tracker = trackers_.emplace(trackers_.end());
        tracker->slot = feed->slot;
      }
      tracker->feeds.emplace_back(feed, running.output.get());
    }
  }
  return {};
}

// ---- The thread of a slot
// ------------------------------------------------------------------------

void Bridge::ReadSlot(Tracker& tracker) {
  StreamSource source(tracker.slot);
  std::vector<Pose> poses;
  while (!ending_) {
    const StreamSource::News news = source.Next(kPatienceMs);
    tracker.skipped = source.state().skipped;
    if (news.stateChanged) TellState(tracker, source.state());
    for (const auto& [feed, output] : tracker.feeds) {
      poses.clear();
      feed->selector.Select(news.records, source.state(), poses);
      PublishFrames(*feed, *output, poses);
      output->Tick(*feed, kinetrel_now_ns());
    }
  }
}

void Bridge::TellState(Tracker& tracker, const SourceState& state) {
  std::string words = state.present ? kinetrel_state_text(state.state) : "no tracker";
  if (state.state != kinetrel_state_running && !state.sentence.empty()) {
    words += ": " + state.sentence;
  }
  if (tracker.state != words) Say("slot " + std::to_string(tracker.slot) + ": " + words);
  tracker.state = words;
  for (const auto& [feed, output] : tracker.feeds) output->OnState(*feed, state);
}

// An output is given one device frame at a time, with at most one pose of each sensor.
void Bridge::PublishFrames(Feed& feed, Output& output, std::span<const Pose> poses) {
  while (!poses.empty()) {
    std::uint32_t seen = 0;
    std::size_t count = 0;
    while (count < poses.size() && poses[count].frame == poses[0].frame &&
           (seen >> poses[count].sensor & 1U) == 0) {
      seen |= 1U << poses[count].sensor;
      ++count;
    }
    output.Publish(feed, poses.first(count));
    poses = poses.subspan(count);
  }
}

// ---- The thread of the sockets
// -------------------------------------------------------------------

void Bridge::Run() {
  for (const Running& running : outputs_) {
    if (options_.dryRun) break;
    const bool server = running.feeds.front()->protocol->server;
    Say(running.title + (server ? ": serves " : ": sends to ") + running.output->Place());
  }
  lastTableNs_ = kinetrel_now_ns();
  nextTableNs_ = lastTableNs_ + options_.statusSeconds * 1000000000LL;
  for (Tracker& tracker : trackers_) {
    tracker.thread = std::thread([this, &tracker] { ReadSlot(tracker); });
  }
  Watch();
  io_.run();
  for (Tracker& tracker : trackers_) tracker.thread.join();
  for (Running& running : outputs_) running.output->Close();
  io_.restart();
  io_.poll();
}

void Bridge::Watch() {
  if (stop_.load() != 0 || (options_.once && AllSent())) {
    ending_ = true;
    io_.stop();
    return;
  }
  if (options_.statusSeconds > 0 && kinetrel_now_ns() >= nextTableNs_) ShowTable();
  timer_.expires_after(kWatchEvery);
  timer_.async_wait([this](const boost::system::error_code& error) {
    if (!error) Watch();
  });
}

bool Bridge::AllSent() {
  return std::all_of(outputs_.begin(), outputs_.end(),
                     [](Running& each) { return each.output->counts().frames.load() > 0; });
}

void Bridge::ShowTable() {
  const std::int64_t now = kinetrel_now_ns();
  const double seconds = std::max(1e-3, static_cast<double>(now - lastTableNs_) / 1e9);
  lastTableNs_ = now;
  nextTableNs_ = now + options_.statusSeconds * 1000000000LL;
  for (Running& running : outputs_) {
    OutputCounts& counts = running.output->counts();
    const std::uint64_t frames = counts.frames.load();
    const double rate = static_cast<double>(frames - running.framesShown) / seconds;
    running.framesShown = frames;
    char text[128];
    std::snprintf(text, sizeof text, "%8.1f frames/s %8llu dropped", rate,
                  static_cast<unsigned long long>(counts.dropped.load()));
    std::string line =
        std::string(running.feeds.front()->protocol->scheme) + " " + running.output->Place() + text;
    const int clients = counts.clients.load();
    if (clients >= 0) line += "  " + std::to_string(clients) + " clients";
    const std::string trouble = counts.Trouble();
    if (!trouble.empty()) line += "  " + trouble;
    Say(line);
  }
  for (const Tracker& tracker : trackers_) {
    const std::uint64_t skipped = tracker.skipped;
    if (skipped == 0) continue;
    Say("slot " + std::to_string(tracker.slot) + ": " + std::to_string(skipped) +
        " records skipped");
  }
}

void Bridge::Say(const std::string& line) {
  errors_.Write(std::string(ThisProgram().name) + ": " + line);
}

}  // namespace kinetrel::bridge
