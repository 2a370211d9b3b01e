#include "engine/control_call.h"

namespace kinetrel {

ControlCall::ControlCall(EngineState& state, const char* name)
    : state_(state), name_(name), pending_(state.pendingCalls), lock_(state.mutex) {}

// Not checked: whether the locks are held shows at run time.
ControlCall::~ControlCall() NO_THREAD_SAFETY_ANALYSIS {
  if (usesFilters_) {
    state_.filters.Changed();
    state_.filters.mutex.unlock();
  }
  if (used_ != nullptr) used_->inUse().unlock();
}

bool ControlCall::Refuse(const char* reason, StatusCode code) {
  state_.status.SetStatusF(code, "%s: %s", name_, reason);
  return false;
}

bool ControlCall::IsOpen() { return state_.isOpen || Refuse("MTS Not Open"); }

bool ControlCall::IsGiven(const void* pointer, const char* argument) {
  if (pointer != nullptr) return true;
  state_.status.SetStatusF(StatusCode::Refused, "%s: %s is NULL", name_, argument);
  return false;
}

// Not checked: the device stays locked until the destructor, and which device it is shows at run
// time.
bool ControlCall::UseDevice() NO_THREAD_SAFETY_ANALYSIS {
  if (used_ != nullptr) return true;
  if (!state_.device->inUse().LockWithin(kDevicePatience)) {
    return Refuse("the device does not answer");
  }
  used_ = state_.device;
  return true;
}

Mapping* ControlCall::FindMapping(const int key[3]) {
  if (!IsGiven(key, "key")) return nullptr;
  lock_.AssertHolds(state_.mutex);
  const auto entry = state_.mappings.find(KeyFrom(key));
  if (entry != state_.mappings.end()) return &entry->second;
  state_.status.SetStatusF(StatusCode::Refused, "%s: Mapping (%d,%d,%d) doesn't exist", name_,
                           key[0], key[1], key[2]);
  return nullptr;
}

// Not checked: the filters stay locked until the destructor.
FilterChain& ControlCall::UseFilters(const int key[3]) NO_THREAD_SAFETY_ANALYSIS {
  if (!usesFilters_) state_.filters.mutex.lock();
  usesFilters_ = true;
  return state_.filters.ChainOf(KeyFrom(key));
}

FilterChain* ControlCall::FindFilters(const int key[3]) {
  return FindMapping(key) != nullptr ? &UseFilters(key) : nullptr;
}

Filter* ControlCall::FindFilter(const int key[3], int index) {
  FilterChain* const filters = FindFilters(key);
  if (filters == nullptr) return nullptr;
  Filter* const filter = filters->GetFilter(index);
  if (filter == nullptr) {
    state_.status.SetStatusF(StatusCode::Refused, "%s: Filter %d doesn't exist", name_, index);
  }
  return filter;
}

}  // namespace kinetrel
