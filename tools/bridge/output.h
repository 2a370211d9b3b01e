// An output: one protocol to one place. And the table of protocols.
//
// A new protocol is one pair of files and one row in output_table.cpp.
#pragma once

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "bridge_front/output_address.h"
#include "bridge_front/pose_selector.h"
#include "bridge_front/stream_source.h"

namespace kinetrel::bridge {

struct Protocol;

// One tracker that an output sends, with what the operator wrote for it. Lives longer than the
// output.
struct Feed {
  int slot = 1;  // 1 to 16
  const Protocol* protocol = nullptr;
  OutputOptions options;  // of this feed; an output reads its own options in its factory
  PoseSelector selector;  // applied before Publish
};

// What an output has done. Written by the output, read by the table on standard error.
// Threads  any.
class OutputCounts {
 public:
  std::atomic<std::uint64_t> frames{0};   // given to the network, or to at least one client
  std::atomic<std::uint64_t> dropped{0};  // poses that were not sent because they could not wait
  std::atomic<int> clients{-1};           // connected; -1: the protocol knows none

  // A sentence for the operator. The same trouble again is not reported again until Clear.
  // Returns  true if it is new.
  bool Report(const std::string& trouble);
  bool Clear();                 // true if there was a trouble
  std::string Trouble() const;  // empty: none

 private:
  mutable std::mutex mutex_;
  std::string trouble_;
};

// What an output may use of the bridge. Lives longer than the output.
struct OutputContext {
  boost::asio::io_context& io;  // of the one thread for sockets that wait
  std::string listen;           // address that servers listen on
  bool dryRun = false;          // nothing leaves the machine; Print shows each packet instead
  std::function<void(const std::string&)> say;    // a line on standard error. Threads: any
  std::function<void(const std::string&)> print;  // a line on standard output. Threads: any
};

class Output {
 public:
  virtual ~Output() = default;

  // Resolves names, binds sockets, loads libraries. Called once, before all else.
  // Returns  empty, or why it failed: a clause for the operator ("host x.y does not resolve").
  virtual std::string Open() = 0;

  // Sends these poses: of one device frame, at most one of each sensor, in the target's axes. A
  // sensor that the device did not see comes with Seen() false. Never waits: what cannot be sent
  // now is counted as dropped.
  // Threads  the thread of the feed's slot, one call at a time for each slot; an output with
  //          several feeds guards its state.
  virtual void Publish(const Feed& feed, std::span<const Pose> poses) = 0;

  // The tracker's state is another one: it came, went silent, was lost, runs again. Thread and
  // waiting as Publish.
  virtual void OnState(const Feed&, const SourceState&) {}

  // Called after each batch of records and at least five times a second, for what is sent by time.
  // nowNs  kinetrel_now_ns(). Thread and waiting as Publish.
  virtual void Tick(const Feed&, std::int64_t /*nowNs*/) {}

  // Ends what runs on the io_context. Called on its thread, after the last Publish.
  virtual void Close() {}

  // Where it goes, as the operator would write it: "127.0.0.1:3883".
  virtual std::string Place() const = 0;

  OutputCounts& counts() { return counts_; }

 private:
  OutputCounts counts_;
};

struct Protocol {
  std::string_view scheme = {};
  std::string_view path = {};    // of several presets of a scheme, what the operator names: "vmc"
  std::uint16_t port = 0;        // default; 0: none
  std::string_view host = {};    // default; empty: the operator must give one, or it listens
  std::string_view axes = {};    // preset: axes and unit of length
  std::string_view angles = {};  // "quaternion", "degree", ...
  std::string_view name = {};    // default name of a sensor, followed by its number
  // What keeps two trackers apart that are sent to one place: the option that numbers their
  // sensors; "name"; "port" if only another place does; empty if the protocol does.
  std::string_view apart = {};
  bool server = false;         // listens at OutputContext::listen; several trackers share one port
  std::string_view help = {};  // one line
  // Makes the output of these feeds: of one, or of several if `server`. Reads the feeds' options
  // and complains there. Does not open anything.
  std::unique_ptr<Output> (*make)(const OutputContext& context, const std::vector<Feed*>& feeds);
};

// A program that sends: all share the rest of this folder, and each has a table of protocols.
struct Program {
  std::string_view name;
  std::string_view example;  // arguments
  std::string_view output;   // of a slot for which the operator names none; empty: he must
  bool listens = false;      // it has servers, and the option --listen
};

// Defined beside the program's table: output_table.cpp has those of kinetrel-bridge.
std::span<const Protocol> Protocols();
const Program& ThisProgram();

// Null: unknown. A path that no row of the scheme has is unknown too.
const Protocol* FindProtocol(std::string_view scheme, std::string_view path);
// "osc", or with the path of a preset "osc://HOST/vmc".
std::string TitleOf(const Protocol& protocol);

// Host and port of a feed, or its protocol's defaults.
std::string HostOf(const Feed& feed);
std::uint16_t PortOf(const Feed& feed);

// Complains if option `key`, the number of the first chosen sensor, leads another one past `limit`.
void RefuseNumbersPast(Feed& feed, std::string_view key, int first, int limit);

}  // namespace kinetrel::bridge
