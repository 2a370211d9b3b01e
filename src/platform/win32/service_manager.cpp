// Windows has no service manager that takes messages.
#include "platform/service_manager.h"

namespace kinetrel {

struct ServiceManager::Os {};

ServiceManager::ServiceManager() = default;
ServiceManager::ServiceManager(ServiceManager&&) noexcept = default;
ServiceManager& ServiceManager::operator=(ServiceManager&&) noexcept = default;
ServiceManager::~ServiceManager() = default;

bool ServiceManager::IsPresent() const { return false; }
std::optional<Milliseconds> ServiceManager::WatchdogPeriod() const { return {}; }
bool ServiceManager::Send(const std::string&) { return false; }

bool StandardErrorIsJournal() { return false; }

}  // namespace kinetrel
