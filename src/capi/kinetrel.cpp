#include <kinetrel/kinetrel.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <utility>

#include "app/command_line.h"
#include "devices/bounded_text.h"
#include "drivers/driver_table.h"
#include "engine/tracker_engine.h"
#include "platform/console.h"
#include "platform/signals.h"

struct kinetrel_engine {
  kinetrel::TrackerEngine engine{kinetrel::AllDrivers()};
};

namespace {

using kinetrel::AttributeInfo;
using kinetrel::TrackerEngine;

// Runs `call` on the engine behind a handle. An exception becomes a refusal. A host whose output is
// closed does not end by a signal.
template <typename Handle, typename Call>
int Guarded(Handle* handle, Call call) noexcept {
  if (handle == nullptr) return 0;
  const kinetrel::BrokenPipeGuard guard;
  try {
    return call(handle->engine) ? 1 : 0;
  } catch (...) {
    return 0;
  }
}

kinetrel_open_result Opened(kinetrel_engine* handle, int type, int port, bool reset) noexcept {
  if (handle == nullptr) return kinetrel_no_engine;
  const kinetrel::BrokenPipeGuard guard;
  try {
    return static_cast<kinetrel_open_result>(handle->engine.Open(type, port, reset));
  } catch (...) {
    return kinetrel_no_engine;
  }
}

static_assert(sizeof(kinetrel_attribute) == sizeof(AttributeInfo));
constexpr int kMostRows = 64;  // more than any table has

// Lets `get` fill rows of the engine's own kind and copies them to the host's.
template <typename Get>
bool CopyRows(int count, kinetrel_attribute* rows, Get get) {
  if (rows == nullptr) return get(count, static_cast<AttributeInfo*>(nullptr));
  std::array<AttributeInfo, kMostRows> own;
  for (AttributeInfo& row : own) row.id = -1;
  if (!get(std::min(count, kMostRows), own.data())) return false;
  const auto end = std::find_if(own.begin(), own.end(), [](const auto& row) { return row.id < 0; });
  std::memcpy(rows, own.data(),
              sizeof(AttributeInfo) * static_cast<std::size_t>(end - own.begin()));
  return true;
}

}  // namespace

