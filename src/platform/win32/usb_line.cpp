#include "platform/usb_line.h"

#include <windows.h>

#include <setupapi.h>
#include <winusb.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

#include "platform/win32/device_list.h"
#include "platform/win32/os.h"

namespace kinetrel {
namespace {

constexpr Milliseconds kWritePatience{1000};
constexpr Milliseconds kEndPatience{1000};  // for transfers that were told to end
constexpr Milliseconds kRest{10};           // before a failed pipe is used again
constexpr int kMostRests = 20;              // without a byte; then the device counts as gone
constexpr int kMostStalls = 3;              // of one write
constexpr std::size_t kReadings = 64;       // of each pipe
constexpr std::size_t kHighSpeedPacket = 512;
constexpr std::size_t kHighSpeedTransfer = 1024;
constexpr std::size_t kLongestWrite = 512;

constexpr const char* kOtherDriver = "use WinUSB";

// ---- What is plugged in --------------------------------------------------------------------

struct FoundDevice {
  UsbDevice device;
  std::string instance;
  std::string driver;  // the service that has it
};

constexpr char kPortStep[] = "#USB(";

// "PCIROOT(0)#PCI(1400)#USBROOT(0)#USB(2)#USB(3)" is port 3 of the hub at port 2 of the bus before
// the first "#USB(".
std::string BusOf(const std::string& location) {
  return location.substr(0, location.find(kPortStep));
}

// The buses of the machine, in the order of their places. Each has a root hub, whatever is plugged
// in, so a device keeps its bus number when another one comes or goes.
std::vector<std::string> FindBuses(const DeviceList& list) {
  std::vector<std::string> buses;
  SP_DEVINFO_DATA info;
  for (DWORD i = 0; list.Device(i, info); ++i) {
    const std::string location = list.Text(info, SPDRP_LOCATION_PATHS);
    if (!location.empty()) buses.push_back(BusOf(location));
  }
  std::sort(buses.begin(), buses.end());
  buses.erase(std::unique(buses.begin(), buses.end()), buses.end());
  return buses;
}

std::string PortOf(const std::string& location, const std::vector<std::string>& buses) {
  const auto bus = std::lower_bound(buses.begin(), buses.end(), BusOf(location));
  std::string port = std::to_string(bus - buses.begin() + 1);
  std::size_t at = location.find(kPortStep);
  for (char separator = '-'; at != std::string::npos; separator = '.') {
    at += std::strlen(kPortStep);
    const std::size_t end = location.find(')', at);
    port += separator + location.substr(at, end - at);
    at = location.find(kPortStep, at);
  }
  return port;
}

std::vector<FoundDevice> FindDevices() {
  std::vector<FoundDevice> found;
  const DeviceList list(nullptr, "USB", DIGCF_ALLCLASSES);
  const std::vector<std::string> buses = FindBuses(list);
  SP_DEVINFO_DATA info;
  for (DWORD i = 0; list.Device(i, info); ++i) {
    const std::string hardware = list.Text(info, SPDRP_HARDWAREID);
    const auto vendor = HexAfter(hardware, "VID_");
    const auto product = HexAfter(hardware, "PID_");
    const std::string driver = list.Text(info, SPDRP_SERVICE);
    const bool part = hardware.find("&MI_") != std::string::npos;
    if (!vendor || !product || part || ::_strnicmp(driver.c_str(), "USBHUB", 6) == 0) continue;
    const std::string instance = list.Instance(info);
    if (instance.empty()) continue;
    const std::string location = list.Text(info, SPDRP_LOCATION_PATHS);
    found.push_back({{PortOf(location, buses), *vendor, *product}, instance, driver});
  }
  return found;
}

// The identifier that the binding to WinUSB gave the device.
std::optional<GUID> InterfaceOf(const std::string& instance) {
  const DeviceList list(nullptr, "USB", DIGCF_ALLCLASSES);
  SP_DEVINFO_DATA info{};
  info.cbSize = sizeof info;
  if (::SetupDiOpenDeviceInfoA(list.get(), instance.c_str(), nullptr, 0, &info) == FALSE) {
    return std::nullopt;
  }
  const HKEY key =
      ::SetupDiOpenDevRegKey(list.get(), &info, DICS_FLAG_GLOBAL, 0, DIREG_DEV, KEY_READ);
  if (key == INVALID_HANDLE_VALUE) return std::nullopt;
  std::array<wchar_t, 256> text{};
  bool read = false;
  for (const wchar_t* const name : {L"DeviceInterfaceGUIDs", L"DeviceInterfaceGUID"}) {
    DWORD size = static_cast<DWORD>((text.size() - 2) * sizeof(wchar_t));
    read = read || ::RegQueryValueExW(key, name, nullptr, nullptr,
                                      reinterpret_cast<BYTE*>(text.data()), &size) == ERROR_SUCCESS;
  }
  ::RegCloseKey(key);
  GUID id{};
  unsigned long first = 0;
  std::array<unsigned, 10> rest{};
  const int fields = std::swscanf(text.data(), L"{%8lx-%4x-%4x-%2x%2x-%2x%2x%2x%2x%2x%2x}", &first,
                                  &rest[0], &rest[1], &rest[2], &rest[3], &rest[4], &rest[5],
                                  &rest[6], &rest[7], &rest[8], &rest[9]);
  if (!read || fields != 11) return std::nullopt;
  id.Data1 = first;
  id.Data2 = static_cast<std::uint16_t>(rest[0]);
  id.Data3 = static_cast<std::uint16_t>(rest[1]);
  for (std::size_t i = 0; i < 8; ++i) id.Data4[i] = static_cast<std::uint8_t>(rest[i + 2]);
  return id;
}

// The name under which CreateFile opens the device; empty when WinUSB does not have it.
std::string PathOf(const FoundDevice& found) {
  const auto kind = InterfaceOf(found.instance);
  if (!kind) return {};
  const DeviceList list(&*kind, found.instance.c_str(), DIGCF_DEVICEINTERFACE);
  SP_DEVICE_INTERFACE_DATA interface {};
  interface.cbSize = sizeof interface;
  if (::SetupDiEnumDeviceInterfaces(list.get(), nullptr, &*kind, 0, &interface) == FALSE) return {};
  alignas(SP_DEVICE_INTERFACE_DETAIL_DATA_A) std::array<std::byte, 1024> room{};
  auto* const detail = reinterpret_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_A*>(room.data());
  detail->cbSize = sizeof *detail;
  if (::SetupDiGetDeviceInterfaceDetailA(list.get(), &interface, detail,
                                         static_cast<DWORD>(room.size()), nullptr,
                                         nullptr) == FALSE) {
    return {};
  }
  return detail->DevicePath;
}

bool IsGone(DWORD code) {
  return code == ERROR_DEVICE_NOT_CONNECTED || code == ERROR_BAD_COMMAND ||
         code == ERROR_FILE_NOT_FOUND || code == ERROR_INVALID_HANDLE;
}

}  // namespace

Result<std::vector<UsbDevice>> ListUsbDevices() {
  std::vector<UsbDevice> devices;
  for (FoundDevice& found : FindDevices()) devices.push_back(std::move(found.device));
  return devices;
}

// ---- The transfers -------------------------------------------------------------------------

// The readings of a pipe are a ring. They end in the order in which they began.
struct UsbLine::Os {
  Os() = default;
  Os(const Os&) = delete;
  Os& operator=(const Os&) = delete;
  ~Os();

