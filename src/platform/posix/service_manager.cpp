#include "platform/service_manager.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace kinetrel {
namespace {

std::string Variable(const char* name) {
  const char* const value = std::getenv(name);
  return value != nullptr ? value : "";
}

std::optional<std::uint64_t> ReadNumber(std::string_view text) {
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc{} || end != text.data() + text.size()) return {};
  return number;
}

// The period is for one process, and a child inherits the variables.
std::optional<Milliseconds> ReadWatchdogPeriod() {
  const std::string process = Variable("WATCHDOG_PID");
  if (!process.empty() && ReadNumber(process) != static_cast<std::uint64_t>(::getpid())) return {};
  const auto microseconds = ReadNumber(Variable("WATCHDOG_USEC"));
  if (!microseconds || *microseconds == 0) return {};
  constexpr std::uint64_t kLongest = 86'400'000'000;  // a day
  return Milliseconds(static_cast<std::int64_t>(std::min(*microseconds, kLongest) / 1000));
}

}  // namespace

struct ServiceManager::Os {
  int socket = -1;  // -1: no manager
  sockaddr_un address{};
  socklen_t length = 0;
  std::optional<Milliseconds> watchdog;

  Os() = default;
  Os(const Os&) = delete;
  Os& operator=(const Os&) = delete;
  ~Os() {
    if (socket >= 0) ::close(socket);
  }

  // A path, or '@' and the name of an abstract socket.
  void Open(const std::string& name) {
    if (name.size() < 2 || name.size() >= sizeof(address.sun_path)) return;
    if (name[0] != '/' && name[0] != '@') return;
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.data(), name.size());
    if (name[0] == '@') address.sun_path[0] = '\0';
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  }
};

ServiceManager::ServiceManager() : os_(std::make_unique<Os>()) {
  os_->Open(Variable("NOTIFY_SOCKET"));
  if (IsPresent()) os_->watchdog = ReadWatchdogPeriod();
}

ServiceManager::ServiceManager(ServiceManager&&) noexcept = default;
ServiceManager& ServiceManager::operator=(ServiceManager&&) noexcept = default;
ServiceManager::~ServiceManager() = default;

bool ServiceManager::IsPresent() const { return os_->socket >= 0; }

std::optional<Milliseconds> ServiceManager::WatchdogPeriod() const { return os_->watchdog; }

bool ServiceManager::Send(const std::string& message) {
  if (!IsPresent()) return false;
  const auto* const address = reinterpret_cast<const sockaddr*>(&os_->address);
  const ssize_t sent = ::sendto(os_->socket, message.data(), message.size(),
                                MSG_DONTWAIT | MSG_NOSIGNAL, address, os_->length);
  return sent == static_cast<ssize_t>(message.size());
}

// The variable holds the device and inode of the journal's stream, as in 8:1234.
bool StandardErrorIsJournal() {
  const std::string stream = Variable("JOURNAL_STREAM");
  struct stat now {};
  if (stream.empty() || ::fstat(STDERR_FILENO, &now) != 0) return false;
  return stream == std::to_string(now.st_dev) + ":" + std::to_string(now.st_ino);
}

}  // namespace kinetrel
