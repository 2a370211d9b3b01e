#include "drivers/liberty_pdi.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <utility>

#include "drivers/liberty_table.h"
#include "platform/console.h"

namespace kinetrel {
namespace {

constexpr char kLibraryName[] = "pdi.dll";
constexpr char kNotLoaded[] = "the device library is not loaded";

// The part of the table that each version has.
constexpr std::uint32_t SizeOfTable(std::uint32_t version) {
  return version == kPdiFirstVersion ? offsetof(PdiTable, nextRecordPtr) : sizeof(PdiTable);
}

// Null, and the reason in `why`, for a library without a version of the table that we know.
const PdiTable* TableOf(const DynamicLibrary& library, std::string& why) {
  DynamicLibrary::AnyFunction found = nullptr;
  if (!library.Find(kPdiTableFunction, found).Ok()) {
    why = std::string("it exports no ") + kPdiTableFunction;
    return nullptr;
  }
  const auto function = reinterpret_cast<PdiTableFunction>(found);
  for (std::uint32_t version = kPdiTableVersion; version >= kPdiFirstVersion; --version) {
    const PdiTable* const table = function(version);
    if (table == nullptr || table->version < version) continue;
    if (table->size >= SizeOfTable(version)) return table;
  }
  why = "it has no table of version " + std::to_string(kPdiTableVersion);
  return nullptr;
}

}  // namespace

// ---- List of items -------------------------------------------------------------------------

bool CPDImdat::Append(std::int32_t code) {
  if (count_ == kMostItems) return false;
  items_[static_cast<std::size_t>(count_++)] = code;
  return true;
}

std::int32_t CPDImdat::ItemAt(int index) const {
  return index >= 0 && index < count_ ? items_[static_cast<std::size_t>(index)] : -1;
}

// ---- Built-in test -------------------------------------------------------------------------

void CPDIbiterr::Parse(char* text, int size) const {
  if (text == nullptr || size < 1) return;
  text[0] = '\0';
  if (table_ == nullptr || table_->describeBITErrs == nullptr) return;
  table_->describeBITErrs(words_.data(), count_, text, size);
  text[size - 1] = '\0';
}

bool CPDIbiterr::IsClear() const {
  return std::all_of(words_.begin(), words_.begin() + count_, [](auto word) { return word == 0; });
}

// ---- Loading -------------------------------------------------------------------------------

CPDIdev::CPDIdev() = default;

CPDIdev::~CPDIdev() {
  if (libraryDevice_ != nullptr && libraryTable_->destroyDevice != nullptr) {
    libraryTable_->destroyDevice(libraryDevice_);
  }
}

bool CPDIdev::IsReady() {
  if (own_ == nullptr) HasLibrary();
  return device_ != nullptr;
}

bool CPDIdev::HasLibrary() {
  if (!tried_) Load();
  return libraryDevice_ != nullptr;
}

bool CPDIdev::IsLibraryChosen() { return HasLibrary() || DynamicLibrary::IsChosen(kLibraryName); }

void CPDIdev::Load() {
  tried_ = true;
  Result<DynamicLibrary> loaded = DynamicLibrary::Load(kLibraryName, &why_);
  if (!loaded.Ok()) {
    why_ = "cannot be loaded (" + why_ + ")";
    return;
  }
  const PdiTable* const table = TableOf(*loaded, why_);
  if (table == nullptr) {
    why_ = "cannot be used (" + why_ + ")";
    return;
  }
  library_ = std::move(*loaded);
  libraryTable_ = table_ = table;
  if (table->createDevice != nullptr) libraryDevice_ = device_ = table->createDevice();
  if (device_ == nullptr) why_ = "cannot be used (it creates no device)";
}

void CPDIdev::ReportMissingLibrary() {
  if (HasLibrary() || own_ != nullptr || std::exchange(reported_, true)) return;
  PrintError(
      "\nThe Liberty device library %s %s.\n"
      "KINETREL_PDI may name the file to load.\n",
      kLibraryName, why_.c_str());
}

void CPDIdev::UseTracker(std::unique_ptr<LibertyTracker> tracker) {
  own_.reset();
  table_ = libraryTable_;
  device_ = libraryDevice_;
  if (tracker == nullptr) return;
  own_ = std::make_unique<PdiDevice>();
  own_->tracker = std::move(tracker);
  own_->kind = PdiConnection::Usb;
  table_ = &TrackerTable();
  device_ = own_.get();
}

// ---- Calls ---------------------------------------------------------------------------------

int CPDIdev::CnxReady() { return Call(&PdiTable::cnxReady); }

int CPDIdev::SetSerialIF(const CPDIser& serial) {
  return Call(&PdiTable::setSerialIF, serial.GetPort(), serial.GetBaudRate(), serial.parityCode());
}

int CPDIdev::DiscoverCnx() {
  if (!IsReady() || table_->discoverCnx == nullptr) return static_cast<int>(PdiConnection::None);
  return table_->discoverCnx(device_);
}

int CPDIdev::Disconnect() {
  // Disconnecting is no reason to load the library.
  return device_ != nullptr ? Call(&PdiTable::disconnect) : 0;
}

int CPDIdev::SetSDataList(int station, const CPDImdat& list) {
  return Call(&PdiTable::setSDataList, station, list.items(), list.NumItems());
}

int CPDIdev::GetStationMap(std::uint32_t& map) { return Call(&PdiTable::getStationMap, &map); }
int CPDIdev::SetStationMap(std::uint32_t map) { return Call(&PdiTable::setStationMap, map); }
int CPDIdev::MaxSensors() { return Call(&PdiTable::maxSensors); }
int CPDIdev::StartContPno() { return Call(&PdiTable::startContPno); }
int CPDIdev::StopContPno() { return Call(&PdiTable::stopContPno); }
int CPDIdev::RequestPno() { return Call(&PdiTable::requestPno); }

int CPDIdev::LastPnoPtr(const std::uint8_t*& frame, std::uint32_t& size) {
  return Call(&PdiTable::lastPnoPtr, &frame, &size);
}

int CPDIdev::NextRecordPtr(const std::uint8_t*& record, std::uint32_t& size) {
  return HasSecondVersion() ? Call(&PdiTable::nextRecordPtr, &record, &size) : 0;
}

bool CPDIdev::HasSecondVersion() {
  return IsReady() && table_->size >= SizeOfTable(kPdiTableVersion);
}

bool CPDIdev::CanAwaitRecords() { return HasSecondVersion() && table_->awaitRecord != nullptr; }

int CPDIdev::AwaitRecord(int milliseconds) {
  return CanAwaitRecords() ? table_->awaitRecord(device_, milliseconds) : 0;
}

int CPDIdev::SetFrameRate(int code) { return Call(&PdiTable::setFrameRate, code); }
int CPDIdev::GetFrameRate(int& code) { return Call(&PdiTable::getFrameRate, &code); }
int CPDIdev::SetMetric(int on) { return Call(&PdiTable::setMetric, on); }
int CPDIdev::SetSyncEnabled(int on) { return Call(&PdiTable::setSyncEnabled, on); }

int CPDIdev::SetSAlignment(int station, const float origin[3], const float xAxis[3],
                           const float yAxis[3]) {
  return Call(&PdiTable::setSAlignment, station, origin, xAxis, yAxis);
}

int CPDIdev::SetSHemisphere(int station, const float zenith[3]) {
  return Call(&PdiTable::setSHemisphere, station, zenith);
}

int CPDIdev::SetSHemiTrack(int station) { return Call(&PdiTable::setSHemiTrack, station); }

int CPDIdev::GetBITErrs(CPDIbiterr& errors) {
  errors.count_ = 0;
  const int result = Call(&PdiTable::getBITErrs, errors.words_.data(),
                          static_cast<std::int32_t>(CPDIbiterr::kMostWords), &errors.count_);
  errors.table_ = table_;
  errors.count_ = std::clamp(errors.count_, 0, static_cast<std::int32_t>(CPDIbiterr::kMostWords));
  return result;
}

int CPDIdev::ClearBITErrs() { return Call(&PdiTable::clearBITErrs); }

const char* CPDIdev::GetLastResultStr() {
  const char* text = nullptr;
  if (device_ != nullptr && table_->lastResultText != nullptr) {
    text = table_->lastResultText(device_);
  }
  return text != nullptr ? text : kNotLoaded;
}

}  // namespace kinetrel
