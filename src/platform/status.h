// How an operation on the operating system ended.
//
// A Status is three words and never allocates, so the sampling thread may return one. The
// mapping from the system's own codes is one table per system (posix/os.h, win32/os.h); a code that
// the table does not name becomes Error::Failed and keeps its number.
#pragma once

#include <optional>
#include <string>
#include <utility>

namespace kinetrel {

enum class Error {
  None,         // done
  NotFound,     // no object, device or file of that name
  Denied,       // this account may not
  Busy,         // another user holds it
  NoSpace,      // the system's memory or limit is used up
  TimedOut,     // the deadline passed
  Closed,       // the far end or the object is gone
  Invalid,      // the object exists but is not of the expected kind
  Unsupported,  // the system or device has no such ability
  Failed,       // anything else; see osCode
};

struct [[nodiscard]] Status {
  Error error = Error::None;
  int osCode = 0;         // the system's own code; 0: the system gave none
  const char* what = "";  // what was being done, a text that is never freed

  bool Ok() const { return error == Error::None; }
};

// One line for people: what was being done, why it failed, and the system's number. Allocates.
std::string Describe(const Status& status);

// A value, or the Status that says why it is missing.
template <typename T>
class [[nodiscard]] Result {
 public:
  Result(T value) : value_(std::move(value)) {}  // NOLINT: a value is a result
  Result(Status failure) : status_(failure) {}   // NOLINT: a failure is a result

  bool Ok() const { return value_.has_value(); }
  const Status& status() const { return status_; }
  T& value() { return *value_; }
  const T& value() const { return *value_; }
  T& operator*() { return *value_; }
  const T& operator*() const { return *value_; }
  T* operator->() { return &*value_; }
  const T* operator->() const { return &*value_; }

 private:
  std::optional<T> value_;
  Status status_;
};

}  // namespace kinetrel
