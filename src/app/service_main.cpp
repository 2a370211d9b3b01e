// The service: the console program, and besides it the tracker is there for relays on other
// machines.

#include <cstdio>

#include "app/console_loop.h"
#include "app/console_program.h"
#include "app/engine_procedures.h"
#include "app/listen_option.h"
#include "platform/console.h"
#include "rpc/track_server.h"

namespace {

using kinetrel::ExitCode;
using kinetrel::ListenAddress;

ExitCode CannotServe(const ListenAddress& listen, const kinetrel::Status& why) {
  std::fprintf(stderr, "Cannot serve on %s, port %u: %s.\n", listen.address.c_str(),
               static_cast<unsigned>(listen.port), Describe(why).c_str());
  return ExitCode::ServingFailed;
}

// Standard error: whoever started the service waits for this line.
void SayReady(const ListenAddress& listen, unsigned port) {
  std::fprintf(stderr, "\nServing on %s, port %u: ready.\n", listen.address.c_str(), port);
  const bool open = listen.address.rfind("127.", 0) != 0 && listen.address != "::1";
  if (open) std::fputs("Whoever can reach this address can follow the tracker.\n", stderr);
}

ExitCode Serve(kinetrel::TrackerEngine& engine, kinetrel::StreamListener listener,
               const ListenAddress& listen, const std::atomic<int>& stopRequest) {
  kinetrel::EngineProcedures procedures(engine);
  kinetrel::rpc::TrackServer server(std::move(listener), procedures);
  if (const kinetrel::Status status = server.Start(); !status.Ok()) {
    return CannotServe(listen, status);
  }
  SayReady(listen, server.port());
  kinetrel::RunConsoleLoop(engine, stopRequest);
  return ExitCode::Done;
}

ExitCode Run(int count, const char* const* arguments) {
  const auto taken = kinetrel::TakeListenOption(count, arguments);
  if (!taken) return ExitCode::BadArguments;
  // Before the tracker is opened, which may take its time: a second service is told at once.
  auto listener = kinetrel::StreamListener::Open(taken->listen.address, taken->listen.port);
  if (!listener.Ok()) return CannotServe(taken->listen, listener.status());
  const auto session = [&](kinetrel::TrackerEngine& engine, const std::atomic<int>& stopRequest) {
    return Serve(engine, std::move(*listener), taken->listen, stopRequest);
  };
  const ExitCode code = kinetrel::RunConsoleProgram(static_cast<int>(taken->rest.size()),
                                                    taken->rest.data(), session);
  if (code == ExitCode::BadArguments) {
    std::fputs("\t--listen {ADDR[:PORT]}\tWhere relays connect: <127.0.0.1:5437>\n", stderr);
  }
  return code;
}

}  // namespace

int main(int count, char** arguments) {
  kinetrel::HoldStandardStreams();
  return static_cast<int>(Run(count, arguments));
}
