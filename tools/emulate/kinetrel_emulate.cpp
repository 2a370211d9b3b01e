// kinetrel-emulate: plays a tracker at the other end of a serial line.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "emulate/emulate_command.h"
#include "emulate/emulator.h"
#include "platform/clock.h"
#include "platform/console.h"
#include "platform/serial_device_port.h"
#include "platform/serial_line.h"
#include "platform/signals.h"
#include "program/program.h"

namespace kinetrel::emulate {
namespace {

// ---- How to start kinetrel on it ----------------------------------------------------------------

// How a person starts the program kinetrel that is beside this one: by its path, unless the shell
// found this one by its name alone.
std::string KinetrelBeside(const std::string& started) {
  namespace fs = std::filesystem;
  const fs::path own(started);
  if (!own.has_parent_path()) return "kinetrel";
  std::error_code error;
  const fs::path beside = fs::absolute(own, error).parent_path() / "kinetrel";
  if (error) return "kinetrel";
  for (const char* ending : {"", ".exe"}) {
    if (fs::exists(beside.string() + ending, error)) {
      return fs::path(beside.string() + ending).lexically_normal().string();
    }
  }
  return "kinetrel";
}

// The command that starts kinetrel on a device.
struct Hint {
  std::string kinetrel;  // how a person starts it
  const DeviceRow& row;
  std::string options;               // besides the port
  bool wired = false;                // the host is at the other end of a real line
  std::shared_ptr<UsbBus> bus = {};  // where the device is; null: on a serial line

