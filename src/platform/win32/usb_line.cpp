#include "platform/usb_line.h"

#include <windows.h>

#include <setupapi.h>
#include <winusb.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "platform/win32/os.h"

namespace kinetrel {
namespace {

constexpr ULONG kWritePatience = 1000;  // ms
constexpr Milliseconds kRest{10};       // before a failed pipe is used again
constexpr int kMostRests = 20;          // without a byte; then the device counts as gone
constexpr std::size_t kReadings = 64;   // of each pipe
constexpr std::size_t kHighSpeedPacket = 512;
constexpr std::size_t kHighSpeedTransfer = 1024;

constexpr const char* kOtherDriver = "use WinUSB";

// ---- What is plugged in --------------------------------------------------------------------

class DeviceList {
 public:
  DeviceList(const GUID* kind, const char* which, DWORD flags)
      : list_(::SetupDiGetClassDevsA(kind, which, nullptr, flags | DIGCF_PRESENT)) {}
  ~DeviceList() {
    if (list_ != INVALID_HANDLE_VALUE) ::SetupDiDestroyDeviceInfoList(list_);
  }
  DeviceList(const DeviceList&) = delete;
  DeviceList& operator=(const DeviceList&) = delete;

  bool Device(DWORD index, SP_DEVINFO_DATA& device) const {
    device = {};
    device.cbSize = sizeof device;
    return ::SetupDiEnumDeviceInfo(list_, index, &device) != FALSE;
  }

  // The first string of a property; empty when the device lacks it.
  std::string Text(SP_DEVINFO_DATA& device, DWORD property) const {
    std::array<char, 1024> text{};
    const bool read = ::SetupDiGetDeviceRegistryPropertyA(
                          list_, &device, property, nullptr, reinterpret_cast<BYTE*>(text.data()),
                          static_cast<DWORD>(text.size() - 1), nullptr) != FALSE;
    return read ? std::string(text.data()) : std::string();
  }

  HDEVINFO get() const { return list_; }

