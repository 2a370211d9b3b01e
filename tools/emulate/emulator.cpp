#include "emulate/emulator.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <random>
#include <system_error>
#include <utility>

#include "platform/clock.h"
#include "platform/pseudo_terminal.h"

namespace kinetrel::emulate {
namespace {

namespace fs = std::filesystem;

Status Failure(const std::error_code& error, const char* what) {
  const bool denied = error == std::errc::permission_denied;
  const bool missing = error == std::errc::no_such_file_or_directory;
  return {denied ? Error::Denied : missing ? Error::NotFound : Error::Failed, error.value(), what};
}

// A host that writes without end must not keep the device from its own work.
constexpr int kMostReads = 16;

constexpr Moment kTryAgain = std::chrono::seconds(1);  // to open a port

}  // namespace

// ---- The link -----------------------------------------------------------------------------------

PortLink::PortLink(PortLink&& other) noexcept
    : path_(std::exchange(other.path_, {})), target_(std::exchange(other.target_, {})) {}

Status PortLink::Point(const std::string& target) {
  if (path_.empty() || target == target_) return {};
  if (target.empty()) {
    Remove();
    return {};
  }
  std::error_code error;
  const fs::file_status found = fs::symlink_status(path_, error);
  if (fs::exists(found) && !fs::is_symlink(found)) {
    return {Error::Invalid, 0, "link to the port: the name belongs to another file"};
  }
  const std::string fresh = path_ + ".new-" + std::to_string(std::random_device{}());
  fs::create_symlink(target, fresh, error);
  if (error) return Failure(error, "link to the port");
  fs::rename(fresh, path_, error);
  if (error) {
    std::error_code ignored;
    fs::remove(fresh, ignored);
    return Failure(error, "name the link to the port");
  }
  target_ = target;
  return {};
}

void PortLink::Remove() {
  if (target_.empty()) return;
  std::error_code error;
  if (fs::read_symlink(path_, error) == target_) fs::remove(path_, error);
  target_.clear();
}

// ---- Opening ------------------------------------------------------------------------------------

Emulator::Emulator(std::unique_ptr<EmulatedDevice> device, const EmulatorOptions& options,
                   std::unique_ptr<DevicePort> port)
    : device_(std::move(device), options.line),
      port_(std::move(port)),
      link_(options.link),
      firstBaud_(options.line.baud),
      wired_(options.line.wired),
      clock_(ClockTicks(), ClockTicksPerSecond(), options.line.clockPpm) {}

Result<std::shared_ptr<Emulator>> Emulator::Open(std::unique_ptr<EmulatedDevice> device,
                                                 const EmulatorOptions& options,
                                                 std::unique_ptr<DevicePort> port) {
  if (port == nullptr) {
    auto terminal = PseudoTerminal::Open(options.line.baud);
    if (!terminal.Ok()) return terminal.status();
    port = std::make_unique<PseudoTerminal>(std::move(*terminal));
  }
  std::shared_ptr<Emulator> emulator(new Emulator(std::move(device), options, std::move(port)));
  if (const Status status = emulator->Link(); !status.Ok()) return status;
  return emulator;
}

// ---- The loop -----------------------------------------------------------------------------------

Moment Emulator::Now() { return clock_.At(ClockTicks()); }

void Emulator::Run() {
  while (!stop_) {
    const Moment now = Now();
    ServeRequests(now);
    ServePlug(now);
    device_.Advance(now, out_);
    Deliver();
    ReadHost(now);
    if (const auto fault = device_.TakePortFault()) PullPlug(now + Duration(*fault));
    records_ = device_.line().records();
    const Moment next =
        std::min({device_.NextEvent(), replugAt_, now + EmulatorClock::kLongestStep / 2});
    port_->Wait(next - Now());
  }
}

void Emulator::Stop() {
  stop_ = true;
  port_->Interrupt();
}

void Emulator::Deliver() {
  const std::size_t taken = port_->Write(out_);
  lost_ += out_.size() - taken;
  out_.clear();
}

void Emulator::ReadHost(Moment now) {
  std::array<std::byte, 512> bytes;
  for (int i = 0; i < kMostReads; ++i) {
    const std::size_t count = port_->Read(bytes);
    NoticeHost(now);
    if (count == 0) break;
    device_.Receive(now, std::span(bytes).first(count));
    if (i == kMostReads - 1) port_->Interrupt();  // the next round reads the rest
  }
  PublishPort(now);  // a port whose host died was replaced
}

void Emulator::NoticeHost(Moment now) {
  const bool present = port_->HasHost();
  if (present && !hostPresent_) device_.HostOpened(now);
  if (!present && hostPresent_) device_.line().Say(now, "the port is closed");
  hostPresent_ = present;
  if (present) device_.SetHostBaud(now, port_->HostBaud());
}

// ---- The plug -----------------------------------------------------------------------------------

void Emulator::PullPlug(Moment replugAt) {
  pulled_ = true;
  port_->Unplug();
  hostPresent_ = false;
  replugAt_ = replugAt;
  const Moment now = Now();
  device_.line().Say(now, "the port is unplugged");
  PublishPort(now);
}

void Emulator::ServePlug(Moment now) {
  if (wired_ && !port_->IsPlugged() && !pulled_ && replugAt_ == kNever) {
    hostPresent_ = false;
    replugAt_ = now + kTryAgain;
    device_.line().Say(now, "the port has gone; it is tried every second");
    PublishPort(now);
  }
  if (now < replugAt_) return;
  replugAt_ = kNever;
  if (port_->IsPlugged()) return;
  // If the port is not there, or the system has no free one now, try again later.
  pulled_ = false;
  if (!port_->Plug(firstBaud_).Ok()) replugAt_ = now + kTryAgain;
  if (port_->IsPlugged()) device_.line().Say(now, "the port is plugged in: " + port_->path());
  PublishPort(now);
}

void Emulator::PublishPort(Moment now) {
  if (port_->path() == linked_) return;
  const Status status = Link();
  if (!status.Ok()) device_.line().Say(now, Describe(status));
}

Status Emulator::Link() {
  linked_ = port_->path();
  const Status status = link_.Point(linked_);
  const std::lock_guard lock(mutex_);
  published_ = link_.path().empty() || linked_.empty() ? linked_ : link_.path();
  return status;
}

std::string Emulator::Port() const {
  const std::lock_guard lock(mutex_);
  return published_;
}

// ---- Requests -----------------------------------------------------------------------------------

void Emulator::Post(Request request) {
  {
    const std::lock_guard lock(mutex_);
    requests_.push_back(std::move(request));
  }
  port_->Interrupt();
}

void Emulator::ServeRequests(Moment now) {
  std::vector<Request> requests;
  {
    const std::lock_guard lock(mutex_);
    requests.swap(requests_);
  }
  for (const Request& request : requests) request(now);
}

void Emulator::NewPoses(std::uint32_t stations) {
  Post([this, stations](Moment now) { device_.NewPoses(now, stations); });
}

void Emulator::Strike(const Fault& fault) {
  Post([this, fault](Moment now) { device_.Strike(now, fault); });
}

void Emulator::StrikeAll(FaultTrigger asked) {
  Post([this, asked](Moment now) { device_.StrikeAll(now, asked); });
}

void Emulator::Unplug() {
  Post([this](Moment) { PullPlug(kNever); });
}

void Emulator::Plug() {
  Post([this](Moment now) { replugAt_ = now; });
}

// ---- In the background --------------------------------------------------------------------------

Result<EmulatorThread> EmulatorThread::Start(std::unique_ptr<EmulatedDevice> device,
                                             const EmulatorOptions& options,
                                             std::unique_ptr<DevicePort> port) {
  auto emulator = Emulator::Open(std::move(device), options, std::move(port));
  if (!emulator.Ok()) return emulator.status();
  auto thread = Thread::Start([shared = *emulator] { shared->Run(); });
  if (!thread.Ok()) return thread.status();
  return EmulatorThread(std::move(*emulator), std::move(*thread));
}

EmulatorThread::~EmulatorThread() {
  if (emulator_ == nullptr) return;
  emulator_->Stop();
  thread_.Wait(kForever);
}

}  // namespace kinetrel::emulate
