#include "tests/support/free_slot.h"

#include <unistd.h>

#include <stdexcept>

#include "tests/support/wait_until.h"

namespace kinetrel::test {
namespace {

constexpr int kDevices = 16;
constexpr int kBins = 16;

std::string BlockName(int device, int bin) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  return std::string("KinetrelShMem") + kDigits[device] + kDigits[bin];
}

}  // namespace

FreeSlot::FreeSlot() {
  if (!WaitUntil([this] { return Take(); }, std::chrono::minutes(2))) {
    throw std::runtime_error("no free shared-memory slot");
  }
}

FreeSlot::~FreeSlot() { Unlock(); }

bool FreeSlot::Take() {
  // From a different start in every process: tests that run at once seldom try the same number. On
  // Windows the numbers of processes are multiples of 4.
  const int process = ::getpid();
  for (int i = 0; i < kDevices; ++i) {
    device_ = (process + process / 4 + i) % kDevices;
    bool free = Lock("kinetrel-test-slot-" + std::to_string(device_));
    for (int bin = 0; free && bin < kBins; ++bin) free = !IsUsed(BlockName(device_, bin));
    if (free) {
      RemoveAbandonedStream(slot());
      return true;
    }
    Unlock();
  }
  return false;
}

}  // namespace kinetrel::test
