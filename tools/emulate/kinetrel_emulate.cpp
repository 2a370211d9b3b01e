// kinetrel-emulate: is a tracker at the other end of a serial line.
#include <atomic>
#include <cstdio>
#include <deque>
#include <mutex>
#include <optional>

#include "emulate/emulate_command.h"
#include "platform/clock.h"
#include "platform/console.h"
#include "platform/signals.h"

namespace {

using namespace kinetrel;

enum class ExitCode : int { Done = 0, CannotOpen = 1, BadArguments = 2 };

// Lines on their way from the emulator to a terminal that may be slow. A host that polls says the
// same thing all the time: that is counted, and told once a second.
class Lines {
 public:
  void Put(Moment now, const std::string& text) {
    const std::lock_guard lock(mutex_);
    if (text == last_ && now < toldAt_ + std::chrono::seconds(1)) {
      ++repeats_;
      return;
    }
    TellRepeats();
    char time[32];
    std::snprintf(time, sizeof time, "%12.6f  ", static_cast<double>(now.count()) * 1e-9);
    Queue(time + text);
    last_ = text;
    toldAt_ = now;
  }

  void Print() {
    std::deque<std::string> lines;
    {
      const std::lock_guard lock(mutex_);
      lines.swap(waiting_);
    }
    for (const std::string& line : lines) std::puts(line.c_str());
    if (lines.size() == kMostWaiting) std::puts("(lines were left out)");
    if (!lines.empty()) std::fflush(stdout);
  }

 private:
  static constexpr std::size_t kMostWaiting = 1000;

  void Queue(std::string line) {
    if (waiting_.size() < kMostWaiting) waiting_.push_back(std::move(line));
  }

  void TellRepeats() {
    if (repeats_ == 0) return;
    Queue(std::string(14, ' ') + "(the same " + std::to_string(repeats_) + " more times)");
    repeats_ = 0;
  }

  std::mutex mutex_;  // guards all below
  std::deque<std::string> waiting_;
  std::string last_;
  Moment toldAt_{0};
  unsigned repeats_ = 0;
};

struct FaultKey {
  char key;
  const char* fault;
};
constexpr FaultKey kFaultKeys[] = {{'n', "noise"},   {'g', "garble"}, {'c', "cut"},
                                   {'s', "silence"}, {'e', "error"},  {'r', "restart"},
                                   {'u', "unplug"}};

void ServeKeys(Emulator& emulator) {
  while (const auto key = TakeKey()) {
    for (const FaultKey& row : kFaultKeys) {
      if (key->extended || key->code != row.key) continue;
      std::printf("%s\n", row.fault);
      if (const auto fault = ParseFault(row.fault)) emulator.Strike(*fault);
    }
  }
}

void ServeSignals(Emulator& emulator, UserSignals& signals) {
  while (const auto signal = signals.Take()) {
    emulator.StrikeAll(*signal == UserSignal::First ? FaultTrigger::ByFirst
                                                    : FaultTrigger::BySecond);
  }
}

void TellPort(const EmulateCommand& command, const std::string& port) {
  std::printf("  %s\n", HowToConnect(*command.row, port).c_str());
  std::fflush(stdout);
}

void Serve(const EmulateCommand& command, Emulator& emulator, UserSignals& signals, Lines& lines,
           const std::atomic<int>& stop) {
  const KeySession keys;
  std::string told = emulator.Port();
  while (stop == 0) {
    ServeKeys(emulator);
    ServeSignals(emulator, signals);
    lines.Print();
    const std::string port = emulator.Port();
    if (!port.empty() && port != told) {
      std::printf("The port is now another one:\n");
      TellPort(command, told = port);
    }
    SleepFor(Milliseconds(20));
  }
  lines.Print();
  std::printf("%llu records sent, %llu bytes lost for want of a reader\n",
              static_cast<unsigned long long>(emulator.RecordsSent()),
              static_cast<unsigned long long>(emulator.BytesLost()));
}

ExitCode Emulate(EmulateCommand command) {
  // Never deleted: a late signal may still store into it.
  std::atomic<int>& stop = *new std::atomic<int>(0);
  CatchStopSignals(stop);
  UserSignals signals;
  Lines lines;
  if (command.show) {
    command.options.line.show = [&lines](Moment now, const std::string& t) { lines.Put(now, t); };
  }
  const std::string name = command.device->Name();
  const unsigned baud = command.options.line.baud;
  auto emulator = EmulatorThread::Start(std::move(command.device), std::move(command.options));
  if (!emulator.Ok()) {
    std::fprintf(stderr, "kinetrel-emulate: %s\n", Describe(emulator.status()).c_str());
    return ExitCode::CannotOpen;
  }
  std::printf("%s at %u baud on %s. In another terminal:\n", name.c_str(), baud,
              (*emulator)->Port().c_str());
  TellPort(command, (*emulator)->Port());
  Serve(command, **emulator, signals, lines, stop);
  return ExitCode::Done;
}

}  // namespace

int main(int count, char** arguments) {
  HoldStandardStreams();
  EmulateCommand command = ParseEmulateCommand(
      std::span(arguments + 1, static_cast<std::size_t>(count > 0 ? count - 1 : 0)));
  switch (command.request) {
    case EmulateRequest::Help:
      std::fputs(command.text.c_str(), stdout);
      return static_cast<int>(ExitCode::Done);
    case EmulateRequest::Refuse:
      std::fprintf(stderr, "kinetrel-emulate: %s (see kinetrel-emulate --help)\n",
                   command.text.c_str());
      return static_cast<int>(ExitCode::BadArguments);
    case EmulateRequest::Emulate:
      return static_cast<int>(Emulate(std::move(command)));
  }
}
