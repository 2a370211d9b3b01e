// A run of kinetrel-bridge: the outputs, the thread that reads each slot, and the thread for
// sockets.
//
// One thread for each slot waits for its records and sends them itself: a second thread between
// them would cost a second wake-up, which takes longer than all the rest. Nothing that it calls
// waits, and only the stream's own ring queues records on their way to the network. The
// sockets that wait (clients that connect, ask, or read slowly) and the table on standard error
// belong to the one thread that runs the io_context.
#pragma once

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bridge/line_writer.h"
#include "bridge/output.h"

namespace kinetrel::bridge {

struct BridgeOptions {
  struct Wanted {
    int slot = 1;
    std::string text;  // the output's
  };
  std::vector<Wanted> outputs;
  std::string listen = "127.0.0.1";
  int statusSeconds = 5;  // between two tables; 0: none
  bool once = false;      // end when every output has sent a frame
  bool dryRun = false;
};

class Bridge {
 public:
  // errors  for the operator.
  // prints  of the dry run.
  // stop    nonzero once the program is to end.
  // All three outlive the object.
  Bridge(const BridgeOptions& options, LineWriter& errors, LineWriter& prints,
         const std::atomic<int>& stop);
  ~Bridge();
  Bridge(const Bridge&) = delete;
  Bridge& operator=(const Bridge&) = delete;

  // Makes and opens all outputs. Returns empty, or the one line that says what is wrong.
  std::string Open();

  // Until the stop request, or with `once` until every output has sent a frame.
  void Run();

 private:
  struct Running {
    std::unique_ptr<Output> output;
    std::vector<Feed*> feeds;
    std::string title;              // of the first feed
    std::uint64_t framesShown = 0;  // by the last table
  };
  struct Tracker {
    int slot = 1;
    std::vector<std::pair<Feed*, Output*>> feeds;
    std::string state;                      // as it was told; of the thread
    std::atomic<std::uint64_t> skipped{0};  // records, for the table
    std::thread thread;
  };

  std::string AddFeed(const BridgeOptions::Wanted& wanted);
  void KeepApart(Feed& feed);
  std::string MakeOutputs();
  void ReadSlot(Tracker& tracker);
  void TellState(Tracker& tracker, const SourceState& state);
  void PublishFrames(Feed& feed, Output& output, std::span<const Pose> poses);
  void Watch();
  bool AllSent();
  void ShowTable();
  void Say(const std::string& line);

  const BridgeOptions options_;
  LineWriter& errors_;
  const std::atomic<int>& stop_;
  boost::asio::io_context io_{1};
  OutputContext context_;
  std::deque<Feed> feeds_;
  std::deque<Running> outputs_;
  std::list<Tracker> trackers_;
  std::atomic<bool> ending_{false};
  boost::asio::steady_timer timer_{io_};
  std::int64_t nextTableNs_ = 0;
  std::int64_t lastTableNs_ = 0;
};

}  // namespace kinetrel::bridge
