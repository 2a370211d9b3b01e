#include "watch/watch_options.h"

#include <array>
#include <charconv>
#include <cmath>
#include <string_view>

#include "publish/shared_track_block.h"
#include "watch/watch_view.h"

namespace kinetrel::watch {
namespace {

// ---- Numbers ------------------------------------------------------------------------------------

// All of `text` as a number from `least` to `most`: no sign, no space, no other base.
template <typename Number>
bool ParseNumber(std::string_view text, Number least, Number most, Number& into) {
  Number value{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  const bool whole = error == std::errc() && end == text.data() + text.size();
  if (!whole || text.front() == '-' || !(value >= least && value <= most)) return false;
  into = value;
  return true;
}

constexpr double kLeastTimeout = 0.001;
constexpr double kMostTimeout = 1'000'000;

bool ParseSeconds(std::string_view text, std::optional<Milliseconds>& into) {
  double seconds = 0;
  if (!ParseNumber(text, kLeastTimeout, kMostTimeout, seconds)) return false;
  into = Milliseconds(std::llround(seconds * 1000));
  return true;
}

// ---- The options --------------------------------------------------------------------------------

struct Option {
  std::string_view name;
  std::string_view value;  // the usage's name of it; empty: the option takes no value
  std::string_view wants;  // what a value must be
  std::string_view help;
  bool (*apply)(WatchCommand& command, std::string_view value);  // false: a bad value
};

constexpr std::array kOptions = {
    Option{"--slot", "NUMBER", "a number from 1 to 16",
           "shared-memory slot, 1 to 16, as kinetrel -w counts them (default 1)",
           [](WatchCommand& command, std::string_view value) {
             return ParseNumber(value, 1, kSharedDevices, command.options.slot);
           }},
    Option{"--log", "", "", "print the newest lines of the status log and end",
           [](WatchCommand& command, std::string_view) { return command.options.log = true; }},
    Option{"--block", "", "", "watch the block that clients of the old format read",
           [](WatchCommand& command, std::string_view) { return command.options.block = true; }},
    Option{"--bin", "NUMBER", "a number from 0 to 15",
           "with the block of this bin of the slot, 0 to 15 (default 0)",
           [](WatchCommand& command, std::string_view value) {
             command.options.block = true;
             return ParseNumber(value, 0, kSharedBins - 1, command.options.bin);
           }},
    Option{"--degrees", "", "", "angles in degrees instead of radians",
           [](WatchCommand& command, std::string_view) { return command.options.degrees = true; }},
    Option{"--plain", "", "", "one line of text per frame, on a terminal too",
           [](WatchCommand& command, std::string_view) {
             command.options.form = OutputForm::Plain;
             return true;
           }},
    Option{"--json", "", "", "one JSON object per frame and line; null for what is not a number",
           [](WatchCommand& command, std::string_view) {
             command.options.form = OutputForm::Json;
             return true;
           }},
    Option{"--once", "", "", "end after one frame",
           [](WatchCommand& command, std::string_view) {
             command.options.frames = 1;
             return true;
           }},
    Option{"--frames", "COUNT", "a number from 1 up", "end after COUNT frames shown",
           [](WatchCommand& command, std::string_view value) {
             return ParseNumber<std::uint64_t>(value, 1, UINT64_MAX, command.options.frames);
           }},
    Option{"--timeout", "SECONDS", "a number from 0.001 to 1000000",
           "give up when no frame comes for SECONDS",
           [](WatchCommand& command, std::string_view value) {
             return ParseSeconds(value, command.options.timeout);
           }},
    Option{"--help", "", "", "print this and end",
           [](WatchCommand& command, std::string_view) {
             command.request = WatchRequest::Help;
             return true;
           }},
    Option{"--version", "", "", "print the version and end",
           [](WatchCommand& command, std::string_view) {
             command.request = WatchRequest::Version;
             return true;
           }},
};

const Option* Find(std::string_view name) {
  for (const Option& option : kOptions) {
    if (option.name == name) return &option;
  }
  return nullptr;
}

void Refuse(WatchCommand& command, std::string complaint) {
  command.request = WatchRequest::Refuse;
  command.complaint = std::move(complaint);
}

// Applies one option. `next` is the argument after it, or null. True if `next` was its value.
bool Apply(WatchCommand& command, std::string_view argument, const char* next) {
  const std::size_t equals = argument.find('=');
  const std::string_view name = argument.substr(0, equals);
  const Option* const option = Find(name);
  if (option == nullptr) {
    Refuse(command, "unknown argument '" + Printable(argument) + "'");
    return false;
  }
  const bool joined = equals != std::string_view::npos;
  const bool takesValue = !option->value.empty();
  if (joined && !takesValue) {
    Refuse(command, std::string(name) + " takes no value");
    return false;
  }
  if (takesValue && !joined && next == nullptr) {
    Refuse(command, std::string(name) + " wants " + std::string(option->wants));
    return false;
  }
  const std::string_view apart = next == nullptr ? "" : next;
  const std::string_view value = joined ? argument.substr(equals + 1) : apart;
  if (!option->apply(command, value)) {
    Refuse(command, std::string(name) + " wants " + std::string(option->wants) + ", not '" +
                        Printable(value) + "'");
  }
  return takesValue && !joined;
}

}  // namespace

WatchCommand ParseWatchCommand(int count, const char* const* arguments) {
  WatchCommand command;
  for (int i = 1; i < count && command.request == WatchRequest::Watch; ++i) {
    if (Apply(command, arguments[i], i + 1 < count ? arguments[i + 1] : nullptr)) ++i;
  }
  return command;
}

std::string WatchUsage() {
  std::string text =
      "usage: kinetrel-watch [OPTION]...\n\n"
      "Shows the poses that a running tracker publishes: a table on a terminal, one line\n"
      "per frame elsewhere. Waits for a tracker that has not started yet, and for one that comes "
      "back.\n"
      "q, ESC or Ctrl-C ends it.\n\n";
  for (const Option& option : kOptions) {
    std::string left = "  " + std::string(option.name) + " " + std::string(option.value);
    left.resize(20, ' ');
    text += left + std::string(option.help) + "\n";
  }
  text +=
      "\nA frame is one record of the stream: one sensor's pose, in metres, with its age on this\n"
      "machine's clock. With --block it is one publication of the block, and frames that come\n"
      "faster than they are shown are passed over. On a terminal l shows the status log.\n"
      "\nExit codes:\n"
      "  0  done, or ended by a signal or by the reader of its output\n"
      "  1  the shared memory cannot be opened\n"
      "  2  bad arguments\n"
      "  3  no frame came within --timeout\n"
      "  4  the output cannot be written\n";
  return text;
}

}  // namespace kinetrel::watch
