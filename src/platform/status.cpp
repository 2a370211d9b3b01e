#include "platform/status.h"

#include <system_error>

namespace kinetrel {
namespace {

const char* Word(Error error) {
  switch (error) {
    case Error::None:
      return "done";
    case Error::NotFound:
      return "not found";
    case Error::Denied:
      return "permission denied";
    case Error::Busy:
      return "in use by another program";
    case Error::NoSpace:
      return "no space left";
    case Error::TimedOut:
      return "timed out";
    case Error::Closed:
      return "closed";
    case Error::Invalid:
      return "not what it should be";
    case Error::Unsupported:
      return "not supported";
    case Error::Failed:
      return "failed";
  }
  return "failed";
}

}  // namespace

std::string Describe(const Status& status) {
  std::string text = status.what;
  if (!text.empty()) text += ": ";
  text += Word(status.error);
  if (status.osCode != 0) {
    text += " (" + std::system_category().message(status.osCode) + ", " +
            std::to_string(status.osCode) + ")";
  }
  return text;
}

}  // namespace kinetrel
