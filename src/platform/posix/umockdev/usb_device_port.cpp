#include "platform/usb_device_port.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <glib-object.h>
#include <linux/usbdevice_fs.h>
#include <umockdev.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

#include "platform/clock.h"
#include "platform/thread.h"

namespace kinetrel {
namespace {

using std::chrono::nanoseconds;

constexpr std::size_t kMostWaiting = 4096;  // bytes that the host has not asked for

// The host waits until its device file can be written to, which tells it of a finished transfer. So
// the file is a pipe: a full one keeps the host waiting.
class ReadySign {
 public:
  ReadySign() = default;
  ReadySign(const ReadySign&) = delete;
  ReadySign& operator=(const ReadySign&) = delete;
  ~ReadySign() { Remove(); }

  // Puts the pipe in the place of the file.
  bool Place(const std::string& path) {
    Remove();
    ::unlink(path.c_str());
    if (::mkfifo(path.c_str(), 0666) != 0) return false;
    pipe_ = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (pipe_ < 0 || ::fcntl(pipe_, F_SETPIPE_SZ, kPage) < 0) return false;
    ready_ = true;
    Set(false);
    return !ready_;
  }

  void Set(bool ready) {
    if (pipe_ < 0 || ready == ready_) return;
    std::array<char, kPage> page{};
    const ssize_t moved =
        ready ? ::read(pipe_, page.data(), page.size()) : ::write(pipe_, page.data(), page.size());
    if (moved == kPage) ready_ = ready;
  }

 private:
  static constexpr int kPage = 4096;

  void Remove() {
    if (pipe_ >= 0) ::close(pipe_);
    pipe_ = -1;
  }

  int pipe_ = -1;
  bool ready_ = false;
};

constexpr char kPreload[] = "libumockdev-preload.so.0";

// A pointer to an object of GLib, which counts its owners.
template <typename Object>
struct Unref {
  void operator()(Object* object) const { g_object_unref(object); }
};
template <typename Object>
using Owned = std::unique_ptr<Object, Unref<Object>>;

std::string Hex(std::initializer_list<unsigned> bytes) {
  std::string text;
  char two[3];
  for (const unsigned byte : bytes) {
    std::snprintf(two, sizeof two, "%02X", byte & 0xFF);
    text += two;
  }
  return text;
}

// The device descriptor, then those of its one configuration and interface.
std::string DescriptorsOf(const UsbIdentity& id) {
  const auto count = static_cast<unsigned>(id.endpoints.size());
  const unsigned packet = id.highSpeed ? 512 : 64;
  const unsigned total = 9 + 9 + 7 * count;
  std::string text =
      Hex({18, 1, 0, id.highSpeed ? 2U : 1U, 0, 0, 0, 64, id.vendor, unsigned{id.vendor} >> 8,
           id.product, unsigned{id.product} >> 8, 0, 0, 0, 0, 0, 1});
  text += Hex({9, 2, total, total >> 8, 1, 1, 0, 0x80, 50});
  text += Hex({9, 4, 0, 0, count, 0xFF, 0, 0, 0});
  for (const auto& endpoint : id.endpoints) {
    text += Hex({7, 5, endpoint.address, endpoint.interrupt ? 3U : 2U, packet, packet >> 8,
                 endpoint.interrupt ? 5U : 0U});
  }
  return text;
}

// ---- The device ----------------------------------------------------------------------------

class Bus;

// Calls of the host come on the testbed's thread; all that they touch is under the lock.
class MockDevice final : public UsbDevicePort {
 public:
  MockDevice(std::shared_ptr<Bus> bus, unsigned port, UsbIdentity identity);
  ~MockDevice() override;

  const std::string& path() const override { return path_; }
  void Unplug() override;
  Status Plug(unsigned) override;
  bool IsPlugged() const override { return plugged_; }
  bool HasHost() const override;
  bool IsUsedByDriver() const override;
  unsigned HostBaud() const override { return 0; }
  std::size_t Read(std::span<std::byte> into) override;
  std::size_t Write(std::span<const std::byte> from) override;
  void Wait(nanoseconds atMost) override;
  void Interrupt() override;

