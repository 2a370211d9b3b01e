#include "scan/check.h"

#include <kinetrel/stream.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>

#include "devices/polhemus_usb.h"
#include "platform/dynamic_library.h"
#include "platform/port_list.h"
#include "platform/serial_line.h"
#include "platform/stream_memory.h"
#include "platform/thread.h"
#include "probe/conversation.h"
#include "probe/line_probe.h"
#include "publish/record_stream_writer.h"
#include "scan/machine.h"

namespace kinetrel::scan {
namespace {

constexpr int kSimulated = 8;
constexpr int kRelay = 11;

class Chain {
 public:
  explicit Chain(const CheckOptions& options) : options_(options) {}

  bool Walk() {
    for (const Slot& slot : SlotsInUse()) {
      if (slot.number == options_.slot && slot.state == "running") running_ = slot;
    }
    const bool tracker = running_ ? Running()
                         : IsUsbName(options_.port)
                             ? OnUsb()
                             : Library() && Port() && Line() && Answer() && Rate();
    return tracker && SharedMemory() && Priority() && Clients();
  }

 private:
  // ---- Lines -----------------------------------------------------------------------------------

  static bool Good(const char* link, const std::string& words) {
    std::printf("ok      %-14s %s\n", link, words.c_str());
    return true;
  }
  static bool Broken(const char* link, const std::string& words) {
    std::printf("BROKEN  %-14s %s\n", link, words.c_str());
    return false;
  }

  bool HasLine() const { return family_ != nullptr; }

  // ---- The tracker -----------------------------------------------------------------------------

  bool Running() const {
    char rate[32];
    std::snprintf(rate, sizeof rate, "%.1f Hz", running_->rate);
    return Good("tracker", running_->device + " runs in process " +
                               std::to_string(running_->process) + ", " + rate);
  }

  bool Library() const {
    const char* const name = options_.deviceType == 6    ? "isense.dll"
                             : options_.deviceType == 10 ? "pdi.dll"
                                                         : nullptr;
    if (name == nullptr) return true;
    std::string why;
    if (DynamicLibrary::Load(name, &why).Ok())
      return Good("library", std::string(name) + " is there");
    return Broken("library", std::string(name) + " cannot be loaded (" + why +
                                 "). Install it, or let " +
                                 (options_.deviceType == 6 ? "KINETREL_ISENSE" : "KINETREL_PDI") +
                                 " name its file");
  }

  bool Port() {
    const auto* const row =
        std::ranges::find(kFamilies, options_.deviceType, &FamilyRow::deviceType);
    if (row == std::end(kFamilies)) {
      const bool known = options_.deviceType == kSimulated || options_.deviceType == kRelay ||
                         options_.deviceType == 6;
      if (known) return Good("port", "this device type has no serial port");
      return Broken("port", "no driver has the number " + std::to_string(options_.deviceType));
    }
    family_ = row;
    port_ = DescribePort(options_.port);
    const std::string shown =
        port_.path == options_.port ? port_.path : options_.port + " (" + port_.path + ")";
    if (port_.kind == PortKind::Missing) {
      return Broken("port",
                    shown + " does not exist. Plug the adapter in; kinetrel-scan lists the ports");
    }
    if (port_.kind == PortKind::NotAPort) {
      return Broken("port", shown + " is not a serial port. kinetrel-scan lists the ports");
    }
    Good("port", shown);
    if (!port_.refusal.empty()) return Broken("permission", port_.refusal);
    return Good("permission", "this account may open it");
  }

  // ---- The tracker on USB ----------------------------------------------------------------------

  bool OnUsb() {
    const bool isLiberty = options_.deviceType == RowOf(Family::Liberty).deviceType;
    family_ = &RowOf(isLiberty ? Family::Liberty : Family::Fastrak);
    if (options_.deviceType != family_->deviceType) {
      return Broken("port", "this device type is not used on USB: only fastrak and liberty are");
    }
    std::string why;
    const auto unit = OpenPolhemusUnit(
        isLiberty ? PolhemusFamily::Liberty : PolhemusFamily::Fastrak, options_.port, why);
    const Error error = unit.status().error;
    if (!unit.Ok() && error != Error::Denied && error != Error::Busy) return Broken("port", why);
    Good("port", unit.Ok() ? unit->name + ", " + unit->model : options_.port);
    if (error == Error::Denied) return Broken("permission", why);
    Good("permission", "this account may open it");
    if (!unit.Ok()) return Broken("line", why);
    Good("line", "it opens");
    found_ = AskWithoutRate(*unit->line, family_->family);
    if (!found_) return Broken("answer", "none came. Switch the tracker off and on again");
    Good("answer", found_->streams ? "it was sending by itself" : "it answers");
    return Identity();
  }

  // ---- The tracker on a serial line ------------------------------------------------------------