  std::string On(const std::string& port) const {
    const std::string started = ShellWord(kinetrel) + " " + options + " --port ";
    if (bus) {
      std::string text;
      for (const auto& [name, value] : bus->Environment()) {
        text.append(name).append("=").append(ShellWord(value)).append(" ");
      }
      return text + started + port;
    }
    if (!row.takesPath) return "KINETREL_COM1=" + ShellWord(port) + " " + started + "1";
    return started + ShellWord(port);
  }
};

// A name for the port that is the same at each start, unless another emulator has it: then one with
// a number. The name is taken, as a link that leads nowhere. Empty: the system makes no link.
std::string TakeStableName(std::string_view device) {
  namespace fs = std::filesystem;
  // Ports of Windows keep their names.
  if constexpr (fs::path::preferred_separator != '/') return {};
  constexpr int kMostAtOnce = 9;
  std::error_code error;
  const char* const own = std::getenv("XDG_RUNTIME_DIR");
  const fs::path folder =
      own != nullptr && *own != '\0' ? fs::path(own) : fs::temp_directory_path(error);
  for (int number = 1; number <= kMostAtOnce && !error; ++number) {
    std::string name = "kinetrel-" + std::string(device);
    if (number > 1) name += "-" + std::to_string(number);
    const fs::path link = folder / name;
    // The link of an emulator that was killed leads to a port that is gone.
    if (fs::is_symlink(link, error) && !fs::exists(link, error)) fs::remove(link, error);
    fs::create_symlink(link.string() + ".starting", link, error);
    if (!error) return link.string();
    if (error == std::errc::file_exists) error.clear();
  }
  return {};
}

// ---- Running ------------------------------------------------------------------------------------

constexpr int kDone = 0;
constexpr int kCannotOpen = 1;
constexpr Milliseconds kSourcePatience{3000};

// Lines on their way from the emulator to a terminal that may be slow. A host that polls repeats
// the same command: repeats are counted and shown once a second.
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
    if (lines.size() == kMostWaiting) std::puts("(some lines are missing)");
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

void TellPort(const Hint& hint, const std::string& port) {
  std::printf("  %s\n", hint.On(port).c_str());
  std::fflush(stdout);
}

void TellNews(PoseFeed* feed) {
  if (feed == nullptr) return;
  const std::vector<std::string> news = feed->TakeNews();
  for (const std::string& line : news) std::printf("%s\n", line.c_str());
  if (!news.empty()) std::fflush(stdout);
}

void Serve(const Hint& hint, PoseFeed* feed, Emulator& emulator, UserSignals& signals, Lines& lines,
           const std::atomic<int>& stop) {
  const KeySession keys;
  std::string told = emulator.Port();
  while (stop == 0) {
    ServeKeys(emulator);
    ServeSignals(emulator, signals);
    lines.Print();
    TellNews(feed);
    const std::string port = emulator.Port();
    if (hint.wired) {
      if (port != told) {
        std::printf("%s\n", port.empty() ? "The port has gone; it is tried every second."
                                         : "The port is back.");
        std::fflush(stdout);
        told = port;
      }
    } else if (!port.empty() && port != told) {
      std::printf("The port has a new name:\n");
      TellPort(hint, told = port);
    }
    SleepFor(Milliseconds(20));
  }
  lines.Print();
  std::printf("%llu records sent, %llu bytes lost because no host read them\n",
              static_cast<unsigned long long>(emulator.RecordsSent()),
              static_cast<unsigned long long>(emulator.BytesLost()));
}

int CannotOpen(const Status& status) {
  std::fprintf(stderr, "kinetrel-emulate: %s\n", Describe(status).c_str());
  return kCannotOpen;
}

Status PlugIntoUsb(const DeviceRow& row, Hint& hint, std::unique_ptr<DevicePort>& port) {
  auto bus = UsbBus::Make();
  if (!bus.Ok()) return bus.status();
  auto attached = (*bus)->Attach(1, *row.usb);
  if (!attached.Ok()) return attached.status();
  hint.bus = std::move(*bus);
  port = std::move(*attached);
  return {};
}

int Emulate(EmulateCommand command, const std::string& started) {
  Hint hint{KinetrelBeside(started), *command.row, command.kinetrelOptions};
  hint.wired = !command.port.empty();
  if (command.options.link.empty() && !command.usb && !hint.wired) {
    command.options.link = TakeStableName(command.row->name);
  }
  // Never deleted: a late signal may still store into it.
  std::atomic<int>& stop = *new std::atomic<int>(0);
  CatchStopSignals(stop);
  UserSignals signals;
  Lines lines;
  if (command.show) {
    command.options.line.show = [&lines](Moment now, const std::string& t) { lines.Put(now, t); };
  }
  if (command.feed) {
    // How many stations the device has depends on the source, if it is there.
    command.feed->Await(kSourcePatience);
    command.MakeDevice();
  }
  const std::string name = command.device->Name();
  const unsigned baud = command.options.line.baud;
  std::unique_ptr<DevicePort> port;
  if (command.usb) {
    if (const Status plugged = PlugIntoUsb(*command.row, hint, port); !plugged.Ok()) {
      return CannotOpen(plugged);
    }
  }
  if (hint.wired) {
    auto opened = OpenSerialDevicePort(command.port, baud);
    if (!opened.Ok()) {
      std::fprintf(stderr, "kinetrel-emulate: %s\n",
                   SerialLine::ExplainOpenFailure(command.port, opened.status()).c_str());
      return kCannotOpen;
    }
    port = std::move(*opened);
  }
  auto emulator =
      EmulatorThread::Start(std::move(command.device), command.options, std::move(port));
  if (!emulator.Ok()) {
    return CannotOpen(emulator.status());
  }
  const bool hasRate = !command.usb && !command.options.line.anyRate;
  const std::string rate = !hasRate ? "" : " at " + std::to_string(baud) + " baud";
  std::printf("%s%s on %s. %s\n", name.c_str(), rate.c_str(), (*emulator)->Port().c_str(),
              hint.wired ? "The host is at the other end of the line." : "In another terminal:");
  std::fflush(stdout);
  if (!hint.wired) TellPort(hint, (*emulator)->Port());
  if (command.options.link.empty() && !command.usb && !hint.wired &&
      (*emulator)->Port().starts_with('/')) {
    std::printf("The port has another name at each start; --link PATH gives it one that stays.\n");
    std::fflush(stdout);
  }
  PoseFeed* const feed = command.feed.get();
  if (feed != nullptr) {
    const Status feeding =
        feed->Start([&device = **emulator](std::uint32_t stations) { device.NewPoses(stations); });
    if (!feeding.Ok()) return CannotOpen(feeding);
  }
  Serve(hint, feed, **emulator, signals, lines, stop);
  command.feed.reset();  // it calls the emulator
  return kDone;
}

}  // namespace
}  // namespace kinetrel::emulate

int main(int count, char** arguments) {
  using namespace kinetrel::emulate;
  return kinetrel::RunProgram("kinetrel-emulate", [&] {
    EmulateCommand command = ParseEmulateCommand(count, arguments);
    if (command.ending) return Print(*command.ending, "kinetrel-emulate");
    return Emulate(std::move(command), arguments[0]);
  });
}