  void StallNext() override;
  void StallNextCommand() override;
  void UnplugAfter(std::size_t bytes) override;
  void SetLongestTransfer(std::size_t bytes) override;
  void SetIdentity(UsbIdentity identity) override { identity_ = std::move(identity); }

 private:
  // One transfer that the host has given to its kernel.
  struct Request {
    Owned<UMockdevIoctlData> urb;
    Owned<UMockdevIoctlData> buffer;
    usbdevfs_urb* header() const { return reinterpret_cast<usbdevfs_urb*>(urb->data); }
  };

  // The testbed's thread may call for a device that is just being destroyed or plugged in again.
  struct Tie {
    explicit Tie(MockDevice* tied) : device(tied) {}
    std::mutex mutex;
    MockDevice* device;  // null when it no longer answers
  };
  static gboolean OnIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer tie);
  static void OnConnected(UMockdevIoctlBase*, UMockdevIoctlClient*, gpointer tie);
  static void OnVanished(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer tie);
  void Untie();
  void Connect(UMockdevIoctlBase* handler, const char* signal, GCallback callback);

  using Held = std::unique_lock<std::mutex>;
  void Forget(const UMockdevIoctlClient* client);
  int Answer(UMockdevIoctlClient* client);
  int Answer(const Held&, UMockdevIoctlClient* client, unsigned long request,
             UMockdevIoctlData* argument);
  int Claim(UMockdevIoctlClient* client, bool fromDriver);
  int AskDriver(UMockdevIoctlData* argument);
  int Submit(const Held&, UMockdevIoctlData* argument);
  int Discard(const Held&, UMockdevIoctlData* argument);
  int Reap(const Held&, UMockdevIoctlData* argument);
  void Finish(Request request, int status, std::size_t bytes);
  void Serve(const Held&);
  void EndRequests(int status);
  std::string Describe() const;
  void Tell(const char* event);

  const std::shared_ptr<Bus> bus_;
  const unsigned port_;
  UsbIdentity identity_;
  std::string path_;
  std::string node_;
  std::string sysPath_;
  bool plugged_ = false;
  std::shared_ptr<Tie> tie_ = std::make_shared<Tie>(this);  // of this plugging in

  mutable std::mutex mutex_;  // guards all below
  std::condition_variable changed_;
  bool gone_ = false;  // unplugged: the host's calls fail
  bool interrupted_ = false;
  bool stalls_ = false;         // the next transfer
  bool halted_ = false;         // until the host resets the endpoint
  bool commandStalls_ = false;  // the same of the host's transfers
  bool commandsHalted_ = false;
  std::optional<std::size_t> unplugAfter_;  // of the next bytes
  bool hasDriver_ = false;                  // of the host
  UMockdevIoctlClient* claimedBy_ = nullptr;
  int hosts_ = 0;
  int lastHosts_ = 0;
  std::size_t longest_ = 0;
  std::deque<Request> asked_;  // reading transfers that wait for bytes
  std::deque<Request> done_;   // to be reaped
  Request reaped_;             // its bytes travel with the answer
  std::vector<std::byte> fromHost_;
  std::deque<std::byte> toHost_;
  ReadySign ready_;  // done_ holds a transfer, or the device is gone
};

// ---- The bus -------------------------------------------------------------------------------

class Bus final : public UsbBus, public std::enable_shared_from_this<Bus> {
 public:
  Bus() : bed_(umockdev_testbed_new()) {
    gchar* const root = umockdev_testbed_get_root_dir(bed_);
    root_ = root;
    g_free(root);
  }
  ~Bus() override { g_object_unref(bed_); }

  std::vector<std::pair<std::string, std::string>> Environment() const override {
    return {{"LD_PRELOAD", kPreload}, {"UMOCKDEV_DIR", root_}};
  }

  Result<std::unique_ptr<UsbDevicePort>> Attach(unsigned port, UsbIdentity identity) override {
    auto device = std::make_unique<MockDevice>(shared_from_this(), port, std::move(identity));
    if (const Status plugged = device->Plug(0); !plugged.Ok()) return plugged;
    return std::unique_ptr<UsbDevicePort>(std::move(device));
  }

