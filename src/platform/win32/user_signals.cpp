#include "platform/user_signals.h"

namespace kinetrel {

// The system has no such signals.
struct UserSignals::Os {};

UserSignals::UserSignals() = default;
UserSignals::~UserSignals() = default;

std::optional<UserSignal> UserSignals::Take() { return std::nullopt; }

}  // namespace kinetrel
