// The service manager that started this process (systemd on Linux), and its journal.
//
// The messages are those of systemd's sd_notify(3): datagrams to the socket that the environment
// names. Windows has no such manager: nothing is present there.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/clock.h"

namespace kinetrel {

// Threads  one at a time.
class ServiceManager {
 public:
  // Takes NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID from the environment of this process.
  ServiceManager();
  ServiceManager(ServiceManager&&) noexcept;
  ServiceManager& operator=(ServiceManager&&) noexcept;
  ~ServiceManager();

  bool IsPresent() const;  // it waits for messages of this process

  // How long the manager waits for WATCHDOG=1 before it ends the process. Empty: no watchdog.
  std::optional<Milliseconds> WatchdogPeriod() const;

  // Sends a message such as "READY=1\nSTATUS=Running". Never waits. False: no manager takes it now.
  bool Send(const std::string& message);

 private:
  struct Os;  // posix/service_manager.cpp, win32/service_manager.cpp
  std::unique_ptr<Os> os_;
};

// Whether standard error leads to the journal. JOURNAL_STREAM alone does not tell: a terminal of a
// desktop inherits it.
bool StandardErrorIsJournal();

}  // namespace kinetrel