  UMockdevTestbed* bed() const { return bed_; }
  const std::string& root() const { return root_; }

  // Held while a device is plugged in or pulled out: a port may change its device.
  std::mutex& plugging() { return plugging_; }

  // A host ignores a number that a device it has open still has.
  unsigned NextNumber() { return number_ = number_ % 120 + 1; }

 private:
  UMockdevTestbed* const bed_;
  std::string root_;
  std::mutex plugging_;  // guards the number
  unsigned number_ = 1;
};

MockDevice::MockDevice(std::shared_ptr<Bus> bus, unsigned port, UsbIdentity identity)
    : bus_(std::move(bus)), port_(port), identity_(std::move(identity)) {}

MockDevice::~MockDevice() {
  MockDevice::Unplug();
  Untie();
}

void MockDevice::Untie() {
  const std::lock_guard lock(tie_->mutex);
  tie_->device = nullptr;
}

void MockDevice::Connect(UMockdevIoctlBase* handler, const char* signal, GCallback callback) {
  const auto release = [](gpointer tie, GClosure*) {
    delete static_cast<std::shared_ptr<Tie>*>(tie);
  };
  g_signal_connect_data(handler, signal, callback, new std::shared_ptr<Tie>(tie_), release,
                        GConnectFlags{});
}

std::string MockDevice::Describe() const {
  const std::size_t slash = node_.rfind('/');
  const std::string number = node_.substr(slash + 1);
  char ids[3][16];
  std::snprintf(ids[0], sizeof ids[0], "%04x", identity_.vendor);
  std::snprintf(ids[1], sizeof ids[1], "%04x", identity_.product);
  std::snprintf(ids[2], sizeof ids[2], "%x/%x/0", identity_.vendor, identity_.product);
  return "P: " + sysPath_ + "\nN: bus/usb/001/" + number +
         "\nE: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\nE: DEVNAME=" + node_ +
         "\nE: BUSNUM=001\nE: DEVNUM=" + number + "\nE: PRODUCT=" + ids[2] +
         "\nA: busnum=1\\n\nA: devnum=" + std::to_string(std::stoul(number)) +
         "\\n\nA: devpath=" + std::to_string(port_) +
         "\\n\nA: speed=" + (identity_.highSpeed ? "480" : "12") +
         "\\n\nA: bConfigurationValue=1\\n\nA: idVendor=" + ids[0] + "\\n\nA: idProduct=" + ids[1] +
         "\\n\nH: descriptors=" + DescriptorsOf(identity_) + "\n\n";
}

// Only a process that sees the bus itself can send events of it. A host that looks again needs
// none.
void MockDevice::Tell(const char* event) {
  if (umockdev_in_mock_environment() == FALSE) return;
  umockdev_testbed_uevent(bus_->bed(), ("/sys" + sysPath_).c_str(), event);
}

Status MockDevice::Plug(unsigned) {
  const std::lock_guard plugging(bus_->plugging());
  if (plugged_) return {};
  Untie();  // a host that still has the old device open
  tie_ = std::make_shared<Tie>(this);
  char number[8];
  std::snprintf(number, sizeof number, "%03u", bus_->NextNumber());
  node_ = std::string("/dev/bus/usb/001/") + number;
  sysPath_ = "/devices/pci0000:00/0000:00:14.0/usb1/1-" + std::to_string(port_);
  {
    const std::lock_guard lock(mutex_);
    gone_ = stalls_ = halted_ = commandStalls_ = commandsHalted_ = false;
    hasDriver_ = identity_.usedByDriver;
    claimedBy_ = nullptr;
    fromHost_.clear();
    toHost_.clear();
    done_.clear();
    hosts_ = lastHosts_ = 0;
  }
  GError* error = nullptr;
  if (umockdev_testbed_add_from_string(bus_->bed(), Describe().c_str(), &error) == FALSE) {
    g_clear_error(&error);
    return {Error::Failed, 0, "make a USB device"};
  }
  const Owned<UMockdevIoctlBase> handler(umockdev_ioctl_base_new());
  Connect(handler.get(), "handle-ioctl", G_CALLBACK(OnIoctl));
  Connect(handler.get(), "client-connected", G_CALLBACK(OnConnected));
  Connect(handler.get(), "client-vanished", G_CALLBACK(OnVanished));
  if (umockdev_testbed_attach_ioctl(bus_->bed(), node_.c_str(), handler.get(), &error) == FALSE) {
    g_clear_error(&error);
    return {Error::Failed, 0, "serve a USB device"};
  }
  {
    const std::lock_guard lock(mutex_);
    if (!ready_.Place(bus_->root() + node_)) return {Error::Failed, errno, "make a device file"};
  }
  Tell("add");
  path_ = "usb:1-" + std::to_string(port_);
  plugged_ = true;
  return {};
}

void MockDevice::Unplug() {
  const std::lock_guard plugging(bus_->plugging());
  if (!plugged_) return;
  plugged_ = false;
  path_.clear();
  {
    const std::lock_guard lock(mutex_);
    gone_ = true;
    EndRequests(-ESHUTDOWN);
    ready_.Set(true);
  }
  Tell("remove");
  umockdev_testbed_remove_device(bus_->bed(), ("/sys" + sysPath_).c_str());
}

bool MockDevice::IsUsedByDriver() const {
  const std::lock_guard lock(mutex_);
  return hasDriver_;
}

bool MockDevice::HasHost() const {
  const std::lock_guard lock(mutex_);
  return hosts_ > 0;
}

std::size_t MockDevice::Read(std::span<std::byte> into) {
  const std::lock_guard lock(mutex_);
  const std::size_t count = std::min(into.size(), fromHost_.size());
  std::copy_n(fromHost_.begin(), count, into.begin());
  fromHost_.erase(fromHost_.begin(), fromHost_.begin() + static_cast<std::ptrdiff_t>(count));
  return count;
}

std::size_t MockDevice::Write(std::span<const std::byte> from) {
  {
    const Held lock(mutex_);
    if (gone_ || hosts_ == 0) return from.size();
    if (from.size() > kMostWaiting - toHost_.size()) return 0;  // left out whole
    if (from.empty() || !unplugAfter_) {
      toHost_.insert(toHost_.end(), from.begin(), from.end());
      Serve(lock);
      return from.size();
    }
    const std::size_t last = std::min(*std::exchange(unplugAfter_, std::nullopt), from.size());
    toHost_.insert(toHost_.end(), from.begin(), from.begin() + static_cast<std::ptrdiff_t>(last));
    Serve(lock);
  }
  Unplug();
  return from.size();
}

void MockDevice::Wait(nanoseconds atMost) {
  Held lock(mutex_);
  const auto until =
      std::chrono::steady_clock::now() + std::min<nanoseconds>(atMost, std::chrono::hours(1));
  changed_.wait_until(
      lock, until, [this] { return interrupted_ || !fromHost_.empty() || hosts_ != lastHosts_; });
  interrupted_ = false;
  lastHosts_ = hosts_;
}

void MockDevice::Interrupt() {
  const std::lock_guard lock(mutex_);
  interrupted_ = true;
  changed_.notify_all();
}

void MockDevice::StallNext() {
  const Held lock(mutex_);
  stalls_ = true;
  Serve(lock);
}

void MockDevice::StallNextCommand() {
  const std::lock_guard lock(mutex_);
  commandStalls_ = true;
}

void MockDevice::UnplugAfter(std::size_t bytes) {
  const std::lock_guard lock(mutex_);
  unplugAfter_ = bytes;
}

void MockDevice::SetLongestTransfer(std::size_t bytes) {
  const std::lock_guard lock(mutex_);
  longest_ = bytes;
}

// ---- The host's calls ----------------------------------------------------------------------

void MockDevice::OnConnected(UMockdevIoctlBase*, UMockdevIoctlClient*, gpointer data) {
  Tie& tie = **static_cast<std::shared_ptr<Tie>*>(data);
  const std::lock_guard alive(tie.mutex);
  if (tie.device == nullptr) return;
  const std::lock_guard lock(tie.device->mutex_);
  ++tie.device->hosts_;
  tie.device->changed_.notify_all();
}

void MockDevice::OnVanished(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer data) {
  Tie& tie = **static_cast<std::shared_ptr<Tie>*>(data);
  const std::lock_guard alive(tie.mutex);
  if (tie.device != nullptr) tie.device->Forget(client);
}

gboolean MockDevice::OnIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer data) {
  Tie& tie = **static_cast<std::shared_ptr<Tie>*>(data);
  int result = -ENODEV;
  {
    const std::lock_guard alive(tie.mutex);
    if (tie.device != nullptr) result = tie.device->Answer(client);
  }
  umockdev_ioctl_client_complete(client, result < 0 ? -1 : 0, result < 0 ? -result : 0);
  return TRUE;
}