  bool Line() {
    if (!HasLine()) return true;
    auto opened = SerialLine::Open(options_.port);
    if (!opened.Ok()) {
      std::string words = SerialLine::ExplainOpenFailure(options_.port, opened.status());
      for (const FileUser& user : port_.holders) {
        words += ", " + user.program + " (process " + std::to_string(user.process) + ")";
      }
      return Broken("line",
                    words + (opened.status().error == Error::Busy ? ". End that program" : ""));
    }
    line_.emplace(std::move(*opened));
    const auto kind = line_->Capabilities();
    if (!kind.Ok() || !kind->serialLine) {
      return Broken("line", "not a serial line: kinetrel-scan lists the ports");
    }
    const auto found = line_->Settings();
    LineSettings settings;
    settings.baud = family_->usualBaud;
    if (const Status set = line_->Apply(settings); !set.Ok()) {
      return Broken("line", "it cannot be set to " + std::to_string(settings.baud) + " baud (" +
                                Describe(set) + "): use another adapter");
    }
    if (found.Ok()) (void)line_->Apply(*found);  // the rate that is listened to first
    return Good("line", "it opens, at " + std::to_string(settings.baud) + " baud");
  }

  bool Answer() {
    if (!HasLine()) return true;
    LineProbe probe(*line_, port_.kind != PortKind::PseudoTerminal);
    found_ = probe.Listen();
    if (!found_ || found_->family == family_->family) found_ = probe.Ask(found_, family_->family);
    if (!probe.failure().Ok()) {
      return Broken("answer", "the port failed: " + Describe(probe.failure()) +
                                  ". Plug the adapter in again");
    }
    if (found_) {
      Good("answer", "at " + std::to_string(found_->baud) + " baud");
      return Identity();
    }
    if (probe.heard().empty()) {
      return Broken("answer",
                    "no byte came. Check the tracker's power, and the cable: most trackers need a "
                    "crossed one");
    }
    return Broken("answer", "bytes come, but none that make sense. kinetrel-scan --ask " +
                                options_.port + " finds out which tracker is there");
  }

  bool Identity() const {
    const FamilyRow& row = RowOf(found_->family);
    if (row.family != family_->family) {
      return Broken("identity",
                    std::string("a ") + row.name + " is there" +
                        (row.deviceType == 0 ? std::string(", for which Kinetrel has no driver")
                                             : ": use -d " + std::to_string(row.deviceType)));
    }
    Good("identity", (found_->model.empty() ? std::string(row.name) : found_->model) +
                         (found_->firmware.empty() ? "" : ", firmware " + found_->firmware));
    return Good("stations", found_->stations > 0 ? std::to_string(found_->stations)
                                                 : std::string("the tracker does not tell"));
  }

  bool Rate() const {
    if (!HasLine()) return true;
    if (found_->baud == family_->usualBaud)
      return Good("rate", std::to_string(found_->baud) + " baud");
    const std::string words =
        std::to_string(found_->baud) + " baud, usual is " + std::to_string(family_->usualBaud);
    // The FASTRAK's driver looks for the rate itself.
    if (family_->family == Family::Fastrak)
      return Good("rate", words + ": set it to that, or it sends fewer records");
    return Broken("rate", words + ": set the tracker's switches to that");
  }

  // ---- The machine -----------------------------------------------------------------------------

  bool SharedMemory() const {
    if (running_)
      return Good("shared memory", "slot " + std::to_string(options_.slot) + " is written");
    const std::string name = "kinetrel-scan-" + std::to_string(OwnProcessId());
    const auto made = StreamMemory::Create(name, kLargestStream);
    if (made.Ok())
      return Good("shared memory", "slot " + std::to_string(options_.slot) + " is free");
    return Broken("shared memory",
                  Describe(made.status()) +
                      (made.status().error == Error::NoSpace ? ". Make room: df /dev/shm" : ""));
  }

  static bool Priority() {
    Status raised;
    const auto thread = Thread::Start([&raised] { raised = RaiseToTimeCritical(); });
    if (thread.Ok()) thread->Wait(kForever);
    if (raised.Ok()) return Good("priority", "real-time");
    return Good("priority",
                "ordinary: other programs may delay the poses. On Linux give your account a limit "
                "of rtprio 50");
  }

  bool Clients() const {
    if (!running_)
      return Good("clients", "start the tracker, then a client: kinetrel-watch --slot " +
                                 std::to_string(options_.slot));
    std::string words;
    for (const FileUser& user : OpenFiles().UsersOfStreamMemory(StreamName(options_.slot - 1))) {
      if (user.process == running_->process) continue;
      words += (words.empty() ? "" : ", ") + user.program + " (process " +
               std::to_string(user.process) + ")";
    }
    return Good("clients", words.empty() ? "none that can be seen: kinetrel-watch --slot " +
                                               std::to_string(options_.slot)
                                         : words);
  }

  static constexpr std::size_t kLargestStream = std::size_t{2} << 20;

  const CheckOptions options_;
  std::optional<Slot> running_;
  const FamilyRow* family_ = nullptr;  // null: the device type has no serial line
  PortEntry port_;
  std::optional<SerialLine> line_;
  std::optional<Finding> found_;
};

}  // namespace

bool CheckChain(const CheckOptions& options) { return Chain(options).Walk(); }

}  // namespace kinetrel::scan
