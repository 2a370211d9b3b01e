// The service: the console program that also lets relays on other machines follow the tracker.

#include <algorithm>
#include <cstdio>
#include <optional>
#include <utility>
#include <vector>

#include "app/console_program.h"
#include "app/listen_address.h"
#include "engine/tracker_engine.h"
#include "platform/console.h"
#include "rpc/server_session.h"
#include "rpc/track_server.h"

namespace {

using kinetrel::ExitCode;
using kinetrel::ListenAddress;
using kinetrel::TrackerEngine;
namespace rpc = kinetrel::rpc;

constexpr int kThisEngine = 1;  // the handle of the only engine of the service

constexpr std::size_t kKeySize = std::tuple_size_v<rpc::TrackKey>;

// Replaces `keys` by the keys of all mappings, one after another. False while the engine is closed.
bool ListMappings(TrackerEngine& engine, std::vector<int>& keys) {
  int count = 0;
  if (!engine.IsOpen() || !engine.GetMappingSize(&count)) return false;
  keys.resize(static_cast<std::size_t>(count) * kKeySize);
  return engine.GetMappingList(count, keys.data());
}

// Whether a client that asks for a pose gets one: some mapping has a published frame.
bool HasPose(TrackerEngine& engine) {
  constexpr int kFrameCount = static_cast<int>(kinetrel::MappingAttribute::FrameCount);
  std::vector<int> keys;
  if (!ListMappings(engine, keys)) return false;
  for (std::size_t at = 0; at < keys.size(); at += kKeySize) {
    int frames = 0;
    if (engine.GetFilterAttributeInt(&keys[at], -1, kFrameCount, &frames) && frames > 0) {
      return true;
    }
  }
  return false;
}

// The engine as the clients on other machines see it: each procedure is the engine's operation of
// the same name. A client changes nothing. A request for a mapping that does not exist is not
// logged, because a client that waits for a mapping asks again and again.
//
// Threads  one at a time, beside other threads that use the engine.
class EngineProcedures final : public rpc::TrackProcedures {
 public:
  explicit EngineProcedures(TrackerEngine& engine) : engine_(engine) {}

  rpc::MappingReply GetMapping(const rpc::TrackKey& key) override {
    rpc::MappingReply reply;
    reply.found = HasMapping(key) && engine_.GetMapping(key.data(), &reply.sensor);
    if (reply.found) reply.engine = kThisEngine;
    return reply;
  }

  rpc::AttributeReply GetAttribute(const rpc::AttributeArguments& arguments) override {
    rpc::AttributeReply reply;
    reply.known = arguments.engine == kThisEngine && engine_.IsOpen() &&
                  engine_.GetAttributeInt(arguments.id, &reply.value);
    return reply;
  }

  bool GetFloats(const rpc::FloatsArguments& arguments, std::span<float> values) override {
    return HasMapping(arguments.key) && engine_.GetFilterAttributeFloatArray(
                                            arguments.key.data(), arguments.filter, arguments.id,
                                            static_cast<int>(values.size()), values.data());
  }

 private:
  bool HasMapping(const rpc::TrackKey& key) {
    if (!ListMappings(engine_, keys_)) return false;
    for (auto at = keys_.begin(); at != keys_.end();
         at += static_cast<std::ptrdiff_t>(key.size())) {
      if (std::equal(key.begin(), key.end(), at)) return true;
    }
    return false;
  }

  TrackerEngine& engine_;
  std::vector<int> keys_;  // holds the mapping list
};

ExitCode ReportServingFailed(const ListenAddress& listen, const kinetrel::Status& why) {
  kinetrel::PrintError("Cannot serve on %s, port %u: %s.\n", listen.address.c_str(),
                       static_cast<unsigned>(listen.port), Describe(why).c_str());
  return ExitCode::ServingFailed;
}

// On standard error: the program that started the service waits for this line.
void ReportReady(const ListenAddress& listen, unsigned port) {
  kinetrel::PrintError("\nServing on %s, port %u: ready.\n", listen.address.c_str(), port);
  const bool open = listen.address.rfind("127.", 0) != 0 && listen.address != "::1";
  if (open) kinetrel::PrintError("Anyone who can reach this address can follow the tracker.\n");
}

ExitCode Serve(TrackerEngine& engine, kinetrel::StreamListener listener,
               const ListenAddress& listen, const std::atomic<int>& stopRequest) {
  EngineProcedures procedures(engine);
  rpc::TrackServer server(std::move(listener), procedures);
  if (const kinetrel::Status status = server.Start(); !status.Ok()) {
    return ReportServingFailed(listen, status);
  }
  kinetrel::RunConsoleLoop(engine, stopRequest, [&] {
    const bool ready = HasPose(engine);
    if (ready) ReportReady(listen, server.port());
    return ready;
  });
  return ExitCode::Done;
}

ExitCode Run(int count, const char* const* arguments) {
  ListenAddress listen;
  std::optional<kinetrel::StreamListener> listener;
  // After the options and before the tracker boots, which may take seconds: a wrong option does not
  // touch the port, and a second service fails at once.
  const auto prepare = [&](const kinetrel::ProgramSettings& settings) {
    const auto chosen = kinetrel::ChosenListenAddress(settings.listen);
    if (!chosen) return ExitCode::BadArguments;
    listen = *chosen;
    auto opened = kinetrel::StreamListener::Open(listen.address, listen.port);
    if (!opened.Ok()) return ReportServingFailed(listen, opened.status());
    listener.emplace(std::move(*opened));
    return ExitCode::Done;
  };
  const auto session = [&](TrackerEngine& engine, const std::atomic<int>& stopRequest) {
    return Serve(engine, std::move(*listener), listen, stopRequest);
  };
  return kinetrel::RunConsoleProgram(kinetrel::Audience::Service, count, arguments, prepare,
                                     session);
}

}  // namespace

int main(int count, char** arguments) {
  kinetrel::HoldStandardStreams();
  return static_cast<int>(Run(count, arguments));
}
