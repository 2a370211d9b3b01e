// The Liberty device library as the driver uses it: the connection, its serial settings, the list
// of items in a record, and the errors of the tracker's built-in test.
//
// These are thin classes over the table of functions in vendor/pdi_table.h. The first call that
// needs the library loads it; it stays loaded as long as the object lives. Without the library
// every call fails, until UseTracker puts a tracker of ours in the library's place.
//
// Threads  one at a time.
// Memory   CnxReady and LastPnoPtr allocate nothing once the library is loaded.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "drivers/liberty_line.h"
#include "platform/dynamic_library.h"
#include "vendor/pdi_table.h"

namespace kinetrel {

// The serial port at which the library looks for the tracker.
class CPDIser {
 public:
  CPDIser(int baudCode, int parityCode, int port)
      : baudCode_(baudCode), parityCode_(parityCode), port_(port) {}

  void SetPort(int port) { port_ = port; }
  int GetPort() const { return port_; }
  void SetBaudRate(int code) { baudCode_ = code; }
  int GetBaudRate() const { return baudCode_; }
  int parityCode() const { return parityCode_; }

 private:
  int baudCode_;
  int parityCode_;
  int port_;
};

// The items of a record, in order.
class CPDImdat {
 public:
  static constexpr int kMostItems = 20;

  void Empty() { count_ = 0; }
  bool Append(std::int32_t code);  // false: the list is full
  int NumItems() const { return count_; }
  std::int32_t ItemAt(int index) const;  // -1 for an index outside the list
  const std::int32_t* items() const { return items_.data(); }

 private:
  std::array<std::int32_t, kMostItems> items_{};
  int count_ = 0;
};

// The errors that the built-in test found.
class CPDIbiterr {
 public:
  static constexpr std::size_t kMostWords = 32;

  // Describes the errors in `text`, in at most `size` characters including the final 0.
  void Parse(char* text, int size) const;
  bool IsClear() const;

 private:
  friend class CPDIdev;
  std::array<std::uint32_t, kMostWords> words_{};
  std::int32_t count_ = 0;
  const PdiTable* table_ = nullptr;
};

// The tracker. The results are the library's: nonzero for success.
class CPDIdev {
 public:
  CPDIdev();
  ~CPDIdev();
  CPDIdev(const CPDIdev&) = delete;
  CPDIdev& operator=(const CPDIdev&) = delete;

  bool HasLibrary();            // loads it at the first call; prints nothing
  bool IsLibraryChosen();       // it is there, or the environment names a file for it
  void ReportMissingLibrary();  // once

  // From now on the calls go to `tracker`, on USB; null: to the library again.
  void UseTracker(std::unique_ptr<LibertyTracker> tracker);
  bool IsOnUsb() const { return own_ != nullptr; }

  int CnxReady();
  int SetSerialIF(const CPDIser& serial);
  int DiscoverCnx();  // 0 USB, 1 serial, any other a failure
  int Disconnect();

  int SetSDataList(int station, const CPDImdat& list);
  int GetStationMap(std::uint32_t& map);
  int SetStationMap(std::uint32_t map);
  int MaxSensors();
  int StartContPno();
  int StopContPno();
  int RequestPno();  // 0 also when the library has no such function
  int LastPnoPtr(const std::uint8_t*& frame, std::uint32_t& size);
  int NextRecordPtr(const std::uint8_t*& record, std::uint32_t& size);  // 0 also when it has none
  bool CanAwaitRecords();
  int AwaitRecord(int milliseconds);

  int SetFrameRate(int code);
  int GetFrameRate(int& code);
  int SetMetric(int on);
  int SetSyncEnabled(int on);
  int SetSAlignment(int station, const float origin[3], const float xAxis[3], const float yAxis[3]);
  int SetSHemisphere(int station, const float zenith[3]);
  int SetSHemiTrack(int station);

  int GetBITErrs(CPDIbiterr& errors);
  int ClearBITErrs();

  const char* GetLastResultStr();  // never null; valid until the next call

 private:
  bool IsReady();  // loads the library at the first call
  bool HasSecondVersion();
  void Load();

  // Calls the table's function for our device; returns 0 without a library or such a function.
  template <typename... Parameters, typename... Arguments>
  int Call(std::int32_t (*PdiTable::*function)(PdiDevice*, Parameters...), Arguments... arguments) {
    if (!IsReady() || table_->*function == nullptr) return 0;
    return (table_->*function)(device_, arguments...);
  }

  std::optional<DynamicLibrary> library_;
  const PdiTable* libraryTable_ = nullptr;
  PdiDevice* libraryDevice_ = nullptr;
  bool tried_ = false;  // a library that cannot be loaded is looked for only once
  std::string why_;     // it cannot be used
  bool reported_ = false;
  std::unique_ptr<PdiDevice> own_;  // the tracker on USB

  // Where the calls go: the library's, or our own.
  const PdiTable* table_ = nullptr;
  PdiDevice* device_ = nullptr;
};

}  // namespace kinetrel
