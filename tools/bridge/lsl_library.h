// The library of the Lab Streaming Layer (LSL), loaded at run time: the part of its C interface
// that an outlet needs. Source: its public headers.
//
// The library has threads of its own, reads a configuration file and listens on all interfaces.
#pragma once

#include <cstdint>
#include <string>

namespace kinetrel::bridge {

struct LslInfo;    // of the library
struct LslOutlet;  // of the library
struct LslXml;     // of the library

enum class LslFormat : std::int32_t { Float32 = 1, Text = 3 };

// The library's functions. Creation returns null on failure; a push returns 0 on success.
struct LslCalls {
  LslInfo* (*createInfo)(const char* name, const char* type, std::int32_t channels, double rate,
                         LslFormat format, const char* sourceId) = nullptr;
  void (*destroyInfo)(LslInfo* info) = nullptr;
  LslXml* (*description)(LslInfo* info) = nullptr;
  LslXml* (*appendChild)(LslXml* parent, const char* name) = nullptr;  // returns the child
  LslXml* (*appendValue)(LslXml* parent, const char* name,
                         const char* value) = nullptr;  // returns the parent
  // It copies the info. maxBuffered  s for each inlet; of a stream without a rate, 100 samples.
  LslOutlet* (*createOutlet)(LslInfo* info, std::int32_t chunkSize,
                             std::int32_t maxBuffered) = nullptr;
  void (*destroyOutlet)(LslOutlet* outlet) = nullptr;
  // stamp  s of localClock.
  std::int32_t (*pushFloats)(LslOutlet* outlet, const float* values, double stamp,
                             std::int32_t sendNow) = nullptr;
  std::int32_t (*pushTexts)(LslOutlet* outlet, const char** values, double stamp,
                            std::int32_t sendNow) = nullptr;
  std::int32_t (*haveConsumers)(LslOutlet* outlet) = nullptr;
  double (*localClock)() = nullptr;            // s, of an origin that only the library knows
  std::int32_t (*libraryVersion)() = nullptr;  // 100 x major + minor
};

// The library, loaded by the first call and never unloaded, since its threads go on. The files
// that the environment variables KINETREL_LSL and PYLSL_LIB name are tried first.
//
// complaint  receives why, with all names that were tried, when the result is null.
// Threads    one at a time.
const LslCalls* LoadLsl(std::string& complaint);

// How the clock of the library differs from kinetrel_now_ns().
class LslClock {
 public:
  explicit LslClock(const LslCalls& calls) : calls_(calls) { Measure(); }

  // The stamp, in s, of a time of kinetrel_now_ns(). Measures again when a minute has passed.
  double StampOf(std::int64_t timeNs, std::int64_t nowNs);

 private:
  void Measure();

  const LslCalls& calls_;
  double offset_ = 0;  // s
  std::int64_t measuredNs_ = 0;
};

}  // namespace kinetrel::bridge
