#include "devices/polhemus_usb.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <vector>

namespace kinetrel {
namespace {

constexpr std::uint16_t kVendor = 0x0F44;

enum class Use {
  Ready,
  NeedsFirmware,  // it becomes another product when its firmware is loaded
  Unknown         // a tracker whose protocol Kinetrel does not speak
};

struct ProductRow {
  std::uint16_t product;
  Use use;
  PolhemusFamily family;
  const char* model;
  bool isPatriot;
  UsbPipes pipes;
};

// From the descriptors in the units' firmware; the endpoints of 0003 from programs that drive it.
// The records that unit 0002 sends by itself come through its interrupt endpoint.
constexpr auto kLiberty = PolhemusFamily::Liberty;
constexpr auto kFastrak = PolhemusFamily::Fastrak;
constexpr ProductRow kProducts[] = {
    {0xFF20, Use::Ready, kLiberty, "Polhemus Liberty", false, {0x04, 0x88, 0}},
    {0xFF12, Use::Ready, kLiberty, "Polhemus Liberty (older)", false, {0x02, 0x82, 0}},
    {0xEF20, Use::Ready, kLiberty, "Polhemus Patriot", true, {0x04, 0x88, 0}},
    {0xEF12, Use::Ready, kLiberty, "Polhemus Patriot (older)", true, {0x02, 0x82, 0}},
    {0x0003, Use::Ready, kFastrak, "Polhemus FASTRAK", false, {0x02, 0x84, 0}},
    {0x0002, Use::Ready, kFastrak, "Polhemus FASTRAK (older)", false, {0x02, 0x82, 0x84}},
    {0xFF21, Use::NeedsFirmware, kLiberty, "Polhemus Liberty", false, {}},
    {0xFF11, Use::NeedsFirmware, kLiberty, "Polhemus Liberty (older)", false, {}},
    {0xEF21, Use::NeedsFirmware, kLiberty, "Polhemus Patriot", true, {}},
    {0xEF11, Use::NeedsFirmware, kLiberty, "Polhemus Patriot (older)", true, {}},
    {0x0001, Use::NeedsFirmware, kFastrak, "Polhemus FASTRAK (older)", false, {}},
    {0xCF01, Use::Unknown, kLiberty, "Polhemus G4", false, {}},
    {0xBF01, Use::Unknown, kLiberty, "Polhemus Viper", false, {}},
};

constexpr std::string_view kScheme = "usb";

int TypeOf(PolhemusFamily family) { return family == kLiberty ? 10 : 2; }

const ProductRow* RowOf(const UsbDevice& device) {
  for (const ProductRow& row : kProducts) {
    if (device.vendor == kVendor && device.product == row.product) return &row;
  }
  return nullptr;
}

std::string NameOf(const UsbDevice& device) { return std::string(kScheme) + ":" + device.port; }

std::string IdsOf(std::uint16_t vendor, std::uint16_t product) {
  char text[16];
  std::snprintf(text, sizeof text, "%04x:%04x", vendor, product);
  return text;
}

std::string Described(const UsbDevice& device) {
  const ProductRow* const row = RowOf(device);
  const std::string ids = IdsOf(device.vendor, device.product);
  return NameOf(device) + " " + (row != nullptr ? std::string(row->model) + " " + ids : ids);
}

std::string LookedFor(PolhemusFamily family) {
  std::string text;
  for (const ProductRow& row : kProducts) {
    if (row.family != family || row.use != Use::Ready) continue;
    text += (text.empty() ? "" : ", ") + IdsOf(kVendor, row.product);
  }
  return text;
}

std::string List(const std::vector<UsbDevice>& devices) {
  constexpr std::size_t kMostListed = 12;
  std::string text;
  for (std::size_t i = 0; i < devices.size() && i < kMostListed; ++i) {
    text += (i == 0 ? "" : ", ") + Described(devices[i]);
  }
  return devices.size() > kMostListed ? text + " and others" : text;
}

// What a unit that cannot be used needs; empty when it has nothing to do with this family.
std::string AdviceFor(const UsbDevice& device, PolhemusFamily family) {
  const ProductRow* const row = RowOf(device);
  if (row == nullptr) return {};
  const std::string unit = NameOf(device) + " is a " + row->model;
  if (row->use == Use::Unknown) return unit + ", which Kinetrel does not support";
  if (row->family != family) {
    return unit + ", which is type " + std::to_string(TypeOf(row->family)) + " (-d)";
  }
  return unit +
         " that waits for its firmware: install the maker's USB tools for Linux, or load it "
         "with fxload";
}

std::string ExplainAbsence(PolhemusFamily family, const std::string& name,
                           const std::vector<UsbDevice>& devices) {
  std::string text = name + ": no usable unit; looked for " + LookedFor(family);
  for (const UsbDevice& device : devices) {
    if (name != kScheme && name != NameOf(device)) continue;
    if (RowOf(device) != nullptr && RowOf(device)->use == Use::Ready &&
        RowOf(device)->family == family) {
      continue;
    }
    const std::string advice = AdviceFor(device, family);
    if (!advice.empty()) text += "; " + advice;
  }
  if (devices.empty()) return text + "; no device is on USB";
  return text + "; on USB: " + List(devices);
}

Result<std::vector<UsbDevice>> ListInOrder() {
  auto devices = ListUsbDevices();
  if (devices.Ok()) std::ranges::sort(*devices, {}, &UsbDevice::port);
  return devices;
}

}  // namespace

bool IsUsbName(std::string_view name) {
  return name == kScheme || (name.starts_with(kScheme) && name.substr(kScheme.size(), 1) == ":");
}

Result<PolhemusUnit> OpenPolhemusUnit(PolhemusFamily family, const std::string& name,
                                      std::string& why, std::uint16_t product) {
  const Result<std::vector<UsbDevice>> devices = ListInOrder();
  if (!devices.Ok()) {
    why = name + ": " + UsbLine::ExplainFailure(devices.status());
    return devices.status();
  }
  std::vector<UsbDevice> fitting;
  for (const UsbDevice& device : *devices) {
    const ProductRow* const row = RowOf(device);
    const bool usable = row != nullptr && row->use == Use::Ready && row->family == family;
    if (usable && (name == kScheme || name == NameOf(device))) fitting.push_back(device);
  }
  if (fitting.empty()) {
    why = ExplainAbsence(family, name, *devices);
    return Status{Error::NotFound, 0, "find the tracker on USB"};
  }
  if (fitting.size() > 1) {
    why = "several trackers are on USB: " + List(fitting) + "; choose one with -p " +
          NameOf(fitting.front());
    return Status{Error::Invalid, 0, "find the tracker on USB"};
  }
  const ProductRow& row = *RowOf(fitting.front());
  if (product != 0 && product != row.product) {
    const ProductRow* const before = RowOf({{}, kVendor, product});
    why = Described(fitting.front()) + " is in place of the " +
          (before != nullptr ? before->model : IdsOf(kVendor, product)) + "; it is left alone";
    return Status{Error::NotFound, 0, "find the tracker on USB"};
  }
  auto line = UsbLine::Open(fitting.front(), row.pipes);
  if (!line.Ok()) {
    why = Described(fitting.front()) + ": " + UsbLine::ExplainFailure(line.status());
    return line.status();
  }
  return PolhemusUnit{std::move(*line), NameOf(fitting.front()), row.model, row.isPatriot,
                      row.product};
}

std::optional<PolhemusUnitFacts> DescribePolhemusUnit(const UsbDevice& device) {
  const ProductRow* const row = RowOf(device);
  if (row == nullptr) return std::nullopt;
  PolhemusUnitFacts facts{NameOf(device), row->model, {}, TypeOf(row->family)};
  if (row->use != Use::Ready) facts.advice = AdviceFor(device, row->family);
  return facts;
}

}  // namespace kinetrel
