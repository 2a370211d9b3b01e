#include "bridge/lsl_library.h"

#include <kinetrel/stream.h>

#include <cstdlib>
#include <limits>
#include <optional>
#include <vector>

#include "platform/dynamic_library.h"

namespace kinetrel::bridge {
namespace {

constexpr std::int64_t kMinuteNs = 60'000'000'000;

// Today's name, which also stands for the file in KINETREL_LSL; then the names of releases before
// 1.14, and the full name of today's, which systems without the short link have.
constexpr const char* kNames[] = {"lsl", "liblsl.so.2", "liblsl64.so", "liblsl64.dll",
                                  "liblsl.dll"};

// The variable `name`; empty: not set.
std::string Variable(const char* name) {
  const char* const value = std::getenv(name);
  return value != nullptr ? value : "";
}

// A file that the user names is the only one, so that a mistake in the name shows.
std::vector<std::string> Candidates() {
  if (!Variable("KINETREL_LSL").empty()) return {kNames[0]};
  const std::string ofPython = Variable("PYLSL_LIB");  // of the library's Python package
  if (!ofPython.empty()) return {ofPython};
  return {std::begin(kNames), std::end(kNames)};
}

template <typename Function>
bool Bind(const DynamicLibrary& library, const char* name, Function& function) {
  DynamicLibrary::AnyFunction found = nullptr;
  (void)library.Find(name, found);
  function = reinterpret_cast<Function>(found);
  return function != nullptr;
}

// Returns the first function that the library lacks; empty if it has all.
std::string BindAll(const DynamicLibrary& library, LslCalls& calls) {
  std::string missing;
  const auto bind = [&](const char* name, auto& function) {
    if (!Bind(library, name, function) && missing.empty()) missing = name;
  };
  bind("lsl_create_streaminfo", calls.createInfo);
  bind("lsl_destroy_streaminfo", calls.destroyInfo);
  bind("lsl_get_desc", calls.description);
  bind("lsl_append_child", calls.appendChild);
  bind("lsl_append_child_value", calls.appendValue);
  bind("lsl_create_outlet", calls.createOutlet);
  bind("lsl_destroy_outlet", calls.destroyOutlet);
  bind("lsl_push_sample_ftp", calls.pushFloats);
  bind("lsl_push_sample_strtp", calls.pushTexts);
  bind("lsl_have_consumers", calls.haveConsumers);
  bind("lsl_local_clock", calls.localClock);
  bind("lsl_library_version", calls.libraryVersion);
  return missing;
}

double Seconds(std::int64_t ns) { return static_cast<double>(ns) * 1e-9; }

}  // namespace

const LslCalls* LoadLsl(std::string& complaint) {
  // One for the process: the library's threads outlive every outlet.
  static LslCalls calls;  // NOLINT(cppcoreguidelines-avoid-non-const-global-variables)
  static std::optional<DynamicLibrary> loaded;
  if (loaded.has_value()) return &calls;
  std::string tried;
  std::string firstReason;
  for (const std::string& name : Candidates()) {
    std::string why;
    Result<DynamicLibrary> library = DynamicLibrary::Load(name, &why);
    tried.append(tried.empty() ? "" : ", ").append(name);
    if (!library.Ok()) {
      if (firstReason.empty()) firstReason = why;
      continue;
    }
    const std::string missing = BindAll(library.value(), calls);
    if (!missing.empty()) {
      complaint.assign("liblsl (").append(name).append(") lacks the function ").append(missing);
      return nullptr;
    }
    loaded.emplace(std::move(library.value()));
    return &calls;
  }
  complaint = "liblsl cannot be loaded (" + firstReason + "); tried " + tried +
              ". Install it, or name its file in the environment variable KINETREL_LSL.";
  return nullptr;
}

double LslClock::StampOf(std::int64_t timeNs, std::int64_t nowNs) {
  if (nowNs - measuredNs_ > kMinuteNs) Measure();
  return Seconds(timeNs) + offset_;
}

// The library's clock is read between two readings of ours; the closest pair of several tells most.
void LslClock::Measure() {
  std::int64_t closest = std::numeric_limits<std::int64_t>::max();
  for (int i = 0; i < 10; ++i) {
    const std::int64_t before = kinetrel_now_ns();
    const double theirs = calls_.localClock();
    const std::int64_t after = kinetrel_now_ns();
    if (after - before >= closest) continue;
    closest = after - before;
    offset_ = theirs - Seconds(before) - Seconds(closest) / 2;
    measuredNs_ = after;
  }
}

}  // namespace kinetrel::bridge
