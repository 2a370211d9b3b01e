#include "scan/port_scan.h"

#include <algorithm>
#include <memory>
#include <mutex>

#include "platform/serial_line.h"
#include "platform/thread.h"

namespace kinetrel::scan {
namespace {

constexpr Milliseconds kPatience{30000};

// ---- Which ports may be asked
// --------------------------------------------------------------------

struct AdapterRow {
  std::uint16_t vendor;
  std::vector<std::uint16_t> products;  // empty: all that the vendor makes are adapters
};

// Adapters and their chips. Other boards use the same chips, and the scan cannot tell them from a
// tracker's adapter.
const AdapterRow kAdapters[] = {
    {0x0403, {0x6001, 0x6010, 0x6011, 0x6014, 0x6015}},  // FTDI; other products are instruments
    {0x067B, {}},                                        // Prolific
    {0x10C4, {0xEA60, 0xEA61, 0xEA70, 0xEA71}},          // Silicon Labs
    {0x1A86, {}},                                        // WCH
    {0x4348, {0x5523}},                                  // WCH
    {0x0711, {0x0210, 0x0230}},                          // Magic Control
    {0x050D, {0x0103, 0x0109, 0x0257}},                  // Belkin
    {0x0557, {0x2008, 0x2011}},                          // ATEN
    {0x06CD, {}},                                        // Keyspan
    {0x1608, {}},                                        // Digi Edgeport
    {0x05C5, {}},                                        // Digi
    {0x110A, {}},                                        // Moxa
    {0x9710, {}},                                        // MosChip
    {0x0856, {}},                                        // B&B Electronics
    {0x04D8, {0x00DD, 0x00DF}},                          // Microchip
};

bool IsPlainAdapter(const UsbAdapter& usb) {
  return std::ranges::any_of(kAdapters, [&](const AdapterRow& row) {
    return row.vendor == usb.vendor &&
           (row.products.empty() ||
            std::ranges::find(row.products, usb.product) != row.products.end());
  });
}

// ---- One port
// ------------------------------------------------------------------------------------

std::string ListOfRates(const std::vector<Heard>& heard) {
  std::string text;
  for (const Heard& at : heard) text += (text.empty() ? "" : ", ") + std::to_string(at.baud);
  return text;
}

std::string WordsFor(const PortResult& result, Effort effort) {
  if (result.finding) {
    const bool streams = result.finding->streams;
    return effort == Effort::Listen ? "sends by itself; --ask tells more"
           : streams                ? "it was sending by itself"
                                    : "answers";
  }
  const bool pseudo = result.port.kind == PortKind::PseudoTerminal;
  if (!result.heard.empty()) {
    return "bytes at " + ListOfRates(result.heard) +
           " baud that make no sense: another kind of device, or another setting of the line";
  }
  if (effort == Effort::Listen) return "silent; --ask asks whether a tracker is there";
  return std::string("no answer: nothing is connected, it is switched off, ") +
         (pseudo ? "or it is not a tracker"
                 : "the cable is wrong (most trackers need a crossed one), or it is not a tracker");
}

std::string WordsForLoss(const Status& failure) {
  if (failure.error == Error::Closed) return "the port disappeared while it was scanned";
  return "the port failed: " + Describe(failure);
}

std::string WordsForRefusal(const PortEntry& port, const Status& failure) {
  std::string words = SerialLine::ExplainOpenFailure(port.path, failure);
  if (words.starts_with(port.path + ": ")) words.erase(0, port.path.size() + 2);
  for (const FileUser& holder : port.holders) {
    if (failure.error != Error::Busy) break;
    words += (&holder == &port.holders.front() ? ": " : ", ") + holder.program + " (process " +
             std::to_string(holder.process) + ")";
  }
  return words;
}

// A pseudo-terminal carries any rate, so the rate that was set says nothing about the device's.
void CorrectRate(Finding& found, const PortEntry& port, unsigned foundBaud) {
  if (port.kind == PortKind::PseudoTerminal) found.baud = foundBaud;
}

PortResult ScanPort(PortEntry port, Effort effort) {
  PortResult result{.port = std::move(port)};
  auto line = SerialLine::Open(result.port.path);
  if (!line.Ok()) {
    result.words = WordsForRefusal(result.port, line.status());
    return result;
  }
  const auto kind = line->Capabilities();
  const auto settings = line->Settings();
  if (!kind.Ok() || !kind->serialLine || !settings.Ok()) {
    result.words = "not a serial port";
    return result;
  }
  result.opened = true;
  LineProbe probe(*line, result.port.kind != PortKind::PseudoTerminal);
  result.finding = probe.Listen();
  if (effort == Effort::Ask && probe.failure().Ok()) result.finding = probe.Ask(result.finding);
  result.heard = probe.heard();
  if (result.finding) CorrectRate(*result.finding, result.port, settings->baud);
  result.words = probe.failure().Ok() || result.finding ? WordsFor(result, effort)
                                                        : WordsForLoss(probe.failure());
  return result;
}

// ---- All ports
// -----------------------------------------------------------------------------------

// Shared with the thread of the port, which is abandoned if the port's driver hangs.
struct Job {
  PortResult result;
  std::mutex mutex;  // guards done
  std::optional<PortResult> done;
};

std::string WhyNotOpened(const PortEntry& port, const ScanOptions& options) {
  if (port.kind == PortKind::Missing) return "no such port";
  if (port.kind == PortKind::NotAPort) return "not a serial port";
  if (options.effort == Effort::List) return port.refusal;
  return options.ports.empty() ? WhyLeftAlone(port) : "";
}

}  // namespace

std::string WhyLeftAlone(const PortEntry& port) {
  if (!port.usb) return port.driver == "cdc_acm" ? "left alone: not an adapter" : "";
  if (IsPlainAdapter(*port.usb)) return "";
  return "left alone: by its USB numbers it is not an adapter; name it to have it asked";
}

std::vector<PortResult> ScanPorts(const ScanOptions& options) {
  if (options.ports.empty()) return ScanEntries(ListPorts(), options);
  std::vector<PortEntry> ports;
  for (const std::string& name : options.ports) ports.push_back(DescribePort(name));
  return ScanEntries(ports, options);
}

std::vector<PortResult> ScanEntries(const std::vector<PortEntry>& ports,
                                    const ScanOptions& options) {
  std::vector<PortResult> results;
  std::vector<std::pair<std::shared_ptr<Job>, std::optional<Thread>>> jobs;
  for (const PortEntry& port : ports) {
    auto job = std::make_shared<Job>();
    job->result = {.port = port, .words = WhyNotOpened(port, options)};
    std::optional<Thread> thread;
    if (options.effort != Effort::List && job->result.words.empty()) {
      auto started = Thread::Start([job, effort = options.effort] {
        PortResult result = ScanPort(job->result.port, effort);
        const std::lock_guard lock(job->mutex);
        job->done = std::move(result);
      });
      if (started.Ok()) thread = std::move(*started);
    }
    jobs.emplace_back(std::move(job), std::move(thread));
  }
  const Deadline deadline(kPatience);
  for (auto& [job, thread] : jobs) {
    if (thread) thread->Wait(deadline.Remaining());
    const std::lock_guard lock(job->mutex);
    if (thread && !job->done) {
      job->result.words = "the port's driver did not answer for 30 s";
    }
    results.push_back(job->done ? *job->done : job->result);
  }
  return results;
}

}  // namespace kinetrel::scan
