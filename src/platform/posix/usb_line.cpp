#include "platform/usb_line.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "platform/posix/usb_library.h"

namespace kinetrel {
namespace {

using usb::StatusOf;
using usb::Transfer;
using usb::TransferStatus;
using usb::TransferType;

constexpr int kInterface = 0;
constexpr int kConfiguration = 1;
constexpr Milliseconds kWritePatience{1000};
constexpr Milliseconds kClosePatience{1000};
constexpr Milliseconds kRest{10};  // before a failed pipe is used again
constexpr int kMostRests = 20;     // without a byte; then the device counts as gone
constexpr int kMostStalls = 3;     // of one write

// At high speed no cycle of a tracker is an exact number of packets, so every cycle ends a
// transfer. At full speed some cycles are, so each packet is a transfer of its own.
constexpr std::size_t kHighSpeedPacket = 512;
constexpr std::size_t kHighSpeedTransfer = 1024;
constexpr std::size_t kHighSpeedTransfers = 64;  // at 240 Hz, 260 ms
constexpr std::size_t kFullSpeedTransfers = 256;
constexpr std::size_t kInterruptTransfers = 32;
constexpr std::size_t kLongestWrite = 512;

constexpr const char* kNoLibrary = "load libusb-1.0";

std::string PortOf(const usb::Library& library, usb::Device* device) {
  std::array<std::uint8_t, 8> ports{};
  const int count = library.getPortNumbers(device, ports.data(), static_cast<int>(ports.size()));
  std::string text = std::to_string(library.getBusNumber(device));
  for (int i = 0; i < count; ++i) {
    text += (i == 0 ? "-" : ".") + std::to_string(ports[static_cast<std::size_t>(i)]);
  }
  return text;
}

// One use of the library.
struct Session {
  explicit Session(const usb::Library* loaded) : library(loaded) {}
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  ~Session() {
    if (list != nullptr) library->freeDeviceList(list, 1);
    if (handle != nullptr) library->close(handle);
    if (context != nullptr) library->exit(context);
  }

  Status List() {
    if (library == nullptr) return {Error::Unsupported, 0, kNoLibrary};
    const int begun = library->init(&context);
    if (begun < 0) {
      context = nullptr;
      return {Error::Unsupported, StatusOf(begun, "").osCode, "look for USB"};
    }
    const ssize_t found = library->getDeviceList(context, &list);
    if (found < 0) return StatusOf(static_cast<int>(found), "list the USB devices");
    count = static_cast<std::size_t>(found);
    return {};
  }

  // False: a hub, or not to be read.
  bool Describe(std::size_t index, UsbDevice& device) const {
    usb::DeviceDescriptor descriptor{};
    if (library->getDeviceDescriptor(list[index], &descriptor) < 0) return false;
    device = {PortOf(*library, list[index]), descriptor.vendor, descriptor.product};
    return descriptor.deviceClass != usb::kHubClass;
  }

  const usb::Library* const library;
  usb::Context* context = nullptr;
  usb::Device** list = nullptr;
  std::size_t count = 0;
  usb::Handle* handle = nullptr;
};

}  // namespace

Result<std::vector<UsbDevice>> ListUsbDevices() {
  Session session(usb::LoadLibrary());
  if (const Status listed = session.List(); !listed.Ok()) return listed;
  std::vector<UsbDevice> devices;
  for (std::size_t i = 0; i < session.count; ++i) {
    UsbDevice device;
    if (session.Describe(i, device)) devices.push_back(std::move(device));
  }
  return devices;
}

// ---- The transfers -------------------------------------------------------------------------

// Every reading transfer is with the system, filled (in `filled`, in order of arrival), or idle.
// Callbacks run only inside Pump, on the thread that calls.
struct UsbLine::Os {
  explicit Os(const usb::Library* loaded) : session(loaded) {}
  Os(const Os&) = delete;
  Os& operator=(const Os&) = delete;
  ~Os();

  struct Reading {
    Os* os = nullptr;
    Transfer* transfer = nullptr;
    std::size_t taken = 0;  // bytes of a filled one
    bool idle = true;
  };

  Status Open(const UsbDevice& wanted, const UsbPipes& wantedPipes);
  Status Claim(usb::Device* device);
  Status MakeTransfers(usb::Device* device);
  Status AddReadings(usb::Device* device, std::uint8_t endpoint, TransferType type);
  Transfer* NewTransfer(std::uint8_t endpoint, TransferType type, std::size_t size);