  // One transfer. The system writes into it until it has ended.
  struct Transfer {
    OVERLAPPED overlapped{};
    Handle ended;
    std::vector<unsigned char> bytes;
    std::size_t taken = 0;
    bool begun = false;
  };
  struct Pipe {
    std::uint8_t address = 0;
    std::size_t transfer = 0;
    std::vector<std::unique_ptr<Transfer>> readings;
    std::size_t first = 0;
    Transfer& oldest() { return *readings[first]; }
  };

  Status Open(const UsbDevice& wanted, const UsbPipes& wantedPipes);
  Status AddPipe(std::uint8_t address);
  std::optional<std::size_t> PacketSize(std::uint8_t address) const;
  void Begin(Pipe& pipe, Transfer& reading);
  bool Wait(Milliseconds atMost);
  std::size_t TakeFrom(Pipe& pipe, std::span<std::byte> into);
  void Heal(Pipe& pipe, DWORD code);
  Status SendPiece(std::span<const std::byte> piece, std::size_t& sent);

  Handle file;
  WINUSB_INTERFACE_HANDLE usb = nullptr;
  std::uint8_t out = 0;
  std::vector<Pipe> pipes;
  std::unique_ptr<Transfer> writing = std::make_unique<Transfer>();
  bool stalled = false;  // the last write, and the pipe was reset
  bool lost = false;
  int rests = 0;
};

namespace {

// True when the transfer ended in that time. One that never ends is given up with its memory.
template <typename Transfer>
bool AwaitEnd(WINUSB_INTERFACE_HANDLE usb, Transfer& transfer, Milliseconds atMost) {
  if (!transfer.begun) return true;
  if (WaitFor(transfer.ended.get(), atMost) != WaitEnd::Signalled) return false;
  DWORD count = 0;
  (void)::WinUsb_GetOverlappedResult(usb, &transfer.overlapped, &count, FALSE);
  transfer.begun = false;
  return true;
}

}  // namespace

UsbLine::Os::~Os() {
  const Deadline end(kEndPatience);
  bool allEnded = true;
  const auto finish = [&](std::unique_ptr<Transfer>& transfer) {
    if (AwaitEnd(usb, *transfer, end.Remaining())) return;
    allEnded = false;
    (void)transfer.release();
  };
  for (Pipe& pipe : pipes) {
    (void)::WinUsb_AbortPipe(usb, pipe.address);
    for (auto& reading : pipe.readings) finish(reading);
  }
  if (writing->begun) (void)::WinUsb_AbortPipe(usb, out);
  finish(writing);
  if (usb != nullptr && allEnded) ::WinUsb_Free(usb);
}

std::optional<std::size_t> UsbLine::Os::PacketSize(std::uint8_t address) const {
  WINUSB_PIPE_INFORMATION pipe{};
  for (UCHAR i = 0; ::WinUsb_QueryPipe(usb, 0, i, &pipe) != FALSE; ++i) {
    if (pipe.PipeId == address) return pipe.MaximumPacketSize;
  }
  return std::nullopt;
}

Status UsbLine::Os::Open(const UsbDevice& wanted, const UsbPipes& wantedPipes) {
  const std::vector<FoundDevice> all = FindDevices();
  const auto found = std::find_if(all.begin(), all.end(), [&wanted](const FoundDevice& each) {
    return each.device.port == wanted.port && each.device.vendor == wanted.vendor &&
           each.device.product == wanted.product;
  });
  if (found == all.end()) return {Error::NotFound, 0, "find the USB device"};
  const std::string path = PathOf(*found);
  if (path.empty()) return {Error::Unsupported, 0, kOtherDriver};
  const HANDLE opened = ::CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                      OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
  if (opened == INVALID_HANDLE_VALUE) return StatusOfLastError("open the USB device");
  file = Handle(opened);
  if (::WinUsb_Initialize(opened, &usb) == FALSE) {
    usb = nullptr;
    return StatusOfLastError("take the USB interface");
  }
  out = wantedPipes.out;
  writing->ended = Handle(::CreateEventA(nullptr, TRUE, FALSE, nullptr));
  if (!writing->ended) return StatusOfLastError("prepare to write");
  writing->bytes.resize(kLongestWrite);
  if (!PacketSize(out)) return {Error::Invalid, 0, "find the endpoints of the USB device"};
  UCHAR on = TRUE;
  (void)::WinUsb_SetPipePolicy(usb, out, SHORT_PACKET_TERMINATE, sizeof on, &on);
  pipes.reserve(2);
  if (const Status added = AddPipe(wantedPipes.in); !added.Ok()) return added;
  return wantedPipes.interruptIn != 0 ? AddPipe(wantedPipes.interruptIn) : Status{};
}

Status UsbLine::Os::AddPipe(std::uint8_t address) {
  const auto packet = PacketSize(address);
  if (!packet || *packet == 0) return {Error::Invalid, 0, "find the endpoints of the USB device"};
  UCHAR on = TRUE;
  (void)::WinUsb_SetPipePolicy(usb, address, RAW_IO, sizeof on, &on);
  Pipe& pipe = pipes.emplace_back();
  pipe.address = address;
  pipe.transfer = *packet >= kHighSpeedPacket ? kHighSpeedTransfer : *packet;
  pipe.readings.resize(kReadings);
  for (auto& reading : pipe.readings) {
    reading = std::make_unique<Transfer>();
    reading->ended = Handle(::CreateEventA(nullptr, TRUE, FALSE, nullptr));
    if (!reading->ended) return StatusOfLastError("prepare to read");
    reading->bytes.resize(pipe.transfer);
  }
  for (auto& reading : pipe.readings) Begin(pipe, *reading);
  return {};
}

void UsbLine::Os::Begin(Pipe& pipe, Transfer& reading) {
  reading.taken = 0;
  reading.overlapped = {};
  reading.overlapped.hEvent = reading.ended.get();
  ::ResetEvent(reading.ended.get());
  const BOOL done =
      ::WinUsb_ReadPipe(usb, pipe.address, reading.bytes.data(),
                        static_cast<ULONG>(reading.bytes.size()), nullptr, &reading.overlapped);
  const DWORD code = done != FALSE ? ERROR_SUCCESS : ::GetLastError();
  reading.begun = code == ERROR_SUCCESS || code == ERROR_IO_PENDING;
  lost = lost || IsGone(code);
}

// False: nothing ended in that time.
bool UsbLine::Os::Wait(Milliseconds atMost) {
  std::array<HANDLE, 2> events{};
  for (std::size_t i = 0; i < pipes.size(); ++i) events[i] = pipes[i].oldest().ended.get();
  const DWORD ended = ::WaitForMultipleObjects(static_cast<DWORD>(pipes.size()), events.data(),
                                               FALSE, WaitStep(atMost));
  return ended != WAIT_TIMEOUT && ended != WAIT_FAILED;
}

// A stalled pipe, or a line with errors. The pipe is reset when no reading uses it. A device whose
// readings do not end has gone.
void UsbLine::Os::Heal(Pipe& pipe, DWORD code) {
  lost = lost || IsGone(code) || ++rests > kMostRests;
  if (lost) return;
  SleepFor(kRest);
  (void)::WinUsb_AbortPipe(usb, pipe.address);
  const Deadline end(kEndPatience);
  for (auto& reading : pipe.readings) {
    if (!AwaitEnd(usb, *reading, end.Remaining())) lost = true;
  }
  if (lost) return;
  if (::WinUsb_ResetPipe(usb, pipe.address) == FALSE) {
    lost = true;
    return;
  }
  pipe.first = 0;
  for (auto& reading : pipe.readings) Begin(pipe, *reading);
}

// Also of a lost device the readings that have ended are taken.
std::size_t UsbLine::Os::TakeFrom(Pipe& pipe, std::span<std::byte> into) {
  std::size_t count = 0;
  while (count < into.size()) {
    Transfer& reading = pipe.oldest();
    if (!reading.begun) {
      Heal(pipe, ERROR_GEN_FAILURE);
      break;
    }
    DWORD came = 0;
    const bool good = ::WinUsb_GetOverlappedResult(usb, &reading.overlapped, &came, FALSE) != FALSE;
    const DWORD code = good ? ERROR_SUCCESS : ::GetLastError();
    if (code == ERROR_IO_INCOMPLETE || code == ERROR_IO_PENDING) break;
    const std::size_t there = std::min<std::size_t>(came, reading.bytes.size());
    const std::size_t step = std::min(there - std::min(reading.taken, there), into.size() - count);
    std::memcpy(into.data() + count, reading.bytes.data() + reading.taken, step);
    count += step;
    reading.taken += step;
    if (reading.taken < there) break;
    if (there > 0) rests = 0;
    reading.begun = false;
    if (!good) {
      Heal(pipe, code);
      break;
    }
    if (!lost) Begin(pipe, reading);
    pipe.first = (pipe.first + 1) % pipe.readings.size();
  }
  return count;
}

// ---- The line ------------------------------------------------------------------------------

UsbLine::UsbLine(std::unique_ptr<Os> os) : os_(std::move(os)) {}
UsbLine::~UsbLine() = default;

Result<std::unique_ptr<UsbLine>> UsbLine::Open(const UsbDevice& device, const UsbPipes& pipes) {
  auto os = std::make_unique<Os>();
  if (const Status opened = os->Open(device, pipes); !opened.Ok()) return opened;
  return std::unique_ptr<UsbLine>(new UsbLine(std::move(os)));
}

std::string UsbLine::ExplainFailure(const Status& failure) {
  switch (failure.error) {
    case Error::Denied:
    case Error::Busy:
      return "in use by another program";
    case Error::Closed:
    case Error::NotFound:
      return "unplugged";
    case Error::Unsupported:
      return "it has another driver: bind it to WinUSB, see docs/windows.md";
    default:
      return kinetrel::Describe(failure);
  }
}

Result<std::size_t> UsbLine::Receive(std::span<std::byte> into, Milliseconds atMost) {
  for (const Deadline end(atMost);;) {
    std::size_t count = 0;
    for (Os::Pipe& pipe : os_->pipes) {
      count += os_->TakeFrom(pipe, into.subspan(count));
    }
    if (count > 0) return count;
    if (os_->lost) return Status{Error::Closed, 0, "read"};
    const Milliseconds left = end.Remaining();
    if (left.count() == 0) return std::size_t{0};
    (void)os_->Wait(left);
  }
}

Status UsbLine::PurgeDriver() {
  std::array<std::byte, 512> dropped;
  for (Os::Pipe& pipe : os_->pipes) {
    while (os_->TakeFrom(pipe, dropped) > 0) {
    }
  }
  return {};
}

// A device that stalls has not taken the bytes, so they are sent again.
Result<std::size_t> UsbLine::Transmit(std::span<const std::byte> from) {
  std::size_t sent = 0;
  for (int stalls = 0; sent < from.size();) {
    const std::size_t before = sent;
    const Status status =
        os_->SendPiece(from.subspan(sent, std::min(kLongestWrite, from.size() - sent)), sent);
    if (os_->stalled && stalls++ < kMostStalls) continue;
    if (!status.Ok() && sent == 0) return status;
    if (!status.Ok() || sent == before) break;
  }
  return sent;
}

Status UsbLine::Os::SendPiece(std::span<const std::byte> piece, std::size_t& sent) {
  stalled = false;
  if (lost || writing->begun) return {Error::Closed, 0, "write"};
  std::memcpy(writing->bytes.data(), piece.data(), piece.size());
  writing->overlapped = {};
  writing->overlapped.hEvent = writing->ended.get();
  ::ResetEvent(writing->ended.get());
  writing->begun = true;
  const BOOL done =
      ::WinUsb_WritePipe(usb, out, writing->bytes.data(), static_cast<ULONG>(piece.size()), nullptr,
                         &writing->overlapped);
  DWORD code = done != FALSE ? ERROR_SUCCESS : ::GetLastError();
  ULONG count = 0;
  bool late = false;
  if (code == ERROR_SUCCESS || code == ERROR_IO_PENDING) {
    late = WaitFor(writing->ended.get(), kWritePatience) != WaitEnd::Signalled;
    if (late) (void)::WinUsb_AbortPipe(usb, out);
    if (late && WaitFor(writing->ended.get(), kEndPatience) != WaitEnd::Signalled) {
      return {Error::TimedOut, 0, "write"};  // no other write may begin
    }
    code = ::WinUsb_GetOverlappedResult(usb, &writing->overlapped, &count, FALSE) != FALSE
               ? ERROR_SUCCESS
               : ::GetLastError();
  }
  writing->begun = false;
  sent += count;
  if (late) return {Error::TimedOut, 0, "write"};
  if (code == ERROR_SUCCESS) return {};
  lost = lost || IsGone(code) || ::WinUsb_ResetPipe(usb, out) == FALSE;
  if (lost) return {Error::Closed, static_cast<int>(code), "write"};
  stalled = code == ERROR_GEN_FAILURE;
  return StatusFromSystem(code, "write");
}

}  // namespace kinetrel