void MockDevice::Forget(const UMockdevIoctlClient* client) {
  const std::lock_guard lock(mutex_);
  --hosts_;
  changed_.notify_all();
  if (claimedBy_ != client) return;
  claimedBy_ = nullptr;
  asked_.clear();
  done_.clear();
  toHost_.clear();
  halted_ = commandsHalted_ = false;
  ready_.Set(gone_);
}

int MockDevice::Answer(UMockdevIoctlClient* client) {
  const Held lock(mutex_);
  return Answer(lock, client, umockdev_ioctl_client_get_request(client),
                umockdev_ioctl_client_get_arg(client));
}

// Returns 0, or minus the error.
int MockDevice::Answer(const Held& lock, UMockdevIoctlClient* client, unsigned long request,
                       UMockdevIoctlData* argument) {
  if (request == USBDEVFS_REAPURBNDELAY) return Reap(lock, argument);
  if (gone_ && request != USBDEVFS_DISCARDURB) return -ENODEV;
  switch (request) {
    case USBDEVFS_GET_CAPABILITIES: {
      const Owned<UMockdevIoctlData> word(umockdev_ioctl_data_resolve(argument, 0, 4, nullptr));
      const std::uint32_t able = USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
                                 USBDEVFS_CAP_REAP_AFTER_DISCONNECT;
      std::memcpy(word->data, &able, sizeof able);
      return 0;
    }
    case USBDEVFS_CLEAR_HALT: {
      const Owned<UMockdevIoctlData> pipe(umockdev_ioctl_data_resolve(argument, 0, 4, nullptr));
      (pipe && (pipe->data[0] & 0x80) == 0 ? commandsHalted_ : halted_) = false;
      Serve(lock);
      return 0;
    }
    case USBDEVFS_CLAIMINTERFACE:
      return Claim(client, false);
    case USBDEVFS_DISCONNECT_CLAIM:
      return Claim(client, true);
    case USBDEVFS_RELEASEINTERFACE:
      if (claimedBy_ == client) claimedBy_ = nullptr;
      return 0;
    case USBDEVFS_IOCTL:
      return AskDriver(argument);
    case USBDEVFS_SETCONFIGURATION:
    case USBDEVFS_SETINTERFACE:
    case USBDEVFS_RESET:
      return 0;
    case USBDEVFS_SUBMITURB:
      return Submit(lock, argument);
    case USBDEVFS_DISCARDURB:
      return Discard(lock, argument);
    default:
      return -ENOTTY;
  }
}