extern "C" {

// ---- Life ------------------------------------------------------------------------------------

kinetrel_engine* kinetrel_create(void) {
  try {
    return new kinetrel_engine;
  } catch (...) {
    return nullptr;
  }
}

void kinetrel_destroy(kinetrel_engine* engine) {
  const kinetrel::BrokenPipeGuard guard;
  delete engine;
}

void kinetrel_set_printing(int on) { kinetrel::SwitchPrinting(on != 0); }

int kinetrel_set_options(kinetrel_engine* engine, int count, const char* const* arguments) {
  return Guarded(engine, [&](TrackerEngine& e) {
    if (arguments == nullptr) return false;
    kinetrel::StartConfig config = e.Configuration();
    if (e.IsOpen()) {
      (void)e.Configure(config);  // logs the refusal
      return false;
    }
    kinetrel::Settings settings;
    settings.start = std::move(config);
    std::string complaint;
    const bool accepted =
        kinetrel::ParseCommandLine(settings, kinetrel::Audience::Host, count, arguments, complaint);
    const bool configured = e.Configure(settings.start);  // options before a malformed one count
    if (!accepted) e.status().SetStatus(kinetrel::StatusCode::Refused, complaint.c_str());
    return configured && accepted;
  });
}

kinetrel_open_result kinetrel_open(kinetrel_engine* engine, int deviceType, int port, int reset) {
  return Opened(engine, deviceType, port, reset != 0);
}

kinetrel_open_result kinetrel_open_configured(kinetrel_engine* engine) {
  if (engine == nullptr) return kinetrel_no_engine;
  const kinetrel::StartConfig config = engine->engine.Configuration();
  return Opened(engine, config.deviceType, config.port, false);
}

int kinetrel_close(kinetrel_engine* engine) {
  return Guarded(engine, [](TrackerEngine& e) { return e.Close(); });
}

int kinetrel_is_open(const kinetrel_engine* engine) {
  return Guarded(engine, [](const TrackerEngine& e) { return e.IsOpen(); });
}

int kinetrel_start_sampling(kinetrel_engine* engine) {
  return Guarded(engine, [](TrackerEngine& e) { return e.StartSampling(); });
}

int kinetrel_stop_sampling(kinetrel_engine* engine, int wait) {
  return Guarded(engine, [&](TrackerEngine& e) { return e.StopSampling(wait != 0); });
}

int kinetrel_wait_sampling(const kinetrel_engine* engine, int timeoutMs) {
  return Guarded(engine, [&](const TrackerEngine& e) {
    return e.WaitSampling(kinetrel::Milliseconds(std::max(0, timeoutMs)));
  });
}

int kinetrel_zero_azimuth(kinetrel_engine* engine) {
  return Guarded(engine, [](TrackerEngine& e) { return e.ZeroAzimuth(); });
}

int kinetrel_restore_azimuth(kinetrel_engine* engine) {
  return Guarded(engine, [](TrackerEngine& e) { return e.RestoreAzimuth(); });
}

int kinetrel_set_shared_memory_device(kinetrel_engine* engine, int id) {
  return Guarded(engine, [&](TrackerEngine& e) { return e.SetSharedMemoryDevice(id); });
}

int kinetrel_reset_mappings(kinetrel_engine* engine) {
  return Guarded(engine, [](TrackerEngine& e) { return e.ResetMappings(); });
}

int kinetrel_add_default_mappings(kinetrel_engine* engine) {
  return Guarded(engine, [](TrackerEngine& e) { return e.AddDefaultMappings(); });
}

int kinetrel_status_text(kinetrel_engine* engine, int* code, int size, char* text) {
  return Guarded(engine, [&](TrackerEngine& e) {
    const kinetrel::StatusEntry newest = e.status().Newest();
    if (code != nullptr) *code = newest.code;
    kinetrel::CopyTruncated(text, size, newest.text.c_str());
    return true;
  });
}

// ---- Attributes ------------------------------------------------------------------------------

int kinetrel_get_num_available_attributes(kinetrel_engine* engine, int* count) {
  return Guarded(engine, [&](TrackerEngine& e) { return e.GetNumAvailableAttributes(count); });
}

int kinetrel_get_available_attributes(kinetrel_engine* engine, int count,
                                      kinetrel_attribute* rows) {
  return Guarded(engine, [&](TrackerEngine& e) {
    return CopyRows(count, rows,
                    [&](int n, AttributeInfo* to) { return e.GetAvailableAttributes(n, to); });
  });
}

int kinetrel_get_attribute_int(kinetrel_engine* engine, int id, int* value) {
  return Guarded(engine, [&](TrackerEngine& e) { return e.GetAttributeInt(id, value); });
}

int kinetrel_set_attribute_int(kinetrel_engine* engine, int id, int value) {
  return Guarded(engine, [&](TrackerEngine& e) { return e.SetAttributeInt(id, value); });
}

int kinetrel_get_attribute_floats(kinetrel_engine* engine, int id, int count, float* values) {
  return Guarded(engine,
                 [&](TrackerEngine& e) { return e.GetAttributeFloatArray(id, count, values); });
}

int kinetrel_set_attribute_floats(kinetrel_engine* engine, int id, int count, const float* values) {
  return Guarded(engine,
                 [&](TrackerEngine& e) { return e.SetAttributeFloatArray(id, count, values); });
}

int kinetrel_get_attribute_string(kinetrel_engine* engine, int id, int size, char* text) {
  return Guarded(engine, [&](TrackerEngine& e) { return e.GetAttributeString(id, size, text); });
}

int kinetrel_set_attribute_string(kinetrel_engine* engine, int id, const char* text) {
  return Guarded(engine, [&](TrackerEngine& e) { return e.SetAttributeString(id, text); });
}

// ---- Mappings --------------------------------------------------------------------------------

int kinetrel_get_mapping_size(kinetrel_engine* engine, int* count) {
  return Guarded(engine, [&](TrackerEngine& e) { return e.GetMappingSize(count); });
}

int kinetrel_get_mapping_list(kinetrel_engine* engine, int count, int* keys) {
  return Guarded(engine, [&](TrackerEngine& e) { return e.GetMappingList(count, keys); });
}

int kinetrel_get_mapping(kinetrel_engine* engine, const int key[3], int* sensor) {
  return Guarded(engine, [&](TrackerEngine& e) { return e.GetMapping(key, sensor); });
}

int kinetrel_set_mapping(kinetrel_engine* engine, const int key[3], int sensor) {
  return Guarded(engine, [&](TrackerEngine& e) { return e.SetMapping(key, sensor); });
}

// ---- Filters ---------------------------------------------------------------------------------

int kinetrel_add_filter(kinetrel_engine* engine, const int key[3], int type) {
  int index = -1;
  Guarded(engine, [&](TrackerEngine& e) {
    const int added = e.AddFilter(key, type);
    index = e.IsOpen() ? added : -1;
    return true;
  });
  return index;
}

int kinetrel_add_filter_named(kinetrel_engine* engine, const int key[3], const char* text) {
  int index = -1;
  Guarded(engine, [&](TrackerEngine& e) {
    index = e.AddFilterNamed(key, text);
    return true;
  });
  return index;
}

int kinetrel_clear_filters(kinetrel_engine* engine, const int key[3]) {
  return Guarded(engine, [&](TrackerEngine& e) { return e.ClearFilters(key); });
}

int kinetrel_clear_filter(kinetrel_engine* engine, const int key[3], int index) {
  return Guarded(engine, [&](TrackerEngine& e) { return e.ClearFilter(key, index); });
}

int kinetrel_get_num_filters(kinetrel_engine* engine, const int key[3], int* count) {
  return Guarded(engine, [&](TrackerEngine& e) { return e.GetNumFilters(key, count); });
}

int kinetrel_get_filter_type(kinetrel_engine* engine, const int key[3], int index, int* type) {
  return Guarded(engine, [&](TrackerEngine& e) { return e.GetFilterType(key, index, type); });
}

int kinetrel_move_filter(kinetrel_engine* engine, const int key[3], int index, int up) {
  return Guarded(engine, [&](TrackerEngine& e) { return e.MoveFilter(key, index, up != 0); });
}

int kinetrel_enable_filter(kinetrel_engine* engine, const int key[3], int index, int enable) {
  return Guarded(engine, [&](TrackerEngine& e) { return e.EnableFilter(key, index, enable != 0); });
}

int kinetrel_get_filter_enabled(kinetrel_engine* engine, const int key[3], int index,
                                int* enabled) {
  return Guarded(engine, [&](TrackerEngine& e) {
    bool on = false;
    if (!e.GetFilterEnabled(key, index, enabled != nullptr ? &on : nullptr)) return false;
    *enabled = on ? 1 : 0;
    return true;
  });
}

int kinetrel_set_filter_attribute_int(kinetrel_engine* engine, const int key[3], int index, int id,
                                      int value) {
  return Guarded(engine,
                 [&](TrackerEngine& e) { return e.SetFilterAttributeInt(key, index, id, value); });
}

int kinetrel_set_filter_attribute_double(kinetrel_engine* engine, const int key[3], int index,
                                         int id, double value) {
  return Guarded(
      engine, [&](TrackerEngine& e) { return e.SetFilterAttributeDouble(key, index, id, value); });
}

int kinetrel_set_filter_attribute_floats(kinetrel_engine* engine, const int key[3], int index,
                                         int id, int count, const float* values) {
  return Guarded(engine, [&](TrackerEngine& e) {
    return e.SetFilterAttributeFloatArray(key, index, id, count, values);
  });
}

int kinetrel_set_filter_attribute_string(kinetrel_engine* engine, const int key[3], int index,
                                         int id, const char* text) {
  return Guarded(
      engine, [&](TrackerEngine& e) { return e.SetFilterAttributeString(key, index, id, text); });
}

int kinetrel_get_filter_attribute_int(kinetrel_engine* engine, const int key[3], int index, int id,
                                      int* value) {
  return Guarded(engine,
                 [&](TrackerEngine& e) { return e.GetFilterAttributeInt(key, index, id, value); });
}

int kinetrel_get_filter_attribute_double(kinetrel_engine* engine, const int key[3], int index,
                                         int id, double* value) {
  return Guarded(
      engine, [&](TrackerEngine& e) { return e.GetFilterAttributeDouble(key, index, id, value); });
}

int kinetrel_get_filter_attribute_floats(kinetrel_engine* engine, const int key[3], int index,
                                         int id, int count, float* values) {
  return Guarded(engine, [&](TrackerEngine& e) {
    return e.GetFilterAttributeFloatArray(key, index, id, count, values);
  });
}

int kinetrel_get_filter_attribute_string(kinetrel_engine* engine, const int key[3], int index,
                                         int id, int size, char* text) {
  return Guarded(engine, [&](TrackerEngine& e) {
    return e.GetFilterAttributeString(key, index, id, size, text);
  });
}

int kinetrel_get_num_available_filter_attributes(kinetrel_engine* engine, const int key[3],
                                                 int index, int* count) {
  return Guarded(engine, [&](TrackerEngine& e) {
    return e.GetNumAvailableFilterAttributes(key, index, count);
  });
}

int kinetrel_get_available_filter_attributes(kinetrel_engine* engine, const int key[3], int index,
                                             int count, kinetrel_attribute* rows) {
  return Guarded(engine, [&](TrackerEngine& e) {
    return CopyRows(count, rows, [&](int n, AttributeInfo* to) {
      return e.GetAvailableFilterAttributes(key, index, n, to);
    });
  });
}

}  // extern "C"
