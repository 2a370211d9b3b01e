// The interface of a Liberty device library: one exported function that returns a table of
// functions.
//
// The driver loads the library ("pdi.dll", on Linux libpdi.so, or the file that the environment
// variable KINETREL_PDI names) and calls its kinetrel_pdi_table to get this table. To use the
// vendor's C++ library, write a small adapter: a shared library that exports this one function and
// whose table calls the vendor's classes. Kinetrel's own src/vendor/pdi_library.cpp is an example.
//
// Results  an int32_t is nonzero for success unless its line says otherwise. The driver may repeat
//          a call that failed. No call may throw.
// Threads  the driver makes one call at a time, from any thread.
// Memory   the library owns what a call returns; it stays valid until the next call for the device.
#pragma once

#include <cstdint>

namespace kinetrel {

// Grows when a function is added at the end. A library returns null for a version that it does not
// have. A function that is in the table never changes its meaning.
inline constexpr std::uint32_t kPdiTableVersion = 2;
inline constexpr std::uint32_t kPdiFirstVersion = 1;

struct PdiDevice;  // one tracker, connected or not; the library defines it

// The results of discoverCnx: how the tracker is connected.
enum class PdiConnection : std::int32_t { None = -1, Usb = 0, Serial = 1 };

struct PdiTable {
  std::uint32_t version;  // of those below
  std::uint32_t size;     // of this table, in bytes

  PdiDevice* (*createDevice)();  // not connected yet; null: no memory
  void (*destroyDevice)(PdiDevice* device);

  // ---- Connection ----------------------------------------------------------------------------

  std::int32_t (*cnxReady)(PdiDevice* device);  // nonzero: a tracker is connected

  // The serial port that discoverCnx tries. port: the n of COMn. baudCode: 0 to 7 for 1200, 2400,
  // 4800, 9600, 19200, 38400, 57600, 115200. parityCode: 0 for none.
  std::int32_t (*setSerialIF)(PdiDevice* device, std::int32_t port, std::int32_t baudCode,
                              std::int32_t parityCode);

  // Looks for the tracker, for a few seconds at most. Returns a PdiConnection; any number except 0
  // and 1 is a failure.
  std::int32_t (*discoverCnx)(PdiDevice* device);
  std::int32_t (*disconnect)(PdiDevice* device);

  // ---- What it sends -------------------------------------------------------------------------

  // The items of a record, in order: 2 and 3 position, 4 and 5 angles, 6 direction cosines,
  // 7 quaternion, 8 time stamp, 9 frame count, 10 to 12 flags. station: from 1, -1 for all.
  std::int32_t (*setSDataList)(PdiDevice* device, std::int32_t station, const std::int32_t* items,
                               std::int32_t count);
  std::int32_t (*getStationMap)(PdiDevice* device, std::uint32_t* map);  // bit i: station i + 1
  std::int32_t (*setStationMap)(PdiDevice* device, std::uint32_t map);
  std::int32_t (*maxSensors)(
      PdiDevice* device);  // the number of stations that the tracker can have

  // From now on the tracker sends a frame every cycle, until stopContPno.
  std::int32_t (*startContPno)(PdiDevice* device);
  std::int32_t (*stopContPno)(PdiDevice* device);

  // Asks for one frame while the tracker does not stream. Does not wait for the frame. Null when
  // the library cannot do this.
  std::int32_t (*requestPno)(PdiDevice* device);

  // Returns a frame: one record per station that delivered, in the order of their numbers. A record
  // is an 8-byte header, whose third byte is the station, and the items, little-endian. Without a
  // new frame the last one is returned again. Does not wait and allocates nothing. A library may
  // keep frames back and return one per call, so that a late caller misses none.
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

  // Stores at most `room` words of the built-in test and their number in `count`. 0 is good.
  std::int32_t (*getBITErrs)(PdiDevice* device, std::uint32_t* words, std::int32_t room,
                             std::int32_t* count);
  std::int32_t (*clearBITErrs)(PdiDevice* device);

  // Describes such words for a person, in at most `size` characters including the final 0.
  void (*describeBITErrs)(const std::uint32_t* words, std::int32_t count, char* text,
                          std::int32_t size);

  // Describes the result of the last call for a person; never null.
  const char* (*lastResultText)(PdiDevice* device);

  // ---- Version 2 -----------------------------------------------------------------------------

  // Returns the next record of the frame that lastPnoPtr returns next, as soon as the record has
  // come; each record once. 0 when none has come. Null when the library knows whole frames only.
  std::int32_t (*nextRecordPtr)(PdiDevice* device, const std::uint8_t** record,
                                std::uint32_t* size);

  // Waits until a record may have come, at most that many milliseconds. 0 when none has. Null when
  // the library cannot wait; the driver then looks every millisecond.
  std::int32_t (*awaitRecord)(PdiDevice* device, std::int32_t milliseconds);
};

// The name of the library's one exported function.
inline constexpr char kPdiTableFunction[] = "kinetrel_pdi_table";
using PdiTableFunction = const PdiTable* (*)(std::uint32_t version);

}  // namespace kinetrel