int MockDevice::Claim(UMockdevIoctlClient* client, bool fromDriver) {
  if (claimedBy_ != nullptr && claimedBy_ != client) return -EBUSY;
  if (hasDriver_ && !fromDriver) return -EBUSY;
  hasDriver_ = false;
  claimedBy_ = client;
  return 0;
}

// A host takes the interface from the driver, and gives it back.
int MockDevice::AskDriver(UMockdevIoctlData* argument) {
  const Owned<UMockdevIoctlData> data(
      umockdev_ioctl_data_resolve(argument, 0, sizeof(usbdevfs_ioctl), nullptr));
  if (!data) return -EFAULT;
  const unsigned long code =
      static_cast<unsigned>(reinterpret_cast<const usbdevfs_ioctl*>(data->data)->ioctl_code);
  if (code != USBDEVFS_CONNECT && code != USBDEVFS_DISCONNECT) return -ENOTTY;
  hasDriver_ = code == USBDEVFS_CONNECT && identity_.usedByDriver;
  return 0;
}

int MockDevice::Submit(const Held& lock, UMockdevIoctlData* argument) {
  Request request;
  request.urb.reset(umockdev_ioctl_data_resolve(argument, 0, sizeof(usbdevfs_urb), nullptr));
  if (!request.urb) return -EFAULT;
  const usbdevfs_urb& urb = *request.header();
  if (urb.buffer_length > 0) {
    request.buffer.reset(
        umockdev_ioctl_data_resolve(request.urb.get(), offsetof(usbdevfs_urb, buffer),
                                    static_cast<gsize>(urb.buffer_length), nullptr));
    if (!request.buffer) return -EFAULT;
  }
  if ((urb.endpoint & 0x80) != 0) {
    asked_.push_back(std::move(request));
    Serve(lock);
    return 0;
  }
  if (commandsHalted_ || std::exchange(commandStalls_, false)) {
    commandsHalted_ = true;
    Finish(std::move(request), -EPIPE, 0);
    return 0;
  }
  const auto* const bytes = reinterpret_cast<const std::byte*>(request.buffer->data);
  const auto count = static_cast<std::size_t>(urb.buffer_length);
  fromHost_.insert(fromHost_.end(), bytes, bytes + count);
  Finish(std::move(request), 0, count);
  changed_.notify_all();
  return 0;
}

