// kinetrel-watch over the record stream: one run, until there is a reason to end.
#pragma once

#include <kinetrel/stream.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/console.h"
#include "watch/stream_view.h"
#include "watch/watch_face.h"
#include "watch/watch_options.h"

namespace kinetrel::watch {

class StreamWatcher {
 public:
  // stop   nonzero once the program is to end; must outlive the object.
  // table  a live table on the terminal instead of lines.
  StreamWatcher(const WatchOptions& options, const std::atomic<int>& stop, bool table);
  ~StreamWatcher();
  StreamWatcher(const StreamWatcher&) = delete;
  StreamWatcher& operator=(const StreamWatcher&) = delete;

  // If the result is not Done, standard error says why.
  ExitCode Run();

 private:
  kinetrel_stream_result Take(kinetrel_record& record);
  void LookElsewhere();
  void LookAtState();
  void Announce();
  WriteResult ShowRecord(const kinetrel_record& record);
  WriteResult ShowTable();
  WriteResult ShowLog();
  bool KeyEnds();

  const WatchOptions options_;
  const std::atomic<int>& stop_;
  const bool table_;
  std::optional<KeySession> keys_;
  WatchScreen screen_;
  kinetrel_stream stream_;
  StreamSnapshot now_;
  bool logShown_ = false;
  std::string announced_;
  std::int64_t nextDraw_ = 0;                                    // ns
  std::int64_t nextLook_ = 0;                                    // ns
  std::array<std::uint32_t, kinetrel_stream_sensors> counts_{};  // records since countedFrom_
  std::int64_t countedFrom_ = 0;                                 // ns
};

}  // namespace kinetrel::watch