 private:
  HDEVINFO list_;
};

struct FoundDevice {
  UsbDevice device;
  std::string instance;
  std::string driver;  // the service that has it
};

std::optional<std::uint16_t> HexAfter(const std::string& text, const char* mark) {
  const std::size_t at = text.find(mark);
  if (at == std::string::npos) return std::nullopt;
  const std::string digits = text.substr(at + std::strlen(mark), 4);
  return static_cast<std::uint16_t>(std::strtoul(digits.c_str(), nullptr, 16));
}

// "PCIROOT(0)#PCI(1400)#USBROOT(0)#USB(2)#USB(3)" is port 3 of the hub at port 2. Buses are counted
// in the order in which they are found.
std::string PortOf(const std::string& location, std::vector<std::string>& buses) {
  constexpr char kStep[] = "#USB(";
  std::size_t at = location.find(kStep);
  const std::string bus = location.substr(0, at);
  auto known = std::find(buses.begin(), buses.end(), bus);
  if (known == buses.end()) known = buses.insert(buses.end(), bus);
  std::string port = std::to_string(known - buses.begin() + 1);
  for (char separator = '-'; at != std::string::npos; separator = '.') {
    at += std::strlen(kStep);
    const std::size_t end = location.find(')', at);
    port += separator + location.substr(at, end - at);
    at = location.find(kStep, at);
  }
  return port;
}

std::vector<FoundDevice> FindDevices() {
  std::vector<FoundDevice> found;
  std::vector<std::string> buses;
  const DeviceList list(nullptr, "USB", DIGCF_ALLCLASSES);
  SP_DEVINFO_DATA info;
  for (DWORD i = 0; list.Device(i, info); ++i) {
    const std::string hardware = list.Text(info, SPDRP_HARDWAREID);
    const auto vendor = HexAfter(hardware, "VID_");
    const auto product = HexAfter(hardware, "PID_");
    const std::string driver = list.Text(info, SPDRP_SERVICE);
    const bool part = hardware.find("&MI_") != std::string::npos;
    if (!vendor || !product || part || ::_strnicmp(driver.c_str(), "USBHUB", 6) == 0) continue;
    std::array<char, 512> instance{};
    if (::SetupDiGetDeviceInstanceIdA(list.get(), &info, instance.data(),
                                      static_cast<DWORD>(instance.size()), nullptr) == FALSE) {
      continue;
    }
    const std::string location = list.Text(info, SPDRP_LOCATION_PATHS);
    found.push_back({{PortOf(location, buses), *vendor, *product}, instance.data(), driver});
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

  struct Reading {
    OVERLAPPED overlapped{};
    Handle ended;
    std::vector<unsigned char> bytes;
    std::size_t taken = 0;
    bool begun = false;
  };
  struct Pipe {
    std::uint8_t address = 0;
    std::size_t transfer = 0;
    std::vector<Reading> readings;
    std::size_t first = 0;
    Reading& oldest() { return readings[first]; }
  };

  Status Open(const UsbDevice& wanted, const UsbPipes& wantedPipes);
  Status AddPipe(std::uint8_t address);
  std::optional<std::size_t> PacketSize(std::uint8_t address) const;
  void Begin(Pipe& pipe, Reading& reading);
  bool Wait(Milliseconds atMost);
  std::size_t TakeFrom(Pipe& pipe, std::span<std::byte> into);
  void Heal(Pipe& pipe, DWORD code);

  Handle file;
  WINUSB_INTERFACE_HANDLE usb = nullptr;
  std::uint8_t out = 0;
  std::vector<Pipe> pipes;
  Handle written;
  bool lost = false;
  int rests = 0;
};

UsbLine::Os::~Os() {
  for (Pipe& pipe : pipes) {
    (void)::WinUsb_AbortPipe(usb, pipe.address);
    // The system writes into the buffers until each reading has ended, which aborting ensures.
    for (Reading& reading : pipe.readings) {
      DWORD count = 0;
      if (reading.begun) (void)::WinUsb_GetOverlappedResult(usb, &reading.overlapped, &count, TRUE);
    }
  }
  if (usb != nullptr) ::WinUsb_Free(usb);
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
  written = Handle(::CreateEventA(nullptr, TRUE, FALSE, nullptr));
  if (!written) return StatusOfLastError("prepare to write");
  if (!PacketSize(out)) return {Error::Invalid, 0, "find the endpoints of the USB device"};
  ULONG patience = kWritePatience;
  UCHAR on = TRUE;
  (void)::WinUsb_SetPipePolicy(usb, out, PIPE_TRANSFER_TIMEOUT, sizeof patience, &patience);
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
  for (Reading& reading : pipe.readings) {
    reading.ended = Handle(::CreateEventA(nullptr, TRUE, FALSE, nullptr));
    if (!reading.ended) return StatusOfLastError("prepare to read");
    reading.bytes.resize(pipe.transfer);
  }
  for (Reading& reading : pipe.readings) Begin(pipe, reading);
  return {};
}

void UsbLine::Os::Begin(Pipe& pipe, Reading& reading) {
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

// A stalled pipe, or a line with errors. The pipe is reset when no reading uses it.
void UsbLine::Os::Heal(Pipe& pipe, DWORD code) {
  lost = lost || IsGone(code) || ++rests > kMostRests;
  if (lost) return;
  SleepFor(kRest);
  (void)::WinUsb_AbortPipe(usb, pipe.address);
  for (Reading& reading : pipe.readings) {
    DWORD count = 0;
    if (reading.begun) (void)::WinUsb_GetOverlappedResult(usb, &reading.overlapped, &count, TRUE);
    reading.begun = false;
  }
  if (::WinUsb_ResetPipe(usb, pipe.address) == FALSE) lost = lost || IsGone(::GetLastError());
  pipe.first = 0;
  for (Reading& reading : pipe.readings) Begin(pipe, reading);
}

std::size_t UsbLine::Os::TakeFrom(Pipe& pipe, std::span<std::byte> into) {
  std::size_t count = 0;
  while (count < into.size()) {
    Reading& reading = pipe.oldest();
    DWORD came = 0;
    if (reading.begun &&
        ::WinUsb_GetOverlappedResult(usb, &reading.overlapped, &came, FALSE) == FALSE) {
      const DWORD code = ::GetLastError();
      if (code != ERROR_IO_INCOMPLETE && code != ERROR_IO_PENDING) Heal(pipe, code);
      break;
    }
    if (!reading.begun) {
      Heal(pipe, ERROR_GEN_FAILURE);
      break;
    }
    const std::size_t step = std::min(came - reading.taken, into.size() - count);
    std::memcpy(into.data() + count, reading.bytes.data() + reading.taken, step);
    count += step;
    reading.taken += step;
    if (reading.taken < came) break;
    if (came > 0) rests = 0;
    Begin(pipe, reading);
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
      if (!os_->lost) count += os_->TakeFrom(pipe, into.subspan(count));
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
    while (!os_->lost && os_->TakeFrom(pipe, dropped) > 0) {
    }
  }
  return {};
}

Result<std::size_t> UsbLine::Write(std::span<const std::byte> from) {
  if (os_->lost) return Status{Error::Closed, 0, "write"};
  OVERLAPPED overlapped{};
  overlapped.hEvent = os_->written.get();
  auto* const bytes = const_cast<UCHAR*>(reinterpret_cast<const UCHAR*>(from.data()));
  ULONG count = 0;
  const BOOL begun = ::WinUsb_WritePipe(os_->usb, os_->out, bytes, static_cast<ULONG>(from.size()),
                                        nullptr, &overlapped);
  if (begun == FALSE && ::GetLastError() != ERROR_IO_PENDING) {
    const Status failed = StatusOfLastError("write");
    os_->lost = IsGone(static_cast<DWORD>(failed.osCode));
    return os_->lost ? Status{Error::Closed, failed.osCode, "write"} : failed;
  }
  // The pipe's own time-out ends it.
  if (::WinUsb_GetOverlappedResult(os_->usb, &overlapped, &count, TRUE) == FALSE && count == 0) {
    const DWORD code = ::GetLastError();
    if (code == ERROR_SEM_TIMEOUT) return Status{Error::TimedOut, 0, "write"};
    os_->lost = os_->lost || IsGone(code);
    (void)::WinUsb_ResetPipe(os_->usb, os_->out);
    return os_->lost ? Status{Error::Closed, static_cast<int>(code), "write"}
                     : StatusFromSystem(code, "write");
  }
  return static_cast<std::size_t>(count);
}

}  // namespace kinetrel