int MockDevice::Discard(const Held&, UMockdevIoctlData* argument) {
  gulong wanted = 0;
  std::memcpy(&wanted, argument->data, sizeof wanted);
  const auto found = std::ranges::find_if(
      asked_, [wanted](const Request& request) { return request.urb->client_addr == wanted; });
  if (found == asked_.end()) return -EINVAL;
  Request request = std::move(*found);
  asked_.erase(found);
  Finish(std::move(request), -ENOENT, 0);
  return 0;
}

void MockDevice::Finish(Request request, int status, std::size_t bytes) {
  request.header()->status = status;
  request.header()->actual_length = static_cast<int>(bytes);
  done_.push_back(std::move(request));
  ready_.Set(true);
}

void MockDevice::EndRequests(int status) {
  while (!asked_.empty()) {
    Request request = std::move(asked_.front());
    asked_.pop_front();
    Finish(std::move(request), status, 0);
  }
}

// Gives the device's bytes to the transfers that wait for them.
void MockDevice::Serve(const Held&) {
  while (!asked_.empty() && !gone_ && (halted_ || stalls_ || !toHost_.empty())) {
    const auto next = std::ranges::find_if(asked_, [this](const Request& request) {
      return request.header()->endpoint == identity_.answers;
    });
    if (next == asked_.end()) break;
    Request request = std::move(*next);
    asked_.erase(next);
    if (halted_ || stalls_) {
      halted_ = true;
      stalls_ = false;
      Finish(std::move(request), -EPIPE, 0);
      continue;
    }
    std::size_t count =
        std::min(toHost_.size(), static_cast<std::size_t>(request.header()->buffer_length));
    if (longest_ > 0) count = std::min(count, longest_);
    std::copy_n(toHost_.begin(), count, reinterpret_cast<std::byte*>(request.buffer->data));
    toHost_.erase(toHost_.begin(), toHost_.begin() + static_cast<std::ptrdiff_t>(count));
    Finish(std::move(request), 0, count);
  }
}

int MockDevice::Reap(const Held&, UMockdevIoctlData* argument) {
  if (done_.empty()) return gone_ ? -ENODEV : -EAGAIN;
  reaped_ = std::move(done_.front());
  done_.pop_front();
  ready_.Set(gone_ || !done_.empty());
  const Owned<UMockdevIoctlData> place(
      umockdev_ioctl_data_resolve(argument, 0, sizeof(void*), nullptr));
  umockdev_ioctl_data_set_ptr(place.get(), 0, reaped_.urb.get());
  return 0;
}

}  // namespace

Result<std::shared_ptr<UsbBus>> UsbBus::Make() {
  return std::shared_ptr<UsbBus>(std::make_shared<Bus>());
}

}  // namespace kinetrel
