// The text of --help, made from the table of options.
#include <algorithm>
#include <string>
#include <string_view>

#include "app/command_line.h"
#include "app/option_table.h"
#include "devices/device_types.h"

namespace kinetrel {
namespace {

constexpr std::size_t kHelpColumn = 34;
constexpr std::size_t kWidth = 100;

// Breaks `text` between words, so that it stays within the width, from the help's column on.
std::string Wrapped(std::string_view text) {
  std::string lines;
  std::size_t room = kWidth - kHelpColumn;
  while (text.size() > room) {
    const std::size_t end = text.rfind(' ', room);
    lines += std::string(text.substr(0, end)) + '\n' + std::string(kHelpColumn, ' ');
    text.remove_prefix(end + 1);
  }
  return lines + std::string(text) + '\n';
}

std::string Line(std::string left, std::string_view help) {
  if (left.size() >= kHelpColumn) {
    left += '\n' + std::string(kHelpColumn, ' ');
  } else {
    left.resize(kHelpColumn, ' ');
  }
  return left + Wrapped(help);
}

std::string OptionLine(const OptionRow& row) {
  std::string left = row.letter == '\0' ? "      " : std::string("  -") + row.letter + ", ";
  const bool isSwitch = row.value.empty() && row.read != nullptr;
  left += (isSwitch ? "--[no-]" : "--") + std::string(row.name);
  if (!row.value.empty()) left += ' ' + std::string(row.value);
  return Line(left, row.help);
}

std::string DeviceLines() {
  std::string text;
  for (const DeviceTypeName& row : kDeviceTypeNames) {
    std::string left = "  " + std::to_string(row.type);
    left.resize(6, ' ');
    text += Line(left + std::string(row.name), row.models);
  }
  return text;
}

}  // namespace

const char* NameOf(Audience audience) {
  return audience == Audience::Service ? "kinetrel-service" : "kinetrel";
}

std::string HelpText(Audience audience) {
  const std::string name = NameOf(audience);
  std::string text = "usage: " + name + " [OPTION]...\n\n" +
                     "Samples one motion tracker and publishes its poses until it is stopped.\n";
  if (audience == Audience::Service) text += "Relays on other machines may follow it.\n";
  text += "\n  " + name + " --device simulated --sensors 1-4 --no-streaming    without hardware\n";
  text += "  " + name +
          " --device fastrak --port /dev/ttyUSB0\n\nOptions; a letter takes numbers, a long name "
          "also words:\n";
  for (const OptionRow& row : OptionTable()) {
    if (!row.name.empty() && IsFor(row, audience)) text += OptionLine(row);
  }
  text += "\nDevices:\n" + DeviceLines();
  text += "\nKeys: Ctrl-A takes the present azimuth as zero, A undoes that, ESC stops.\n";
  text +=
      "Exit codes: 0 done or stopped; 255 an option was not understood; 254 the tracker could not "
      "be\nopened" +
      std::string(audience == Audience::Service ? "; 253 the address cannot be served" : "") +
      ".\n";
  return text;
}

}  // namespace kinetrel
