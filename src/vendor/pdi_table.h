// What a Liberty device library hands out: one table of functions, through one exported function.
//
// The driver loads the library ("pdi.dll", on Linux libpdi.so, or the file that the environment
// variable KINETREL_PDI names) and asks its kinetrel_pdi_table for this table. A vendor's C++
// library is wrapped by a small adapter: a shared library that exports that one function and whose
// table calls the vendor's classes. Kinetrel's own src/vendor/pdi_library.cpp is one more.
//
// Results  an int32_t is nonzero for success unless its line says otherwise. A call that failed may
//          be made again; none may throw.
// Threads  the caller makes one call at a time, from any thread.
// Memory   what a call hands out is the library's, and good until the next call for that device.
#pragma once

#include <cstdint>

namespace kinetrel {

// Grows when a function is added at the end; a library answers null for a version that it does not
// have. What is there never changes its meaning.
inline constexpr std::uint32_t kPdiTableVersion = 1;

struct PdiDevice;  // the library's own: one tracker, or the place of one

// How the tracker is reached; the results of discoverCnx.
enum class PdiConnection : std::int32_t { None = -1, Usb = 0, Serial = 1 };

struct PdiTable {
  std::uint32_t version;  // kPdiTableVersion
  std::uint32_t size;     // bytes of this table

  PdiDevice* (*createDevice)();  // null: no memory. Nothing is connected yet
  void (*destroyDevice)(PdiDevice* device);

  // ---- Connection ----------------------------------------------------------------------------

  std::int32_t (*cnxReady)(PdiDevice* device);  // nonzero: a tracker is connected

  // Which serial port discoverCnx tries. port: n of COMn. baudCode: 0 to 7 for 1200, 2400, 4800,
  // 9600, 19200, 38400, 57600, 115200. parityCode: 0 none.
  std::int32_t (*setSerialIF)(PdiDevice* device, std::int32_t port, std::int32_t baudCode,
                              std::int32_t parityCode);

  // Looks for the tracker, for some seconds at the most. A PdiConnection; any number but 0 and 1
  // is a failure.
  std::int32_t (*discoverCnx)(PdiDevice* device);
  std::int32_t (*disconnect)(PdiDevice* device);

  // ---- What it sends -------------------------------------------------------------------------

  // The items of a record, in order: 2 and 3 position, 4 and 5 angles, 6 direction cosines,
  // 7 quaternion, 8 time stamp, 9 frame count, 10 to 12 flags. station: from 1, -1 for all.
  std::int32_t (*setSDataList)(PdiDevice* device, std::int32_t station, const std::int32_t* items,
                               std::int32_t count);
  std::int32_t (*getStationMap)(PdiDevice* device, std::uint32_t* map);  // bit i: station i + 1
  std::int32_t (*setStationMap)(PdiDevice* device, std::uint32_t map);
  std::int32_t (*maxSensors)(PdiDevice* device);  // how many stations the tracker can have

  // From now on a frame comes by itself every cycle, until stopContPno.
  std::int32_t (*startContPno)(PdiDevice* device);
  std::int32_t (*stopContPno)(PdiDevice* device);

  // Asks for one frame while none come by themselves. Does not wait for it. May be null: the
  // library cannot.
  std::int32_t (*requestPno)(PdiDevice* device);

  // The frame: a record per active station in the order of their numbers, each 8 bytes of header
  // and the items, little-endian. Without a new one the last one again. Does not wait, allocates
  // nothing. A library may keep some frames back and hand them out one a call, so that a caller
  // that is late for once misses none.
  std::int32_t (*lastPnoPtr)(PdiDevice* device, const std::uint8_t** frame, std::uint32_t* size);

  // ---- Settings ------------------------------------------------------------------------------
  // station: from 1; -1 for all.

  std::int32_t (*setFrameRate)(PdiDevice* device, std::int32_t code);   // 3 120 Hz, 4 240 Hz
  std::int32_t (*getFrameRate)(PdiDevice* device, std::int32_t* code);  // 2 and 4 240 Hz
  std::int32_t (*setMetric)(PdiDevice* device, std::int32_t on);        // 0 inches, 1 centimetres
  std::int32_t (*setSyncEnabled)(PdiDevice* device, std::int32_t on);

  // Three points of three coordinates: the origin, one on the X axis, one on the Y axis.
  std::int32_t (*setSAlignment)(PdiDevice* device, std::int32_t station, const float* origin,
                                const float* xAxis, const float* yAxis);
  std::int32_t (*setSHemisphere)(PdiDevice* device, std::int32_t station, const float* zenith);
  std::int32_t (*setSHemiTrack)(PdiDevice* device, std::int32_t station);

  // ---- Its health ----------------------------------------------------------------------------

  // Words of the built-in test, 0 is good; `count` becomes how many of at most `room` were stored.
  std::int32_t (*getBITErrs)(PdiDevice* device, std::uint32_t* words, std::int32_t room,
                             std::int32_t* count);
  std::int32_t (*clearBITErrs)(PdiDevice* device);

  // What such words say, for a person: at most `size` characters with the 0 that ends them.
  void (*describeBITErrs)(const std::uint32_t* words, std::int32_t count, char* text,
                          std::int32_t size);

  // What the last call came to, for a person; never null.
  const char* (*lastResultText)(PdiDevice* device);
};

// The library's one export, under this name.
inline constexpr char kPdiTableFunction[] = "kinetrel_pdi_table";
using PdiTableFunction = const PdiTable* (*)(std::uint32_t version);

}  // namespace kinetrel