  Status Pump(Milliseconds atMost);
  void SubmitIdle();
  void Heal();
  void CancelReadings();
  void EndTransfers();
  std::size_t Take(std::span<std::byte> into);
  Status SendPiece(std::span<const std::byte> piece, std::size_t& sent);
  bool MayRead() const { return !lost && !closing && !troubled; }

  static void OnRead(Transfer* transfer);
  static void OnWritten(Transfer* transfer);

  Session session;
  UsbPipes pipes;
  bool claimed = false;
  std::vector<Reading> readings;
  std::vector<std::unique_ptr<unsigned char[]>> buffers;
  std::vector<Reading*> filled;  // a ring of readings.size() places
  std::size_t firstFilled = 0;
  std::size_t filledCount = 0;
  std::size_t withSystem = 0;  // readings
  std::size_t idleCount = 0;
  Transfer* writing = nullptr;
  int written = 1;        // the last write has ended; libusb takes an int
  bool lost = false;      // the device has gone
  bool troubled = false;  // a reading failed: all are called back, then the pipes are reset
  bool closing = false;
  int rests = 0;  // in a row, without a byte
};

UsbLine::Os::~Os() {
  if (session.handle == nullptr) return;
  EndTransfers();
  // Transfers that the system still has may not be freed; what they use is given up with them.
  if (withSystem > 0 || written == 0) {
    for (auto& buffer : buffers) (void)buffer.release();
    session.handle = nullptr;
    session.context = nullptr;
    return;
  }
  for (const Reading& reading : readings) session.library->freeTransfer(reading.transfer);
  if (writing != nullptr) session.library->freeTransfer(writing);
  if (claimed) (void)session.library->releaseInterface(session.handle, kInterface);
}

void UsbLine::Os::EndTransfers() {
  closing = true;
  CancelReadings();
  if (written == 0) (void)session.library->cancelTransfer(writing);
  for (const Deadline end(kClosePatience); (withSystem > 0 || written == 0) && !end.Passed();) {
    if (!Pump(end.Remaining()).Ok()) break;
  }
}

Status UsbLine::Os::Open(const UsbDevice& wanted, const UsbPipes& wantedPipes) {
  pipes = wantedPipes;
  if (const Status listed = session.List(); !listed.Ok()) return listed;
  for (std::size_t i = 0; i < session.count; ++i) {
    UsbDevice found;
    if (!session.Describe(i, found) || found.port != wanted.port || found.vendor != wanted.vendor ||
        found.product != wanted.product) {
      continue;
    }
    if (const Status status = Claim(session.list[i]); !status.Ok()) return status;
    return MakeTransfers(session.list[i]);
  }
  return {Error::NotFound, 0, "find the USB device"};
}

Status UsbLine::Os::Claim(usb::Device* device) {
  const usb::Library& library = *session.library;
  if (const int opened = library.open(device, &session.handle); opened < 0) {
    session.handle = nullptr;
    return StatusOf(opened, "open the USB device");
  }
  (void)library.setAutoDetachKernelDriver(session.handle, 1);
  int configuration = 0;
  if (library.getConfiguration(session.handle, &configuration) >= 0 &&
      configuration != kConfiguration) {
    const int set = library.setConfiguration(session.handle, kConfiguration);
    if (set < 0) return StatusOf(set, "configure the USB device");
  }
  const int taken = library.claimInterface(session.handle, kInterface);
  claimed = taken >= 0;
  return StatusOf(taken, "take the USB interface");
}

Transfer* UsbLine::Os::NewTransfer(std::uint8_t endpoint, TransferType type, std::size_t size) {
  Transfer* const transfer = session.library->allocTransfer(0);
  if (transfer == nullptr) return nullptr;
  buffers.push_back(std::make_unique<unsigned char[]>(size));
  transfer->handle = session.handle;
  transfer->endpoint = endpoint;
  transfer->type = type;
  transfer->buffer = buffers.back().get();
  transfer->length = static_cast<int>(size);
  return transfer;
}

Status UsbLine::Os::AddReadings(usb::Device* device, std::uint8_t endpoint, TransferType type) {
  const int packet = session.library->getMaxPacketSize(device, endpoint);
  if (packet <= 0) return {Error::Invalid, 0, "find the endpoints of the USB device"};
  const auto size = static_cast<std::size_t>(packet);
  const bool fast = size >= kHighSpeedPacket;
  std::size_t count = fast ? kHighSpeedTransfers : kFullSpeedTransfers;
  if (type == TransferType::Interrupt) count = kInterruptTransfers;
  for (std::size_t i = 0; i < count; ++i) {
    Transfer* const transfer = NewTransfer(endpoint, type, fast ? kHighSpeedTransfer : size);
    if (transfer == nullptr) return {Error::NoSpace, 0, "make a USB transfer"};
    transfer->callback = OnRead;
    readings.push_back({this, transfer});
  }
  return {};
}

Status UsbLine::Os::MakeTransfers(usb::Device* device) {
  Status made = AddReadings(device, pipes.in, TransferType::Bulk);
  if (made.Ok() && pipes.interruptIn != 0) {
    made = AddReadings(device, pipes.interruptIn, TransferType::Interrupt);
  }
  for (Reading& reading : readings) reading.transfer->userData = &reading;
  filled.resize(readings.size());
  idleCount = readings.size();
  if (!made.Ok()) return made;
  if (session.library->getMaxPacketSize(device, pipes.out) <= 0) {
    return {Error::Invalid, 0, "find the endpoints of the USB device"};
  }
  writing = NewTransfer(pipes.out, TransferType::Bulk, kLongestWrite);
  if (writing == nullptr) return {Error::NoSpace, 0, "make a USB transfer"};
  writing->flags = usb::kAddZeroPacket;  // otherwise a whole packet would not end the command
  writing->callback = OnWritten;
  writing->userData = this;
  SubmitIdle();
  return {};
}

void UsbLine::Os::OnRead(Transfer* transfer) {
  Reading& reading = *static_cast<Reading*>(transfer->userData);
  Os& os = *reading.os;
  --os.withSystem;
  switch (transfer->status) {
    case TransferStatus::NoDevice:
      os.lost = true;
      break;
    case TransferStatus::Error:
    case TransferStatus::Stall:
    case TransferStatus::Overflow:
      os.troubled = true;
      break;
    case TransferStatus::Completed:
    case TransferStatus::TimedOut:
    case TransferStatus::Cancelled:
      break;
  }
  // Also a failed transfer may have brought bytes.
  if (transfer->actualLength > 0) {
    os.rests = 0;
    reading.taken = 0;
    os.filled[(os.firstFilled + os.filledCount++) % os.filled.size()] = &reading;
  } else {
    reading.idle = true;
    ++os.idleCount;
  }
}

void UsbLine::Os::OnWritten(Transfer* transfer) {
  static_cast<Os*>(transfer->userData)->written = 1;
}

void UsbLine::Os::SubmitIdle() {
  if (idleCount == 0) return;
  for (Reading& reading : readings) {
    if (!reading.idle || !MayRead()) continue;
    const int submitted = session.library->submitTransfer(reading.transfer);
    if (submitted < 0) {
      lost = lost || submitted == usb::kNoDevice;
      troubled = !lost;
      return;
    }
    reading.idle = false;
    --idleCount;
    ++withSystem;
  }
}

void UsbLine::Os::CancelReadings() {
  for (const Reading& reading : readings) {
    if (!reading.idle) (void)session.library->cancelTransfer(reading.transfer);
  }
}

// A stalled pipe, or a line with errors. The pipe may be reset only when no transfer uses it. A
// device that does not answer the reset has gone; each further try might take the kernel's 5 s.
void UsbLine::Os::Heal() {
  if (lost || closing) return;
  if (withSystem > 0) return CancelReadings();
  lost = ++rests > kMostRests;
  SleepFor(kRest);
  for (const std::uint8_t pipe : {pipes.in, pipes.interruptIn}) {
    if (!lost && pipe != 0) lost = session.library->clearHalt(session.handle, pipe) < 0;
  }
  troubled = false;
  SubmitIdle();  // nothing, if the device has gone
}

// Handles what the system has finished; if that is nothing, waits for it.
Status UsbLine::Os::Pump(Milliseconds atMost) {
  constexpr Milliseconds kLongest{10000};
  const auto wait = std::min(atMost, kLongest).count();
  timeval time{static_cast<time_t>(wait / 1000), static_cast<suseconds_t>(wait % 1000 * 1000)};
  const int handled =
      session.library->handleEventsTimeoutCompleted(session.context, &time, nullptr);
  if (handled < 0 && handled != usb::kInterrupted) return StatusOf(handled, "wait for USB");
  return {};
}

std::size_t UsbLine::Os::Take(std::span<std::byte> into) {
  std::size_t count = 0;
  while (filledCount > 0 && count < into.size()) {
    Reading& reading = *filled[firstFilled];
    const auto there = static_cast<std::size_t>(reading.transfer->actualLength) - reading.taken;
    const std::size_t step = std::min(there, into.size() - count);
    std::memcpy(into.data() + count, reading.transfer->buffer + reading.taken, step);
    count += step;
    reading.taken += step;
    if (step < there) break;
    firstFilled = (firstFilled + 1) % filled.size();
    --filledCount;
    reading.idle = true;
    ++idleCount;
  }
  return count;
}

// ---- The line ------------------------------------------------------------------------------

UsbLine::UsbLine(std::unique_ptr<Os> os) : os_(std::move(os)) {}
UsbLine::~UsbLine() = default;

Result<std::unique_ptr<UsbLine>> UsbLine::Open(const UsbDevice& device, const UsbPipes& pipes) {
  auto os = std::make_unique<Os>(usb::LoadLibrary());
  if (const Status opened = os->Open(device, pipes); !opened.Ok()) return opened;
  return std::unique_ptr<UsbLine>(new UsbLine(std::move(os)));
}

std::string UsbLine::ExplainFailure(const Status& failure) {
  switch (failure.error) {
    case Error::Denied:
      return "permission denied: install the udev rule 70-kinetrel.rules (the package has it), "
             "then "
             "plug the tracker in again";
    case Error::Busy:
      return "in use by another program";
    case Error::Closed:
    case Error::NotFound:
      return "unplugged";
    case Error::Unsupported:
      if (failure.what == kNoLibrary) {
        return "USB needs the library libusb-1.0 (on Debian: apt install libusb-1.0-0)";
      }
      return "this machine offers no USB (" + kinetrel::Describe(failure) + ")";
    default:
      return kinetrel::Describe(failure);
  }
}

// Bytes that came before the unplugging are returned before it is reported.
Result<std::size_t> UsbLine::Receive(std::span<std::byte> into, Milliseconds atMost) {
  for (const Deadline end(atMost);;) {
    const Milliseconds left = os_->filledCount > 0 ? Milliseconds(0) : end.Remaining();
    // Before a wait, not between the bytes and the caller who waits for them.
    if (left.count() > 0 || 2 * os_->idleCount > os_->readings.size()) os_->SubmitIdle();
    const Status pumped = os_->lost ? Status{} : os_->Pump(left);
    const std::size_t count = os_->Take(into);
    if (os_->troubled) os_->Heal();
    if (count > 0) return count;
    if (!pumped.Ok()) return pumped;
    if (os_->lost) return Status{Error::Closed, 0, "read"};
    if (left.count() == 0) return std::size_t{0};
  }
}

Status UsbLine::PurgeDriver() {
  if (const Status pumped = os_->Pump(Milliseconds(0)); !pumped.Ok()) return pumped;
  std::array<std::byte, 512> dropped;
  while (os_->Take(dropped) > 0) {
  }
  os_->SubmitIdle();
  return {};
}

// A device that stalls has not taken the bytes, so they are sent again.
Result<std::size_t> UsbLine::Transmit(std::span<const std::byte> from) {
  std::size_t sent = 0;
  for (int stalls = 0; sent < from.size();) {
    const std::size_t before = sent;
    const Status status =
        os_->SendPiece(from.subspan(sent, std::min(kLongestWrite, from.size() - sent)), sent);
    if (os_->writing->status == TransferStatus::Stall && !os_->lost && stalls++ < kMostStalls) {
      continue;
    }
    if (!status.Ok() && sent == 0) return status;
    if (!status.Ok() || sent == before) break;
  }
  return sent;
}

Status UsbLine::Os::SendPiece(std::span<const std::byte> piece, std::size_t& sent) {
  if (lost || written == 0) return {Error::Closed, 0, "write"};
  std::memcpy(writing->buffer, piece.data(), piece.size());
  writing->length = static_cast<int>(piece.size());
  written = 0;
  if (const int submitted = session.library->submitTransfer(writing); submitted < 0) {
    written = 1;
    lost = lost || submitted == usb::kNoDevice;
    return StatusOf(submitted, "write");
  }
  bool cancelled = false;
  for (Deadline end(kWritePatience); written == 0;) {
    if (const Status pumped = Pump(end.Remaining()); !pumped.Ok()) return pumped;
    if (written != 0 || !end.Passed()) continue;
    if (cancelled) return {Error::TimedOut, 0, "write"};
    (void)session.library->cancelTransfer(writing);
    cancelled = true;
    end = Deadline(kWritePatience);
  }
  sent += static_cast<std::size_t>(writing->actualLength);
  if (writing->status == TransferStatus::NoDevice) lost = true;
  if (writing->status == TransferStatus::Stall) {
    lost = lost || session.library->clearHalt(session.handle, pipes.out) < 0;
  }
  if (lost) return {Error::Closed, 0, "write"};
  if (cancelled) return {Error::TimedOut, 0, "write"};
  const bool whole = writing->status == TransferStatus::Completed;
  return whole ? Status{} : Status{Error::Failed, 0, "write"};
}

}  // namespace kinetrel
